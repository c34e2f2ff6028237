// The socket class: bare descriptors, plain and TLS traffic, and peers that go away.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fcntl.h>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

#include "CVEKSocketNew.h"
#include "TestSupport.h"
#include "VEKCommonOpenSSL.h"

namespace {

int PortOf(int fd) {
    sockaddr_in6 address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin6_port);  // the port stands at the same place for IPv4
}

int FamilyOf(int fd) {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return address.ss_family;
}

class Environment {
  public:
    Environment(const char* name, const char* value) : name_(name) {
        value == nullptr ? unsetenv(name) : setenv(name, value, 1);
    }
    ~Environment() { unsetenv(name_); }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

  private:
    const char* name_;
};

// Two connected descriptors over loopback.
struct Pair {
    explicit Pair(int family = AF_INET, const char* host = "127.0.0.1") {
        const int listener = CVEKSocketNew::LISTEN(family, 0, "10.0.0.1");
        client = CVEKSocketNew::CONNECT(host, PortOf(listener), 10);
        server = CVEKSocketNew::ACCEPT(listener, 5000000, ip, name);
        close(listener);
    }
    int client = -1;
    int server = -1;
    char ip[VEK_SOCKET_IP_TEXT_SIZE] = "";
    char name[VEK_SOCKET_HOST_TEXT_SIZE] = "";
};

TEST(Socket, TalksOverBothFamilies) {
    for (const auto& [family, host] : {std::pair(AF_INET, "127.0.0.1"), std::pair(AF_INET6, "::1")}) {
        SCOPED_TRACE(host);
        const Pair pair(family, host);
        EXPECT_STREQ(host, pair.ip);
        EXPECT_STRNE("", pair.name);
        CVEKSocketNew client;
        CVEKSocketNew server;
        ASSERT_TRUE(client.SetFD(pair.client, nullptr, 0));
        ASSERT_TRUE(server.SetFD(pair.server, nullptr, 0));
        char text[16] = {};
        EXPECT_EQ(5, client.Send("hello", 5));
        EXPECT_GT(server.Select(5, 0), 0);
        EXPECT_EQ(5, server.Recv(text, sizeof text));
        EXPECT_STREQ("hello", text);
        EXPECT_TRUE(CVEKSocketNew::SET_NONBLOCK(pair.server));
        EXPECT_EQ(VEK_SOCKET_AGAIN, server.Recv(text, sizeof text));
        server.SetIOMethod(VEK_SOCKET_IO_LOOP);
        EXPECT_EQ(0, server.Recv(text, sizeof text));
        client.Clear();
        client.Clear();
        EXPECT_EQ(-1, client.GetSocket());
        EXPECT_EQ(0, server.Recv(text, sizeof text));
    }
}

TEST(Socket, FailsInWords) {
    const std::string log = Capture([] {
        const int free = FreePort();
        EXPECT_EQ(-1, CVEKSocketNew::CONNECT("127.0.0.1", free, 0));
        EXPECT_EQ(-1, CVEKSocketNew::CONNECT("127.0.0.1", 70000, 10));
        EXPECT_EQ(-1, CVEKSocketNew::CONNECT("127.0.0.1", free, 10));
        EXPECT_EQ(-1, CVEKSocketNew::LISTEN2(-1, AF_INET));
        EXPECT_FALSE(CVEKSocketNew::SET_NONBLOCK(-1));
        EXPECT_EQ(-1, CVEKSocketNew::SELECT(-1, 0, 0));
        const int listener = CVEKSocketNew::LISTEN2(0, 77);
        EXPECT_EQ(0, CVEKSocketNew::ACCEPT(listener, 1000, nullptr, nullptr));
        close(listener);
        const int busy = CVEKSocketNew::LISTEN(AF_INET, 0, nullptr);
        EXPECT_EQ(-1, CVEKSocketNew::LISTEN(AF_INET, PortOf(busy), nullptr));
        close(busy);
        CVEKSocketNew socket;
        socket.SetName(std::string(200, 'n').c_str());
        EXPECT_EQ(std::string(63, 'n'), socket.GetName());
        const sockaddr_in6 nobody{};
        EXPECT_EQ(0, CVEKSocketNew::GET_V6_IFINDEX(&nobody));
    });
    for (const char* line :
         {"getaddrinfo() failed!..(127.0.0.1,70000) ret=", "Connection refused]connect() failed!..",
          "getaddrinfo() failed!..(-1) ret=", "[9-Bad file descriptor]fcntl() failed!..",
          "[9-Bad file descriptor]select() failed!..", "Address already in use]bind() failed!..",
          "Invalid IP Address family(77)..only AF_INET or AF_INET6 allowed..", "not found if-index..."}) {
        EXPECT_EQ(1U, Count(log, line)) << line << "\n" << log;
    }
}

