// What a policy changes, switch by switch: each case is played on the wire without it and with it.
// And why a connection has ended, what a cancelled request leaves, and whom a late answer reaches.
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <set>
#include <thread>
#include <type_traits>
#include <vector>

#include "CVEKHttp2Request.h"
#include "CVEKHttp2Response.h"
#include "RawPeer.h"
#include "TestSupport.h"
#include "TlsSupport.h"
#include "VEKCommonOpenSSL.h"
#include "VEKHttp2Option.h"
#include "VEKHttp2UpgradeText.h"
#include "VEKText.h"

namespace {

using Policy = VEK_ST_HTTP2_POLICY;
constexpr size_t PAYLOAD = 64;
constexpr size_t LARGE = 300000;  // more than a socket takes at once
constexpr int MAX_INCREMENT = 0x7fffffff;

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

VEK_ST_HTTP2_OPTIONS Options(uint32_t streams, size_t payload = PAYLOAD) {
    VEK_ST_HTTP2_OPTIONS options{};
    options.nMaxConcurrentStream_ = streams;
    options.nMaxPayloadSize_ = static_cast<uint32_t>(payload);
    return options;
}

// "open", or close cause, failure and code.
template <class CONNECTION>
std::string DescribeEnd(CONNECTION& connection) {
    const VEK_ST_HTTP2_ERROR error = connection.GetError();
    return connection.GetState() != VEK_HTTP2_CONN_STATE_CLOSE
               ? "open"
               : "end " + std::to_string(connection.GetStateCause()) + "/" + std::to_string(error.failure_) +
                     error.codeName_;
}

// What comes before the end: resets and GOAWAYs with their codes, and streams that the other side ends.
std::string Watch(const RawSocket& peer) {
    std::set<std::string> seen;
    for (RawFrame frame = peer.Read(); frame.type != -1; frame = peer.Read()) {
        const auto code = [&](size_t at) { return ":" + std::to_string(static_cast<int>(frame.payload[at])); };
        const bool isLast = frame.type <= NGHTTP2_HEADERS && (frame.flags & NGHTTP2_FLAG_END_STREAM) != 0;
        if (isLast) { seen.insert(" all" + std::to_string(frame.stream)); }
        if (frame.type == NGHTTP2_RST_STREAM) { seen.insert(" reset" + std::to_string(frame.stream) + code(3)); }
        if (frame.type == NGHTTP2_GOAWAY) { seen.insert(" goaway" + code(7)); }
    }
    std::string text;
    for (const std::string& entry : seen) { text += entry; }
    return text;
}

struct Client {
    Client(const RawPeer& peer, const Policy& policy, bool isEvent = false, size_t size = PAYLOAD, uint32_t streams = 8,
           bool isUpgrade = false)
        : body(size) {
        const VEK_ST_HTTP2_OPTIONS options = Options(streams, size);
        EXPECT_TRUE(connection.Initialize("policy", &options));
        connection.SetPolicy(policy);
        EXPECT_TRUE(isUpgrade ? connection.Connect("127.0.0.1", peer.Port(), isEvent)
                              : connection.Connect("127.0.0.1", peer.Port(), nullptr, isEvent));
        response.payload_.data_ = body.data();
    }
    int Queue(int id, const std::string& path = "/", size_t size = 5) {
        const std::string text(size, 'x');
        return connection.Request(id, nullptr, "POST", path.c_str(), {}, size, text.data(), false);
    }
    // The next response, or how the connection has ended.
    std::string Collect() {
        int result = 0;
        Eventually([&] { return (result = connection.Response(&response)) != 0; });
        if (result == -1) { return DescribeEnd(connection); }
        std::string text = std::to_string(response.messageId_) + "=" + response.rs_;
        if (response.error_ != 0) { text += "/" + std::to_string(response.error_); }
        for (const auto& [name, value] : response.trailers_) { text += "+" + value; }
        return text + " ";
    }

