// The socket class: bare descriptors, plain and TLS traffic, and peers that go away.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
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
    explicit Pair(int family = AF_INET, const char* host = "127.0.0.1", int timeout = 5000000) {
        const int listener = CVEKSocketNew::LISTEN(family, 0, "10.0.0.1");
        VEK_ST_SOCKET_FAILURE failure{1, 1};
        client = CVEKSocketNew::CONNECT(IPPROTO_TCP, host, PortOf(listener), 1, times, &failure);
        EXPECT_EQ(0, failure.errno_ + failure.resolverError_);
        server = CVEKSocketNew::ACCEPT(listener, timeout, ip, name);
        close(listener);
    }
    int client = -1, server = -1;
    VEK_ST_CONNECT_TIMES times;
    char ip[VEK_SOCKET_IP_TEXT_SIZE] = "", name[VEK_SOCKET_HOST_TEXT_SIZE] = "";
};

int OptionOf(int fd, int level, int name) {
    int value = -1;
    socklen_t length = sizeof value;
    EXPECT_EQ(0, getsockopt(fd, level, name, &value, &length));
    return value;
}

TEST(Socket, TalksOverBothFamilies) {
    for (const auto& [family, host] : {std::pair(AF_INET, "127.0.0.1"), std::pair(AF_INET6, "::1")}) {
        SCOPED_TRACE(host);
        std::unique_ptr<Pair> pair;
        const std::string log = Capture([&, family = family, host = host] {
            pair = std::make_unique<Pair>(family, host, family == AF_INET ? -1 : 5000000);
        });
        EXPECT_STREQ(host, pair->ip);
        // With its name, or without where the resolver knows none.
        EXPECT_EQ(1U, FindAll(log, std::string("(IPv[46]|gethostbyaddr_r)\\(") + host + "\\)").size()) << log;
        EXPECT_STRNE("", pair->name);
        EXPECT_TRUE(pair->times.nameUs_ > 0 && pair->times.tcpUs_ > 0);
        CVEKSocketNew client, server;
        ASSERT_TRUE(client.SetFD(pair->client, nullptr, 0));
        ASSERT_TRUE(server.SetFD(pair->server, nullptr, 0));
        EXPECT_EQ(0, OptionOf(pair->client, IPPROTO_TCP, TCP_NODELAY));
        CVEKSocketNew::SET_NODELAY(pair->client);
        EXPECT_EQ(1, OptionOf(pair->client, IPPROTO_TCP, TCP_NODELAY));
        char text[16] = {};
        EXPECT_EQ(0, server.Select(0, 1000));
        EXPECT_EQ(5, client.Send("hello", 5));
        EXPECT_GT(server.Select(5, 0), 0);
        EXPECT_EQ(4, server.Recv(text, 4));
        EXPECT_FALSE(server.IsRecvDrained());
        EXPECT_EQ(1, server.Recv(text + 4, 12));
        EXPECT_TRUE(server.IsRecvDrained());
        EXPECT_STREQ("hello", text);
        EXPECT_TRUE(CVEKSocketNew::SET_NONBLOCK(pair->server));
        EXPECT_EQ(VEK_SOCKET_AGAIN, server.Recv(text, sizeof text));
        server.SetIOMethod(VEK_SOCKET_IO_LOOP);
        EXPECT_EQ(0, server.Recv(text, sizeof text));
        EXPECT_EQ(5, client.Send("hello", 5));
        EXPECT_EQ(4, server.Recv(text, 4));
        EXPECT_FALSE(server.IsRecvDrained());
        EXPECT_EQ(1, server.Recv(text, sizeof text));
        EXPECT_TRUE(server.IsRecvDrained());
        client.EndSending();
        EXPECT_EQ(0, server.Recv(text, sizeof text));
        EXPECT_EQ(2, server.Send("ok", 2));  // the other way is open
        EXPECT_EQ(2, client.Recv(text, sizeof text));
        const int other = dup(STDIN_FILENO);
        EXPECT_TRUE(client.SetFD(other, nullptr, 0) && client.SetFD(other, nullptr, 0));
        EXPECT_TRUE(fcntl(pair->client, F_GETFD) == -1 && fcntl(other, F_GETFD) != -1);
        client.Clear();
        client.Clear();
        EXPECT_EQ(-1, client.GetSocket());
        EXPECT_EQ(-1, fcntl(other, F_GETFD));
    }
}

