// The compressed pair as its user sees it.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>

#include "CVEKSocketNew.h"
#include "TestSupport.h"

namespace {

const std::string CLIENT = VEK_BIN_DIR "/test_compress_client";
const std::string SERVER = VEK_BIN_DIR "/test_compress_server";

TEST(CompressPrograms, ExchangeMessages) {
    Process server({SERVER, "-p", "0", "-b", "70000"});
    const std::string text = "listening on port ";
    const std::string port = std::to_string(std::stoi(server.ReadUntil("\n").substr(text.size())));
    const auto runClient = [&](const char* size) {
        return RunProgram({CLIENT, "-h", "127.0.0.1", "-p", port, "-c", "20", "-b", size});
    };
    const Result result = runClient("70000");
    EXPECT_EQ(0, result.status) << result.error;
    EXPECT_EQ(1U, Count(result.output, "20 messages, "));
    EXPECT_EQ(1U, Count(server.ReadUntil("closed"), "127.0.0.1: 20 messages, "));
    const int fd = CVEKSocketNew::CONNECT("127.0.0.1", std::stoi(port), 10);
    EXPECT_EQ(12, send(fd, "no messages!", 12, 0));
    EXPECT_EQ(1U, Count(server.ReadUntil("refused"), "127.0.0.1: 0 messages, 0 bytes, refused"));
    close(fd);
    EXPECT_EQ(1, runClient("7000000").status);
    server.Signal(SIGTERM);
    EXPECT_EQ(-SIGTERM, server.Wait());
    const Result unserved = runClient("1");
    EXPECT_EQ(1, unserved.status);
    EXPECT_EQ(1U, Count(unserved.error, "cannot connect to 127.0.0.1 port " + port));
}

TEST(CompressPrograms, RejectBadArguments) {
    const std::vector<std::string> commands[] = {
        {SERVER},
        {SERVER, "-p", "0", "-b", "0"},
        {SERVER, "-p", "0", "stray"},
        {CLIENT, "-p", "7000"},
        {CLIENT, "-h", "127.0.0.1", "-p", "0"},
    };
    for (const auto& command : commands) {
        const Result result = RunProgram(command);
        EXPECT_EQ(1, result.status);
        EXPECT_EQ(1U, Count(result.error, "usage: ")) << result.error;
    }
}

}  // namespace
