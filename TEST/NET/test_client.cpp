// The client connection against a scripted peer that misbehaves in every way it can.
#include <netdb.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "CVEKHttp2Request.h"
#include "CVEKServiceLog.h"
#include "RawPeer.h"
#include "TestSupport.h"
#include "VEKServiceLog.h"
#include "VEKText.h"

namespace {

using Script = std::function<void(RawPeer&)>;
constexpr size_t PAYLOAD = 64;

VEK_ST_HTTP2_OPTIONS SmallOptions(uint32_t timeout = 0, size_t payload = PAYLOAD, uint32_t streams = 8) {
    VEK_ST_HTTP2_OPTIONS options{};
    options.nMaxConcurrentStream_ = streams;
    options.nMaxPayloadSize_ = static_cast<uint32_t>(payload);
    options.nTimeout_ = timeout;
    return options;
}

// A connection in clear text with prior knowledge, and records with buffers.
struct Client {
    explicit Client(const RawPeer& peer, VEK_ST_HTTP2_OPTIONS options = SmallOptions(), bool isEvent = false) {
        EXPECT_TRUE(connection.Initialize("raw", &options));
        EXPECT_TRUE(connection.Connect("127.0.0.1", peer.Port(), nullptr, isEvent));
        response.payload_.data_ = body;
        request.payload_ = {5, 0, const_cast<char*>("hello")};
        VEK_COPY_TEXT(request.method_, "POST");
        VEK_COPY_TEXT(request.path_, "/test");
        VEK_COPY_TEXT(request.authority_, "");
        request.messageId_ = 7;
    }

    // Collects until there is a response or the connection ends.
    int Collect() {
        int result = 0;
        Eventually([&] { return (result = connection.Response(&response)) != 0; });
        return result;
    }
    std::string Body() const { return {body, response.payload_.size_}; }

