#include <gtest/gtest.h>

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
    EXPECT_EQ(1U, Count(runClient("70000").output, "20 messages, "));
    EXPECT_EQ(1U, Count(server.ReadUntil("closed"), "127.0.0.1: 20 messages, "));
    runClient("7000000");
    EXPECT_EQ(1U, Count(server.ReadUntil("refused"), "127.0.0.1: 0 messages, 0 bytes, refused"));
}

}  // namespace
