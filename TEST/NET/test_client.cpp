// The client connection against a scripted peer that misbehaves in every way it can, with what a policy changes.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "CVEKServiceLog.h"
#include "NetTest.h"
#include "VEKHttp2UpgradeText.h"
#include "VEKText.h"

namespace {

struct Client {
    explicit Client(const RawPeer& peer, const Policy& policy = {}, VEK_ST_HTTP2_OPTIONS options = Options(),
                    bool isEvent = false, bool isUpgrade = false)
        : body(options.nMaxPayloadSize_) {
        options.nPushEnable_ = 7;
        EXPECT_TRUE(connection.Initialize("raw", &options));
        connection.SetPolicy(policy);
        EXPECT_TRUE(isUpgrade ? connection.Connect("127.0.0.1", peer.Port(), isEvent)
                              : connection.Connect("127.0.0.1", peer.Port(), nullptr, isEvent));
        response.payload_.data_ = body.data();
    }
    int Queue(int id, const std::string& path = "/", size_t size = 5, bool wait = false) {
        const std::string text(size, 'x');
        return connection.Request(id, nullptr, "POST", path.c_str(), {}, size, text.data(), wait);
    }
    // Asks and waits for the response. All that the request refers to goes at the end.
    std::string Ask(int id, const std::string& path = "/", size_t size = 5) {
        std::string text(size, 'x');
        VEK_ST_HTTP2_REQUEST request{};
        request.messageId_ = id;
        VEK_COPY_TEXT(request.method_, "POST");
        VEK_COPY_TEXT(request.path_, path.c_str());
        request.payload_ = {size, 0, text.data()};
        return connection.Request(&request, &response) ? Describe() : DescribeEnd(connection);
    }
    // The next response, or how the connection has ended.
    std::string Collect() {
        int result = 0;
        Eventually([&] { return (result = connection.Response(&response)) != 0; });
        return result == -1 ? DescribeEnd(connection) : Describe();
    }
    // Number, status, error, body or its size, and trailers.
    std::string Describe() const {
        std::string text = std::to_string(response.messageId_) + "=" + response.rs_;
        const size_t size = response.error_ == VEK_HTTP2_ERROR_TIMEOUT ? 0 : response.payload_.size_;
        if (response.error_ != 0) { text += "/" + std::to_string(response.error_); }
        if (size > 0) { text += size > 10 ? "#" + std::to_string(size) : ":" + std::string(body.data(), size); }
        for (const auto& [name, value] : response.trailers_) { text += "+" + value; }
        return text + " ";
    }

