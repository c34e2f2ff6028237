// Opens TLS connections with HTTP/2 to a server on this machine and keeps them, told on standard
// input what to do, so that a script can look at the server's memory in between.
//   bench_idle -p port [-f handshakes] [-a path] [-2]
//     -p  port on 127.0.0.1
//     -f  handshakes in progress at once (50)
//     -a  what is asked for (/test/test)
//     -2  TLS 1.2 only
// One command in a line; its answer, one line on standard output, follows when it is done:
//   open N   opens N more connections: handshake (no resumption), SETTINGS both ways, acknowledged
//   get      one GET on each of them
//   close    ends them, and waits until the server has ended them too
//   probe N  N GETs, one after the other, on one more connection, which close spares
// Each answer has the command, the connections there are (for probe the GETs), "lost" with the
// connections that the server did not take or has ended unasked, and the seconds it took; for probe
// also the latency in microseconds, "median", "p99" and "max". The end of the input ends the
// program. The exit status is 1 when a connection was lost, an answer was not 200 or nothing
// happened for half a minute.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "SampleArguments.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int MAX_IN_FLIGHT = 10000;
constexpr int MAX_COUNT = 1000000;
constexpr size_t MAX_PATH_SIZE = 126;  // lengths below 127 take one byte in HPACK
constexpr int EVENTS_PER_WAIT = 256;
constexpr int PATIENCE_MS = 30000;  // without any event
constexpr size_t READ_SIZE = 16384;

// Of HTTP/2, what an idle peer needs (RFC 9113, section 4.1 and 6).
constexpr size_t FRAME_HEADER_SIZE = 9;
constexpr uint8_t FRAME_DATA = 0;
constexpr uint8_t FRAME_HEADERS = 1;
constexpr uint8_t FRAME_RST_STREAM = 3;
constexpr uint8_t FRAME_SETTINGS = 4;
constexpr uint8_t FRAME_PING = 6;
constexpr uint8_t FRAME_GOAWAY = 7;
constexpr uint8_t FRAME_WINDOW_UPDATE = 8;
constexpr uint8_t FLAG_ACK = 1;
constexpr uint8_t FLAG_END_STREAM = 1;
constexpr uint8_t FLAG_END_HEADERS = 4;
constexpr uint16_t SETTING_INITIAL_WINDOW_SIZE = 4;
// So large that no window of ours needs an update.
constexpr uint32_t WINDOW_SIZE = (1U << 31) - 1;
constexpr uint32_t DEFAULT_WINDOW_SIZE = 65535;
constexpr char PREFACE[] = "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n";
// Of HPACK's static table and representations (RFC 7541, appendix A and section 6).
constexpr char METHOD_GET = '\x82';
constexpr char SCHEME_HTTPS = '\x87';
constexpr char NAME_AUTHORITY = '\x01';  // literal without indexing
constexpr char NAME_PATH = '\x04';
constexpr uint8_t STATUS_200 = 0x88;
constexpr uint8_t TABLE_SIZE_UPDATE = 0x20;
constexpr uint8_t TABLE_SIZE_UPDATE_MASK = 0xe0;
constexpr uint8_t TABLE_SIZE_MASK = 0x1f;
constexpr uint8_t CONTINUED = 0x80;

struct Options {
    int port = 0;
    int inFlight = 50;
    std::string path = "/test/test";
    bool isTls12 = false;
};
Options G_OPTIONS;

void AppendNumber(std::string& text, uint32_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) {
        text += static_cast<char>(value >> (8 * i) & 0xff);
    }
}

uint32_t ReadNumber(const uint8_t* data, int bytes) {
    uint32_t value = 0;
    for (int i = 0; i < bytes; ++i) {
        value = value << 8 | data[i];
    }
    return value;
}

std::string MakeFrame(uint8_t type, uint8_t flags, uint32_t stream, const std::string& payload) {
    std::string frame;
    AppendNumber(frame, static_cast<uint32_t>(payload.size()), 3);
    frame += static_cast<char>(type);
    frame += static_cast<char>(flags);
    AppendNumber(frame, stream, 4);
    return frame + payload;
}

std::string MakePreface() {
    std::string setting;
    AppendNumber(setting, SETTING_INITIAL_WINDOW_SIZE, 2);
    AppendNumber(setting, WINDOW_SIZE, 4);
    std::string update;
    AppendNumber(update, WINDOW_SIZE - DEFAULT_WINDOW_SIZE, 4);
    return PREFACE + MakeFrame(FRAME_SETTINGS, 0, 0, setting) +
           MakeFrame(FRAME_WINDOW_UPDATE, 0, 0, update);
}

