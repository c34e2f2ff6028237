// vekload: load for HTTP/2 servers, and what came of it.
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <string>

#include "CVEKLoadEngine.h"
#ifdef VEK_PROMETHEUS
#include "CVEKLoadMetrics.h"
#endif
#include "CVEKLoadOutputs.h"
#include "CVEKLoadRequestLog.h"
#include "CVEKLoadScenarioReader.h"
#include "CVEKLoadScreen.h"
#include "VEKCommonOpenSSL.h"
#include "VEKHttp2Option.h"
#include "VEKLoadJson.h"
#include "VEKLoadLimit.h"
#include "VEKLoadOptions.h"
#include "VEKLoadTargets.h"
#include "VEKServiceLog.h"
#include "VEKStandardStream.h"

namespace {

enum Status { ALL_WELL = 0, HAS_FAILED = 1, WRONG_USE = 2, NOTHING_SENT = 3 };

constexpr std::chrono::milliseconds LOOK_INTERVAL{250};
constexpr double UNKNOWN_TIME = 1e9;  // seconds

int Complain(Status status, const std::string& text) {
    fprintf(stderr, "vekload: %s\n", text.c_str());
    return status;
}

// Everything has been counted: writes it down, and finds the exit status.
int Conclude(CVEKLoadOutputs& outputs, VEK_ST_LOAD_SUMMARY& summary) {
    std::string error;
    const bool isWritten = outputs.Write(summary, error);
    if (!isWritten) {
        Complain(HAS_FAILED, "cannot write " + error);
    }
    if (summary.total_.sent_ == 0) {
        return Complain(NOTHING_SENT, "nothing could be sent");
    }
    const bool isNothing = summary.total_.answered_ == 0;
    const bool isPassed = !isNothing &&
                          std::all_of(summary.verdicts_.begin(), summary.verdicts_.end(),
                                      [](const auto& verdict) { return verdict.isPassed_; }) &&
                          summary.total_.CountUnexpected() == 0 && summary.endedBy_ != "abort";
    return isWritten && isPassed ? ALL_WELL : HAS_FAILED;
}

int Merge(const VEK_ST_LOAD_OPTIONS& options) {
    std::optional<VEK_ST_LOAD_SUMMARY> all;
    for (const std::string& path : options.merged_) {
        std::string text;
        std::string error;
        VEK_ST_LOAD_SUMMARY run;
        if (!VEK_LOAD_READ_FILE(path, text, error)) {
            return Complain(WRONG_USE, error);
        }
        if (!VEK_LOAD_READ_JSON(text, run, error)) {
            return Complain(WRONG_USE, path + ": " + error);
        }
        if (all.has_value()) {
            all->Add(run);
        } else {
            all = std::move(run);
        }
    }
    CVEKLoadOutputs outputs;
    std::string error;
    return outputs.Open(options, error) ? Conclude(outputs, *all) : Complain(WRONG_USE, error);
}

// Watches over a run from the main thread: signals, conditions to end it early, the screen.
class Watch {
  public:
    Watch(const VEK_ST_LOAD_OPTIONS& options, const VEK_ST_LOAD_PLAN& plan, CVEKLoadEngine& engine)
        : options_(options),
          engine_(engine),
          limit_(VEK_LOAD_MAKE_SCHEDULE(options).GetLength()),
          screen_(STDERR_FILENO) {
        size_t stage = 0;
        for (const VEK_ST_LOAD_FLOW& flow : plan.scenario_.flows_) {
            firstStages_.push_back(stage);
            stage += flow.stages_.size();
        }
    }

    // Lets the run go on to its end. Returns what has brought it about.
    std::string Run() {
        for (const int signal : {SIGINT, SIGTERM}) {
            loop_.OnSignal(signal, [this, signal] {
                if (endedBy_ == "signal") {
                    std::signal(signal, SIG_DFL);
                    raise(signal);
                }
                End("signal");
            });
        }
        start_ = std::chrono::steady_clock::now();
        const CVEKTimer timer = loop_.Every(LOOK_INTERVAL, [this] {
            engine_.Look([this](const VEK_ST_LOAD_SUMMARY& summary) { Look(summary); });
        });
        engine_.Start([this] { loop_.Stop(); });
        loop_.Run();
        screen_.Erase();
        if (!endedBy_.empty()) {
            return endedBy_;
        }
        const bool hasLimit = limit_ != CVEKLoadSchedule::Duration::max();
        const bool isOver = std::chrono::steady_clock::now() - start_ >= limit_;
        return hasLimit && (isOver || options_.count_ == 0) ? "duration" : "requests";
    }

  private:
    void End(const char* cause) {
        endedBy_ = cause;
        engine_.Stop();
    }

