// A test server for HTTP/2 clients, and the example of a program that serves many connections with
// CVEKHttp2Response in event mode: the main thread accepts, and a few workers, each with an epoll
// set, set the connections up in steps and drive them from there on.
#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <thread>
#include <unordered_map>
#include <vector>

#include "CVEKHttp2Response.h"
#include "CVEKSocketNew.h"
#include "CVEKTlsContext.h"
#include "SampleArguments.h"
#include "VEKCommonOpenSSL.h"
#include "VEKHttp2Option.h"
#include "VEKServiceLog.h"
#include "VEKStandardStream.h"
#include "VEKText.h"

namespace {

using Clock = std::chrono::steady_clock;
using Context = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;

constexpr int MIN_PAYLOAD_SIZE = 16384;  // largest request body taken, unless -b is more
constexpr int MAX_BODY_SIZE = 1 << 20;
constexpr int MAX_STREAMS = 1000;
constexpr long MAX_CONNECTION_SIZE = 128L << 20;  // bytes of payload buffers for each direction
// The bodies of all streams have buffers of their own, so the connection's window need not hold
// anybody up; a large one saves the peer's waiting for updates, and the sending of these.
constexpr uint32_t CONNECTION_WINDOW = 1U << 30;
constexpr uint32_t HEADER_TABLE_SIZE = 4096;  // of HPACK: fields that come again take a byte each
constexpr int MAX_DELAY_MS = 60000;
constexpr uint32_t PING_SEND_SECONDS = 30;
constexpr uint32_t PING_TIMEOUT_SECONDS = 10;
constexpr size_t MAX_HANDSHAKES = 1000;                // at once; above, the oldest one has to go
constexpr std::chrono::milliseconds ACCEPT_PAUSE(50);  // after a failed accept (no descriptor, say)
constexpr std::chrono::seconds CHECK_INTERVAL(1);      // between two looks at the liveness clocks
constexpr int EVENTS_PER_WAIT = 64;
constexpr int ARRIVALS_PER_TURN = 8;
constexpr int CAPTURE_FILE_SIZE = 256 << 20;

struct Options {
    int port = -1;
    const char* key = nullptr;
    const char* certificate = nullptr;
    bool isUpgrade = false;
    const char* captureDir = nullptr;
    int bodySize = -1;  // -1: echo the request's body
    int delayMs = 0;
    int streams = 100;
    bool isVerbose = false;
    VEK_ST_TLS_OPTIONS tls;
    bool isTls12 = false;
    bool hasTlsOption = false;  // one that goes with neither --tls12 nor clear text

    int PayloadSize() const { return std::max(MIN_PAYLOAD_SIZE, bodySize); }
};
Options G_OPTIONS;

enum LongOption {
    TLS_MIN = FIRST_LONG_OPTION,
    TLS_MAX,
    WANT_CLIENT,
    DEMAND_CLIENT,
    TLS12,
};
constexpr option LONG_OPTIONS[] = {
    {"tls-min", required_argument, nullptr, TLS_MIN},
    {"tls-max", required_argument, nullptr, TLS_MAX},
    {"want-client", required_argument, nullptr, WANT_CLIENT},
    {"demand-client", required_argument, nullptr, DEMAND_CLIENT},
    {"tls12", no_argument, nullptr, TLS12},
    {nullptr, 0, nullptr, 0},
};

struct Counters {
    std::atomic<unsigned long> connections{0};
    std::atomic<unsigned long> failures{0};  // connections that did not get past their handshake
    std::atomic<unsigned long> requests{0};
    std::atomic<unsigned long> refusals{0};
    std::atomic<unsigned long> resets{0};
};
Counters G_COUNTERS;

using SessionId = uint64_t;
// When to answer which stream of which session (-w).
using Schedule = std::multimap<Clock::time_point, std::pair<SessionId, int>>;

// An answer that waits for its time.
struct Answer {
    std::string status;
    std::string contentType;
    std::string body;
    Schedule::iterator due;
};

// One connection, and its answers to come by stream id.
struct Session {
    using Setups = std::list<SessionId>;