    CVEKHttp2Request connection;
    VEK_ST_HTTP2_REQUEST request;
    VEK_ST_HTTP2_RESPONSE response;
    char body[PAYLOAD] = {};
};

// Answers the first request with these bytes and waits for the client's GOAWAY or its end.
Script AnswerWith(std::function<std::string(int stream)> bytes, std::atomic<int>* goaway = nullptr) {
    return [bytes = std::move(bytes), goaway](RawPeer& peer) {
        peer.Send(bytes(peer.ReadRequest()));
        const RawFrame last = peer.ReadUntil(NGHTTP2_GOAWAY);
        if (goaway != nullptr) {
            *goaway = last.type == NGHTTP2_GOAWAY ? static_cast<unsigned char>(last.payload[7]) : -1;
        }
    };
}

struct AnswerCase {
    const char* name;
    std::function<std::string(int stream)> bytes;
    bool isDelivered;
    const char* status;  // when delivered
    int error;           // when delivered
    size_t size;         // when delivered
    int cause;           // when not
    int goaway;          // code of the client's GOAWAY, -1 for none
};

std::string Ok(int stream) { return MakeHeaders(stream, STATUS_200, false) + MakeData(stream, "hi", true); }

const AnswerCase ANSWERS[] = {
    {"plain", Ok, true, "200", 0, 2, 0, 0},
    {"no body", [](int s) { return MakeHeaders(s, STATUS_200, true); }, true, "200", 0, 0, 0, 0},
    {"reset", [](int s) { return MakeReset(s, 2); }, true, "000", 2, 0, 0, 0},
    {"body fits",
     [](int s) { return MakeHeaders(s, STATUS_200, false) + MakeData(s, std::string(PAYLOAD, 'x'), true); }, true,
     "200", 0, PAYLOAD, 0, 0},
    {"body over the limit keeps its first chunks",
     [](int s) {
         return MakeHeaders(s, STATUS_200, false) + MakeData(s, std::string(40, 'x'), false) +
                MakeData(s, std::string(25, 'y'), true);
     },
     true, "000", VEK_HTTP2_ERROR_PAYLOAD_OVERFLOW, 40, 0, 0},
    {"informational response first", [](int s) { return MakeHeaders(s, MakeField(":status", "103"), false) + Ok(s); },
     true, "103", 0, 2, 0, 0},
    {"trailers",
     [](int s) {
         return MakeHeaders(s, STATUS_200, false) + MakeData(s, "hi", false) +
                MakeHeaders(s, MakeField("sum", "1"), true);
     },
     true, "200", 0, 2, 0, 0},
    {"pings first", [](int s) { return Repeat(MakeFrame(NGHTTP2_PING, 0, 0, "12345678"), 3) + Ok(s); }, true, "200", 0,
     2, 0, 0},
    {"ping acknowledged unasked",
     [](int s) { return MakeFrame(NGHTTP2_PING, NGHTTP2_FLAG_ACK, 0, "12345678") + Ok(s); }, true, "200", 0, 2, 0, 0},
    {"unknown frame", [](int s) { return MakeFrame(0xbe, 0, 0, "x") + Ok(s); }, true, "200", 0, 2, 0, 0},
    {"goaway", [](int) { return MakeGoaway(0, 0); }, false, "", 0, 0, VEK_HTTP2_CONN_CLOSE_CAUSE_PEER, -1},
    {"goaway, then bad bytes: the first cause stays", [](int) { return MakeGoaway(0, 0) + std::string(100, '\xff'); },
     false, "", 0, 0, VEK_HTTP2_CONN_CLOSE_CAUSE_PEER, -1},
    {"frame too large", [](int s) { return MakeFrame(NGHTTP2_DATA, 0, s, std::string(20000, 'x')); }, false, "", 0, 0,
     VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR, NGHTTP2_FRAME_SIZE_ERROR},
    {"invalid settings", [](int) { return MakeSettings(std::string("\0\2\0\0\0\7", 6)); }, false, "", 0, 0,
     VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR, -1},
    {"invalid header field", [](int s) { return MakeHeaders(s, STATUS_200 + MakeField("Upper", "x"), true); }, false,
     "", 0, 0, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR, NGHTTP2_INTERNAL_ERROR},
    {"not HTTP/2", [](int) { return std::string("HTTP/1.1 400 Bad Request\r\n\r\n"); }, false, "", 0, 0,
     VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR, NGHTTP2_FRAME_SIZE_ERROR},
    {"silence", [](int) { return std::string(); }, false, "", 0, 0, VEK_HTTP2_CONN_CLOSE_CAUSE_TIMEOUT, -1},
    {"headers without end",
     [](int s) {
         return MakeFrame(NGHTTP2_HEADERS, 0, s, STATUS_200) +
                Repeat(MakeFrame(NGHTTP2_CONTINUATION, 0, s, MakeField("a", "b")), 100);
     },
     false, "", 0, 0, VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR, -1},
};

void CheckSynchronous(const AnswerCase& answer, const RawPeer& peer) {
    Client client(peer);
    EXPECT_EQ(answer.isDelivered, client.connection.Request(&client.request, &client.response));
    EXPECT_EQ(answer.cause, client.connection.GetStateCause());
    if (answer.isDelivered) {
        EXPECT_STREQ(answer.status, client.response.rs_);
        EXPECT_EQ(answer.error, client.response.error_);
        EXPECT_EQ(answer.size, client.response.payload_.size_);
        EXPECT_EQ(7, client.response.messageId_);
        EXPECT_TRUE(client.connection.IsComplete());
    } else {
        EXPECT_EQ(VEK_HTTP2_CONN_STATE_CLOSE, client.connection.GetState());
        EXPECT_FALSE(client.connection.Request(&client.request, &client.response));
    }
}

TEST(ClientAnswer, SynchronousUse) {
    for (const AnswerCase& answer : ANSWERS) {
        SCOPED_TRACE(answer.name);
        std::atomic<int> goaway{-2};
        {
            RawPeer peer(AnswerWith(answer.bytes, &goaway));
            CheckSynchronous(answer, peer);
        }
        EXPECT_EQ(answer.goaway, goaway);
    }
}

TEST(ClientAnswer, AsynchronousUse) {
    for (const AnswerCase& answer : ANSWERS) {
        SCOPED_TRACE(answer.name);
        const bool isTimeout = answer.cause == VEK_HTTP2_CONN_CLOSE_CAUSE_TIMEOUT;
        RawPeer peer(AnswerWith(answer.bytes));
        Client client(peer);
        EXPECT_EQ(1, client.connection.Request(&client.request, false));
        EXPECT_EQ(answer.isDelivered || isTimeout ? 1 : -1, client.Collect());
        EXPECT_EQ(isTimeout ? 0 : answer.cause, client.connection.GetStateCause());
        if (answer.isDelivered || isTimeout) {
            EXPECT_STREQ(isTimeout ? "000" : answer.status, client.response.rs_);
            EXPECT_EQ(isTimeout ? VEK_HTTP2_ERROR_TIMEOUT : answer.error, client.response.error_);
            EXPECT_EQ(7, client.response.messageId_);
            EXPECT_EQ(0, client.connection.GetIncompleteCount());
        }
    }
}

TEST(ClientAnswer, EndlessBodyMeetsTheTimeout) {
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
    {
        Client client(peer);
        EXPECT_FALSE(client.connection.Request(&client.request, &client.response));
        EXPECT_EQ(VEK_HTTP2_CONN_STATE_CLOSE, client.connection.GetState());
    }
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
        for (int i = 0; i < 70; ++i) { client.request.hdr_.emplace_back("x-" + std::to_string(i), "v"); }
        const std::string log = Capture([&] {
            VEK_OPEN_SERVICE_LOG(VEK_LOG_WARNING);
            EXPECT_TRUE(client.connection.Request(&client.request, &client.response));
        });
        EXPECT_EQ(1U, Count(log, "too many http headers(64,x-60:v)...ignore!")) << log;
        EXPECT_EQ("ok", client.Body());
    }
    EXPECT_EQ("hello", body);
    const int values[][2] = {{3, 8}, {4, 65536}, {5, 16384}, {1, 64}, {2, 0}};
    std::string expected;
    for (const auto& [id, value] : values) {
        expected += std::string("\0", 1) + static_cast<char>(id) + MakeNumber(value);
    }
    EXPECT_EQ(expected, settings);

