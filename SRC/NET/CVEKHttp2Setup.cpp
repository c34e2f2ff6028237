#include "CVEKHttp2Setup.h"

#include <nghttp2/nghttp2.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <string>

#include "VEKServiceLog.h"
#include "VEKSocketWait.h"
#include "VEKText.h"
#include "VEKTlsConnection.h"

namespace {

using Clock = VEK_HTTP2_STEP_CLOCK;
using std::chrono::microseconds;

constexpr size_t PREFACE_SIZE = NGHTTP2_CLIENT_MAGIC_LEN;

// The peer will send no more.
bool IsHungUp(int fd) {
    return VEK_WAIT_SOCKET(fd, POLLRDHUP, microseconds::zero()) > 0;
}

// Lets the descriptor be readable only from so many bytes on.
void SetReadableFrom(int fd, size_t bytes) {
    const int value = static_cast<int>(bytes);
    setsockopt(fd, SOL_SOCKET, SO_RCVLOWAT, &value, sizeof value);
}

}  // namespace

CVEKHttp2Setup::CVEKHttp2Setup(CVEKSocketNew& transport, const char* name)
    : transport_(transport), name_(name) {}

bool CVEKHttp2Setup::SetPeer(const char* name, const char* host, int port) {
    try {
        peer_ = name == nullptr ? "" : name;
        target_ = std::string(host) + ":" + std::to_string(port);
    } catch (const std::bad_alloc&) {
        FailMemory();
        return false;
    }
    return true;
}

bool CVEKHttp2Setup::StartConnect(const addrinfo* list, SSL_CTX* ctx) {
    ctx_ = ctx;
    mode_ = VEK_SOCKET_MODE_CONNECT;
    try {
        for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
            Address address = {
                entry->ai_family, entry->ai_socktype, entry->ai_protocol, entry->ai_addrlen, {}};
            if (entry->ai_addrlen <= sizeof address.address) {
                memcpy(&address.address, entry->ai_addr, entry->ai_addrlen);
                addresses_.push_back(address);
            }
        }
    } catch (const std::bad_alloc&) {
        FailMemory();
        return false;
    }
    if (addresses_.empty()) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) no address to connect to...", name_);
        Fail(VEK_HTTP2_SETUP_STAGE_RESOLVE, "no address");
        return false;
    }
    start_ = Clock::now();
    connectDeadline_ = start_ + limits_.connect_;
    state_ = State::CONNECT;
    return ConnectNext() != VEK_HTTP2_STEP_FAILED;
}

bool CVEKHttp2Setup::StartConnected(int fd, SSL_CTX* ctx) {
    return TakeOver(fd, ctx, VEK_SOCKET_MODE_CONNECT) && BeginTLS() != VEK_HTTP2_STEP_FAILED;
}

bool CVEKHttp2Setup::StartAccepted(int fd, SSL_CTX* ctx) {
    return TakeOver(fd, ctx, VEK_SOCKET_MODE_ACCEPT) && BeginTLS() != VEK_HTTP2_STEP_FAILED;
}

bool CVEKHttp2Setup::StartDetect(int fd) {
    if (!TakeOver(fd, nullptr, VEK_SOCKET_MODE_ACCEPT)) {
        return false;
    }
    deadline_ = Clock::now() + limits_.firstBytes_;
    state_ = State::FIRST_BYTES;
    return true;
}

bool CVEKHttp2Setup::TakeOver(int fd, SSL_CTX* ctx, int mode) {
    ctx_ = ctx;
    mode_ = mode;
    transport_.SetFD(fd, nullptr, 0);
    if (!CVEKSocketNew::SET_NONBLOCK(fd)) {  // logging leaves errno as it is
        Fail(VEK_HTTP2_SETUP_STAGE_CONNECT, "descriptor cannot be made non-blocking", errno);
        return false;
    }
    CVEKSocketNew::SET_NODELAY(fd);
    return true;
}

int CVEKHttp2Setup::AdvanceTransport() {
    int result = VEK_HTTP2_STEP_DONE;
    try {
        while (state_ < State::READY && result == VEK_HTTP2_STEP_DONE) {
            result = Step();
        }
    } catch (const std::bad_alloc&) {
        return FailMemory();
    }
    return state_ == State::FAILED ? VEK_HTTP2_STEP_FAILED : result;
}

// Goes through one state; done means that the next one has begun.
int CVEKHttp2Setup::Step() {
    switch (state_) {
        case State::CONNECT:
            return AwaitConnect();
        case State::HANDSHAKE:
            return AdvanceTLS();
        case State::FIRST_BYTES:
            return DetectProtocol();
        default:
            return VEK_HTTP2_STEP_FAILED;
    }
}