    Session() = default;
    ~Session() {
        while (!answers.empty()) {
            Forget(answers.begin()->first);
        }
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    void Forget(int streamId) {
        const auto answer = answers.find(streamId);
        if (answer != answers.end()) {
            schedule->erase(answer->second.due);
            answers.erase(answer);
        }
    }

    CVEKHttp2Response connection;
    std::map<int, Answer> answers;
    Schedule* schedule = nullptr;  // of the worker that has the session
    uint32_t watched = 0;          // events that its descriptor is watched for
    bool isUp = false;
    Setups::iterator setup;  // its place among those that are not up yet
};

// A connection that was accepted.
struct Arrival {
    int fd = -1;
    std::string ip;
    int port = 0;
};

void OnConnectionEvent(int event, int streamId, int /*code*/, void* /*connection*/, void* args) {
    if (event == VEK_HTTP2_USER_EVENT_REFUSED) {
        ++G_COUNTERS.refusals;
    } else {
        ++G_COUNTERS.resets;
        static_cast<Session*>(args)->Forget(streamId);
    }
}

const std::string* FindField(const VEK_HTTP2_HEADER& fields, std::string_view name) {
    for (const auto& [fieldName, value] : fields) {
        if (fieldName.size() == name.size() && strcasecmp(fieldName.c_str(), name.data()) == 0) {
            return &value;
        }
    }
    return nullptr;
}

std::string TextOf(const std::string* value) {
    return value == nullptr ? "" : *value;
}

sockaddr_in LocalAddress(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return address;
}

// Captures the connection to come where option -d asks for it. The packets run from the peer to
// here, those of the answers, too.
void StartCapture(const Arrival& arrival, CVEKHttp2Response& connection) {
    if (G_OPTIONS.captureDir == nullptr) {
        return;
    }
    const in_addr local = LocalAddress(arrival.fd).sin_addr;
    char localIp[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &local, localIp, sizeof localIp);
    const std::string name = arrival.ip + "-" + std::to_string(arrival.port);
    if (!connection.EnableDump(G_OPTIONS.captureDir, name.c_str(), CAPTURE_FILE_SIZE,
                               arrival.ip.c_str(), localIp)) {
        fprintf(stderr, "no capture of %s in %s\n", name.c_str(), G_OPTIONS.captureDir);
    }
}

VEK_ST_HTTP2_OPTIONS ConnectionOptions() {
    VEK_ST_HTTP2_OPTIONS options{};
    options.nMaxConcurrentStream_ = static_cast<uint32_t>(G_OPTIONS.streams);
    options.nMaxPayloadSize_ = static_cast<uint32_t>(G_OPTIONS.PayloadSize());
    options.nMaxHeaderTableSize_ = HEADER_TABLE_SIZE;
    options.nLocalWindowSize_ = CONNECTION_WINDOW;
    options.nPingSendThreshold_ = PING_SEND_SECONDS;
    options.nPingTimeoutThreshold_ = PING_TIMEOUT_SECONDS;
    return options;
}

// Sets its connections up and drives them, on a thread of its own. Context: null for clear text.
// The descriptors must be valid (IsReady).
class Worker {
  public:
    // At most `maxSetups` connections are being set up at once: the oldest of them has to go for
    // one more.
    Worker(SSL_CTX* context, size_t maxSetups)
        : context_(context),
          maxSetups_(maxSetups),
          epfd_(epoll_create1(EPOLL_CLOEXEC)),
          wakeFd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
        Watch(EPOLL_CTL_ADD, wakeFd_, WAKE_ID, EPOLLIN);
        if (IsReady()) {
            thread_ = std::thread([this] { Run(); });
        }
    }
    // Stops; every peer gets a GOAWAY.
    ~Worker() {
        if (IsReady()) {
            isStopping_ = true;
            Wake();
            thread_.join();
        }
        for (const Arrival& arrival : arrivals_) {
            close(arrival.fd);
        }
        close(wakeFd_);
        close(epfd_);
    }
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    // False when there was no descriptor left for it.
    bool IsReady() const { return epfd_ >= 0 && wakeFd_ >= 0; }

