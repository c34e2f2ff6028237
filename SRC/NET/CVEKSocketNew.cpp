#include "CVEKSocketNew.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#ifdef VEK_SCTP
#include <netinet/sctp.h>
#endif
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>

#include "CVEKLogLimit.h"
#include "CVEKPCAPDump.h"
#include "CVEKUtil.h"
#include "VEKCommonOpenSSL.h"
#include "VEKLogText.h"
#include "VEKServiceLog.h"
#include "VEKSocketBio.h"
#include "VEKSocketWait.h"
#include "VEKText.h"
#include "VEKTlsReason.h"

std::mutex G_VEK_SOCKADDR_MUTEX;

namespace {

using std::chrono::microseconds;
using Clock = std::chrono::steady_clock;

constexpr int CONNECT_RETRY_US = 10000;
constexpr int LISTEN_BACKLOG = 128;
constexpr int MAX_PORT = 65535;
constexpr size_t RESOLVER_BUFFER_SIZE = 2048;
constexpr std::chrono::milliseconds RECV_LOOP_GRACE(100);
constexpr int RECV_LOOP_PAUSE_US = 100;
constexpr std::chrono::seconds HANDSHAKE_TIMEOUT(10);  // a silent peer must not hold its caller

constexpr const char* NO_MEMORY = "out of memory";  // short enough for a string that takes none

constexpr int DELIMITED_CHUNK_SIZE = 512;  // what the delimited read looks at in one go

constexpr int FRAMING_FAILURE = -1;

// What stands before each compressed block, in the host's byte order.
struct CompressHeader {
    int32_t length;
    int32_t compressedLength;
};
constexpr int COMPRESS_HEADER_SIZE = 8;
static_assert(sizeof(CompressHeader) == COMPRESS_HEADER_SIZE);

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

// Resolves node (null: the wildcard) and port for stream sockets. Returns the resolver's result.
int Resolve(const char* node, int port, int protocol, int flags, int family, AddressList& list) {
    if (port < 0 || port > MAX_PORT) {  // the resolver would wrap it around
        return EAI_SERVICE;
    }
    addrinfo hints{};
    hints.ai_flags = flags;
    hints.ai_family = family;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = protocol;
    addrinfo* found = nullptr;
    const int result = getaddrinfo(node, std::to_string(port).c_str(), &hints, &found);
    list.reset(result == 0 ? found : nullptr);
    return result;
}

// error: gets the errno of a failure.
int Connect(int fd, const sockaddr* addr, socklen_t addrLen, int retry, int& error) {
    error = ETIMEDOUT;
    for (int round = 0; round < retry; ++round) {
        if (connect(fd, addr, addrLen) == 0 || errno == EISCONN) {
            return 1;
        }
        if (errno != EINPROGRESS) {
            error = errno;
            VEK_SYSTEM_CALL_LOG("connect() failed!..");
            return 0;
        }
        usleep(CONNECT_RETRY_US);
    }
    return 0;
}

int Bind(int fd, const sockaddr* addr, socklen_t length) {
    if (bind(fd, addr, length) != 0) {
        VEK_SYSTEM_CALL_LOG("bind() failed!..");
        return 0;
    }
    return 1;
}

int Listen(int fd) {
    if (listen(fd, LISTEN_BACKLOG) != 0) {
        VEK_SYSTEM_CALL_LOG("listen() failed!..");
        return 0;
    }
    return 1;
}

void SetOption(int fd, int level, int option) {
    const int on = 1;
    setsockopt(fd, level, option, &on, sizeof on);
}

bool IsV6Only() {
    const char* value = getenv("VEK_SOCKET_IPV6_ONLY");
    return value != nullptr && (strcasecmp(value, "yes") == 0 || strcasecmp(value, "on") == 0 ||
                                strcasecmp(value, "true") == 0);
}

// As sctp_bindx with one address to add, which a library built without SCTP does not have.
int BindSctp([[maybe_unused]] int fd, [[maybe_unused]] sockaddr* address) {
#ifdef VEK_SCTP
    return sctp_bindx(fd, address, 1, SCTP_BINDX_ADD_ADDR);
#else
    errno = EPROTONOSUPPORT;
    return -1;
#endif
}

bool BindAddress(int fd, int protocol, const addrinfo& entry) {
    if (protocol != IPPROTO_SCTP) {
        return Bind(fd, entry.ai_addr, entry.ai_addrlen) == 1;
    }
    if (BindSctp(fd, entry.ai_addr) != 0) {
        VEK_SYSTEM_CALL_LOG("sctp_bindx() failed!..");
        return false;
    }
    return true;
}

// The common body of LISTEN and LISTEN2. Returns a listening descriptor or -1.
int OpenListener(const char* node, int family, int protocol, int port, const char* noAddress) {
    AddressList list(nullptr, freeaddrinfo);
    const int result = Resolve(node, port, protocol, AI_PASSIVE, family, list);
    if (result != 0) {
        VEK_SYSTEM_CALL_LOG("getaddrinfo() failed!..(%d) ret=%d", port, result);
        return -1;
    }
    const addrinfo* head = list.get();
    const addrinfo* entry = head;
    int fd = -1;
    for (; entry != nullptr; entry = entry->ai_next) {
        // The head's triple for every entry, though the entry's address is bound: meant.
        fd = socket(head->ai_family, head->ai_socktype, head->ai_protocol);
        if (fd >= 0) {
            break;
        }
    }
    if (entry == nullptr) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "%s", noAddress);
        return -1;
    }
    SetOption(fd, SOL_SOCKET, SO_REUSEADDR);
    if (head->ai_family == AF_INET6 && IsV6Only()) {
        SetOption(fd, IPPROTO_IPV6, IPV6_V6ONLY);
    }
    if (!BindAddress(fd, protocol, *entry) || Listen(fd) == 0) {
        close(fd);
        return -1;
    }
    return fd;
}

