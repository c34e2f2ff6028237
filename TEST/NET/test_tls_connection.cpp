// TLS of whole connections, blocking and in steps: our client with real servers, our two ends with each other, and what
// both tell of success and failure.
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <thread>

#include "CVEKHttp2Request.h"
#include "CVEKHttp2Response.h"
#include "NetTest.h"
#include "TestSupport.h"
#include "TlsSupport.h"
#include "VEKCommonOpenSSL.h"
#include "VEKHttp2Option.h"
#include "VEKText.h"

namespace {

using namespace tls;

constexpr int NONE = 0;  // no cause
constexpr int ALERT = VEK_TLS_CAUSE_ALERT, HOST = VEK_TLS_CAUSE_WRONG_HOST;
constexpr int NO_H2 = VEK_TLS_CAUSE_NO_H2, VERSION = VEK_TLS_CAUSE_NO_COMMON_VERSION;

constexpr uint32_t BODY_SIZE = 4096;

struct Peer : CVEKHttp2Request {
    Peer() {
        VEK_ST_HTTP2_OPTIONS options{};
        options.nMaxPayloadSize_ = BODY_SIZE;
        EXPECT_TRUE(Initialize("tls", &options));
    }
    bool Open(int port, SSL_CTX* context, bool isStepwise) {
        return isStepwise ? ConnectInSteps(*this, port, context) == VEK_HTTP2_STEP_DONE
                          : Connect("127.0.0.1", port, context, false);
    }
    // The status of an answer, or nothing when the connection has closed.
    std::string Get() {
        VEK_ST_HTTP2_REQUEST request{};
        VEK_COPY_TEXT(request.method_, "GET");
        VEK_COPY_TEXT(request.path_, "/");
        std::string body(BODY_SIZE, ' ');
        VEK_ST_HTTP2_RESPONSE response{};
        response.payload_.data_ = body.data();
        return Request(&request, &response) ? response.rs_ : "";
    }
    // As both records tell it.
    int Cause() const {
        const int cause = GetTlsFailure() == nullptr ? NONE : GetTlsFailure()->cause_;
        EXPECT_EQ(cause, GetError().tlsCause_) << GetError().text_;
        return cause;
    }
};

TEST(TlsConnection, RealServers) {
    const std::string nghttpd = "/usr/sbin/nghttpd --address=127.0.0.1 PORT ";
    const std::string openssl = "openssl s_server -accept 127.0.0.1:PORT -cert %/rsa.pem -key %/rsa.pem -alpn h2 ";
    const std::string nginx = "/usr/sbin/nginx -e stderr -p % -c %/nginx-PORT.conf";
    // Paths are relative to the folder of the certificates.
    const std::string configuration =
        "daemon off; master_process off; error_log stderr; pid pid; events {} http { access_log off; proxy_temp_path "
        "a; client_body_temp_path a; fastcgi_temp_path a; uwsgi_temp_path a; scgi_temp_path a; server { "
        "ssl_protocols TLSv1.3; ssl_certificate ec.pem; ssl_certificate_key ec.pem; location / { return 200; } "
        "listen 127.0.0.1:";
    const std::string demand = openssl + "-Verify 1 -verify_return_error -CAfile %/root.pem ";
    const struct {
        std::string server;
        const char* options;  // of the client; "old": the old context
        const char* name;
        int connectCause, requestCause;
        const char* status;
        const char* text;  // of the information, or of the failure
        bool isResumed;    // the second connection
    } cases[] = {
        {nghttpd + "%/address.pem %/address.pem", "", "127.0.0.1", NONE, NONE, "404", "CN=address of CN=root ok", true},
        {nghttpd + "%/address.pem %/address.pem", "keep=0 max=771 ciphers=ECDHE+AES128 groups=P-256", "127.0.0.1", NONE,
         NONE, "404", "TLSv1.2 ECDHE-ECDSA-AES128-GCM-SHA256 prime256v1 CN=address", false},
        {nginx, "ca= capath=%/hashed suites=TLS_CHACHA20_POLY1305_SHA256", "localhost", NONE, NONE, "200",
         "TLSv1.3 TLS_CHACHA20_POLY1305_SHA256 X25519 CN=ec of CN=root ok", true},
        {nginx, "name=0", nullptr, NONE, NONE, "200", "CN=ec of CN=root ok", true},
        {nginx, "", nullptr, HOST, NONE, "", "the peer was given no name", false},
        {nginx, "", "a b", VEK_TLS_CAUSE_OTHER, NONE, "", "peer name \"a b\": not a host name", false},
        {nginx, "old", nullptr, VERSION, NONE, "", "alert \"protocol version\" received", false},
        {openssl + "-tls1_2 -www", "", "localhost", NONE, NONE, "", "CN=rsa of CN=root ok", true},
        {demand + "-www", "id=client", "localhost", NONE, NONE, "", "TLSv1.3", false},
        {demand, "", "localhost", NONE, ALERT, "", "refused: alert \"certificate required\" received", false},
        {openssl + "-alpn http/1.1", "", "localhost", NO_H2, NONE, "", "alert \"no application protocol\"", false},
        {demand + "-tls1_2", "", "localhost", ALERT, NONE, "", "alert \"handshake failure\" received", false},
    };
    for (const auto& test : cases) {
        const int port = FreePort();
        const std::string place = std::to_string(port);
        Folder().Write("nginx-" + place + ".conf", configuration + place + " ssl http2; } }");
        const Service server(test.server, port);
        for (const bool isStepwise : {false, true}) {
            SCOPED_TRACE(test.server + " " + test.options + (isStepwise ? " in steps" : ""));
            const bool isOld = std::string(test.options) == "old";
            SSL_CTX* old = isOld ? VEK_SSL_CREATE_CLIENT_CTX(nullptr, nullptr, nullptr) : nullptr;
            const CVEKTlsContext context = Client(isOld ? "" : test.options);
            Peer client;
            client.SetPeerName(test.name);
            for (const bool isSecond : {false, true}) {
                const bool isUp = client.Open(port, isOld ? old : context.GetContext(), isStepwise);
                EXPECT_EQ(test.connectCause, client.Cause());
                EXPECT_EQ(test.connectCause == NONE, isUp);
                EXPECT_EQ(test.connectCause == NO_H2, client.GetError().failure_ == VEK_HTTP2_FAILURE_ALPN);
                const VEK_ST_TLS_INFO info = client.GetTlsInfo();
                EXPECT_EQ(isUp, !info.version_.empty());
                EXPECT_EQ(isSecond && test.isResumed, info.isResumed_);
                const bool isAsked = *test.status != '\0' || test.requestCause != NONE;
                EXPECT_EQ(test.status, isAsked && isUp ? client.Get() : "");
                EXPECT_EQ(isUp ? test.requestCause : test.connectCause, client.Cause());
                const std::string text = client.Cause() != NONE ? client.GetTlsFailure()->text_
                                                                : info.version_ + " " + info.cipher_ + " " +
                                                                      info.group_ + " " + info.peerSubject_ + " of " +
                                                                      info.peerIssuer_ + " " + info.peerVerdict_;
                EXPECT_NE(std::string::npos, text.find(test.text)) << text;
                EXPECT_EQ(isUp, info.times_.tlsUs_ > 0);
                EXPECT_TRUE(isStepwise == (info.times_.nameUs_ <= 0) && (info.times_.tcpUs_ > 0 || !isUp));
            }
            SSL_CTX_free(old);
        }
    }
}

// The server has another certificate, and no "h2", for who names localhost.
TEST(TlsConnection, NameIsSentWhenItIsSet) {
    const Service server(
        "openssl s_server -accept 127.0.0.1:PORT -cert %/address.pem -key %/address.pem -cert2 %/ec.pem "
        "-key2 %/ec.pem -alpn h2 -servername localhost -www");
    setenv("VEK_CERT_VERIFY_IGNORE", "TRUE", 1);
    SSL_CTX* old = VEK_SSL_CREATE_CLIENT_CTX(nullptr, nullptr, nullptr);
    const CVEKTlsContext context = Client("verify=0");
    for (SSL_CTX* used : {old, context.GetContext()}) {
        Peer client;
        EXPECT_TRUE(client.Open(server.port, used, false));  // never named
        EXPECT_EQ("CN=address", client.GetTlsInfo().peerSubject_);
        for (const char* name : {"localhost", "127.0.0.1", "localhost", static_cast<const char*>(nullptr)}) {
            EXPECT_TRUE(client.SetPeerName(name));
            const bool isSent = name != nullptr && *name == 'l';
            EXPECT_EQ(!isSent, client.Open(server.port, used, false));
            EXPECT_EQ(isSent ? "CN=ec" : "CN=address", client.GetTlsInfo().peerSubject_);
        }
        client.Disconnect();
        EXPECT_EQ("", client.GetTlsInfo().version_);
    }
    SSL_CTX_free(old);
    unsetenv("VEK_CERT_VERIFY_IGNORE");
}

TEST(TlsConnection, BothEndsTell) {
    const CVEKTlsContext serverContext = Server("id=ec ca=%/root.pem ask=2");
    const struct {
        const char* options;
        int cause;  // of the server's refusal
        const char* text;
    } cases[] = {
        {"id=client", NONE, ""},
        {"", VEK_TLS_CAUSE_NO_CERTIFICATE, "client certificate missing: peer did not return a certificate"},
        {"id=unknown", VEK_TLS_CAUSE_UNKNOWN_ISSUER, "peer certificate refused: unable to get local issuer"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.options);
        const CVEKTlsContext clientContext = Client(test.options);
        const int port = FreePort(), listener = CVEKSocketNew::LISTEN2(port, AF_INET);
        Peer client;
        client.SetPeerName("localhost");
        CVEKHttp2Response server;
        const VEK_ST_HTTP2_OPTIONS options{};
        server.Initialize("server", &options);
        G_VEK_HTTP2_DETAIL_LOG = true;
        testing::internal::CaptureStderr();
        const std::string log = Capture([&] {
            std::thread thread([&] {
                const int fd = accept(listener, nullptr, nullptr);
                EXPECT_EQ(test.cause == NONE, server.Accept(fd, "ip", port, serverContext.GetContext(), true));
            });
            EXPECT_TRUE(client.Open(port, clientContext.GetContext(), false));
            thread.join();
        });
        G_VEK_HTTP2_DETAIL_LOG = false;
        close(listener);
        // The queue that the explanation has read is printed all the same.
        const std::string printed = testing::internal::GetCapturedStderr();
        EXPECT_EQ(test.cause == NONE ? 0U : 1U, Count(printed, "SSL routines:tls_process_client_certificate:"))
            << printed;
        EXPECT_EQ(1U, Count(log,
                            "conn(tls) tls TLSv1.3, cipher TLS_AES_256_GCM_SHA384, group X25519, new, peer [CN=ec] "
                            "of [CN=root] until ["))
            << log;
        EXPECT_EQ(test.cause == NONE ? 1U : 0U, Count(log, "conn(server) tls TLSv1.3")) << log;
        EXPECT_EQ(test.cause == NONE ? "CN=client" : "", server.GetTlsInfo().peerSubject_);
        EXPECT_EQ(test.cause == NONE, server.GetTlsInfo().times_.tlsUs_ > 0);
        const VEK_ST_TLS_FAILURE* failure = server.GetTlsFailure();
        ASSERT_EQ(test.cause == NONE, failure == nullptr);
        if (test.cause == NONE) { continue; }
        EXPECT_EQ(test.cause, failure->cause_);
        EXPECT_EQ(test.cause, server.GetError().tlsCause_);
        EXPECT_EQ(VEK_HTTP2_FAILURE_TLS, server.GetError().failure_);
        EXPECT_EQ(0U, failure->text_.find(test.text)) << failure->text_;
        // Who only sends learns of it as well, though the connection is broken by then.
        server.Disconnect();
        EXPECT_TRUE(Eventually([&] { return client.write("x", 1) < 0; }));
        EXPECT_EQ(ALERT, client.GetTlsFailure()->cause_);
        client.Disconnect();
        EXPECT_EQ(NONE, client.Cause());
    }
}

// A server may refuse without a word, also behind the handshake.
TEST(TlsConnection, AnEndBeforeTheFirstByteHasACause) {
    const CVEKTlsContext serverContext = Server(), clientContext = Client();
    for (const std::string text : {"unexpected eof while reading", "alert \"close notify\" received"}) {
        const int port = FreePort(), listener = CVEKSocketNew::LISTEN2(port, AF_INET);
        CVEKSocketNew server;
        std::thread thread([&] {
            const int fd = accept(listener, nullptr, nullptr);
            EXPECT_TRUE(server.SetFD(fd, serverContext.GetContext(), VEK_SOCKET_MODE_ACCEPT));
            text[0] == 'u' ? shutdown(fd, SHUT_WR) : SSL_shutdown(server.GetTLS());
        });
        Peer client;
        client.SetPeerName("localhost");
        EXPECT_TRUE(client.Open(port, clientContext.GetContext(), false));
        thread.join();
        close(listener);
        EXPECT_EQ("", client.Get());
        EXPECT_EQ(VEK_TLS_CAUSE_PEER_CLOSED, client.Cause());
        EXPECT_EQ("closed by peer: peer closed the connection: " + text, client.GetError().text_);
    }
}

}  // namespace