    CVEKHttp2Request connection;
    VEK_ST_HTTP2_RESPONSE response;
    std::vector<char> body;
};

// Streams 1, 3 and so on are those of requests 0, 1 and so on.
const std::string EARLY = MakeHeaders(1, MakeField(":status", "103"), false);
std::string Part(size_t size) { return MakeData(1, std::string(size, 'x'), false); }
const std::string PROMISE = MakeField(":method", "GET") + MakeField(":scheme", "http") + MakeField(":path", "/p") +
                            MakeField(":authority", "a");

// What comes of it: the responses in the order of their numbers, the connection's end, and what the
// peer has seen of resets and GOAWAYs.
const struct {  // NOLINT(clang-analyzer-optin.performance.Padding): in the order of the story
    const char* name;
    void (*set)(Policy& policy);  // null where no policy changes anything
    int requests;
    std::string bytes;  // that come behind the requests
    const char* off;
    const char* on;
    const char* log;         // of the last of the two
    size_t size = 5;         // of the requests' bodies
    bool isClosing = false;  // the peer closes right behind the bytes
} CASES[] = {
    {"no body", nullptr, 1, MakeHeaders(1, STATUS_200, true), "0=200 open goaway:0", "", "Send GO-AWAY Frame"},
    {"reset", nullptr, 1, MakeReset(1, 2), "0=000/2 open goaway:0", "",
     "received RST_STREAM frame! stream_id(1) cause(2)"},
    {"body fits", nullptr, 1, MakeHeaders(1, STATUS_200, false) + MakeData(1, std::string(PAYLOAD, 'x'), true),
     "0=200#64 open goaway:0", "", "closed...cause(normal)"},
    {"pings and what is unknown", nullptr, 1,
     Repeat(PING, 3) + MakeFrame(NGHTTP2_PING, NGHTTP2_FLAG_ACK, 0, "12345678") + MakeFrame(0xbe, 0, 0, "x") +
         PRIORITY + Answer(1),
     "0=200:hi open goaway:0 pong", "", "RECV FRAME[2]..."},
    {"settings", nullptr, 1, MakeSettings(Entry(1, 0) + Entry(3, 9) + Entry(6, 9999) + Entry(4, 65535)) + Answer(1),
     "0=200:hi open goaway:0", "", "]conn(raw) received settings...(niv=4)\n"},
    {"push", nullptr, 1,
     MakeFrame(NGHTTP2_PUSH_PROMISE, NGHTTP2_FLAG_END_HEADERS, 1, MakeNumber(2) + PROMISE) + Answer(1),
     "0=200:hi open goaway:0", "", ":path: /p\n"},
    {"the first cause stays", nullptr, 1, MakeGoaway(0, 0) + std::string(100, '\xff'), "end 2/13NO_ERROR", "",
     "receive GOAWAY frame(0)..."},
    {"frame too large", nullptr, 1, MakeFrame(NGHTTP2_DATA, 0, 1, std::string(20000, 'x')),
     "end 3/16FRAME_SIZE_ERROR goaway:6", "", "session ended by protocol error!..."},
    {"invalid settings", nullptr, 1, MakeSettings(Entry(2, 7)), "end 3/16PROTOCOL_ERROR", "",
     "HTTP/2 invalid frame recv callback-Protocol error"},
    {"not HTTP/2", nullptr, 1, "HTTP/1.1 400 Bad Request\r\n\r\n", "end 3/16FRAME_SIZE_ERROR goaway:6", "",
     "closed...cause(transport error)"},
    {"goaway", Graceful, 3, MakeGoaway(3, 0) + Answer(1) + Answer(3), "end 2/13NO_ERROR",
     "0=200:hi 1=200:hi 2=000/-9997 end 2/13NO_ERROR", "finished after GOAWAY...", 5, true},
    {"two goaways", Graceful, 3, MakeGoaway(MAX_INCREMENT, 0) + Answer(1) + MakeGoaway(3, 0) + Answer(3),
     "end 2/13NO_ERROR", "0=200:hi 1=200:hi 2=000/-9997 end 2/13NO_ERROR", "finished after GOAWAY..."},
    {"window of a stream", Contained, 2, Increase(1) + Answer(3), "end 3/16FLOW_CONTROL_ERROR",
     "0=000/3 1=200:hi open goaway:0 reset1:3", "stream(1) just closed with error!(3)"},
    {"window of the connection", Contained, 1, Increase(0), "end 3/16FLOW_CONTROL_ERROR",
     "end 3/16FLOW_CONTROL_ERROR goaway:3", ""},
    {"continuations", Contained, 1,
     MakeFrame(NGHTTP2_HEADERS, 0, 1, STATUS_200) + Repeat(MakeFrame(NGHTTP2_CONTINUATION, 0, 1, ""), 100),
     "end 3/16ENHANCE_YOUR_CALM", "end 3/16ENHANCE_YOUR_CALM goaway:11", "nghttp2_session_recv() failed..."},
    {"malformed status", Contained, 2, MakeHeaders(1, MakeField(":status", "abc"), true) + Answer(3),
     "end 8/16PROTOCOL_ERROR goaway:2", "0=000/1 1=200:hi open goaway:0 reset1:1", ""},
    {"malformed field", Contained, 2, MakeHeaders(1, STATUS_200 + MakeField("A b", "x"), true) + Answer(3),
     "end 8/16PROTOCOL_ERROR goaway:2", "0=000/1 1=200:hi open goaway:0 reset1:1",
     "conn(raw) Invalid HTTP header field was received: frame type: 1, stream: 1, name: [A b], value: [x]"},
    {"content-length", Contained, 2,
     Answer(3) + MakeHeaders(1, STATUS_200 + MakeField("content-length", "5"), false) + MakeData(1, "hi", true),
     "0=000/-9998 1=200:hi open goaway:0 reset1:1", "0=000/1 1=200:hi open goaway:0 reset1:1",
     "stream(1) just closed with error!(1)"},
    {"informational", [](Policy& p) { p.isInformationalSkipped_ = true; }, 1, EARLY + EARLY + Answer(1),
     "0=103:hi open goaway:0", "0=200:hi open goaway:0", "stream(1) informational response..."},
    {"trailers", [](Policy& p) { p.hasTrailers_ = true; }, 1,
     MakeHeaders(1, STATUS_200, false) + MakeData(1, "hi", false) + MakeHeaders(1, MakeField("sum", "7"), true),
     "0=200:hi open goaway:0", "0=200:hi+7 open goaway:0", ""},
    {"too large, but for its first chunk", [](Policy& p) { p.isStatusKept_ = true; }, 1,
     MakeHeaders(1, STATUS_200, false) + Part(40) + Repeat(Part(25), 9) + MakeData(1, "", true),
     "0=000/-9999#40 open goaway:0", "0=200/-9999#40 open goaway:0", "conn(raw) payload buffer overflow!..."},
    {"settings not acknowledged", [](Policy& p) { p.settingsAckMs_ = 50; }, 1, "", "0=000/-9998 open all1 goaway:0",
     "end 3/10SETTINGS_TIMEOUT all1 goaway:4", "]conn(raw) SETTINGS not acknowledged in time!..."},
    {"body not taken", [](Policy& p) { p.stallMs_ = 50; }, 1, "", "0=000/-9998 open goaway:0",
     "end 3/12ENHANCE_YOUR_CALM goaway:11", "]conn(raw) peer does not take its data!...", 100000},
};

TEST(Client, EndsOrGoesOnAsThePolicySays) {
    // Queued or asked for, without the policy and with it.
    for (size_t i = 0; i < 4 * std::size(CASES); ++i) {
        const auto& test = CASES[i / 4];
        const bool isOn = i % 4 > 1, isSync = i % 2 == 1;
        const std::string expected = isOn ? test.on : test.off;
        const bool isLate = expected.find("-9998") != std::string::npos;  // would end the connection
        if ((isOn && test.set == nullptr) || (isSync && (test.requests > 1 || isLate))) { continue; }
        SCOPED_TRACE(std::string(test.name) + (isOn ? " on" : " off") + (isSync ? " asked" : ""));
        const bool isOpen = expected.find("open") != std::string::npos;
        const int passed = isOn && test.bytes.find(EARLY) == 0 ? 2 : 0;
        std::string wire;
        std::set<std::string> results;
        const std::string log = Capture([&] {
            G_VEK_HTTP2_DETAIL_LOG = true;
            RawPeer peer([&](RawPeer& self) {
                for (int k = 0; k < test.requests && !test.bytes.empty(); ++k) { self.ReadRequest(); }
                self.Send(test.bytes);
                if (!test.isClosing) { wire = Watch(self); }
            });
            Policy policy;
            if (isOn) { test.set(policy); }
            Client client(peer, policy, Options(8, std::max(PAYLOAD, test.size)));
            CVEKHttp2Request& connection = client.connection;
            for (int k = 0; k < test.requests && !isSync; ++k) { EXPECT_EQ(1, client.Queue(k, "/", test.size)); }
            for (int k = 0; k < test.requests + (isOpen || isSync ? 0 : 1); ++k) {
                results.insert(isSync ? client.Ask(k, "/", test.size) : client.Collect());
            }
            results.insert(DescribeEnd(connection));
            EXPECT_EQ(passed, connection.GetInformationalCount());
            EXPECT_EQ(0, connection.GetIncompleteCount());
            EXPECT_TRUE(connection.IsComplete() == isOpen || isLate || test.requests > 1);
            EXPECT_EQ(isOpen ? 1 : VEK_HTTP2_REQUEST_CLOSED, client.Queue(9));
            EXPECT_TRUE(isOpen || client.Ask(9) == DescribeEnd(connection));
        });
        G_VEK_HTTP2_DETAIL_LOG = false;
        const bool isTold = *test.log != '\0' && (isOn || test.set == nullptr);
        EXPECT_EQ(isTold ? std::max<size_t>(passed, 1) : 0U, isTold ? Count(log, test.log) : 0U) << test.log << log;
        const std::string always =
            "(\\]conn\\(raw\\) (http/2 direct negotiation|http session initialized...|disconnect...|"
            "closed...cause\\((normal|by peer|transport error|internal error)\\)|http/2 options...|invalid state!...)| "
            "-[A-Z ]+ = +(8|64|100000|65536|16384|true|1))$";
        EXPECT_EQ(isOpen ? 11U : 12U, FindAll(log, always).size()) << log;
        std::string text;
        for (const std::string& result : results) { text += result; }
        EXPECT_EQ(expected, text + wire) << log;
    }
}

TEST(Client, EndlessBodyMeetsTheTimeout) {
    RawPeer peer([](RawPeer& self) {
        const int stream = self.ReadRequest();
        self.Send(MakeHeaders(stream, STATUS_200, false));
        std::atomic<bool> isDone{false};
        std::thread reader([&] {
            self.ReadUntil(-1);
            isDone = true;
        });
        while (!isDone) {  // ignores every window: the client must end this all the same
            self.Send(Repeat(MakeData(stream, "", false), 1000));
        }
        reader.join();
    });
    G_SERVICE_LOGGER.SetMask(0);
    Client client(peer);
    EXPECT_EQ("end ", client.Ask(1).substr(0, 4));
}

TEST(Client, RequestOnTheWire) {
    std::string block, settings, body;
    {
        RawPeer peer([&](RawPeer& self) {
            settings = self.ReadUntil(NGHTTP2_SETTINGS).payload;
            block = self.ReadUntil(NGHTTP2_HEADERS).payload;
            body = self.ReadUntil(NGHTTP2_DATA).payload;
            self.Answer(1, "ok");
            self.ReadUntil(-1);
        });
        Client client(peer);
        VEK_HTTP2_HEADER fields;
        for (int i = 0; i < 70; ++i) { fields.emplace_back("x-" + std::to_string(i), "v"); }
        const std::string log = Capture([&] {
            VEK_OPEN_SERVICE_LOG(VEK_LOG_WARNING);
            EXPECT_EQ(1, client.connection.Request(7, nullptr, "POST", "/test", fields, 5, "hello", false));
            EXPECT_EQ("7=200:ok ", client.Collect());
        });
        EXPECT_EQ(1U, Count(log, "too many http headers(64,x-60:v)...ignore!")) << log;
    }
    EXPECT_EQ("hello", body);
    EXPECT_EQ(Entry(3, 8) + Entry(4, 65536) + Entry(5, 16384) + Entry(1, 64) + Entry(2, 1), settings);

    EXPECT_EQ("\x86\x41", block.substr(0, 2));  // :scheme http, :authority
}

const auto STAY = [](RawPeer& self) { self.ReadUntil(-1); };

TEST(Client, RefusesWhatMustNotBeSent) {
    const std::tuple<const char*, size_t, const char*> cases[] = {
        {"test", 5, "end 8/19path of a request without a leading slash"},
        {"/", PAYLOAD + 1, "end 8/17body of a request too large"},
        {"/", PAYLOAD, "7=000/-9998 "}};
    for (const bool isChecked : {false, true}) {
        Policy policy;
        policy.isRequestChecked_ = isChecked;
        policy.responseMs_ = 50;
        for (const auto& [path, size, end] : cases) {
            SCOPED_TRACE(end);
            const bool isGood = *end == '7';
            RawPeer peer(STAY), another(STAY);
            Client asking(peer, policy), queueing(another, policy);
            EXPECT_EQ(isGood ? "end 4/9" : isChecked ? "open" : end, asking.Ask(7, path, size));
            EXPECT_EQ(isChecked && !isGood ? VEK_HTTP2_REQUEST_INVALID : 1, queueing.Queue(7, path, size));
            if (!isChecked || isGood) { EXPECT_EQ(end, queueing.Collect()); }
            const int refused = isChecked ? VEK_HTTP2_REQUEST_INVALID : VEK_HTTP2_REQUEST_CLOSED;
            EXPECT_EQ(refused, queueing.Queue(7, "/" + std::string(600, 'x')));
            EXPECT_EQ(isChecked || isGood ? "open" : end, DescribeEnd(queueing.connection));
        }
        policy.isOffenceContained_ = isChecked;
        RawPeer peer(STAY);
        Client client(peer, policy);
        const VEK_HTTP2_HEADER fields = {{"a", std::string(70000, 'x')}};  // more than the engine sends
        EXPECT_EQ(1, client.connection.Request(7, nullptr, "GET", "/", fields, 0, nullptr, false));
        EXPECT_EQ(isChecked ? "7=000/2 " : "end 8/19The length of the frame is invalid", client.Collect());
    }
}

TEST(Client, AuthorityNamesThePortExceptTwo) {
    CVEKHttp2Request connection;
    EXPECT_FALSE(connection.Connect("127.0.0.1", 1, nullptr, false));
    VEK_ST_HTTP2_OPTIONS options = Options();
    EXPECT_TRUE(connection.Initialize("once", &options));
    EXPECT_FALSE(connection.Initialize("twice", &options));
    EXPECT_STREQ("once", connection.GetName());
    const std::pair<int, const char*> cases[] = {
        {80, "127.0.0.9"}, {433, "127.0.0.9"}, {443, "127.0.0.9:443"}, {8443, "127.0.0.9:8443"}};
    for (const auto& [port, expected] : cases) {
        EXPECT_FALSE(connection.Connect("127.0.0.9", port, nullptr, false));
        connection.SetVirtualHeader();
        VEK_ST_HTTP2_REQUEST request{};
        VEK_COPY_TEXT(request.path_, "/");
        EXPECT_EQ(4, connection.PrepareRequest(&request));
        EXPECT_STREQ(expected, reinterpret_cast<char*>(request.hdrs_[1].value));
        for (int i = 0; i < 70; ++i) { request.hdr_.emplace_back("x-" + std::to_string(i), "v"); }
        EXPECT_EQ(64, connection.PrepareRequest(&request));
        const std::pair<int, const char*> names[] = {{0, ":scheme"}, {1, ":authority"}, {2, ":path"},
                                                     {3, ":method"}, {4, "x-0"},        {63, "x-59"}};
        for (const auto& [at, name] : names) { EXPECT_STREQ(name, reinterpret_cast<char*>(request.hdrs_[at].name)); }
    }
}

TEST(Client, ConnectsInSteps) {
    const auto script = [](RawPeer& self) {
        self.Answer(self.ReadRequest(), "steps");
        self.ReadUntil(-1);
    };
    const RawPeer peer(script), second(script);
    CVEKHttp2Request connection;
    const VEK_ST_HTTP2_OPTIONS options = Options();
    ASSERT_TRUE(connection.Initialize("steps", &options));
    EXPECT_EQ(VEK_HTTP2_STEP_FAILED, connection.Advance());  // not begun
    EXPECT_EQ(VEK_HTTP2_STEP_FAILED, ConnectInSteps(connection, FreePort(), nullptr));
    EXPECT_EQ(VEK_HTTP2_CONN_STATE_INIT, connection.GetState());
    EXPECT_EQ(-1, connection.GetSocket());
    addrinfo* list = CVEKSocketNew::RESOLVE(IPPROTO_TCP, "127.0.0.1", peer.Port());
    EXPECT_TRUE(connection.StartConnect(list, "127.0.0.1", 1, false));
    freeaddrinfo(list);
    connection.Disconnect();  // cancels
    EXPECT_EQ(VEK_HTTP2_STEP_FAILED, connection.Advance());
    EXPECT_EQ(1, connection.Request(1, nullptr, "GET", "/", {}, 0, nullptr, false));  // leaves with the connect
    ASSERT_EQ(VEK_HTTP2_STEP_DONE, ConnectInSteps(connection, second.Port(), nullptr));
    EXPECT_EQ(VEK_HTTP2_STEP_DONE, connection.Advance());
    EXPECT_EQ(0, connection.GetWaitEvents());
    EXPECT_EQ(std::chrono::steady_clock::time_point::max(), connection.GetWaitDeadline());
    VEK_ST_HTTP2_RESPONSE response;
    char body[PAYLOAD];
    response.payload_.data_ = body;
    EXPECT_TRUE(Eventually([&] { return connection.Response(&response) == 1; }));
    EXPECT_EQ("steps", std::string(body, response.payload_.size_));
}

// What is late must not be taken for an answer to anything, and a request that could not leave in time never does.
TEST(Client, TimeoutsKeepTheConnection) {
    std::string cancelled;
    {
        RawPeer peer([&](RawPeer& self) {
            cancelled = self.ReadUntil(NGHTTP2_RST_STREAM, self.ReadRequest()).payload;
            self.Send(MakeSettings(Entry(3, 0)) + Answer(1) + Answer(self.ReadRequest()));
            self.ReadUntil(NGHTTP2_PING);
            self.Send(MakeSettings(Entry(3, 100)));
            self.Send(Answer(self.ReadRequest()));
            self.ReadUntil(-1);
        });
        Policy policy;
        policy.responseMs_ = 300;
        policy.connectMs_ = 10000;
        Client client(peer, policy);
        EXPECT_TRUE(client.connection.GetTlsInfo().times_.nameUs_ > 0 &&
                    client.connection.GetTlsInfo().times_.tcpUs_ > 0);
        const char* results[] = {"0=000/-9998 ", "1=200:hi ", "2=000/-9998 ", "3=200:hi "};
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(1, client.Queue(i));
            client.response.trailers_ = {{"a", "b"}};  // of an earlier response
            EXPECT_EQ(results[i], client.Collect());
            EXPECT_TRUE(i != 2 || client.connection.SendPing());  // asks the peer to lift the limit
        }
        EXPECT_EQ("open", DescribeEnd(client.connection));
    }
    EXPECT_EQ(MakeNumber(NGHTTP2_CANCEL), cancelled);
}

