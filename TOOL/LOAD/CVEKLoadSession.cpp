#include "CVEKLoadSession.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <new>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#ifdef VEK_PROMETHEUS
#include "CVEKLoadMetrics.h"
#endif
#include "VEKCommonOpenSSL.h"
#include "VEKHttp2Option.h"
#include "VEKLoadLimit.h"
#include "VEKLoadTargets.h"
#include "VEKServiceLog.h"

namespace {

// Figures that are half added up are none. A thread that lacks memory for them ends the program.
void EndWithoutMemory() {
    try {
        const std::exception_ptr failure = std::current_exception();
        if (failure != nullptr) {
            std::rethrow_exception(failure);
        }
    } catch (const std::bad_alloc&) {
        constexpr std::string_view TEXT = "vekload: memory has run out\n";
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, TEXT.data(), TEXT.size());
        _exit(VEK_LOAD_FAILED);
    } catch (...) {
        abort();
    }
    abort();
}

}  // namespace

void VEK_LOAD_INITIALIZE() {
    std::set_terminate(EndWithoutMemory);
    VEK_ST_SERVICE_LOG_OPTIONS log;
    log.sink_ = [](void*, int, const char*, const char*, size_t) {
    };  // the summary tells of failures
    VEK_SET_SERVICE_LOG_OPTIONS(log);
    std::signal(SIGPIPE, SIG_IGN);  // a reader that goes is a result that cannot be written
    VEK_SSL_INIT();
    VEK_HTTP2_INIT();
}

CVEKLoadSession::CVEKLoadSession(const VEK_ST_LOAD_OPTIONS& options) : options_(options) {}

CVEKLoadSession::~CVEKLoadSession() = default;

int CVEKLoadSession::Prepare(std::string& error) {
    if (!VEK_LOAD_MAKE_PLAN(options_, plan_, error)) {
        return VEK_LOAD_WRONG_USE;
    }
    if (!options_.requests_.empty()) {
        std::vector<std::string> names;
        for (const VEK_ST_LOAD_STAGE* stage : plan_.scenario_.GetStages()) {
            names.push_back(stage->name_);
        }
        log_ = std::make_unique<CVEKLoadRequestLog>(std::move(names));
        if (!log_->Open(options_.requests_, error)) {
            return VEK_LOAD_WRONG_USE;
        }
    }
    if (!outputs_.Open(options_, error)) {
        return VEK_LOAD_WRONG_USE;
    }
    return HasDescriptors(error) ? VEK_LOAD_WELL : VEK_LOAD_NOTHING_SENT;
}

bool CVEKLoadSession::HasDescriptors(std::string& error) const {
    const size_t limit = VEK_LOAD_RAISE_DESCRIPTORS();
    const size_t connections = plan_.connections_ * plan_.targets_.size();
    const size_t needed = VEK_LOAD_COUNT_DESCRIPTORS(
        connections, std::max(plan_.threads_, std::thread::hardware_concurrency()));
    if (needed > limit) {
        error = "too few descriptors: " + std::to_string(connections) + " connections need " +
                std::to_string(needed) + ", the limit is " + std::to_string(limit);
    }
    return needed <= limit;
}

int CVEKLoadSession::Connect(std::string& error) {
    engine_ = std::make_unique<CVEKLoadEngine>(std::move(plan_), VEK_LOAD_MAKE_SCHEDULE(options_),
                                               log_.get());
    if (const VEK_ST_HTTP_FAILURE wrong = engine_->Open()) {
        error = wrong.text_;
        return VEK_LOAD_WRONG_USE;
    }
    if (const VEK_ST_HTTP_FAILURE failure = engine_->Connect()) {
        error = "cannot connect: " + failure.text_;
        return VEK_LOAD_NOTHING_SENT;
    }
    const VEK_ST_HTTP_CONNECTION& first = engine_->GetFirstConnection();
    if (options_.isInsecure_ && !first.tlsSubject_.empty() && options_.share_.index_ == 0) {
        fprintf(stderr,
                "--insecure: not verified: certificate [%s] of [%s], valid until [%s]: %s\n",
                first.tlsSubject_.c_str(), first.tlsIssuer_.c_str(), first.tlsExpiry_.c_str(),
                first.tlsVerdict_.c_str());
    }
#ifdef VEK_PROMETHEUS
    if (!options_.prometheus_.empty()) {
        metrics_ = std::make_unique<CVEKLoadMetrics>();
        if (!metrics_->Open(options_.prometheus_, *engine_, error)) {
            return VEK_LOAD_WRONG_USE;
        }
    }
#endif
    return VEK_LOAD_WELL;
}

VEK_ST_LOAD_SUMMARY CVEKLoadSession::Finish(const std::string& endedBy) {
#ifdef VEK_PROMETHEUS
    metrics_.reset();
#endif
    VEK_ST_LOAD_SUMMARY summary = engine_->Finish();
    summary.unwritten_ = log_ == nullptr ? 0 : log_->Close();
    summary.endedBy_ = endedBy;
    summary.commands_ = {options_.command_};
    return summary;
}

int CVEKLoadSession::Conclude(VEK_ST_LOAD_SUMMARY& summary) {
    if (!options_.scenario_.empty()) {
        fprintf(stderr, "seed %llu\n", static_cast<unsigned long long>(options_.seed_));
    }
    return Conclude(options_, outputs_, summary);
}

int CVEKLoadSession::Conclude(const VEK_ST_LOAD_OPTIONS& options, CVEKLoadOutputs& outputs,
                              VEK_ST_LOAD_SUMMARY& summary) {
    summary.verdicts_.clear();
    for (const CVEKLoadTerm& term : options.failIf_) {
        summary.verdicts_.push_back(term.Judge(summary));
    }
    std::string error;
    const bool isWritten = outputs.Write(summary, error);
    if (!isWritten) {
        VEK_LOAD_COMPLAIN(VEK_LOAD_FAILED, "cannot write " + error);
    }
    if (summary.total_.sent_ == 0) {
        return VEK_LOAD_COMPLAIN(VEK_LOAD_NOTHING_SENT, "nothing could be sent");
    }
    const bool isWhole = summary.endedBy_ != "abort" && summary.endedBy_ != "lag";
    const bool isPassed = summary.total_.answered_ > 0 &&
                          std::all_of(summary.verdicts_.begin(), summary.verdicts_.end(),
                                      [](const auto& verdict) { return verdict.isPassed_; }) &&
                          summary.total_.CountUnexpected() == 0;
    return isWritten && isWhole && isPassed ? VEK_LOAD_WELL : VEK_LOAD_FAILED;
}