TEST(Socket, FailsInWords) {
    const int lowest = dup(STDIN_FILENO);
    close(lowest);
    const std::string log = Capture([] {
        const int free = FreePort();
        const std::tuple<int, int, int, int> connects[] = {{free, 0, ETIMEDOUT, 0},
                                                           {free, 10, ECONNREFUSED, 0},
                                                           {65535, 10, ECONNREFUSED, 0},
                                                           {65536, 10, 0, EAI_SERVICE},
                                                           {-1, 10, 0, EAI_SERVICE}};
        for (const auto& [port, retry, error, resolverError] : connects) {
            VEK_ST_CONNECT_TIMES times;
            VEK_ST_SOCKET_FAILURE failure{7, 7};
            EXPECT_EQ(-1, CVEKSocketNew::CONNECT(IPPROTO_TCP, "127.0.0.1", port, retry, times, &failure));
            EXPECT_EQ(error, failure.errno_);
            EXPECT_EQ(resolverError, failure.resolverError_);
        }
        EXPECT_EQ(-1, CVEKSocketNew::CONNECT("127.0.0.1", free, 0));
        EXPECT_EQ(-1, CVEKSocketNew::LISTEN2(-1, AF_INET));
        EXPECT_FALSE(CVEKSocketNew::SET_NONBLOCK(-1));
        for (const auto& [fd, sec, usec] : {std::tuple(-1, 0, 0), std::tuple(0, -1, 0), std::tuple(0, 0, -1)}) {
            EXPECT_EQ(-1, CVEKSocketNew::SELECT(fd, sec, usec));
        }
        const int listener = CVEKSocketNew::LISTEN2(0, 77);
        EXPECT_EQ(1, OptionOf(listener, SOL_SOCKET, SO_REUSEADDR));
        char ip[VEK_SOCKET_IP_TEXT_SIZE] = "none";
        EXPECT_EQ(0, CVEKSocketNew::ACCEPT(listener, 1000, ip, nullptr));
        EXPECT_EQ(-1, CVEKSocketNew::ACCEPT(listener, -2, ip, nullptr));
        EXPECT_EQ(-1, CVEKSocketNew::ACCEPT(-1, 1000, ip, nullptr));
        EXPECT_EQ(-1, CVEKSocketNew::ACCEPT(-1, -1, ip, nullptr));
        close(listener);
        const int busy = CVEKSocketNew::LISTEN(AF_INET, 0, nullptr);
        EXPECT_EQ(-1, CVEKSocketNew::LISTEN(AF_INET, PortOf(busy), nullptr));
        close(busy);
        CVEKSocketNew socket;
        EXPECT_STREQ("unknown", socket.GetName());
        for (const size_t size : {63, 64}) {
            socket.SetName(std::string(size, 'n').c_str());
            EXPECT_EQ(std::string(63, 'n'), socket.GetName());
        }
        for (const int method : {VEK_SOCKET_IO_LOOP, VEK_SOCKET_IO_SINGLE}) {  // without a descriptor
            socket.SetIOMethod(method);
            EXPECT_EQ(VEK_SOCKET_BROKEN, socket.Send("x", 1));
            EXPECT_EQ(VEK_SOCKET_BROKEN, socket.Recv(ip, 1));
        }
        EXPECT_EQ(VEK_SOCKET_BROKEN, socket.Recv(ip, "\n", 1));
        EXPECT_EQ(VEK_SOCKET_BROKEN, socket.Peek(ip, 1));
        EXPECT_FALSE(socket.EnableDump("/none", "n", 1, "1.1.1.1", "1.1.1.2"));
        const sockaddr_in6 nobody{};
        EXPECT_EQ(0, CVEKSocketNew::GET_V6_IFINDEX(&nobody));
    });
    const std::pair<const char*, size_t> lines[] = {
        {"getaddrinfo() failed!..(127.0.0.1,65536) ret=", 1},
        {"Connection refused]connect() failed!..", 2},
        {"getaddrinfo() failed!..(-1) ret=", 1},
        {"[9-Bad file descriptor]fcntl() failed!..", 1},
        {"[9-Bad file descriptor]select() failed!..", 2},
        {"[22-Invalid argument]select() failed!..", 3},
        {"[9-Bad file descriptor]accept() failed!..", 1},
        {"Address already in use]bind() failed!..", 1},
        {"Invalid IP Address family(77)..only AF_INET or AF_INET6 allowed..", 1},
        {"socket name(nnn", 1},
        {"send() failed!..", 2},
        {"recv() failed!..", 4},
        {"fopen(/none/n.", 1},
        {"not found if-index...", 1},
    };
    EXPECT_EQ(lowest, dup(STDIN_FILENO));  // nothing was left open
    close(lowest);
    for (const auto& [line, count] : lines) { EXPECT_EQ(count, Count(log, line)) << line << "\n" << log; }
}