// The peer answers while most of the body still waits for its window: the engine must let go of the
// caller's record, which is gone by the time the window opens.
TEST(Client, EarlyAnswerLetsTheRequestGo) {
    RawFrame reset;
    {
        RawPeer peer([&](RawPeer& self) {
            self.Answer(self.ReadUntil(NGHTTP2_HEADERS).stream, "early");
            reset = self.ReadUntil(NGHTTP2_RST_STREAM);
            self.Send(Increase(0, 1 << 20));
            self.Answer(self.ReadRequest(), "next");
            self.ReadUntil(-1);
        });
        Client client(peer, {}, Options(8, 200000));
        EXPECT_EQ("1=200:early ", client.Ask(1, "/", 200000));
        EXPECT_EQ("2=200:next ", client.Ask(2));
    }
    EXPECT_EQ(1, reset.stream);
    EXPECT_EQ(MakeNumber(NGHTTP2_CANCEL), reset.payload);
}

// More of them than there are records: a reset behind an answer is none, and behind a half-received one it gives
// the record back.
TEST(Client, ResetsKeepThePool) {
    RawPeer peer([](RawPeer& self) {
        for (int stream = self.ReadRequest(); stream != 0; stream = self.ReadRequest()) {
            const std::string head = MakeHeaders(stream, STATUS_200 + MakeField("a", "b"), false);
            const std::string answer = stream % 4 == 1 ? head + MakeData(stream, "hi", true) : head;
            self.Send(answer + MakeReset(stream, NGHTTP2_REFUSED_STREAM));
        }
    });
    Client client(peer);
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(i % 2 == 0 ? "7=200:hi " : "7=000/7 ", client.Ask(7));
        EXPECT_EQ(2 * i + 1, client.response.streamId_);
        EXPECT_EQ(i % 2 == 0 ? 1U : 0U, client.response.hdr_.size());
    }
}

