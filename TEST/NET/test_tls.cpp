// TLS of today: contexts made from options, peers and sessions of connections, and the causes of failures; our two ends
// with each other.
#include <openssl/err.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include "CVEKSocketNew.h"
#include "CVEKTlsContext.h"
#include "TestSupport.h"
#include "TlsSupport.h"
#include "VEKLogText.h"
#include "VEKTlsConnection.h"
#include "VEKTlsFailure.h"

namespace {

using namespace tls;
using Session = std::unique_ptr<SSL, decltype(&SSL_free)>;
constexpr int NONE = 0;  // no cause: the connection is up
constexpr int ALERT = VEK_TLS_CAUSE_ALERT, ISSUER = VEK_TLS_CAUSE_UNKNOWN_ISSUER, HOST = VEK_TLS_CAUSE_WRONG_HOST;
constexpr int VERSION = VEK_TLS_CAUSE_NO_COMMON_VERSION, CIPHER = VEK_TLS_CAUSE_NO_COMMON_CIPHER;
constexpr int NO_CERT = VEK_TLS_CAUSE_NO_CERTIFICATE, NO_H2 = VEK_TLS_CAUSE_NO_H2, NO_TLS = VEK_TLS_CAUSE_NOT_TLS;
constexpr int CLOSED = VEK_TLS_CAUSE_PEER_CLOSED;

// One end of a connection over a descriptor, which it owns.
struct End {
    End(const CVEKTlsContext& context, int socket, bool isServer, const char* host = "", const char* target = nullptr)
        : fd(socket), ssl(SSL_new(context.GetContext()), SSL_free) {
        signal(SIGPIPE, SIG_IGN);
        SSL_set_fd(ssl.get(), fd);
        isServer ? SSL_set_accept_state(ssl.get()) : SSL_set_connect_state(ssl.get());
        std::string error;
        EXPECT_TRUE(isServer || VEK_TLS_SET_PEER(ssl.get(), host, target, error)) << error;
    }
    ~End() {
        SSL_shutdown(ssl.get());
        close(fd);
    }
    // Goes on with the handshake, writes once it is done, and then reads. Returns whether something came of it.
    bool Step() {
        if (failure) { return false; }
        ERR_clear_error();
        char buffer[64];
        const int result = isUp ? SSL_read(ssl.get(), buffer, sizeof buffer) : SSL_do_handshake(ssl.get());
        const int systemError = errno, error = SSL_get_error(ssl.get(), result);
        if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) { return false; }
        if (isUp && result > 0) { return isDone = true; }
        if (error == SSL_ERROR_NONE) {
            isUp = true;
            info = VEK_TLS_DESCRIBE(ssl.get());
            if (info.protocol_ == "h2") { return SSL_write(ssl.get(), "GET / HTTP/1.0\r\n\r\n", 18) == 18; }
        }
        failure = VEK_TLS_EXPLAIN(ssl.get(), error, systemError);
        EXPECT_EQ(0U, ERR_peek_error());
        return true;
    }
    int Cause() const { return failure ? failure->cause_ : NONE; }
    std::string Text() const { return failure ? failure->text_ : ""; }

    int fd;
    Session ssl;
    bool isUp = false;    // the handshake is over
    bool isDone = false;  // and the peer's bytes have come
    VEK_ST_TLS_INFO info;
    std::optional<VEK_ST_TLS_FAILURE> failure;
};

// Both ends, over a pair of sockets.
struct Connection {
    Connection(const CVEKTlsContext& ours, const CVEKTlsContext& theirs, const char* host, const char* target = nullptr)
        : client(ours, pair.fd[0], false, host, target), server(theirs, pair.fd[1], true) {}
    // Takes turns, more than any handshake has.
    Connection& Run() {
        for (int turn = 0; turn < 10; ++turn) { client.Step(), server.Step(); }
        return *this;
    }
    const struct Pair {
        Pair() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fd)); }
        int fd[2];
    } pair;
    End client, server;
};