    // Hands an accepted connection over; any thread. Where too many wait, the oldest has to go.
    void Add(Arrival arrival) {
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            if (arrivals_.size() >= maxSetups_) {
                close(arrivals_.front().fd);
                arrivals_.pop_front();
                ++G_COUNTERS.failures;
            }
            arrivals_.push_back(std::move(arrival));
        }
        Wake();
    }

  private:
    static constexpr SessionId WAKE_ID = 0;  // stands for the wake-up descriptor

    void Wake() const {
        const uint64_t one = 1;
        if (write(wakeFd_, &one, sizeof one) < 0) {
            VEK_SYSTEM_CALL_LOG("write() failed...");
        }
    }

    void Watch(int operation, int fd, SessionId id, uint32_t events) const {
        epoll_event event{};
        event.events = events;
        event.data.u64 = id;
        if (epoll_ctl(epfd_, operation, fd, &event) != 0) {
            VEK_SYSTEM_CALL_LOG("epoll_ctl() failed...");
        }
    }

    void Run() {
        Clock::time_point nextCheck = Clock::now() + CHECK_INTERVAL;
        while (!isStopping_) {
            epoll_event events[EVENTS_PER_WAIT];
            const int count = epoll_wait(epfd_, events, EVENTS_PER_WAIT, WaitMs(nextCheck));
            for (int i = 0; i < count; ++i) {
                if (events[i].data.u64 == WAKE_ID) {
                    AdoptArrivals();
                } else {
                    OnEvent(events[i].data.u64);
                }
            }
            SendDueAnswers();
            if (Clock::now() >= NextDeadline()) {
                CheckSetups();
            }
            if (Clock::now() >= nextCheck) {
                CheckLiveness();
                ReturnMemory();
                nextCheck = Clock::now() + CHECK_INTERVAL;
            }
        }
        G_COUNTERS.failures += setups_.size();
        sessions_.clear();
    }

    int WaitMs(Clock::time_point nextCheck) const {
        Clock::time_point next = std::min(nextCheck, NextDeadline());
        if (!schedule_.empty()) {
            next = std::min(next, schedule_.begin()->first);
        }
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
        return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
    }

    void AdoptArrivals() {
        uint64_t count = 0;
        if (read(wakeFd_, &count, sizeof count) < 0) {
            return;
        }
        // A few at a time: a handshake takes a while, and the connections that are up wait
        // meanwhile.
        for (int i = 0; i < ARRIVALS_PER_TURN; ++i) {
            Arrival arrival;
            {
                const std::lock_guard<std::mutex> guard(mutex_);
                if (arrivals_.empty()) {
                    return;
                }
                arrival = std::move(arrivals_.front());
                arrivals_.pop_front();
            }
            const SessionId id = ++lastId_;
            try {
                Begin(id, arrival);
            } catch (const std::bad_alloc&) {
                VEK_SERVICE_LOG(VEK_LOG_ERROR, "no memory for a connection");
                Abandon(id, arrival.fd);
            }
        }
        Wake();
    }