int Listen1(int family, int protocol, int port) {
    return OpenListener(family == AF_INET ? "0.0.0.0" : "::", AF_UNSPEC, protocol, port,
                        "listen address not found!...");
}

int DefaultFamily() {
    const char* net = getenv("VEK_SOCKET_DEFAULT_IP_NET");
    if (net == nullptr) {
        return AF_UNSPEC;
    }
    return std::string("IPV6") == net ? AF_INET6 : AF_INET;
}

int Listen2(int protocol, int port, int family) {
    if (family == -1) {
        family = DefaultFamily();
    } else if (family != AF_INET && family != AF_INET6) {
        VEK_SERVICE_LOG(VEK_LOG_WARNING,
                        "Invalid IP Address family(%d)..only AF_INET or AF_INET6 allowed..",
                        family);
        family = AF_UNSPEC;
    }
    return OpenListener(nullptr, family, protocol, port, "getaddrinfo() address not found!...");
}

void CopyHostText(char* hostText, const char* name) {
    if (hostText != nullptr) {
        const size_t length = std::min(strlen(name), VEK_SOCKET_HOST_TEXT_SIZE - 1);
        memcpy(hostText, name, length);
        hostText[length] = '\0';
    }
}

void DescribePeer(int family, const void* address, socklen_t addressSize, char* ipText,
                  char* hostText) {
    const bool isV4 = family == AF_INET;
    inet_ntop(family, address, ipText, isV4 ? INET_ADDRSTRLEN : INET6_ADDRSTRLEN);
    hostent entry{};
    hostent* found = nullptr;
    char buffer[RESOLVER_BUFFER_SIZE];
    int error = 0;
    const int result = gethostbyaddr_r(address, addressSize, family, &entry, buffer, sizeof buffer,
                                       &found, &error);
    if (result != 0 || error != 0 || found == nullptr) {
        CopyHostText(hostText, ipText);
        VEK_SERVICE_LOG(VEK_LOG_WARNING, "gethostbyaddr_r(%s) failed!..(err=%d)", ipText, error);
        return;
    }
    CopyHostText(hostText, found->h_name);
    VEK_SERVICE_LOG(VEK_LOG_INFO,
                    isV4 ? "IPv4(%s) Host(%s) connected..." : "IPv6(%s) Host(%s) connected...",
                    ipText, VEK_ESCAPE_TEXT(found->h_name).c_str());
}

// Waits for a connection. Returns above 0 when there is one, 0 on time-out, -1 on failure.
int WaitAccept(int listenFd, microseconds timeout) {
    if (timeout < microseconds::zero()) {
        errno = EINVAL;
        VEK_SYSTEM_CALL_LOG("select() failed!..");
        return -1;
    }
    const Clock::time_point limit = Clock::now() + timeout;
    for (;;) {
        const auto left = std::chrono::duration_cast<microseconds>(limit - Clock::now());
        const int result = VEK_WAIT_SOCKET(listenFd, POLLIN, std::max(left, microseconds::zero()));
        if (result >= 0) {
            return result;
        }
        if (errno != EINTR) {
            VEK_SYSTEM_CALL_LOG("select() failed!..");
            return -1;
        }
    }
}