    nghttp2_hd_inflater* inflater = nullptr;
    ASSERT_EQ(0, nghttp2_hd_inflate_new(&inflater));
    std::vector<std::string> names;
    for (size_t used = 0; used < block.size();) {
        nghttp2_nv field{};
        int flags = 0;
        const ssize_t count = nghttp2_hd_inflate_hd2(
            inflater, &field, &flags, reinterpret_cast<const uint8_t*>(block.data()) + used, block.size() - used, 1);
        ASSERT_GE(count, 0);
        used += static_cast<size_t>(count);
        if ((flags & NGHTTP2_HD_INFLATE_EMIT) != 0) {
            names.emplace_back(reinterpret_cast<char*>(field.name), field.namelen);
        }
        if ((flags & NGHTTP2_HD_INFLATE_FINAL) != 0) { break; }
    }
    nghttp2_hd_inflate_del(inflater);
    ASSERT_EQ(64U, names.size());
    const std::vector<std::string> order = {":scheme", ":authority", ":path", ":method", "x-0"};
    EXPECT_EQ(order, std::vector<std::string>(names.begin(), names.begin() + 5));
    EXPECT_EQ("x-59", names.back());
}

TEST(Client, RefusesWhatMustNotBeSent) {
    const struct {
        const char* name;
        std::function<void(VEK_ST_HTTP2_REQUEST&)> spoil;
    } cases[] = {
        {"path", [](auto& request) { VEK_COPY_TEXT(request.path_, "test"); }},
        {"body", [](auto& request) { request.payload_.size_ = PAYLOAD + 1; }},
    };
    for (const auto& test : cases) {
        for (const bool isSync : {true, false}) {
            SCOPED_TRACE(test.name);
            RawPeer peer([](RawPeer& self) { self.ReadUntil(-1); });
            Client client(peer);
            std::string large(PAYLOAD + 1, 'x');
            client.request.payload_.data_ = large.data();
            test.spoil(client.request);
            if (isSync) {
                EXPECT_FALSE(client.connection.Request(&client.request, &client.response));
            } else {
                EXPECT_EQ(1, client.connection.Request(&client.request, false));
                EXPECT_EQ(-1, client.connection.Response(&client.response));
                EXPECT_EQ(-3, client.connection.Request(&client.request, true));
            }
            EXPECT_EQ(VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR, client.connection.GetStateCause());
        }
    }
    RawPeer peer([](RawPeer& self) { self.ReadUntil(-1); });
    Client client(peer);
    EXPECT_EQ(-3, client.connection.Request(1, nullptr, "A-METHOD-TOO-LONG", "/", {}, 0, nullptr, false));
    EXPECT_EQ(VEK_HTTP2_CONN_STATE_OPEN, client.connection.GetState());
}