    void Begin(SessionId id, const Arrival& arrival) {
        if (setups_.size() >= maxSetups_) {
            FailSetup(setups_.front());
        }
        const std::string name = arrival.ip + ":" + std::to_string(arrival.port);
        const VEK_ST_HTTP2_OPTIONS options = ConnectionOptions();
        Session& session = *sessions_.emplace(id, std::make_unique<Session>()).first->second;
        session.setup = setups_.insert(setups_.end(), id);
        session.schedule = &schedule_;
        CVEKHttp2Response& connection = session.connection;
        const char* ip = arrival.ip.c_str();
        bool isBegun = connection.Initialize(name.c_str(), &options);
        VEK_ST_HTTP2_POLICY policy;
        policy.maxLogLines_ = VEK_HTTP2_LOG_LINES;
        connection.SetPolicy(policy);
        if (context_ != nullptr) {
            isBegun =
                isBegun && connection.StartAccept(arrival.fd, ip, arrival.port, context_, true);
        } else {
            StartCapture(arrival, connection);
            isBegun = isBegun && connection.StartAccept(arrival.fd, ip, arrival.port, true);
        }
        if (isBegun) {
            Advance(id, session);
        } else {
            Abandon(id, arrival.fd);
        }
    }

    // A connection that could not be begun; its descriptor may not be the session's yet.
    void Abandon(SessionId id, int fd) {
        const auto found = sessions_.find(id);
        if (found == sessions_.end() || found->second->connection.GetSocket() != fd) {
            close(fd);
        }
        FailSetup(id);
    }

    void OnEvent(SessionId id) {
        const auto found = sessions_.find(id);
        if (found == sessions_.end()) {
            return;
        }
        if (found->second->isUp) {
            Serve(id, *found->second);
        } else {
            Advance(id, *found->second);
        }
    }

    // Takes the next steps of a set-up.
    void Advance(SessionId id, Session& session) {
        switch (session.connection.Advance()) {
            case VEK_HTTP2_STEP_WAIT:
                WatchFor(id, session,
                         session.connection.GetWaitEvents() == POLLOUT ? EPOLLOUT : EPOLLIN);
                return;
            case VEK_HTTP2_STEP_DONE:
                break;
            default:
                FailSetup(id);
                return;
        }
        setups_.erase(session.setup);
        session.isUp = true;
        session.connection.SetUserCallback(OnConnectionEvent, &session);
        ++G_COUNTERS.connections;
        WatchFor(id, session, EPOLLIN);
        Serve(id, session);  // sends the SETTINGS; a request may have come with the upgrade
    }

    void FailSetup(SessionId id) {
        ++G_COUNTERS.failures;
        setups_.remove(id);
        sessions_.erase(id);
    }

    // The oldest set-up's: all have the same limits.
    Clock::time_point NextDeadline() const {
        return setups_.empty() ? Clock::time_point::max()
                               : sessions_.at(setups_.front())->connection.GetWaitDeadline();
    }

    // Has the set-ups whose time is over meet it.
    void CheckSetups() {
        for (auto entry = setups_.begin(); entry != setups_.end();) {
            const SessionId id = *entry++;
            Session& session = *sessions_.at(id);
            if (session.connection.GetWaitDeadline() <= Clock::now()) {
                Advance(id, session);
            }
        }
    }

    // Takes what has come on the connection and answers it. A connection that has closed goes.
    void Serve(SessionId id, Session& session) {
        if (!session.connection.ProcEvent() || !AnswerRequests(id, session)) {
            sessions_.erase(id);
            return;
        }
        WatchSend(id, session);
    }

    bool AnswerRequests(SessionId id, Session& session) {
        VEK_ST_HTTP2_REQUEST_RECV request;
        int queued = 0;
        int result = 0;
        while ((result = session.connection.Request(&request)) == 1) {
            if (request.hdr_->empty()) {  // reset before its turn came
                continue;
            }
            ++G_COUNTERS.requests;
            if (G_OPTIONS.isVerbose) {
                PrintRequest(session, request);
            }
            if (Take(id, session, request)) {
                ++queued;
            }
        }
        return result == 0 && SendQueued(session, queued);
    }