TEST(Client, FullPoolRefusesOrWaits) {
    RawPeer peer([](RawPeer& self) {
        self.ReadUntil(NGHTTP2_PING);
        self.Send(MakeGoaway(MAX_INCREMENT, 0));
        self.ReadUntil(-1);
    });
    Policy policy;
    Graceful(policy);
    Client client(peer, policy, Options(8, PAYLOAD, 60));
    for (int i = 0; i < 8; ++i) { EXPECT_EQ(1, client.Queue(i)); }
    EXPECT_EQ(8, client.connection.GetIncompleteCount());
    EXPECT_EQ(0, client.Queue(8));
    EXPECT_EQ(-2, client.Queue(8, "/", 5, true));
    std::thread waiting([&] { EXPECT_EQ(-3, client.Queue(8, "/", 5, true)); });  // the GOAWAY ends that
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(client.connection.SendPing());
    while (client.connection.GetError().failure_ == VEK_HTTP2_FAILURE_NONE) { client.connection.ProcEvent(); }
    waiting.join();
    client.response.hdr_ = client.response.trailers_ = {{"a", "b"}};
    EXPECT_EQ("0=000/-9997 ", client.Collect());  // none of the eight has left
    EXPECT_TRUE(client.response.hdr_.empty());
    client.connection.Disconnect();
    EXPECT_EQ(-1, client.connection.Response(&client.response));
    EXPECT_TRUE(!client.connection.ProcEvent() && client.connection.GetSocket() == -1);
}