unsigned int getIfIndexByAddr(const in6_addr& wanted) {
    ifaddrs* all = nullptr;
    if (getifaddrs(&all) != 0) {
        VEK_SYSTEM_CALL_LOG("getifaddrs() failed!..");
        return 0;
    }
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(all, freeifaddrs);
    for (const ifaddrs* entry = all; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET6) {
            continue;
        }
        sockaddr_in6 address{};
        memcpy(&address, entry->ifa_addr, sizeof address);
        if (memcmp(&address.sin6_addr, &wanted, sizeof wanted) == 0) {
            return if_nametoindex(entry->ifa_name);
        }
    }
    VEK_SERVICE_LOG(VEK_LOG_WARNING, "not found if-index...");
    return 0;
}

// Makes a descriptor non-blocking for a scope.
class NonBlockingScope {
  public:
    explicit NonBlockingScope(int fd) : fd_(fd), flags_(fcntl(fd, F_GETFL)) {
        if (flags_ >= 0 && (flags_ & O_NONBLOCK) == 0) {
            fcntl(fd_, F_SETFL, flags_ | O_NONBLOCK);
        }
    }
    ~NonBlockingScope() {
        if (flags_ >= 0 && (flags_ & O_NONBLOCK) == 0) {
            fcntl(fd_, F_SETFL, flags_);
        }
    }
    NonBlockingScope(const NonBlockingScope&) = delete;
    NonBlockingScope& operator=(const NonBlockingScope&) = delete;

  private:
    int fd_;
    int flags_;
};

bool IsWouldBlock(int error) {
    return error == EAGAIN || error == EWOULDBLOCK;
}

// The first queued error of TLS, as far as memory allows.
std::string TLSErrorText() {
    try {
        return VEK_SSL_ERROR_TEXT();
    } catch (const std::bad_alloc&) {
        return NO_MEMORY;
    }
}

// A peer that closes without TLS's farewell has closed all the same.
bool IsUnexpectedEnd() {
    return ERR_GET_REASON(ERR_peek_error()) == SSL_R_UNEXPECTED_EOF_WHILE_READING;
}

}  // namespace

int CVEKSocketNew::CONNECT(int protocol, const char* host, int port, int retry) {
    VEK_ST_CONNECT_TIMES times;
    return CONNECT(protocol, host, port, retry, times);
}

int CVEKSocketNew::CONNECT(const char* host, int port, int retry) {
    return CONNECT(IPPROTO_TCP, host, port, retry);
}

int CVEKSocketNew::CONNECT(int protocol, const char* host, int port, int retry,
                           VEK_ST_CONNECT_TIMES& times, VEK_ST_SOCKET_FAILURE* failure) {
    const std::lock_guard<std::mutex> guard(G_VEK_SOCKADDR_MUTEX);
    VEK_ST_SOCKET_FAILURE unused;
    VEK_ST_SOCKET_FAILURE& reason = failure != nullptr ? *failure : unused;
    reason = {};
    const Clock::time_point nameStart = Clock::now();
    const AddressList list(RESOLVE(protocol, host, port, &reason.resolverError_), freeaddrinfo);
    times.nameUs_ = VEK_MICROS_SINCE(nameStart);
    const Clock::time_point tcpStart = Clock::now();
    for (const addrinfo* entry = list.get(); entry != nullptr; entry = entry->ai_next) {
        const int fd = socket(entry->ai_family, entry->ai_socktype, entry->ai_protocol);
        if (fd < 0) {
            reason.errno_ = errno;
            VEK_SYSTEM_CALL_LOG("socket() failed!..");
            continue;
        }
        if (Connect(fd, entry->ai_addr, entry->ai_addrlen, retry, reason.errno_) == 1) {
            reason.errno_ = 0;
            times.tcpUs_ = VEK_MICROS_SINCE(tcpStart);
            return fd;
        }
        close(fd);
    }
    return -1;
}

addrinfo* CVEKSocketNew::RESOLVE(int protocol, const char* host, int port, int* error) {
    AddressList list(nullptr, freeaddrinfo);
    const int result = Resolve(host, port, protocol, 0, AF_UNSPEC, list);
    if (result != 0) {
        VEK_SYSTEM_CALL_LOG("getaddrinfo() failed!..(%s,%d) ret=%d", host, port, result);
    }
    if (error != nullptr) {
        *error = result;
    }
    return list.release();
}

