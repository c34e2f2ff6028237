#include <dlfcn.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <mutex>
#include <random>
#include <tuple>
#include <vector>

#include "HttpTest.h"

// Stands before the engine's: a connection may be about to use its last number.
static std::atomic<bool> isLastStreamNext{false};
extern "C" int32_t nghttp2_submit_request(nghttp2_session* session, const nghttp2_priority_spec* priority,
                                          const nghttp2_nv* fields, size_t count, const nghttp2_data_provider* body,
                                          void* data) {
    static const auto engine =
        reinterpret_cast<decltype(&nghttp2_submit_request)>(dlsym(RTLD_NEXT, "nghttp2_submit_request"));
    if (isLastStreamNext) { nghttp2_session_set_next_stream_id(session, INT32_MAX); }
    return engine(session, priority, fields, count, body, data);
}

namespace {

TEST(Fields, KeepOrderAndFindWithoutCase) {
    CVEKHttpFields fields{{"Set-Cookie", "a"}, {"X-Empty", ""}, {"set-cookie", "b"}};
    EXPECT_EQ(fields.Find("SET-COOKIE"), "a");
    EXPECT_EQ(fields.Find("x-empty"), "");
    EXPECT_EQ(fields.Find("set-cooki"), std::nullopt);
    EXPECT_EQ(fields[2], CVEKHttpFields::Field("set-cookie", "b"));
    EXPECT_EQ(fields.Remove("Set-Cookie"), 2U);
    EXPECT_EQ(fields.GetSize(), 1U);
    EXPECT_EQ((*fields.begin()).first, "x-empty");
}

TEST(Loop, RunsPostedWorkTimersAndSignalsOnItsThread) {
    CVEKEventLoop loop;
    std::vector<int> order;
    std::atomic<int> ticks{0};
    bool isCancelledRun = false;
    loop.Post([&] { order.push_back(1); });
    std::thread other([&] { loop.Post([&] { order.push_back(2); }); });
    other.join();
    EXPECT_EQ(0, CVEKEventLoops(1).WaitForSignal({SIGKILL, -1}));
    EXPECT_TRUE(loop.OnSignal(SIGUSR1, [&] { order.push_back(5), loop.Stop(); }));
    const CVEKTimer late = loop.After(milliseconds(20), [&] {
        EXPECT_TRUE(loop.IsCurrent());
        order.push_back(4);
        kill(getpid(), SIGUSR1);
    });
    CVEKTimer cancelled = loop.After(milliseconds(1), [&] { isCancelledRun = true; });
    CVEKTimer early;
    const std::function<void()> work = [&] {  // again and again, and keeps nothing out
        if (cancelled.Cancel(); order.size() == 2) { order.push_back(3); }
        early = loop.After(milliseconds(0), work);
    };
    early = loop.After(milliseconds(0), work);
    const CVEKTimer again = loop.Every(milliseconds(2), [&] { ++ticks; });
    loop.Run();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_FALSE(isCancelledRun);
    const int before = ticks;
    std::thread stopper([&] { Eventually([&] { return ticks > before; }), loop.Stop(); });
    loop.Run();  // goes on where it was
    stopper.join();
    EXPECT_GT(ticks, before);
    CVEKEventLoop busy;
    const CVEKTimer delayed = busy.After(milliseconds(5), [&] { busy.Stop(); });
    busy.Post([] { std::this_thread::sleep_for(milliseconds(30)); });
    busy.Run();
    EXPECT_LE(milliseconds(20), busy.GetLag());
    EXPECT_EQ(std::thread::hardware_concurrency(), CVEKEventLoops().GetSize());
}

// Deadlines of all kinds, in any order, of which every third is taken back meanwhile.
TEST(Loop, KeepsDeadlinesInOrder) {
    constexpr int COUNT = 600;
    CVEKEventLoop loop;
    std::minstd_rand chance(7);
    std::vector<CVEKTimer> timers;
    std::vector<int> order;
    loop.Post([&] {
        for (int i = 0; i < COUNT; ++i) {
            const int delay = static_cast<int>(chance() % 40);
            timers.push_back(loop.After(milliseconds(delay), [&order, delay] { order.push_back(delay); }));
            if (i % 3 == 2) { timers[chance() % 3 + static_cast<size_t>(i) - 2].Cancel(); }
        }
    });
    const CVEKTimer last = loop.After(milliseconds(60), [&] { loop.Stop(); });
    loop.Run();
    EXPECT_EQ(order.size(), COUNT * 2U / 3);
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST(Loop, KeepsMoments) {
    CVEKEventLoop loop;
    std::vector<int> order;
    std::vector<CVEKTimer> timers;
    const auto start = std::chrono::steady_clock::now();
    for (const int number : {4, 1, 3, 0, 2}) {
        const auto due = start + std::chrono::microseconds(300 * number - 300);  // one has passed
        timers.push_back(loop.At(due, [&, number, due] {
            EXPECT_GE(std::chrono::steady_clock::now(), due);
            order.push_back(number);
            if (number == 1) { timers[2].Cancel(); }
            if (number == 4) { loop.Stop(); }
        }));
    }
    loop.Run();
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 4}));
    const CVEKTimer never = loop.At(start + std::chrono::hours(1), [] { FAIL() << "an hour early"; });
}

// A loop that has work left takes all of a core.
TEST(Loop, WaitsWhenPeersHaveGone) {
    TestServer server;
    const int port = server.Open();
    EXPECT_EQ(200, TestClient(port).Get().status_);
    EXPECT_TRUE(server.HasEnded(REASON::PEER_CLOSED));
    EXPECT_TRUE(Eventually([] {
        const clock_t before = clock();
        std::this_thread::sleep_for(milliseconds(100));
        return clock() - before < CLOCKS_PER_SEC / 1000;
    }));
}