    void Look(const VEK_ST_LOAD_SUMMARY& summary) {
        std::string figure;
        for (const CVEKLoadTerm& term : options_.abortIf_) {
            if (endedBy_.empty() && !summary.seconds_.empty() && term.Holds(summary, figure)) {
                End("abort");
                screen_.Erase();
                fprintf(stderr, "vekload: ended by --abort-if '%s': %s\n", term.GetText().c_str(),
                        figure.c_str());
            }
        }
        uint64_t flows = 0;
        for (const size_t stage : firstStages_) {
            flows += summary.steps_[stage].counts_.sent_;
        }
        const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start_;
        double share = static_cast<double>(flows) / static_cast<double>(options_.GetCount());
        if (limit_ != CVEKLoadSchedule::Duration::max()) {
            share = std::max(share, time / std::chrono::duration<double>(limit_));
        }
        const double left = share > 0 ? time.count() / share * (1 - share) : UNKNOWN_TIME;
        screen_.Draw(summary, std::min(share, 1.0), left);
    }

    const VEK_ST_LOAD_OPTIONS& options_;
    CVEKLoadEngine& engine_;
    const CVEKLoadSchedule::Duration limit_;
    CVEKLoadScreen screen_;
    CVEKEventLoop loop_;
    std::vector<size_t> firstStages_;
    std::chrono::steady_clock::time_point start_;
    std::string endedBy_;
};

// False after a line on standard error.
bool HasDescriptors(const VEK_ST_LOAD_PLAN& plan) {
    const size_t limit = VEK_LOAD_RAISE_DESCRIPTORS();
    const size_t connections = plan.connections_ * plan.targets_.size();
    const size_t needed = VEK_LOAD_COUNT_DESCRIPTORS(
        connections, std::max(plan.threads_, std::thread::hardware_concurrency()));
    if (needed > limit) {
        fprintf(stderr,
                "vekload: too few descriptors: %zu connections need %zu, the limit is %zu\n",
                connections, needed, limit);
    }
    return needed <= limit;
}

// False after a line on standard error.
bool Connect(const VEK_ST_LOAD_OPTIONS& options, CVEKLoadEngine& engine) {
    const VEK_ST_HTTP_FAILURE failure = engine.Connect();
    if (failure) {
        Complain(NOTHING_SENT, "cannot connect: " + failure.text_);
        return false;
    }
    const VEK_ST_HTTP_CONNECTION& first = engine.GetFirstConnection();
    if (options.isInsecure_ && !first.tlsSubject_.empty()) {
        fprintf(stderr,
                "--insecure: not verified: certificate [%s] of [%s], valid until [%s]: %s\n",
                first.tlsSubject_.c_str(), first.tlsIssuer_.c_str(), first.tlsExpiry_.c_str(),
                first.tlsVerdict_.c_str());
    }
    return true;
}

int Run(const VEK_ST_LOAD_OPTIONS& options) {
    VEK_ST_LOAD_PLAN plan;
    CVEKLoadOutputs outputs;
    std::string error;
    if (!VEK_LOAD_MAKE_PLAN(options, plan, error)) {
        return Complain(WRONG_USE, error);
    }
    std::vector<std::string> names;
    for (const VEK_ST_LOAD_FLOW& flow : plan.scenario_.flows_) {
        for (const VEK_ST_LOAD_STAGE& stage : flow.stages_) {
            names.push_back(stage.name_);
        }
    }
    CVEKLoadRequestLog log(names);
    const bool isLogging = !options.requests_.empty();
    if ((isLogging && !log.Open(options.requests_, error)) || !outputs.Open(options, error)) {
        return Complain(WRONG_USE, error);
    }
    if (!HasDescriptors(plan)) {
        return NOTHING_SENT;
    }
    CVEKLoadEngine engine(plan, VEK_LOAD_MAKE_SCHEDULE(options), isLogging ? &log : nullptr);
    if (!Connect(options, engine)) {
        return NOTHING_SENT;
    }
    std::string endedBy;
    {
#ifdef VEK_PROMETHEUS
        CVEKLoadMetrics metrics;
        if (!options.prometheus_.empty() && !metrics.Open(options.prometheus_, engine, error)) {
            return Complain(WRONG_USE, error);
        }
#endif
        endedBy = Watch(options, plan, engine).Run();
    }
    VEK_ST_LOAD_SUMMARY summary = engine.Finish();
    summary.unwritten_ = log.Close();
    summary.endedBy_ = endedBy;
    summary.commands_ = {options.command_};
    if (!options.scenario_.empty()) {
        fprintf(stderr, "seed %llu\n", static_cast<unsigned long long>(options.seed_));
    }
    return Conclude(outputs, summary);
}

}  // namespace

int main(int argc, char** argv) {
    VEK_OPEN_STANDARD_STREAMS();
    int status = HAS_FAILED;
    try {
        VEK_ST_LOAD_OPTIONS options;
        status = VEK_LOAD_READ_OPTIONS(argc, argv, options);
        if (status == VEK_LOAD_GO_ON) {
            VEK_ST_SERVICE_LOG_OPTIONS log;
            log.sink_ = [](void*, int, const char*, const char*, size_t) {
            };  // the summary tells of failures
            VEK_SET_SERVICE_LOG_OPTIONS(log);
            VEK_SSL_INIT();
            VEK_HTTP2_INIT();
            status = options.merged_.empty() ? Run(options) : Merge(options);
        }
    } catch (const std::exception& failure) {  // no memory, for one
        status = Complain(NOTHING_SENT, failure.what());
    }
    return status;
}