std::string MakeGet(uint32_t stream) {
    const std::string authority = "localhost";
    std::string block = {METHOD_GET, SCHEME_HTTPS, NAME_AUTHORITY};
    block += static_cast<char>(authority.size());
    block += authority;
    block += NAME_PATH;
    block += static_cast<char>(G_OPTIONS.path.size());
    block += G_OPTIONS.path;
    return MakeFrame(FRAME_HEADERS, FLAG_END_STREAM | FLAG_END_HEADERS, stream, block);
}

// Whether a header block begins with status 200, behind updates of the table's size.
bool IsOk(const uint8_t* block, size_t size) {
    size_t i = 0;
    while (i < size && (block[i] & TABLE_SIZE_UPDATE_MASK) == TABLE_SIZE_UPDATE) {
        const bool isLong = (block[i++] & TABLE_SIZE_MASK) == TABLE_SIZE_MASK;
        while (isLong && i < size && (block[i++] & CONTINUED) != 0) {
        }
    }
    return i < size && block[i] == STATUS_200;
}

// What has happened on all connections.
struct Totals {
    int pending = 0;  // not up yet
    int lost = 0;     // did not come up, or was ended by the peer
    int gone = 0;     // ended as asked
    int answered = 0;
    int refused = 0;  // answers that are not 200, and streams that the peer has reset
};
Totals G_TOTALS;

