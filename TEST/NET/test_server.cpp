// The server connection against a scripted client, with what a policy changes.
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>
#include <tuple>
#include <vector>

#include "CVEKHttp2Response.h"
#include "CVEKServiceLog.h"
#include "NetTest.h"
#include "VEKHttp2UpgradeText.h"
#include "VEKServiceLog.h"
#include "VEKText.h"

namespace {

constexpr uint32_t STREAMS = 4;

const std::string GET = "\x82\x84\x86\x41\x01" + std::string("a");  // GET / http, :authority a
const std::string PREFACE = NGHTTP2_CLIENT_MAGIC + MakeSettings();
const std::string NO_WINDOW = MakeSettings(Entry(4, 0));
const std::string UPGRADE = "GET / HTTP/1.1\r\nHost: h\r\nUpgrade: h2c\r\nHTTP2-Settings: AAMAAABk\r\n\r\n";

std::string Get(int stream, const std::string& more = "", bool isEnd = true) {
    return MakeHeaders(stream, GET + more, isEnd);
}
std::string Gets(int count) {
    std::string bytes;
    for (int i = 0; i < count; ++i) { bytes += Get(2 * i + 1); }
    return bytes;
}

// A connection and its client's end.
struct Server {
    explicit Server(const Policy& policy = {}, VEK_ST_HTTP2_OPTIONS options = Options(STREAMS))
        : body(options.nMaxPayloadSize_ + 1, 'x') {
        EXPECT_TRUE(connection.Initialize("raw", &options));
        connection.SetPolicy(policy);
    }
    ~Server() { Stop(); }
    // Takes a connection that begins with these bytes, in a thread of their own where all that comes is watched.
    void Accept(const std::string& bytes = PREFACE, bool isWatched = false) {
        Stop();
        int fds[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
        client = std::make_unique<RawSocket>(fds[0]);
        const bool isUpgrade = bytes.find(UPGRADE) == 0;
        if (isWatched) {
            peer = std::thread([this, bytes, isUpgrade] {
                client->Send(bytes);
                if (isUpgrade) { EXPECT_EQ(HTTP2_UPGRADE_RESPONSE, client->ReadText(strlen(HTTP2_UPGRADE_RESPONSE))); }
                wire = Watch(*client);
            });
        } else {
            client->Send(bytes);
        }
        EXPECT_TRUE(isUpgrade ? connection.Accept(fds[1], "127.0.0.1", 1, false)
                              : connection.Accept(fds[1], "127.0.0.1", 1, nullptr, false));
    }
    void Stop() {
        connection.Disconnect();
        if (peer.joinable()) { peer.join(); }
    }
    // Drives until a request comes or the connection ends.
    int Next() {
        int result = 0;
        Eventually([&] { return (result = connection.Request(&request)) != 0; });
        return result;
    }
    // Drives a while: enough for everything that the client has sent.
    void Drive() {
        for (int i = 0; i < 3; ++i) { connection.Request(&request); }
    }
    // Answers every request with a body of this size until the connection ends, or nothing has come
    // for a while. Returns the streams.
    std::string Serve(size_t size, const char* status) {
        std::string answered;
        int result = 0;
        for (int idle = 0; idle < 20 && result != -1; idle = result == 0 ? idle + 1 : 0) {
            result = connection.Request(&request);
            if (result == -1 && connection.GetState() == VEK_HTTP2_CONN_STATE_OPEN) { answered += "failed "; }
            if (result != 1) { continue; }
            const int queued = Answer(request.streamId_, status, size, false, &request.ticket_);
            answered += std::to_string(request.streamId_) + (queued == 1 ? "" : "/" + std::to_string(queued)) + " ";
        }
        return answered;
    }
    int Answer(int stream, const char* status, size_t size = 0, bool wait = false, const uint64_t* ticket = nullptr) {
        response.streamId_ = stream;
        VEK_COPY_TEXT(response.rs_, status);
        response.payload_ = {size, 0, body.data()};
        return ticket == nullptr ? connection.Response(&response, wait) : connection.Response(&response, *ticket, wait);
    }
    std::string Body() const { return {request.data_, request.size_}; }

    CVEKHttp2Response connection;
    VEK_ST_HTTP2_REQUEST_RECV request{};
    VEK_ST_HTTP2_RESPONSE response;
    std::vector<char> body;
    std::unique_ptr<RawSocket> client;
    std::thread peer;
    std::string wire;
};

std::string ResetFlood() {
    std::string bytes = Get(1, "", false);
    for (int stream = 3; stream < 80001; stream += 2) {
        bytes += Get(stream, "", false) + MakeReset(stream, NGHTTP2_CANCEL);
    }
    return bytes;
}

constexpr size_t LARGE = 300000;  // more than a socket takes at once
const std::string BOMB =
    "\x40\x01"
    "b\x7f\xa1\x1e" +
    std::string(4000, 'x') + std::string(5000, '\xbe');

// The streams whose requests have come, the connection's end, and what the client has seen.
const struct {
    const char* name;
    void (*set)(Policy& policy);  // null where no policy changes anything
    std::string bytes;
    size_t size;  // of the answers
    const char* off;
    const char* on;
    const char* log;  // of the last of the two
    const char* status = "200";
} CASES[] = {
    {"exact size", nullptr, PREFACE + WIDE + PRIORITY + Gets(1), LARGE, "1 open all1 goaway:0", "",
     "RECV FRAME(2)!..."},
    {"too large", nullptr, PREFACE + Gets(1), LARGE + 1, "1 end 8/17body of an answer too large goaway:2", "",
     "payload size(300001) overflow!..."},
    {"reset instead", nullptr, PREFACE + Gets(1), 0, "1 failed open goaway:0 reset1:2", "", "", "000"},
    {"fields that must not be", nullptr,
     PREFACE + Get(1, MakeField("Upper", "x")) + Get(3, MakeField("a b", "x"), false) + MakeData(3, "x", true) + Get(5),
     5, "5 open all5 goaway:0 reset1:1 reset3:1", "",
     "conn(raw)Invalid header field for stream_id=3,in frame type= 1,"},
    {"header bomb", nullptr, PREFACE + Get(1, BOMB) + Get(3), 5, "3 open all3 goaway:0 reset1:2", "",
     "stream(1) header list too large!...reset"},
    {"no settings", Contained, NGHTTP2_CLIENT_MAGIC + PING, 5, "end 8/16PROTOCOL_ERROR goaway:2",
     "end 3/16PROTOCOL_ERROR goaway:1",
     "conn(raw) Remote peer returned unexpected data while we expected SETTINGS frame."},
    {"even stream", nullptr, PREFACE + Get(2), 5, "end 8/16PROTOCOL_ERROR goaway:2", "",
     "HTTP/2 invalid frame recv callback-Protocol error"},
    {"goaway", Graceful, PREFACE + WIDE + Gets(2) + MakeGoaway(0, 0), LARGE, "end 2/13NO_ERROR goaway:2",
     "1 3 end 2/13NO_ERROR all1 all3 goaway:0", "receive GOAWAY Frame(0)..."},
    {"above the limit", Contained, PREFACE + Gets(6), 5, "end 8/16REFUSED_STREAM goaway:2",
     "1 3 5 open all1 all3 all5 all7 goaway:0 reset11:7 reset9:7", "Too many request automatic response..."},
    {"window of a stream", Contained, PREFACE + Get(1, "", false) + Increase(1) + Get(3), 5,
     "end 8/16FLOW_CONTROL_ERROR goaway:2", "3 open all3 goaway:0 reset1:3", "stream(1) just closed with error!(3)"},
    {"window of the connection", Contained, PREFACE + Increase(0), 5, "end 8/16FLOW_CONTROL_ERROR goaway:2",
     "end 3/16FLOW_CONTROL_ERROR goaway:3", "session ended by protocol error!..."},
    {"no path", Contained, PREFACE + MakeHeaders(1, "\x82\x86", true) + Get(3), 5, "end 8/16PROTOCOL_ERROR goaway:2",
     "3 open all3 goaway:0 reset1:1", ""},
    {"pings", Contained, PREFACE + Repeat(PING, 3000), 5, "end 3/16ENHANCE_YOUR_CALM",
     "end 3/16ENHANCE_YOUR_CALM goaway:11", ""},
    {"bytes held", [](Policy& p) { p.maxHeldBytes_ = 100; }, PREFACE + NO_WINDOW + Gets(3), 60, "1 3 5 open goaway:0",
     "1 3/-4 end 8/17too many bytes of answers goaway:2", "too many bytes of answers!.."},
    {"window kept closed", [](Policy& p) { p.stallMs_ = 50; }, PREFACE + NO_WINDOW + Gets(1), 60, "1 open goaway:0",
     "1 end 3/12ENHANCE_YOUR_CALM goaway:11", ""},
    {"resets go on", [](Policy& p) { p.maxBytesAfterGoaway_ = 10000; }, PREFACE + ResetFlood(), 5,
     "open goaway:0 goaway:2", "end 3/16INTERNAL_ERROR goaway:2", "peer goes on after GOAWAY!..."},
    {"bare upgrade", [](Policy& p) { p.isUpgradeRequestTaken_ = true; }, UPGRADE + PREFACE, 5, "open goaway:0",
     "1 open all1 goaway:0", "h2c upgrade!..."},
};

TEST(Server, EndsOrGoesOnAsThePolicySays) {
    for (const auto& test : CASES) {
        for (const bool isOn : {false, true}) {
            if (isOn && test.set == nullptr) { continue; }
            SCOPED_TRACE(std::string(test.name) + (isOn ? " on" : " off"));
            const bool isFlood = test.bytes.size() > 100000;
            Policy policy;
            if (isOn) { test.set(policy); }
            Server server(policy, Options(STREAMS, LARGE));
            std::string text;
            G_VEK_HTTP2_DETAIL_LOG = true;
            const std::string log = Capture([&] {
                if (isFlood) { G_SERVICE_LOGGER.SetMask(VEK_LOG_ERROR); }
                server.Accept(test.bytes, true);
                text = server.Serve(test.size, test.status);
                server.Drive();
                text += DescribeEnd(server.connection);
                server.Stop();
            });
            G_VEK_HTTP2_DETAIL_LOG = false;
            EXPECT_EQ(isOn ? test.on : test.off, text + server.wire);
            EXPECT_NE(0, server.connection.GetStateCause());
            const std::string always =
                "(\\]conn\\(raw\\) (http session initialized|closed|http/2 options|invalid state!)...|"
                " -[A-Z ]+ = +(4|300000|65536|16384|false|1))$";
            EXPECT_EQ(isFlood ? 0U : 9U, FindAll(log, always).size()) << log;
            EXPECT_TRUE(*test.log == '\0' || (!isOn && test.set != nullptr) || Count(log, test.log) == 1) << log;
            server.Accept(PREFACE + Repeat(PING, 700) + Get(1));  // is not judged by what came before
            EXPECT_EQ(1, server.Next());
        }
    }
}

TEST(LogLines, OfAPeerAreEscapedCutAndLimitedOnRequest) {
    constexpr size_t COUNT = 200;
    const std::string field = MakeField("bad", "v\n[Error  ]" + std::string(90, '\x1b'));
    std::string bytes = PREFACE;
    for (size_t i = 0; i < COUNT; ++i) { bytes += Get(static_cast<int>(2 * i + 1), field); }
    for (const auto& [limit, isDetail] : {std::pair(0U, false), std::pair(5U, false), std::pair(5U, true)}) {
        Policy policy;
        policy.maxLogLines_ = limit;
        Server server(policy, Options(COUNT));
        G_VEK_HTTP2_DETAIL_LOG = isDetail;
        const std::string log = Capture([&] {
            server.Accept(bytes, true);
            server.Serve(5, "200");
            server.Stop();
        });
        G_VEK_HTTP2_DETAIL_LOG = false;
        size_t leftOut = 0;
        for (const std::string& count : FindAll(log, "conn\\(raw\\) log lines left out\\(([0-9]+)\\): over 5 ")) {
            leftOut += std::stoul(count);
        }
        const size_t lines = Count(log, "conn(raw)Invalid header field") + Count(log, " just closed with error!(1)");
        EXPECT_EQ(2 * COUNT, lines + leftOut) << limit;
        EXPECT_EQ(limit != 0 && !isDetail, leftOut > 0) << limit << isDetail;
        EXPECT_EQ(FindAll(log, ",name=\\[bad,3\\],value=\\[v\\\\x0a\\[Error  \\](\\\\x1b){59}\\.\\.\\.:101\\]$").size(),
                  Count(log, "conn(raw)Invalid header field"));
        EXPECT_LE(leftOut > 0 ? 1U : 0U, Count(log, "conn(raw) closed..."));  // comes once, and is not left out
    }
}

TEST(Server, AnotherConnectionGetsNoLateAnswer) {
    Server server;
    std::vector<uint64_t> tickets;
    for (int round = 0; round < 2; ++round) {
        server.Accept(PREFACE + Get(1));
        EXPECT_EQ(1, server.Next());
        tickets.push_back(server.request.ticket_);
        EXPECT_EQ(1, server.Answer(1, "200", 5, false, &tickets.back()));
    }
    EXPECT_EQ(VEK_HTTP2_RESPONSE_CLOSED, server.Answer(1, "200", 5, true, &tickets[0]));
    EXPECT_EQ(1, server.connection.GetIncompleteCount());
}

TEST(Server, TellsWhyASendHasFailed) {
    Server server;
    server.Accept();
    shutdown(server.connection.GetSocket(), SHUT_WR);
    EXPECT_FALSE(server.connection.SendPing());
    EXPECT_EQ("end 3/15", DescribeEnd(server.connection));
    EXPECT_EQ(EPIPE, server.connection.GetError().errno_);
}

// The client closes with bytes unread: what it has sent is read first where that is asked for.
TEST(Server, ReadsWhatAClientThatHasGoneSent) {
    for (const bool isGraceful : {false, true}) {
        Policy policy;
        policy.isGoawayGraceful_ = isGraceful;
        Server server(policy);
        server.Accept();
        server.Drive();
        server.client->Send(Get(1));
        server.client->Close();
        const auto take = [&] { return server.connection.Request(&server.request); };
        const std::string log = Capture([&] { EXPECT_EQ(isGraceful ? 1 : -1, take()); });
        EXPECT_EQ(isGraceful ? 0U : 1U, Count(log, "event error dispatch!...")) << log;
        EXPECT_EQ(-1, take());
        EXPECT_EQ(isGraceful ? "end 3/15" : "end 7/15", DescribeEnd(server.connection));
        EXPECT_EQ(ECONNRESET, server.connection.GetError().errno_);
    }
}

TEST(Server, DefaultsOnTheWire) {
    Server server({}, {});
    server.Accept();
    server.Drive();
    EXPECT_EQ(Entry(3, 100) + Entry(4, 65536) + Entry(5, 16384) + Entry(1, 64),
              server.client->ReadUntil(NGHTTP2_SETTINGS).payload);
}

// Clear text as the peer has it, in steps and split where it hurts; and what is no HTTP at all.
TEST(Server, AcceptsInStepsWhatComes) {
    const std::string upgrade =
        "PUT /up HTTP/1.1\r\nHost: h\r\nUpgrade: h2c\r\nHTTP2-Settings: AAMAAABk\r\nContent-Length: 5\r\n\r\nhel";
    const std::tuple<std::vector<std::string>, int, const char*> cases[] = {
        {{"P", "RI * HTTP", PREFACE.substr(10), Get(1)}, VEK_HTTP2_STEP_DONE, ""},
        {{"P", "U", upgrade.substr(2), "lo" + PREFACE + PING}, VEK_HTTP2_STEP_DONE, "hello"},
        {{"PRO", "XY\r\n\r\n"}, VEK_HTTP2_STEP_FAILED, ""},
    };
    for (const auto& [pieces, expected, body] : cases) {
        SCOPED_TRACE(pieces[0]);
        int fds[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
        const RawSocket client(fds[0]);
        Server server;
        ASSERT_TRUE(server.connection.StartAcceptAny(fds[1], "127.0.0.1", 1, true));
        int result = server.connection.Advance();
        for (const std::string& piece : pieces) {
            client.Send(piece);
            if (result == VEK_HTTP2_STEP_WAIT) { result = server.connection.Advance(); }
        }
        EXPECT_EQ(expected, result);
        if (result != VEK_HTTP2_STEP_DONE) { continue; }
        EXPECT_TRUE(server.connection.ProcEvent());  // what follows an upgrade is HTTP/2
        EXPECT_EQ(1, server.connection.Request(&server.request));
        EXPECT_EQ(1, server.request.streamId_);
        EXPECT_EQ(body, server.Body());
    }
}

TEST(Server, TakesRequestsAndAnswers) {
    const struct {
        std::vector<size_t> chunks;
        size_t size;
        int error;
    } cases[] = {
        {{}, 0, 0},        {{10, 20}, 30, 0},     {{PAYLOAD}, PAYLOAD, 0}, {{PAYLOAD + 1}, 0, 1},
        {{40, 25}, 40, 1}, {{40, 25, 24}, 64, 1},  // a smaller chunk still fits
    };
    Server server;
    server.Accept();
    int stream = 1;
    for (const auto& test : cases) {
        SCOPED_TRACE(stream);
        server.client->Send(Get(stream, "", test.chunks.empty()));
        for (size_t i = 0; i < test.chunks.size(); ++i) {
            server.client->Send(MakeData(stream, std::string(test.chunks[i], 'x'), i + 1 == test.chunks.size()));
        }
        ASSERT_EQ(1, server.Next());
        EXPECT_EQ(stream, server.request.streamId_);
        EXPECT_EQ(test.error, server.request.error_);
        EXPECT_EQ(std::string(test.size, 'x'), server.Body());
        EXPECT_EQ((std::pair<std::string, std::string>(":path", "/")), server.request.hdr_->at(1));
        server.response.hdr_ = {{"a", "b"}};
        EXPECT_EQ(1, server.Answer(stream, "200", 5));
        EXPECT_EQ(1, server.connection.GetIncompleteCount());
        server.Drive();
        EXPECT_EQ(0, server.connection.GetIncompleteCount());
        const std::string fields = server.client->ReadUntil(NGHTTP2_HEADERS, stream).payload;
        EXPECT_EQ(STATUS_200, fields.substr(0, 1));
        EXPECT_LT(1U, fields.size());
        EXPECT_EQ("xxxxx", server.client->ReadUntil(NGHTTP2_DATA, stream).payload);
        stream += 2;
    }
}

struct Events {
    std::vector<std::array<int, 3>> seen;
    static void Add(int event, int stream, int code, void* connection, void* args) {
        static_cast<Events*>(args)->seen.push_back({event, stream, code});
        // Answering from inside must do no harm.
        VEK_ST_HTTP2_RESPONSE response;
        response.streamId_ = 1;
        response.payload_ = {0, 0, nullptr};
        VEK_COPY_TEXT(response.rs_, "204");
        static_cast<CVEKHttp2Response*>(connection)->Response(&response, false);
    }
};

TEST(Server, RefusesTheLastStreamAndTellsOfResets) {
    Server server;
    server.Accept();
    Events events;
    server.connection.SetUserCallback(Events::Add, &events);
    server.client->Send(Gets(4));
    for (const int stream : {1, 3, 5}) {
        ASSERT_EQ(1, server.Next());
        EXPECT_EQ(stream, server.request.streamId_);
    }
    server.Drive();
    EXPECT_EQ(7, server.client->ReadUntil(NGHTTP2_HEADERS, 7).stream);
    server.client->Send(MakeReset(3, 8) + MakeReset(7, 8));  // 7 has long been answered
    server.Drive();
    EXPECT_EQ(2, server.connection.GetCancelCount());
    EXPECT_EQ(0, server.connection.GetCancelCount());
    server.client->Send(MakeReset(5, 8));
    server.Drive();
    EXPECT_EQ("open", DescribeEnd(server.connection));
    server.Accept(PREFACE + Gets(4));  // counts and tells anew
    server.Drive();
    EXPECT_EQ(0, server.connection.GetCancelCount());
    EXPECT_EQ(1, server.connection.Get429ResponseCount());
    EXPECT_EQ(0, server.connection.Get429ResponseCount());
    const std::vector<std::array<int, 3>> expected = {{1, 0, 0}, {2, 3, 8}, {2, 5, 8}};
    EXPECT_EQ(expected, events.seen);
}

TEST(Server, ResetBeforeItIsTaken) {
    Server server;
    server.Accept();
    server.client->Send(Get(1, "", false) + MakeData(1, "late", true) + MakeReset(1, 8));
    for (int stream = 3; stream < 3 + 2 * 20; stream += 2) {  // goes round the pool
        server.client->Send(Get(stream, "", false) + MakeReset(stream, 8));
    }
    server.client->Send(Get(99, "", false));
    ASSERT_EQ(1, server.Next());
    EXPECT_EQ(1, server.request.streamId_);
    EXPECT_TRUE(server.request.hdr_->empty());
    EXPECT_EQ("late", server.Body());
    server.client->Send(MakeData(99, "whole", true));
    ASSERT_EQ(1, server.Next());
    EXPECT_EQ(99, server.request.streamId_);
    EXPECT_EQ("whole", server.Body());
    EXPECT_EQ(1, server.Answer(1, "200"));  // dropped: its stream is gone
    server.Drive();
    EXPECT_EQ(0, server.connection.GetIncompleteCount());
}

TEST(Server, TooManyFieldsAndTooManyAnswers) {
    Server server;
    server.Accept();
    server.client->Send(Get(1));
    ASSERT_EQ(1, server.Next());
    for (int i = 0; i < 65; ++i) { server.response.hdr_.emplace_back("x", std::to_string(i)); }
    const std::string log = Capture([&] {
        EXPECT_EQ(1, server.Answer(1, "200"));
        server.Drive();
    });
    EXPECT_EQ(1U, Count(log, "too many http headers(64,x:63)...ignore!")) << log;
    EXPECT_EQ(1U, Count(log, "too many http headers(64,x:64)...ignore!")) << log;
    for (const bool isWaiting : {true, false}) {
        for (uint32_t i = 0; i < STREAMS; ++i) { EXPECT_EQ(1, server.Answer(1, "200")); }
        EXPECT_EQ(isWaiting ? -2 : 0, server.Answer(1, "200", 0, isWaiting));  // after just over a second
        EXPECT_EQ("end 8/17too many answers", DescribeEnd(server.connection));
        EXPECT_EQ(-3, server.Answer(1, "200"));
        server.Accept();
    }
    for (uint32_t i = 0; i < STREAMS; ++i) { EXPECT_EQ(1, server.Answer(1, "200")); }
    std::thread waiting([&] { EXPECT_EQ(-3, server.Answer(1, "200", 0, true)); });  // the GOAWAY ends that
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    server.client->Send(MakeGoaway(0, 0));
    while (server.connection.ProcEvent()) {}
    waiting.join();
}

TEST(Server, AnotherThreadAnswers) {
    constexpr int COUNT = 100;
    Server server({}, Options(COUNT + 1));
    server.Accept(PREFACE + Gets(COUNT), true);
    std::atomic<int> taken{0}, answered{0};
    std::thread answerer([&] {
        for (int stream = 1; stream < 2 * COUNT; stream += 2, ++answered) {
            while (taken < stream) { std::this_thread::yield(); }
            EXPECT_EQ(1, server.Answer(stream, "200", 10, true));
            server.connection.GetIncompleteCount();
        }
    });
    for (int i = 0; i < COUNT; ++i) {
        EXPECT_EQ(1, server.Next());
        taken = server.request.streamId_;
    }
    while (server.connection.GetIncompleteCount() > 0 || answered < COUNT) {
        server.connection.Request(&server.request);
    }
    answerer.join();
    server.Stop();
    EXPECT_EQ(static_cast<size_t>(COUNT), Count(server.wire, " all")) << server.wire;
}

}  // namespace
