// The peer of a connection, as an input has it: a script of what it sends, in which pieces, and what
// the program at the connection does in between. No step waits for anything.
//
// A step is a byte: below 0x10 a frame of that type (flags, stream, length, payload); 0x10 bytes
// (length and bytes); 0x11 many frames (count and frame); 0x12 begins or ends to read what comes. Any
// other is an action for the program.
#ifndef FUZZ_PEER_H
#define FUZZ_PEER_H

#include <netdb.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include "Fuzz.h"
#include "VEKHttp2Option.h"
#include "VEKHttp2Policy.h"
#include "VEKServiceLog.h"

constexpr size_t BODY_SIZE = 64;

class FuzzPeer {
  public:
    // What each end must begin with.
    static inline const std::string SETTINGS{"\0\0\0\4\0\0\0\0\0", 9};
    static inline const std::string PREFACE = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + SETTINGS;
    static constexpr int SENT = -1, END = -2;

    FuzzPeer(const uint8_t* data, size_t size) : next_(data), end_(data + size), bits_(Take()) {
        G_VEK_HTTP2_DETAIL_LOG = G_VEK_HTTP2_COLOR_LOG = (bits_ & 0x80) != 0;
    }
    ~FuzzPeer() {
        while (Accept()) {}
        SetFD(-1);
    }
    FuzzPeer(const FuzzPeer&) = delete;
    FuzzPeer& operator=(const FuzzPeer&) = delete;

    static VEK_ST_HTTP2_OPTIONS MakeOptions() {
        VEK_ST_HTTP2_OPTIONS options;
        options.nMaxConcurrentStream_ = 4;
        options.nMaxPayloadSize_ = BODY_SIZE;
        options.nMaxHeaderTableSize_ = 4096;  // a smaller one is to be acknowledged in the next block
        return options;
    }
    VEK_ST_HTTP2_POLICY GetPolicy() const {
        VEK_ST_HTTP2_POLICY policy;
        policy.isGoawayGraceful_ = (bits_ & 0x01) != 0;
        policy.isOffenceContained_ = (bits_ & 0x02) != 0;
        policy.isInformationalSkipped_ = policy.isRequestChecked_ = (bits_ & 0x04) != 0;
        policy.hasTrailers_ = policy.isUpgradeRequestTaken_ = (bits_ & 0x08) != 0;
        policy.isStatusKept_ = (bits_ & 0x10) != 0;
        policy.maxHeldBytes_ = (bits_ & 0x20) != 0 ? 100 : 0;
        policy.maxBytesAfterGoaway_ = (bits_ & 0x40) != 0 ? 100 : 0;
        return policy;
    }
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
        static sockaddr_un address{AF_UNIX, {}};
        GetPath().copy(address.sun_path, sizeof address.sun_path);
        return {0, AF_UNIX, SOCK_STREAM, 0, sizeof address, reinterpret_cast<sockaddr*>(&address), nullptr, nullptr};
    }
    static void Listen() {
        const addrinfo info = GetAddress();
        listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        Require(bind(listener_, info.ai_addr, info.ai_addrlen) == 0 && listen(listener_, SOMAXCONN) == 0);
    }
    bool Accept() {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_NONBLOCK);
        if (fd >= 0) { SetFD(fd); }
        return fd >= 0;
    }

    // Returns SENT when something has left.
    int Send(const std::string& bytes) {
        char buffer[65536];
        while (isReading_ && recv(fd_, buffer, sizeof buffer, 0) > 0) {}
        return send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) > 0 ? SENT : 0;
    }
    // Goes on by a step. Returns SENT, END once the peer has closed, or the action; 0 is none.
    int Step() {
        if (IsAtEnd()) { return shutdown(fd_, SHUT_RDWR), END; }
        const int step = Take();
        switch (step) {
            case 0x10: return Send(TakeText());
            case 0x11: return SendMany();
            case 0x12: return isReading_ = !isReading_, 0;
            default: return step < 0x10 ? Send(TakeFrame(step)) : step;
        }
    }

  private:
    void SetFD(int fd) {
        close(fd_);
        fd_ = fd;
    }
    int SendMany() {
        int count = Take();
        const std::string frame = TakeFrame(Take());
        std::string frames;
        while (--count >= 0) { frames += frame; }
        return Send(frames);
    }
    std::string TakeFrame(int type) {
        const char flags = static_cast<char>(Take()), stream = static_cast<char>(Take());
        const std::string payload = TakeText();
        return std::string{0, 0, static_cast<char>(payload.size()), static_cast<char>(type), flags, 0, 0, 0, stream} +
               payload;
    }

    const uint8_t* next_;
    const uint8_t* const end_;
    const uint8_t bits_;
    int fd_ = -1;
    bool isReading_ = true;
    static inline int listener_ = -1;
};

// Lines are made, and go nowhere. What a peer says must not look like a line of its own.
// NOLINTNEXTLINE(misc-definitions-in-headers): a target has one source, and the fuzzer's start calls it
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    VEK_ST_SERVICE_LOG_OPTIONS options;
    options.sink_ = [](void*, int, const char*, const char* line, unsigned long length) {
        // Tabs and the ends of lines are the lines' own.
        const char* control =
            std::find_if(line, line + length, [](unsigned char c) { return iscntrl(c) && c != '\t'; });
        Require(G_VEK_HTTP2_DETAIL_LOG || std::all_of(control, line + length, [](char c) { return c == '\n'; }));
    };
    FuzzPeer::Listen();
    return VEK_SET_SERVICE_LOG_OPTIONS(options) == 1 && VEK_OPEN_SERVICE_LOG(VEK_LOG_ALL) == 1 ? 0 : 1;
}

#endif