TEST(Client, RequestsQueuedBeforeConnectLeaveWithIt) {
    const RawPeer peer([](RawPeer& self) {
        for (int i = 0; i < 2; ++i) { self.Answer(self.ReadRequest(), "hi"); }
        self.ReadUntil(-1);
    });
    CVEKHttp2Request connection;
    const VEK_ST_HTTP2_OPTIONS options = SmallOptions();
    ASSERT_TRUE(connection.Initialize("early", &options));
    for (int i = 0; i < 2; ++i) { EXPECT_EQ(1, connection.Request(i, nullptr, "GET", "/", {}, 0, nullptr, false)); }
    ASSERT_TRUE(connection.Connect("127.0.0.1", peer.Port(), nullptr, false));
    VEK_ST_HTTP2_RESPONSE response;
    char body[PAYLOAD];
    response.payload_.data_ = body;
    int answered = 0;
    EXPECT_TRUE(Eventually([&] { return (answered += connection.Response(&response)) == 2; }));
}

TEST(Client, AuthorityNamesThePortExceptTwo) {
    CVEKHttp2Request connection;
    EXPECT_FALSE(connection.Connect("127.0.0.1", 1, nullptr, false));
    VEK_ST_HTTP2_OPTIONS options = SmallOptions();
    EXPECT_TRUE(connection.Initialize("once", &options));
    EXPECT_FALSE(connection.Initialize("twice", &options));
    EXPECT_STREQ("once", connection.GetName());
    const std::pair<int, const char*> cases[] = {
        {80, "127.0.0.9"}, {433, "127.0.0.9"}, {443, "127.0.0.9:443"}, {8443, "127.0.0.9:8443"}};
    for (const auto& [port, expected] : cases) {
        EXPECT_FALSE(connection.Connect("127.0.0.9", port, nullptr, false));
        connection.SetVirtualHeader();
        VEK_ST_HTTP2_REQUEST request;
        VEK_COPY_TEXT(request.path_, "/");
        request.method_[0] = request.authority_[0] = '\0';
        request.payload_.size_ = 0;
        EXPECT_EQ(4, connection.PrepareRequest(&request));
        EXPECT_STREQ(expected, reinterpret_cast<char*>(request.hdrs_[1].value));
    }
}

// Resolves a loopback port for the stepwise set-up.
struct Addresses {
    explicit Addresses(int port) : list(CVEKSocketNew::RESOLVE(IPPROTO_TCP, "127.0.0.1", port)) {}
    ~Addresses() { freeaddrinfo(list); }
    addrinfo* list;
};

// Steps until the set-up has ended, waiting as it says.
template <class CONNECTION>
int StepToTheEnd(CONNECTION& connection) {
    int result = 0;
    while ((result = connection.Advance()) == VEK_HTTP2_STEP_WAIT) {
        pollfd entry{connection.GetSocket(), connection.GetWaitEvents(), 0};
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(connection.GetWaitDeadline() -
                                                                       std::chrono::steady_clock::now());
        poll(&entry, 1, static_cast<int>(std::max<int64_t>(left.count(), 0)));
    }
    return result;
}

TEST(Client, ConnectsInSteps) {
    const RawPeer peer([](RawPeer& self) {
        self.Answer(self.ReadRequest(), "steps");
        self.ReadUntil(-1);
    });
    const Addresses live(peer.Port()), dead(FreePort());
    CVEKHttp2Request connection;
    const VEK_ST_HTTP2_OPTIONS options = SmallOptions();
    ASSERT_TRUE(connection.Initialize("steps", &options));
    EXPECT_EQ(VEK_HTTP2_STEP_FAILED, connection.Advance());  // not begun
    connection.StartConnect(dead.list, "127.0.0.1", 1, nullptr, false);
    EXPECT_EQ(VEK_HTTP2_STEP_FAILED, StepToTheEnd(connection));
    EXPECT_EQ(VEK_HTTP2_CONN_STATE_INIT, connection.GetState());
    EXPECT_EQ(-1, connection.GetSocket());
    EXPECT_TRUE(connection.StartConnect(dead.list, "127.0.0.1", 1, false));
    connection.Disconnect();  // cancels
    EXPECT_TRUE(connection.StartConnect(live.list, "127.0.0.1", peer.Port(), nullptr, false));
    ASSERT_EQ(VEK_HTTP2_STEP_DONE, StepToTheEnd(connection));
    EXPECT_EQ(VEK_HTTP2_CONN_STATE_OPEN, connection.GetState());
    VEK_ST_HTTP2_REQUEST request;
    VEK_ST_HTTP2_RESPONSE response;
    char body[PAYLOAD];
    VEK_COPY_TEXT(request.method_, "GET");
    VEK_COPY_TEXT(request.path_, "/");
    response.payload_.data_ = body;
    EXPECT_TRUE(connection.Request(&request, &response));
    EXPECT_EQ("steps", std::string(body, response.payload_.size_));
}

