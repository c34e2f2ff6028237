// A load generator for HTTP/2 servers: many requests in flight on one or more connections, as fast
// as they go or on a fixed schedule, and what became of them at the end.
#include <openssl/ssl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "CVEKTlsContext.h"
#include "LoadConnection.h"
#include "LoadOptions.h"
#include "LoadReport.h"
#include "LoadResult.h"
#include "VEKCommonOpenSSL.h"
#include "VEKHttp2Option.h"
#include "VEKServiceLog.h"
#include "VEKStandardStream.h"

namespace {

constexpr int PROGRESS_INTERVAL_MS = 500;

LoadOptions G_OPTIONS;

using Context = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;
using Connections = std::vector<std::unique_ptr<LoadConnection>>;

// Waits until all threads have ended, and meanwhile shows the progress and ends the run on a
// signal; the second signal ends the program.
class Watch {
  public:
    // Keeps the signals from the threads that start from here on.
    explicit Watch(LoadRun& run) : run_(run), doneFd_(eventfd(0, EFD_CLOEXEC)) {
        sigemptyset(&signals_);
        sigaddset(&signals_, SIGINT);
        sigaddset(&signals_, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
        signalFd_ = signalfd(-1, &signals_, SFD_CLOEXEC);
    }
    ~Watch() {
        for (const int fd : {signalFd_, doneFd_}) {
            if (fd >= 0) {  // and errno stays for whoever asks why not
                close(fd);
            }
        }
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;

    // False when the system had no descriptors left.
    bool IsReady() const { return doneFd_ >= 0 && signalFd_ >= 0; }

    // For each thread when it ends.
    void SignalDone() const {
        const uint64_t one = 1;
        if (write(doneFd_, &one, sizeof one) < 0) {
            VEK_SYSTEM_CALL_LOG("write() failed...");
        }
    }

    void Run(size_t threads) {
        const bool isTerminal = isatty(STDERR_FILENO) != 0;
        for (uint64_t ended = 0; ended < threads;) {
            pollfd sources[] = {{doneFd_, POLLIN, 0}, {signalFd_, POLLIN, 0}};
            poll(sources, 2, PROGRESS_INTERVAL_MS);
            uint64_t count = 0;
            if (sources[0].revents != 0 && read(doneFd_, &count, sizeof count) > 0) {
                ended += count;
            }
            if (sources[1].revents != 0) {
                Stop();
            }
            if (isTerminal) {
                PrintProgress(G_OPTIONS, run_.done, run_.errors,
                              Seconds(LoadClock::now() - run_.start));
            }
        }
        if (isTerminal) {
            EraseProgress();
        }
    }

  private:
    void Stop() {
        signalfd_siginfo info{};
        if (read(signalFd_, &info, sizeof info) > 0) {
            run_.isStopping = true;
            pthread_sigmask(SIG_UNBLOCK, &signals_, nullptr);
        }
    }

    LoadRun& run_;
    sigset_t signals_{};
    int doneFd_;
    int signalFd_ = -1;
};

// Connects one after another. Returns false when one does not get through.
bool ConnectAll(Connections& connections, SSL_CTX* context, LoadRun& run) {
    for (int i = 0; i < G_OPTIONS.connections; ++i) {
        connections.push_back(std::make_unique<LoadConnection>(G_OPTIONS, context, i, run));
        if (!connections.back()->Connect()) {
            const std::string reason = connections.back()->GetTlsReason();
            fprintf(stderr, "cannot connect to %s port %d%s%s\n", G_OPTIONS.host.c_str(),
                    G_OPTIONS.port, reason.empty() ? "" : ": ", reason.c_str());
            return false;
        }
    }
    return true;
}

// Runs each connection on a thread of its own. False when the system refused what is needed for it.
bool RunAll(Connections& connections, LoadRun& run) {
    Watch watch(run);
    if (!watch.IsReady()) {
        return false;
    }
    run.start = LoadClock::now();
    std::vector<std::thread> threads;
    bool isComplete = true;
    try {
        for (const auto& connection : connections) {
            threads.emplace_back([&watch, &connection] {
                connection->Run();
                watch.SignalDone();
            });
        }
    } catch (const std::system_error&) {
        isComplete = false;
        run.isStopping = true;
    }
    watch.Run(threads.size());
    for (std::thread& thread : threads) {
        thread.join();
    }
    return isComplete;
}

// Returns whether every request was answered and the summary has been printed.
bool Report(const Connections& connections, const LoadRun& run, FILE* stream) {
    LoadResult total;
    for (const auto& connection : connections) {
        total.Add(connection->GetResult());
    }
    const double seconds = Seconds(std::max(total.end, run.start) - run.start);
    if (!total.tlsReason.empty()) {
        fprintf(stderr, "connection lost: %s\n", total.tlsReason.c_str());
    }
    G_OPTIONS.isJson ? PrintJson(stream, total, seconds) : PrintText(total, seconds);
    FILE* printed = G_OPTIONS.isJson ? stream : stdout;
    if (fflush(printed) != 0 || ferror(printed) != 0) {
        fprintf(stderr, "cannot print the summary: %s\n", strerror(errno));
        return false;
    }
    return total.answered == total.sent && total.unsent == 0;
}

// What --insecure has let pass.
void PrintUnverified(const VEK_ST_TLS_INFO& info) {
    fprintf(stderr, "--insecure: not verified: certificate [%s] of [%s], valid until [%s]: %s\n",
            info.peerSubject_.c_str(), info.peerIssuer_.c_str(), info.peerExpiry_.c_str(),
            info.peerVerdict_.c_str());
}

// Null after a line on standard error.
Context MakeContext(const char* program) {
    VEK_SSL_INIT();
    VEK_SSL_THREAD_SETUP();
    Context context(nullptr, SSL_CTX_free);
    std::string error = "cannot set TLS up";
    CVEKTlsContext made;
    VEK_ST_TLS_OPTIONS options;
    options.caFile_ = G_OPTIONS.caFile;
    options.isVerifying_ = !G_OPTIONS.isInsecure;
    if (G_OPTIONS.isTls12) {
        context.reset(VEK_SSL_CREATE_CLIENT_CTX(nullptr, nullptr, nullptr));
    } else if (made.CreateClient(options, error)) {
        SSL_CTX_up_ref(made.GetContext());
        context.reset(made.GetContext());
    }
    if (context == nullptr) {
        fprintf(stderr, "%s: %s\n", program, error.c_str());
    }
    return context;
}

// `stream`: where a JSON summary goes.
int Run(const char* program, FILE* stream) {
    Context context(nullptr, SSL_CTX_free);
    if (G_OPTIONS.IsTls() && (context = MakeContext(program)) == nullptr) {
        return 1;
    }
    LoadRun run;
    Connections connections;
    if (!ConnectAll(connections, context.get(), run)) {
        return 1;
    }
    if (G_OPTIONS.isInsecure) {
        PrintUnverified(connections.front()->GetTlsInfo());
    }
    if (!G_OPTIONS.isStartedAtOnce) {
        fflush(stdout);
        getchar();
    }
    if (!RunAll(connections, run)) {
        fprintf(stderr, "%s: cannot start: %s\n", program, strerror(errno));
        return 1;
    }
    return Report(connections, run, stream) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    VEK_OPEN_STANDARD_STREAMS();
    if (!ParseArg(argc, argv, G_OPTIONS)) {
        Help(argv[0]);
        return 2;
    }
    // The summary shall be all that a JSON run prints on standard output: the rest goes elsewhere.
    const std::unique_ptr<FILE, decltype(&fclose)> stream(fdopen(dup(STDOUT_FILENO), "w"), fclose);
    if (stream == nullptr ||
        (G_OPTIONS.isJson && dup2(STDERR_FILENO, STDOUT_FILENO) != STDOUT_FILENO)) {
        fprintf(stderr, "%s: cannot start: %s\n", argv[0], strerror(errno));
        return 1;
    }
    VEK_OPEN_SERVICE_LOG(G_OPTIONS.isVerbose ? VEK_LOG_ALL : VEK_LOG_ERROR);
    VEK_HTTP2_INIT();
    int result = 1;
    try {
        result = Run(argv[0], stream.get());
    } catch (const std::exception& failure) {  // no memory, for one
        fprintf(stderr, "%s: %s\n", argv[0], failure.what());
    }
    VEK_CLOSE_SERVICE_LOG();
    return result;
}