int CVEKSocketNew::LISTEN(int family, int port, const char* addr) {
    return LISTEN(family, IPPROTO_TCP, port, addr);
}

int CVEKSocketNew::LISTEN(int family, int protocol, int port, const char* /*addr*/) {
    return Listen1(family, protocol, port);
}

int CVEKSocketNew::LISTEN2(int port, int family) {
    return LISTEN2(IPPROTO_TCP, port, family);
}

int CVEKSocketNew::LISTEN2(int protocol, int port, int family) {
    return Listen2(protocol, port, family);
}

int CVEKSocketNew::ACCEPT(int listenFd, int timeout, char* ipText, char* hostText) {
    if (timeout != -1) {
        const int ready = WaitAccept(listenFd, microseconds(timeout));
        if (ready <= 0) {
            return ready;
        }
    }
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    const int fd = accept(listenFd, reinterpret_cast<sockaddr*>(&peer), &length);
    if (fd <= 0) {  // 0 would be taken for a time-out
        VEK_SYSTEM_CALL_LOG("accept() failed!..");
        if (fd == 0) {
            close(fd);
        }
        return -1;
    }
    switch (peer.ss_family) {
        case AF_INET: {
            const auto* address = reinterpret_cast<const sockaddr_in*>(&peer);
            DescribePeer(AF_INET, &address->sin_addr, sizeof address->sin_addr, ipText, hostText);
            break;
        }
        case AF_INET6: {
            const auto* address = reinterpret_cast<const sockaddr_in6*>(&peer);
            DescribePeer(AF_INET6, &address->sin6_addr, sizeof address->sin6_addr, ipText,
                         hostText);
            break;
        }
        default:
            VEK_SERVICE_LOG(VEK_LOG_WARNING, "connected client has invalid ip family!...");
            break;
    }
    return fd;
}

void CVEKSocketNew::SET_NODELAY(int fd) {
    SetOption(fd, IPPROTO_TCP, TCP_NODELAY);
}

bool CVEKSocketNew::SET_NONBLOCK(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        VEK_SYSTEM_CALL_LOG("fcntl() failed!..");
        return false;
    }
    return true;
}

int CVEKSocketNew::GET_V6_IFINDEX(const sockaddr_in6* addr) {
    return static_cast<int>(getIfIndexByAddr(addr->sin6_addr));
}

int CVEKSocketNew::SELECT(int fd, int sec, int usec) {
    if (sec < 0 || usec < 0) {
        errno = EINVAL;
        VEK_SYSTEM_CALL_LOG("select() failed!..");
        return -1;
    }
    for (;;) {
        const int result =
            VEK_WAIT_SOCKET(fd, POLLIN, std::chrono::seconds(sec) + microseconds(usec));
        if (result >= 0) {
            return result;
        }
        if (errno != EINTR) {
            VEK_SYSTEM_CALL_LOG("select() failed!..");
            return -1;
        }
    }
}

CVEKSocketNew::CVEKSocketNew()
    : name_("unknown"),
      fd_(-1),
      ssl_(nullptr),
      ioMethod_(VEK_SOCKET_IO_SINGLE),
      compressBuffer_(nullptr),
      compressBufferSize_(0),
      isTLSDumped_(false),
      isRecvBuffered_(false),
      isDrained_(false) {}

CVEKSocketNew::~CVEKSocketNew() {
    Clear();
}

void CVEKSocketNew::Clear() {
    Close();
    FreeCompressBuffer();
}

void CVEKSocketNew::EndSending() {
    if (ssl_ != nullptr) {
        SSL_set_shutdown(ssl_, SSL_get_shutdown(ssl_) | SSL_RECEIVED_SHUTDOWN);
        ERR_clear_error();
        SSL_shutdown(ssl_);
        ERR_clear_error();  // an unfinished handshake's is nobody's reason
    }
    if (fd_ != -1) {
        shutdown(fd_, SHUT_WR);
    }
}

// Ends TLS and closes the descriptor.
void CVEKSocketNew::Close() {
    EndSending();
    if (ssl_ != nullptr) {
        SSL_free(ssl_);
        ssl_ = nullptr;
        isRecvBuffered_ = false;
    }
    tlsFailure_.reset();
    if (fd_ != -1) {
        close(fd_);
        fd_ = -1;
    }
}

