// A load generator for HTTP/2 servers: many requests in flight on one or more connections, as fast
// as they go or on a fixed schedule, and what became of them at the end.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <thread>

#include "CVEKLoadEngine.h"
#include "VEKCommonOpenSSL.h"
#include "VEKHttp2Option.h"
#include "VEKLoadArguments.h"
#include "VEKLoadLimit.h"
#include "VEKLoadReport.h"
#include "VEKServiceLog.h"
#include "VEKStandardStream.h"
#include "VEKTlsOption.h"

namespace {

constexpr std::chrono::milliseconds PROGRESS_INTERVAL{500};
constexpr int NUMBER_DIGITS = 8;

VEK_ST_LOAD_ARGUMENTS G_ARGUMENTS;

void PrintResponse(int64_t number, const VEK_ST_HTTP_RESPONSE& response) {
    const std::string& body = response.body_.GetText();
    const int size = static_cast<int>(body.size());
    printf("%lld response status:%03d,value[%4d:%8.*s]\n", static_cast<long long>(number),
           response.status_, size, std::min(size, NUMBER_DIGITS), body.data());
}

// False after a line on standard error.
bool SetTls(const char* program, VEK_ST_HTTP_TARGET& target) {
    VEK_SSL_INIT();
    if (G_ARGUMENTS.isTls12_) {
        target.context_.reset(VEK_SSL_CREATE_CLIENT_CTX(nullptr, nullptr, nullptr), SSL_CTX_free);
        if (target.context_ == nullptr) {
            fprintf(stderr, "%s: cannot set TLS up\n", program);
        }
        return target.context_ != nullptr;
    }
    const auto tls = std::make_shared<VEK_ST_TLS_OPTIONS>();
    tls->caFile_ = G_ARGUMENTS.caFile_;
    tls->isVerifying_ = !G_ARGUMENTS.isInsecure_;
    target.tls_ = tls;
    return true;
}

bool MakePlan(const char* program, VEK_ST_LOAD_PLAN& plan) {
    plan.target_.host_ = G_ARGUMENTS.host_;
    plan.target_.port_ = static_cast<uint16_t>(G_ARGUMENTS.port_);
    plan.target_.isUpgrade_ = G_ARGUMENTS.isUpgrade_;
    plan.request_.method_ = "POST";
    plan.request_.path_ = G_ARGUMENTS.path_;
    plan.request_.fields_ = {{"content-type", "text"}, {"routing-host", "127.0.0.1:8000"}};
    plan.request_.body_ = std::string(static_cast<size_t>(G_ARGUMENTS.bodySize_), '\0');
    plan.connections_ = static_cast<size_t>(G_ARGUMENTS.connections_);
    plan.streams_ = static_cast<uint32_t>(G_ARGUMENTS.streams_);
    plan.threads_ = static_cast<unsigned>(G_ARGUMENTS.threads_);
    if (G_ARGUMENTS.isVerbose_) {
        plan.onResponse_ = PrintResponse;
    }
    return !G_ARGUMENTS.IsTls() || SetTls(program, plan.target_);
}

// False after a line on standard error.
bool HasDescriptors(const char* program) {
    const size_t limit = VEK_LOAD_RAISE_DESCRIPTORS();
    const size_t threads = std::max(static_cast<unsigned>(G_ARGUMENTS.threads_),
                                    std::thread::hardware_concurrency());
    const size_t needed =
        VEK_LOAD_COUNT_DESCRIPTORS(static_cast<size_t>(G_ARGUMENTS.connections_), threads);
    if (needed > limit) {
        fprintf(stderr, "%s: too few descriptors: %d connections need %zu, the limit is %zu\n",
                program, G_ARGUMENTS.connections_, needed, limit);
    }
    return needed <= limit;
}

// False after a line on standard error.
bool Connect(CVEKLoadEngine& engine) {
    const VEK_ST_HTTP_FAILURE failure = engine.Connect();
    if (failure) {
        fprintf(stderr, "cannot connect to %s port %d: %s\n", G_ARGUMENTS.host_.c_str(),
                G_ARGUMENTS.port_, failure.text_.c_str());
        return false;
    }
    if (G_ARGUMENTS.isInsecure_) {
        const VEK_ST_HTTP_CONNECTION& first = engine.GetFirstConnection();
        fprintf(stderr,
                "--insecure: not verified: certificate [%s] of [%s], valid until [%s]: %s\n",
                first.tlsSubject_.c_str(), first.tlsIssuer_.c_str(), first.tlsExpiry_.c_str(),
                first.tlsVerdict_.c_str());
    }
    return true;
}

// Lets the run go on to its end, which the first signal brings about too; the second one ends the
// program.
void Watch(CVEKLoadEngine& engine) {
    CVEKEventLoop loop;
    bool isStopping = false;
    for (const int signal : {SIGINT, SIGTERM}) {
        loop.OnSignal(signal, [&, signal] {
            if (isStopping) {
                std::signal(signal, SIG_DFL);
                raise(signal);
            }
            isStopping = true;
            engine.Stop();
        });
    }
    const auto start = std::chrono::steady_clock::now();
    const bool isTerminal = isatty(STDERR_FILENO) != 0;
    CVEKTimer progress;
    if (isTerminal) {
        progress = loop.Every(PROGRESS_INTERVAL, [&] {
            const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
            VEK_LOAD_PRINT_PROGRESS(G_ARGUMENTS, engine.GetDone(), engine.GetErrors(),
                                    time.count());
        });
    }
    engine.Start([&loop] { loop.Stop(); });
    loop.Run();
    if (isTerminal) {
        VEK_LOAD_ERASE_PROGRESS();
    }
}

// Returns whether every request was answered and the summary has been printed.
bool Report(const VEK_ST_LOAD_RESULT& result, double seconds, FILE* stream) {
    if (!result.connectionFailure_.empty()) {
        fprintf(stderr, "connection lost: %s\n", result.connectionFailure_.c_str());
    }
    if (G_ARGUMENTS.isJson_) {
        VEK_LOAD_PRINT_JSON(stream, result, seconds);
    } else {
        VEK_LOAD_PRINT_TEXT(result, seconds);
    }
    FILE* printed = G_ARGUMENTS.isJson_ ? stream : stdout;
    if (fflush(printed) != 0 || ferror(printed) != 0) {
        fprintf(stderr, "cannot print the summary: %s\n", strerror(errno));
        return false;
    }
    return result.answered_ == result.sent_ && result.unsent_ == 0;
}

// `stream`: where a JSON summary goes.
int Run(const char* program, FILE* stream) {
    VEK_ST_LOAD_PLAN plan;
    if (!HasDescriptors(program) || !MakePlan(program, plan)) {
        return 1;
    }
    const std::chrono::duration<double> length(G_ARGUMENTS.seconds_);
    CVEKLoadEngine engine(
        plan, CVEKLoadSchedule(G_ARGUMENTS.GetCount(), G_ARGUMENTS.rate_,
                               std::chrono::duration_cast<CVEKLoadSchedule::Duration>(length)));
    if (!Connect(engine)) {
        return 1;
    }
    if (!G_ARGUMENTS.isStartedAtOnce_) {
        fflush(stdout);
        getchar();
    }
    Watch(engine);
    double seconds = 0;
    const VEK_ST_LOAD_RESULT result = engine.Finish(seconds);
    return Report(result, seconds, stream) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    VEK_OPEN_STANDARD_STREAMS();
    if (!VEK_LOAD_PARSE(argc, argv, G_ARGUMENTS)) {
        VEK_LOAD_HELP(argv[0]);
        return 2;
    }
    // The summary shall be all that a JSON run prints on standard output: the rest goes elsewhere.
    const std::unique_ptr<FILE, decltype(&fclose)> stream(fdopen(dup(STDOUT_FILENO), "w"), fclose);
    if (stream == nullptr ||
        (G_ARGUMENTS.isJson_ && dup2(STDERR_FILENO, STDOUT_FILENO) != STDOUT_FILENO)) {
        fprintf(stderr, "%s: cannot start: %s\n", argv[0], strerror(errno));
        return 1;
    }
    VEK_OPEN_SERVICE_LOG(G_ARGUMENTS.isVerbose_ ? VEK_LOG_ALL : VEK_LOG_ERROR);
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