    // Queues the answer, or keeps it for later. Returns whether one was queued.
    bool Take(SessionId id, Session& session, const VEK_ST_HTTP2_REQUEST_RECV& request) {
        const char* status = request.error_ == 0 ? "200" : "413";  // the body did not fit
        const std::string* contentType = FindField(*request.hdr_, "content-type");
        const bool isEcho = G_OPTIONS.bodySize < 0;
        const char* body = isEcho ? request.data_ : fixedBody_.data();
        const size_t size = request.error_ != 0 ? 0 : isEcho ? request.size_ : fixedBody_.size();
        if (G_OPTIONS.delayMs == 0) {
            return Queue(session, request.streamId_, status, contentType, body, size);
        }
        const auto due =
            schedule_.emplace(Clock::now() + std::chrono::milliseconds(G_OPTIONS.delayMs),
                              std::pair(id, request.streamId_));
        session.answers[request.streamId_] = {status, TextOf(contentType), {body, size}, due};
        return false;
    }

    bool Queue(Session& session, int streamId, const char* status, const std::string* contentType,
               const char* body, size_t size) {
        response_.streamId_ = streamId;
        VEK_COPY_TEXT(response_.rs_, status);
        response_.hdr_.clear();
        if (contentType != nullptr && !contentType->empty()) {
            response_.hdr_.emplace_back("content-type", *contentType);
        }
        response_.payload_ = {size, 0, const_cast<char*>(body)};
        response_.error_ = 0;
        return session.connection.Response(&response_, false) == 1;
    }

    // Submits all of them, then flushes once, with the last. Returns false when the connection has
    // closed.
    static bool SendQueued(Session& session, int count) {
        for (; count > 1; --count) {
            if (session.connection.SendResponse() == -1) {
                return false;
            }
        }
        return count == 0 || session.connection.ProcEventPre() != -1;
    }

    // Writability is watched only while the socket refuses bytes.
    void WatchSend(SessionId id, Session& session) const {
        WatchFor(id, session,
                 session.connection.IsSendBlocked() ? EPOLLIN | EPOLLOUT : uint32_t{EPOLLIN});
    }

    void WatchFor(SessionId id, Session& session, uint32_t events) const {
        if (events != session.watched) {
            Watch(session.watched == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD,
                  session.connection.GetSocket(), id, events);
            session.watched = events;
        }
    }

    void SendDueAnswers() {
        while (!schedule_.empty() && schedule_.begin()->first <= Clock::now()) {
            const auto [id, streamId] = schedule_.begin()->second;
            const auto found = sessions_.find(id);
            Session& session = *found->second;
            const Answer& text = session.answers.at(streamId);
            const bool isQueued = Queue(session, streamId, text.status.c_str(), &text.contentType,
                                        text.body.data(), text.body.size());
            session.Forget(streamId);
            if (!isQueued || !SendQueued(session, 1)) {
                sessions_.erase(found);
                continue;
            }
            WatchSend(id, session);
        }
    }

    void CheckLiveness() {
        for (auto entry = sessions_.begin(); entry != sessions_.end();) {
            if (!entry->second->isUp) {
                ++entry;
            } else if (entry->second->connection.IsValid()) {
                WatchSend(entry->first, *entry->second);  // a PING may have met a full socket
                ++entry;
            } else {
                entry = sessions_.erase(entry);
            }
        }
    }

    // What half of the connections have left behind goes back to the system: the allocator would
    // keep it for as many as there were at the most.
    void ReturnMemory() {
        mostSessions_ = std::max(mostSessions_, sessions_.size());
        if (sessions_.size() < mostSessions_ / 2) {
            malloc_trim(0);
            mostSessions_ = sessions_.size();
        }
    }

    static void PrintRequest(const Session& session, const VEK_ST_HTTP2_REQUEST_RECV& request) {
        printf("%s stream %d %s %s %zu bytes\n", session.connection.GetName(), request.streamId_,
               TextOf(FindField(*request.hdr_, ":method")).c_str(),
               TextOf(FindField(*request.hdr_, ":path")).c_str(), request.size_);
    }