// Returns WAIT while one is being connected to, FAILED when none is left.
int CVEKHttp2Setup::ConnectNext() {
    while (nextAddress_ < addresses_.size()) {
        const Clock::time_point now = Clock::now();
        const auto left = std::max(connectDeadline_ - now, Clock::duration::zero());
        deadline_ = now + left / (addresses_.size() - nextAddress_);
        if (BeginAddress(addresses_[nextAddress_++])) {
            return VEK_HTTP2_STEP_WAIT;
        }
    }
    const int error = failure_.errno_;
    return error == ETIMEDOUT ? Fail(VEK_HTTP2_SETUP_STAGE_TIME, "connect timeout", error)
                              : Fail(VEK_HTTP2_SETUP_STAGE_CONNECT, "connect failed", error);
}

bool CVEKHttp2Setup::BeginAddress(const Address& address) {
    const int fd =
        socket(address.family, address.type | SOCK_NONBLOCK | SOCK_CLOEXEC, address.protocol);
    if (fd < 0) {
        failure_.errno_ = errno;
        if (nextAddress_ == addresses_.size()) {  // else the host may just lack this family
            VEK_SYSTEM_CALL_LOG("socket() failed!..");
        }
        return false;
    }
    transport_.SetFD(fd, nullptr, 0);
    const auto* peer = reinterpret_cast<const sockaddr*>(&address.address);
    if (connect(fd, peer, address.length) == 0 || errno == EINPROGRESS || errno == EINTR) {
        return true;
    }
    DropAddress(errno);
    return false;
}

void CVEKHttp2Setup::DropAddress(int error) {
    errno = error;
    VEK_SYSTEM_CALL_LOG("connect() failed!..");
    failure_.errno_ = error;
    transport_.SetFD(-1, nullptr, 0);
}

int CVEKHttp2Setup::AwaitConnect() {
    const int fd = transport_.GetSocket();
    int error = ETIMEDOUT;
    if (VEK_WAIT_SOCKET(fd, POLLOUT, microseconds::zero()) > 0) {
        socklen_t length = sizeof error;
        getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length);
    } else if (!VEK_HTTP2_IS_LATE(deadline_)) {
        return VEK_HTTP2_STEP_WAIT;
    }
    if (error != 0) {
        DropAddress(error);
        return ConnectNext();
    }
    failure_.errno_ = 0;
    times_.tcpUs_ = VEK_MICROS_SINCE(start_);
    CVEKSocketNew::SET_NODELAY(fd);
    return BeginTLS();
}

int CVEKHttp2Setup::BeginTLS() {
    if (ctx_ == nullptr) {
        state_ = State::READY;
        return VEK_HTTP2_STEP_DONE;
    }
    start_ = Clock::now();
    deadline_ = start_ + limits_.handshake_;
    state_ = State::HANDSHAKE;
    const char* failed = "handshake cannot be started";
    try {
        return transport_.StartTLS(ctx_, mode_) &&
                       (target_.empty() || transport_.SetTLSPeer(peer_.c_str(), target_.c_str()))
                   ? VEK_HTTP2_STEP_DONE
                   : FailTLS(VEK_HTTP2_SETUP_STAGE_TLS, failed);
    } catch (const std::bad_alloc&) {
        return FailMemory();
    }
}

int CVEKHttp2Setup::AdvanceTLS() {
    switch (transport_.AdvanceTLS()) {
        case VEK_SOCKET_TLS_DONE:
            times_.tlsUs_ = VEK_MICROS_SINCE(start_);
            state_ = State::READY;
            return VEK_HTTP2_STEP_DONE;
        case VEK_SOCKET_TLS_WAIT:
            break;
        case VEK_SOCKET_TLS_NO_H2:
            return FailTLS(VEK_HTTP2_SETUP_STAGE_ALPN, "h2 not agreed");
        default:
            return FailTLS(VEK_HTTP2_SETUP_STAGE_TLS, "handshake failed");
    }
    if (!VEK_HTTP2_IS_LATE(deadline_)) {
        return VEK_HTTP2_STEP_WAIT;
    }
    transport_.ExpireTLS();
    return FailTLS(VEK_HTTP2_SETUP_STAGE_TIME, "handshake timeout");
}

// `text`: where the transport has no explanation.
int CVEKHttp2Setup::FailTLS(VEK_HTTP2_SETUP_STAGE stage, const char* text) {
    const VEK_ST_TLS_FAILURE* failure = transport_.GetTLSFailure();
    failure_.tlsCause_ = failure == nullptr ? VEK_TLS_CAUSE_OTHER : failure->cause_;
    if (failure_.tlsCause_ == VEK_TLS_CAUSE_NO_H2) {
        stage = VEK_HTTP2_SETUP_STAGE_ALPN;  // an alert may have said so in the midst of it
    }
    return failure == nullptr ? Fail(stage, text)
                              : Fail(stage, failure->text_.c_str(), failure->systemError_);
}