// What ends on a loop that nobody runs any more still has its end.
TEST(Loop, EndsWhatIsInFlight) {
    auto loop = std::make_unique<CVEKEventLoop>();
    CVEKHttpServer server(*loop);
    ASSERT_FALSE(server.Listen({}));
    CVEKHttpClient client(*loop);
    ASSERT_FALSE(client.AddTarget("http://localhost:" + std::to_string(server.GetPort())));
    int ended = 0;
    server.SetHandler([&](VEK_ST_HTTP_REQUEST&, CVEKHttpResponder responder) {
        loop->Stop();
        std::thread([kept = std::make_shared<CVEKHttpResponder>(std::move(responder))] {}).join();
    });
    VEK_ST_HTTP_CALL_OPTIONS options;
    options.onHead_ = [](const VEK_ST_HTTP_RESPONSE& head) { EXPECT_EQ(head.status_, 500); };
    const auto count = [&](VEK_ST_HTTP_RESPONSE& response) {
        ended += response.failure_.reason_ == REASON::CLOSED || response.status_ == 500 ? 1 : 0;
    };
    client.Send({}, count, options);
    loop->Run();
    EXPECT_EQ(ended, 1);
    client.Send({}, count);
    loop.reset();
    EXPECT_EQ(ended, 2);
}

TEST(Client, AsksForeignServers) {
    const TempDir folder;
    folder.Write("file", std::string(300000, 'f'));
    const int port = FreePort(), tlsPort = FreePort();
    const Process clear({"nghttpd", "--no-tls", "-d", folder.Path(), std::to_string(port)});
    const Process tls({"nghttpd", "-d", folder.Path(), "--trailer", "x-last: 1", std::to_string(tlsPort),
                       GetIdentity().key, GetIdentity().certificate});
    ASSERT_TRUE(Eventually([&] { return IsListening(port) && IsListening(tlsPort); }));
    VEK_ST_HTTP_CLIENT_OPTIONS options = Options();
    std::atomic<int> ups{0};
    std::string seen;
    options.observer_.onUp_ = [&](const VEK_ST_HTTP_CONNECTION& connection) {
        EXPECT_EQ(connection.number_, static_cast<uint64_t>(++ups));
        seen += connection.tlsVersion_ + connection.tlsCipher_ + connection.tlsSubject_ + connection.tlsVerdict_;
        EXPECT_TRUE(connection.begun_ <= connection.connected_ && connection.connected_ <= connection.up_);
    };
    TestClient client(port, options);
    TestServer upgrading;
    upgrading.handler = [&](VEK_ST_HTTP_REQUEST&, CVEKHttpResponder responder) {
        responder.Send(Answering(200, folder.Read("file")));
    };
    const auto trusting = MakeTls(false);
    trusting->isNameDemanded_ = trusting->isVerifying_ = false;
    VEK_ST_HTTP_TARGET trusted = Target("localhost", tlsPort), stranger = trusted;
    VEK_ST_HTTP_TARGET upgraded = Target("localhost", upgrading.Open());
    trusted.tls_ = trusting;
    stranger.tls_ = std::make_shared<VEK_ST_TLS_OPTIONS>();  // whose authorities do not know the peer
    upgraded.isUpgrade_ = true;
    for (const VEK_ST_HTTP_TARGET& target : {trusted, stranger, upgraded}) {
        ASSERT_FALSE(client.client.AddTarget(target));
    }
    VEK_ST_HTTP_CALL_OPTIONS call;
    for (const size_t index : {size_t{0}, size_t{1}, size_t{3}}) {
        call.target_ = index;
        const VEK_ST_HTTP_RESPONSE response = client.Get("/file", call);
        EXPECT_EQ(response.status_, 200) << index << response.failure_.text_;
        EXPECT_EQ(response.body_.GetSize(), 300000U) << index;
        EXPECT_EQ(response.trailers_.Get("x-last"), index == 1 ? "1" : "");
        const VEK_ST_HTTP_TIMES& at = response.times_;
        EXPECT_TRUE(at.begun_ <= at.sent_ && at.sent_ <= at.answer_ && at.answer_ <= at.ended_);
    }
    EXPECT_EQ(ups, 3);
    EXPECT_EQ(seen, "TLSv1.3TLS_AES_256_GCM_SHA384CN=localhostok");
    call.target_ = 2;
    EXPECT_EQ(client.Get("/file", call).failure_.reason_, REASON::TLS);
    call.target_ = 4;
    EXPECT_EQ(client.Get("/file", call).failure_.reason_, REASON::INVALID);
}

TEST(Client, RefusesTargetsThatAreNone) {
    TestServer server;
    TestClient client(0);
    const std::string own = "[::1]:" + std::to_string(server.Open());
    EXPECT_FALSE(client.client.AddTarget("http://" + own + "/x?y#z"));
    EXPECT_EQ(client.Get().fields_.Get("x-authority"), own);
    for (const char* url : {"ftp://a", "http://", "http://a:0", "http://a:65536", "http://a:100000", "http://a:b",
                            "http://[::1", "http://a@b", "http://:80", "http://[]:80"}) {
        EXPECT_EQ(client.client.AddTarget(url).reason_, REASON::INVALID) << url;
    }
    for (const char* url : {"http://a", "https://a:1/x?y", "http://[::1]:80", "http://a:65535"}) {
        EXPECT_FALSE(client.client.AddTarget(url)) << url;
    }
    VEK_ST_HTTP_TARGET longest, family = Target("a", 80);
    family.family_ = 5;
    longest.unixPath_.assign(108, 'x');  // one more than there is room for
    for (const VEK_ST_HTTP_TARGET& bad : {longest, family, Target("", 80), Target("a", 0)}) {
        EXPECT_EQ(client.client.AddTarget(bad).reason_, REASON::INVALID) << bad.host_;
    }
    longest.unixPath_.pop_back();
    EXPECT_FALSE(client.client.AddTarget(longest));
}