TEST(Socket, EnvironmentChoosesTheFamily) {
    for (const auto& [value, family] :
         {std::pair("IPV6", AF_INET6), std::pair("ipv6", AF_INET), std::pair("", AF_INET)}) {
        setenv("VEK_SOCKET_DEFAULT_IP_NET", value, 1);
        const int fd = CVEKSocketNew::LISTEN2(0, -1);
        EXPECT_EQ(family, AddressOf(fd).sin6_family) << value;
        close(fd);
    }
    for (const auto& [value, isOnly] :
         {std::pair("TRUE", true), std::pair("On", true), std::pair("yes", true), std::pair("1", false)}) {
        setenv("VEK_SOCKET_IPV6_ONLY", value, 1);
        const int fd = CVEKSocketNew::LISTEN(AF_INET6, 0, nullptr);
        EXPECT_EQ(isOnly, OptionOf(fd, IPPROTO_IPV6, IPV6_V6ONLY) == 1) << value;
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
    TlsPair(SSL_CTX* serverCtx, SSL_CTX* clientCtx, const char* name = nullptr) {
        std::thread accept([&] { isServerUp = server.SetFD(pair.server, serverCtx, 1); });
        isClientUp = name == nullptr ? client.SetFD(pair.client, clientCtx, VEK_SOCKET_MODE_CONNECT)
                                     : client.SetFD(pair.client, nullptr, 0) && client.StartTLS(clientCtx, 2) &&
                                           client.SetTLSPeer(name, "") && client.AdvanceTLS() == VEK_SOCKET_TLS_DONE;
        if (!isClientUp) {
            cause = client.GetTLSFailure()->cause_;
            client.Clear();
        }
        accept.join();
    }
    Pair pair;
    CVEKSocketNew client, server;
    bool isClientUp = false, isServerUp = false;
    int cause = 0;  // of the client's failure
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
        int clientCause;
    } cases[] = {
        {[](SSL_CTX*, SSL_CTX* client) {
             SSL_CTX_clear_options(client, SSL_OP_NO_TLSv1_3);
             SSL_CTX_set_min_proto_version(client, TLS1_3_VERSION);
         },
         "SSL_accept() failed!..", VEK_TLS_CAUSE_NO_COMMON_VERSION},
        {[](SSL_CTX*, SSL_CTX* client) {
             SSL_CTX_set_alpn_protos(client, reinterpret_cast<const unsigned char*>("\x08http/1.1"), 9);
         },
         "SSL_select_next_proto() failed...", VEK_TLS_CAUSE_NO_H2},
        {[](SSL_CTX* server, SSL_CTX*) { SSL_CTX_set_alpn_select_cb(server, nullptr, nullptr); },
         "h2 is not negotiated...", VEK_TLS_CAUSE_NO_H2},  // after the handshake
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.line);
        const tls::FixedContext server = tls::FixedServer(), client = tls::FixedClient();
        test.change(server.get(), client.get());
        const std::string log = Capture([&] {
            const TlsPair tls(server.get(), client.get());
            EXPECT_FALSE(tls.isClientUp || tls.isServerUp);
            EXPECT_EQ(test.clientCause, tls.cause);
        });
        EXPECT_LE(1U, Count(log, test.line)) << log;
    }
}

std::string Describe(const VEK_ST_TLS_INFO& info) {
    return info.version_ + " " + info.cipher_ + " " + info.group_ + " " + info.peerSubject_;
}

