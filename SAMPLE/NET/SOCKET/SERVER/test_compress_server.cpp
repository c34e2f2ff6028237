// Takes compressed messages and sends each back, over TCP or SCTP: the receiving example of
// CVEKSocketNew's framing. Each peer has a thread, and no more time than the limit for a message.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <list>
#include <memory>
#include <new>
#include <string>
#include <system_error>
#include <thread>

#include "NET/SOCKET/CompressSample.h"
#include "VEKServiceLog.h"
#include "VEKStandardStream.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t MAX_PEERS = 64;  // at once; more wait in the listener's queue
constexpr int LOOK_US = 100000;   // how often the peers' time is looked at

CompressOptions G_OPTIONS;

void Help(FILE* stream, const char* program) {
    fprintf(stream,
            "usage: %s -p port [-b bytes] [-t limit] [-s]\n"
            "  -p port   port to listen on, 0 for any free one (it is printed)\n"
            "  -b bytes  largest message, up to %d (%d)\n"
            "  -t limit  seconds for the next message to come and its echo to go (%d)\n"
            "  -s        SCTP instead of TCP\n"
            "example: %s -p 7000\n",
            program, MAX_MESSAGE_SIZE, DEFAULT_MESSAGE_SIZE, DEFAULT_LIMIT_SECONDS, program);
}

bool ParseArg(int argc, char** argv) {
    return ParseOptions(argc, argv, "p:b:t:s",
                        [](int option, const char* argument) {
                            return ParseCompressOption(option, argument, 0, G_OPTIONS);
                        }) &&
           optind == argc && G_OPTIONS.port >= 0;
}

int LocalPort(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

// A peer and the thread that serves it. The descriptor is closed with the object, behind the
// thread: until then it is nobody else's.
class Peer {
  public:
    Peer(int fd, const char* ip) : fd_(fd), ip_(ip), start_(Clock::now()) {}
    ~Peer() {
        if (thread_.joinable()) {
            shutdown(fd_, SHUT_RDWR);
            thread_.join();
        } else {
            close(fd_);
        }
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    // False when the system has no thread for it.
    bool Start() {
        try {
            thread_ = std::thread([this] { Serve(); });
        } catch (const std::system_error& error) {
            fprintf(stderr, "%s: cannot be served: %s\n", ip_.c_str(), error.what());
            return false;
        }
        return true;
    }
    bool IsOver() const { return isOver_; }
    // Ends a peer whose message has taken too long: byte by byte it would last for ever.
    void EndWhenLate(Clock::time_point now) {
        if (now - start_.load() > std::chrono::seconds(G_OPTIONS.limitSeconds)) {
            shutdown(fd_, SHUT_RDWR);
        }
    }

  private:
    // Echoes until the peer closes, is late or sends something else than messages.
    void Serve() {
        const auto size = static_cast<size_t>(G_OPTIONS.messageSize);
        const std::unique_ptr<char[]> message(new (std::nothrow) char[size]);
        const char* end = "no memory";
        if (SetUpSocket(socket_, fd_, G_OPTIONS) && message != nullptr) {
            end = "closed";
            while (IsMoreComing(end) && Echo(message.get(), size, end)) {
                start_ = Clock::now();
            }
        }
        const bool isLate =
            Clock::now() - start_.load() >= std::chrono::seconds(G_OPTIONS.limitSeconds);
        printf("%s: %ld messages, %ld bytes, %s\n", ip_.c_str(), messages_, bytes_,
               isLate ? "too slow" : end);
        fflush(stdout);
        shutdown(fd_, SHUT_RDWR);
        isOver_ = true;
    }

    // Waits for the next byte and leaves it where it is. False when the peer has closed.
    bool IsMoreComing(const char*& end) const {
        char byte = 0;
        const ssize_t count = recv(fd_, &byte, 1, MSG_PEEK);
        end = count < 0 ? "broken" : end;
        return count > 0;
    }

    bool Echo(char* message, size_t size, const char*& end) {
        const int length = socket_.DecompressRecv(message, size);
        if (length < 0) {
            end = "refused: not a message, or too large";
            return false;
        }
        if (socket_.CompressSend(message, static_cast<size_t>(length)) != length) {
            end = "broken";
            return false;
        }
        ++messages_;
        bytes_ += length;
        return true;
    }

    const int fd_;
    const std::string ip_;
    CVEKSocketNew socket_;                  // has the descriptor once the thread runs
    std::atomic<Clock::time_point> start_;  // of the message that is under way, or awaited
    std::atomic<bool> isOver_{false};
    long messages_ = 0;
    long bytes_ = 0;
    std::thread thread_;
};

// Whether the next accept may succeed: a peer has given up, or the system is short of something.
bool IsPassing(int error) {
    return error == ECONNABORTED || error == EMFILE || error == ENFILE || error == ENOMEM ||
           error == ENOBUFS;
}

// Accepts the next peer, if one comes soon. False when no more can be accepted.
bool AcceptNext(int listenFd, std::list<Peer>& peers) {
    if (peers.size() >= MAX_PEERS) {
        usleep(LOOK_US);
        return true;
    }
    char ip[VEK_SOCKET_IP_TEXT_SIZE] = "";
    const int fd = CVEKSocketNew::ACCEPT(listenFd, LOOK_US, ip, nullptr);
    if (fd > 0 && !peers.emplace_back(fd, ip).Start()) {
        peers.pop_back();
    }
    if (fd < 0 && IsPassing(errno)) {
        usleep(LOOK_US);
        return true;
    }
    return fd >= 0;
}

int Run(const char* program) {
    const int listenFd =
        CVEKSocketNew::LISTEN(AF_INET, G_OPTIONS.protocol, G_OPTIONS.port, nullptr);
    if (listenFd < 0) {
        fprintf(stderr, "%s: cannot listen on port %d: %s\n", program, G_OPTIONS.port,
                strerror(errno));
        return 1;
    }
    printf("listening on port %d\n", LocalPort(listenFd));
    fflush(stdout);
    std::list<Peer> peers;
    while (AcceptNext(listenFd, peers)) {
        peers.remove_if([](const Peer& peer) { return peer.IsOver(); });
        for (Peer& peer : peers) {
            peer.EndWhenLate(Clock::now());
        }
    }
    fprintf(stderr, "%s: cannot accept: %s\n", program, strerror(errno));
    close(listenFd);
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    VEK_OPEN_STANDARD_STREAMS();
    if (AnswerQuestion(argc, argv, Help)) {
        return 0;
    }
    if (!ParseArg(argc, argv)) {
        Help(stderr, argv[0]);
        return 1;
    }
    VEK_OPEN_SERVICE_LOG(VEK_LOG_ERROR);
    const int result = Run(argv[0]);
    VEK_CLOSE_SERVICE_LOG();
    return result;
}
