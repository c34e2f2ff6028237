#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "BASE/TempDir.h"
#include "CVEKDirectory.h"
#include "CVEKUtil.h"

namespace {

using Texts = std::vector<std::string>;

TEST(Util, LoadsFiles) {
    const TempDir dir;
    const std::string path = dir.Write("file", "content");
    char buffer[8] = "";
    EXPECT_EQ(CVEKUtil::GetFileSize(path.c_str()), 7U);
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
    EXPECT_EQ(CVEKUtil::Hash("ab", 100000), 97U * 101 + 98);
    EXPECT_EQ(CVEKUtil::Hash("b\xff", 2, 100000), 98U * 101 - 1);
    EXPECT_EQ(CVEKUtil::Hash("\xff", -1), 0U);
    EXPECT_EQ(CVEKUtil::Hash("\xfe", -1), 0xfffffffeU);
}

TEST(Util, SplitsLinesWhateverTheQuotesSay) {
    const struct {
        const char* line;
        char sep;
        Texts fields;
    } cases[] = {
        {"a,b,", ',', {"a", "b"}},
        {"a,,b", ',', {"a", "", "b"}},
        {"\"x,y\",z", ',', {"x", "y\"", "z"}},
        {"a\"b\"c", '"', {"abc"}},
        {"", ',', {}},
        {",", ',', {""}},
    };
    for (const auto& c : cases) {
        Texts fields = {"before"};
        EXPECT_EQ(CVEKUtil::ParseCSV(c.line, c.sep, &fields), static_cast<int>(c.fields.size()));
        EXPECT_EQ(fields, c.fields) << c.line;
        char buffers[3][CVEKUtil::FIELD_SIZE];
        char* out[] = {buffers[0], buffers[1], buffers[2]};
        const int count = CVEKUtil::ParseCSV(c.line, c.sep, out);
        EXPECT_EQ(Texts(out, out + count), c.fields) << c.line;
    }
    auto exact = std::make_unique<char[]>(CVEKUtil::FIELD_SIZE);
    char* out[] = {exact.get()};
    EXPECT_EQ(CVEKUtil::ParseCSV(std::string(300, 'x').c_str(), ',', out), 1);
    EXPECT_EQ(std::string(exact.get()), std::string(255, 'x'));
    Texts tokens = {"before"};
    EXPECT_EQ(CVEKUtil::ParseCSV(" a  b,;c ", " ,;", tokens), 4);
    EXPECT_EQ(tokens, Texts({"before", "a", "b", "c"}));
}

TEST(Util, FormatsJSON) {
    const struct {
        const char *json, *text;
    } cases[] = {
        {R"({"a":[1,2]})", "{\n\t\"a\": [\n\t\t1,\n\t\t2\n\t]\n}"},
        {" { \n } ", "{\n}"},
        {R"(["{\",\\",  "b : c"])", "[\n\t\"{\\\",\\\\\",\n\t\"b : c\"\n]"},
        {"]]1", "\n]\n]1"},
    };
    for (const auto& c : cases) {
        std::string out = "> ";
        CVEKUtil::JSONPrettyFormatting(c.json, out);
        EXPECT_EQ(out, std::string("> ") + c.text);
    }
}

TEST(Directory, ListsWhatMatches) {
    const TempDir dir;
    for (const char* name : {"b.log", "a.log", "c.txt"}) {
        dir.Write(name, "four");
    }
    std::filesystem::create_directory(dir.Path("d.log"));
    CVEKDirectory directory;
    directory.Set(dir.Path().c_str(), "*.log");
    Texts paths = {"before"};
    EXPECT_TRUE(directory.Scan(paths, true));
    EXPECT_EQ(paths, Texts({dir.Path("a.log"), dir.Path("b.log")}));
    EXPECT_TRUE(directory.DirScan(paths, 1));
    EXPECT_EQ(paths, Texts({dir.Path("d.log")}));
    std::vector<std::pair<std::string, unsigned long>> sizes;
    directory.Set(nullptr, "c*");
    EXPECT_TRUE(directory.Scan(sizes, true));
    ASSERT_EQ(sizes.size(), 1U);
    EXPECT_EQ(sizes[0], std::make_pair(dir.Path("c.txt"), 4UL));
    directory.Set(nullptr, "");
    EXPECT_TRUE(directory.DirScan(paths, 1));
    EXPECT_EQ(paths, Texts({dir.Path("."), dir.Path(".."), dir.Path("d.log")}));
    std::filesystem::create_symlink(dir.Path("none"), dir.Path("dangling"));
    EXPECT_FALSE(directory.Scan(paths, true));
    directory.Set(dir.Path("none").c_str(), "*");
    EXPECT_FALSE(directory.Scan(paths, true));
    EXPECT_EQ(paths, Texts());
}

}  // namespace