TEST(Client, PushPromiseIsPrintedAndIgnored) {
    VEK_ST_HTTP2_OPTIONS options = SmallOptions();
    options.nPushEnable_ = 7;
    RawPeer peer(AnswerWith([](int stream) {
        const std::string promise = MakeField(":method", "GET") + MakeField(":scheme", "http") +
                                    MakeField(":path", "/p") + MakeField(":authority", "a");
        return MakeFrame(NGHTTP2_PUSH_PROMISE, NGHTTP2_FLAG_END_HEADERS, stream, MakeNumber(2) + promise) + Ok(stream);
    }));
    Client client(peer, options);
    const std::string log = Capture([&] { EXPECT_TRUE(client.connection.Request(&client.request, &client.response)); });
    EXPECT_EQ("hi", client.Body());
    EXPECT_EQ(1U, Count(log, "receive PUSH ...not support!"));
    EXPECT_EQ(1U, Count(log, ":path: /p\n")) << log;
}

TEST(Client, TimeoutCancelsTheStreamAndKeepsTheConnection) {
    std::atomic<int> cancelled{0};
    RawPeer peer([&](RawPeer& self) {
        const int late = self.ReadRequest();
        const RawFrame reset = self.ReadUntil(NGHTTP2_RST_STREAM, late);
        cancelled = reset.payload == MakeNumber(NGHTTP2_CANCEL) ? reset.stream : 0;
        self.Answer(late, "late");  // must not be taken for an answer to anything
        self.Answer(self.ReadRequest(), "next");
        self.ReadUntil(-1);
    });
    Client client(peer);
    EXPECT_EQ(1, client.connection.Request(&client.request, false));
    EXPECT_EQ(1, client.Collect());
    EXPECT_EQ(VEK_HTTP2_ERROR_TIMEOUT, client.response.error_);
    client.request.messageId_ = 8;
    EXPECT_EQ(1, client.connection.Request(&client.request, false));
    EXPECT_EQ(1, client.Collect());
    EXPECT_EQ(8, client.response.messageId_);
    EXPECT_EQ("next", client.Body());
    EXPECT_EQ(1, cancelled);
}

// The peer answers while most of the body still waits for its window: the engine must let go of the
// caller's record, which is gone by the time the window opens.
TEST(Client, EarlyAnswerLetsTheRequestGo) {
    RawFrame reset;
    {
        RawPeer peer([&](RawPeer& self) {
            self.Answer(self.ReadUntil(NGHTTP2_HEADERS).stream, "early");
            reset = self.ReadUntil(NGHTTP2_RST_STREAM);
            self.Send(MakeFrame(NGHTTP2_WINDOW_UPDATE, 0, 0, MakeNumber(1 << 20)));
            self.Answer(self.ReadRequest(), "next");
            self.ReadUntil(-1);
        });
        Client client(peer, SmallOptions(0, 200000));
        std::string answer(200000, '\0');
        client.response.payload_.data_ = answer.data();
        auto body = std::make_unique<std::string>(200000, 'x');
        client.request.payload_ = {body->size(), 0, body->data()};
        EXPECT_TRUE(client.connection.Request(&client.request, &client.response));
        body.reset();
        client.request.payload_ = {5, 0, const_cast<char*>("hello")};
        EXPECT_TRUE(client.connection.Request(&client.request, &client.response));
        EXPECT_EQ("next", answer.substr(0, client.response.payload_.size_));
    }
    EXPECT_EQ(1, reset.stream);
    EXPECT_EQ(MakeNumber(NGHTTP2_CANCEL), reset.payload);
}

