// A test server for HTTP/2 clients, on vekhttp: it answers every request with its own body or one
// of a fixed size.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "CVEKEventLoops.h"
#include "CVEKHttpServer.h"
#include "EchoService.h"
#include "SampleArguments.h"
#include "ServerOptions.h"
#include "VEKCommonOpenSSL.h"
#include "VEKHttp2Option.h"
#include "VEKServiceLog.h"
#include "VEKStandardStream.h"

namespace {

constexpr size_t MAX_HANDSHAKES = 1000;  // at once; above, the oldest one has to go
// The bodies of all streams are limited each, so the connection's window need not hold anybody up;
// a large one saves the peer's waiting for updates, and the sending of these.
constexpr uint32_t CONNECTION_WINDOW = 1U << 30;
constexpr std::chrono::hours IDLE_TIME(1);  // it is the clients' to leave
constexpr std::chrono::seconds DRAIN_TIME(2);

VEK_ST_HTTP_SERVER_OPTIONS MakeServerOptions(const ServerOptions& options) {
    VEK_ST_HTTP_SERVER_OPTIONS made;
    made.streams_ = static_cast<uint32_t>(options.streams);
    made.settings_.bodyBytes_ = static_cast<size_t>(options.PayloadSize());
    made.settings_.connectionWindow_ = CONNECTION_WINDOW;
    made.connections_ = made.connectionsPerPeer_ = 0;  // as many as there are descriptors
    made.handshakes_ = MAX_HANDSHAKES;
    made.resets_ = std::max(made.resets_, 2 * made.streams_);  // clients that give up all of theirs
    made.idleTime_ = IDLE_TIME;
    made.isUpgradeRequestTaken_ = false;  // the framework's clients ask for nothing by it
    if (options.captureDir != nullptr) {
        made.captureDirectory_ = options.captureDir;
    }
    return made;
}

// The TLS that the options ask for. False after a line on standard error.
bool SetTls(const ServerOptions& options, const char* program, VEK_ST_HTTP_LISTENER& listener) {
    if (options.isUpgrade) {
        return true;
    }
    if (!options.isTls12) {
        VEK_ST_TLS_OPTIONS tls = options.tls;
        tls.identities_ = {{options.certificate, options.key}};
        listener.tls_ = std::make_shared<const VEK_ST_TLS_OPTIONS>(std::move(tls));
        return true;
    }
    SSL_CTX* context = VEK_SSL_CREATE_SERVER_CTX(options.key, options.certificate, nullptr);
    if (context == nullptr) {
        fprintf(stderr, "%s: cannot use key %s with certificate %s\n", program, options.key,
                options.certificate);
        return false;
    }
    listener.context_.reset(context, SSL_CTX_free);
    return true;
}

// False after a line on standard error.
bool Listen(CVEKHttpServer& server, const ServerOptions& options, const char* program) {
    VEK_ST_HTTP_LISTENER listener;
    listener.port_ = static_cast<uint16_t>(options.port);
    if (!SetTls(options, program, listener)) {
        return false;
    }
    const VEK_ST_HTTP_FAILURE failure = server.Listen(listener);
    if (failure.reason_ == VEK_HTTP_REASON::TLS) {
        fprintf(stderr, "%s: %s\n", program, failure.text_.c_str());
    } else if (failure) {
        fprintf(stderr, "%s: cannot listen on port %d: %s\n", program, options.port,
                failure.text_.c_str());
    }
    return !failure;
}

bool CanCapture(const char* directory, const char* program) {
    if (directory == nullptr || access((directory + std::string("/")).c_str(), W_OK | X_OK) == 0) {
        return true;
    }
    fprintf(stderr, "%s: cannot write into directory %s: %s\n", program, directory,
            strerror(errno));
    return false;
}

void PrintFigures(const CVEKHttpServer& server, const EchoService& service) {
    const VEK_ST_HTTP_SERVER_COUNTERS figures = server.GetCounters();
    const unsigned long refusals = service.GetRefusals();
    printf(
        "%lu connections, %lu failed handshakes, %lu requests, %lu refused with 429, "
        "%lu reset\n",
        figures.up_, figures.accepted_ - figures.up_, figures.requests_ - refusals, refusals,
        figures.reset_);
}

void RaiseDescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

// Serves until SIGINT or SIGTERM.
int Run(const ServerOptions& options, const char* program) {
    // Before any thread starts, so that none of them takes the signals.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    if (!CanCapture(options.captureDir, program)) {
        return 1;
    }
    // One core is left to the system's side of the network.
    CVEKEventLoops loops(std::max(2U, std::thread::hardware_concurrency()) - 1);
    EchoService service(options, loops);
    CVEKHttpServer server(loops, MakeServerOptions(options));
    server.SetHandler([&service](VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder responder) {
        service.Serve(request, std::move(responder));
    });
    if (!Listen(server, options, program)) {
        return 1;
    }
    printf("listening on port %d\n", server.GetPort());
    fflush(stdout);
    int signal = 0;
    sigwait(&signals, &signal);
    server.Stop(DRAIN_TIME);
    PrintFigures(server, service);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    VEK_OPEN_STANDARD_STREAMS();
    if (AnswerQuestion(argc, argv, ServerOptions::PrintHelp)) {
        return 0;
    }
    ServerOptions options;
    if (!options.Parse(argc, argv)) {
        return 1;
    }
    VEK_OPEN_SERVICE_LOG(options.isVerbose ? VEK_LOG_ALL : VEK_LOG_ERROR);
    VEK_HTTP2_INIT();
    VEK_SSL_INIT();
    VEK_SSL_THREAD_SETUP();
    RaiseDescriptorLimit();
    int result = 1;
    try {
        result = Run(options, argv[0]);
    } catch (const std::exception& error) {  // no threads or no memory
        fprintf(stderr, "%s: cannot start: %s\n", argv[0], error.what());
    }
    VEK_SSL_THREAD_CLEANUP();
    VEK_SSL_CLEANUP();
    VEK_CLOSE_SERVICE_LOG();
    return result;
}