TEST(Client, SaysWhyThereIsNoConnection) {
    VEK_ST_HTTP_CLIENT_OPTIONS options = Options(2);
    options.connectTime_ = options.handshakeTime_ = milliseconds(200);
    options.connections_ = 2;  // one on each loop: all requests come to the first
    std::string down;
    options.observer_.onDown_ = [&](const VEK_ST_HTTP_CONNECTION& connection, const VEK_ST_HTTP_FAILURE& failure) {
        EXPECT_EQ(connection.slot_, connection.target_ % 2);
        EXPECT_LT(VEK_ST_HTTP_TIMES::Time(), connection.begun_);
        down = std::to_string(connection.target_) + failure.text_;
    };
    const int silentFd = CVEKSocketNew::LISTEN(AF_INET, 0, nullptr);
    TestClient client(0, options, 2);
    const VEK_ST_HTTP_TARGET refused = Target("127.0.0.1", FreePort());
    VEK_ST_HTTP_TARGET silent = Target("127.0.0.1", PortOf(silentFd));
    silent.tls_ = std::make_shared<VEK_ST_TLS_OPTIONS>();
    VEK_ST_HTTP_TARGET path;
    path.unixPath_ = "/none";
    const RawPeer old([](RawPeer& raw) { raw.Send("HTTP/1.1 200 OK\r\n\r\n"), raw.ReadText(1000); }, false, 2);
    VEK_ST_HTTP_TARGET upgrade = Target("127.0.0.1", old.Port());
    upgrade.isUpgrade_ = true;
    const std::tuple<VEK_ST_HTTP_TARGET, REASON, const char*> cases[] = {
        {refused, REASON::CONNECT, "Connection refused"},
        {Target("no.such.host.invalid", 80), REASON::RESOLVE, "no.such.host.invalid: "},
        {silent, REASON::TIMEOUT, "handshake not finished"},
        {path, REASON::CONNECT, "No such file"},
        {upgrade, REASON::NO_HTTP2, "upgrade refused"}};
    VEK_ST_HTTP_CALL_OPTIONS call;
    for (const auto& [target, reason, text] : cases) {
        ASSERT_FALSE(client.client.AddTarget(target));
        const VEK_ST_HTTP_RESPONSE response = client.Get("/", call);
        EXPECT_EQ(response.failure_.reason_, reason);
        EXPECT_NE(response.failure_.text_.find(text), std::string::npos) << response.failure_.text_;
        EXPECT_EQ(down, std::to_string(call.target_) + response.failure_.text_);
        EXPECT_TRUE(response.failure_.isRepeatable_ && response.attempts_ == 0);
        EXPECT_LE(response.times_.begun_, response.times_.ended_);
        EXPECT_EQ(client.client.GetCounters().connectFailed_, 2 * ++call.target_);
    }
    // Pauses between attempts double, and the request's own time ends in one of them.
    TestClient patient(refused.port_, Options(100));
    EXPECT_EQ(patient.Get("/", Within(milliseconds(400))).failure_.text_,
              "no connection in time: connect failed: Connection refused");
    EXPECT_GT(10U, patient.client.GetCounters().connectFailed_);
    close(silentFd);
}

TEST(Client, BoundsWaitingAndOptions) {
    VEK_ST_HTTP_CLIENT_OPTIONS options = Options(100, seconds(10));
    options.waiting_ = 2;
    std::future<VEK_ST_HTTP_RESPONSE> first;
    {
        TestClient client(FreePort(), options);
        first = client.client.Send({}, Within(seconds(60)));
        auto second = client.client.Send({}, Within(milliseconds(30)));
        EXPECT_EQ(client.Get().failure_.reason_, REASON::FULL);
        EXPECT_EQ(second.get().failure_.reason_, REASON::TIMEOUT) << "though one before it has more time";
    }
    EXPECT_EQ(first.get().failure_.reason_, REASON::CLOSED);

    // 0 is no limit, or the least.
    VEK_ST_HTTP_SERVER_OPTIONS none;
    none.settings_ = {0, 0, 0, 0, 0, 0, 0};
    none.streams_ = 0;
    none.connections_ = none.connectionsPerPeer_ = none.handshakes_ = none.unreadBytes_ = 0;
    none.handshakeTime_ = none.progressTime_ = none.idleTime_ = milliseconds(0);
    none.resets_ = none.controls_ = 0;
    TestServer server(none);
    VEK_ST_HTTP_CLIENT_OPTIONS zeros;
    zeros.settings_ = none.settings_;
    zeros.connections_ = zeros.streams_ = zeros.waiting_ = zeros.attempts_ = 0;
    zeros.connectTime_ = zeros.handshakeTime_ = zeros.responseTime_ = zeros.idleTime_ = milliseconds(0);
    TestClient unlimited(server.Open(), zeros);
    EXPECT_EQ(unlimited.Post("body").body_.GetText(), "body");
}

