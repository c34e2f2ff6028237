#include <gtest/gtest.h>

#include <filesystem>

#include <climits>

#include "CVEKPCAPDump.h"
#include "TestSupport.h"

namespace {

TEST(PCAPDump, WritesFilesByteForByte) {
    const TempDir dir;
    const std::string bytes(65508, 'p');  // one too many for a packet
    {
        CVEKPCAPDump dump;
        ASSERT_TRUE(dump.Initialize(dir.Path().c_str(), "n", INT_MAX, "10.1.2.3", "no address"));
        EXPECT_TRUE(dump.Write(bytes.c_str(), 100));
        EXPECT_TRUE(dump.Write(bytes.c_str(), 65508));
    }
    std::string text = dir.Read(std::filesystem::directory_iterator(dir.Path())->path().filename());
    ASSERT_EQ(text.size(), 24U + 58 + 100 + 58 + 65507 + 58 + 1);
    EXPECT_EQ(text.substr(24 + 58 + 100 + 32, 2), "\xff\xff");
    text.erase(24, 8);  // the time
    const std::string expected(
        "\xd4\xc3\xb2\xa1\2\0\4\0\0\0\0\0\0\0\0\0\x50\0\0\0\1\0\0\0"
        "\x8e\0\0\0\x8e\0\0\0\0\1\1\0\0\2\0\1\1\0\0\1\x08\0"
        "\x45\2\0\x80\0\0\x40\0\x40\x11\0\0\x0a\1\2\3\xff\xff\xff\xff\x0f\x1c\x0f\x1c\0\x6c\0\0",
        74);
    EXPECT_EQ(text.substr(0, expected.size()), expected);
}

TEST(PCAPDump, FailuresAreLoggedAndTriedAnew) {
    const TempDir dir;
    const std::string path = dir.Path("gone");
    const std::string much(77, '1');
    const std::string log = Capture([&] {
        CVEKPCAPDump dump;
        EXPECT_FALSE(dump.Initialize(path.c_str(), "n", 100, "1.1.1.1", much.c_str()));
        std::filesystem::create_directory(path);
        ASSERT_TRUE(dump.Initialize(path.c_str(), "n", 100, "1.1.1.1", "1.1.1.2"));
        EXPECT_TRUE(dump.Write(much.c_str(), 77));  // one byte above the limit, with the header
        std::filesystem::remove_all(path);
        EXPECT_FALSE(dump.Write("lost", 4));
        std::filesystem::create_directory(path);
        EXPECT_TRUE(dump.Write("kept", 4));
    });
    EXPECT_EQ(Count(log, "capture path, name or address too long!..."), 1U) << log;
    EXPECT_EQ(Count(log, "[2-No such file or directory]fopen(" + path + "/n.20"), 1U) << log;
}

}  // namespace