void CVEKSocketNew::FreeCompressBuffer() {
    free(std::exchange(compressBuffer_, nullptr));
    compressBufferSize_ = 0;
}

void CVEKSocketNew::SetName(const char* name) {
    if (!VEK_COPY_TEXT(name_, name)) {
        VEK_SERVICE_LOG(VEK_LOG_WARNING, "socket name(%s) too long!...cut", name);
    }
}

bool CVEKSocketNew::SetFD(int fd, SSL_CTX* ctx, int mode) {
    if (fd_ != fd) {
        Close();
    }
    fd_ = fd;
    return ctx == nullptr || (StartTLS(ctx, mode) && FinishTLS());
}

bool CVEKSocketNew::StartTLS(SSL_CTX* ctx, int mode) {
    SSL_free(ssl_);
    tlsFailure_.reset();
    ssl_ = SSL_new(ctx);
    if (ssl_ == nullptr) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "SSL_new() failed!..%s", TLSErrorText().c_str());
        return false;
    }
    BIO* bio = SSL_set_fd(ssl_, fd_) == 1 ? VEK_NEW_SOCKET_BIO(fd_, &isDrained_) : nullptr;
    if (bio == nullptr) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "SSL_set_fd() failed!..%s", TLSErrorText().c_str());
        return false;
    }
    SSL_set_bio(ssl_, bio, bio);
    // Whole records in one system call instead of head and body in two. The buffer keeps its size
    // of one record: in a larger one the library moves what is left behind each record.
    SSL_set_read_ahead(ssl_, 1);
    // An idle connection holds no record buffers. A write takes all or nothing, as the engine's
    // adapters count on: partial writes stay off.
    SSL_set_mode(ssl_, SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    isPeerSilent_ = true;
    isRecvBuffered_ = true;  // what came behind the handshake may wait already

    switch (mode) {
        case VEK_SOCKET_MODE_CONNECT:
            SSL_set_connect_state(ssl_);
            return true;
        case VEK_SOCKET_MODE_ACCEPT:
            SSL_set_accept_state(ssl_);
            return true;
        default:
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "unknown SSL initail mode(%d)", mode);
            return false;
    }
}

bool CVEKSocketNew::SetTLSPeer(const char* name, const char* target) {
    try {
        auto failure = std::make_unique<VEK_ST_TLS_FAILURE>();
        if (VEK_TLS_SET_PEER(ssl_, name, target, failure->text_)) {
            return true;
        }
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "SSL_connect() failed!..%s", failure->text_.c_str());
        tlsFailure_ = std::move(failure);
    } catch (const std::bad_alloc&) {
        ERR_clear_error();
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "SSL_connect() failed!..%s", NO_MEMORY);
    }
    return false;
}

int CVEKSocketNew::AdvanceTLS() {
    ERR_clear_error();
    const int result = SSL_do_handshake(ssl_);
    if (result >= 1) {
        if (VEK_SSL_SELECT_ALPN(ssl_, nullptr) == 1) {
            return VEK_SOCKET_TLS_DONE;
        }
        KeepFailure(SSL_ERROR_NONE, 0);
        return VEK_SOCKET_TLS_NO_H2;
    }
    const int systemError = errno;
    const int error = SSL_get_error(ssl_, result);
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
        return VEK_SOCKET_TLS_WAIT;
    }
    const bool isSystemError = error == SSL_ERROR_SYSCALL && ERR_peek_error() == 0;
    if (isSystemError) {
        FailTLS(strerror(systemError), error, systemError);
    } else {
        FailTLS(TLSErrorText().c_str(), error, systemError);
    }
    return VEK_SOCKET_TLS_FAILED;
}

short CVEKSocketNew::GetTLSEvents() const {
    return SSL_want_write(ssl_) ? POLLOUT : POLLIN;
}

void CVEKSocketNew::ExpireTLS() {
    FailTLS("handshake timeout", SSL_ERROR_WANT_READ, 0);
}

void CVEKSocketNew::FailTLS(const char* reason, int sslError, int systemError) {
    if (SSL_is_server(ssl_) == 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "SSL_connect() failed!..%s", reason);
        KeepFailure(sslError, systemError);
        return;
    }
    VEK_SERVICE_LOG(VEK_LOG_ERROR, "SSL_accept() failed!..%s", reason);
    const CVEKTlsErrorCopy errors;
    KeepFailure(sslError, systemError);
    errors.Restore();
    ERR_print_errors_fp(stderr);
}

