// Set-up in steps: connecting, handshakes, the first bytes and both sides of the upgrade, with peers
// that are slow, silent or wrong.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <tuple>

#include "CVEKHttp2Setup.h"
#include "RawPeer.h"
#include "TestSupport.h"
#include "TlsSupport.h"
#include "VEKHttp2Field.h"

namespace {

using Milliseconds = std::chrono::milliseconds;
VEK_ST_HTTP2_SETUP_LIMITS Limits(int milliseconds) {
    const Milliseconds limit(milliseconds);
    return {limit, limit, limit, limit};
}

// A listener on 127.0.0.1 and its address.
struct Listener {
    explicit Listener(int backlog = 16) {
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        bind(socket.GetFD(), reinterpret_cast<sockaddr*>(&address), length);
        getsockname(socket.GetFD(), reinterpret_cast<sockaddr*>(&address), &length);
        listen(socket.GetFD(), backlog);
    }
    addrinfo Entry(addrinfo* next) {
        return {0,       AF_INET, SOCK_STREAM, IPPROTO_TCP, sizeof address, reinterpret_cast<sockaddr*>(&address),
                nullptr, next};
    }
    RawSocket socket{::socket(AF_INET, SOCK_STREAM, 0)};
    sockaddr_in address{};
};

// One end set up in steps; the other is a bare descriptor, or set up too.
struct End {
    CVEKSocketNew transport;
    CVEKHttp2Setup setup{transport, "end"};
};

struct Ends {
    explicit Ends(int milliseconds = 10000) {
        Listener listener;
        connect(peer.GetFD(), reinterpret_cast<sockaddr*>(&listener.address), sizeof listener.address);
        fd = accept(listener.socket.GetFD(), nullptr, nullptr);
        CVEKSocketNew::SET_NODELAY(peer.GetFD());
        end.setup.SetLimits(Limits(milliseconds));
    }
    End end;
    CVEKHttp2Setup& setup = end.setup;
    RawSocket peer{socket(AF_INET, SOCK_STREAM, 0)};
    int fd = -1;
};

// Sends the text, all at once or byte by byte with a step after each; returns the last step's result.
int Feed(Ends& ends, const std::string& text, bool isSplit, int (CVEKHttp2Setup::*advance)()) {
    const size_t piece = isSplit ? 1 : text.size();
    int result = (ends.setup.*advance)();
    for (size_t at = 0; at < text.size() && result == VEK_HTTP2_STEP_WAIT; at += piece) {
        ends.peer.Send(text.substr(at, piece));
        pollfd entry{ends.fd, POLLIN, 0};
        poll(&entry, 1, 1);
        result = (ends.setup.*advance)();
    }
    return result;
}

std::string ReadRest(int fd) {
    char text[256];
    const ssize_t size = recv(fd, text, sizeof text, MSG_DONTWAIT);
    return std::string(text, size > 0 ? static_cast<size_t>(size) : 0);
}

TEST(Setup, ClientUpgrade) {
    const struct {
        std::string text;
        bool isClosed;       // behind it
        const char* reason;  // of its failure, "" for none
        const char* line;
    } cases[] = {
        {HTTP2_UPGRADE_RESPONSE + std::string("\1\2"), false, "", ""},
        {"h2c anywhere, 101 too\r\n", true, "", ""},
        {"h2c anywhere, 101 too\r\n", false, "", ""},  // until the time is over
        {"HTTP/1.1 200 OK\r\nUpgrade: h2c\r\n\r\n", false, "upgrade refused", "Upgrade response failed!..."},
        {"HTTP/1.1 101\r\nUpgrade: websocket\r\n\r\n", false, "upgrade refused", "response failed!..."},
        {std::string(5000, 'x'), false, "upgrade answer cannot be read", "Receive HTTP/2 Upgrade failed!..."},
        {"", true, "upgrade answer cannot be read", "Receive HTTP/2 Upgrade failed!..."},
        {"", false, "upgrade timeout", "Receive HTTP/2 Upgrade... timeout..."},
    };
    for (const auto& test : cases) {
        for (const bool isSplit : {false, true}) {
            SCOPED_TRACE(test.text.substr(0, 40));
            const bool isLate = test.text.size() < 30 && !test.isClosed;
            Ends ends(isLate ? 100 : 10000);
            VEK_ST_HTTP2_OPTIONS options;
            VEK_HTTP2_SET_DEFAULTS(options);
            const std::string log = Capture([&] {
                ASSERT_TRUE(ends.setup.StartConnected(ends.fd, nullptr));
                ASSERT_EQ(VEK_HTTP2_STEP_DONE, ends.setup.AdvanceTransport());
                ASSERT_TRUE(ends.setup.StartClientUpgrade("h", options));
                Feed(ends, test.text, isSplit, &CVEKHttp2Setup::AdvanceUpgrade);
                if (test.isClosed) { shutdown(ends.peer.GetFD(), SHUT_WR); }
                EXPECT_EQ(*test.reason == '\0', ends.setup.RunUpgrade());
            });
            EXPECT_STREQ(test.reason, ends.setup.GetFailure().text_);
            EXPECT_EQ(Count(test.reason, "timeout") == 1, ends.setup.GetFailure().stage_ == VEK_HTTP2_SETUP_STAGE_TIME);
            EXPECT_LE(1U, Count(log, test.line)) << log;
            EXPECT_EQ(
                "GET / HTTP/1.1\r\nHost: h\r\nConnection: Upgrade, HTTP2-Settings\r\nUpgrade: h2c\r\n"
                "HTTP2-Settings: AAMAAABkAAQAAQAAAAUAAEAAAAEAAABAAAIAAAAA\r\n\r\n",
                ReadRest(ends.peer.GetFD()));
            EXPECT_EQ(30U, ends.setup.GetClientUpgrade()->GetPayloadSize());
        }
    }
}

TEST(Setup, FirstBytesTellThePreface) {
    const std::string preface = NGHTTP2_CLIENT_MAGIC;
    for (size_t length = 0; length <= preface.size(); ++length) {
        SCOPED_TRACE(length);
        Ends ends;
        ASSERT_TRUE(ends.setup.StartDetect(ends.fd));
        const bool isWhole = length == preface.size();
        const int result = Feed(ends, preface.substr(0, length), true, &CVEKHttp2Setup::AdvanceTransport);
        EXPECT_TRUE(isWhole ? ends.setup.RunTransport() : result == VEK_HTTP2_STEP_WAIT);
        pollfd entry{ends.fd, POLLIN, 0};
        EXPECT_EQ(isWhole ? 1 : 0, poll(&entry, 1, 0));  // what has been seen is no event
        if (!isWhole) {
            ends.peer.Send("x");
            ASSERT_TRUE(ends.setup.RunTransport());
        }
        EXPECT_EQ(!isWhole, ends.setup.IsUpgradeExpected());
        EXPECT_EQ(1, poll(&entry, 1, 0));
        EXPECT_EQ(preface.substr(0, length) + (isWhole ? "" : "x"), ReadRest(ends.fd));
    }
}

TEST(Setup, ConnectsToTheNextAddress) {
    Listener live;
    Listener full(0);  // and does not accept
    Listener dead;
    const int first = socket(AF_INET, SOCK_STREAM, 0);
    connect(first, reinterpret_cast<sockaddr*>(&full.address), sizeof full.address);
    dead.socket.Close();
    addrinfo last = live.Entry(nullptr), refusing = dead.Entry(&last), silent = full.Entry(&refusing);
    int fd = -1;
    {  // given up in its midst
        End end;
        EXPECT_TRUE(end.setup.StartConnect(&silent, nullptr));
        EXPECT_EQ(VEK_HTTP2_STEP_WAIT, end.setup.AdvanceTransport());
        EXPECT_EQ(POLLOUT, end.setup.GetEvents());
        fd = end.transport.GetSocket();
    }
    EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    End end;
    end.setup.SetLimits(Limits(1000));
    const std::string log = Capture([&] {
        ASSERT_TRUE(end.setup.StartConnect(&silent, nullptr));
        refusing.ai_addr = silent.ai_addr = last.ai_addr = nullptr;  // they were copied
        EXPECT_TRUE(end.setup.RunTransport()) << end.setup.GetFailure().text_;
    });
    EXPECT_EQ(1U, Count(log, "[110-Connection timed out]connect() failed!..")) << log;
    EXPECT_EQ(1U, Count(log, "[111-Connection refused]connect() failed!..")) << log;
    const int accepted = accept(live.socket.GetFD(), nullptr, nullptr);
    EXPECT_EQ(2, end.transport.Send("ok", 2));
    pollfd entry{accepted, POLLIN, 0};
    EXPECT_EQ(1, poll(&entry, 1, 5000));
    EXPECT_EQ("ok", ReadRest(accepted));
    EXPECT_NE(0, fcntl(end.transport.GetSocket(), F_GETFD) & FD_CLOEXEC);
    for (const int fd : {first, accepted}) { close(fd); }

    addrinfo deadAlone = dead.Entry(nullptr), strange = deadAlone, tooLong = deadAlone;
    strange.ai_family = 77;
    tooLong.ai_addrlen = sizeof(sockaddr_storage) + 1;
    const std::tuple<addrinfo*, VEK_HTTP2_SETUP_STAGE, int> failures[] = {
        {&deadAlone, VEK_HTTP2_SETUP_STAGE_CONNECT, ECONNREFUSED},
        {&strange, VEK_HTTP2_SETUP_STAGE_CONNECT, EAFNOSUPPORT},
        {&tooLong, VEK_HTTP2_SETUP_STAGE_RESOLVE, 0},
        {nullptr, VEK_HTTP2_SETUP_STAGE_RESOLVE, 0}};
    for (const auto& [list, stage, error] : failures) {
        End failing;
        const std::string failed = Capture([&, list = list] {
            EXPECT_FALSE(failing.setup.StartConnect(list, nullptr) && failing.setup.RunTransport());
        });
        EXPECT_EQ(1U, FindAll(failed, "\\](connect|socket)\\(\\) failed!..$|no address to connect to...$").size())
            << failed;
        EXPECT_EQ(stage, failing.setup.GetFailure().stage_);
        EXPECT_EQ(error, failing.setup.GetFailure().errno_);
        EXPECT_EQ(-1, failing.transport.GetSocket());
    }
}

// Each stage that waits, against a silent peer, one that talks nonsense and one that closes; and given
// up in its midst.
TEST(Setup, WaitingEnds) {
    const tls::FixedContext serverCtx = tls::FixedServer(), clientCtx = tls::FixedClient();
    const struct {
        std::function<void(Ends&)> start;
        bool isUpgrade;
        const char* lateLine;
        VEK_HTTP2_SETUP_STAGE stage;  // with nonsense or at the peer's end
        const char* line;
    } cases[] = {
        {[&](Ends& ends) { ends.setup.StartAccepted(ends.fd, serverCtx.get()); }, false,
         "SSL_accept() failed!..handshake timeout", VEK_HTTP2_SETUP_STAGE_TLS, "SSL_accept() failed!.."},
        {[&](Ends& ends) { ends.setup.StartConnected(ends.fd, clientCtx.get()); }, false,
         "SSL_connect() failed!..handshake timeout", VEK_HTTP2_SETUP_STAGE_TLS, "SSL_connect() failed!.."},
        {[&](Ends& ends) { ends.setup.StartDetect(ends.fd); }, false, "conn(end) first bytes timeout!..",
         VEK_HTTP2_SETUP_STAGE_UPGRADE, "conn(end) closed before its first bytes!.."},
        {[&](Ends& ends) {
             ends.setup.StartAccepted(ends.fd, nullptr);
             ends.setup.StartServerUpgrade();
         },
         true, "conn(end) Receive HTTP/2 upgrade request. timeout!..", VEK_HTTP2_SETUP_STAGE_UPGRADE,
         "HTTP/1.1 receive failed!.."},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.lateLine);
        const auto advance = test.isUpgrade ? &CVEKHttp2Setup::AdvanceUpgrade : &CVEKHttp2Setup::AdvanceTransport;
        const auto run = [&](Ends& ends) {
            return test.isUpgrade ? ends.setup.RunUpgrade() : ends.setup.RunTransport();
        };
        for (const char* bytes : {"", "P"}) {
            Ends late(20);
            const std::string log = Capture([&] {
                test.start(late);
                late.peer.Send(bytes);
                EXPECT_FALSE(run(late));
            });
            EXPECT_EQ(1U, Count(log, test.lateLine)) << log;
            EXPECT_EQ(VEK_HTTP2_SETUP_STAGE_TIME, late.setup.GetFailure().stage_);
            const bool isTls = test.stage == VEK_HTTP2_SETUP_STAGE_TLS;
            EXPECT_EQ(isTls ? VEK_TLS_CAUSE_UNFINISHED : 0, late.setup.GetFailure().tlsCause_);

            Ends closed;
            const std::string closedLog = Capture([&] {
                test.start(closed);
                closed.peer.Send(bytes);
                closed.peer.Close();
                EXPECT_FALSE(run(closed));
            });
            EXPECT_EQ(1U, Count(closedLog, test.line)) << closedLog;
            EXPECT_EQ(test.stage, closed.setup.GetFailure().stage_);
        }
        std::optional<Ends> cancelled(10000);
        test.start(*cancelled);
        EXPECT_EQ(VEK_HTTP2_STEP_WAIT, (cancelled->setup.*advance)());
        EXPECT_LT(VEK_HTTP2_STEP_CLOCK::now(), cancelled->setup.GetDeadline());
        const int fd = cancelled->fd;
        cancelled.reset();
        EXPECT_EQ(-1, fcntl(fd, F_GETFD));
    }
}

}  // namespace
