// Why a connection could not be set up, or has ended.
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <type_traits>

#include "CVEKHttp2Request.h"
#include "CVEKHttp2Response.h"
#include "NetTest.h"
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

}  // namespace