int CVEKHttp2Setup::DetectProtocol() {
    const int fd = transport_.GetSocket();
    const bool isAll = IsHungUp(fd);  // asked first: what came before is there to be seen
    char bytes[PREFACE_SIZE];
    const int seen = transport_.Peek(bytes, sizeof bytes);
    if (seen == VEK_SOCKET_BROKEN) {
        return Fail(VEK_HTTP2_SETUP_STAGE_UPGRADE, "first bytes cannot be read");
    }
    const size_t size = seen == VEK_SOCKET_AGAIN ? 0 : static_cast<size_t>(seen);
    isUpgradeExpected_ = memcmp(bytes, NGHTTP2_CLIENT_MAGIC, size) != 0;
    if (isUpgradeExpected_ || size == PREFACE_SIZE) {
        SetReadableFrom(fd, 1);
        state_ = State::READY;
        return VEK_HTTP2_STEP_DONE;
    }
    if (seen == 0 || isAll) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) closed before its first bytes!..", name_);
        return Fail(VEK_HTTP2_SETUP_STAGE_UPGRADE, "closed before its first bytes");
    }
    if (VEK_HTTP2_IS_LATE(deadline_)) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) first bytes timeout!..", name_);
        return Fail(VEK_HTTP2_SETUP_STAGE_TIME, "first bytes timeout");
    }
    // The bytes stay in the socket, so it would be readable all the time.
    SetReadableFrom(fd, size + 1);
    return VEK_HTTP2_STEP_WAIT;
}

bool CVEKHttp2Setup::StartClientUpgrade(const char* host, const VEK_ST_HTTP2_OPTIONS& options) {
    client_.emplace(transport_, name_);
    state_ = State::CLIENT;
    if (client_->Start(host, options, limits_.upgrade_)) {
        return true;
    }
    Fail(VEK_HTTP2_SETUP_STAGE_UPGRADE, client_->GetReason());
    return false;
}

void CVEKHttp2Setup::StartServerUpgrade() {
    server_.emplace(transport_, name_);
    server_->Start(limits_.upgrade_);
    state_ = State::SERVER;
}

int CVEKHttp2Setup::AdvanceUpgrade() {
    switch (state_) {
        case State::CLIENT:
            return Follow(*client_);
        case State::SERVER:
            return Follow(*server_);
        default:
            return state_ == State::OVER ? VEK_HTTP2_STEP_DONE : VEK_HTTP2_STEP_FAILED;
    }
}

template <class UPGRADE>
int CVEKHttp2Setup::Follow(UPGRADE& upgrade) {
    const int result = upgrade.Advance();
    if (result == VEK_HTTP2_STEP_FAILED) {
        return Fail(
            upgrade.IsTimeout() ? VEK_HTTP2_SETUP_STAGE_TIME : VEK_HTTP2_SETUP_STAGE_UPGRADE,
            upgrade.GetReason());
    }
    if (result == VEK_HTTP2_STEP_DONE) {
        state_ = State::OVER;
    }
    return result;
}

short CVEKHttp2Setup::GetEvents() const {
    switch (state_) {
        case State::CONNECT:
            return POLLOUT;
        case State::HANDSHAKE:
            return transport_.GetTLSEvents();
        case State::CLIENT:
            return client_->GetEvents();
        case State::SERVER:
            return server_->GetEvents();
        default:
            return POLLIN;
    }
}

VEK_HTTP2_DEADLINE CVEKHttp2Setup::GetDeadline() const {
    switch (state_) {
        case State::CLIENT:
            return client_->GetDeadline();
        case State::SERVER:
            return server_->GetDeadline();
        default:
            return deadline_;
    }
}

bool CVEKHttp2Setup::Run(int (CVEKHttp2Setup::*advance)()) {
    for (;;) {
        const int result = (this->*advance)();
        if (result != VEK_HTTP2_STEP_WAIT) {
            return result == VEK_HTTP2_STEP_DONE;
        }
        const auto left = std::chrono::ceil<microseconds>(GetDeadline() - Clock::now());
        if (VEK_WAIT_SOCKET(transport_.GetSocket(), GetEvents(),
                            std::max(left, microseconds::zero())) < 0 &&
            errno != EINTR) {
            const int error = errno;
            VEK_SYSTEM_CALL_LOG("select() failed...");
            Fail(StageOfState(), "select() failed", error);
            return false;
        }
    }
}

VEK_HTTP2_SETUP_STAGE CVEKHttp2Setup::StageOfState() const {
    switch (state_) {
        case State::IDLE:
        case State::CONNECT:
            return VEK_HTTP2_SETUP_STAGE_CONNECT;
        case State::HANDSHAKE:
            return VEK_HTTP2_SETUP_STAGE_TLS;
        default:
            return VEK_HTTP2_SETUP_STAGE_UPGRADE;
    }
}

int CVEKHttp2Setup::Fail(VEK_HTTP2_SETUP_STAGE stage, const char* text, int error) {
    failure_.part_ = StageOfState();
    state_ = State::FAILED;
    failure_.stage_ = stage;
    failure_.errno_ = error;
    VEK_COPY_TEXT(failure_.text_, text);
    return VEK_HTTP2_STEP_FAILED;
}

int CVEKHttp2Setup::FailMemory() {
    VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) memory allocate failed...", name_);
    return Fail(StageOfState(), "memory allocate failed", ENOMEM);
}
