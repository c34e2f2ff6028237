// The socket class: bare descriptors, plain and TLS traffic, and peers that go away.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fcntl.h>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <thread>
#include <tuple>

#include "CVEKSocketNew.h"
#include "TestSupport.h"
#include "TlsSupport.h"
#include "VEKCommonOpenSSL.h"

namespace {

sockaddr_in6 AddressOf(int fd) {
    sockaddr_in6 address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return address;
}

// Two connected descriptors over loopback.
struct Pair {
    explicit Pair(int family = AF_INET, const char* host = "127.0.0.1") {
        const int listener = CVEKSocketNew::LISTEN(family, 0, "10.0.0.1");
        client = CVEKSocketNew::CONNECT(host, PortOf(listener), 10);
        server = CVEKSocketNew::ACCEPT(listener, 5000000, ip, name);
        close(listener);
    }
    int client = -1, server = -1;
    char ip[VEK_SOCKET_IP_TEXT_SIZE] = "", name[VEK_SOCKET_HOST_TEXT_SIZE] = "";
};

TEST(Socket, TalksOverBothFamilies) {
    for (const auto& [family, host] : {std::pair(AF_INET, "127.0.0.1"), std::pair(AF_INET6, "::1")}) {
        SCOPED_TRACE(host);
        const Pair pair(family, host);
        EXPECT_STREQ(host, pair.ip);
        EXPECT_STRNE("", pair.name);
        CVEKSocketNew client, server;
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
        setenv("VEK_SOCKET_DEFAULT_IP_NET", value, 1);
        const int fd = CVEKSocketNew::LISTEN2(0, -1);
        EXPECT_EQ(family, AddressOf(fd).sin6_family) << value;
        close(fd);
    }
    for (const auto& [value, isOnly] : {std::pair("TRUE", true), std::pair("On", true), std::pair("1", false)}) {
        setenv("VEK_SOCKET_IPV6_ONLY", value, 1);
        const int fd = CVEKSocketNew::LISTEN(AF_INET6, 0, nullptr);
        int option = -1;
        socklen_t length = sizeof option;
        getsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &option, &length);
        EXPECT_EQ(isOnly, option == 1) << value;
        close(fd);
    }
    for (const char* name : {"VEK_SOCKET_DEFAULT_IP_NET", "VEK_SOCKET_IPV6_ONLY"}) { unsetenv(name); }
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
        int max, result;
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

// Both ends of a TLS session, or of a plain one, the server's on a thread of its own.
struct TlsPair {
    TlsPair(SSL_CTX* serverCtx, SSL_CTX* clientCtx) {
        std::thread accept([&] { isServerUp = server.SetFD(pair.server, serverCtx, 1); });
        isClientUp = client.SetFD(pair.client, clientCtx, VEK_SOCKET_MODE_CONNECT);
        if (!isClientUp) { client.Clear(); }
        accept.join();
    }
    Pair pair;
    CVEKSocketNew client, server;
    bool isClientUp = false, isServerUp = false;
};

TEST(Tls, TalksWithTheFixedPolicy) {
    VEK_SSL_INIT();
    const tls::FixedContext serverCtx = tls::FixedServer(), clientCtx = tls::FixedClient();
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
        std::function<void(SSL_CTX*, SSL_CTX*)> change;  // of the server and the client
        const char* line;
    } cases[] = {
        {[](SSL_CTX*, SSL_CTX* client) {
             SSL_CTX_clear_options(client, SSL_OP_NO_TLSv1_3);
             SSL_CTX_set_min_proto_version(client, TLS1_3_VERSION);
         },
         "SSL_accept() failed!.."},
        {[](SSL_CTX*, SSL_CTX* client) {
             SSL_CTX_set_alpn_protos(client, reinterpret_cast<const unsigned char*>("\x08http/1.1"), 9);
         },
         "SSL_select_next_proto() failed..."},
        {[](SSL_CTX* server, SSL_CTX*) { SSL_CTX_set_alpn_select_cb(server, nullptr, nullptr); },
         "h2 is not negotiated..."},  // after the handshake
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.line);
        const tls::FixedContext server = tls::FixedServer(), client = tls::FixedClient();
        test.change(server.get(), client.get());
        const std::string log = Capture([&] {
            const TlsPair tls(server.get(), client.get());
            EXPECT_FALSE(tls.isClientUp || tls.isServerUp);
        });
        EXPECT_LE(1U, Count(log, test.line)) << log;
    }
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
    const std::tuple<int, int, uint64_t> cases[] = {
        {769, 771, SSL_OP_NO_TLSv1_3},
        {769, 769, SSL_OP_NO_TLSv1_1 | SSL_OP_NO_TLSv1_2 | SSL_OP_NO_TLSv1_3},
        {772, 772, SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1 | SSL_OP_NO_TLSv1_2},
    };
    for (const auto& [min, max, options] : cases) {
        const tls::FixedContext ctx(SSL_CTX_new(TLS_method()), SSL_CTX_free);
        EXPECT_EQ(0, VEK_SSL_CTX_set_proto_versions(ctx.get(), min, max));
        EXPECT_EQ(options, SSL_CTX_get_options(ctx.get()) & all) << min << max;
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
    const tls::FixedContext serverCtx = tls::FixedServer(), clientCtx = tls::FixedClient();
    for (const bool isTls : {false, true}) {
        SCOPED_TRACE(isTls);
        TlsPair tls(isTls ? serverCtx.get() : nullptr, isTls ? clientCtx.get() : nullptr);
        ASSERT_TRUE(tls.isClientUp && tls.isServerUp);
        shutdown(tls.pair.server, SHUT_RDWR);
        int result = 0;
        EXPECT_TRUE(Eventually([&] { return (result = tls.client.Send("x", 1)) < 0; }));
        EXPECT_EQ(VEK_SOCKET_BROKEN, result);
    }
    EXPECT_EQ(SIG_DFL, signal(SIGPIPE, SIG_DFL));
}

TEST(Socket, CapturesWholePacketsOnRequest) {
    for (const bool isWhole : {false, true}) {
        const TempDir folder;
        int fds[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
        CVEKSocketNew sender, receiver;
        EXPECT_TRUE(sender.SetFD(fds[0], nullptr, 0) && receiver.SetFD(fds[1], nullptr, 0));
        VEK_ST_DUMP_OPTIONS options;
        options.isWhole_ = isWhole;
        EXPECT_TRUE(sender.EnableDump(folder.Path().c_str(), "n", INT_MAX, "10.0.0.1", "10.0.0.2", options));
        {
            const FullDisk full(50);
            EXPECT_EQ(4, sender.Send("lost", 4));
        }
        EXPECT_EQ(4, sender.Send("kept", 4));
        sender.DisableDump();
        const std::string name = std::filesystem::directory_iterator(folder.Path())->path().filename();
        EXPECT_EQ(24U + (isWhole ? 1U : 2U) * (58 + 4), folder.Read(name).size());
    }
}

}  // namespace