    SSL_CTX* context_;
    size_t maxSetups_;
    int epfd_;
    int wakeFd_;
    std::atomic<bool> isStopping_{false};
    std::mutex mutex_;  // arrivals_
    std::deque<Arrival> arrivals_;
    SessionId lastId_ = WAKE_ID;
    Session::Setups setups_;  // sessions that are not up yet, oldest first
    Schedule schedule_;       // before the sessions, which take their entries out
    std::unordered_map<SessionId, std::unique_ptr<Session>> sessions_;
    size_t mostSessions_ = 0;  // seen by the checks since memory was returned
    VEK_ST_HTTP2_RESPONSE response_;
    const std::string fixedBody_ =
        std::string(static_cast<size_t>(std::max(G_OPTIONS.bodySize, 0)), '0');
    std::thread thread_;
};

void Help(const char* program) {
    fprintf(
        stderr,
        "usage: %s -p port (-k key -r certificate | -u [-d directory]) [-b bytes]\n"
        "       [-w milliseconds] [-m streams] [-v] [--tls-min version] [--tls-max version]\n"
        "       [--want-client file | --demand-client file] [--tls12]\n"
        "  -p port          port to listen on, 0 for any free one (it is printed)\n"
        "  -k key           private key, PEM; with -r: HTTP/2 over TLS\n"
        "  -r certificate   certificate chain, PEM\n"
        "  -u               clear text with the HTTP/1.1 upgrade\n"
        "  -d directory     capture each connection into a file there, address-port.time.pcap\n"
        "  -b bytes         size of the response body, up to %d (default: echo the request's);\n"
        "                   a request body over %d bytes and over this gets 413\n"
        "  -w milliseconds  answer so much later, up to %d\n"
        "  -m streams       concurrent streams of a connection, 2 to %d (100); one less is\n"
        "                   served at once, the last gets 429\n"
        "  -v               one line for each request, and the log\n"
        "  --tls-min version, --tls-max version\n"
        "                   lowest (1.2) and highest (1.3) version of TLS\n"
        "  --want-client file, --demand-client file\n"
        "                   ask clients for a certificate of the authorities in this PEM file;\n"
        "                   a client without one is welcome, or refused\n"
        "  --tls12          the framework's old TLS, 1.2 at most\n"
        "example: %s -p 8443 -k key.pem -r cert.pem\n",
        program, MAX_BODY_SIZE, MIN_PAYLOAD_SIZE, MAX_DELAY_MS, MAX_STREAMS, program);
}

// Says on standard error what is wrong with the options together. `stray`: an argument that belongs
// to none, or null.
bool CheckOptions(const char* stray) {
    const Options& options = G_OPTIONS;
    const bool isTls = options.key != nullptr || options.certificate != nullptr;
    const char* complaint = nullptr;
    if (stray != nullptr) {
        complaint = "an argument belongs to no option";
    } else if (options.port < 0) {
        complaint = "-p is missing";
    } else if ((options.key == nullptr) != (options.certificate == nullptr)) {
        complaint = "-k and -r go together";
    } else if (isTls == options.isUpgrade) {
        complaint = "either -k and -r, or -u";
    } else if (options.hasTlsOption && (options.isTls12 || !isTls)) {
        complaint = "versions and client certificates go with -k and -r, not with --tls12";
    } else if (options.isTls12 && !isTls) {
        complaint = "--tls12 goes with -k and -r";
    } else if (options.captureDir != nullptr && !options.isUpgrade) {
        complaint = "-d goes with -u";
    } else if (options.captureDir != nullptr && options.captureDir[0] == '\0') {
        complaint = "-d needs the name of a directory";
    } else if (static_cast<long>(options.streams) * options.PayloadSize() > MAX_CONNECTION_SIZE) {
        complaint = "-m and -b together ask for too much memory";
    }
    if (complaint != nullptr) {
        fprintf(stderr, "%s\n", complaint);
    }
    return complaint == nullptr;
}