TEST(Socket, EnvironmentChoosesTheFamily) {
    for (const auto& [value, family] :
         {std::pair("IPV6", AF_INET6), std::pair("ipv6", AF_INET), std::pair("", AF_INET)}) {
        const Environment net("VEK_SOCKET_DEFAULT_IP_NET", value);
        const int fd = CVEKSocketNew::LISTEN2(0, -1);
        EXPECT_EQ(family, FamilyOf(fd)) << value;
        close(fd);
    }
    for (const auto& [value, isOnly] : {std::pair("TRUE", true), std::pair("On", true), std::pair("1", false)}) {
        const Environment only("VEK_SOCKET_IPV6_ONLY", value);
        const int fd = CVEKSocketNew::LISTEN(AF_INET6, 0, nullptr);
        int option = -1;
        socklen_t length = sizeof option;
        getsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &option, &length);
        EXPECT_EQ(isOnly, option == 1) << value;
        close(fd);
    }
    const sockaddr_in6 loopback{AF_INET6, 0, 0, IN6ADDR_LOOPBACK_INIT, 0};
    EXPECT_GT(CVEKSocketNew::GET_V6_IFINDEX(&loopback), 0);
}

TEST(Socket, FullBuffer) {
    const Pair pair;
    CVEKSocketNew client;
    ASSERT_TRUE(client.SetFD(pair.client, nullptr, 0));
    CVEKSocketNew::SET_NONBLOCK(pair.client);
    const std::string bytes(32 << 20, 'x');
    client.SetIOMethod(VEK_SOCKET_IO_LOOP);
    const int sent = client.Send(bytes.data(), bytes.size());
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<int>(bytes.size()));
    EXPECT_EQ(0, client.Send(bytes.data(), bytes.size()));
    client.SetIOMethod(VEK_SOCKET_IO_SINGLE);
    EXPECT_EQ(VEK_SOCKET_AGAIN, client.Send(bytes.data(), bytes.size()));
    close(pair.server);
}

TEST(Socket, DelimitedRead) {
    const struct {
        const char* input;
        int max;
        int result;
    } cases[] = {
        {"ab\r\n\r\nrest", 10, 6},
        {"\r\n\r\nab\r\n\r\n", 10, 10},  // the delimiter alone does not end it
        {"0123456789\r\n\r\n", 10, VEK_SOCKET_OVERFLOW},
        {"abc", 10, 3},
        {"", 10, 0},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.input);
        const Pair pair;
        CVEKSocketNew server;
        ASSERT_TRUE(server.SetFD(pair.server, nullptr, 0));
        EXPECT_EQ(static_cast<ssize_t>(strlen(test.input)), send(pair.client, test.input, strlen(test.input), 0));
        shutdown(pair.client, SHUT_WR);
        const std::unique_ptr<char[]> text(new char[static_cast<size_t>(test.max) + 1]);
        EXPECT_EQ(test.result, server.Recv(text.get(), "\r\n\r\n", test.max));
        // What is behind the delimiter stays, to be looked at and then read.
        const std::string input = test.input;
        const std::string rest =
            input.substr(test.result < 0 ? static_cast<size_t>(test.max) + 1 : static_cast<size_t>(test.result));
        for (const bool isPeek : {true, true, false}) {
            char left[16] = {};
            EXPECT_EQ(static_cast<int>(rest.size()),
                      isPeek ? server.Peek(left, sizeof left) : server.Recv(left, sizeof left));
            EXPECT_EQ(rest, left);
        }
        close(pair.client);
    }
}

TEST(Socket, DescriptorsAboveSelectsReach) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
    const Pair pair;
    const int high = fcntl(pair.server, F_DUPFD, 2000);
    ASSERT_GE(high, 2000);
    EXPECT_EQ(0, CVEKSocketNew::SELECT(high, 0, 1000));
    for (const int fd : {high, pair.client, pair.server}) { close(fd); }
}

TEST(Socket, Sctp) {
    const int probe = socket(AF_INET, SOCK_STREAM, IPPROTO_SCTP);
    if (probe < 0) {
        EXPECT_EQ(-1, CVEKSocketNew::LISTEN(AF_INET, IPPROTO_SCTP, 0, nullptr));
        EXPECT_EQ(-1, CVEKSocketNew::CONNECT(IPPROTO_SCTP, "127.0.0.1", 9, 1));
        GTEST_SKIP() << "this kernel has no SCTP";
    }
    close(probe);
    const int listener = CVEKSocketNew::LISTEN(AF_INET, IPPROTO_SCTP, 0, nullptr);
    const int client = CVEKSocketNew::CONNECT(IPPROTO_SCTP, "127.0.0.1", PortOf(listener), 1);
    char ip[VEK_SOCKET_IP_TEXT_SIZE];
    CVEKSocketNew server;
    ASSERT_TRUE(server.SetFD(CVEKSocketNew::ACCEPT(listener, 5000000, ip, nullptr), nullptr, 0));
    EXPECT_EQ(4, send(client, "sctp", 4, 0));
    char text[8];
    EXPECT_EQ(4, server.Recv(text, sizeof text));
    close(client);
    close(listener);
}

