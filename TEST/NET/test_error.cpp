// Why a connection could not be set up, or has ended.
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <type_traits>

#include "CVEKHttp2Request.h"
#include "CVEKHttp2Response.h"
#include "NetTest.h"
#include "TlsSupport.h"
#include "VEKCommonOpenSSL.h"

namespace {

// A context where isEvent stands must not compile.
const auto CONNECT = [](auto last) -> decltype(CVEKHttp2Request().Connect("", 1, last)) { return false; };
const auto TAIL = [](auto last) -> decltype(CVEKHttp2Request().Connect("", last)) { return false; };
const auto START = [](auto last) -> decltype(CVEKHttp2Request().StartConnect(nullptr, "", 1, last)) { return false; };
const auto ACCEPT = [](auto last) -> decltype(CVEKHttp2Response().Accept(1, "", 1, last)) { return false; };
const auto TAKE = [](auto last) -> decltype(CVEKHttp2Response().StartAccept(1, "", 1, last)) { return false; };
const auto DETECT = [](auto last) -> decltype(CVEKHttp2Response().StartAcceptAny(1, "", 1, last)) { return false; };
template <class T>
constexpr int TAKERS = std::is_invocable_v<decltype(CONNECT), T> + std::is_invocable_v<decltype(TAIL), T> +
                       std::is_invocable_v<decltype(START), T> + std::is_invocable_v<decltype(ACCEPT), T> +
                       std::is_invocable_v<decltype(TAKE), T> + std::is_invocable_v<decltype(DETECT), T>;
static_assert(TAKERS<SSL_CTX*> + TAKERS<const SSL_CTX*> + TAKERS<std::nullptr_t> == 0);
static_assert(TAKERS<bool> == 6 && TAKERS<int> == 6);

TEST(Error, HasAText) {
    const std::pair<int, const char*> cases[] = {
        {0, "none"}, {9, "internal error!"}, {10, "unknown..."}, {-1, "unknown..."}};
    for (const auto& [code, text] : cases) { EXPECT_STREQ(text, VEK_HTTP2_GET_ERROR_MSG(code)); }
}

TEST(Error, OfASetUp) {
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> tls(VEK_SSL_CREATE_CLIENT_CTX(nullptr, nullptr, nullptr),
                                                                SSL_CTX_free);
    CVEKHttp2Request connection;
    const VEK_ST_HTTP2_OPTIONS options = Options(1);
    ASSERT_TRUE(connection.Initialize("error", &options));
    Policy policy;
    policy.handshakeMs_ = policy.upgradeMs_ = 50;
    // port: 0 for a peer that says `text`.
    const auto check = [&](VEK_HTTP2_FAILURE failure, int port, const char* text, SSL_CTX* ctx, bool isUpgrade) {
        SCOPED_TRACE(VEK_HTTP2_FAILURE_TEXT(failure));
        const auto script = [text](RawPeer& self) {
            self.Send(text);
            self.ReadUntil(-1);
        };
        const RawPeer peer(script, false);
        port = port != 0 ? port : peer.Port();
        connection.SetPolicy(policy);
        EXPECT_FALSE(isUpgrade ? connection.Connect("127.0.0.1", port, false)
                               : connection.Connect("127.0.0.1", port, ctx, false));
        const VEK_ST_HTTP2_ERROR error = connection.GetError();
        EXPECT_EQ(failure, error.failure_) << error.text_;
        const int late = failure == VEK_HTTP2_FAILURE_CONNECT_TIMEOUT ? ETIMEDOUT : 0;
        EXPECT_EQ(failure == VEK_HTTP2_FAILURE_CONNECT ? ECONNREFUSED : late, error.errno_);
        EXPECT_EQ(failure == VEK_HTTP2_FAILURE_RESOLVE, error.resolverError_ != 0);
        const int unfinished = failure == VEK_HTTP2_FAILURE_HANDSHAKE_TIMEOUT ? VEK_TLS_CAUSE_UNFINISHED : 0;
        EXPECT_EQ(failure == VEK_HTTP2_FAILURE_TLS ? VEK_TLS_CAUSE_NOT_TLS : unfinished, error.tlsCause_);
        EXPECT_GT(strlen(error.text_), strlen(VEK_HTTP2_FAILURE_TEXT(failure)));  // and says more
        connection.Disconnect();
    };
    for (const uint32_t limit : {0U, 50U}) {
        policy.connectMs_ = limit;
        check(VEK_HTTP2_FAILURE_RESOLVE, 70000, "", nullptr, false);
        check(VEK_HTTP2_FAILURE_CONNECT, FreePort(), "", nullptr, false);
        check(VEK_HTTP2_FAILURE_TLS, 0, "HTTP/1.1 400 Bad\r\n\r\n", tls.get(), false);
        check(VEK_HTTP2_FAILURE_HANDSHAKE_TIMEOUT, 0, "", tls.get(), false);
        check(VEK_HTTP2_FAILURE_UPGRADE, 0, "HTTP/1.1 400 Bad\r\n\r\n", nullptr, true);
        check(VEK_HTTP2_FAILURE_UPGRADE_TIMEOUT, 0, "", nullptr, true);
    }
    const int port = FreePort();
    const RawSocket full(CVEKSocketNew::LISTEN(AF_INET, port, nullptr));
    EXPECT_EQ(0, listen(full.GetFD(), 0));  // takes one, and no more
    const RawSocket first(CVEKSocketNew::CONNECT("127.0.0.1", port, 1));
    check(VEK_HTTP2_FAILURE_CONNECT_TIMEOUT, port, "", nullptr, false);
}

TEST(Error, OfAnAcceptAndOfASend) {
    const tls::FixedContext tls = tls::FixedServer();
    const struct {
        VEK_HTTP2_FAILURE failure;
        const char* text;
        SSL_CTX* ctx;
    } cases[] = {
        {VEK_HTTP2_FAILURE_TLS, "GET / HTTP/1.1\r\n\r\n", tls.get()},
        {VEK_HTTP2_FAILURE_HANDSHAKE_TIMEOUT, "", tls.get()},
        {VEK_HTTP2_FAILURE_UPGRADE, "GET / HTTP/1.1\r\n\r\n", nullptr},
        {VEK_HTTP2_FAILURE_UPGRADE_TIMEOUT, "", nullptr},
        {VEK_HTTP2_FAILURE_NONE, NGHTTP2_CLIENT_MAGIC, nullptr},
    };
    Policy policy;
    policy.handshakeMs_ = policy.upgradeMs_ = 50;
    CVEKHttp2Response connection;
    const VEK_ST_HTTP2_OPTIONS options = Options(4);
    ASSERT_TRUE(connection.Initialize("error", &options));
    connection.SetPolicy(policy);
    for (const auto& test : cases) {
        SCOPED_TRACE(VEK_HTTP2_FAILURE_TEXT(test.failure));
        int fds[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
        const RawSocket client(fds[0]);
        client.Send(test.text);
        const bool isGood = test.failure == VEK_HTTP2_FAILURE_NONE;
        EXPECT_EQ(isGood, test.ctx == nullptr && !isGood ? connection.Accept(fds[1], "", 1, false)
                                                         : connection.Accept(fds[1], "", 1, test.ctx, false));
        const VEK_ST_HTTP2_ERROR error = connection.GetError();
        EXPECT_EQ(test.failure, error.failure_) << error.text_;
        EXPECT_EQ(isGood, error.reason_[0] == '\0');
    }
    shutdown(connection.GetSocket(), SHUT_WR);
    EXPECT_FALSE(connection.SendPing());
    EXPECT_EQ("end 3/15", DescribeEnd(connection));
    EXPECT_EQ(EPIPE, connection.GetError().errno_);
}

// The client closes with bytes unread: what it has sent is read first where that is asked for.
TEST(Error, OfAnEvent) {
    for (const bool isGraceful : {false, true}) {
        int fds[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
        RawSocket client(fds[0]);
        CVEKHttp2Response connection;
        const VEK_ST_HTTP2_OPTIONS options = Options();
        ASSERT_TRUE(connection.Initialize("error", &options));
        Policy policy;
        policy.isGoawayGraceful_ = isGraceful;
        connection.SetPolicy(policy);
        client.Send(NGHTTP2_CLIENT_MAGIC + MakeSettings());
        EXPECT_TRUE(connection.Accept(fds[1], "", 1, nullptr, false));
        VEK_ST_HTTP2_REQUEST_RECV request;
        EXPECT_EQ(0, connection.Request(&request));
        client.Send(MakeHeaders(1,
                                "\x82\x84\x86\x41\x01"
                                "a",
                                true));
        client.Close();
        const std::string log = Capture([&] { EXPECT_EQ(isGraceful ? 1 : -1, connection.Request(&request)); });
        EXPECT_EQ(isGraceful ? 0U : 1U, Count(log, "event error dispatch!...")) << log;
        EXPECT_EQ(-1, connection.Request(&request));
        EXPECT_EQ(isGraceful ? "end 3/15" : "end 7/15", DescribeEnd(connection));
        EXPECT_EQ(ECONNRESET, connection.GetError().errno_);
    }
}

}  // namespace