// False after a line on standard error.
bool ParseVersion(const char* argument, int& version) {
    const bool isTls12 = strcmp(argument, "1.2") == 0;
    if (!isTls12 && strcmp(argument, "1.3") != 0) {
        fprintf(stderr, "version \"%s\" is neither 1.2 nor 1.3\n", argument);
        return false;
    }
    version = isTls12 ? TLS1_2_VERSION : TLS1_3_VERSION;
    return true;
}

bool ParseTlsOption(int option, const char* argument) {
    VEK_ST_TLS_OPTIONS& tls = G_OPTIONS.tls;
    G_OPTIONS.hasTlsOption = true;
    switch (option) {
        case TLS_MIN:
            return ParseVersion(argument, tls.minVersion_);
        case TLS_MAX:
            return ParseVersion(argument, tls.maxVersion_);
        case WANT_CLIENT:
            tls.clientCertificate_ = VEK_TLS_CLIENT_CERTIFICATE_WANTED;
            break;
        case DEMAND_CLIENT:
            tls.clientCertificate_ = VEK_TLS_CLIENT_CERTIFICATE_DEMANDED;
            break;
        default:
            return false;
    }
    if (!tls.caFile_.empty() || argument[0] == '\0') {
        fputs("one file of --want-client or --demand-client\n", stderr);
        return false;
    }
    tls.caFile_ = argument;
    return true;
}

bool ParseOption(int option, const char* argument) {
    Options& options = G_OPTIONS;
    switch (option) {
        case 'p':
            return ParseNumber('p', argument, 0, MAX_PORT, options.port);
        case 'k':
            options.key = argument;
            return true;
        case 'r':
            options.certificate = argument;
            return true;
        case 'u':
            return options.isUpgrade = true;
        case 'd':
            options.captureDir = argument;
            return true;
        case 'b':
            return ParseNumber('b', argument, 0, MAX_BODY_SIZE, options.bodySize);
        case 'w':
            return ParseNumber('w', argument, 0, MAX_DELAY_MS, options.delayMs);
        case 'm':
            return ParseNumber('m', argument, 2, MAX_STREAMS, options.streams);
        case 'v':
            return options.isVerbose = true;
        case TLS12:
            return options.isTls12 = true;
        default:
            return ParseTlsOption(option, argument);
    }
}

bool ParseArg(int argc, char** argv) {
    return ParseOptions(argc, argv, "p:k:r:ud:b:w:m:v", LONG_OPTIONS, ParseOption) &&
           CheckOptions(optind < argc ? argv[optind] : nullptr);
}

void RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int PortOf(const sockaddr_in& address) {
    return ntohs(address.sin_port);
}

// Not CVEKSocketNew::ACCEPT, which asks for the peer's name: a slow resolver would keep everybody
// waiting.
void AcceptOne(int listenFd, Worker& worker) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    const int fd = accept4(listenFd, reinterpret_cast<sockaddr*>(&address), &length, SOCK_CLOEXEC);
    if (fd < 0) {
        if (errno != EAGAIN) {  // EAGAIN: the peer has left again
            VEK_SYSTEM_CALL_LOG("accept() failed!..");
            std::this_thread::sleep_for(ACCEPT_PAUSE);
        }
        return;
    }
    char ip[VEK_SOCKET_IP_TEXT_SIZE] = "";
    inet_ntop(AF_INET, &address.sin_addr, ip, sizeof ip);
    worker.Add({fd, ip, PortOf(address)});
}

// Serves until a signal of `signals` comes. False when the system refused what is needed for it.
bool Serve(int listenFd, SSL_CTX* context, const sigset_t& signals) {
    std::vector<std::unique_ptr<Worker>> workers;
    // One core is left to the system's side of the network.
    const unsigned count = std::max(2U, std::thread::hardware_concurrency()) - 1;
    for (unsigned i = 0; i < count; ++i) {
        workers.push_back(std::make_unique<Worker>(context, MAX_HANDSHAKES / count + 1));
        if (!workers.back()->IsReady()) {
            return false;
        }
    }
    const int signalFd = signalfd(-1, &signals, SFD_CLOEXEC);
    if (signalFd < 0) {
        return false;
    }
    pollfd sources[] = {{signalFd, POLLIN, 0}, {listenFd, POLLIN, 0}};
    size_t next = 0;
    while (poll(sources, 2, -1) >= 0 || errno == EINTR) {
        if (sources[0].revents != 0) {
            break;
        }
        if (sources[1].revents != 0) {
            AcceptOne(listenFd, *workers[next++ % workers.size()]);
        }
    }
    close(signalFd);
    return true;
}