TEST(Client, CancelsFromItsOwnFunctions) {
    enum Where { BEGIN, FAILED, PRODUCER, HEAD, PIECE, END, COUNT };
    int where = 0;
    CVEKHttpCall call;
    const std::string kept(100, 'k');  // of the function that is at work
    const auto cancel = [&call, &where, kept](int at) {
        if (where == at) { call.Cancel(); }
        EXPECT_EQ(kept[99], 'k');
    };
    TestServer server;
    VEK_ST_HTTP_CLIENT_OPTIONS options = Options();
    options.observer_.onBegin_ = [=](const VEK_ST_HTTP_EXCHANGE&) { cancel(BEGIN); };
    options.observer_.onEnd_ = [=](const VEK_ST_HTTP_EXCHANGE&) { cancel(END); };
    TestClient client(server.Open(), options);
    EXPECT_EQ(client.Get().status_, 200);
    for (; where < COUNT; ++where) {
        std::promise<REASON> reason;
        client.loops.GetLoop(0).Post([&] {
            bool isLater = true;
            const VEK_HTTP_PRODUCER body = [=, &client, &call, &where](auto& piece, size_t, auto&) mutable {
                if (where == FAILED) { return PRODUCED::MORE; }  // of nothing
                if (std::exchange(isLater, false)) {
                    client.loops.GetLoop(0).Post([&call] { call.Resume(); });
                    return PRODUCED::LATER;
                }
                piece = "piece";
                cancel(PRODUCER);
                return PRODUCED::END;
            };
            VEK_ST_HTTP_CALL_OPTIONS functions;
            functions.onHead_ = [=](const VEK_ST_HTTP_RESPONSE&) { cancel(HEAD); };
            functions.onPiece_ = [=](std::string_view) { return cancel(PIECE), true; };
            const auto end = [&](VEK_ST_HTTP_RESPONSE& response) { reason.set_value(response.failure_.reason_); };
            call = client.client.Send(Asking("/", "POST", body), end, functions);
            if (where == BEGIN) { call.Cancel(); }
        });
        EXPECT_EQ(reason.get_future().get(), where == END      ? REASON::NONE
                                             : where == FAILED ? REASON::BODY
                                                               : REASON::CANCELLED);
    }
    EXPECT_EQ(client.client.GetCounters().opened_, 1U);
}

// What HTTP/2 does not allow leaves neither end.
TEST(Client, RefusesWhatHttp2DoesNotAllow) {
    TestServer server;
    server.handler = [](VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder responder) {
        VEK_ST_HTTP_RESPONSE response;
        CVEKHttpFields& fields = request.path_ == "/trailers" ? response.trailers_ : response.fields_;
        fields.Add(request.fields_.Get("x-name"), request.fields_.Get("x-value"));
        responder.Send(response);
    };
    TestClient client(server.Open());
    const auto send = [&](const std::string& path, CVEKHttpFields fields, const std::string& method = "GET") {
        VEK_ST_HTTP_REQUEST request = Asking(path, method);
        request.fields_ = std::move(fields);
        return client.client.Send(std::move(request)).get();
    };
    for (const char* name : {"Connection", "Keep-Alive", "Proxy-Connection", "Transfer-Encoding", "Upgrade", "TE",
                             "HTTP2-Settings", ":status", "in it"}) {
        EXPECT_EQ(send("/", {{name, "a"}}).failure_.reason_, REASON::INVALID) << name;
        EXPECT_EQ(send("/", {{"x-name", name}, {"x-value", "a"}}).status_, 500) << name;
        EXPECT_EQ(send("/trailers", {{"x-name", name}, {"x-value", "a"}}).status_, 500) << name;
    }
    EXPECT_EQ(send("/", {{"x", "a\nb"}}).failure_.reason_, REASON::INVALID);
    EXPECT_EQ(send("none", {}).failure_.text_, "the path is none");
    EXPECT_EQ(send("/", {}, "G T").failure_.reason_, REASON::INVALID);
    for (const auto& [scheme, authority, isGood] :
         {std::tuple("h+2.-Z", "a:1", true), {"h_p", "a", false}, {"http", "a b", false}}) {
        VEK_ST_HTTP_REQUEST request = Asking("*", "OPTIONS");
        request.scheme_ = scheme;
        request.authority_ = authority;
        request.fields_.Add("x-name", "x");
        EXPECT_EQ(client.client.Send(request).get().status_, isGood ? 200 : 0) << scheme << authority;
    }
    EXPECT_EQ(send("/", {{"x-name", "x"}}, "CONNECT").status_, 200) << "without scheme and path";
    EXPECT_EQ(send("/", {{"TE", "Trailers"}, {"x-name", "X-Upper"}, {"x-value", "a"}}).fields_.Get("x-upper"), "a");
    EXPECT_EQ(client.client.GetCounters().opened_, 1U);
}

TEST(Client, VerifiesTheNamedPeerAndSaysWhatTlsLacks) {
    TestServer server({}, true), demanding;
    VEK_ST_HTTP_LISTENER listener;
    const auto tls = MakeTls(true), trusting = MakeTls(false);
    tls->caFile_ = trusting->caFile_;
    tls->clientCertificate_ = VEK_TLS_CLIENT_CERTIFICATE_DEMANDED;
    listener.tls_ = tls;
    TestClient client(0, Options(1));
    const int port = server.Open(), demandingPort = demanding.Open(listener);
    const std::tuple<int, const char*, const char*> cases[] = {
        {port, "", ""},
        {port, "localhost", ""},
        {port, "other.example", "hostname mismatch (wanted other.example)"},
        {demandingPort, "", "certificate required"}};
    VEK_ST_HTTP_CALL_OPTIONS call;
    for (const auto& [at, name, text] : cases) {
        VEK_ST_HTTP_TARGET target = Target("127.0.0.1", at);
        target.tls_ = trusting;
        target.name_ = name;
        ASSERT_FALSE(client.client.AddTarget(target));
        VEK_ST_HTTP_RESPONSE response = client.Get("/", call);
        // The reset behind an alert may overtake it.
        for (int i = 0; i < 50 && response.failure_.reason_ == REASON::BROKEN; ++i) {
            response = client.Get("/", call);
        }
        ++call.target_;
        EXPECT_EQ(response.failure_.reason_, *text == '\0' ? REASON::NONE : REASON::TLS);
        EXPECT_NE(response.failure_.text_.find(text), std::string::npos) << response.failure_.text_;
    }
}

TEST(Client, MakesAnotherConnectionWhenStreamNumbersRunOut) {
    TestServer server;
    TestClient client(server.Open(), Options());
    isLastStreamNext = true;
    server.server.SetHandler({});
    for (int i = 0; i < 3; ++i) { EXPECT_EQ(client.Get().status_, 404); }
    isLastStreamNext = false;
    EXPECT_EQ(client.client.GetCounters().opened_, 3U);
    EXPECT_EQ(client.client.GetCounters().sent_, 3U);
    EXPECT_TRUE(Eventually([&] { return server.server.GetCounters().connections_ <= 1; }));
}

