#include "CVEKLoadWatch.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <thread>
#include <utility>

#include "VEKLoadText.h"

namespace {

constexpr std::chrono::milliseconds LOOK_INTERVAL{250};
// In a row: rates of uneven seconds are wrong, but a thread that is late must not hide the others.
constexpr int MAX_UNEVEN_LOOKS = 3;
constexpr double UNKNOWN_TIME = 1e9;  // seconds

// The loop that heard of signals is over, and what has come is being written: one signal that was
// meant for the run is let pass, the next one ends the program even where a write never returns.
void HearOneSignal() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART | static_cast<int>(SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

}  // namespace

CVEKLoadWatch::CVEKLoadWatch(const VEK_ST_LOAD_OPTIONS& options, CVEKLoadEngine& engine,
                             OnEnd onEnd)
    : options_(options), engine_(engine), onEnd_(std::move(onEnd)), screen_(STDERR_FILENO) {}

std::string CVEKLoadWatch::Run(std::chrono::steady_clock::time_point start) {
    for (const int signal : {SIGINT, SIGTERM, SIGUSR1}) {
        // mpirun hands the last one on, and leaves it to the ranks what to make of it.
        if (signal != SIGUSR1 || options_.isRank_) {
            loop_.OnSignal(signal, [this, signal] { OnSignal(signal); });
        }
    }
    const CVEKTimer timer = loop_.Every(LOOK_INTERVAL, [this] {
        engine_.Look([this](const VEK_ST_LOAD_SUMMARY& summary, bool isEven) {
            if (isEven || ++unevenLooks_ > MAX_UNEVEN_LOOKS) {
                unevenLooks_ = 0;
                Look(summary);
            }
        });
    });
    std::this_thread::sleep_until(start);
    engine_.Start([this] { loop_.Stop(); });
    loop_.Run();
    screen_.Erase();
    if (isSignalled_ && !options_.isRank_) {
        std::signal(SIGINT, SIG_DFL);
        std::signal(SIGTERM, SIG_DFL);
    } else if (!options_.isRank_) {
        HearOneSignal();
    }
    if (!endedBy_.empty()) {
        return endedBy_;
    }
    const CVEKLoadSchedule::Duration limit = engine_.GetSchedule().GetLength();
    const bool hasLimit = limit != CVEKLoadSchedule::Duration::max();
    const bool isOver = std::chrono::steady_clock::now() - engine_.GetStart() >= limit;
    return hasLimit && (isOver || options_.count_ == 0) ? "duration" : "requests";
}

// A launcher of many programs sends several signals to end them, and has other means to make haste.
void CVEKLoadWatch::OnSignal(int signal) {
    if (isSignalled_ && !options_.isRank_) {
        std::signal(signal, SIG_DFL);
        raise(signal);
    }
    isSignalled_ = true;
    EndHere("signal", "");
}

void CVEKLoadWatch::End(const std::string& cause) {
    if (endedBy_.empty()) {
        endedBy_ = cause;
        engine_.Stop();
    }
}

void CVEKLoadWatch::EndHere(const char* cause, const std::string& text) {
    if (endedBy_.empty()) {
        End(cause);
        screen_.Erase();
        onEnd_(cause, text);
    }
}

void CVEKLoadWatch::Look(const VEK_ST_LOAD_SUMMARY& summary) {
    if (endedBy_.empty()) {
        Judge(summary);
    }
    Draw(summary);
}

void CVEKLoadWatch::Judge(const VEK_ST_LOAD_SUMMARY& summary) {
    const std::chrono::nanoseconds limit = options_.maxLag_;
    const auto lag = static_cast<int64_t>(summary.lagNs_);
    if (limit.count() > 0 && lag > limit.count()) {
        EndHere("lag", "a thread was late by " +
                           VEK_LOAD_FORMAT_NS(static_cast<double>(summary.lagNs_)) +
                           ", more than --max-lag allows");
        return;
    }
    std::string figure;
    for (const CVEKLoadTerm& term : options_.abortIf_) {
        if (!summary.seconds_.empty() && term.Holds(summary, figure)) {
            EndHere("abort", "ended by --abort-if '" + term.GetText() + "': " + figure);
            return;
        }
    }
}

void CVEKLoadWatch::Draw(const VEK_ST_LOAD_SUMMARY& summary) {
    const CVEKLoadSchedule& schedule = engine_.GetSchedule();
    const std::chrono::duration<double> time =
        std::chrono::steady_clock::now() - engine_.GetStart();
    const auto count = static_cast<double>(std::max<int64_t>(schedule.GetCount(), 1));
    double share = static_cast<double>(engine_.CountFlows(summary)) / count;
    if (schedule.GetLength() != CVEKLoadSchedule::Duration::max()) {
        share = std::max(share, time / std::chrono::duration<double>(schedule.GetLength()));
    }
    const double left = share > 0 ? time.count() / share * (1 - share) : UNKNOWN_TIME;
    screen_.Draw(summary, std::min(share, 1.0), left);
}