// Both ends of a TLS session, the server's on a thread of its own.
struct TlsPair {
    TlsPair(SSL_CTX* serverCtx, SSL_CTX* clientCtx) {
        std::thread accept([&] { isServerUp = server.SetFD(pair.server, serverCtx, 1); });
        isClientUp = client.SetFD(pair.client, clientCtx, VEK_SOCKET_MODE_CONNECT);
        if (!isClientUp) { client.Clear(); }
        accept.join();
    }
    Pair pair;
    CVEKSocketNew client;
    CVEKSocketNew server;
    bool isClientUp = false;
    bool isServerUp = false;
};

using Context = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;

Context ServerContext() {
    return {VEK_SSL_CREATE_SERVER_CTX(GetIdentity().key.c_str(), GetIdentity().certificate.c_str(), nullptr),
            SSL_CTX_free};
}

Context ClientContext() { return {VEK_SSL_CREATE_CLIENT_CTX(nullptr, nullptr, nullptr), SSL_CTX_free}; }

TEST(Tls, TalksWithTheFixedPolicy) {
    VEK_SSL_INIT();
    const Context serverCtx = ServerContext();
    const Context clientCtx = ClientContext();
    TlsPair tls(serverCtx.get(), clientCtx.get());
    ASSERT_TRUE(tls.isClientUp && tls.isServerUp);
    CVEKSocketNew::SET_NONBLOCK(tls.pair.server);
    CVEKSocketNew::SET_NONBLOCK(tls.pair.client);
    char text[64];
    EXPECT_EQ(VEK_SOCKET_AGAIN, tls.server.Recv(text, sizeof text));
    EXPECT_EQ(10, tls.client.Send("0123456789", 10));
    EXPECT_GT(tls.server.Select(5, 0), 0);
    EXPECT_EQ(4, tls.server.Recv(text, 4));
    EXPECT_TRUE(tls.server.IsRecvBuffered());
    EXPECT_EQ(6, tls.server.Recv(text, sizeof text));
    EXPECT_FALSE(tls.server.IsRecvBuffered());
    EXPECT_EQ(VEK_SOCKET_BROKEN, tls.server.Recv(text, "\n", 10));
    EXPECT_EQ(VEK_SOCKET_BROKEN, tls.server.Peek(text, sizeof text));
    const std::string bytes(1 << 20, 'x');
    int result = 0;
    for (int i = 0; i < 100 && result >= 0; ++i) { result = tls.client.Send(bytes.data(), bytes.size()); }
    EXPECT_EQ(VEK_SOCKET_AGAIN, result);
}

TEST(Tls, RefusesOtherVersionsAndProtocols) {
    const struct {
        const char* name;
        std::function<void(SSL_CTX*)> change;  // of the client
        const char* line;
    } cases[] = {
        {"TLS 1.3 only",
         [](SSL_CTX* ctx) {
             SSL_CTX_clear_options(ctx, SSL_OP_NO_TLSv1_3);
             SSL_CTX_set_min_proto_version(ctx, TLS1_3_VERSION);
         },
         "SSL_accept() failed!.."},
        {"no protocol offered", [](SSL_CTX* ctx) { SSL_CTX_set_alpn_protos(ctx, nullptr, 0); },
         "h2 is not negotiated..."},
        {"http/1.1 only",
         [](SSL_CTX* ctx) { SSL_CTX_set_alpn_protos(ctx, reinterpret_cast<const unsigned char*>("\x08http/1.1"), 9); },
         "SSL_select_next_proto() failed..."},
    };
    const Context serverCtx = ServerContext();
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        const Context clientCtx = ClientContext();
        test.change(clientCtx.get());
        const std::string log = Capture([&] {
            TlsPair tls(serverCtx.get(), clientCtx.get());
            EXPECT_FALSE(tls.isClientUp);
            EXPECT_FALSE(tls.isServerUp);
        });
        EXPECT_GE(Count(log, test.line), 1U) << log;
    }
    const Context clientCtx = ClientContext();
    for (const uint64_t option : {SSL_OP_NO_SSLv3, SSL_OP_NO_TLSv1_3, SSL_OP_NO_COMPRESSION}) {
        EXPECT_NE(0U, SSL_CTX_get_options(clientCtx.get()) & option);
        EXPECT_NE(0U, SSL_CTX_get_options(serverCtx.get()) & option);
    }
}