TEST(TlsContext, HandshakeEndsAsTheOptionsSay) {
    const std::string several = "id=ec id=wildcard id=exact id=rsa id=chain", ask = "id=ec ca=%/root.pem ask=";
    const struct {
        std::string client, server;
        const char* host;
        int clientCause, serverCause;
        const char* part;  // of the line below, or of the client's text when it fails
    } cases[] = {
        {"", "id=ec", "localhost", NONE, NONE, "TLSv1.3 TLS_AES_256_GCM_SHA384 X25519 CN=ec ok /"},
        {"", "id=ec", "LOCALHOST.", NONE, NONE, "CN=ec ok"},
        {"", "id=chain", "localhost", NONE, NONE, "CN=chained ok"},
        {"", "id=chained", "localhost", ISSUER, ALERT, "refused: unable to get local issuer certificate"},
        {"", "id=self", "localhost", VEK_TLS_CAUSE_SELF_SIGNED, ALERT, ""},
        {"", "id=expired", "localhost", VEK_TLS_CAUSE_CERTIFICATE_EXPIRED, ALERT, "certificate has expired"},
        {"", "id=future", "localhost", VEK_TLS_CAUSE_CERTIFICATE_NOT_YET_VALID, ALERT, "not yet valid"},
        {"", "id=client", "localhost", VEK_TLS_CAUSE_CERTIFICATE_OTHER, ALERT, "unsuitable certificate purpose"},
        {"", "id=ec", "wrong.test", HOST, ALERT, "hostname mismatch (wanted wrong.test)"},
        {"", "id=localhost", "localhost", HOST, ALERT, ""},
        {"", "id=wildcard", "a.example.test", NONE, NONE, "CN=wildcard ok"},
        {"", "id=wildcard", "a.b.example.test", HOST, ALERT, ""},
        {"", "id=wildcard", "example.test", HOST, ALERT, ""},
        {"", "id=odd", "foo.example.test", HOST, ALERT, ""},
        {"", "id=odd", "example.test", HOST, ALERT, ""},
        {"", "id=address", "127.0.0.1", NONE, NONE, "CN=address ok"},
        {"", "id=address", "[::1]", NONE, NONE, "CN=address ok"},
        {"", "id=address", "[::1].", NONE, NONE, "CN=address ok"},
        {"", "id=address", "127.0.0.2", HOST, ALERT, "IP address mismatch (wanted 127.0.0.2)"},
        {"", "id=ec", nullptr, HOST, ALERT, "the peer was given no name"},
        {"name=0", "id=ec", "", NONE, NONE, "CN=ec ok"},
        {"ca= capath=%/hashed", "id=ec", "localhost", NONE, NONE, "CN=ec ok"},
        {"ca=%/stranger.pem", "id=ec", "localhost", ISSUER, ALERT, ""},
        {"max=771", "id=ec", "localhost", NONE, NONE, "TLSv1.2 ECDHE-ECDSA-AES256-GCM-SHA384 X25519"},
        {"max=771", "id=ec min=772", "localhost", VERSION, VERSION, "alert \"protocol version\" received"},
        {"min=772", "id=ec max=771", "localhost", VERSION, VERSION, "no common TLS version: "},
        {"max=771 ciphers=ECDHE+AES128", "id=ec", "localhost", NONE, NONE, "ECDHE-ECDSA-AES128-GCM-SHA256"},
        {"ciphers=ALL!RC4@SECLEVEL=0", "id=ec max=771 ciphers=CHACHA20:AESGCM", "localhost", NONE, NONE,
         "CHACHA20-POLY1305"},
        {"ciphers=aRSA", "id=ec max=771", "localhost", ALERT, CIPHER, "alert \"handshake failure\" received"},
        {"ciphers=DHE", "id=rsa max=771 ciphers=DHE+AESGCM", "localhost", NONE, NONE, " DHE-RSA-AES256-GCM-SHA384"},
        {"suites=TLS_CHACHA20_POLY1305_SHA256", "id=ec", "localhost", NONE, NONE, "TLS_CHACHA20_POLY1305_SHA256"},
        {"", "id=ec groups=P-384", "localhost", NONE, NONE, "secp384r1"},
        {"groups=X25519", "id=ec groups=P-384", "localhost", ALERT, CIPHER, ""},
        {"", several, "www.example.test", NONE, NONE, "CN=exact"},
        {"", several, "a.example.test", NONE, NONE, "CN=wildcard"},
        {"verify=0", several, "wrong.test", NONE, NONE, "CN=ec hostname mismatch"},
        {"max=771 ciphers=ECDHE+aRSA", several, "localhost", NONE, NONE, "CN=rsa"},
        {"id=client", ask + "1", "localhost", NONE, NONE, "/CN=client"},
        {"id=unknown", ask + "1", "localhost", ALERT, ISSUER, "alert \"unknown CA\""},
        {"", ask + "2", "localhost", ALERT, NO_CERT, "alert \"certificate required\""},
        {"max=771", ask + "2", "localhost", ALERT, NO_CERT, ""},
        {"name=0", "id=rsa id=wildcard", "", NONE, NONE, "CN=rsa"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.client + " with " + test.server);
        Connection connection(Client(test.client), Server(test.server), test.host);  // the owners go at once
        auto& [pair, client, server] = connection.Run();
        EXPECT_EQ(test.clientCause, client.Cause()) << client.Text();
        EXPECT_EQ(test.serverCause, server.Cause()) << server.Text();
        EXPECT_EQ(test.clientCause == NONE, client.isDone && server.isDone);
        const auto& info = client.info;
        std::string text = info.version_ + " " + info.cipher_ + " " + info.group_ + " " + info.peerSubject_ + " " +
                           info.peerVerdict_ + " /" + server.info.peerSubject_;
        text = client.failure ? client.Text() : text;
        EXPECT_NE(std::string::npos, text.find(test.part)) << text;
        // Who asks for certificates says whose.
        const auto* authorities = SSL_get0_peer_CA_list(client.ssl.get());
        EXPECT_TRUE(!client.isUp || test.server.find("ask") == std::string::npos || sk_X509_NAME_num(authorities) == 1);
        // An address is not sent as a name.
        const char* sent = SSL_get_servername(server.ssl.get(), TLSEXT_NAMETYPE_host_name);
        EXPECT_TRUE(!server.isUp || (isalpha(*test.host) != 0) == (sent != nullptr));
    }
}

