#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <set>

#include "BASE/TempDir.h"
#include "CVEKPCAPDump.h"
#include "TestSupport.h"

namespace {

constexpr int NO_LIMIT = INT_MAX;

// The contents of all captures, in the order of their names.
std::string ReadAll(const TempDir& dir) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir.Path())) {
        names.insert(entry.path().filename());
    }
    std::string text;
    for (const auto& name : names) {
        text += dir.Read(name);
    }
    return text;
}

uint32_t Number(const std::string& text, size_t at) {
    uint32_t number = 0;
    memcpy(&number, text.data() + at, sizeof number);
    return number;
}

// Files of this process cannot grow further meanwhile.
class FileSizeLimit {
  public:
    explicit FileSizeLimit(rlim_t size) { Set(size, SIG_IGN); }
    ~FileSizeLimit() { Set(RLIM_INFINITY, SIG_DFL); }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

  private:
    static void Set(rlim_t size, sighandler_t handler) {
        signal(SIGXFSZ, handler);
        const rlimit limit = {size, RLIM_INFINITY};
        setrlimit(RLIMIT_FSIZE, &limit);
    }
};

TEST(PCAPDump, WritesFilesByteForByte) {
    const TempDir dir;
    timeval now{};
    gettimeofday(&now, nullptr);
    {
        CVEKPCAPDump dump;
        EXPECT_FALSE(dump.Write("early", 5));
        ASSERT_TRUE(dump.Initialize(dir.Path().c_str(), "n", NO_LIMIT, "10.1.2.3", "no address"));
        EXPECT_FALSE(dump.Write("none", 0));
        EXPECT_TRUE(dump.Write(std::string(100, 'p').c_str(), 100));
    }
    std::string text = ReadAll(dir);
    ASSERT_EQ(text.size(), 24U + 16 + 42 + 100);
    EXPECT_LE(Number(text, 24) - static_cast<uint32_t>(now.tv_sec), 60U);
    EXPECT_LT(Number(text, 28), 1000000U);
    text.replace(24, 8, "");
    const unsigned char expected[] = {0xd4, 0xc3, 0xb2, 0xa1, 2,   0,   4,    0,   0,  0,  0, 0,
                                      0,    0,    0,    0,    80,  0,   0,    0,   1,  0,  0, 0,  //
                                      142,  0,    0,    0,    142, 0,   0,    0,                  //
                                      0,    1,    1,    0,    0,   2,   0,    1,   1,  0,  0, 1,
                                      8,    0,  //
                                      0x45, 2,    0,    128,  0,   0,   0x40, 0,   64, 17, 0, 0,
                                      10,   1,    2,    3,    255, 255, 255,  255,  //
                                      0x0f, 0x1c, 0x0f, 0x1c, 0,   108, 0,    0};
    EXPECT_EQ(text.substr(0, sizeof expected), std::string(expected, std::end(expected)));
}

// The 16-bit lengths of IPv4 and UDP hold 65507 bytes of payload.
TEST(PCAPDump, SplitsWhatIsTooLongForOnePacket) {
    const TempDir dir;
    CVEKPCAPDump dump;
    ASSERT_TRUE(dump.Initialize(dir.Path().c_str(), "n", NO_LIMIT, "1.1.1.1", "1.1.1.2"));
    EXPECT_TRUE(dump.Write(std::string(65507 + 1, 'p').c_str(), 65507 + 1));
    dump.Finalize();
    const std::string text = ReadAll(dir);
    ASSERT_EQ(text.size(), 24U + 58 + 65507 + 58 + 1);
    EXPECT_EQ(text.substr(24 + 32, 2), "\xff\xff");
    EXPECT_EQ(Number(text, 24 + 58 + 65507 + 8), 43U);
}

TEST(PCAPDump, FailuresAreLoggedAndTriedAnew) {
    const TempDir dir;
    const std::string path = dir.Path("gone");
    std::filesystem::create_directory(path);
    const std::string log = Capture([&] {
        CVEKPCAPDump dump;
        EXPECT_FALSE(
            dump.Initialize(path.c_str(), "n", 100, "1.1.1.1", std::string(64, '1').c_str()));
        ASSERT_TRUE(dump.Initialize(path.c_str(), "n", 100, "1.1.1.1", "1.1.1.2"));
        EXPECT_TRUE(dump.Write(std::string(77, 'p').c_str(), 77));  // 101 with the header
        std::filesystem::remove_all(path);
        EXPECT_FALSE(dump.Write("lost", 4));
        EXPECT_FALSE(dump.Write("lost", 4));
        std::filesystem::create_directory(path);
        EXPECT_TRUE(dump.Write("kept", 4));
        const FileSizeLimit full(30000);
        EXPECT_FALSE(dump.Write(std::string(60000, 'p').c_str(), 60000));
    });
    EXPECT_EQ(Count(log, "capture path, name or address too long!..."), 1U) << log;
    EXPECT_EQ(Count(log, "[2-No such file or directory]fopen(" + path + "/n.20"), 2U) << log;
    EXPECT_GE(Count(log, "[27-File too large]fwrite() failed..."), 1U) << log;
}

}  // namespace