TEST(Client, ResetBehindAnAnswerIsNoAnswer) {
    RawPeer peer([](RawPeer& self) {
        for (int stream = self.ReadRequest(); stream != 0; stream = self.ReadRequest()) {
            self.Answer(stream, std::to_string(stream));
            self.Send(MakeReset(stream, NGHTTP2_NO_ERROR));
        }
    });
    Client client(peer);
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(client.connection.Request(&client.request, &client.response));
        EXPECT_EQ(std::to_string(2 * i + 1), client.Body());
    }
}

// More of them than there are records: each gives the half-received response back.
TEST(Client, ResetBehindHeadersKeepsThePool) {
    RawPeer peer([](RawPeer& self) {
        for (int stream = self.ReadRequest(); stream != 0; stream = self.ReadRequest()) {
            self.Send(MakeHeaders(stream, STATUS_200, false) + MakeReset(stream, NGHTTP2_REFUSED_STREAM));
        }
    });
    Client client(peer);
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(client.connection.Request(&client.request, &client.response));
        EXPECT_STREQ("000", client.response.rs_);
        EXPECT_EQ(NGHTTP2_REFUSED_STREAM, client.response.error_);
        EXPECT_EQ(0U, client.response.payload_.size_);
    }
}

TEST(Client, TimeoutOfARequestThatCouldNotLeave) {
    const auto limit = [](char streams) { return MakeSettings(std::string("\0\3\0\0\0", 5) + streams); };
    RawPeer peer([&](RawPeer& self) {
        self.Send(limit(0));
        self.Answer(self.ReadRequest(), "first");  // crossed the limit
        self.ReadUntil(NGHTTP2_PING);
        self.Send(limit(100));
        self.Answer(self.ReadRequest(), "next");
        self.ReadUntil(-1);
    });
    Client client(peer);
    for (const char* body : {"first", "", "next"}) {
        EXPECT_EQ(1, client.connection.Request(&client.request, false));
        EXPECT_EQ(1, client.Collect());
        EXPECT_EQ(*body == '\0' ? VEK_HTTP2_ERROR_TIMEOUT : 0, client.response.error_);
        if (*body == '\0') {
            EXPECT_TRUE(client.connection.SendPing());  // asks the peer to lift the limit
        } else {
            EXPECT_EQ(body, client.Body());
        }
    }
    EXPECT_EQ(VEK_HTTP2_CONN_STATE_OPEN, client.connection.GetState());
}

TEST(Client, FullPoolRefusesOrWaits) {
    RawPeer peer([](RawPeer& self) { self.ReadUntil(-1); });
    Client client(peer, SmallOptions(60));
    for (int i = 0; i < 8; ++i) { EXPECT_EQ(1, client.connection.Request(&client.request, false)); }
    EXPECT_EQ(8, client.connection.GetIncompleteCount());
    EXPECT_EQ(0, client.connection.Request(&client.request, false));
    EXPECT_EQ(-2, client.connection.Request(&client.request, true));
    client.connection.Disconnect();
    client.connection.Disconnect();
    EXPECT_EQ(-1, client.connection.Response(&client.response));
    EXPECT_FALSE(client.connection.ProcEvent());
    EXPECT_FALSE(client.connection.Request(&client.request, &client.response));
}

TEST(Client, StreamIdsRunOut) {
    RawPeer peer([](RawPeer& self) { self.ReadUntil(-1); });
    Client client(peer);
    client.connection.SetStreamID(0x7ffffffd);  // the last id but one
    EXPECT_FALSE(client.connection.IsStreamFull());
    EXPECT_EQ(1, client.connection.Request(&client.request, false));
    EXPECT_TRUE(client.connection.IsStreamFull());
    EXPECT_EQ(1, client.connection.Request(&client.request, false));
    EXPECT_EQ(-1, client.connection.Request(&client.request, false));
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
        VEK_ST_HTTP2_OPTIONS options = SmallOptions();
        options.nPingSendThreshold_ = 1;
        options.nPingTimeoutThreshold_ = 1;
        Client client(peer, options);
        EXPECT_EQ(-1, client.Collect());
        EXPECT_EQ(VEK_HTTP2_CONN_CLOSE_CAUSE_PING_TIMEOUT, client.connection.GetStateCause());
    }
    EXPECT_TRUE(Eventually([&] { return pings == 2; }));  // the first was answered in time
}