// One connection; Advance it on each edge of its descriptor's events.
class Connection {
  public:
    Connection(SSL_CTX* context, int epfd) : ssl_(SSL_new(context), SSL_free) {
        ++G_TOTALS.pending;
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(G_OPTIONS.port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const int on = 1;
        setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        epoll_event event{};
        event.events = EPOLLIN | EPOLLOUT | EPOLLET;
        event.data.ptr = this;
        if (ssl_ == nullptr || fd_ < 0 ||
            (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 &&
             errno != EINPROGRESS) ||
            epoll_ctl(epfd, EPOLL_CTL_ADD, fd_, &event) != 0) {
            perror("cannot connect");
            Lose();
            return;
        }
        SSL_set_fd(ssl_.get(), fd_);
        SSL_set_connect_state(ssl_.get());
    }
    ~Connection() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    bool IsUp() const { return state_ == UP; }

    void Advance() {
        ERR_clear_error();
        if (state_ == CONNECTING) {
            Handshake();
        }
        if (state_ == EXCHANGING || state_ == UP) {
            Receive();
        }
        if (state_ == CLOSING) {
            AwaitEnd();
        }
    }

    void Get() {
        out_ += MakeGet(nextStream_);
        nextStream_ += 2;
        Send();
    }

    void Close() {
        SSL_shutdown(ssl_.get());
        shutdown(fd_, SHUT_WR);
        state_ = CLOSING;
        AwaitEnd();
    }

  private:
    enum State { CONNECTING, EXCHANGING, UP, CLOSING, ENDED };

    void Lose() {
        G_TOTALS.pending -= state_ == CONNECTING || state_ == EXCHANGING ? 1 : 0;
        ++G_TOTALS.lost;
        state_ = ENDED;
        close(fd_);
        fd_ = -1;
    }

    // Whether the operation is to be repeated when the descriptor is ready.
    bool IsPending(int result) const {
        const int error = SSL_get_error(ssl_.get(), result);
        return error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE;
    }

    void Handshake() {
        const int result = SSL_connect(ssl_.get());
        if (result == 1) {
            state_ = EXCHANGING;
            out_ = MakePreface();
            Send();
        } else if (!IsPending(result)) {
            Lose();
        }
    }

    void Send() {
        while (!out_.empty()) {
            const int result = SSL_write(ssl_.get(), out_.data(), static_cast<int>(out_.size()));
            if (result <= 0) {
                if (!IsPending(result)) {
                    Lose();
                }
                return;
            }
            out_.erase(0, static_cast<size_t>(result));
        }
        out_.shrink_to_fit();
    }

    void Receive() {
        static char buffer[READ_SIZE];
        int result = 0;
        while ((result = SSL_read(ssl_.get(), buffer, sizeof buffer)) > 0) {
            in_.append(buffer, static_cast<size_t>(result));
            in_.erase(0, TakeFrames());
        }
        if (!IsPending(result)) {
            Lose();
            return;
        }
        in_.shrink_to_fit();
        Send();
    }

    // Returns how many bytes the complete frames have.
    size_t TakeFrames() {
        size_t taken = 0;
        while (in_.size() - taken >= FRAME_HEADER_SIZE) {
            const auto* frame = reinterpret_cast<const uint8_t*>(in_.data()) + taken;
            const size_t size = ReadNumber(frame, 3);
            if (in_.size() - taken < FRAME_HEADER_SIZE + size) {
                break;
            }
            TakeFrame(frame[3], frame[4], frame + FRAME_HEADER_SIZE, size);
            taken += FRAME_HEADER_SIZE + size;
        }
        return taken;
    }

    void TakeFrame(uint8_t type, uint8_t flags, const uint8_t* payload, size_t size) {
        switch (type) {
            case FRAME_SETTINGS:
                TakeSettings((flags & FLAG_ACK) != 0);
                break;
            case FRAME_PING:
                if ((flags & FLAG_ACK) == 0) {
                    out_ += MakeFrame(FRAME_PING, FLAG_ACK, 0,
                                      {reinterpret_cast<const char*>(payload), size});
                }
                break;
            case FRAME_HEADERS:
                G_TOTALS.refused += IsOk(payload, size) ? 0 : 1;
                [[fallthrough]];
            case FRAME_DATA:
                G_TOTALS.answered += (flags & FLAG_END_STREAM) != 0 ? 1 : 0;
                break;
            case FRAME_RST_STREAM:
            case FRAME_GOAWAY:
                ++G_TOTALS.refused;
                break;
            default:  // of no interest to somebody who is idle
                break;
        }
    }

    void TakeSettings(bool isAck) {
        if (isAck) {
            isAcknowledged_ = true;
        } else {
            out_ += MakeFrame(FRAME_SETTINGS, FLAG_ACK, 0, "");
            hasSettings_ = true;
        }
        if (state_ == EXCHANGING && isAcknowledged_ && hasSettings_) {
            state_ = UP;
            --G_TOTALS.pending;
        }
    }

    // The peer's end of the connection ends with its last byte.
    void AwaitEnd() {
        char buffer[READ_SIZE];
        ssize_t result = 0;
        while ((result = recv(fd_, buffer, sizeof buffer, 0)) > 0) {
        }
        if (result == 0 || errno != EAGAIN) {
            state_ = ENDED;
            close(fd_);
            fd_ = -1;
            ++G_TOTALS.gone;
        }
    }

    std::unique_ptr<SSL, decltype(&SSL_free)> ssl_;
    int fd_ = -1;
    State state_ = CONNECTING;
    bool hasSettings_ = false;
    bool isAcknowledged_ = false;
    uint32_t nextStream_ = 1;
    std::string in_;
    std::string out_;
};

class Client {
  public:
    explicit Client(SSL_CTX* context) : context_(context), epfd_(epoll_create1(EPOLL_CLOEXEC)) {}
    ~Client() { close(epfd_); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    int GetDescriptor() const { return epfd_; }

    // Handles the events there are, after waiting for one up to `timeoutMs`. False when there was
    // none.
    bool Pump(int timeoutMs) const {
        epoll_event events[EVENTS_PER_WAIT];
        const int count = epoll_wait(epfd_, events, EVENTS_PER_WAIT, timeoutMs);
        for (int i = 0; i < count; ++i) {
            static_cast<Connection*>(events[i].data.ptr)->Advance();
        }
        return count > 0;
    }

    // These return false when something was in vain, or nothing happens any more.
    bool Open(int count) {
        return PumpUntil([this, &count] {
            for (; count > 0 && G_TOTALS.pending < G_OPTIONS.inFlight; --count) {
                idle_.push_back(std::make_unique<Connection>(context_, epfd_));
            }
            return count == 0 && G_TOTALS.pending == 0;
        });
    }

    bool Get() {
        const int lost = G_TOTALS.lost;
        int target = G_TOTALS.answered;
        for (const auto& connection : idle_) {
            if (connection->IsUp()) {
                ++target;
                connection->Get();
            }
        }
        return PumpUntil(
            [target, lost] { return G_TOTALS.answered >= target || G_TOTALS.lost > lost; });
    }

    bool Close() {
        int target = G_TOTALS.gone;
        for (const auto& connection : idle_) {
            if (connection->IsUp()) {
                ++target;
            }
        }
        for (const auto& connection : idle_) {
            if (connection->IsUp()) {
                connection->Close();
            }
        }
        const bool isDone = PumpUntil([target] { return G_TOTALS.gone >= target; });
        idle_.clear();
        return isDone;
    }

    // Sets the latencies in microseconds, sorted.
    bool Probe(int count, std::vector<double>& latencies) {
        if (probe_ == nullptr) {
            probe_ = std::make_unique<Connection>(context_, epfd_);
            PumpUntil([] { return G_TOTALS.pending == 0; });
        }
        for (int i = 0; i < count; ++i) {
            if (!probe_->IsUp()) {
                return false;
            }
            const Clock::time_point start = Clock::now();
            const int target = G_TOTALS.answered + 1;
            probe_->Get();
            if (!PumpUntil(
                    [this, target] { return G_TOTALS.answered >= target || !probe_->IsUp(); })) {
                return false;
            }
            latencies.push_back(
                std::chrono::duration<double, std::micro>(Clock::now() - start).count());
        }
        std::sort(latencies.begin(), latencies.end());
        return true;
    }

    // The connections that are up; the probe's is not among them.
    int CountUp() const {
        return static_cast<int>(std::count_if(
            idle_.begin(), idle_.end(), [](const auto& connection) { return connection->IsUp(); }));
    }

  private:
    template <class CONDITION>
    bool PumpUntil(CONDITION isDone) const {
        while (!isDone()) {
            if (!Pump(PATIENCE_MS)) {
                fprintf(stderr, "nothing happens any more\n");
                return false;
            }
        }
        return true;
    }

    SSL_CTX* context_;
    int epfd_;
    std::vector<std::unique_ptr<Connection>> idle_;
    std::unique_ptr<Connection> probe_;
};

// Carries one command out and answers it. False when it has failed or there is no such.
bool Execute(Client& client, const std::string& line) {
    std::istringstream words(line);
    std::string command;
    int count = 0;
    words >> command;
    const bool hasCount = static_cast<bool>(words >> count) && count > 0 && count <= MAX_COUNT;
    std::vector<double> latencies;
    const Clock::time_point start = Clock::now();
    bool isDone = false;
    if (command == "open" && hasCount) {
        isDone = client.Open(count);
    } else if (command == "get") {
        isDone = client.Get();
    } else if (command == "close") {
        isDone = client.Close();
    } else if (command == "probe" && hasCount) {
        isDone = client.Probe(count, latencies);
    } else {
        fprintf(stderr, "no such command: %s\n", line.c_str());
        return false;
    }
    const std::chrono::duration<double> elapsed = Clock::now() - start;
    printf("%s %d lost %d seconds %.3f", command.c_str(),
           latencies.empty() ? client.CountUp() : count, G_TOTALS.lost, elapsed.count());
    if (!latencies.empty()) {
        printf(" median %.1f p99 %.1f max %.1f", latencies[latencies.size() / 2],
               latencies[latencies.size() * 99 / 100], latencies.back());
    }
    printf("\n");
    fflush(stdout);
    return isDone && G_TOTALS.lost == 0 && G_TOTALS.refused == 0;
}

// Answers commands, and between them whatever the peer wants. False when one has failed.
bool ExecuteAll(Client& client) {
    bool isGood = true;
    std::string input;
    pollfd sources[] = {{STDIN_FILENO, POLLIN, 0}, {client.GetDescriptor(), POLLIN, 0}};
    while (poll(sources, 2, -1) >= 0) {
        if (sources[1].revents != 0) {
            client.Pump(0);
        }
        if (sources[0].revents == 0) {
            continue;
        }
        char buffer[256];
        const ssize_t size = read(STDIN_FILENO, buffer, sizeof buffer);
        if (size <= 0) {
            break;
        }
        input.append(buffer, static_cast<size_t>(size));
        for (size_t end = 0; (end = input.find('\n')) != std::string::npos;) {
            isGood = Execute(client, input.substr(0, end)) && isGood;
            input.erase(0, end + 1);
        }
    }
    return isGood && G_TOTALS.lost == 0;
}

bool ParseOption(int option, const char* argument) {
    switch (option) {
        case 'p':
            return ParseNumber('p', argument, 1, MAX_PORT, G_OPTIONS.port);
        case 'f':
            return ParseNumber('f', argument, 1, MAX_IN_FLIGHT, G_OPTIONS.inFlight);
        case 'a':
            G_OPTIONS.path = argument;
            return G_OPTIONS.path.size() <= MAX_PATH_SIZE;
        case '2':
            return G_OPTIONS.isTls12 = true;
        default:
            return false;
    }
}

void RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (!ParseOptions(argc, argv, "p:f:a:2", ParseOption) || optind < argc || G_OPTIONS.port == 0) {
        fprintf(stderr, "usage: %s -p port [-f handshakes] [-a path] [-2]\n", argv[0]);
        return 2;
    }
    RaiseDescriptorLimit();
    signal(SIGPIPE, SIG_IGN);  // a peer that has gone shows in the result of the write
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(
        SSL_CTX_new(TLS_client_method()), SSL_CTX_free);
    const unsigned char protocols[] = {2, 'h', '2'};
    SSL_CTX_set_alpn_protos(context.get(), protocols, sizeof protocols);
    SSL_CTX_set_session_cache_mode(context.get(), SSL_SESS_CACHE_OFF);
    SSL_CTX_set_mode(context.get(), SSL_MODE_RELEASE_BUFFERS | SSL_MODE_ENABLE_PARTIAL_WRITE |
                                        SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    if (G_OPTIONS.isTls12) {
        SSL_CTX_set_max_proto_version(context.get(), TLS1_2_VERSION);
    }
    Client client(context.get());
    return ExecuteAll(client) ? 0 : 1;
}