TEST(TlsContext, TakesFromTheEnvironmentWhatIsLeftEmpty) {
    setenv("SSL_CERT_FILE", File("root.pem").c_str(), 1);
    const TempDir folder;
    for (const bool isOption : {true, false}) {
        if (!isOption) { setenv("SSLKEYLOGFILE", folder.Path("keys").c_str(), 1); }
        Connection connection(Make(false, isOption ? "log=" + folder.Path("keys") : ""), Server(), "localhost");
        EXPECT_EQ(NONE, connection.Run().client.Cause()) << connection.client.Text();
        const auto& info = connection.client.info;
        EXPECT_EQ("CN=root", info.peerIssuer_);
        EXPECT_EQ(1U, FindAll(info.peerExpiry_, "^20..-[01][0-9]-[0-3][0-9] [0-2][0-9]:[0-5][0-9]:[0-5][0-9]$").size());
        // From either end when the environment asks for it.
        const std::string lines = "^CLIENT_TRAFFIC_SECRET_0 [0-9a-f]{64} [0-9a-f]{96}$";
        EXPECT_EQ(isOption ? 1U : 3U, FindAll(folder.Read("keys"), lines).size());
    }
    unsetenv("SSLKEYLOGFILE");
    unsetenv("SSL_CERT_FILE");
}

