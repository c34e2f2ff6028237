// What the tests of clients and servers share.
#ifndef HTTP_TEST_H
#define HTTP_TEST_H

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "CVEKHttpClient.h"
#include "CVEKHttpServer.h"
#include "CVEKSocketNew.h"
#include "RawPeer.h"
#include "TestSupport.h"
#include "VEKTlsOption.h"

using std::chrono::milliseconds;
using std::chrono::seconds;
using PRODUCED = VEK_HTTP_PRODUCED;
using REASON = VEK_HTTP_REASON;

inline VEK_ST_HTTP_REQUEST Asking(const std::string& path, const std::string& method = "GET", CVEKHttpBody body = {}) {
    VEK_ST_HTTP_REQUEST request;
    request.method_ = method;
    request.path_ = path;
    request.body_ = std::move(body);
    return request;
}

inline VEK_ST_HTTP_RESPONSE Answering(int status, CVEKHttpBody body = {}, CVEKHttpFields fields = {}) {
    VEK_ST_HTTP_RESPONSE response;
    response.status_ = status;
    response.fields_ = std::move(fields);
    response.body_ = std::move(body);
    return response;
}

inline VEK_ST_HTTP_CALL_OPTIONS Within(milliseconds timeout) {
    VEK_ST_HTTP_CALL_OPTIONS call;
    call.timeout_ = timeout;
    return call;
}

inline VEK_ST_HTTP_CLIENT_OPTIONS Options(unsigned attempts = 5, milliseconds backoff = milliseconds(10)) {
    VEK_ST_HTTP_CLIENT_OPTIONS options;
    options.attempts_ = attempts;
    options.backoff_ = backoff;
    return options;
}

// With the tests' certificate: a server has it, a client trusts it.
inline std::shared_ptr<VEK_ST_TLS_OPTIONS> MakeTls(bool isServer) {
    auto tls = std::make_shared<VEK_ST_TLS_OPTIONS>();
    if (isServer) { tls->identities_.push_back({GetIdentity().certificate, GetIdentity().key}); }
    if (!isServer) { tls->caFile_ = GetIdentity().certificate; }
    return tls;
}

inline VEK_ST_HTTP_TARGET Target(const std::string& host, int port) {
    VEK_ST_HTTP_TARGET target;
    target.host_ = host;
    target.port_ = static_cast<uint16_t>(port);
    return target;
}

// An echo server for a test, with what its connections have done.
class TestServer {
  public:
    explicit TestServer(VEK_ST_HTTP_SERVER_OPTIONS options = {}, bool isTls = false, uint16_t port = 0)
        : server(loops, Observe(std::move(options))), isTls_(isTls), port_(port) {
        server.SetHandler([this](VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder responder) {
            if (handler) { return handler(request, std::move(responder)); }
            VEK_ST_HTTP_RESPONSE response = Answering(200, std::move(request.body_));
            response.fields_ = {{"x-authority", request.authority_}, {"x-scheme", request.scheme_}};
            response.trailers_ = request.trailers_;
            responder.Send(std::move(response));
        });
    }
    int Open(VEK_ST_HTTP_LISTENER listener = {}) {
        listener.port_ = port_;
        if (isTls_) { listener.tls_ = MakeTls(true); }
        const VEK_ST_HTTP_FAILURE failure = server.Listen(listener);
        EXPECT_FALSE(failure) << failure.text_;
        return server.GetPort();
    }
    bool HasEnded(REASON reason) const {
        return Eventually([&] { return ends[static_cast<size_t>(reason)] > 0; });
    }

    std::atomic<int> ends[static_cast<size_t>(REASON::SYSTEM) + 1] = {};  // of connections, by their causes
    VEK_ST_HTTP_TIMES::Time given;                                        // an answer to "/later"
    std::atomic<int> begun{0}, ended{0};
    CVEKHttpServer::Handler handler;
    CVEKEventLoops loops{2};
    CVEKHttpServer server;

  private:
    VEK_ST_HTTP_SERVER_OPTIONS Observe(VEK_ST_HTTP_SERVER_OPTIONS options) {
        options.observer_.onBegin_ = [this](const VEK_ST_HTTP_EXCHANGE& exchange) {
            begun += exchange.connection_ > 0 && exchange.stream_ % 2 == 1 && exchange.request_ != nullptr;
        };
        options.observer_.onEnd_ = [this](const VEK_ST_HTTP_EXCHANGE& exchange) {
            EXPECT_LT(VEK_ST_HTTP_TIMES::Time(), exchange.times_.begun_);
            EXPECT_LE(exchange.times_.begun_, exchange.times_.ended_);
            EXPECT_EQ(exchange.response_ != nullptr, exchange.times_.sent_ != VEK_ST_HTTP_TIMES::Time());
            EXPECT_TRUE(exchange.response_ != nullptr || exchange.failure_);
            if (exchange.request_->path_ == "/later") { EXPECT_LE(given, exchange.times_.sent_); }
            ended += exchange.connection_ > 0 && exchange.stream_ % 2 == 1;
        };
        // A connection counts as a request does.
        options.observer_.onUp_ = [this](const VEK_ST_HTTP_CONNECTION& one) { begun += one.begun_ < one.up_; };
        options.observer_.onDown_ = [this](const VEK_ST_HTTP_CONNECTION& one, const VEK_ST_HTTP_FAILURE& failure) {
            ended += one.up_ != VEK_ST_HTTP_TIMES::Time();
            ++ends[static_cast<size_t>(failure.reason_)];
        };
        return options;
    }
    bool isTls_;
    uint16_t port_;
};

// A client of one target on 127.0.0.1.
class TestClient {
  public:
    explicit TestClient(int port, VEK_ST_HTTP_CLIENT_OPTIONS options = {}, unsigned threads = 1)
        : loops(threads), client(loops, std::move(options)) {
        if (port > 0) { EXPECT_FALSE(client.AddTarget("http://127.0.0.1:" + std::to_string(port))); }
    }
    VEK_ST_HTTP_RESPONSE Get(const std::string& path = "/", VEK_ST_HTTP_CALL_OPTIONS options = {}) {
        return client.Send(Asking(path), std::move(options)).get();
    }
    VEK_ST_HTTP_RESPONSE Post(CVEKHttpBody body, VEK_ST_HTTP_CALL_OPTIONS options = {}) {
        return client.Send(Asking("/", "POST", std::move(body)), std::move(options)).get();
    }

    CVEKEventLoops loops;
    CVEKHttpClient client;
};

// A scripted client: preface and SETTINGS have been sent.
class RawClient : public RawSocket {
  public:
    explicit RawClient(int port, bool isPreface = true) : RawSocket(CVEKSocketNew::CONNECT("127.0.0.1", port, 1)) {
        if (isPreface) { Send(NGHTTP2_CLIENT_MAGIC + MakeSettings()); }
    }
};

// An entry of SETTINGS.
inline std::string MakeSetting(char id, int value) { return std::string(1, '\0') + id + MakeNumber(value); }

// Fields of a request for "/" in clear text: GET, or POST whose body follows.
inline std::string MakeRequest(bool isPost = false) {
    return std::string(isPost ? "\x83" : "\x82") + "\x86\x84" + MakeField(":authority", "a");
}

#endif