// Who stands behind the server's certificate, and what the fixed policy makes of it.
TEST(Tls, VerifiesTheServerWithExceptions) {
    setenv("SSL_CERT_FILE", tls::File("root.pem").c_str(), 1);
    const struct {
        const char *identity, *ignored;
        bool isUp;
        const char* line;
    } cases[] = {
        {"ec", "", true, "verify ok...depth[0],issuer=[/CN=root]"},
        {"self", "", true, "verify failed, depth=0,err=18,subject=/CN=self"},
        {"expired", "True", false, "verify errors=10,certificate has expired"},
        {"expired", "TRUE", true, "verify failed, depth=0,err=10,subject=/CN=expired"},
        {"expired", "true", true, "verify errors=10,certificate has expired"},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(std::string(test.identity) + test.ignored);
        setenv("VEK_CERT_VERIFY_IGNORE", test.ignored, 1);
        const std::string file = tls::File(std::string(test.identity) + ".pem"), other = tls::File("rsa.pem");
        const std::string log = Capture([&] {
            const auto make = [](const std::string& path) {
                return tls::FixedContext(VEK_SSL_CREATE_SERVER_CTX(path.c_str(), path.c_str(), nullptr), SSL_CTX_free);
            };
            const tls::FixedContext server = make(file), client = tls::FixedClient();
            make(other);  // and frees it: it serves nobody
            {
                const TlsPair tls(server.get(), client.get(), "localhost");
                EXPECT_EQ(test.isUp, tls.isClientUp && tls.isServerUp);
                EXPECT_EQ(test.isUp
                              ? std::string("TLSv1.2 ECDHE-ECDSA-AES256-GCM-SHA384 prime256v1 CN=") + test.identity
                              : "   ",
                          Describe(tls.client.GetTLSInfo()));
            }
            if (*test.ignored != '\0') { return; }
            const tls::FixedContext last = make(other);  // serves whoever is named
            const TlsPair named(server.get(), client.get(), "localhost");
            EXPECT_EQ("TLSv1.2 ECDHE-RSA-AES256-GCM-SHA384 prime256v1 CN=rsa", Describe(named.client.GetTLSInfo()));
        });
        EXPECT_LE(1U, Count(log, test.line)) << log;
    }
    for (const char* name : {"VEK_CERT_VERIFY_IGNORE", "SSL_CERT_FILE"}) { unsetenv(name); }
}

TEST(Tls, ContextsNeedTheirFilesAndKeepThePolicy) {
    const auto& [keyFile, certificateFile] = GetIdentity();
    const char *key = keyFile.c_str(), *certificate = certificateFile.c_str(), *none = nullptr;
    const std::string other = tls::File("ec.pem");
    const std::tuple<bool, const char*, const char*, const char*, std::string> cases[] = {
        {true, "/none", certificate, none, "SSL_CTX_use_PrivateKey_file(/none) failed!..."},
        {true, none, certificate, none, "SSL_CTX_use_PrivateKey_file(nullptr) failed!..."},
        {true, key, key, none, "SSL_CTX_use_certificate_chain_file(" + keyFile + ") failed!..."},
        {true, key, none, none, "SSL_CTX_use_certificate_chain_file(nullptr) failed!..."},
        {true, key, other.c_str(), none, "SSL_CTX_check_private_key() failed!...no private key assigned"},
        {true, key, certificate, "/none", "SSL_CTX_load_verify_locations() failed..."},
        {true, key, certificate, certificate, ""},
        {true, key, certificate, none, ""},
        {false, "/none", none, none, "SSL_CTX_use_PrivateKey_file() failed: error:80000002"},
        {false, key, key, none, "SSL_CTX_use_certificate_chain_file() failed: error:"},
        {false, none, none, certificate, "SSL_CTX_load_verify_locations(" + certificateFile + ":nullptr) failed!.."},
        {false, key, certificate, none, ""},
    };
    for (const auto& [isServer, keyUsed, certificateUsed, ca, line] : cases) {
        SCOPED_TRACE(line);
        SSL_CTX* ctx = nullptr;
        const auto create =
            isServer ? VEK_SSL_CREATE_SERVER_CTX
                     : static_cast<SSL_CTX* (*)(const char*, const char*, const char*)>(VEK_SSL_CREATE_CLIENT_CTX);
        const std::string log = Capture([&, k = keyUsed, c = certificateUsed, a = ca] { ctx = create(k, c, a); });
        const tls::FixedContext owner(ctx, SSL_CTX_free);
        EXPECT_EQ(line.empty(), ctx != nullptr);
        EXPECT_EQ(line.empty() ? "" : line,
                  line.empty() ? log : log.substr(std::min(log.find(line), log.size()), line.size()));
        if (ctx == nullptr) { continue; }
        EXPECT_EQ(SSL_SESS_CACHE_SERVER | SSL_SESS_CACHE_NO_AUTO_CLEAR, SSL_CTX_get_session_cache_mode(ctx));
        const auto hasAll = [](uint64_t value, uint64_t bits) { return (value & bits) == bits; };
        EXPECT_TRUE(hasAll(SSL_CTX_get_options(ctx), SSL_OP_NO_COMPRESSION | SSL_OP_NO_SSLv3));
        EXPECT_TRUE(
            hasAll(static_cast<uint64_t>(SSL_CTX_get_mode(ctx)), SSL_MODE_AUTO_RETRY | SSL_MODE_RELEASE_BUFFERS));
        EXPECT_EQ(SSL_VERIFY_PEER, SSL_CTX_get_verify_mode(ctx));
        EXPECT_EQ(certificateUsed != nullptr, SSL_CTX_get0_certificate(ctx) != nullptr);
    }
}