TEST(Client, StreamIdsRunOut) {
    RawPeer peer(STAY), next(STAY);
    Client client(peer);
    client.connection.SetStreamID(MAX_INCREMENT - 2);  // the last id but one
    EXPECT_FALSE(client.connection.IsStreamFull());
    EXPECT_EQ(1, client.Queue(1));
    EXPECT_TRUE(client.connection.IsStreamFull());
    EXPECT_EQ(1, client.Queue(2));
    EXPECT_EQ(-1, client.Queue(3));
    EXPECT_TRUE(client.connection.Response(nullptr) == 0 && !client.connection.IsComplete());
    EXPECT_TRUE(client.connection.Connect("127.0.0.1", next.Port(), nullptr, false) && client.connection.IsComplete());
    EXPECT_FALSE(client.connection.IsStreamFull());
}

TEST(Client, UnansweredPingCloses) {
    std::atomic<int> pings{0};
    RawPeer peer([&](RawPeer& self) {
        const RawFrame first = self.ReadUntil(NGHTTP2_PING);
        self.Send(MakeFrame(NGHTTP2_PING, NGHTTP2_FLAG_ACK, 0, first.payload));
        ++pings;
        while (self.ReadUntil(NGHTTP2_PING).type == NGHTTP2_PING) { ++pings; }
    });
    {
        VEK_ST_HTTP2_OPTIONS options = Options();
        options.nPingSendThreshold_ = 1;
        options.nPingTimeoutThreshold_ = 1;
        Client client(peer, {}, options);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ("end 6/11", client.Collect());
        EXPECT_LT(std::chrono::milliseconds(2900), std::chrono::steady_clock::now() - start);  // thrice a second
    }
    EXPECT_TRUE(Eventually([&] { return pings == 2; }));  // the first was answered in time
}

