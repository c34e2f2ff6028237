#include "CVEKHttpListener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

#include "CVEKHttpServerCore.h"
#include "CVEKTlsContext.h"
#include "VEKHttpAddressText.h"
#include "VEKTlsOption.h"

namespace {

constexpr int BATCH = 256;          // accepted in a row, before other work has its turn
constexpr uint64_t PAUSE_MS = 100;  // when descriptors have run out

VEK_ST_HTTP_FAILURE Fail(VEK_HTTP_REASON reason, std::string text) {
    VEK_ST_HTTP_FAILURE failure;
    failure.reason_ = reason;
    failure.text_ = std::move(text);
    return failure;
}

VEK_ST_HTTP_FAILURE FailSystem(const char* call) {
    return Fail(VEK_HTTP_REASON::SYSTEM, std::string(call) + ": " + strerror(errno));
}

void SetOption(int fd, int level, int option, int value) {
    setsockopt(fd, level, option, &value, sizeof value);
}

// Removes a socket that a server has left at the path. Anything else there stays, and so does the
// socket of one that listens or may listen.
void RemoveLeft(const sockaddr_un& address) {
    struct stat status {};
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const bool isLeft =
        connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
        errno == ECONNREFUSED;
    if (isLeft && lstat(address.sun_path, &status) == 0 && S_ISSOCK(status.st_mode)) {
        unlink(address.sun_path);
    }
    if (fd >= 0) {
        close(fd);
    }
}

}  // namespace

CVEKHttpListener::~CVEKHttpListener() {
    Close();
}

VEK_ST_HTTP_FAILURE CVEKHttpListener::Open(const VEK_ST_HTTP_LISTENER& options) {
    std::string error;
    if (!MakeContext(options, error)) {
        return Fail(VEK_HTTP_REASON::TLS, error);
    }
    VEK_ST_HTTP_FAILURE failure =
        options.unixPath_.empty() ? OpenAddress(options) : OpenUnix(options.unixPath_);
    if (!failure && listen(fd_, SOMAXCONN) != 0) {
        failure = FailSystem("listen");
    }
    return failure;
}

bool CVEKHttpListener::MakeContext(const VEK_ST_HTTP_LISTENER& options, std::string& error) {
    context_ = options.context_;
    if (context_ != nullptr || options.tls_ == nullptr) {
        return true;
    }
    auto made = std::make_shared<CVEKTlsContext>();
    if (!made->CreateServer(*options.tls_, error)) {
        return false;
    }
    context_ = std::shared_ptr<SSL_CTX>(made, made->GetContext());
    return true;
}

VEK_ST_HTTP_FAILURE CVEKHttpListener::OpenUnix(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        return Fail(VEK_HTTP_REASON::INVALID, "path of the Unix socket is too long");
    }
    memcpy(address.sun_path, path.c_str(), path.size());
    RemoveLeft(address);
    VEK_ST_HTTP_FAILURE failure =
        Bind(reinterpret_cast<const sockaddr*>(&address), sizeof address, false);
    if (!failure) {
        unixPath_ = path;
    }
    return failure;
}

VEK_ST_HTTP_FAILURE CVEKHttpListener::OpenAddress(const VEK_ST_HTTP_LISTENER& options) {
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_port = htons(options.port_);
    sockaddr_in6 v6{};
    v6.sin6_family = AF_INET6;
    v6.sin6_port = htons(options.port_);
    const std::string& text = options.address_;
    if (inet_pton(AF_INET, text.c_str(), &v4.sin_addr) == 1) {
        return Bind(reinterpret_cast<sockaddr*>(&v4), sizeof v4, false);
    }
    if (!text.empty() && inet_pton(AF_INET6, text.c_str(), &v6.sin6_addr) != 1) {
        return Fail(VEK_HTTP_REASON::INVALID, "\"" + text + "\" is no address");
    }
    VEK_ST_HTTP_FAILURE failure =
        Bind(reinterpret_cast<sockaddr*>(&v6), sizeof v6, options.isV6Only_);
    if (failure && text.empty() && fd_ < 0) {  // a host without IPv6
        failure = Bind(reinterpret_cast<sockaddr*>(&v4), sizeof v4, false);
    }
    return failure;
}

VEK_ST_HTTP_FAILURE CVEKHttpListener::Bind(const sockaddr* address, socklen_t length,
                                           bool isV6Only) {
    fd_ = socket(address->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0) {
        return FailSystem("socket");
    }
    SetOption(fd_, SOL_SOCKET, SO_REUSEADDR, 1);
    if (address->sa_family == AF_INET6) {
        SetOption(fd_, IPPROTO_IPV6, IPV6_V6ONLY, isV6Only ? 1 : 0);
    }
    return bind(fd_, address, length) == 0 ? VEK_ST_HTTP_FAILURE() : FailSystem("bind");
}

uint16_t CVEKHttpListener::GetPort() const {
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length);
    switch (address.ss_family) {
        case AF_INET:
            return ntohs(reinterpret_cast<const sockaddr_in&>(address).sin_port);
        case AF_INET6:
            return ntohs(reinterpret_cast<const sockaddr_in6&>(address).sin6_port);
        default:
            return 0;
    }
}

bool CVEKHttpListener::Start() {
    poll_ = CVEKLoopPoll::Open(
        *loop_, fd_, [](void* owner, int, int) { static_cast<CVEKHttpListener*>(owner)->Accept(); },
        this);
    return poll_ != nullptr && poll_->Watch(UV_READABLE);
}

void CVEKHttpListener::Close() {
    loop_->Disarm(*this);
    if (poll_ != nullptr) {
        std::exchange(poll_, nullptr)->Close();
    }
    if (fd_ >= 0) {
        if (!unixPath_.empty()) {
            unlink(unixPath_.c_str());  // while it is ours
        }
        close(std::exchange(fd_, -1));
    }
}

void CVEKHttpListener::Accept() {
    for (int i = 0; i < BATCH; ++i) {
        sockaddr_storage peer{};
        socklen_t length = sizeof peer;
        const int fd =
            accept4(fd_, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            switch (errno) {
                case EMFILE:
                case ENFILE:
                case ENOMEM:
                case ENOBUFS:
                    Pause();
                    return;
                case EAGAIN:
                    return;
                default:  // the connection has failed before it was accepted
                    continue;
            }
        }
        if (!Hand(fd, peer)) {
            Pause();
            return;
        }
    }
}

// False, with the descriptor closed, when memory has run out.
bool CVEKHttpListener::Hand(int fd, const sockaddr_storage& peer) {
    std::string address;
    std::string name;
    try {
        name = unixPath_;
        VEK_HTTP_WRITE_ADDRESS(peer, address, name);
    } catch (const std::bad_alloc&) {
        close(fd);
        return false;
    }
    server_.Take(fd, context_.get(), std::move(name), std::move(address));
    return true;
}

void CVEKHttpListener::Pause() {
    server_.NotePause();
    poll_->Watch(0);
    loop_->Arm(*this, loop_->GetNow() + PAUSE_MS);
}

void CVEKHttpListener::OnTimer() {
    poll_->Watch(UV_READABLE);
}