TEST(TlsContext, RefusesWhatItCannotDo) {
    const struct {
        bool isServer;
        const char* words;
        std::string error;
    } cases[] = {
        {false, "min=770", "protocol version 770: HTTP/2 takes TLS 1.2 (771) and TLS 1.3 (772)"},
        {true, "min=772 max=771", "lowest protocol version 772 is above the highest, 771"},
        {false, "ciphers=ECDHE+AESGCM!NOPE", "cipher \"!NOPE\": no cipher match"},
        {false, "ciphers=DEFAULTS", "cipher \"DEFAULTS\": no cipher match"},
        {false, "ciphers=RC4:AES128-SHA", "cipher \"RC4\": no cipher match"},
        {false, "ciphers=DEFAULT:@SECLEVEL=9", "cipher \"@SECLEVEL=9\": invalid command"},
        {false, "ciphers=!RC4", "ciphers \"!RC4\": no cipher match"},
        {false, "ciphers=AES:ADH-AES256-SHA", "cipher \"ADH-AES256-SHA\": without authentication or encryption"},
        {true, "ciphers=eNULL@SECLEVEL=0", "cipher \"eNULL\": without authentication or encryption"},
        {false, "suites=TLS_AES_128_GCM_SHA256:NOPE", "suite \"NOPE\": no cipher match"},
        {true, "groups=P-256:NOPE", "group \"NOPE\": passed invalid argument"},
        {true, "groups=P-256:P-256", "group \"P-256:P-256\": not accepted"},
        {false, "ca=/none", "CA file /none: No such file or directory"},
        {false, "ca=%/text", "CA file " + File("text") + ": no certificate"},
        {false, "ca=%/pipe", "CA file " + File("pipe") + ": not a regular file"},
        {false, "ca=%/tail.pem", "CA file " + File("tail.pem") + ": bad end line"},
        {false, "capath=/none", "CA directory /none: No such file or directory"},
        {false, "capath=%/text", "CA directory " + File("text") + ": Not a directory"},
        {false, "capath=a:b", "CA directory a:b: \":\" stands between directories"},
        {true, "id=ec ca=%/root.pem", "CA file " + File("root.pem") + ": no client certificate is asked for"},
        {true, "id=ec ask=1 ca=/none", "CA file /none: No such file or directory"},
        {true, "id=ec ask=3", "client certificate mode 3: "},
        {false, "id=ec id=rsa", "certificate file " + File("rsa.pem") + ": a client shows one certificate only"},
        {false, "id=none/ec", "certificate file " + File("none.pem") + ": No such file or directory"},
        {true, "id=tail/ec", "certificate file " + File("tail.pem") + ": bad end line"},
        {true, "id=ec id=huge", "certificate file " + File("huge.pem") + ": File too large"},
        {true, "id=ec/cut", "key file " + File("cut.pem") + ": unsupported"},
        {true, "id=ec/folder", "key file " + File("folder.pem") + ": Is a directory"},
        {true, "id=ec/none", "key file " + File("none.pem") + ": No such file or directory"},
        {true, "id=ec/locked", "key file " + File("locked.pem") + ": "},
        {true, "id=ec/self", File("self.pem") + " for certificate file " + File("ec.pem") + ": key values"},
        {true, "id=ec/rsa", ": different key types"},
        {false, "log=%/pipe", "key log file " + File("pipe") + ": No such device or address"},
        {false, "log=/none/keys", "key log file /none/keys: No such file or directory"},
    };
    std::string error;
    mkfifo(File("pipe").c_str(), 0600);
    mkdir(File("folder.pem").c_str(), 0700);
    EXPECT_EQ(0, truncate(Folder().Write("huge.pem", "").c_str(), 1L << 30));
    for (const auto& test : cases) {
        EXPECT_EQ(nullptr, Make(test.isServer, test.words, &error).GetContext());
        EXPECT_NE(std::string::npos, error.find(test.error)) << error << "\n" << test.error;
        EXPECT_EQ(std::string::npos, error.find('\n')) << error;
    }
    CVEKTlsContext context = Client();
    EXPECT_FALSE(context.CreateServer(Options(), error));  // and it keeps what it has
    EXPECT_EQ("a server needs a certificate and its key", error);
    for (const std::string& name : Words{".test", "a b", "\xc3\xbc", "*.test", "a..b", "a:443", "::1%none", "[a]",
                                         "a\nb", std::string(300, 'a')}) {
        const Session ssl(SSL_new(context.GetContext()), SSL_free);
        EXPECT_FALSE(VEK_TLS_SET_PEER(ssl.get(), name.c_str(), "target", error));
        EXPECT_EQ(0U, error.find("peer name \"" + VEK_ESCAPE_TEXT(name) + "\": ")) << error;
    }
    // The library ends a text at its NUL: it would use another file, or pass over what follows.
    for (std::string Options::*text : {&Options::caFile_, &Options::caPath_, &Options::ciphers_, &Options::suites_,
                                       &Options::groups_, &Options::keyLogFile_}) {
        Options options;
        options.*text = std::string("a\0\n", 3);
        EXPECT_FALSE(CVEKTlsContext().CreateClient(options, error));
        EXPECT_NE(std::string::npos, error.find("a\\x00\\x0a")) << error;
    }
}