TEST(Tls, ServerWithoutHttp2IsRefusedAfterTheHandshake) {
    const Context serverCtx = ServerContext();
    SSL_CTX_set_alpn_select_cb(serverCtx.get(), nullptr, nullptr);  // speaks HTTP/1.1 only
    const Context clientCtx = ClientContext();
    const std::string log = Capture([&] {
        const TlsPair tls(serverCtx.get(), clientCtx.get());
        EXPECT_FALSE(tls.isClientUp);
    });
    EXPECT_EQ(0U, Count(log, "SSL_connect() failed")) << log;
    EXPECT_GE(Count(log, "h2 is not negotiated..."), 1U) << log;
}

TEST(Tls, ContextsNeedTheirFiles) {
    const std::string& key = GetIdentity().key;
    const std::string& certificate = GetIdentity().certificate;
    const std::string log = Capture([&] {
        EXPECT_EQ(nullptr, VEK_SSL_CREATE_SERVER_CTX("/none", certificate.c_str(), nullptr));
        EXPECT_EQ(nullptr, VEK_SSL_CREATE_SERVER_CTX(key.c_str(), key.c_str(), nullptr));
        EXPECT_EQ(nullptr, VEK_SSL_CREATE_CLIENT_CTX(nullptr, nullptr, certificate.c_str()));
    });
    EXPECT_EQ(1U, Count(log, "SSL_CTX_use_PrivateKey_file(/none) failed!...")) << log;
    EXPECT_EQ(1U, Count(log, "SSL_CTX_use_certificate_chain_file(" + key + ") failed!...")) << log;
    EXPECT_EQ(1U, Count(log, "SSL_CTX_load_verify_locations(" + certificate + ":nullptr) failed!..")) << log;
}

TEST(Tls, ProtocolVersionOptions) {
    const uint64_t all = SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1 | SSL_OP_NO_TLSv1_2 | SSL_OP_NO_TLSv1_3;
    const struct {
        int min;
        int max;
        uint64_t options;
    } cases[] = {
        {769, 771, SSL_OP_NO_TLSv1_3},
        {771, 771, SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1 | SSL_OP_NO_TLSv1_3},
        {769, 769, SSL_OP_NO_TLSv1_1 | SSL_OP_NO_TLSv1_2 | SSL_OP_NO_TLSv1_3},
        {772, 772, SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1 | SSL_OP_NO_TLSv1_2},
    };
    for (const auto& test : cases) {
        const Context ctx(SSL_CTX_new(TLS_method()), SSL_CTX_free);
        EXPECT_EQ(0, VEK_SSL_CTX_set_proto_versions(ctx.get(), test.min, test.max));
        EXPECT_EQ(test.options, SSL_CTX_get_options(ctx.get()) & all) << test.min << test.max;
    }
}

TEST(Tls, CertificateExpiry) {
    const std::pair<const char*, const char*> cases[] = {
        {"Dec 31 23:59:59 2030 GMT", "20301231235959"},
        {"Jan  9 12:34:56 2030 GMT", "00120100 9    "},  // a day of one digit shifts the fields
        {"", "00000000      "},
    };
    for (const auto& [printed, expected] : cases) {
        char out[15];
        CONV_STRTIME(printed, out);
        EXPECT_STREQ(expected, out);
    }
    char out[15] = "";
    EXPECT_EQ(1, VEK_SSL_GET_CERT_EXPIRE_DATE(GetIdentity().certificate.c_str(), out));
    EXPECT_EQ(14U, strlen(out));
    EXPECT_EQ(0, VEK_SSL_GET_CERT_EXPIRE_DATE("/none", out));
    EXPECT_EQ(0, VEK_SSL_GET_CERT_EXPIRE_DATE(GetIdentity().key.c_str(), out));
}

// Writing to a peer that has gone must neither kill the process nor touch its signal handlers.
TEST(Tls, NoSignalFromAPeerThatIsGone) {
    ASSERT_NE(SIG_ERR, signal(SIGPIPE, SIG_DFL));
    const Context serverCtx = ServerContext();
    const Context clientCtx = ClientContext();
    for (const bool isTls : {false, true}) {
        SCOPED_TRACE(isTls);
        std::optional<TlsPair> tls;
        Pair plain;
        CVEKSocketNew plainClient;
        plainClient.SetFD(plain.client, nullptr, 0);
        if (isTls) {
            tls.emplace(serverCtx.get(), clientCtx.get());
            ASSERT_TRUE(tls->isClientUp && tls->isServerUp);
            shutdown(tls->pair.server, SHUT_RDWR);
        }
        close(plain.server);
        CVEKSocketNew& client = isTls ? tls->client : plainClient;
        int result = 0;
        EXPECT_TRUE(Eventually([&] { return (result = client.Send("x", 1)) < 0; }));
        EXPECT_EQ(VEK_SOCKET_BROKEN, result);
    }
    EXPECT_EQ(SIG_DFL, signal(SIGPIPE, SIG_DFL));
}

}  // namespace
