// The server connection against a scripted client.
#include <sys/socket.h>

#include <array>
#include <atomic>
#include <cstring>
#include <mutex>
#include <thread>

#include "CVEKHttp2Response.h"
#include "RawPeer.h"
#include "TestSupport.h"
#include "VEKServiceLog.h"
#include "VEKText.h"

namespace {

constexpr uint32_t STREAMS = 4;
constexpr size_t PAYLOAD = 64;

VEK_ST_HTTP2_OPTIONS SmallOptions() {
    VEK_ST_HTTP2_OPTIONS options{};
    options.nMaxConcurrentStream_ = STREAMS;
    options.nMaxPayloadSize_ = PAYLOAD;
    return options;
}

const std::string GET = "\x82\x84\x86\x41\x01" + std::string("a");  // GET / http, :authority a

// A connection with prior knowledge and its client's end.
struct Server {
    explicit Server(VEK_ST_HTTP2_OPTIONS options = SmallOptions()) {
        int fds[2];
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
        client.Open(fds[0]);
        EXPECT_TRUE(connection.Initialize("raw", &options));
        EXPECT_TRUE(connection.Accept(fds[1], "127.0.0.1", 1, nullptr, false));
        client.Send(NGHTTP2_CLIENT_MAGIC + MakeSettings());
        response.rs_[0] = '\0';
        response.payload_ = {0, 0, const_cast<char*>("0123456789")};
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
    int Answer(int stream, const char* status, size_t size = 0, bool wait = false) {
        response.streamId_ = stream;
        VEK_COPY_TEXT(response.rs_, status);
        response.payload_.size_ = size;
        return connection.Response(&response, wait);
    }
    std::string Body() const { return {request.data_, request.size_}; }

    RawSocket client;
    CVEKHttp2Response connection;
    VEK_ST_HTTP2_REQUEST_RECV request{};
    VEK_ST_HTTP2_RESPONSE response;
};

TEST(Server, DefaultsOnTheWire) {
    Server server(VEK_ST_HTTP2_OPTIONS{});
    server.Drive();
    std::string expected;
    const int values[][2] = {{3, 100}, {4, 65536}, {5, 16384}, {1, 64}};
    for (const auto& [id, value] : values) {
        expected += std::string("\0", 1) + static_cast<char>(id) + MakeNumber(value);
    }
    EXPECT_EQ(expected, server.client.ReadUntil(NGHTTP2_SETTINGS).payload);
}

// Clear text as the peer has it, in steps and split where it hurts; and what is no HTTP at all.
TEST(Server, AcceptsInStepsWhatComes) {
    const std::string preface = NGHTTP2_CLIENT_MAGIC + MakeSettings();
    const std::string upgrade =
        "PUT /up HTTP/1.1\r\nHost: h\r\nConnection: Upgrade, HTTP2-Settings\r\nUpgrade: h2c\r\n"
        "HTTP2-Settings: AAMAAABk\r\n\r\n";
    const struct {
        const char* name;
        std::vector<std::string> pieces;
        int result;
        int stream;  // of the request that comes
    } cases[] = {
        {"prior knowledge", {"P", "RI * HTTP", preface.substr(10), MakeHeaders(1, GET, true)}, 1, 1},
        {"upgrade", {"P", "U", upgrade.substr(2)}, 1, 1},
        {"neither", {"PRO", "XY\r\n\r\n"}, -1, 0},
        {"closed", {"PR", ""}, -1, 0},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        int fds[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
        RawSocket client(fds[0]);
        CVEKHttp2Response connection;
        const VEK_ST_HTTP2_OPTIONS options = SmallOptions();
        ASSERT_TRUE(connection.Initialize("steps", &options));
        ASSERT_TRUE(connection.StartAcceptAny(fds[1], "127.0.0.1", 1, true));
        int result = connection.Advance();
        for (const std::string& piece : test.pieces) {
            if (piece.empty()) { shutdown(fds[0], SHUT_WR); }
            client.Send(piece);
            if (result == VEK_HTTP2_STEP_WAIT) { result = connection.Advance(); }
        }
        EXPECT_EQ(test.result, result);
        if (result == VEK_HTTP2_STEP_DONE) {
            connection.ProcEvent();
            VEK_ST_HTTP2_REQUEST_RECV request;
            EXPECT_EQ(1, connection.Request(&request));
            EXPECT_EQ(test.stream, request.streamId_);
        }
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
    int stream = 1;
    for (const auto& test : cases) {
        SCOPED_TRACE(stream);
        server.client.Send(MakeHeaders(stream, GET, test.chunks.empty()));
        for (size_t i = 0; i < test.chunks.size(); ++i) {
            server.client.Send(MakeData(stream, std::string(test.chunks[i], 'x'), i + 1 == test.chunks.size()));
        }
        ASSERT_EQ(1, server.Next());
        EXPECT_EQ(stream, server.request.streamId_);
        EXPECT_EQ(test.error, server.request.error_);
        EXPECT_EQ(std::string(test.size, 'x'), server.Body());
        EXPECT_EQ((std::pair<std::string, std::string>(":path", "/")), server.request.hdr_->at(1));
        EXPECT_EQ(1, server.Answer(stream, "200", 5));
        EXPECT_EQ(1, server.connection.GetIncompleteCount());
        server.Drive();
        EXPECT_EQ(0, server.connection.GetIncompleteCount());
        EXPECT_EQ(STATUS_200, server.client.ReadUntil(NGHTTP2_HEADERS, stream).payload);
        EXPECT_EQ("01234", server.client.ReadUntil(NGHTTP2_DATA, stream).payload);
        stream += 2;
    }
}

// What the client sends, and what becomes of the connection; a good request follows.
TEST(Server, OneBadStreamOrTheWholeConnection) {
    const struct {
        const char* name;
        std::string bytes;
        int reset;  // error code on stream 1, 0 for none
        int cause;  // 0: the connection stays open and serves the next stream
    } cases[] = {
        {"upper-case name", MakeHeaders(1, GET + MakeField("Upper", "x"), true), NGHTTP2_PROTOCOL_ERROR, 0},
        {"control character in a value", MakeHeaders(1, GET + MakeField("a", "x\x01y"), true), NGHTTP2_PROTOCOL_ERROR,
         0},
        {"blank in a name", MakeHeaders(1, GET + MakeField("a b", "x"), true), NGHTTP2_PROTOCOL_ERROR, 0},
        {"invalid field, then data", MakeHeaders(1, GET + MakeField("a b", "x"), false) + MakeData(1, "x", true),
         NGHTTP2_PROTOCOL_ERROR, 0},
        {"no path", MakeHeaders(1, "\x82\x86", true), 0, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR},
        {"goaway", MakeGoaway(0, 0), 0, VEK_HTTP2_CONN_CLOSE_CAUSE_PEER},
        {"even stream", MakeHeaders(2, GET, true), 0, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR},
        {"header bomb",
         MakeHeaders(1,
                     GET +
                         "\x40\x01"
                         "b\x7f\xa1\x1e" +
                         std::string(4000, 'x') + std::string(5000, '\xbe'),
                     true),
         NGHTTP2_INTERNAL_ERROR, 0},
        {"ping flood", Repeat(MakeFrame(NGHTTP2_PING, 0, 0, "12345678"), 20000), 0, VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        Server server;
        std::thread sender([&] { server.client.Send(test.bytes + MakeHeaders(3, GET, true)); });
        std::thread reader([&] {
            if (test.reset != 0) {
                EXPECT_EQ(MakeNumber(test.reset), server.client.ReadUntil(NGHTTP2_RST_STREAM, 1).payload);
            }
            server.client.ReadUntil(NGHTTP2_HEADERS, 3);
        });
        EXPECT_EQ(test.cause == 0 ? 1 : -1, server.Next());
        EXPECT_EQ(test.cause, server.connection.GetStateCause());
        if (test.cause == 0) {
            EXPECT_EQ(3, server.request.streamId_);
            EXPECT_EQ(1, server.Answer(3, "200"));
            server.Drive();
        }
        server.connection.Disconnect();
        server.connection.Disconnect();
        sender.join();
        reader.join();
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
    Events events;
    server.connection.SetUserCallback(Events::Add, &events);
    for (const int stream : {1, 3, 5, 7}) { server.client.Send(MakeHeaders(stream, GET, true)); }
    for (const int stream : {1, 3, 5}) {
        ASSERT_EQ(1, server.Next());
        EXPECT_EQ(stream, server.request.streamId_);
    }
    server.Drive();
    EXPECT_EQ(7, server.client.ReadUntil(NGHTTP2_HEADERS, 7).stream);
    EXPECT_EQ(1, server.connection.Get429ResponseCount());
    EXPECT_EQ(0, server.connection.Get429ResponseCount());
    server.client.Send(MakeReset(3, 8) + MakeReset(7, 8));  // 7 has long been answered
    server.Drive();
    EXPECT_EQ(2, server.connection.GetCancelCount());
    EXPECT_EQ(0, server.connection.GetCancelCount());
    const std::vector<std::array<int, 3>> expected = {{1, 0, 0}, {2, 3, 8}};
    EXPECT_EQ(expected, events.seen);
    EXPECT_EQ(VEK_HTTP2_CONN_STATE_OPEN, server.connection.GetState());
}

TEST(Server, ResetBeforeItIsTaken) {
    Server server;
    server.client.Send(MakeHeaders(1, GET, false) + MakeData(1, "late", true) + MakeReset(1, 8));
    for (int stream = 3; stream < 3 + 2 * 20; stream += 2) {  // goes round the pool
        server.client.Send(MakeHeaders(stream, GET, false) + MakeReset(stream, 8));
    }
    server.client.Send(MakeHeaders(99, GET, false));
    ASSERT_EQ(1, server.Next());
    EXPECT_EQ(1, server.request.streamId_);
    EXPECT_TRUE(server.request.hdr_->empty());
    EXPECT_EQ("late", server.Body());
    server.client.Send(MakeData(99, "whole", true));
    ASSERT_EQ(1, server.Next());
    EXPECT_EQ(99, server.request.streamId_);
    EXPECT_EQ("whole", server.Body());
    EXPECT_EQ(1, server.Answer(1, "200"));  // dropped: its stream is gone
    server.Drive();
    EXPECT_EQ(0, server.connection.GetIncompleteCount());
}

TEST(Server, ResponsesThatAreNotSent) {
    const struct {
        const char* name;
        const char* status;
        size_t size;
        int result;  // of the pass that submits it
        int cause;
    } cases[] = {
        {"exact size", "200", PAYLOAD, 0, 0},
        {"reset instead", "000", 0, -1, 0},
        {"too large", "200", PAYLOAD + 1, -1, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        Server server;
        server.client.Send(MakeHeaders(1, GET, true));
        ASSERT_EQ(1, server.Next());
        const std::string body(PAYLOAD + 1, 'x');
        server.response.payload_.data_ = const_cast<char*>(body.data());
        EXPECT_EQ(1, server.Answer(1, test.status, test.size));
        EXPECT_EQ(test.result, server.connection.Request(&server.request));
        EXPECT_EQ(test.cause, server.connection.GetStateCause());
        server.Drive();
        if (strcmp(test.status, "000") == 0) {
            EXPECT_EQ(MakeNumber(NGHTTP2_INTERNAL_ERROR), server.client.ReadUntil(NGHTTP2_RST_STREAM, 1).payload);
        } else if (test.cause == 0) {
            EXPECT_EQ(test.size, server.client.ReadUntil(NGHTTP2_DATA, 1).payload.size());
        }
    }
}

TEST(Server, TooManyFieldsAndTooManyAnswers) {
    Server server;
    server.client.Send(MakeHeaders(1, GET, true));
    ASSERT_EQ(1, server.Next());
    for (int i = 0; i < 65; ++i) { server.response.hdr_.emplace_back("x", std::to_string(i)); }
    const std::string log = Capture([&] {
        EXPECT_EQ(1, server.Answer(1, "200"));
        server.Drive();
    });
    EXPECT_EQ(1U, Count(log, "too many http headers(64,x:63)...ignore!")) << log;
    EXPECT_EQ(1U, Count(log, "too many http headers(64,x:64)...ignore!")) << log;
    for (uint32_t i = 0; i < STREAMS; ++i) { EXPECT_EQ(1, server.Answer(1, "200")); }
    EXPECT_EQ(-2, server.Answer(1, "200", 0, true));  // after just over a second
    EXPECT_EQ(VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR, server.connection.GetStateCause());
    EXPECT_EQ(-3, server.Answer(1, "200"));
    EXPECT_EQ(-1, server.connection.Request(&server.request));
}

TEST(Server, AnotherThreadAnswers) {
    constexpr int COUNT = 100;
    VEK_ST_HTTP2_OPTIONS options = SmallOptions();
    options.nMaxConcurrentStream_ = 100;
    Server server(options);
    std::mutex mutex;
    std::vector<int> streams;
    std::atomic<int> answered{0};
    std::thread answerer([&] {
        while (answered < COUNT) {
            std::vector<int> batch;
            {
                const std::lock_guard<std::mutex> guard(mutex);
                batch.swap(streams);
            }
            for (const int stream : batch) {
                EXPECT_EQ(1, server.Answer(stream, "200", 10, true));
                server.connection.GetIncompleteCount();
                ++answered;
            }
        }
    });
    std::thread client([&] {
        for (int i = 0; i < COUNT; ++i) {
            server.client.Send(MakeHeaders(2 * i + 1, GET, true));
            server.client.ReadUntil(NGHTTP2_DATA, 2 * i + 1);
        }
    });
    for (int i = 0; i < COUNT; ++i) {
        ASSERT_EQ(1, server.Next());
        const std::lock_guard<std::mutex> guard(mutex);
        streams.push_back(server.request.streamId_);
    }
    while (server.connection.GetIncompleteCount() > 0 || answered < COUNT) {
        server.connection.Request(&server.request);
    }
    answerer.join();
    client.join();
}

}  // namespace