// Without memory there is no explanation: the callers have their results all the same.
void CVEKSocketNew::KeepFailure(int sslError, int systemError) {
    if (tlsFailure_ != nullptr) {
        return;  // the first one is the cause
    }
    try {
        tlsFailure_ = std::make_unique<const VEK_ST_TLS_FAILURE>(
            VEK_TLS_EXPLAIN(ssl_, sslError, systemError));
    } catch (const std::bad_alloc&) {
        ERR_clear_error();
    }
}

// A peer that has closed the connection may have said why.
void CVEKSocketNew::KeepFarewell() {
    const NonBlockingScope scope(fd_);
    ERR_clear_error();
    char byte = 0;
    const int seen = SSL_peek(ssl_, &byte, sizeof byte);
    const int error = SSL_get_error(ssl_, seen);
    if (error == SSL_ERROR_SSL && !IsUnexpectedEnd()) {
        KeepFailure(error, 0);
    }
}

VEK_ST_TLS_INFO CVEKSocketNew::GetTLSInfo() const {
    try {
        return ssl_ != nullptr && SSL_is_init_finished(ssl_) != 0 ? VEK_TLS_DESCRIBE(ssl_)
                                                                  : VEK_ST_TLS_INFO();
    } catch (const std::bad_alloc&) {
        return {};
    }
}

// Advances until the handshake is done, has failed or took too long.
bool CVEKSocketNew::FinishTLS() {
    const NonBlockingScope scope(fd_);
    const Clock::time_point limit = Clock::now() + HANDSHAKE_TIMEOUT;
    for (;;) {
        const int result = AdvanceTLS();
        if (result != VEK_SOCKET_TLS_WAIT) {
            return result == VEK_SOCKET_TLS_DONE;
        }
        const auto left = std::chrono::duration_cast<microseconds>(limit - Clock::now());
        if (left <= microseconds::zero() ||
            (VEK_WAIT_SOCKET(fd_, GetTLSEvents(), left) < 0 && errno != EINTR)) {
            ExpireTLS();
            return false;
        }
    }
}

int CVEKSocketNew::Send(const char* buf, size_t len) {
    if (ssl_ != nullptr) {
        return Mirror(buf, SendTLS(buf, len));
    }
    return Mirror(buf, ioMethod_ == VEK_SOCKET_IO_SINGLE ? SendOnce(buf, len) : SendLoop(buf, len));
}

int CVEKSocketNew::Recv(char* buf, size_t len) {
    if (ssl_ != nullptr) {
        return Mirror(buf, RecvTLS(buf, len));
    }
    return Mirror(buf, ioMethod_ == VEK_SOCKET_IO_SINGLE ? RecvOnce(buf, len) : RecvLoop(buf, len));
}

// Copies what a Send or Recv with this result has carried into the capture. Returns `result`.
int CVEKSocketNew::Mirror(const char* buf, int result) {
    if (result > 0 && pcap_ && (ssl_ == nullptr || isTLSDumped_)) {
        pcap_->Write(buf, result);  // a failure has been logged, and the traffic goes on
    }
    return result;
}

int CVEKSocketNew::SendTLS(const char* buf, size_t len) {
    if (len == 0) {
        return 0;
    }
    ERR_clear_error();
    const int sent = SSL_write(ssl_, buf, static_cast<int>(std::min<size_t>(len, INT_MAX)));
    if (sent >= 0) {
        return sent;
    }
    const int systemError = errno;
    const int error = SSL_get_error(ssl_, sent);
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
        return VEK_SOCKET_AGAIN;
    }
    if (error == SSL_ERROR_SYSCALL) {
        KeepFarewell();
    }
    KeepFailure(error, systemError);
    errno = systemError;  // the reason: the search for a farewell has left its own
    return VEK_SOCKET_BROKEN;
}

int CVEKSocketNew::RecvTLS(char* buf, size_t len) {
    ERR_clear_error();
    const int received = SSL_read(ssl_, buf, static_cast<int>(std::min<size_t>(len, INT_MAX)));
    const int systemError = errno;
    isRecvBuffered_ = received > 0 && SSL_has_pending(ssl_) != 0;
    if (received > 0) {
        isPeerSilent_ = false;
        return received;
    }
    const int error = SSL_get_error(ssl_, received);
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
        return VEK_SOCKET_AGAIN;
    }
    if (error == SSL_ERROR_ZERO_RETURN || (error == SSL_ERROR_SSL && IsUnexpectedEnd())) {
        if (isPeerSilent_) {
            KeepFailure(error, systemError);
        }
        ERR_clear_error();
        return 0;
    }
    KeepFailure(error, systemError);
    errno = systemError;
    return received == 0 ? 0 : VEK_SOCKET_BROKEN;  // 0: an alert was the peer's end
}

