// Answers every request with its body, as the sample server does, but on the connection classes
// themselves, driven by an epoll loop of the least that does: what vekhttp costs shows beside it.
//   bench_echo key certificate
// It takes a free port and prints it as the sample server does. A signal ends it.
#include <netinet/in.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <unordered_map>

#include "CVEKHttp2Response.h"
#include "CVEKSocketNew.h"
#include "CVEKTlsContext.h"
#include "VEKHttp2Option.h"
#include "VEKServiceLog.h"
#include "VEKText.h"

namespace {

constexpr uint32_t MAX_PAYLOAD = 16384;
constexpr uint32_t CONNECTION_WINDOW = 1U << 30;
constexpr uint32_t HEADER_TABLE = 4096;
constexpr uint32_t MAX_STREAMS = 200;
constexpr int EVENTS_PER_WAIT = 64;

struct Session {
    CVEKHttp2Response connection;
    uint32_t watched = 0;
    bool isUp = false;
};

class EchoLoop {
  public:
    EchoLoop(SSL_CTX* context, int listenFd)
        : context_(context), listenFd_(listenFd), epfd_(epoll_create1(EPOLL_CLOEXEC)) {
        options_.nMaxConcurrentStream_ = MAX_STREAMS;
        options_.nMaxPayloadSize_ = MAX_PAYLOAD;
        options_.nMaxHeaderTableSize_ = HEADER_TABLE;
        options_.nLocalWindowSize_ = CONNECTION_WINDOW;
        Watch(EPOLL_CTL_ADD, listenFd, EPOLLIN);
    }
    ~EchoLoop() { close(epfd_); }
    EchoLoop(const EchoLoop&) = delete;
    EchoLoop& operator=(const EchoLoop&) = delete;

    // Returns when the wait fails.
    void Run() {
        epoll_event events[EVENTS_PER_WAIT];
        for (int count = 0; count >= 0; count = epoll_wait(epfd_, events, EVENTS_PER_WAIT, -1)) {
            for (int i = 0; i < count; ++i) {
                if (events[i].data.fd == listenFd_) {
                    Accept();
                } else {
                    OnEvent(events[i].data.fd);
                }
            }
        }
    }

  private:
    void Watch(int operation, int fd, uint32_t events) const {
        epoll_event event{};
        event.events = events;
        event.data.fd = fd;
        epoll_ctl(epfd_, operation, fd, &event);
    }

    void Accept() {
        const int fd = accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            return;
        }
        auto session = std::make_unique<Session>();
        CVEKHttp2Response& connection = session->connection;
        if (!connection.Initialize("echo", &options_)) {
            close(fd);
        } else if (connection.StartAccept(fd, "127.0.0.1", 0, context_, true)) {
            sessions_[fd] = std::move(session);
            OnEvent(fd);
        }
    }

    // A connection that has closed goes.
    void OnEvent(int fd) {
        const auto found = sessions_.find(fd);
        if (found != sessions_.end() && !Drive(fd, *found->second)) {
            sessions_.erase(found);
        }
    }

    bool Drive(int fd, Session& session) {
        if (!session.isUp) {
            switch (session.connection.Advance()) {
                case VEK_HTTP2_STEP_WAIT:
                    WatchFor(fd, session,
                             session.connection.GetWaitEvents() == POLLOUT ? EPOLLOUT : EPOLLIN);
                    return true;
                case VEK_HTTP2_STEP_DONE:
                    session.isUp = true;
                    break;
                default:
                    return false;
            }
        }
        if (!session.connection.ProcEvent() || !Answer(session)) {
            return false;
        }
        WatchFor(fd, session,
                 session.connection.IsSendBlocked() ? EPOLLIN | EPOLLOUT : uint32_t{EPOLLIN});
        return true;
    }

    void WatchFor(int fd, Session& session, uint32_t events) const {
        if (events != session.watched) {
            Watch(session.watched == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD, fd, events);
            session.watched = events;
        }
    }

    // Queues the answers and flushes once, with the last.
    bool Answer(Session& session) {
        VEK_ST_HTTP2_REQUEST_RECV request;
        int queued = 0;
        int result = 0;
        while ((result = session.connection.Request(&request)) == 1) {
            if (!request.hdr_->empty()) {  // else it was reset before its turn came
                queued += Queue(session, request) ? 1 : 0;
            }
        }
        for (; queued > 1; --queued) {
            if (session.connection.SendResponse() == -1) {
                return false;
            }
        }
        return result == 0 && (queued == 0 || session.connection.ProcEventPre() != -1);
    }

    bool Queue(Session& session, const VEK_ST_HTTP2_REQUEST_RECV& request) {
        response_.streamId_ = request.streamId_;
        VEK_COPY_TEXT(response_.rs_, "200");
        response_.hdr_.clear();
        for (const auto& [name, value] : *request.hdr_) {
            if (name == "content-type") {
                response_.hdr_.emplace_back(name, value);
            }
        }
        response_.payload_ = {request.size_, 0, const_cast<char*>(request.data_)};
        response_.error_ = 0;
        return session.connection.Response(&response_, false) == 1;
    }

    VEK_ST_HTTP2_OPTIONS options_{};
    SSL_CTX* context_;
    int listenFd_;
    int epfd_;
    std::unordered_map<int, std::unique_ptr<Session>> sessions_;
    VEK_ST_HTTP2_RESPONSE response_;
};

int PortOf(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s key certificate\n", argv[0]);
        return 2;
    }
    VEK_OPEN_SERVICE_LOG(VEK_LOG_ERROR);
    VEK_HTTP2_INIT();
    CVEKTlsContext context;
    VEK_ST_TLS_OPTIONS tls;
    tls.identities_ = {{argv[2], argv[1]}};
    std::string error;
    const int listenFd = CVEKSocketNew::LISTEN(AF_INET, 0, nullptr);
    if (!context.CreateServer(tls, error) || listenFd < 0) {
        fprintf(stderr, "%s: cannot start %s\n", argv[0], error.c_str());
        return 1;
    }
    CVEKSocketNew::SET_NONBLOCK(listenFd);
    listen(listenFd, SOMAXCONN);
    printf("listening on port %d\n", PortOf(listenFd));
    fflush(stdout);
    EchoLoop(context.GetContext(), listenFd).Run();
    return 1;
}