// The first request is answered, or times out in the midst of its answer, while the socket refuses
// its bytes: none that leave later may be another request's, whose record is the same one, and the
// rest of the answer is nobody's.
TEST(Client, CancelledRequestSendsNothingOfTheNext) {
    constexpr size_t SIZE = 8 << 20;
    for (const bool isAnswered : {true, false}) {
        std::string received[2];
        std::atomic<bool> isQueued{false};
        {
            RawPeer peer([&](RawPeer& self) {
                self.Send(WIDE);
                const int first = self.ReadUntil(NGHTTP2_HEADERS).stream;
                const std::string answer =
                    isAnswered ? MakeHeaders(first, STATUS_200, true)
                               : MakeHeaders(first, STATUS_200, false) + MakeData(first, "0123456789", true);
                const size_t half = isAnswered ? answer.size() : answer.size() - 5;
                self.Send(answer.substr(0, half));
                Eventually([&] { return isQueued.load(); });
                self.Send(answer.substr(half));
                RawFrame frame;
                do {
                    frame = self.ReadUntil(NGHTTP2_DATA);
                    received[frame.stream == first ? 0 : 1] += frame.payload;
                } while (frame.type != -1 && (frame.flags & NGHTTP2_FLAG_END_STREAM) == 0);
                self.Answer(frame.stream, "done");
                self.ReadUntil(-1);
            });
            Client client(peer, {}, Options(1, SIZE, isAnswered ? 30 : 2));
            for (const char text : {'a', 'b'}) {
                const std::string body(SIZE, text);
                EXPECT_EQ(1, client.connection.Request(1, nullptr, "POST", "/", {}, SIZE, body.data(), false));
                client.connection.Response(nullptr);
                isQueued = text == 'b';
                EXPECT_EQ(text == 'b' ? "1=200:done " : isAnswered ? "1=200 " : "1=000/-9998 ", client.Collect());
            }
        }
        EXPECT_EQ(std::string::npos, received[0].find_first_not_of('a'));
        EXPECT_TRUE(received[1] == std::string(SIZE, 'b')) << received[1].size();
    }
}