int CVEKSocketNew::Recv(char* buf, const char* delim, int max) {
    if (ssl_ != nullptr) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "invalid function call...SSL connection invalid!");
        return VEK_SOCKET_BROKEN;
    }
    const int delimLength = static_cast<int>(strlen(delim));
    char chunk[DELIMITED_CHUNK_SIZE];
    int count = 0;
    for (;;) {
        // Looks first and then takes what belongs to the read: what follows is somebody else's.
        const int room = std::clamp(max - count, 0, DELIMITED_CHUNK_SIZE - 1) + 1;
        const int seen = RecvFlags(chunk, static_cast<size_t>(room), MSG_PEEK);
        if (seen <= 0) {
            return seen == VEK_SOCKET_BROKEN ? VEK_SOCKET_BROKEN : count;
        }
        int taken = 0;
        bool isEnd = false;
        while (taken < seen && count <= max && !isEnd) {
            buf[count++] = chunk[taken++];
            isEnd = count <= max && count > delimLength &&
                    memcmp(buf + count - delimLength, delim, static_cast<size_t>(delimLength)) == 0;
        }
        if (!Skip(static_cast<size_t>(taken))) {
            return VEK_SOCKET_BROKEN;
        }
        if (count > max) {
            VEK_SERVICE_LOG(VEK_LOG_WARNING, "receive overflow!..%d/%d", count, max);
            return VEK_SOCKET_OVERFLOW;
        }
        if (isEnd) {
            return count;
        }
    }
}

int CVEKSocketNew::Peek(char* buf, size_t len) {
    if (ssl_ != nullptr) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "invalid function call...SSL connection invalid!");
        return VEK_SOCKET_BROKEN;
    }
    return RecvFlags(buf, len, MSG_PEEK);
}

bool CVEKSocketNew::Skip(size_t len) {
    char chunk[DELIMITED_CHUNK_SIZE];
    while (len > 0) {
        const int received = RecvOnce(chunk, std::min(len, sizeof chunk));
        if (received == 0 || received == VEK_SOCKET_BROKEN) {
            return false;
        }
        len -= static_cast<size_t>(std::max(received, 0));
    }
    return true;
}

int CVEKSocketNew::SendOnce(const char* buf, size_t len) {
    ssize_t sent = 0;
    do {
        sent = send(fd_, buf, std::min<size_t>(len, INT_MAX), MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    if (sent >= 0) {
        return static_cast<int>(sent);
    }
    if (IsWouldBlock(errno)) {
        VEK_PEER_LOG(VEK_LOG_INFO, "EAGAIN...");
        return VEK_SOCKET_AGAIN;
    }
    VEK_SYSTEM_CALL_LOG("send() failed!..");
    return VEK_SOCKET_BROKEN;
}

int CVEKSocketNew::SendLoop(const char* buf, size_t len) {
    len = std::min<size_t>(len, INT_MAX);
    size_t total = 0;
    while (total < len) {
        const ssize_t sent = send(fd_, buf + total, len - total, MSG_NOSIGNAL);
        if (sent >= 0) {
            total += static_cast<size_t>(sent);
        } else if (IsWouldBlock(errno)) {
            break;
        } else if (errno != EINTR) {
            VEK_SYSTEM_CALL_LOG("send() failed!..");
            return VEK_SOCKET_BROKEN;
        }
    }
    return static_cast<int>(total);
}

int CVEKSocketNew::RecvOnce(char* buf, size_t len) {
    const int received = RecvFlags(buf, len, 0);
    isDrained_ = received < 0 || static_cast<size_t>(received) < len;
    return received;
}

// One system call with recv's flags. Results as of RecvOnce.
int CVEKSocketNew::RecvFlags(char* buf, size_t len, int flags) const {
    ssize_t received = 0;
    do {
        received = recv(fd_, buf, std::min<size_t>(len, INT_MAX), flags);
    } while (received < 0 && errno == EINTR);
    if (received >= 0) {
        return static_cast<int>(received);
    }
    if (IsWouldBlock(errno)) {
        return VEK_SOCKET_AGAIN;
    }
    VEK_SYSTEM_CALL_LOG("recv() failed!..");
    return VEK_SOCKET_BROKEN;
}

int CVEKSocketNew::RecvLoop(char* buf, size_t len) {
    len = std::min<size_t>(len, INT_MAX);
    const auto start = std::chrono::system_clock::now();
    size_t total = 0;
    while (total < len) {
        const ssize_t received = recv(fd_, buf + total, len - total, 0);
        if (received == 0) {
            break;
        }
        if (received > 0) {
            total += static_cast<size_t>(received);
        } else if (IsWouldBlock(errno)) {
            if (std::chrono::system_clock::now() - start >= RECV_LOOP_GRACE) {
                break;
            }
            usleep(RECV_LOOP_PAUSE_US);
        } else if (errno != EINTR) {
            VEK_SYSTEM_CALL_LOG("recv() failed!..");
            return VEK_SOCKET_BROKEN;
        }
    }
    isDrained_ = total < len;
    return static_cast<int>(total);
}

int CVEKSocketNew::Select(int sec, int usec) {
    return SELECT(fd_, sec, usec);
}

bool CVEKSocketNew::InitCompress(size_t size) {
    FreeCompressBuffer();
    if (size <= INT_MAX - COMPRESS_HEADER_SIZE) {
        compressBuffer_ = static_cast<char*>(malloc(size + COMPRESS_HEADER_SIZE));
    }
    if (compressBuffer_ == nullptr) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "memory allocate failed!..");
        return false;
    }
    compressBufferSize_ = static_cast<int>(size) + COMPRESS_HEADER_SIZE;
    return true;
}