// Null after a line on standard error.
Context MakeContext(const char* program) {
    VEK_SSL_INIT();
    VEK_SSL_THREAD_SETUP();
    Context context(nullptr, SSL_CTX_free);
    CVEKTlsContext made;
    VEK_ST_TLS_OPTIONS options = G_OPTIONS.tls;
    options.identities_ = {{G_OPTIONS.certificate, G_OPTIONS.key}};
    std::string error = std::string("cannot use key ") + G_OPTIONS.key + " with certificate " +
                        G_OPTIONS.certificate;
    if (G_OPTIONS.isTls12) {
        context.reset(VEK_SSL_CREATE_SERVER_CTX(G_OPTIONS.key, G_OPTIONS.certificate, nullptr));
    } else if (made.CreateServer(options, error)) {
        SSL_CTX_up_ref(made.GetContext());
        context.reset(made.GetContext());
    }
    if (context == nullptr) {
        fprintf(stderr, "%s: %s\n", program, error.c_str());
    }
    return context;
}

int Run(const char* program) {
    // Before any thread starts, so that none of them takes the signals.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    const char* captureDir = G_OPTIONS.captureDir;
    if (captureDir != nullptr &&
        access((captureDir + std::string("/")).c_str(), W_OK | X_OK) != 0) {
        fprintf(stderr, "%s: cannot write into directory %s: %s\n", program, captureDir,
                strerror(errno));
        return 1;
    }
    Context context(nullptr, SSL_CTX_free);
    if (!G_OPTIONS.isUpgrade && (context = MakeContext(program)) == nullptr) {
        return 1;
    }
    const int listenFd = CVEKSocketNew::LISTEN(AF_INET, G_OPTIONS.port, nullptr);
    if (listenFd < 0) {
        fprintf(stderr, "%s: cannot listen on port %d: %s\n", program, G_OPTIONS.port,
                strerror(errno));
        return 1;
    }
    CVEKSocketNew::SET_NONBLOCK(listenFd);  // a peer that leaves before its accept blocks nobody
    listen(listenFd, SOMAXCONN);  // whom a full queue turns away tries again only after a second
    printf("listening on port %d\n", PortOf(LocalAddress(listenFd)));
    fflush(stdout);
    const bool isServed = Serve(listenFd, context.get(), signals);
    close(listenFd);
    if (!isServed) {
        fprintf(stderr, "%s: cannot start: %s\n", program, strerror(errno));
        return 1;
    }
    printf(
        "%lu connections, %lu failed handshakes, %lu requests, %lu refused with 429, %lu reset\n",
        G_COUNTERS.connections.load(), G_COUNTERS.failures.load(), G_COUNTERS.requests.load(),
        G_COUNTERS.refusals.load(), G_COUNTERS.resets.load());
    VEK_SSL_THREAD_CLEANUP();
    VEK_SSL_CLEANUP();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    VEK_OPEN_STANDARD_STREAMS();
    if (!ParseArg(argc, argv)) {
        Help(argv[0]);
        return 1;
    }
    VEK_OPEN_SERVICE_LOG(G_OPTIONS.isVerbose ? VEK_LOG_ALL : VEK_LOG_ERROR);
    VEK_HTTP2_INIT();
    RaiseDescriptorLimit();
    const int result = Run(argv[0]);
    VEK_CLOSE_SERVICE_LOG();
    return result;
}