TEST(TlsContext, ResumesPerTargetAndName) {
    for (const std::string version : {"max=771 keep=", "max=772 keep="}) {
        for (const auto& [ours, theirs] : {std::pair("1", "1"), std::pair("0", "1"), std::pair("1", "0")}) {
            SCOPED_TRACE(version + ours + theirs);
            const CVEKTlsContext client = Client(version + ours);
            const CVEKTlsContext server = Server(std::string("id=ec ca=%/root.pem ask=1 resume=") + theirs);
            const bool isBoth = *ours == '1' && *theirs == '1';
            const auto isResumed = [&, isOffered = *theirs == '1'](const char* host, const char* target) {
                Connection connection(client, server, host, target);
                EXPECT_EQ(NONE, connection.Run().client.Cause()) << connection.client.Text();
                EXPECT_EQ("CN=ec ok", connection.client.info.peerSubject_ + " " + connection.client.info.peerVerdict_);
                // The server hands out what can be resumed only when it will.
                EXPECT_EQ(isOffered, SSL_SESSION_is_resumable(SSL_get0_session(connection.client.ssl.get())) == 1);
                return connection.client.info.isResumed_;
            };
            EXPECT_FALSE(isResumed("localhost", "a:1"));
            EXPECT_EQ(isBoth, isResumed("localhost", "a:1"));
            EXPECT_EQ(isBoth, isResumed("localhost", "a:1"));
            EXPECT_FALSE(isResumed("localhost", "a:2"));
            EXPECT_FALSE(isResumed("localhost", nullptr));
            // Who resumes is not verified again: another name must not profit.
            EXPECT_EQ(HOST, Connection(client, server, "wrong.test", "a:1").Run().client.Cause());
            EXPECT_EQ(isBoth, isResumed("localhost", "a:1"));
            for (const bool isBehind : {false, true}) {  // what is no record, or an end amid the handshake
                Connection broken(client, server, "localhost", "a:1");
                isBehind ? broken.Run().client.Step() : broken.client.Step();
                EXPECT_EQ(isBehind && isBoth, broken.client.info.isResumed_);
                EXPECT_TRUE(!isBehind || send(broken.server.fd, std::string(40, '\x17').c_str(), 40, 0) == 40);
                shutdown(broken.server.fd, SHUT_RDWR);
                EXPECT_EQ(isBehind ? VEK_TLS_CAUSE_NOT_TLS : CLOSED, broken.Run().client.Cause());
                EXPECT_FALSE(isResumed("localhost", "a:1"));
            }
            // Nor is anything another context's, which may verify less.
            EXPECT_FALSE(Connection(Client(version + ours + " verify=0"), server, "localhost", "a:1")
                             .Run()
                             .client.info.isResumed_);
            EXPECT_TRUE(*theirs == '1' || SSL_CTX_sess_number(server.GetContext()) == 0);
        }
    }
}

TEST(TlsContext, ForgetsTheOldestSessionFirst) {
    const CVEKTlsContext client = Client(), server = Server("id=ec resume=1");
    Connection first(client, server, "localhost", "a:0");
    EXPECT_EQ(NONE, first.Run().client.Cause());
    const auto isKept = [&](int number, bool isNew) {
        const Session ssl(SSL_new(client.GetContext()), SSL_free);
        std::string error;
        EXPECT_TRUE(VEK_TLS_SET_PEER(ssl.get(), "localhost", ("a:" + std::to_string(number)).c_str(), error));
        // As the library does when the peer has sent one.
        if (isNew) { SSL_CTX_sess_get_new_cb(client.GetContext())(ssl.get(), SSL_get_session(first.client.ssl.get())); }
        return SSL_get_session(ssl.get()) != nullptr;
    };
    for (int number = 1; number < 1024; ++number) { EXPECT_FALSE(isKept(number, true)); }
    EXPECT_TRUE(isKept(0, true));      // and is the latest by this
    EXPECT_FALSE(isKept(1024, true));  // one too many
    for (const int number : {0, 2, 1023, 1024}) { EXPECT_TRUE(isKept(number, false)) << number; }
    EXPECT_FALSE(isKept(1, false));
}

TEST(TlsContext, ServesThreadsAtOnce) {
    const std::string log = " log=%/shared";
    const CVEKTlsContext client = Client("id=client" + log);
    const CVEKTlsContext server = Server("id=ec id=wildcard id=exact id=rsa ca=%/root.pem ask=1 resume=1" + log);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&] {
            for (const char* target : {"a", "b", "a", "a", "b", "a"}) {
                Connection connection(client, server, *target == 'a' ? "localhost" : "www.example.test", target);
                EXPECT_EQ(NONE, connection.Run().client.Cause()) << connection.client.Text();
                EXPECT_EQ("CN=client", connection.server.info.peerSubject_);
            }
        });
    }
    for (std::thread& thread : threads) { thread.join(); }
    const std::string lines = Folder().Read("shared");  // none torn
    EXPECT_EQ(Count(lines, "\n"), FindAll(lines, "^[A-Z_0-9]+ [0-9a-f]{64} [0-9a-f]{96}$").size());
}

