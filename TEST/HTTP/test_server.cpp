#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <mutex>
#include <new>
#include <set>
#include <stdexcept>
#include <tuple>
#include <vector>

#include "HttpTest.h"
#include "Stress.h"

namespace {

std::string Url(int port, const std::string& path, const std::string& scheme = "http") {
    return scheme + "://localhost:" + std::to_string(port) + path;
}

// Body, status and version, as curl sees them.
std::string Curl(std::vector<std::string> words) {
    words.insert(words.begin(), {"curl", "-sS", "-g", "-m", "20", "-w", " %{http_code} %{http_version}"});
    const Result result = RunProgram(words);
    return result.output + result.error;
}

TEST(Server, ServesForeignClientsOverEveryTransport) {
    TestServer clear, tls({}, true);
    const TempDir folder;
    VEK_ST_HTTP_LISTENER path;
    path.unixPath_ = folder.Path("socket");
    const int port = clear.Open(), tlsPort = tls.Open();
    for (const bool isTaken : {false, true}) { EXPECT_EQ(bool(clear.server.Listen(path)), isTaken); }

    EXPECT_EQ(Curl({"--http2-prior-knowledge", "-d", "one", Url(port, "/x")}), "one 200 2");
    EXPECT_EQ(Curl({"--http2", "-d", "two", Url(port, "/x")}), "two 200 2");
    const std::string upgraded = Curl({"-I", "--http2", Url(port, "/y")});
    EXPECT_EQ(upgraded.find("HTTP/1.1 101"), 0U);
    EXPECT_EQ(Count(upgraded, "x-authority: localhost:" + std::to_string(port) + "\r\nx-scheme: http\r\n"), 1U);
    EXPECT_EQ(Curl({"--http2-prior-knowledge", "-d", "v6", "http://[::1]:" + std::to_string(port)}), "v6 200 2");
    EXPECT_EQ(Curl({"-k", "-d", "tls", Url(tlsPort, "/x", "https")}), "tls 200 2");
    EXPECT_EQ(Curl({"--unix-socket", path.unixPath_, "--http2-prior-knowledge", "-d", "unix", "http://a/"}),
              "unix 200 2");
    const Result load = RunProgram({"h2load", "-n", "5000", "-c", "20", "-m", "10", Url(tlsPort, "/z", "https")});
    EXPECT_NE(load.output.find(" 5000 succeeded, 0 failed"), std::string::npos) << load.output;
    ASSERT_TRUE(Eventually([&] { return tls.server.GetCounters().connections_ == 0; }));
    EXPECT_EQ(tls.server.GetCounters().answered_, 5001U);
    EXPECT_EQ(tls.begun, tls.ended);
    TestClient client(0);
    VEK_ST_HTTP_TARGET socket;
    socket.unixPath_ = path.unixPath_;
    ASSERT_FALSE(client.client.AddTarget(socket));
    EXPECT_EQ(client.Get().fields_.Get("x-authority"), "localhost");
    EXPECT_EQ(link(path.unixPath_.c_str(), folder.Path("left").c_str()), 0);
    clear.server.Drain(seconds(1));
    EXPECT_TRUE(Eventually([&] { return !folder.Has("socket"); }));
    path.unixPath_ = folder.Path("left");
    EXPECT_FALSE(tls.server.Listen(path)) << "nobody listens there";
}

TEST(Server, ListensWhereItIsTold) {
    const std::tuple<const char*, bool, bool, bool> cases[] = {{"", false, true, true},
                                                               {"::", false, true, true},
                                                               {"::", true, false, true},
                                                               {"127.0.0.1", false, true, false},
                                                               {"::1", false, false, true}};
    for (const auto& [address, isV6Only, isV4Served, isV6Served] : cases) {
        TestServer server;
        VEK_ST_HTTP_LISTENER listener;
        listener.address_ = address;
        listener.isV6Only_ = isV6Only;
        const std::string port = std::to_string(server.Open(listener));
        server.handler = [](VEK_ST_HTTP_REQUEST&, CVEKHttpResponder responder) {
            const std::string peer(responder.GetOrigin().peer_);
            responder.Send(Answering(200, peer.substr(0, peer.rfind(':'))));
        };
        const auto isServed = [&](const std::string& host) {
            return Curl({"--http2-prior-knowledge", "http://" + host + ":" + port}) == host + " 200 2";
        };
        EXPECT_EQ(isServed("127.0.0.1"), isV4Served) << address;
        EXPECT_EQ(isServed("[::1]"), isV6Served) << address;
        listener.port_ = static_cast<uint16_t>(std::stoi(port));
        EXPECT_EQ(server.server.Listen(listener).reason_, REASON::SYSTEM);
        listener.address_ = "nowhere";
        EXPECT_EQ(server.server.Listen(listener).reason_, REASON::INVALID);
    }
}

TEST(Server, AnswersOnceAndOnlyItsOwnStream) {
    TestServer server;
    std::vector<CVEKHttpResponder> kept;
    std::atomic<int> keptCount{0};
    std::vector<std::thread> threads;
    server.handler = [&](VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder responder) {
        VEK_ST_HTTP_RESPONSE response = Answering(200, "body");
        if (request.path_ == "/later") {
            threads.emplace_back([&server, responder = std::move(responder), response]() mutable {
                for (const int status : {99, 101, 200, 103, 104}) {
                    responder.SendInformational(status, {{"link", "</a>"}});
                }
                server.given = std::chrono::steady_clock::now();
                EXPECT_TRUE(responder.Send(response));
                EXPECT_FALSE(responder.Send(response));
            });
            return;
        }
        if (request.path_ == "/throw") { throw std::runtime_error("handler"); }
        if (request.path_ == "/memory") { throw std::bad_alloc(); }
        if (request.path_.rfind("/status", 0) == 0) { responder.Send(Answering(std::stoi(request.path_.substr(7)))); }
        if (request.path_ == "/large") { responder.Send(Answering(200, {}, {{"x", std::string(100000, 'x')}})); }
        if (request.path_ == "/reset") { responder.Reset(NGHTTP2_HTTP_1_1_REQUIRED); }
        if (request.path_ == "/keep") {
            kept.push_back(std::move(responder));
            ++keptCount;
        }
    };
    const int port = server.Open();
    TestClient client(port);
    std::string hints;
    VEK_ST_HTTP_CALL_OPTIONS options;
    options.onInformational_ = [&](int status, const CVEKHttpFields& fields) {
        hints.append(std::to_string(status)).append(fields.Get("Link")).append(fields.GetSize(), '.');
    };
    const VEK_ST_HTTP_RESPONSE later = client.Get("/later", options);
    EXPECT_EQ(std::tuple(later.body_.GetText(), later.informational_), std::tuple("body", 2U));
    VEK_ST_HTTP_REQUEST expecting = Asking("/status234", "POST", "x");
    expecting.fields_.Add("expect", "100-continue");
    EXPECT_EQ(client.client.Send(expecting, options).get().status_, 234);
    EXPECT_EQ(hints, "103</a>.104</a>.100");
    for (const char* path : {"/throw", "/status99", "/status199", "/status1000", "/large", "/drop"}) {
        EXPECT_EQ(client.Get(path).status_, 500) << path;
    }
    EXPECT_EQ(client.Get("/status200").status_ + client.Get("/status999").status_, 1199);
    EXPECT_EQ(client.Get("/reset").failure_.code_, static_cast<uint32_t>(NGHTTP2_HTTP_1_1_REQUIRED));

    // A handle whose stream has gone reaches nobody, though its place is in use again.
    EXPECT_EQ(client.Get("/keep", Within(milliseconds(200))).failure_.reason_, REASON::TIMEOUT);
    ASSERT_TRUE(Eventually([&] { return server.server.GetCounters().streams_ == 0; }));
    auto next = client.client.Send(Asking("/keep"));
    ASSERT_TRUE(Eventually([&] { return keptCount == 2; }));
    kept[0].Send(Answering(418));
    kept[1].Send(Answering(201));
    EXPECT_EQ(next.get().status_, 201);

    // The end of memory takes one connection along.
    TestClient other(port, Options(1));
    EXPECT_EQ(other.Get("/memory").failure_.reason_, REASON::PEER_CLOSED);
    EXPECT_TRUE(server.HasEnded(REASON::MEMORY));
    EXPECT_EQ(client.Get("/drop").status_, 500);
    for (std::thread& thread : threads) { thread.join(); }
}

TEST(Server, TellsWhereARequestComesFromAndThatItHasGone) {
    TestServer server;
    std::mutex mutex;
    std::vector<CVEKHttpResponder> kept;
    std::vector<std::string> origins;
    std::atomic<int> gone{0};
    const auto token = std::make_shared<int>();
    server.handler = [&](VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder responder) {
        const VEK_ST_HTTP_ORIGIN origin = responder.GetOrigin();
        const std::lock_guard<std::mutex> guard(mutex);
        origins.push_back(std::to_string(origin.connection_) + " " + std::to_string(origin.stream_) + " " +
                          std::to_string(origin.streams_) + " " + std::string(origin.peer_.substr(0, 10)));
        responder.OnGone([&gone, token] { ++gone; });
        if (request.path_ == "/answer") { responder.Send({}); }
        kept.push_back(std::move(responder));
    };
    TestClient client(server.Open());
    auto waiting = client.client.Send({});
    ASSERT_TRUE(Eventually([&] { return server.server.GetCounters().streams_ == 1; }));
    EXPECT_EQ(client.Get("/answer").status_, 200);
    EXPECT_TRUE(Eventually([&] { return server.server.GetCounters().streams_ == 1; }));
    EXPECT_EQ(token.use_count(), 2);  // that of the answered one has been dropped
    EXPECT_EQ(client.Get("/reset", Within(milliseconds(50))).failure_.reason_, REASON::TIMEOUT);
    EXPECT_TRUE(Eventually([&] { return gone == 1; }));
    EXPECT_EQ(server.server.GetCounters().reset_, 1U);
    client.loops.Stop();  // and with it the connection
    EXPECT_TRUE(Eventually([&] { return gone == 2 && token.use_count() == 1; }));
    EXPECT_EQ(origins, (std::vector<std::string>{"1 1 1 127.0.0.1:", "1 3 2 127.0.0.1:", "1 5 2 127.0.0.1:"}));
}

TEST(Server, StreamsBothWaysWithBackPressure) {
    constexpr size_t TOTAL = size_t{8} << 20;
    VEK_ST_HTTP_SERVER_OPTIONS options;
    options.settings_.bodyBytes_ = 1000;
    options.settings_.streamWindow_ = 100000;
    TestServer server(options);
    const auto produce = [](std::atomic<size_t>& made, std::atomic<bool>& isPaused, const char* sum) {
        return VEK_HTTP_PRODUCER([&, sum](std::string& piece, size_t wanted, CVEKHttpFields& trailers) {
            if (made == TOTAL / 2 && !isPaused.exchange(true)) { return PRODUCED::LATER; }
            if (made < TOTAL) {
                piece.assign(std::min(wanted, (isPaused ? TOTAL : TOTAL / 2) - made), 'p');
                made += piece.size();
                return PRODUCED::MORE;
            }
            trailers.Add("sum", sum);
            return PRODUCED::END;
        });
    };
    std::atomic<size_t> received{0}, answered{0}, produced{0}, taken{0};
    std::unique_ptr<CVEKHttpResponder> held;
    std::atomic<bool> isHeld{true}, isPaused{false}, isNeverPaused{true}, isStalled{true};
    server.server.SetHeadHandler([&](const VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder& responder) {
        std::optional<VEK_ST_HTTP_RECEIVER> receiver;
        if (request.path_ == "/ignored") {
            responder.Send(Answering(202));
        } else if (request.path_ == "/stream") {
            held = std::make_unique<CVEKHttpResponder>(std::move(responder));
            receiver.emplace();
            receiver->onPiece_ = [&](std::string_view piece) { return received += piece.size(), !isHeld; };
            receiver->onEnd_ = [&](const CVEKHttpFields& trailers, const VEK_ST_HTTP_FAILURE& failure) {
                EXPECT_FALSE(failure);
                VEK_ST_HTTP_RESPONSE response;
                response.fields_.Add("x-trailer", trailers.Get("sum"));
                response.body_ = produce(answered, isNeverPaused, "done");
                held->Send(std::move(response));
            };
        }
        return receiver;
    });
    TestClient client(server.Open());
    VEK_ST_HTTP_REQUEST request = Asking("/stream", "PUT", produce(produced, isPaused, "42"));
    VEK_ST_HTTP_CALL_OPTIONS call;
    call.onPiece_ = [&](std::string_view piece) { return taken += piece.size(), !isStalled; };
    std::promise<VEK_ST_HTTP_RESPONSE> promise;
    CVEKHttpCall handle = client.client.Send(
        std::move(request), [&](VEK_ST_HTTP_RESPONSE& response) { promise.set_value(std::move(response)); }, call);
    // The receiver holds the window: no more than that comes, nor is made.
    ASSERT_TRUE(Eventually([&] { return received == 100000; }));
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_EQ(received, 100000U);
    EXPECT_LE(produced, 200000U);
    isHeld = false;
    held->Consume(SIZE_MAX);
    ASSERT_TRUE(Eventually([&] { return isPaused.load(); }));
    handle.Resume();
    ASSERT_TRUE(Eventually([&] { return taken >= 256 * 1024; }));
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_EQ(taken, 256U * 1024);
    isStalled = false;
    handle.Consume(SIZE_MAX);
    const VEK_ST_HTTP_RESPONSE response = promise.get_future().get();
    EXPECT_FALSE(response.failure_) << response.failure_.text_;
    EXPECT_EQ(std::pair(received.load(), taken.load()), std::pair(TOTAL, TOTAL));
    EXPECT_EQ(response.bodyBytes_, TOTAL);
    EXPECT_EQ(response.fields_.Get("x-trailer"), "42");
    EXPECT_EQ(response.trailers_.Get("sum"), "done");

    EXPECT_EQ(client.Get("/ignored").status_, 202);
    // What is collected has a limit, whatever is streamed.
    EXPECT_EQ(client.Post(std::string(1000, 'x')).bodyBytes_, 1000U);
    EXPECT_EQ(client.Post(std::string(1001, 'x')).status_, 413);
}

TEST(Server, SharesBodiesAndSendsTrailers) {
    TestServer server;
    const auto shared = std::make_shared<const std::string>(size_t{1} << 20, 's');
    server.handler = [&](VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder responder) {
        VEK_ST_HTTP_RESPONSE response =
            Answering(request.path_ == "/" ? 200 : std::stoi(request.path_.substr(1)), shared);
        response.trailers_ = request.trailers_;
        responder.Send(std::move(response));
    };
    TestClient client(server.Open());
    std::vector<std::future<VEK_ST_HTTP_RESPONSE>> answers;
    for (int i = 0; i < 20; ++i) {
        VEK_ST_HTTP_REQUEST request;
        request.trailers_.Add("X-Number", std::to_string(i));
        answers.push_back(client.client.Send(std::move(request)));
    }
    for (int i = 0; i < 20; ++i) {
        const VEK_ST_HTTP_RESPONSE response = answers[static_cast<size_t>(i)].get();
        EXPECT_EQ(response.body_.GetText(), *shared);
        EXPECT_EQ(response.trailers_.Get("x-number"), std::to_string(i));
    }
    EXPECT_EQ(client.client.Send(Asking("/", "HEAD")).get().bodyBytes_, 0U);
    for (const int status : {204, 304}) {
        const VEK_ST_HTTP_RESPONSE response = client.Get("/" + std::to_string(status));
        EXPECT_EQ(response.status_ + static_cast<int>(response.bodyBytes_), status);
    }
    EXPECT_TRUE(Eventually([&] { return shared.use_count() == 1; }));
}

TEST(Server, KeepsPeersWithinLimits) {
    VEK_ST_HTTP_SERVER_OPTIONS options;
    options.settings_.headerBytes_ = 1000;
    options.progressTime_ = milliseconds(300);
    options.idleTime_ = options.handshakeTime_ = milliseconds(300);
    options.unreadBytes_ = 100000;
    options.controls_ = 3;  // a second
    options.settings_.connectionWindow_ = 120000;
    CVEKHttpResponder held;
    std::atomic<bool> isHeld{false};
    TestServer server(options);
    server.server.SetHeadHandler([&](const VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder& responder) {
        std::optional<VEK_ST_HTTP_RECEIVER> receiver;
        if (request.path_ == "/held") {
            held = std::move(responder);
            receiver.emplace();
            receiver->onPiece_ = [&](std::string_view) { return !(isHeld = true); };
        }
        return receiver;
    });
    const int port = server.Open();
    const RawClient mute(port), silent(port, false);
    EXPECT_EQ(mute.ReadUntil(NGHTTP2_GOAWAY).payload.substr(4, 4), MakeNumber(NGHTTP2_NO_ERROR));
    EXPECT_EQ(silent.ReadText(1), "");
    EXPECT_TRUE(server.HasEnded(REASON::TIMEOUT));
    std::string fields;
    for (char name = 'a'; name < 'j'; ++name) { fields += MakeField({name}, std::string(120, 'x')); }
    for (const std::string& bytes :  // header fields, and trailers
         {MakeHeaders(1, MakeRequest() + fields, true),
          MakeHeaders(1, MakeRequest(true), false) + MakeHeaders(1, fields, true)}) {
        RawClient peer(port);
        peer.Send(bytes);
        EXPECT_NE(peer.ReadUntil(NGHTTP2_HEADERS, 1).payload.find("431"), std::string::npos);
    }
    {  // time that the receiver takes is not the peer's
        RawClient peer(port);
        const std::string ping = MakeFrame(NGHTTP2_PING, 0, 0, "12345678");
        peer.Send(ping +
                  MakeHeaders(1, "\x83\x86" + MakeField(":path", "/held") + MakeField(":authority", "a"), false) +
                  Repeat(MakeData(1, std::string(16000, 'x'), false), 4));
        ASSERT_TRUE(Eventually([&] { return isHeld.load(); }));
        std::this_thread::sleep_for(milliseconds(1100));
        peer.Send(ping + ping + ping);
        held.Send({});
        EXPECT_EQ(peer.ReadUntil(NGHTTP2_HEADERS, 1).type, NGHTTP2_HEADERS);
        EXPECT_EQ(peer.ReadUntil(NGHTTP2_RST_STREAM, 1).payload, MakeNumber(NGHTTP2_NO_ERROR));
        EXPECT_EQ(peer.ReadUntil(NGHTTP2_WINDOW_UPDATE, 0).type, NGHTTP2_WINDOW_UPDATE) << "taken after all";
    }
    {  // a request that does not come on; then nothing at all
        RawClient peer(port);
        peer.Send(MakeHeaders(1, MakeRequest(true), false));
        EXPECT_EQ(peer.ReadUntil(NGHTTP2_RST_STREAM, 1).payload, MakeNumber(NGHTTP2_CANCEL));
        EXPECT_EQ(peer.ReadUntil(NGHTTP2_GOAWAY).payload.substr(4, 4), MakeNumber(NGHTTP2_NO_ERROR));
        EXPECT_TRUE(server.HasEnded(REASON::IDLE));
    }
    {  // answers that are not read: more are refused, and the streams go
        RawClient peer(port);
        const std::string body(60000, 'b');
        for (int stream = 1; stream < 9; stream += 2) {
            peer.Send(MakeHeaders(stream, MakeRequest(true), false));
            for (size_t at = 0; at < body.size(); at += 15000) {
                peer.Send(MakeData(stream, body.substr(at, 15000), at + 15000 == body.size()));
            }
        }
        EXPECT_EQ(peer.ReadUntil(NGHTTP2_RST_STREAM).payload, MakeNumber(NGHTTP2_REFUSED_STREAM));
        EXPECT_EQ(peer.ReadUntil(NGHTTP2_RST_STREAM, 3).payload, MakeNumber(NGHTTP2_CANCEL));
    }
    EXPECT_GE(server.server.GetCounters().refused_, 3U);
    TestClient client(port);
    for (int i = 0; i < 3; ++i) { EXPECT_EQ(client.Post(std::string(60000, 'x')).status_, 200); }
}

TEST(Server, EndsAbusiveConnections) {
    const auto behindHead = [](int stream, const std::string& bytes) {
        return stream == 1 ? MakeHeaders(1, MakeRequest(true), false) : bytes;
    };
    const std::function<std::string(int stream)> floods[] = {
        [](int stream) { return MakeHeaders(stream, MakeRequest(), true) + MakeReset(stream, NGHTTP2_CANCEL); },
        [](int) { return MakeFrame(NGHTTP2_PING, 0, 0, "12345678"); },
        [](int) { return MakeSettings(); },
        [](int) { return MakeFrame(NGHTTP2_PRIORITY, 0, 1, std::string(5, '\0')); },
        // Fields over the limit, a byte each; by far, once; nothing but padding; nothing at all.
        [](int stream) { return MakeHeaders(stream, MakeRequest() + std::string(300, '\x90'), true); },
        [](int stream) { return stream > 1 ? "" : MakeHeaders(1, MakeRequest() + std::string(5000, '\x90'), false); },
        [&](int stream) {
            return behindHead(stream, MakeFrame(NGHTTP2_DATA, NGHTTP2_FLAG_PADDED, 1, std::string(2, '\1')));
        },
        [&](int stream) { return behindHead(stream, MakeData(1, "", false)); },
    };
    for (size_t kind = 0; kind < std::size(floods); ++kind) {
        std::string bytes;
        for (int stream = 1; stream < 4000; stream += 2) { bytes += floods[kind](stream); }
        TestServer server;
        RawClient peer(server.Open());
        auto sender = std::async(std::launch::async, [&] { peer.Send(bytes); });
        EXPECT_EQ(peer.ReadUntil(NGHTTP2_GOAWAY).payload.substr(4, 4), MakeNumber(NGHTTP2_ENHANCE_YOUR_CALM)) << kind;
        EXPECT_TRUE(server.HasEnded(REASON::ABUSE)) << kind;
        EXPECT_EQ(server.server.GetCounters().abused_, 1U);
    }
}

TEST(Server, LimitsWhatAPeerHasLogged) {
    constexpr int STREAMS = 100;
    TestServer server;
    const std::string log = Capture([&] {
        RawClient peer(server.Open());
        for (int i = 0; i < STREAMS; ++i) {
            peer.Send(MakeHeaders(2 * i + 1, MakeRequest() + MakeField("bad", "\x1b[2J"), true));
        }
        peer.ReadUntil(NGHTTP2_RST_STREAM, 2 * STREAMS - 1);
        peer.Close();
        EXPECT_TRUE(server.HasEnded(REASON::PEER_CLOSED));
    });
    EXPECT_LT(Count(log, "value=[\\x1b[2J:4]") + Count(log, " just closed with error!"), 2U * STREAMS) << log;
    EXPECT_LT(0U, Count(log, "log lines left out("));
}

TEST(Server, IsCapturedInClearTextAtBothEndsOnRequest) {
    for (const bool isAsked : {false, true}) {
        const TempDir folders[2];
        VEK_ST_HTTP_SERVER_OPTIONS serverOptions;
        VEK_ST_HTTP_CLIENT_OPTIONS options;
        serverOptions.captureDirectory_ = folders[0].Path();
        options.captureDirectory_ = folders[1].Path();
        serverOptions.capture_.hasTLS_ = options.capture_.hasTLS_ = isAsked;
        {
            TestServer server(serverOptions, true);
            VEK_ST_HTTP_TARGET target = Target("127.0.0.1", server.Open());
            target.tls_ = MakeTls(false);
            TestClient client(0, options);
            ASSERT_FALSE(client.client.AddTarget(target));
            EXPECT_EQ(client.Post("captured").status_, 200);
        }
        std::set<std::string> ends;  // both files are named after the client's
        for (const TempDir& folder : folders) {
            for (const auto& file : std::filesystem::directory_iterator(folder.Path())) {
                const std::string name = file.path().filename(), text = folder.Read(name);
                EXPECT_EQ(Count(text, "PRI * HTTP/2.0") + Count(text, "captured"), 3U);
                EXPECT_EQ(file.status().permissions(), std::filesystem::perms(0600));
                EXPECT_EQ(name.find("127.0.0.1-"), 0U);
                ends.insert(name.substr(0, name.find('.', 10)));
            }
        }
        EXPECT_EQ(ends.size(), isAsked ? 1U : 0U);
    }
}

TEST(Server, LimitsConnectionsAndHandshakes) {
    VEK_ST_HTTP_SERVER_OPTIONS options;
    options.handshakes_ = 2;
    for (size_t* limit : {&options.connections_, &options.connectionsPerPeer_}) {
        options.connections_ = options.connectionsPerPeer_ = 3;
        *limit = 2;
        TestServer server(options);
        const int port = server.Open();
        RawClient silent(port, false), first(port);
        EXPECT_EQ(first.ReadUntil(NGHTTP2_SETTINGS).type, NGHTTP2_SETTINGS);
        RawClient second(port);  // one too many
        EXPECT_EQ(second.ReadUntil(NGHTTP2_SETTINGS).type, -1);
        EXPECT_EQ(server.server.GetCounters().tooMany_, 1U);
        silent.Close();
        ASSERT_TRUE(Eventually([&] { return server.server.GetCounters().connections_ == 1; }));
        RawClient third(port);
        EXPECT_EQ(third.ReadUntil(NGHTTP2_SETTINGS).type, NGHTTP2_SETTINGS);
        EXPECT_EQ(server.server.GetCounters().accepted_, 4U);
        EXPECT_EQ(server.server.GetCounters().up_, 2U);
    }
    options.connectionsPerPeer_ = options.connections_ = 0;
    TestServer open(options);
    const int openPort = open.Open();
    std::vector<std::unique_ptr<RawClient>> waiting;
    for (int i = 0; i < 8; ++i) { waiting.push_back(std::make_unique<RawClient>(openPort, false)); }
    EXPECT_EQ(waiting[0]->ReadText(1), "") << "given up for newer ones";
    EXPECT_TRUE(open.HasEnded(REASON::FULL));
    EXPECT_TRUE(Eventually([&] { return open.server.GetCounters().evicted_ == 6; }));
    EXPECT_TRUE(Eventually([&] { return open.server.GetCounters().connections_ == 2; }));
    waiting[7]->Send(NGHTTP2_CLIENT_MAGIC + MakeSettings());
    EXPECT_EQ(waiting[7]->ReadUntil(NGHTTP2_SETTINGS).type, NGHTTP2_SETTINGS);
}

TEST(Server, PausesWhileDescriptorsAreShort) {
    TestServer server;
    const int port = server.Open();
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit low{256, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &low);
    std::vector<int> hogs;
    for (int hog = open("/dev/null", O_RDONLY); hog >= 0; hog = open("/dev/null", O_RDONLY)) { hogs.push_back(hog); }
    close(hogs.back());  // which leaves one to the client
    hogs.pop_back();
    const RawClient peer(port);
    EXPECT_TRUE(Eventually([&] { return server.server.GetCounters().pauses_ > 0; }));
    for (const int hog : hogs) { close(hog); }
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(peer.ReadUntil(NGHTTP2_SETTINGS).type, NGHTTP2_SETTINGS);
}

TEST(Server, EndsConnectionsThatEndAlready) {
    const TempDir folder;
    TestServer server;
    server.handler = [](VEK_ST_HTTP_REQUEST&, CVEKHttpResponder responder) {
        responder.Send(Answering(200, std::string(size_t{6} << 20, 'b')));
    };
    const int port = server.Open();
    VEK_ST_HTTP_LISTENER path;
    path.unixPath_ = folder.Write("file", "not a socket");
    EXPECT_EQ(server.server.Listen(path).reason_, REASON::SYSTEM);
    EXPECT_EQ(folder.Read("file"), "not a socket");
    RawClient offender(port);  // has had its GOAWAY, and does not close
    offender.Send(MakeFrame(NGHTTP2_SETTINGS, 0, 1, ""));
    EXPECT_EQ(offender.ReadUntil(NGHTTP2_GOAWAY).payload.substr(4, 4), MakeNumber(NGHTTP2_PROTOCOL_ERROR));
    RawClient slow(port, false);  // takes its answer when the server has long done its part
    slow.Send(NGHTTP2_CLIENT_MAGIC + MakeSettings(std::string("\0\4\x7f\xff\xff\xff", 6)) +
              MakeFrame(NGHTTP2_WINDOW_UPDATE, 0, 0, std::string("\x7f\0\0\0", 4)) +
              MakeHeaders(1, MakeRequest(), true));
    EXPECT_EQ(slow.ReadUntil(NGHTTP2_HEADERS, 1).type, NGHTTP2_HEADERS);
    std::promise<void> first;
    server.server.Drain(seconds(20), [&] { first.set_value(); });
    auto stopped = std::async(std::launch::async, [&] { return server.server.Stop(seconds(20)); });
    ASSERT_TRUE(Eventually([&] { return !IsListening(port); }));
    EXPECT_EQ(server.server.Listen({}).reason_, REASON::CLOSED);
    size_t bytes = 0;
    for (RawFrame frame = slow.Read(); frame.type != -1; frame = slow.Read()) {
        bytes += frame.type == NGHTTP2_DATA ? frame.payload.size() : 0;
    }
    slow.Close();
    EXPECT_EQ(bytes, size_t{6} << 20);
    first.get_future().wait();
    EXPECT_TRUE(stopped.get());
    EXPECT_TRUE(server.server.Stop(seconds(0))) << "over before";
}

TEST(Server, DrainsInGoodOrder) {
    for (const bool isWhole : {true, false}) {
        TestServer server;
        CVEKHttpResponder held;
        std::atomic<bool> isIn{false};
        server.handler = [&](VEK_ST_HTTP_REQUEST&, CVEKHttpResponder responder) {
            held = std::move(responder);
            isIn = true;
        };
        const int port = server.Open();
        TestClient client(port);
        RawClient idle(port), mute(port), silent(port, false);
        EXPECT_EQ(idle.ReadUntil(NGHTTP2_SETTINGS).type, NGHTTP2_SETTINGS);
        auto answer = client.client.Send({});
        ASSERT_TRUE(Eventually([&] { return isIn.load(); }));
        auto stopped =
            std::async(std::launch::async, [&] { return server.server.Stop(isWhole ? seconds(20) : seconds(0)); });
        if (isWhole) {
            // The notice, and the last stream once the peer has it.
            EXPECT_EQ(idle.ReadUntil(NGHTTP2_GOAWAY).payload.substr(0, 4), MakeNumber(INT32_MAX));
            const RawFrame ping = idle.ReadUntil(NGHTTP2_PING);
            idle.Send(MakeFrame(NGHTTP2_PING, NGHTTP2_FLAG_ACK, 0, ping.payload));
            EXPECT_EQ(idle.ReadUntil(NGHTTP2_GOAWAY).payload.substr(0, 4), MakeNumber(0));
            EXPECT_EQ(idle.Read().type, -1);
            idle.Close();
            mute.ReadUntil(NGHTTP2_GOAWAY);
            EXPECT_EQ(mute.ReadUntil(NGHTTP2_GOAWAY).payload.substr(0, 4), MakeNumber(0)) << "without that";
            mute.Close();
            EXPECT_TRUE(Eventually([&] { return !IsListening(port); }));
            held.Send(Answering(203));
            EXPECT_EQ(answer.get().status_, 203);
        }
        EXPECT_EQ(stopped.get(), isWhole);
        EXPECT_EQ(server.server.GetCounters().connections_, 0U);
        EXPECT_EQ(server.server.GetCounters().failed_, isWhole ? 0U : 1U);
    }
}

// Handles that are answered, told of gone peers, reset or dropped by threads of their own, while clients give
// requests up, connections come and go and the server ends before the last of them.
TEST(Stress, EveryHandleEndsItsRequestOnce) {
    const Stress stress;
    std::atomic<unsigned> sent{0}, answered{0}, failed{0}, strange{0};
    const auto end = [](CVEKHttpResponder handle) {
        const unsigned way = Stress::Draw(8);
        if (way == 0) { return handle.Reset(NGHTTP2_CANCEL); }
        if (way == 1) { return; }  // dropped: 500
        if (way == 2) { handle.SendInformational(103, {}); }
        if (way > 5) {
            handle.OnGone([] {});
        }
        EXPECT_TRUE(handle.Send(Answering(200, std::string(Stress::Draw(5000), 'x'))));
        EXPECT_FALSE(handle.Send({}));
    };
    std::mutex mutex;
    std::vector<std::thread> threads;
    const auto join = [&] {
        const std::lock_guard<std::mutex> guard(mutex);
        for (auto& thread : threads) { thread.join(); }
        threads.clear();
    };
    {
        TestServer server;
        server.handler = [&](VEK_ST_HTTP_REQUEST&, CVEKHttpResponder responder) {
            const std::lock_guard<std::mutex> guard(mutex);
            threads.emplace_back([&, handle = std::move(responder)]() mutable { end(std::move(handle)); });
        };
        const int port = server.Open();
        while (stress.IsLeft()) {  // each round has connections of its own
            TestClient client(port, Options(), 2);
            for (int i = 0; i < 100; ++i) {
                ++sent;
                CVEKHttpCall call = client.client.Send({}, [&](VEK_ST_HTTP_RESPONSE& response) {
                    ++(response.failure_ ? failed : answered);
                    strange += response.failure_ || response.status_ % 300 == 200 ? 0 : 1;
                });
                if (Stress::Draw(10) == 0) { call.Cancel(); }
            }
            // The rest lose their client.
            EXPECT_TRUE(Eventually([&, enough = sent - Stress::Draw(50)] { return answered + failed >= enough; }));
            if (stress.IsLeft()) { join(); }
        }
        server.server.Stop(milliseconds(Stress::Draw(50)));
    }
    join();
    EXPECT_EQ(answered + failed, sent);
    EXPECT_EQ(strange, 0U);
    printf("%u sent, %u answered, %u failed\n", sent.load(), answered.load(), failed.load());
}

}  // namespace