TEST(Client, OneThreadQueuesAnotherDrives) {
    constexpr int COUNT = 300;
    RawPeer peer([](RawPeer& self) { self.AnswerAll([](int stream) { return std::to_string(stream); }); });
    Client client(peer, {}, Options(8, PAYLOAD, 30));
    std::thread queue([&] {
        for (int i = 0; i < COUNT; ++i) {
            EXPECT_EQ(1, client.Queue(i, "/", 5, true));
            client.connection.IsSendDataExist();
            client.connection.IsStreamFull();
        }
    });
    std::set<int> answered;
    for (int i = 0; i < COUNT && !HasFailure(); ++i) {
        const std::string result = client.Collect();
        EXPECT_EQ("200:" + std::to_string(client.response.streamId_) + " ", result.substr(result.find('=') + 1));
        answered.insert(client.response.messageId_);
    }
    queue.join();
    EXPECT_EQ(static_cast<size_t>(COUNT), answered.size());
}

// The second of two requests waits in the engine for the first to end.
TEST(Client, GoawayFailsWhatThePeersLimitHoldsBack) {
    RawPeer peer([](RawPeer& self) {
        self.Send(MakeSettings(Entry(3, 1)) + Answer(self.ReadRequest()));
        const int stream = self.ReadRequest();
        self.ReadUntil(NGHTTP2_PING);
        self.Send(MakeGoaway(MAX_INCREMENT, 0) + Answer(stream));
    });
    Policy policy;
    Graceful(policy);
    Client client(peer, policy);
    EXPECT_EQ("0=200:hi ", client.Ask(0));
    for (const int id : {1, 2}) {
        EXPECT_EQ(1, client.Queue(id));
        EXPECT_EQ(1, client.connection.ProcEventPre());
    }
    EXPECT_TRUE(client.connection.SendPing());
    for (const char* result : {"2=000/-9997 ", "1=200:hi ", "end 2/13NO_ERROR"}) {
        EXPECT_EQ(result, client.Collect());
    }
}

