#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "CVEKDirectory.h"
#include "CVEKUtil.h"
#include "TestSupport.h"
#include "VEKLogText.h"
#include "VEKStandardStream.h"

namespace {

using Texts = std::vector<std::string>;

thread_local std::string G_GROWING;  // the path of a file that is shown twice, the second time a byte larger

}  // namespace

// Takes the place of the C library's.
extern "C" dirent* readdir(DIR* stream) {
    static const auto NEXT = reinterpret_cast<dirent* (*)(DIR*)>(dlsym(RTLD_NEXT, "readdir"));
    static thread_local dirent* last = nullptr;
    if (last != nullptr && !G_GROWING.empty() && std::filesystem::path(G_GROWING).filename() == last->d_name) {
        std::ofstream(std::exchange(G_GROWING, ""), std::ios::app) << '.';
        return last;
    }
    return last = NEXT(stream);
}

namespace {

TEST(Util, LoadsFiles) {
    const TempDir dir;
    const std::string path = dir.Write("file", "content");
    char buffer[8] = "";
    EXPECT_TRUE(CVEKUtil::LoadFile(path.c_str(), buffer, 4));
    EXPECT_STREQ(buffer, "cont");
    EXPECT_FALSE(CVEKUtil::LoadFile(path.c_str(), buffer, 8));
    const std::unique_ptr<char, void (*)(void*)> whole(CVEKUtil::LoadFile(path.c_str()), free);
    EXPECT_EQ(std::string(whole.get(), 7), "content");
    EXPECT_EQ(CVEKUtil::LoadFile(dir.Write("empty", "").c_str()), nullptr);
    EXPECT_EQ(CVEKUtil::LoadFile(dir.Path().c_str()), nullptr);
    EXPECT_EQ(CVEKUtil::GetFileSize(dir.Path("none").c_str()), static_cast<unsigned long>(-1));
}

TEST(Util, HashesSignedBytes) {
    EXPECT_EQ(CVEKUtil::Hash("a", 10), 7U);
    EXPECT_EQ(CVEKUtil::Hash("b\xff", 2, 100000), 98U * 101 - 1);
    EXPECT_EQ(CVEKUtil::Hash("\xfe", -1), 0xfffffffeU);
}

// Splits into a vector and into buffers, which must agree.
Texts Split(const char* line, char sep) {
    Texts fields = {"before"};
    const int count = CVEKUtil::ParseCSV(line, sep, &fields);
    char buffers[3][CVEKUtil::FIELD_SIZE];
    char* out[] = {buffers[0], buffers[1], buffers[2]};
    EXPECT_EQ(CVEKUtil::ParseCSV(line, sep, out), count);
    EXPECT_EQ(Texts(out, out + count), fields);
    return fields;
}

TEST(Util, SplitsLinesWhateverTheQuotesSay) {
    EXPECT_EQ(Split("a,b,", ','), Texts({"a", "b"}));
    EXPECT_EQ(Split("a,,b", ','), Texts({"a", "", "b"}));
    EXPECT_EQ(Split("\"x,y\",z", ','), Texts({"x", "y\"", "z"}));
    EXPECT_EQ(Split("a\"b\"c", '"'), Texts({"abc"}));
    Texts tokens = {"before"};
    EXPECT_EQ(CVEKUtil::ParseCSV(" a  b,;c ", " ,;", tokens), 4);
    EXPECT_EQ(tokens, Texts({"before", "a", "b", "c"}));
}

std::string Format(const char* json) {
    std::string out = "> ";
    CVEKUtil::JSONPrettyFormatting(json, out);
    return out;
}

TEST(Util, FormatsJSON) {
    EXPECT_EQ(Format(R"({"a":[1,2]})"), "> {\n\t\"a\": [\n\t\t1,\n\t\t2\n\t]\n}");
    EXPECT_EQ(Format(" { \n } "), "> {\n}");
    EXPECT_EQ(Format(R"(["{\",\\",  "b : c"])"), "> [\n\t\"{\\\",\\\\\",\n\t\"b : c\"\n]");
}

TEST(Util, CompressesIntoNewBuffers) {
    char* block = nullptr;
    char* text = nullptr;
    const int size = CVEKUtil::LZ4_Compress("abcabcabcabc", 12, &block);
    EXPECT_EQ(CVEKUtil::LZ4_Decompress(block, size, &text, 11), -2);
    EXPECT_EQ(CVEKUtil::LZ4_Decompress(block, size, &text, -1), -1);
    EXPECT_EQ(CVEKUtil::LZ4_Decompress(block, size, &text, 12), 12);
    EXPECT_EQ(std::string(text, 12), "abcabcabcabc");
    EXPECT_EQ(CVEKUtil::LZ4_Decompress("", 1, text, 0), 0) << "a message of no bytes";
    EXPECT_EQ(CVEKUtil::LZ4_Compress(text, 0x7E000001, block, INT_MAX), -1);
    free(block);
    free(text);
}

TEST(LogText, EscapesAndCutsWhatOthersSent) {
    const struct {
        std::string text;
        size_t limit;
        std::string expected;
    } cases[] = {
        {"GET /a b~", 9, "GET /a b~"},
        {std::string("a\0b\r\n[Error  ]", 14), 99, "a\\x00b\\x0d\\x0a[Error  ]"},
        {"\x1b[2J\x7f\x80\xff\\x41", 99, "\\x1b[2J\\x7f\\x80\\xff\\x41"},
        {"0123456789", 9, "012345..."},
        {"01234\n6789", 9, "01234..."},
        {"01\n", 6, "01\\x0a"},
        {"01\n3", 6, "01..."},
        {"0123", 2, ".."},
        {"0", 0, ""},
        {std::string(257, 'x'), VEK_LOG_TEXT_LIMIT, std::string(253, 'x') + "..."},
    };
    for (const auto& each : cases) { EXPECT_EQ(VEK_ESCAPE_TEXT(each.text, each.limit), each.expected); }
}

TEST(StandardStreams, AreOpenAndLeftAlone) {
    EXPECT_EXIT(
        {
            for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) { close(fd); }
            VEK_OPEN_STANDARD_STREAMS();
            close(STDOUT_FILENO);
            const int moved = VEK_LEAVE_STANDARD_STREAMS(dup(STDIN_FILENO));
            const auto isOpen = [](int fd) { return fcntl(fd, F_GETFD) != -1; };
            _exit(isOpen(0) && isOpen(2) && moved > 2 && isOpen(moved) && !isOpen(1) ? 3 : 0);
        },
        testing::ExitedWithCode(3), "");
}

TEST(Directory, ListsWhatMatches) {
    const TempDir dir;
    for (const char* name : {"b.log", "a.log", "c.txt"}) { dir.Write(name, "four"); }
    std::filesystem::create_directory(dir.Path("d.log"));
    CVEKDirectory directory;
    directory.Set(dir.Path().c_str(), "*.log");
    Texts paths = {"before"};
    EXPECT_TRUE(directory.Scan(paths, true));
    EXPECT_EQ(paths, Texts({dir.Path("a.log"), dir.Path("b.log")}));
    std::vector<std::pair<std::string, unsigned long>> sizes;
    directory.Set(nullptr, "c*");
    EXPECT_TRUE(directory.Scan(sizes, true));
    EXPECT_EQ(sizes.at(0), std::make_pair(dir.Path("c.txt"), 4UL));
    G_GROWING = dir.Path("c.txt");
    EXPECT_TRUE(directory.Scan(sizes, true));
    ASSERT_EQ(sizes.size(), 2U);
    EXPECT_EQ(sizes[0].second + 1, sizes[1].second);
    directory.Set(nullptr, "");
    EXPECT_TRUE(directory.DirScan(paths, 1));
    EXPECT_EQ(paths, Texts({dir.Path("."), dir.Path(".."), dir.Path("d.log")}));
    std::filesystem::create_symlink(dir.Path("none"), dir.Path("dangling"));
    EXPECT_FALSE(directory.Scan(paths, true));
    directory.Set(dir.Path("none").c_str(), "*");
    EXPECT_FALSE(directory.Scan(paths, true));
}

}  // namespace