TEST(TlsContext, RefusesRenegotiationAndOtherProtocols) {
    for (const auto asker : {&Connection::client, &Connection::server}) {
        Connection connection(Client("max=771"), Server(), "localhost");
        EXPECT_EQ(NONE, connection.Run().client.Cause());
        SSL_clear_options((connection.*asker).ssl.get(), SSL_OP_NO_RENEGOTIATION);
        EXPECT_EQ(1, SSL_renegotiate((connection.*asker).ssl.get()));
        EXPECT_EQ("TLS failed: no renegotiation", (connection.Run().*asker).Text());
    }
    const struct {
        const char *offer, *client, *server;
    } cases[] = {
        {"\x08http/1.1", "alert \"no application protocol\" received", "no application protocol"},
        {"", "no protocol was chosen", "no protocol was chosen"},
    };
    for (const auto& [offer, ours, theirs] : cases) {
        Connection other(Client(), Server(), "localhost");
        const unsigned length = static_cast<unsigned>(strlen(offer));
        SSL_set_alpn_protos(other.client.ssl.get(), reinterpret_cast<const unsigned char*>(offer), length);
        EXPECT_EQ(NO_H2, other.Run().server.Cause());
        EXPECT_EQ(NO_H2, other.client.Cause());
        EXPECT_EQ(std::string("h2 not agreed: ") + ours, other.client.Text());
        EXPECT_EQ(std::string("h2 not agreed: ") + theirs, other.server.Text());
    }
}

TEST(TlsFailure, NamesWhatIsNoTlsPeer) {
    const auto alert = [](char level, char number) { return std::string("\x15\x03\x03\x00\x02", 5) + level + number; };
    const struct {
        std::string bytes;
        const char* text;
        int end, cause, alert;  // of the peer: 0 stays, 1 ends its sending, 2 closes with our bytes unread
        bool isServer;          // our end
    } cases[] = {
        {"HTTP/1.1 400 Bad Request\r\n\r\n", "peer does not speak TLS: wrong version number", 0, NO_TLS, -1, false},
        {std::string("\0\0\6\4\0\0\0\0\0\0\3\0\0\0\x64", 15), "wrong version number", 0, NO_TLS, -1, false},
        {"GET / HTTP/1.1\r\nHost: a\r\n\r\n", "http request", 0, NO_TLS, -1, true},
        {"", "peer closed the connection: unexpected eof while reading", 1, CLOSED, -1, true},
        {"", "system call failed: Connection reset by peer", 2, VEK_TLS_CAUSE_SYSTEM, -1, false},
        {alert(2, 120), "alert \"no application protocol\" received", 0, NO_H2, 120, false},
        {alert(2, 99), "peer refused: alert \"alert 99\" received", 0, ALERT, 99, false},
        {alert(1, 0), "alert \"close notify\" received", 0, CLOSED, -1, false},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.text);
        Connection connection(Client(), Server(), nullptr);
        End& end = test.isServer ? connection.server : connection.client;
        End& peer = test.isServer ? connection.client : connection.server;
        EXPECT_FALSE(end.Step());
        EXPECT_EQ(VEK_TLS_CAUSE_UNFINISHED, VEK_TLS_EXPLAIN(end.ssl.get(), SSL_ERROR_WANT_READ, 0).cause_);
        EXPECT_EQ(static_cast<ssize_t>(test.bytes.size()), send(peer.fd, test.bytes.data(), test.bytes.size(), 0));
        if (test.end == 1) { shutdown(peer.fd, SHUT_WR); }
        if (test.end == 2) { close(std::exchange(peer.fd, -1)); }
        EXPECT_TRUE(end.Step());
        EXPECT_EQ(test.cause, end.Cause());
        EXPECT_EQ(test.alert, end.failure->alert_);
        EXPECT_EQ(test.cause == VEK_TLS_CAUSE_SYSTEM ? ECONNRESET : 0, end.failure->systemError_);
        EXPECT_NE(std::string::npos, end.Text().find(test.text)) << end.Text();
    }
}

}  // namespace
