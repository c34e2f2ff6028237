// The peer of a connection, as an input has it: a script of what it sends, in which pieces, and what
// the program at the connection does in between. No step waits for anything.
//
// A step is a byte: below 0x10 a frame of that type (flags, stream, length, payload), else one of the
// STEP_ values; any other is an action for the program.
#ifndef FUZZ_PEER_H
#define FUZZ_PEER_H

#include <netdb.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "VEKHttp2Option.h"
#include "VEKHttp2Policy.h"
#include "VEKServiceLog.h"
#include "defHttp2.h"

inline void Require(bool isTrue) { isTrue ? void() : abort(); }

// Reads what somebody was given: the sanitizer sees what is no longer there.
template <class TEXT>
void Touch(const TEXT& text) {
    volatile unsigned sum = 0;
    for (const char c : text) { sum = sum + static_cast<unsigned char>(c); }
}

template <class FIELDS>
void TouchFields(const FIELDS& fields) {
    for (const auto& [name, value] : fields) { Touch(name), Touch(value); }
}

// Lines are made, and go nowhere. What a peer says must not look like a line of its own.
inline void TakeLine(void*, int, const char*, const char* line, unsigned long length) {
    Require(G_VEK_HTTP2_DETAIL_LOG ||
            std::find_if(line, line + length, [](unsigned char c) { return iscntrl(c); }) == line + length - 1);
}

class FuzzPeer {
  public:
    // What each end must begin with.
    static inline const std::string SETTINGS{"\0\0\0\4\0\0\0\0\0", 9};
    static inline const std::string PREFACE = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + SETTINGS;
    static constexpr int STEP_BYTES = 0x10;  // length and bytes
    static constexpr int STEP_FLOOD = 0x11;  // a count and a frame
    static constexpr int STEP_PAUSE = 0x12;  // begins or ends to read what comes
    static constexpr int SENT = -1;
    static constexpr int END = -2;

    FuzzPeer(const uint8_t* data, size_t size) : next_(data), end_(data + size) {
        const uint8_t bits = Take();
        G_VEK_HTTP2_DETAIL_LOG = G_VEK_HTTP2_COLOR_LOG = (bits & 0x80) != 0;
        policy_.isGoawayGraceful_ = (bits & 0x01) != 0;
        policy_.isOffenceContained_ = (bits & 0x02) != 0;
        policy_.isInformationalSkipped_ = policy_.isRequestChecked_ = (bits & 0x04) != 0;
        policy_.hasTrailers_ = policy_.isUpgradeRequestTaken_ = (bits & 0x08) != 0;
        policy_.isStatusKept_ = (bits & 0x10) != 0;
        policy_.maxHeldBytes_ = (bits & 0x20) != 0 ? 100 : 0;
        policy_.maxBytesAfterGoaway_ = (bits & 0x40) != 0 ? 100 : 0;
    }
    ~FuzzPeer() {
        while (Accept()) {}
        SetFD(-1);
    }
    FuzzPeer(const FuzzPeer&) = delete;
    FuzzPeer& operator=(const FuzzPeer&) = delete;

    const VEK_ST_HTTP2_POLICY& GetPolicy() const { return policy_; }
    bool IsAtEnd() const { return next_ == end_; }
    uint8_t Take() { return IsAtEnd() ? 0 : *next_++; }
    std::string TakeText() {
        const size_t size = std::min<size_t>(Take(), static_cast<size_t>(end_ - next_));
        next_ += size;
        return {reinterpret_cast<const char*>(next_ - size), size};
    }

    // The other end of a new connection.
    int MakePair() {
        int fds[2];
        Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds) == 0);
        SetFD(fds[0]);
        return fds[1];
    }
    // Where connections come in, without a file; Accept takes the next one.
    static std::string GetPath() { return std::string(1, '\0') + "fuzz" + std::to_string(getpid()); }
    static addrinfo GetAddress() {
        static sockaddr_un address{};
        address.sun_family = AF_UNIX;
        GetPath().copy(address.sun_path, sizeof address.sun_path);
        addrinfo info{};
        info.ai_family = AF_UNIX;
        info.ai_socktype = SOCK_STREAM;
        info.ai_addr = reinterpret_cast<sockaddr*>(&address);
        info.ai_addrlen = sizeof address;
        return info;
    }
    bool Accept() {
        const int fd = listener_ < 0 ? -1 : accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK);
        if (fd >= 0) { SetFD(fd); }
        return fd >= 0;
    }
    static void Listen() {
        const addrinfo info = GetAddress();
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        Require(bind(listener_, info.ai_addr, info.ai_addrlen) == 0 && listen(listener_, SOMAXCONN) == 0);
    }

    void Send(const std::string& bytes) {
        char buffer[65536];
        while (isReading_ && recv(fd_, buffer, sizeof buffer, 0) > 0) {}
        send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    }
    // Goes on by a step. Returns SENT, END once the peer has closed, or the action.
    int Step() {
        if (IsAtEnd()) { return shutdown(fd_, SHUT_RDWR), END; }
        const int step = Take();
        if (step < STEP_BYTES) {
            Send(TakeFrame(step));
        } else if (step == STEP_BYTES) {
            Send(TakeText());
        } else if (step == STEP_FLOOD) {
            std::string frames;
            const int count = Take();
            const std::string frame = TakeFrame(Take());
            for (int i = 0; i < count; ++i) { frames += frame; }
            Send(frames);
        } else if (step == STEP_PAUSE) {
            isReading_ = !isReading_;
        } else {
            return step;
        }
        return SENT;
    }

  private:
    void SetFD(int fd) {
        if (fd_ >= 0) { close(fd_); }
        fd_ = fd;
    }
    std::string TakeFrame(int type) {
        const char flags = static_cast<char>(Take()), stream = static_cast<char>(Take());
        const std::string payload = TakeText();
        return std::string(2, '\0') + static_cast<char>(payload.size()) + static_cast<char>(type) + flags +
               std::string(3, '\0') + stream + payload;
    }

    const uint8_t* next_;
    const uint8_t* const end_;
    VEK_ST_HTTP2_POLICY policy_;
    int fd_ = -1;
    bool isReading_ = true;
    static inline int listener_ = -1;
};

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    FuzzPeer::Listen();
    VEK_ST_SERVICE_LOG_OPTIONS options;
    options.sink_ = TakeLine;
    return VEK_SET_SERVICE_LOG_OPTIONS(options) == 1 && VEK_OPEN_SERVICE_LOG(VEK_LOG_ALL) == 1 ? 0 : 1;
}

#endif