// Requests that the peer's limit of streams holds back are no flood of the peer's, and a body among
// them counts for the limit of stalls from when its request may leave.
TEST(Client, HeldBackRequestsAreOurOwn) {
    constexpr int MANY = 10100;
    RawPeer peer([](RawPeer& self) {
        self.Send(MakeSettings(Entry(3, 0) + Entry(4, 0)) + Answer(self.ReadRequest()));
        self.ReadUntil(NGHTTP2_PING);
        self.Send(MakeSettings(Entry(3, 1)));
        self.ReadUntil(-1);
    });
    Policy policy;
    Contained(policy);
    policy.stallMs_ = 50;
    policy.responseMs_ = 60000;
    Client client(peer, policy, Options(MANY));
    EXPECT_EQ(1, client.Queue(0));
    EXPECT_EQ("0=200:hi ", client.Collect());
    for (int id = 1; id < MANY; ++id) {
        EXPECT_EQ(1, client.Queue(id));
        EXPECT_EQ(1, client.connection.ProcEventPre());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2 * policy.stallMs_));
    EXPECT_EQ(0, client.connection.Response(&client.response));
    EXPECT_TRUE(client.connection.SendPing());
    EXPECT_EQ("end 3/12ENHANCE_YOUR_CALM", client.Collect());
}

TEST(Client, ResetBehindTheUpgradesAnswerIsNone) {
    RawPeer peer(
        [](RawPeer& self) {
            std::string head;
            do { head += self.ReadText(1); } while (head.find("\r\n\r\n") == std::string::npos);
            self.Send(HTTP2_UPGRADE_RESPONSE + MakeSettings() + Answer(1));
            self.ReadText(NGHTTP2_CLIENT_MAGIC_LEN);
            self.Send(MakeReset(1, 2) + Answer(self.ReadRequest()));
            self.ReadUntil(-1);
        },
        false);
    Client client(peer, {}, Options(), false, true);
    EXPECT_EQ("0=200:hi ", client.Collect());
    EXPECT_EQ(1, client.Queue(7));
    EXPECT_EQ("7=200:hi ", client.Collect());
}

TEST(Client, CancelReachesNobody) {
    std::atomic<int> cancelled{0};
    RawPeer peer([&](RawPeer& self) {
        const int first = self.ReadRequest();
        cancelled = self.ReadUntil(NGHTTP2_RST_STREAM, first).payload == MakeNumber(NGHTTP2_CANCEL) ? first : 0;
        self.Send(Answer(first));
        const int second = self.ReadRequest(), third = self.ReadRequest();
        self.Send(Answer(second) + MakeGoaway(third, 0));
        self.ReadUntil(NGHTTP2_PING);
        self.Send(Answer(third));
        self.ReadUntil(-1);
    });
    Policy policy;
    policy.isGoawayGraceful_ = true;
    Client client(peer, policy, Options(), true);
    CVEKHttp2Request& connection = client.connection;
    EXPECT_EQ(1, client.Queue(1));
    EXPECT_EQ(1, connection.ProcEventPre());
    EXPECT_EQ(1, client.Queue(2));
    EXPECT_EQ(VEK_HTTP2_CANCEL_UNSENT, connection.Cancel(2));
    EXPECT_EQ(VEK_HTTP2_CANCEL_DONE, connection.Cancel(1));
    EXPECT_EQ(VEK_HTTP2_CANCEL_NONE, connection.Cancel(1));
    EXPECT_EQ(0, connection.GetIncompleteCount());
    EXPECT_EQ(0, connection.Response(&client.response));
    for (const int id : {3, 4}) {
        EXPECT_EQ(1, client.Queue(id));
        EXPECT_EQ(1, connection.ProcEventPre());
    }
    const auto receive = [&] {
        EXPECT_GT(CVEKSocketNew::SELECT(connection.GetSocket(), 10, 0), 0);
        return connection.ProcEvent();
    };
    while (connection.GetError().failure_ == VEK_HTTP2_FAILURE_NONE) { EXPECT_TRUE(receive()); }
    EXPECT_EQ(VEK_HTTP2_REQUEST_CLOSED, client.Queue(5));
    EXPECT_EQ("open", DescribeEnd(connection));
    EXPECT_EQ(VEK_HTTP2_CANCEL_DONE, connection.Cancel(3));  // has been answered, is not collected
    EXPECT_TRUE(connection.SendPing());
    while (receive()) {}
    EXPECT_EQ("4=200:hi ", client.Collect());
    EXPECT_EQ("end 2/13NO_ERROR", client.Collect());
    EXPECT_EQ(VEK_HTTP2_CANCEL_CLOSED, connection.Cancel(4));
    EXPECT_EQ(1, cancelled);
}

}  // namespace
