// The server's side of the HTTP/1.1 upgrade, against text that a well-behaved peer would not send.
#include <sys/socket.h>

#include <numeric>
#include <thread>

#include "CVEKHttp2Response.h"
#include "RawPeer.h"
#include "TestSupport.h"
#include "VEKHttp2Option.h"
#include "VEKHttp2Upgrade.h"

namespace {

TEST(Upgrade, ServerSide) {
    const std::string good = "Host: h\r\nUpgrade: h2c\r\nHTTP2-Settings: AAMAAABkAAQAAQAAAAUAAEAAAAEAAABAAAIAAAAA\r\n";
    const std::string root = "GET / HTTP/1.1\r\n" + good, ping = "POST /ping HTTP/1.1\r\n" + good;
    const char* const length = "5upgrade request's body length is invalid";
    const struct {
        std::vector<std::string> pieces;
        const char* line;                                      // "" when the upgrade goes through
        const char* body;                                      // of the request on stream 1, null for none
        const char* reason = "5upgrade request is malformed";  // and which failure it is
    } cases[] = {
        {{root + "\r\n"}, "", nullptr},
        {{root.substr(0, 20), root.substr(20), "\r", "\n"}, "", nullptr},
        {{"GET /ping HTTP/1.1\r\nupgrade: H2C\r\n\r\n"}, "", ""},
        {{ping + "Content-Length: 5\r\n\r\n", "hel", "lo"}, "", "hello"},
        {{ping + "Content-Length: none\r\n\r\n"}, "", ""},
        {{ping + "Content-Length: -5\r\n\r\n"}, "length(-5) invalid!...", nullptr, length},
        {{ping + "Content-Length: 2000\r\n\r\n" + std::string(2000, 'x')}, "", ""},  // no room
        {{ping + "Empty:\r\n\r\n"}, "", ""},
        {{ping + "HTTP2-Settings: " + std::string(300, 'A') + "\r\n\r\n"},
         "session_upgrade2() failed!...",
         nullptr,
         "19session cannot be set up"},
        {{ping + "Content-Length: 10\r\n\r\nhello"}, " with request...(payload=10)", nullptr, "8upgrade timeout"},
        {{ping + "Content-Length: 1048577\r\n\r\n"}, "length(1048577) invalid!...", nullptr, length},
        {{ping + "Content-Length: 99999999999999999999\r\n\r\n"}, "invalid!...", nullptr, length},
        {{"GET / HTTP/1.1\r\nUpgrade:h2c\r\n\r\n"}, "HTTP 1.1 Upgrade header empty", nullptr, "5no upgrade asked for"},
        {{root + "nocolon\r\n\r\n"}, "HTTP/1.1 Header item parse failed!...", nullptr},
        {{"GET /\r\n" + good + "\r\n"}, "first_line(GET /) parse failed!..", nullptr},
        {{"\r\n\r\n\r\n\r\n\r\n"}, "HTTP/1.1 Header line parse failed!...", nullptr},
        {{root + std::string("a: \0b\r\n\r\n", 9)}, "HTTP/1.1 Header line parse failed!...", nullptr},
        {{"[Error  ]forged\x1b \r\n[Error  ]forged\r\n" + good + "\r\n"},
         "([Error  ]forged\\x1b ) parse failed!",
         nullptr},
        {{"GET /ping\x1b[2Jforged HTTP/1.1\r\n" + good + "\r\n"}, "", ""},
        {{std::string(5000, 'x')}, "HTTP/1.1 receive failed!..", nullptr, "5upgrade request cannot be read"},
    };
    G_VEK_HTTP2_DETAIL_LOG = true;
    for (const auto& test : cases) {
        SCOPED_TRACE(test.pieces[0].substr(0, 40) + test.line);
        int fds[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
        RawSocket client(fds[0]);
        std::thread sender([&] {
            for (const std::string& piece : test.pieces) {
                client.Send(piece);
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        });
        VEK_ST_HTTP2_OPTIONS options{};
        CVEKHttp2Response connection;
        EXPECT_TRUE(connection.Initialize("up", &options));
        bool isUp = false;
        const std::string log = Capture([&] { isUp = connection.Accept(fds[1], "127.0.0.1", 1, true); });
        sender.join();
        EXPECT_EQ(*test.line == '\0', isUp) << log;
        const VEK_ST_HTTP2_ERROR error = connection.GetError();
        EXPECT_EQ(isUp ? "0" : test.reason, std::to_string(error.failure_) + error.reason_);
        EXPECT_LE(1U, Count(log, test.line) + (isUp ? 1U : 0U)) << log;
        EXPECT_EQ(0U, FindAll(log, "^.Error  .forged|\x1b").size()) << log;
        const std::string all = std::accumulate(test.pieces.begin(), test.pieces.end(), std::string());
        const std::string head = all.substr(0, all.find("\r\n\r\n") + 4);
        EXPECT_LE(isUp && Count(all, "forged") == 0 ? 1U : 0U, Count(log, " HTTP/1.1 received...[\n" + head + ":"))
            << log;
        VEK_ST_HTTP2_REQUEST_RECV request;
        EXPECT_EQ(test.body == nullptr ? (isUp ? 0 : -1) : 1, connection.Request(&request));
        if (isUp && test.body != nullptr) {
            EXPECT_EQ(1, request.streamId_);
            EXPECT_EQ(test.body, std::string(request.data_, request.size_));
            EXPECT_EQ("/ping", request.hdr_->at(1).second.substr(0, 5));
            if (Count(all, "Host") > 0) { EXPECT_EQ("h", request.hdr_->at(3).second); }
            EXPECT_EQ(Count(test.pieces[0], "2000"), static_cast<size_t>(request.error_));
        }
    }
    G_VEK_HTTP2_DETAIL_LOG = false;
}

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