TEST(Client, ExternalEventsAndReconnect) {
    for (int round = 0; round < 2; ++round) {
        RawPeer peer([](RawPeer& self) {
            self.Answer(self.ReadRequest(), "event");
            self.ReadUntil(-1);
        });
        static Client client(peer, SmallOptions(), true);
        if (round > 0) {
            client.connection.Disconnect();
            ASSERT_TRUE(client.connection.Connect("127.0.0.1", peer.Port(), nullptr, true));
        }
        EXPECT_EQ(0, client.connection.Response(&client.response));
        EXPECT_EQ(1, client.connection.Request(&client.request, false));
        EXPECT_EQ(1, client.connection.ProcEventPre());
        int result = 0;
        while (result == 0) {
            ASSERT_GT(CVEKSocketNew::SELECT(client.connection.GetSocket(), 10, 0), 0);
            ASSERT_TRUE(client.connection.ProcEvent());
            result = client.connection.Response(&client.response);
        }
        EXPECT_EQ("event", client.Body());
        client.connection.Disconnect();
    }
}

// All windows as wide as they can be.
const std::string WIDE = MakeSettings(std::string("\0\4\x7f\xff\xff\xff", 6)) +
                         MakeFrame(NGHTTP2_WINDOW_UPDATE, 0, 0, MakeNumber(0x7fff0000));

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
            Client client(peer, SmallOptions(0, SIZE, 1));
            std::string answer(SIZE, '\0');
            client.response.payload_.data_ = answer.data();
            for (const char text : {'a', 'b'}) {
                const std::string body(SIZE, text);
                client.request.payload_ = {SIZE, 0, const_cast<char*>(body.data())};
                EXPECT_EQ(1, client.connection.Request(&client.request, false));
                client.connection.Response(nullptr);
                isQueued = text == 'b';
                EXPECT_EQ(1, client.Collect());
            }
            EXPECT_STREQ("200", client.response.rs_);
        }
        EXPECT_EQ(std::string::npos, received[0].find_first_not_of('a'));
        EXPECT_TRUE(received[1] == std::string(SIZE, 'b')) << received[1].size();
    }
}

// The peer takes nothing for a while, then everything: no byte may be lost or doubled.
TEST(Client, SlowReaderGetsEveryByte) {
    constexpr size_t SIZE = 8 << 20;
    std::string received;
    {
        RawPeer peer([&](RawPeer& self) {
            self.Send(WIDE);
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            RawFrame frame;
            do {
                frame = self.ReadUntil(NGHTTP2_DATA);
                received += frame.payload;
            } while (frame.type != -1 && (frame.flags & NGHTTP2_FLAG_END_STREAM) == 0);
            self.Answer(frame.stream, "done");
            self.ReadUntil(-1);
        });
        Client client(peer, SmallOptions(30, SIZE, 1));
        std::string body(SIZE, '\0');
        for (size_t i = 0; i < SIZE; ++i) { body[i] = static_cast<char>(i * 2654435761U >> 16); }
        std::string answer(SIZE, '\0');
        client.response.payload_.data_ = answer.data();
        client.request.payload_ = {SIZE, 0, body.data()};
        EXPECT_TRUE(client.connection.Request(&client.request, &client.response));
        EXPECT_TRUE(received == body);
    }
}

TEST(Client, OneThreadQueuesAnotherDrives) {
    constexpr int COUNT = 300;
    RawPeer peer([](RawPeer& self) { self.AnswerAll([](int stream) { return std::to_string(stream); }); });
    Client client(peer, SmallOptions(30));
    std::thread queue([&] {
        for (int i = 0; i < COUNT; ++i) {
            EXPECT_EQ(1, client.connection.Request(i, nullptr, "POST", "/", {{"a", "b"}}, 5, "hello", true));
            client.connection.IsSendDataExist();
            client.connection.IsStreamFull();
        }
    });
    std::vector<bool> isAnswered(COUNT, false);
    for (int i = 0; i < COUNT; ++i) {
        if (client.Collect() != 1) {
            ADD_FAILURE() << "lost after " << i;
            break;
        }
        EXPECT_STREQ("200", client.response.rs_);
        EXPECT_EQ(std::to_string(client.response.streamId_), client.Body());
        isAnswered[static_cast<size_t>(client.response.messageId_)] = true;
    }
    queue.join();
    EXPECT_EQ(COUNT, std::count(isAnswered.begin(), isAnswered.end(), true));
}

}  // namespace