// A peer leaves its first request behind in many ways; what comes on another connection is answered.
TEST(Client, SendsAgainWhatMayBe) {
    const std::string goaway = MakeGoaway(0, 0), refused = MakeReset(1, NGHTTP2_REFUSED_STREAM),
                      enough = MakeGoaway(0, NGHTTP2_ENHANCE_YOUR_CALM), left = MakeGoaway(1, 11),
                      half = MakeHeaders(1, STATUS_200 + MakeField("x", "x"), false) + MakeData(1, "half", false);
    enum { PLAIN, ASKED, PIECES, MADE };
    constexpr REASON AGAIN = REASON::NONE, CLOSED = REASON::PEER_CLOSED;
    const struct {
        const char* name;
        std::string first;  // what comes for the first request
        const char* method;
        int kind;
        REASON reason;
        uint32_t code;
        const char* text;
        bool isRepeatable;
    } cases[] = {
        {"goaway", goaway, "POST", PLAIN, AGAIN, 0, "", false},
        {"goaway, made", enough, "POST", MADE, REASON::REFUSED, 11, "beyond the GOAWAY of the peer", true},
        {"refused", refused, "POST", PLAIN, AGAIN, 0, "", false},
        {"refused, made", refused, "POST", MADE, REASON::REFUSED, 7, "stream is over: REFUSED_STREAM", true},
        {"cut get", half, "GET", PLAIN, AGAIN, 0, "", false},
        {"cut get in pieces", half, "GET", PIECES, CLOSED, 0, "closed by the peer", true},
        {"cut post", half, "POST", PLAIN, CLOSED, 0, "closed by the peer", false},
        {"left post", left, "POST", PLAIN, CLOSED, 11, "closed by the peer after its GOAWAY", false},
        {"cut post, asked for", half, "POST", ASKED, AGAIN, 0, "", false},
        {"reset", MakeReset(1, 2), "GET", ASKED, REASON::RESET, 2, "stream is over: INTERNAL_ERROR", true},
        {"garbage", MakeFrame(4, 0, 1, ""), "POST", PLAIN, REASON::PROTOCOL, 1, "Protocol error", false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        bool isFirst = true;
        const RawPeer peer(
            [&](RawPeer& raw) {
                if (std::exchange(isFirst, false)) {
                    raw.ReadRequest();
                    raw.Send(c.first);
                    if (c.first != refused) { shutdown(raw.GetFD(), SHUT_WR); }
                }
                raw.AnswerAll([](int) { return "good"; });
            },
            true, 2);
        VEK_ST_HTTP_CLIENT_OPTIONS options = Options();
        unsigned failed = 0;
        options.observer_.onEnd_ = [&](const VEK_ST_HTTP_EXCHANGE& exchange) {
            failed += exchange.failure_ && exchange.request_->method_ == c.method ? 1 : 0;
        };
        TestClient client(peer.Port(), options);
        VEK_ST_HTTP_CALL_OPTIONS call;
        call.isRepeatable_ = c.kind == ASKED;
        if (c.kind == PIECES) {
            call.onPiece_ = [](std::string_view) { return true; };
        }
        VEK_ST_HTTP_REQUEST request = Asking("/", c.method);
        const VEK_HTTP_PRODUCER making = [](auto& piece, auto, auto&) { return piece = "x", PRODUCED::END; };
        if (c.kind == MADE) { request.body_ = making; }
        const VEK_ST_HTTP_RESPONSE response = client.client.Send(request, call).get();
        const VEK_ST_HTTP_FAILURE& failure = response.failure_;
        EXPECT_EQ(std::tie(failure.reason_, failure.code_, failure.text_, failure.isRepeatable_),
                  std::tie(c.reason, c.code, c.text, c.isRepeatable));
        const VEK_ST_HTTP_CLIENT_COUNTERS n = client.client.GetCounters();
        const unsigned again = c.reason == AGAIN ? 1 : 0;
        EXPECT_EQ(response.body_.GetText(), again > 0 ? "good" : c.kind != PIECES && c.first == half ? "half" : "");
        if (again > 0) { EXPECT_EQ(response.bodyBytes_ + response.fields_.GetSize(), 4U); }
        EXPECT_EQ(std::tuple(response.attempts_, n.sent_, n.repeated_, n.succeeded_, n.failed_, failed,
                             n.connectFailed_ + n.flying_ + n.waiting_),
                  std::tuple(1 + again, 1 + again, again, again, 1 - again, 1U, 0U));
    }
}

// Both ends say what they take, and a client keeps to what its peer takes.
TEST(Client, KeepsToSettings) {
    std::string settings;
    std::promise<void> go;
    RawPeer peer([&](RawPeer& raw) {
        raw.Send(MakeSettings(MakeSetting(NGHTTP2_SETTINGS_MAX_CONCURRENT_STREAMS, 2)));
        settings = raw.ReadUntil(NGHTTP2_SETTINGS).payload;
        settings += raw.ReadUntil(NGHTTP2_WINDOW_UPDATE).payload;
        raw.Answer(raw.ReadRequest(), "");
        go.get_future().wait();
        raw.AnswerAll([](int) { return ""; });
    });
    VEK_ST_HTTP_CLIENT_OPTIONS options = Options();
    options.settings_ = {1000, 10, 0, 70000, 80000, 20000, 100};
    options.idleTime_ = milliseconds(200);
    std::promise<VEK_ST_HTTP_FAILURE> down;
    uint64_t bytes[4] = {};
    options.observer_.onDown_ = [&](const VEK_ST_HTTP_CONNECTION& connection, const VEK_ST_HTTP_FAILURE& failure) {
        bytes[0] = connection.bytesSent_;
        bytes[1] = connection.bytesReceived_;
        down.set_value(failure);
    };
    TestClient client(peer.Port(), options);
    EXPECT_EQ(client.Get().status_, 200);
    std::vector<std::future<VEK_ST_HTTP_RESPONSE>> answers;
    for (int i = 0; i < 5; ++i) { answers.push_back(client.client.Send({})); }
    EXPECT_TRUE(Eventually([&] { return client.client.GetCounters().waiting_ == 3; }));
    EXPECT_EQ(client.client.GetCounters().flying_, 2U);
    go.set_value();
    for (auto& answer : answers) { EXPECT_EQ(answer.get().status_, 200); }
    std::promise<void> counted;
    client.loops.GetLoop(0).Post([&] { client.client.CountBytes(bytes[2], bytes[3]), counted.set_value(); });
    counted.get_future().wait();
    const VEK_ST_HTTP_FAILURE failure = down.get_future().get();
    EXPECT_EQ(failure.reason_, REASON::IDLE);
    EXPECT_EQ(failure.text_, "idle for too long");
    EXPECT_LT(bytes[0] / 2, bytes[2]);
    EXPECT_LE(bytes[2], bytes[0]);
    EXPECT_EQ(bytes[3], bytes[1]);
    EXPECT_EQ(settings, MakeSetting(NGHTTP2_SETTINGS_ENABLE_PUSH, 0) + MakeSetting(4, 70000) + MakeSetting(6, 1000) +
                            MakeSetting(5, 20000) + MakeSetting(1, 100) + MakeNumber(80000 - 65535));
    VEK_ST_HTTP_SERVER_OPTIONS serving;
    serving.settings_ = options.settings_;
    serving.streams_ = 7;
    TestServer server(serving);
    RawClient asking(server.Open());
    EXPECT_EQ(asking.ReadUntil(NGHTTP2_SETTINGS).payload, MakeSetting(3, 7) + settings.substr(6, 24));
    EXPECT_EQ(asking.ReadUntil(NGHTTP2_WINDOW_UPDATE).payload, settings.substr(30));
    serving.settings_ = {0, 0, 0, UINT32_MAX, UINT32_MAX, UINT32_MAX, 4096};  // bounded by what HTTP/2 allows
    serving.streams_ = 0;
    TestServer bounded(serving);
    RawClient limits(bounded.Open());
    EXPECT_EQ(limits.ReadUntil(NGHTTP2_SETTINGS).payload,
              MakeSetting(3, 1) + MakeSetting(4, INT32_MAX) + MakeSetting(6, INT32_MAX) + MakeSetting(5, 0xffffff));
    EXPECT_EQ(limits.ReadUntil(NGHTTP2_WINDOW_UPDATE).payload, MakeNumber(INT32_MAX - 65535));
}

TEST(Client, TakesResponsesWithinLimitsAndTime) {
    RawPeer peer([](RawPeer& raw) {
        const std::string early = MakeHeaders(1, std::string("\x08\x03", 2) + "103", false), text(101, 'x');
        const std::string answers[] = {early + early + MakeHeaders(1, STATUS_200, false) + MakeData(1, "one", false) +
                                           MakeData(1, "two", false) + MakeHeaders(1, MakeField("x-t", "t"), true),
                                       MakeHeaders(3, STATUS_200, false) + MakeData(3, text, true),
                                       MakeHeaders(5, STATUS_200 + MakeField("x", text) + MakeField("z", text), true)};
        for (const std::string& answer : answers) { raw.ReadRequest(), raw.Send(answer); }
        raw.ReadUntil(-1);  // silence
    });
    VEK_ST_HTTP_CLIENT_OPTIONS options = Options(1);
    options.settings_.bodyBytes_ = 100;
    options.settings_.headerBytes_ = 200;
    options.responseTime_ = milliseconds(100);
    TestClient client(peer.Port(), options);
    const VEK_ST_HTTP_RESPONSE first = client.Get();
    EXPECT_EQ(std::tuple(first.body_.GetText(), first.informational_, first.trailers_.Get("x-t")),
              std::tuple("onetwo", 2U, "t"));
    EXPECT_EQ(client.Get().failure_.text_, "the response's body is over the limit");
    EXPECT_EQ(client.Get().failure_.text_, "the response's header fields are over the limit");
    for (const char* method : {"GET", "HEAD", "PUT", "DELETE", "OPTIONS", "TRACE", "POST"}) {
        const VEK_ST_HTTP_FAILURE late = client.client.Send(Asking("/", method)).get().failure_;
        EXPECT_EQ(std::tuple(late.reason_, late.text_), std::tuple(REASON::TIMEOUT, "no response in time"));
        EXPECT_EQ(late.isRepeatable_, method != std::string("POST"));
    }
    VEK_ST_HTTP_REQUEST large;
    large.fields_.Add("x", std::string(300, 'x'));
    EXPECT_EQ(client.client.Send(large).get().failure_.reason_, REASON::INVALID);
    const VEK_HTTP_PRODUCER failing = [](auto&, auto, auto&) { return PRODUCED::FAILED; };
    EXPECT_EQ(client.Post(failing).failure_.reason_, REASON::BODY);
    // Cancelled: waiting, in flight, and when it is over.
    std::promise<REASON> reason;
    const auto end = [&](VEK_ST_HTTP_RESPONSE& response) { reason.set_value(response.failure_.reason_); };
    const VEK_ST_HTTP_CALL_OPTIONS call = Within(seconds(20));
    CVEKHttpCall handle = client.client.Send({}, end, call);
    ASSERT_TRUE(Eventually([&] { return client.client.GetCounters().flying_ == 1; }));
    handle.Cancel();
    EXPECT_EQ(reason.get_future().get(), REASON::CANCELLED);
    handle.Cancel();
    std::promise<CVEKHttpCall> handed;  // on its way to the loop
    client.loops.GetLoop(0).Post([&] { handed.get_future().get().Cancel(); });
    reason = {};
    handed.set_value(client.client.Send({}, end, call));
    EXPECT_EQ(reason.get_future().get(), REASON::CANCELLED);
    auto left = client.client.Send({}, call);
    ASSERT_TRUE(Eventually([&] { return client.client.GetCounters().flying_ == 1; }));
    EXPECT_EQ(client.client.GetCounters().connections_, 1U) << "one connection has carried it all";
}

TEST(Client, SpreadsRequestsAndReplacesConnections) {
    TestServer server;
    server.handler = [](VEK_ST_HTTP_REQUEST&, CVEKHttpResponder responder) {
        EXPECT_LE(responder.GetOrigin().streams_, 3U);
        responder.Send({});
    };
    VEK_ST_HTTP_CLIENT_OPTIONS options = Options();
    options.connections_ = 5;
    options.streams_ = 3;
    options.requests_ = 10;
    options.settingUp_ = 1;
    std::mutex mutex;
    std::map<uint64_t, int> begun;
    std::map<uint64_t, size_t> slots;
    std::map<size_t, std::chrono::steady_clock::time_point> lastUp;  // of a loop
    options.observer_.onBegin_ = [&](const VEK_ST_HTTP_EXCHANGE& exchange) {
        const std::lock_guard<std::mutex> guard(mutex);
        ++begun[exchange.connection_];
    };
    options.observer_.onUp_ = [&](const VEK_ST_HTTP_CONNECTION& connection) {
        const std::lock_guard<std::mutex> guard(mutex);
        slots[connection.number_] = connection.slot_;
        EXPECT_GE(connection.begun_, lastUp[connection.slot_ % 2]) << "two are made at once";
        lastUp[connection.slot_ % 2] = connection.up_;
    };
    TestClient client(server.Open(), options, 2);
    client.client.Connect();
    ASSERT_TRUE(Eventually([&] { return client.client.GetCounters().connections_ == 5; }));
    std::vector<std::future<VEK_ST_HTTP_RESPONSE>> answers;
    for (int i = 0; i < 500; ++i) { answers.push_back(client.client.Send({})); }
    for (auto& answer : answers) {
        const VEK_ST_HTTP_RESPONSE response = answer.get();
        EXPECT_EQ(response.attempts_, 1U);
        const std::lock_guard<std::mutex> guard(mutex);
        EXPECT_EQ(response.slot_, slots[response.connection_]);
    }
    {
        const std::lock_guard<std::mutex> guard(mutex);
        for (size_t number = 1; number < 6; ++number) { EXPECT_EQ(slots.count(number), 1U); }
        for (const auto& [connection, count] : begun) { EXPECT_LE(count, 10) << connection; }
        EXPECT_GE(begun.size(), 50U);
    }
    EXPECT_TRUE(Eventually([&] { return server.server.GetCounters().connections_ <= 5; })) << "the old ones have gone";
}

TEST(Client, SendsWhatWasPrepared) {
    struct Sink : CVEKHttpSink {  // on one thread
        void OnResponse(uint64_t tag, VEK_ST_HTTP_RESPONSE& response) override {
            ends[tag] = std::move(response);
            ++count;
        }
        std::map<uint64_t, VEK_ST_HTTP_RESPONSE> ends;
        std::atomic<size_t> count{0};
    };
    TestServer server;
    std::atomic<int> whole{0};
    server.handler = [&](VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder responder) {
        whole += request.method_ == "PUT" && request.path_ == "/p" && request.fields_.Get("x-a") == "a" &&
                 request.trailers_.Get("x-t") == "t" && request.body_.GetSize() == 1000;
        VEK_ST_HTTP_RESPONSE response = Answering(200, std::move(request.body_));
        response.fields_ = response.trailers_ = request.trailers_;
        responder.Send(std::move(response));
    };
    VEK_ST_HTTP_CLIENT_OPTIONS options = Options();
    options.settings_.bodyBytes_ = 999;
    Sink sink;
    TestClient client(server.Open(), options);
    VEK_ST_HTTP_REQUEST request = Asking("/p", "PUT", std::string(1000, 'x'));
    request.fields_.Add("x-a", "a");
    request.trailers_.Add("x-t", "t");
    VEK_ST_HTTP_CALL_OPTIONS dropping;
    dropping.isContentDropped_ = true;
    const VEK_HTTP_PREPARED counted = client.client.Prepare(request, dropping), kept = client.client.Prepare(request);
    request.body_ = VEK_HTTP_PRODUCER([](std::string&, size_t, CVEKHttpFields&) { return PRODUCED::END; });
    const VEK_HTTP_PREPARED produced = client.client.Prepare(request);
    dropping.target_ = 1;
    const VEK_HTTP_PREPARED lost = client.client.Prepare({}, dropping);
    for (uint64_t tag = 0; tag < 300; ++tag) { client.client.Send(counted, sink, tag); }
    uint64_t tag = 300;
    for (const VEK_HTTP_PREPARED& other : {kept, produced, lost}) { client.client.Send(other, sink, tag++); }
    ASSERT_TRUE(Eventually([&] { return sink.count == 303; }));
    for (tag = 0; tag < 300; ++tag) {
        const VEK_ST_HTTP_RESPONSE& response = sink.ends[tag];
        EXPECT_EQ(response.status_, 200) << response.failure_.text_;
        EXPECT_EQ(response.bodyBytes_, 1000U);
        EXPECT_TRUE(response.fields_.IsEmpty() && response.trailers_.IsEmpty() && response.body_.GetSize() == 0);
    }
    EXPECT_EQ(whole, 301);
    EXPECT_EQ(sink.ends[300].failure_.reason_, REASON::TOO_LARGE) << "its content is collected";
    EXPECT_EQ(sink.ends[301].failure_.reason_, REASON::INVALID);
    EXPECT_EQ(sink.ends[302].failure_.reason_, REASON::INVALID);
}

TEST(Client, LosesNoRequestToGoaways) {
    const TempDir folder;
    const std::string port = std::to_string(FreePort());
    folder.Write(
        "nginx.conf",
        "daemon off; master_process off; pid pid; error_log stderr crit; events {} http { access_log off; "
        "client_body_temp_path b; proxy_temp_path p; fastcgi_temp_path f; uwsgi_temp_path u; scgi_temp_path s; "
        "server { listen 127.0.0.1:" +
            port + " http2; keepalive_requests 1000; location / { return 200 ok; } } }");
    const Process nginx({"nginx", "-e", "stderr", "-p", folder.Path(), "-c", folder.Path("nginx.conf")});
    ASSERT_TRUE(Eventually([&] { return IsListening(std::stoi(port)); }));
    VEK_ST_HTTP_CLIENT_OPTIONS options = Options();
    options.connections_ = 4;
    TestClient client(std::stoi(port), options, 2);
    std::vector<std::future<VEK_ST_HTTP_RESPONSE>> answers;
    for (int i = 0; i < 20000; ++i) { answers.push_back(client.client.Send({})); }
    int good = 0;
    for (auto& answer : answers) {
        const VEK_ST_HTTP_RESPONSE response = answer.get();
        EXPECT_FALSE(response.failure_) << response.failure_.text_;
        good += response.status_ == 200 ? 1 : 0;
    }
    EXPECT_EQ(good, 20000);
    EXPECT_GE(client.client.GetCounters().opened_, 20U);
}

// Cuts one of this process's connections to the port.
void CutOne(uint16_t port, std::minstd_rand& chance) {
    std::vector<int> found;
    for (int fd = 0; fd < 256; ++fd) {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        const bool isKnown = getpeername(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
        if (isKnown && address.sin_family == AF_INET && ntohs(address.sin_port) == port) { found.push_back(fd); }
    }
    if (!found.empty()) { shutdown(found[chance() % found.size()], SHUT_RDWR); }
}

// Clients on four threads, servers that are drained or ended in the midst, and connections that are cut at random.
TEST(Stress, EveryRequestHasOneEnd) {
    constexpr size_t THREADS = 4, REQUESTS = 400, ALL = THREADS * REQUESTS;
    auto server = std::make_unique<TestServer>();
    const auto port = static_cast<uint16_t>(server->Open());
    VEK_ST_HTTP_CLIENT_OPTIONS options = Options(3);
    options.connections_ = 8;
    options.maxBackoff_ = milliseconds(20);
    std::atomic<size_t> sent{0}, good{0}, bad{0}, begun{0}, over{0};
    const auto count = [](const VEK_ST_HTTP_EXCHANGE& exchange) {
        return exchange.connection_ > 0 && exchange.stream_ % 2 == 1 && exchange.times_.begun_ <= exchange.times_.sent_;
    };
    options.observer_.onBegin_ = [&](const VEK_ST_HTTP_EXCHANGE& exchange) { begun += count(exchange); };
    options.observer_.onEnd_ = [&](const VEK_ST_HTTP_EXCHANGE& exchange) {
        over += count(exchange) && exchange.response_ != nullptr;
    };
    TestClient client(port, options, THREADS);
    std::vector<std::atomic<int>> ends(ALL);
    std::vector<std::thread> threads;
    for (size_t i = 0; i < THREADS; ++i) {
        threads.emplace_back([&, i] {
            for (size_t n = 0; n < REQUESTS; ++n) {
                VEK_ST_HTTP_REQUEST request = Asking("/", n % 2 == 0 ? "POST" : "GET", std::string(n * 50, 'x'));
                CVEKHttpCall call = client.client.Send(std::move(request), [&, i, n](VEK_ST_HTTP_RESPONSE& response) {
                    const bool isGood = response.status_ == 200 && response.bodyBytes_ == n * 50;
                    EXPECT_NE(isGood && !response.failure_, response.failure_ && !response.failure_.text_.empty());
                    ++(response.failure_ ? bad : good);
                    ++ends[i * REQUESTS + n];
                });
                ++sent;
                if (n % 16 == i) { call.Cancel(); }
                if (n % 8 == 0) { std::this_thread::sleep_for(milliseconds(1)); }
            }
        });
    }
    threads.emplace_back([&, chance = std::minstd_rand(13)]() mutable {
        for (size_t next = 0; next < ALL; next += 1 + chance() % 100) {
            Eventually([&] { return good + bad >= next; });
            CutOne(port, chance);
        }
    });
    const auto end = [&](milliseconds limit) {
        server->server.Stop(limit);
        const VEK_ST_HTTP_SERVER_COUNTERS rest = server->server.GetCounters();
        EXPECT_EQ(rest.connections_ + rest.streams_, 0U);
        EXPECT_EQ(rest.requests_, rest.answered_ + rest.failed_);
        EXPECT_EQ(server->begun, server->ended);
    };
    for (int round = 0; round < 4; ++round) {
        const size_t before = sent;
        Eventually([&] { return sent > before + ALL / 8 || sent == ALL; });
        end(milliseconds(round % 2 == 0 ? 200 : 0));
        server = std::make_unique<TestServer>(VEK_ST_HTTP_SERVER_OPTIONS(), false, port);
        server->Open();
    }
    EXPECT_TRUE(Eventually([&] { return good + bad == ALL; }));
    for (std::thread& thread : threads) { thread.join(); }
    for (const auto& count : ends) { EXPECT_EQ(count, 1); }
    EXPECT_GT(good, ALL / 20);  // a slow machine has most of them under way when servers end
    const VEK_ST_HTTP_CLIENT_COUNTERS rest = client.client.GetCounters();
    EXPECT_EQ(rest.waiting_ + rest.flying_, 0U);
    EXPECT_EQ(rest.succeeded_, good);
    EXPECT_EQ(rest.failed_, bad);
    EXPECT_EQ(rest.sent_, begun);
    EXPECT_EQ(begun, over);
    end(seconds(20));
}

}  // namespace
