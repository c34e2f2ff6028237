// Compressed messages, and captures of a socket's traffic.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <thread>

#include "CVEKSocketNew.h"
#include "CVEKUtil.h"
#include "TestSupport.h"

namespace {

// Two connected sockets in looping mode.
struct Ends {
    Ends() {
        int fds[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
        near.SetFD(fds[0], nullptr, 0);
        far.SetFD(fds[1], nullptr, 0);
        near.SetIOMethod(VEK_SOCKET_IO_LOOP);
        far.SetIOMethod(VEK_SOCKET_IO_LOOP);
    }
    CVEKSocketNew near;
    CVEKSocketNew far;
};

std::string Frame(int length, int compressed, const std::string& block) {
    const int header[] = {length, compressed};
    return std::string(reinterpret_cast<const char*>(header), sizeof header) + block;
}

TEST(Compress, MessagesArriveIntact) {
    constexpr int MAX_SIZE = 300000;  // more than the socket holds: the ends meet midway
    const auto bound = static_cast<size_t>(CVEKUtil::LZ4_GetCompressBoundSize(MAX_SIZE));
    std::mt19937 random(1);
    std::string noise(MAX_SIZE, ' ');
    for (char& c : noise) {
        c = static_cast<char>(random());
    }
    const std::string messages[] = {"", "x", std::string(MAX_SIZE, 'x'), noise};
    Ends ends;
    ASSERT_TRUE(ends.near.InitCompress(bound) && ends.far.InitCompress(bound));
    std::thread sender([&] {
        for (const auto& message : messages) {
            EXPECT_EQ(static_cast<int>(message.size()),
                      ends.near.CompressSend(message.data(), message.size()));
        }
    });
    for (const auto& message : messages) {
        const std::unique_ptr<char[]> exact(new char[message.size()]);
        ASSERT_EQ(static_cast<int>(message.size()),
                  ends.far.DecompressRecv(exact.get(), message.size()));
        EXPECT_EQ(0, memcmp(exact.get(), message.data(), message.size()));
    }
    sender.join();
}

TEST(Compress, FrameLayout) {
    Ends ends;
    ASSERT_TRUE(ends.near.InitCompress(100));
    EXPECT_EQ(3, ends.near.CompressSend("abc", 3));
    char frame[64];
    EXPECT_EQ(12, recv(ends.far.GetSocket(), frame, sizeof frame, MSG_DONTWAIT));
    EXPECT_EQ(std::string("\3\0\0\0\4\0\0\0\x30"
                          "abc",
                          12),
              std::string(frame, 12));
}

TEST(Compress, RefusesFaultyFrames) {
    const char* doesNotFit = "compress buffer not initialized or overflow!";
    const char* doesNotDecode = "decompress failed...";
    const std::string abc(
        "\x30"
        "abc",
        4);
    const struct {
        std::string frame;
        const char* line;  // of the log, or null for none
    } cases[] = {
        {Frame(-1, 4, abc), doesNotFit},
        {Frame(3, -4, abc), doesNotFit},
        {Frame(INT_MAX, 4, abc), doesNotFit},
        {Frame(11, 4, abc), doesNotFit},
        {Frame(3, INT_MAX, abc), doesNotFit},
        {Frame(INT_MIN, INT_MIN, abc), doesNotFit},
        {Frame(3, 29, abc), doesNotFit},
        {Frame(3, 0, ""), doesNotDecode},
        {Frame(0, 0, ""), doesNotDecode},
        {Frame(2, 4, abc), doesNotDecode},
        {Frame(4, 4, abc), doesNotDecode},
        {Frame(3, 3, abc.substr(0, 3)), doesNotDecode},
        {Frame(3, 4, "").substr(0, 6), nullptr},
        {Frame(3, 5, abc), nullptr},
        {"", nullptr},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(testing::PrintToString(test.frame));
        Ends ends;
        ASSERT_TRUE(ends.far.InitCompress(20));
        ends.near.Send(test.frame.data(), test.frame.size());
        ends.near.Clear();
        const std::unique_ptr<char[]> exact(new char[10]);
        const std::string log =
            Capture([&] { EXPECT_EQ(-1, ends.far.DecompressRecv(exact.get(), 10)); });
        EXPECT_EQ(test.line == nullptr, log.empty()) << log;
        EXPECT_TRUE(test.line == nullptr || Count(log, test.line) == 1) << log;
    }
}

TEST(Compress, RefusesWhatItCannotSend) {
    const std::string log = Capture([] {
        Ends ends;
        EXPECT_EQ(-1, ends.near.CompressSend("", 0));
        EXPECT_FALSE(ends.near.InitCompress(INT_MAX - 7));
        ASSERT_TRUE(ends.near.InitCompress(100));
        const std::string text(100, 'x');
        EXPECT_EQ(-1, ends.near.CompressSend(text.data(), text.size()));
        EXPECT_EQ(-1, ends.near.CompressSend(text.data(), size_t{1} << 32));
        ends.far.Clear();
        EXPECT_EQ(-1, ends.near.CompressSend("abc", 3));
        ends.near.Clear();
        EXPECT_EQ(-1, ends.near.CompressSend("abc", 3));
    });
    EXPECT_EQ(3U, Count(log, "compress buffer does not initialized or overflow!..")) << log;
    EXPECT_EQ(1U, Count(log, "dest buffer size overflow!...(116,100)")) << log;
    EXPECT_EQ(1U, Count(log, "memory allocate failed!..")) << log;
}

TEST(Dump, HoldsWhatTheSocketCarried) {
    const TempFolder folder;
    const auto size = [&](const char* name) {
        for (const auto& entry : std::filesystem::directory_iterator(folder.Path())) {
            if (Count(entry.path().filename(), name) == 1) {
                return static_cast<int>(entry.file_size());
            }
        }
        return -1;
    };
    Ends ends;
    char text[16];
    const auto enable = [&](const std::string& path, const char* name) {
        return ends.far.EnableDump(path.c_str(), name, INT_MAX, "1.1.1.1", "1.1.1.2");
    };
    ASSERT_TRUE(enable(folder.Path(), "first"));
    EXPECT_EQ(10, ends.near.Send("head\ntail!", 10));
    EXPECT_EQ(5, ends.far.Recv(text, "\n", 10));  // not copied
    EXPECT_EQ(5, ends.far.Recv(text, 5));
    EXPECT_EQ(7, ends.far.Send("answer!", 7));
    ASSERT_TRUE(enable(folder.Path(), "second"));
    EXPECT_EQ(24 + 58 + 5 + 58 + 7, size("first"));
    ends.far.Clear();
    EXPECT_EQ(VEK_SOCKET_BROKEN, ends.far.Send("gone", 4));
    EXPECT_FALSE(enable(folder.Path("none"), "third"));
    EXPECT_EQ(24, size("second"));
}

}  // namespace