    CVEKHttp2Request connection;
    VEK_ST_HTTP2_RESPONSE response;
    std::vector<char> body;
};

// Streams 1, 3 and so on are those of requests 0, 1 and so on.
std::string Answer(int stream) { return MakeHeaders(stream, STATUS_200, false) + MakeData(stream, "hi", true); }
std::string Increase(int stream) { return MakeFrame(NGHTTP2_WINDOW_UPDATE, 0, stream, MakeNumber(MAX_INCREMENT)); }
const std::string EARLY = MakeHeaders(1, MakeField(":status", "103"), false);
void Graceful(Policy& policy) { policy.isGoawayGraceful_ = true; }
void Contained(Policy& policy) { policy.isOffenceContained_ = true; }

// What comes of it: the responses in the order of their numbers, the connection's end, and what the
// peer has seen of resets and GOAWAYs.
const struct {  // NOLINT(clang-analyzer-optin.performance.Padding): in the order of the story
    const char* name;
    void (*set)(Policy& policy);
    int requests;
    std::string bytes;  // that come behind the requests
    bool isClosing;     // the peer closes right behind them
    const char* off;
    const char* on;
    size_t size = 5;  // of the requests' bodies
} CLIENT_CASES[] = {
    {"goaway", Graceful, 3, MakeGoaway(3, 0) + Answer(1) + Answer(3), true, "end 2/13NO_ERROR",
     "0=200 1=200 2=000/-9997 end 2/13NO_ERROR"},
    {"two goaways", Graceful, 3, MakeGoaway(MAX_INCREMENT, 0) + Answer(1) + MakeGoaway(3, 0) + Answer(3), false,
     "end 2/13NO_ERROR", "0=200 1=200 2=000/-9997 end 2/13NO_ERROR"},
    {"window of a stream", Contained, 2, Increase(1) + Answer(3), false, "end 3/16FLOW_CONTROL_ERROR",
     "0=000/3 1=200 open goaway:0 reset1:3"},
    {"window of the connection", Contained, 1, Increase(0), false, "end 3/16FLOW_CONTROL_ERROR",
     "end 3/16FLOW_CONTROL_ERROR goaway:3"},
    {"continuations", Contained, 1,
     MakeFrame(NGHTTP2_HEADERS, 0, 1, STATUS_200) + Repeat(MakeFrame(NGHTTP2_CONTINUATION, 0, 1, ""), 100), false,
     "end 3/16ENHANCE_YOUR_CALM", "end 3/16ENHANCE_YOUR_CALM goaway:11"},
    {"malformed status", Contained, 2, MakeHeaders(1, MakeField(":status", "abc"), true) + Answer(3), false,
     "end 8/16PROTOCOL_ERROR goaway:2", "0=000/1 1=200 open goaway:0 reset1:1"},
    {"malformed field", Contained, 2, MakeHeaders(1, STATUS_200 + MakeField("a b", "x"), true) + Answer(3), false,
     "end 8/16PROTOCOL_ERROR goaway:2", "0=000/1 1=200 open goaway:0 reset1:1"},
    {"content-length", Contained, 2,
     Answer(3) + MakeHeaders(1, STATUS_200 + MakeField("content-length", "5"), false) + MakeData(1, "hi", true), false,
     "0=000/-9998 1=200 open goaway:0 reset1:1", "0=000/1 1=200 open goaway:0 reset1:1"},
    {"informational", [](Policy& p) { p.isInformationalSkipped_ = true; }, 1, EARLY + EARLY + Answer(1), false,
     "0=103 open goaway:0", "0=200 open goaway:0"},
    {"trailers", [](Policy& p) { p.hasTrailers_ = true; }, 1,
     MakeHeaders(1, STATUS_200, false) + MakeHeaders(1, MakeField("sum", "7"), true), false, "0=200 open goaway:0",
     "0=200+7 open goaway:0"},
    {"too large", [](Policy& p) { p.isStatusKept_ = true; }, 1,
     MakeHeaders(1, STATUS_200, false) + MakeData(1, std::string(PAYLOAD + 1, 'x'), true), false,
     "0=000/-9999 open goaway:0", "0=200/-9999 open goaway:0"},
    {"settings not acknowledged", [](Policy& p) { p.settingsAckMs_ = 50; }, 1, "", false,
     "0=000/-9998 open all1 goaway:0", "end 3/10SETTINGS_TIMEOUT all1 goaway:4"},
    {"body not taken", [](Policy& p) { p.stallMs_ = 50; }, 1, "", false, "0=000/-9998 open goaway:0",
     "end 3/12ENHANCE_YOUR_CALM goaway:11", 100000},
};

TEST(Policy, OfAClient) {
    for (const auto& test : CLIENT_CASES) {
        for (const bool isOn : {false, true}) {
            SCOPED_TRACE(std::string(test.name) + (isOn ? " on" : " off"));
            const std::string expected = isOn ? test.on : test.off;
            const int passed = isOn && test.bytes.find(EARLY) == 0 ? 2 : 0;
            std::string wire;
            std::set<std::string> results;
            const std::string log = Capture([&] {
                G_VEK_HTTP2_DETAIL_LOG = true;
                RawPeer peer([&](RawPeer& self) {
                    for (int i = 0; i < test.requests && !test.bytes.empty(); ++i) { self.ReadRequest(); }
                    self.Send(test.bytes);
                    if (!test.isClosing) { wire = Watch(self); }
                });
                Policy policy;
                if (isOn) { test.set(policy); }
                Client client(peer, policy, false, std::max(PAYLOAD, test.size));
                for (int i = 0; i < test.requests; ++i) { EXPECT_EQ(1, client.Queue(i, "/", test.size)); }
                const bool isOpen = expected.find("open") != std::string::npos;
                for (int i = 0; i < test.requests + (isOpen ? 0 : 1); ++i) { results.insert(client.Collect()); }
                if (isOpen) { results.insert(DescribeEnd(client.connection)); }
                EXPECT_EQ(passed, client.connection.GetInformationalCount());
                EXPECT_EQ(isOpen ? 1 : VEK_HTTP2_REQUEST_CLOSED, client.Queue(9));
            });
            G_VEK_HTTP2_DETAIL_LOG = false;
            EXPECT_EQ(static_cast<size_t>(passed), Count(log, "informational response..."));
            std::string text;
            for (const std::string& result : results) { text += result; }
            EXPECT_EQ(expected, text + wire) << log;
        }
    }
}

// The second of two requests waits in the engine for the first to end.
TEST(Policy, GoawayFailsWhatThePeersLimitHoldsBack) {
    RawPeer peer([](RawPeer& self) {
        self.Send(MakeSettings(std::string("\0\3\0\0\0\1", 6)) + Answer(self.ReadRequest()));
        const int stream = self.ReadRequest();
        self.ReadUntil(NGHTTP2_PING);
        self.Send(MakeGoaway(MAX_INCREMENT, 0) + Answer(stream));
    });
    Policy policy;
    Graceful(policy);
    Client client(peer, policy);
    EXPECT_EQ(1, client.Queue(0));
    EXPECT_EQ("0=200 ", client.Collect());
    for (const int id : {1, 2}) {
        EXPECT_EQ(1, client.Queue(id));
        EXPECT_EQ(1, client.connection.ProcEventPre());
    }
    EXPECT_TRUE(client.connection.SendPing());
    for (const char* result : {"2=000/-9997 ", "1=200 ", "end 2/13NO_ERROR"}) { EXPECT_EQ(result, client.Collect()); }
}

// Requests that the peer's limit of streams holds back are no flood of the peer's, and a body among
// them counts for the limit of stalls from when its request may leave.
TEST(Policy, HeldBackRequestsAreOurOwn) {
    constexpr int MANY = 10100;
    RawPeer peer([](RawPeer& self) {
        self.Send(MakeSettings(std::string("\0\3\0\0\0\0\0\4\0\0\0\0", 12)) + Answer(self.ReadRequest()));
        self.ReadUntil(NGHTTP2_PING);
        self.Send(MakeSettings(std::string("\0\3\0\0\0\1", 6)));
        self.ReadUntil(-1);
    });
    Policy policy;
    Contained(policy);
    policy.stallMs_ = 50;
    policy.responseMs_ = 60000;
    Client client(peer, policy, false, PAYLOAD, MANY);
    EXPECT_EQ(1, client.Queue(0));
    EXPECT_EQ("0=200 ", client.Collect());
    for (int id = 1; id < MANY; ++id) {
        EXPECT_EQ(1, client.Queue(id));
        EXPECT_EQ(1, client.connection.ProcEventPre());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(2 * policy.stallMs_));
    EXPECT_EQ(0, client.connection.Response(&client.response));
    EXPECT_TRUE(client.connection.SendPing());
    EXPECT_EQ("end 3/12ENHANCE_YOUR_CALM", client.Collect());
}

TEST(Policy, ResetBehindTheUpgradesAnswerIsNone) {
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
    Client client(peer, Policy(), false, PAYLOAD, 8, true);
    EXPECT_EQ("0=200 ", client.Collect());
    EXPECT_EQ(1, client.Queue(7));
    EXPECT_EQ("7=200 ", client.Collect());
}

TEST(Policy, ChecksRequestsAndWaitsForMilliseconds) {
    RawPeer peer([](RawPeer& self) { self.ReadUntil(-1); });
    Policy policy;
    policy.isRequestChecked_ = true;
    policy.responseMs_ = 50;
    Client client(peer, policy);
    EXPECT_EQ(VEK_HTTP2_REQUEST_INVALID, client.Queue(1, "x"));
    EXPECT_EQ(VEK_HTTP2_REQUEST_INVALID, client.Queue(1, "/", PAYLOAD + 1));
    EXPECT_EQ(VEK_HTTP2_REQUEST_INVALID, client.Queue(1, "/" + std::string(600, 'x')));
    VEK_ST_HTTP2_REQUEST request;
    EXPECT_FALSE(client.connection.Request(&request, &client.response));  // has no path
    EXPECT_EQ("open", DescribeEnd(client.connection));
    EXPECT_EQ(1, client.Queue(2));
    EXPECT_EQ("2=000/-9998 ", client.Collect());
    VEK_COPY_TEXT(request.path_, "/");
    EXPECT_FALSE(client.connection.Request(&request, &client.response));
    EXPECT_EQ("end 4/9", DescribeEnd(client.connection));
}

TEST(Cancel, ReachesNobody) {
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
    Client client(peer, policy, true);
    CVEKHttp2Request& connection = client.connection;
    EXPECT_EQ(1, client.Queue(1));
    EXPECT_EQ(1, connection.ProcEventPre());
    EXPECT_EQ(1, client.Queue(2));
    EXPECT_EQ(VEK_HTTP2_CANCEL_UNSENT, connection.Cancel(2));
    EXPECT_EQ(VEK_HTTP2_CANCEL_DONE, connection.Cancel(1));
    EXPECT_EQ(VEK_HTTP2_CANCEL_NONE, connection.Cancel(1));
    EXPECT_EQ(0, connection.GetIncompleteCount());
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
    EXPECT_EQ("4=200 ", client.Collect());
    EXPECT_EQ("end 2/13NO_ERROR", client.Collect());
    EXPECT_EQ(VEK_HTTP2_CANCEL_CLOSED, connection.Cancel(4));
    EXPECT_EQ(1, cancelled);
}

const std::string GET = "\x82\x84\x86\x41\x01" + std::string("a");  // GET / http, :authority a
const std::string PREFACE = NGHTTP2_CLIENT_MAGIC + MakeSettings();
const std::string WIDE = MakeSettings(std::string("\0\4", 2) + MakeNumber(1 << 30)) +
                         MakeFrame(NGHTTP2_WINDOW_UPDATE, 0, 0, MakeNumber(1 << 30));
const std::string NO_WINDOW = MakeSettings(std::string("\0\4\0\0\0\0", 6));
const std::string UPGRADE = "GET / HTTP/1.1\r\nHost: h\r\nUpgrade: h2c\r\nHTTP2-Settings: AAMAAABk\r\n\r\n";

struct Server {
    explicit Server(const Policy& policy, uint32_t streams = 4) : body(LARGE) {
        const VEK_ST_HTTP2_OPTIONS options = Options(streams, LARGE);
        EXPECT_TRUE(connection.Initialize("policy", &options));
        connection.SetPolicy(policy);
        response.payload_ = {0, 0, body.data()};
        VEK_COPY_TEXT(response.rs_, "200");
    }
    ~Server() { Stop(); }
    void Accept(const std::string& bytes) {
        Stop();
        int fds[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
        client = std::make_unique<RawSocket>(fds[0]);
        const bool isUpgrade = bytes.find(UPGRADE) == 0;
        peer = std::thread([this, bytes, isUpgrade] {
            client->Send(bytes);
            if (isUpgrade) { client->ReadText(strlen(HTTP2_UPGRADE_RESPONSE)); }
            wire = Watch(*client);
        });
        EXPECT_TRUE(isUpgrade ? connection.Accept(fds[1], "127.0.0.1", 1, false)
                              : connection.Accept(fds[1], "127.0.0.1", 1, nullptr, false));
    }
    void Stop() {
        connection.Disconnect();
        if (peer.joinable()) { peer.join(); }
    }
    // Answers every request with a body of this size until the connection ends, or nothing has come
    // for a while. Returns the streams.
    std::string Serve(size_t size) {
        std::string answered;
        int result = 0;
        for (int idle = 0; idle < 20 && result != -1; idle = result == 0 ? idle + 1 : 0) {
            result = connection.Request(&request);
            if (result == 1) { answered += std::to_string(request.streamId_) + Answer(size) + " "; }
        }
        return answered;
    }
    std::string Answer(size_t size) {
        response.streamId_ = request.streamId_;
        response.payload_.size_ = size;
        const int queued = connection.Response(&response, request.ticket_, false);
        return queued == VEK_HTTP2_RESPONSE_QUEUED ? "" : "/" + std::to_string(queued);
    }

    CVEKHttp2Response connection;
    VEK_ST_HTTP2_REQUEST_RECV request;
    VEK_ST_HTTP2_RESPONSE response;
    std::vector<char> body;
    std::unique_ptr<RawSocket> client;
    std::thread peer;
    std::string wire;
};

std::string Gets(int count) {
    std::string bytes;
    for (int i = 0; i < count; ++i) { bytes += MakeHeaders(2 * i + 1, GET, true); }
    return bytes;
}

std::string ResetFlood() {
    std::string bytes = MakeHeaders(1, GET, false);
    for (int stream = 3; stream < 80001; stream += 2) {
        bytes += MakeHeaders(stream, GET, false) + MakeReset(stream, NGHTTP2_CANCEL);
    }
    return bytes;
}

const struct {
    const char* name;
    void (*set)(Policy& policy);
    std::string bytes;
    size_t size;  // of the answers
    const char* off;
    const char* on;
} SERVER_CASES[] = {
    {"goaway", Graceful, PREFACE + WIDE + Gets(2) + MakeGoaway(0, 0), LARGE, "end 2/13NO_ERROR goaway:2",
     "1 3 end 2/13NO_ERROR all1 all3 goaway:0"},
    {"above the limit", Contained, PREFACE + Gets(6), 5, "end 8/16REFUSED_STREAM goaway:2",
     "1 3 5 open all1 all3 all5 all7 goaway:0 reset11:7 reset9:7"},
    {"window of a stream", Contained, PREFACE + MakeHeaders(1, GET, false) + Increase(1) + MakeHeaders(3, GET, true), 5,
     "end 8/16FLOW_CONTROL_ERROR goaway:2", "3 open all3 goaway:0 reset1:3"},
    {"window of the connection", Contained, PREFACE + Increase(0), 5, "end 8/16FLOW_CONTROL_ERROR goaway:2",
     "end 3/16FLOW_CONTROL_ERROR goaway:3"},
    {"no path", Contained, PREFACE + MakeHeaders(1, "\x82\x86", true) + MakeHeaders(3, GET, true), 5,
     "end 8/16PROTOCOL_ERROR goaway:2", "3 open all3 goaway:0 reset1:1"},
    {"pings", Contained, PREFACE + Repeat(MakeFrame(NGHTTP2_PING, 0, 0, "12345678"), 3000), 5,
     "end 3/16ENHANCE_YOUR_CALM", "end 3/16ENHANCE_YOUR_CALM goaway:11"},
    {"bytes held", [](Policy& p) { p.maxHeldBytes_ = 100; }, PREFACE + NO_WINDOW + Gets(3), 60, "1 3 5 open goaway:0",
     "1 3/-4 end 8/17 goaway:2"},
    {"window kept closed", [](Policy& p) { p.stallMs_ = 50; }, PREFACE + NO_WINDOW + Gets(1), 60, "1 open goaway:0",
     "1 end 3/12ENHANCE_YOUR_CALM goaway:11"},
    {"resets go on", [](Policy& p) { p.maxBytesAfterGoaway_ = 10000; }, PREFACE + ResetFlood(), 5,
     "open goaway:0 goaway:2", "end 3/16INTERNAL_ERROR goaway:2"},
    {"bare upgrade", [](Policy& p) { p.isUpgradeRequestTaken_ = true; }, UPGRADE + PREFACE, 5, "open goaway:0",
     "1 open all1 goaway:0"},
};

TEST(Policy, OfAServer) {
    for (const auto& test : SERVER_CASES) {
        for (const bool isOn : {false, true}) {
            SCOPED_TRACE(std::string(test.name) + (isOn ? " on" : " off"));
            Policy policy;
            if (isOn) { test.set(policy); }
            Server server(policy);
            server.Accept(test.bytes);
            const std::string answered = server.Serve(test.size), end = DescribeEnd(server.connection);
            server.Stop();
            EXPECT_EQ(isOn ? test.on : test.off, answered + end + server.wire);
        }
    }
}

TEST(LogLines, OfAPeerAreEscapedCutAndLimitedOnRequest) {
    constexpr size_t COUNT = 200;
    const std::string field = MakeField("bad", "v\n[Error  ]" + std::string(90, '\x1b'));
    std::string bytes = PREFACE;
    for (size_t i = 0; i < COUNT; ++i) { bytes += MakeHeaders(static_cast<int>(2 * i + 1), GET + field, true); }
    const struct {
        uint32_t limit;
        bool isDetail;
    } rounds[] = {{0, false}, {5, false}, {5, true}};
    for (const auto [limit, isDetail] : rounds) {
        Policy policy;
        policy.maxLogLines_ = limit;
        Server server(policy, COUNT);
        G_VEK_HTTP2_DETAIL_LOG = isDetail;
        const std::string log = Capture([&] {
            server.Accept(bytes);
            server.Serve(5);
            server.Stop();
        });
        G_VEK_HTTP2_DETAIL_LOG = false;
        size_t leftOut = 0;
        for (const std::string& count : FindAll(log, "conn\\(policy\\) log lines left out\\(([0-9]+)\\): over 5 ")) {
            leftOut += std::stoul(count);
        }
        const size_t lines = Count(log, "conn(policy)Invalid header field") + Count(log, " just closed with error!(1)");
        EXPECT_EQ(2 * COUNT, lines + leftOut) << limit;
        EXPECT_EQ(limit != 0 && !isDetail, leftOut > 0) << limit << isDetail;
        EXPECT_EQ(FindAll(log, ",name=\\[bad,3\\],value=\\[v\\\\x0a\\[Error  \\](\\\\x1b){59}\\.\\.\\.:101\\]$").size(),
                  Count(log, "conn(policy)Invalid header field"));
        EXPECT_LE(leftOut > 0 ? 1U : 0U, Count(log, "conn(policy) closed..."));  // comes once, and is not left out
    }
}

TEST(LogLines, TellOfAnOverlongBodyOnce) {
    const RawPeer peer([](RawPeer& self) {
        const int stream = self.ReadRequest();
        self.Send(MakeHeaders(stream, STATUS_200, false) +
                  Repeat(MakeData(stream, std::string(PAYLOAD, 'x'), false), 9) + MakeData(stream, "", true));
        self.ReadUntil(-1);
    });
    Client client(peer, Policy());
    const std::string log = Capture([&] {
        EXPECT_EQ(1, client.Queue(1));
        EXPECT_EQ("1=000/-9999 ", client.Collect());
    });
    EXPECT_EQ(1U, Count(log, "conn(policy) payload buffer overflow!...")) << log;
}

TEST(Ticket, AnotherConnectionGetsNoLateAnswer) {
    Server server{Policy()};
    std::vector<uint64_t> tickets;
    for (int round = 0; round < 2; ++round) {
        server.Accept(PREFACE + MakeHeaders(1, GET, true));
        while (server.connection.Request(&server.request) != 1) {}
        EXPECT_EQ("", server.Answer(5));
        tickets.push_back(server.request.ticket_);
    }
    EXPECT_EQ(VEK_HTTP2_RESPONSE_CLOSED, server.connection.Response(&server.response, tickets[0], true));
    EXPECT_EQ(1, server.connection.GetIncompleteCount());
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
        {VEK_HTTP2_FAILURE_NONE, PREFACE.c_str(), nullptr},
    };
    Policy policy;
    policy.handshakeMs_ = policy.upgradeMs_ = 50;
    Server server(policy);
    CVEKHttp2Response& connection = server.connection;
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

TEST(Error, OfASend) {
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    RawSocket peer(fds[0]);
    peer.Send(PREFACE + MakeHeaders(1, GET, true));
    CVEKHttp2Response connection;
    const VEK_ST_HTTP2_OPTIONS options = Options(4);
    ASSERT_TRUE(connection.Initialize("error", &options) && connection.Accept(fds[1], "", 1, nullptr, true));
    peer.Close();
    EXPECT_FALSE(connection.IsValid() && connection.SendPing());
    EXPECT_EQ(EPIPE, connection.GetError().errno_);
}

// Sends requests through one connection after another until all of them have been answered; those
// that the peer has not processed are sent again. Returns how many were lost. trailers: of an answer.
int SendAll(int port, const Policy& policy, int total, size_t trailers) {
    VEK_ST_HTTP2_OPTIONS options = Options(100);
    options.nTimeout_ = 30;
    CVEKHttp2Request connection;
    EXPECT_TRUE(connection.Initialize("many", &options));
    connection.SetPolicy(policy);
    char body[PAYLOAD];
    VEK_ST_HTTP2_RESPONSE response;
    response.payload_.data_ = body;
    int answered = 0, lost = 0;
    while (answered + lost < total && connection.Connect("127.0.0.1", port, nullptr, false)) {
        int queued = 0;  // and not delivered
        for (int result = 0; result != -1 && answered + lost < total;) {
            while (answered + lost + queued < total &&
                   connection.Request(0, nullptr, "GET", "/", {}, 0, nullptr, false) == 1) {
                ++queued;
            }
            result = connection.Response(&response);
            if (result == 1) {
                --queued;
                answered += strcmp(response.rs_, "200") == 0 ? 1 : 0;
                EXPECT_TRUE(response.error_ != 0 || response.trailers_.size() == trailers);
                EXPECT_TRUE(response.error_ == 0 || response.error_ == VEK_HTTP2_ERROR_UNPROCESSED) << response.error_;
            }
        }
        lost += queued;
    }
    EXPECT_EQ(total, answered + lost);
    return lost;
}

TEST(Policy, NothingIsLostThroughRealServers) {
    constexpr int TOTAL = 20000;
    const TempDir folder;
    folder.Write("index.html", "ok");
    const int ports[] = {FreePort(), FreePort()};
    std::string temporary;
    for (const char* kind : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
        temporary += std::string(kind) + "_temp_path " + folder.Path("temp") + ";";
    }
    const std::string config =
        folder.Write("nginx.conf", "daemon off; master_process off; error_log stderr crit; pid " + folder.Path("pid") +
                                       "; events {} http { access_log off; " + temporary +
                                       " server { listen 127.0.0.1:" + std::to_string(ports[0]) +
                                       " http2; keepalive_requests 1000; location / { return 200 ok; } } }");
    const Process nginx({"/usr/sbin/nginx", "-p", folder.Path(), "-c", config});
    const Process nghttpd(
        {"/usr/sbin/nghttpd", "--no-tls", "--trailer=sum: 1", "-d", folder.Path(), std::to_string(ports[1])});
    ASSERT_TRUE(Eventually([&] { return IsListening(ports[0]) && IsListening(ports[1]); }));
    Policy policy;
    policy.isGoawayGraceful_ = policy.isOffenceContained_ = policy.hasTrailers_ = policy.isRequestChecked_ = true;
    policy.stallMs_ = policy.settingsAckMs_ = policy.responseMs_ = 30000;
    EXPECT_EQ(0, SendAll(ports[0], policy, TOTAL, 0));
    EXPECT_EQ(0, SendAll(ports[1], policy, TOTAL / 10, 1));
    EXPECT_LT(0, SendAll(ports[0], Policy(), TOTAL / 4, 0));
    EXPECT_EQ(0, SendAll(ports[1], Policy(), TOTAL / 10, 0));
}

}  // namespace
