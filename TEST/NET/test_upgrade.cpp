// Both sides of the HTTP/1.1 upgrade, against text that a well-behaved peer would not send.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <thread>

#include "CVEKHttp2Request.h"
#include "CVEKHttp2Response.h"
#include "RawPeer.h"
#include "TestSupport.h"
#include "VEKHttp2Upgrade.h"

namespace {

const std::string GOOD =
    "Host: h\r\nConnection: Upgrade, HTTP2-Settings\r\nUpgrade: h2c\r\n"
    "HTTP2-Settings: AAMAAABkAAQAAQAAAAUAAEAAAAEAAABAAAIAAAAA\r\n";

TEST(Upgrade, ServerSide) {
    const std::string root = "GET / HTTP/1.1\r\n" + GOOD;
    const std::string ping = "POST /ping HTTP/1.1\r\n" + GOOD;
    const struct {
        std::vector<std::string> pieces;
        const char* line;  // "" when the upgrade goes through
        const char* body;  // of the request on stream 1, null for none
    } cases[] = {
        {{root + "\r\n"}, "", nullptr},
        {{root.substr(0, 20), root.substr(20), "\r", "\n"}, "", nullptr},
        {{"GET /ping HTTP/1.1\r\nupgrade: H2C\r\n\r\n"}, "", ""},
        {{ping + "Content-Length: 5\r\n\r\nhello"}, "", "hello"},
        {{ping + "Content-Length: 5\r\n\r\n", "hel", "lo"}, "", "hello"},
        {{ping + "Content-Length: none\r\n\r\n"}, "", ""},
        {{ping + "Content-Length: -5\r\n\r\n"}, "length(-5) invalid!...", nullptr},
        {{ping + "Content-Length: 2000\r\n\r\n" + std::string(2000, 'x')}, "", ""},  // no room
        {{ping + "Empty:\r\n\r\n"}, "", ""},
        {{ping + "HTTP2-Settings: " + std::string(300, 'A') + "\r\n\r\n"},
         "nghttp2_session_upgrade2() failed!...",
         nullptr},
        {{ping + "Content-Length: 10\r\n\r\nhello"}, " with request...(payload=10)", nullptr},
        {{ping + "Content-Length: 99999999999999999999\r\n\r\n"}, "invalid!...", nullptr},
        {{"GET / HTTP/1.1\r\nUpgrade:h2c\r\n\r\n"}, "HTTP 1.1 Upgrade header empty!..", nullptr},
        {{root + "nocolon\r\n\r\n"}, "HTTP/1.1 Header item parse failed!...", nullptr},
        {{"GET /\r\n" + GOOD + "\r\n"}, "first_line(GET /) parse failed!..", nullptr},
        {{"\r\n\r\n\r\n\r\n\r\n"}, "HTTP/1.1 Header line parse failed!...", nullptr},
        {{root + std::string("a: \0b\r\n\r\n", 9)}, "HTTP/1.1 Header line parse failed!...", nullptr},
        {{std::string(5000, 'x')}, "HTTP/1.1 receive failed!..", nullptr},
        {{"GET / HT", ""}, "HTTP/1.1 receive failed!..", nullptr},  // then the peer closes
        {{"GET / HT"}, "Receive HTTP/2 upgrade request. timeout!..", nullptr},
        {{}, "Receive HTTP/2 upgrade request. timeout!..", nullptr},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.pieces.empty() ? "silence" : test.pieces[0].substr(0, 40) + test.line);
        int fds[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
        RawSocket client(fds[0]);
        std::thread sender([&] {
            for (const std::string& piece : test.pieces) {
                client.Send(piece);
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
            if (!test.pieces.empty() && test.pieces.back().empty()) { shutdown(fds[0], SHUT_WR); }
        });
        VEK_ST_HTTP2_OPTIONS options{};
        CVEKHttp2Response connection;
        EXPECT_TRUE(connection.Initialize("up", &options));
        bool isUp = false;
        const std::string log = Capture([&] { isUp = connection.Accept(fds[1], "127.0.0.1", 1, true); });
        sender.join();
        EXPECT_EQ(*test.line == '\0', isUp) << log;
        EXPECT_LE(1U, Count(log, test.line) + (isUp ? 1U : 0U)) << log;
        VEK_ST_HTTP2_REQUEST_RECV request;
        EXPECT_EQ(test.body == nullptr ? (isUp ? 0 : -1) : 1, connection.Request(&request));
        if (isUp && test.body != nullptr) {
            EXPECT_EQ(1, request.streamId_);
            EXPECT_EQ(test.body, std::string(request.data_, request.size_));
            EXPECT_EQ((std::pair<std::string, std::string>(":path", "/ping")), request.hdr_->at(1));
            EXPECT_EQ(Count(test.pieces[0], "2000"), static_cast<size_t>(request.error_));
        }
    }
}

TEST(Upgrade, ClientSide) {
    const std::pair<std::vector<std::string>, bool> cases[] = {
        {{HTTP2_UPGRADE_RESPONSE}, true},
        {{"HTTP/1.1 101 Swit", "ching Protocols\r\nUpgrade: h2c\r\n\r\n"}, true},
        {{"h2c anywhere, 101 too\r\n\r\n"}, true},
        {{"HTTP/1.1 200 OK\r\nUpgrade: h2c\r\n\r\n"}, false},
        {{"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n\r\n"}, false},
        {{std::string(5000, 'x')}, false},
        {{""}, false},
    };
    for (const auto& [pieces, isAccepted] : cases) {
        SCOPED_TRACE(pieces[0].substr(0, 40));
        std::string head;
        {
            RawPeer peer(
                [&, &answer = pieces](RawPeer& self) {
                    while (head.find("\r\n\r\n") == std::string::npos) { head += self.ReadText(1); }
                    for (const std::string& piece : answer) {
                        self.Send(piece);
                        std::this_thread::sleep_for(std::chrono::milliseconds(10));
                    }
                },
                false);
            VEK_ST_HTTP2_OPTIONS options{};
            CVEKHttp2Request connection;
            EXPECT_TRUE(connection.Initialize("up", &options));
            EXPECT_EQ(isAccepted, connection.Connect("127.0.0.1", peer.Port(), false));
        }
        EXPECT_EQ("GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n" + GOOD.substr(9) + "\r\n", head);
    }
}

// Announcing the default settings gives the token above; the codec agrees with known texts.
TEST(Upgrade, Base64) {
    const std::pair<std::string, std::string> known[] = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foobar", "Zm9vYmFy"}};
    for (const auto& [bytes, text] : known) {
        EXPECT_EQ(text, VEK_BASE64_ENCODE(bytes.data(), bytes.size()));
        EXPECT_EQ(bytes, VEK_BASE64_DECODE(text));
        std::string token = text;
        to_token68(token);
        EXPECT_EQ(text, to_base64(token));
    }
    for (const char* bad : {"Zg=", "Z===", "====", "Zg==Zg==", "Zm8 ", "Zm=8", "Zg=A", "\nZm8"}) {
        EXPECT_EQ("", VEK_BASE64_DECODE(bad)) << bad;
    }
    std::string token = "+/+/=x";
    to_token68(token);
    EXPECT_EQ("-_-_", token);
    EXPECT_EQ("+/+/", to_base64(token));
}

}  // namespace
