#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "CVEKSocketNew.h"
#include "TestSupport.h"

namespace {

const std::string CLIENT = VEK_BIN_DIR "/test_compress_client";
const std::string SERVER = VEK_BIN_DIR "/test_compress_server";

TEST(CompressPrograms, ExchangeMessages) {
    Process server({SERVER, "-p", "0", "-b", "70000"});
    const std::string port = server.ReadUntil("\n").substr(sizeof "listening on port");
    const auto runClient = [&](const char* size) {
        return RunProgram({CLIENT, "-h", "127.0.0.1", "-p", std::to_string(std::stoi(port)), "-c", "20", "-b", size});
    };
    const Result whole = runClient("70000");
    EXPECT_EQ(0, whole.status);
    EXPECT_EQ(1U, Count(whole.output, "20 messages, "));
    EXPECT_EQ(1U, Count(server.ReadUntil("closed"), "127.0.0.1: 20 messages, "));
    EXPECT_EQ(1, runClient("7000000").status);
    EXPECT_EQ(1U, Count(server.ReadUntil("refused"), "127.0.0.1: 0 messages, 0 bytes, refused"));
}

// Peers that say nothing, or a byte now and then, keep nobody waiting and are ended.
TEST(CompressPrograms, ServeOthersMeanwhile) {
    Process server({SERVER, "-p", "0", "-t", "1"});
    const int port = std::stoi(server.ReadUntil("\n").substr(sizeof "listening on port"));
    const int silent = CVEKSocketNew::CONNECT("127.0.0.1", port, 1);
    const int slow = CVEKSocketNew::CONNECT("127.0.0.1", port, 1);
    std::atomic<bool> isOver{false};
    std::thread drip([&] {
        send(slow, "\x64\0\0\0\x64\0\0", 8, MSG_NOSIGNAL);
        while (!isOver && send(slow, "\1", 1, MSG_NOSIGNAL) == 1) { usleep(100000); }
    });
    const Result client = RunProgram({CLIENT, "-h", "127.0.0.1", "-p", std::to_string(port), "-c", "20"});
    EXPECT_EQ(1U, Count(client.output, "20 messages, ")) << client.error;
    server.ReadUntil("20 messages, ");
    EXPECT_EQ(0U, Count(server.Output(), "too slow"));
    const std::string slowLine = "127.0.0.1: 0 messages, 0 bytes, too slow\n";
    server.ReadUntil(slowLine + slowLine);
    isOver = true;
    drip.join();
    close(silent);
    close(slow);
}

}  // namespace