int CVEKSocketNew::CompressSend(const char* buf, size_t len) {
    const int capacity = compressBufferSize_ - COMPRESS_HEADER_SIZE;
    if (capacity < 0 || static_cast<size_t>(capacity) < len) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "compress buffer does not initialized or overflow!..");
        return FRAMING_FAILURE;
    }
    const int length = static_cast<int>(len);
    const int compressed =
        CVEKUtil::LZ4_Compress(buf, length, compressBuffer_ + COMPRESS_HEADER_SIZE, capacity);
    if (compressed <= 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "compress failed...");
        return FRAMING_FAILURE;
    }
    const CompressHeader header = {length, compressed};
    memcpy(compressBuffer_, &header, sizeof header);
    const int frameSize = compressed + COMPRESS_HEADER_SIZE;
    return Send(compressBuffer_, static_cast<size_t>(frameSize)) == frameSize ? length
                                                                              : FRAMING_FAILURE;
}

int CVEKSocketNew::DecompressRecv(char* buf, size_t bufLen) {
    CompressHeader header{};
    if (!RecvExactly(&header.length, sizeof header.length) ||
        !RecvExactly(&header.compressedLength, sizeof header.compressedLength)) {
        return FRAMING_FAILURE;
    }
    const auto [length, compressed] = header;
    if (length < 0 || static_cast<size_t>(length) > bufLen || compressed < 0 ||
        compressed > compressBufferSize_) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "compress buffer not initialized or overflow!");
        return FRAMING_FAILURE;
    }
    if (!RecvExactly(compressBuffer_, compressed)) {
        return FRAMING_FAILURE;
    }
    if (CVEKUtil::LZ4_Decompress(compressBuffer_, compressed, buf, length) != length) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "decompress failed...");
        return FRAMING_FAILURE;
    }
    return length;
}

bool CVEKSocketNew::RecvExactly(void* buf, int len) {
    // Nothing wanted is nothing read: a read of no bytes would wait for some.
    return len == 0 || Recv(static_cast<char*>(buf), static_cast<size_t>(len)) == len;
}

bool CVEKSocketNew::EnableDump(const char* path, const char* name, int maxFileSize,
                               const char* srcIP, const char* destIP,
                               const VEK_ST_DUMP_OPTIONS& options) {
    DisableDump();  // first: the new file may have the same name
    pcap_.reset(new (std::nothrow) CVEKPCAPDump());
    if (pcap_ == nullptr) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "memory allocate failed!..");
        return false;
    }
    pcap_->SetWholePackets(options.isWhole_);
    pcap_->SetOwnerOnly(options.hasTLS_);
    isTLSDumped_ = options.hasTLS_;
    if (!pcap_->Initialize(path, name, maxFileSize, srcIP, destIP)) {
        DisableDump();
        return false;
    }
    return true;
}

void CVEKSocketNew::DisableDump() {
    pcap_.reset();
}
