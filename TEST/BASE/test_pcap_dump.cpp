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
        EXPECT_TRUE(dump.Write(bytes.c_str(), 100) && dump.Write(bytes.c_str(), 65508));
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
    const std::string path = dir.Path("gone"), much(77, '1');
    const std::string log = Capture([&] {
        CVEKPCAPDump dump;
        dump.SetWholePackets(true);
        EXPECT_FALSE(dump.Initialize(path.c_str(), "n", 100, "1.1.1.1", much.c_str()));
        std::filesystem::create_directory(path);
        ASSERT_TRUE(dump.Initialize(path.c_str(), "n", 100, "1.1.1.1", "1.1.1.2"));
        EXPECT_TRUE(dump.Write(much.c_str(), 77));  // one byte above the limit, with the header
        std::filesystem::remove_all(path);
        EXPECT_FALSE(dump.Write("lost", 4));
        std::filesystem::create_directory(path);
        EXPECT_TRUE(dump.Write("kept", 4));
        EXPECT_EQ(std::filesystem::directory_iterator(path)->file_size(), 24U + 58 + 4);
    });
    EXPECT_EQ(Count(log, "capture path, name or address too long!..."), 1U) << log;
    EXPECT_EQ(Count(log, "[2-No such file or directory]fopen(" + path + "/n.20"), 1U) << log;
}

TEST(PCAPDump, LeavesOutWhatAFullDiskRefusesOnRequest) {
    const TempDir dir;
    const std::string bytes(100, 'p');
    const std::string log = Capture([&] {
        CVEKPCAPDump dump;
        dump.SetWholePackets(true);
        for (const unsigned long size : {10, 200}) {  // not even the header, a part of the second packet
            const FullDisk full(size);
            EXPECT_EQ(dump.Initialize(dir.Path().c_str(), "n", INT_MAX, "10.1.2.3", "10.1.2.4"), size == 200);
            EXPECT_EQ(std::filesystem::is_empty(dir.Path()), size == 10);
            EXPECT_EQ(dump.Write(bytes.c_str(), 100), size == 200);
            EXPECT_FALSE(dump.Write(bytes.c_str(), 100) || dump.Write(bytes.c_str(), 99));
        }
        EXPECT_TRUE(dump.Write("next", 4) && dump.Write("last", 4));
    });
    const std::string text = dir.Read(std::filesystem::directory_iterator(dir.Path())->path().filename());
    EXPECT_EQ(text.size(), 24U + 58 + 100 + 58 + 4 + 58 + 4);
    EXPECT_EQ(text.substr(24 + 58 + 100 + 58, 4) + text.substr(text.size() - 4), "nextlast");
    EXPECT_EQ(Count(log, "[28-No space left on device]fwrite() failed, chunks are left out..."), 2U) << log;
    EXPECT_EQ(FindAll(log, "Warning.*capture goes on, chunks left out\\(([0-9]+)\\)"),
              std::vector<std::string>({"3", "2"}))
        << log;
}

}  // namespace