TEST(Tls, ProtocolVersionOptions) {
    const uint64_t all = SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1 | SSL_OP_NO_TLSv1_2 | SSL_OP_NO_TLSv1_3;
    const std::tuple<int, int, uint64_t> cases[] = {
        {TLS1_VERSION, TLS1_2_VERSION, SSL_OP_NO_TLSv1_3},
        {TLS1_VERSION, TLS1_1_VERSION, SSL_OP_NO_TLSv1_2 | SSL_OP_NO_TLSv1_3},
        {TLS1_VERSION, TLS1_VERSION, SSL_OP_NO_TLSv1_1 | SSL_OP_NO_TLSv1_2 | SSL_OP_NO_TLSv1_3},
        {TLS1_1_VERSION, TLS1_3_VERSION, SSL_OP_NO_TLSv1},
        {TLS1_2_VERSION, TLS1_3_VERSION, SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1},
        {TLS1_3_VERSION, TLS1_3_VERSION, SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1 | SSL_OP_NO_TLSv1_2},
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
        {"Dec 1 01:02:03 20311 GMT", "20311120101020"},  // cut
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

TEST(Socket, CapturesTlsAndWholePacketsOnRequest) {
    const tls::FixedContext serverCtx = tls::FixedServer(), clientCtx = tls::FixedClient();
    for (const auto& [isTls, isWhole] : {std::pair(false, false), std::pair(false, true), std::pair(true, false)}) {
        for (const bool isWanted : {true, false}) {
            const TempDir folder;
            TlsPair pair(isTls ? serverCtx.get() : nullptr, isTls ? clientCtx.get() : nullptr);
            VEK_ST_DUMP_OPTIONS options;
            options.isWhole_ = isWhole;
            options.hasTLS_ = isTls && isWanted;
            EXPECT_TRUE(pair.client.EnableDump(folder.Path().c_str(), "n", INT_MAX, "10.0.0.1", "10.0.0.2", options));
            {
                const FullDisk full(isWanted ? 50 : 500);
                EXPECT_EQ(4, pair.client.Send("lost", 4));
            }
            char text[4];
            EXPECT_EQ(4, pair.server.Recv(text, sizeof text));
            EXPECT_EQ(4, pair.server.Send("kept", 4));
            EXPECT_EQ(4, pair.client.Recv(text, sizeof text));
            pair.client.DisableDump();
            const auto file = *std::filesystem::directory_iterator(folder.Path());
            const unsigned packets = isTls && !isWanted ? 0 : isWhole && isWanted ? 1 : 2;
            EXPECT_EQ(24U + packets * (58 + 4), file.file_size());
            EXPECT_EQ(std::filesystem::perms(options.hasTLS_ ? 0600 : 0644), file.status().permissions());
        }
    }
}

}  // namespace
