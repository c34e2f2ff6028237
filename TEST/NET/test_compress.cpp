#include <sys/socket.h>

#include <climits>
#include <memory>

#include "CVEKSocketNew.h"
#include "TestSupport.h"

namespace {

// Two connected sockets; near sends, far receives.
struct Ends {
    Ends() {
        int fds[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
        EXPECT_TRUE(far.InitCompress(20));
        near.SetFD(fds[0], nullptr, 0);
        far.SetFD(fds[1], nullptr, 0);
    }
    CVEKSocketNew near, far;
};

// The header with these lengths, and abc as LZ4 has it.
std::string Frame(int length, int compressed) {
    const int header[] = {length, compressed};
    return std::string(reinterpret_cast<const char*>(header), sizeof header) +
           "\x30"
           "abc";
}

TEST(Compress, RefusesFaultyFrames) {
    const char* size = "compress buffer not initialized or overflow!";
    const char* block = "decompress failed...";
    const std::pair<std::string, const char*> cases[] = {
        {Frame(-1, 4), size},      {Frame(3, -4), size}, {Frame(INT_MAX, 4), size}, {Frame(11, 4), size},
        {Frame(3, INT_MAX), size}, {Frame(3, 29), size}, {Frame(3, 0), block},      {Frame(0, 0), block},
        {Frame(2, 4), block},      {Frame(4, 4), block}, {Frame(3, 3), block},      {Frame(3, 28).substr(0, 6), ""},
        {Frame(3, 5), ""}};
    for (const auto& [frame, line] : cases) {
        Ends ends;
        ends.near.Send(frame.data(), frame.size());
        ends.near.Clear();
        const auto exact = std::make_unique<char[]>(10);
        const std::string log = Capture([&] { EXPECT_EQ(-1, ends.far.DecompressRecv(exact.get(), 10)); });
        EXPECT_TRUE(*line == '\0' ? log.empty() : Count(log, line) == 1) << frame << log;
    }
}

TEST(Compress, SendsFramesOrRefuses) {
    const std::string log = Capture([] {
        Ends ends;
        EXPECT_EQ(-1, ends.near.CompressSend("", 0));
        EXPECT_FALSE(ends.near.InitCompress(INT_MAX - 7));
        ASSERT_TRUE(ends.near.InitCompress(100));
        std::string text(100, 'x');
        EXPECT_EQ(-1, ends.near.CompressSend(text.data(), 100));
        EXPECT_EQ(-1, ends.near.CompressSend(text.data(), size_t{1} << 32));
        EXPECT_EQ(3, ends.near.CompressSend("abc", 3));
        EXPECT_EQ(12, recv(ends.far.GetSocket(), text.data(), 100, MSG_DONTWAIT));
        EXPECT_EQ(Frame(3, 4), text.substr(0, 12));
    });
    EXPECT_EQ(2U, Count(log, "compress buffer does not initialized or overflow!..")) << log;
    EXPECT_EQ(1U, Count(log, "dest buffer size overflow!...(116,100)")) << log;
    EXPECT_EQ(1U, Count(log, "memory allocate failed!..")) << log;
}

}  // namespace
