// vekload-mpi: vekload on many machines at once, started by mpirun or whatever else starts MPI
// jobs.
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include "CVEKLoadRanks.h"
#include "CVEKLoadSession.h"
#include "CVEKLoadWatch.h"
#include "VEKStandardStream.h"

namespace {

constexpr std::chrono::milliseconds POLL_INTERVAL{50};
constexpr std::chrono::seconds MAX_LAG{2};
constexpr double P99 = 99;

// Says everything once: the others read the same words, and come to the same end. A launcher can
// give them other ones, too: where those lead to other calls, each rank would wait for another one.
int ReadOptions(int argc, char** argv, CVEKLoadRanks& ranks, VEK_ST_LOAD_OPTIONS& options) {
    options.isRank_ = true;
    options.maxLag_ = MAX_LAG;
    options.share_ = {ranks.GetRank(), ranks.GetSize()};
    if (ranks.GetRank() != 0) {
        std::cout.rdbuf(nullptr);
        std::cerr.rdbuf(nullptr);
    }
    const int status = VEK_LOAD_READ_OPTIONS(argc, argv, options);
    const std::string own = std::to_string(status) + (options.data_ == "@-" ? "@-" : "");
    std::string first = own;
    ranks.Spread(first);
    const int difference = ranks.Agree(first == own ? VEK_LOAD_WELL : VEK_LOAD_WRONG_USE,
                                       "its command line leads elsewhere than that of rank 0");
    return difference == VEK_LOAD_WELL ? status : difference;
}

// "port" or "host:port": ranks on one host serve at one port after another.
std::string MovePort(const std::string& place, int distance) {
    const size_t colon = place.rfind(':');
    const size_t begin = colon == std::string::npos ? 0 : colon + 1;
    const long port = strtol(place.c_str() + begin, nullptr, 10);
    return distance == 0 ? place : place.substr(0, begin) + std::to_string(port + distance);
}

// What is the same for all, and what each has for itself.
void Adapt(CVEKLoadRanks& ranks, VEK_ST_LOAD_OPTIONS& options) {
    std::string seed = std::to_string(options.seed_);
    ranks.Spread(seed);
    options.seed_ = std::stoull(seed);
    if (!options.requests_.empty()) {
        options.requests_ += "." + std::to_string(ranks.GetRank());
    }
    if (!options.prometheus_.empty()) {
        options.prometheus_ = MovePort(options.prometheus_, ranks.CountBefore());
    }
    for (CVEKLoadTerm& term : options.abortIf_) {
        term.TakePart(1.0 / ranks.GetSize());
    }
    if (ranks.GetRank() != 0) {
        for (std::string* output :
             {&options.json_, &options.csv_, &options.hdr_, &options.report_}) {
            output->clear();
        }
    }
}

// Only rank 0 has the standard input.
void SpreadInput(CVEKLoadRanks& ranks, VEK_ST_LOAD_PLAN& plan) {
    std::string body = plan.scenario_.flows_[0].stages_[0].body_.GetText();
    ranks.Spread(body);
    for (VEK_ST_LOAD_FLOW& flow : plan.scenario_.flows_) {
        for (VEK_ST_LOAD_STAGE& stage : flow.stages_) {
            stage.body_ = CVEKLoadTemplate(body);
        }
    }
}

// mpirun ends its ranks with SIGCONT, and lets pass the time that it leaves them before SIGTERM,
// too. When the launcher wakes who was not asleep, that is the end.
void HearLauncher() {
    struct sigaction action {};
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    action.sa_sigaction = [](int, siginfo_t* info, void*) {
        if (info->si_pid == getppid()) {
            raise(SIGTERM);
        }
    };
    sigaction(SIGCONT, &action, nullptr);
}

VEK_ST_LOAD_RANK DescribeRank(const CVEKLoadRanks& ranks, CVEKLoadEngine& engine,
                              const VEK_ST_LOAD_SUMMARY& summary) {
    VEK_ST_LOAD_RANK row;
    row.host_ = ranks.GetHost();
    row.startNs_ = ranks.GetTime(engine.GetStart());
    row.lengthNs_ = summary.lengthNs_;
    row.sent_ = summary.total_.sent_;
    row.answered_ = summary.total_.answered_;
    row.errors_ = summary.total_.CountErrors();
    row.p99Ns_ = summary.total_.latency_.GetPercentile(P99);
    row.lagNs_ = summary.lagNs_;
    return row;
}

// On rank 0, behind the reduction: it was one run.
void Unite(const VEK_ST_LOAD_OPTIONS& options, CVEKLoadRanks& ranks, VEK_ST_LOAD_SUMMARY& sum) {
    const std::string& cause = ranks.Poll();
    sum.runs_ = 1;
    sum.commands_ = {options.command_};
    sum.endedBy_ = !cause.empty() ? cause : sum.endedBy_ == "several" ? "duration" : sum.endedBy_;
    std::vector<VEK_ST_LOAD_RANK>& rows = sum.ranks_.rows_;
    const auto [first, last] = std::minmax_element(
        rows.begin(), rows.end(),
        [](const auto& one, const auto& two) { return one.startNs_ < two.startNs_; });
    sum.ranks_.skewNs_ = static_cast<uint64_t>(last->startNs_ - first->startNs_);
    sum.ranks_.reductionNs_ = ranks.GetTimes().reductionNs_;
    if (!options.isPerRank_) {
        rows.clear();
    }
}

// Returns the sum of all, on rank 0.
VEK_ST_LOAD_SUMMARY CarryOut(CVEKLoadRanks& ranks, CVEKLoadSession& session, CVEKLoadWatch& watch) {
    ranks.CompareClocks();
    const CVEKLoadRanks::Clock::time_point start = ranks.Meet();
    const CVEKTimer poll = watch.GetLoop().Every(POLL_INTERVAL, [&] {
        const std::string& cause = ranks.Poll();
        if (!cause.empty()) {
            watch.End(cause);
        }
    });
    HearLauncher();
    const std::string endedBy = watch.Run(start);
    VEK_ST_LOAD_SUMMARY summary;
    ranks.Work([&] { summary = session.Finish(endedBy); });
    summary.ranks_ = ranks.GetTimes();
    summary.ranks_.rows_ = {DescribeRank(ranks, session.GetEngine(), summary)};
    ranks.Reduce(summary);
    return summary;
}

int Run(CVEKLoadRanks& ranks, const VEK_ST_LOAD_OPTIONS& options) {
    CVEKLoadSession session(options);
    std::string error;
    int status = VEK_LOAD_WELL;
    ranks.Work([&] { status = session.Prepare(error); });
    status = ranks.Agree(status, error);
    if (status != VEK_LOAD_WELL) {
        return status;
    }
    if (options.data_ == "@-") {
        SpreadInput(ranks, session.GetPlan());
    }
    ranks.Work([&] { status = session.Connect(error); });
    status = ranks.Agree(status, error);
    if (status != VEK_LOAD_WELL) {
        return status;
    }
    // To the end of this: it takes the signals, which without it would end a rank with its results.
    CVEKLoadWatch watch(
        options, session.GetEngine(),
        [&ranks](const char* cause, const std::string& text) { ranks.Tell(cause, text); });
    VEK_ST_LOAD_SUMMARY summary = CarryOut(ranks, session, watch);
    if (ranks.GetRank() == 0) {
        Unite(options, ranks, summary);
        ranks.Work([&] { status = session.Conclude(summary); });
    }
    std::string common = std::to_string(status);
    ranks.Spread(common);
    return std::stoi(common);
}

}  // namespace

int main(int argc, char** argv) {
    VEK_OPEN_STANDARD_STREAMS();
    CVEKLoadRanks ranks(argc, argv);
    try {
        VEK_LOAD_INITIALIZE();
        VEK_ST_LOAD_OPTIONS options;
        int status = ReadOptions(argc, argv, ranks, options);
        if (status == VEK_LOAD_GO_ON) {
            Adapt(ranks, options);
            status = Run(ranks, options);
        }
        return status;
    } catch (const std::exception& failure) {  // no memory, for one
        ranks.Abort(failure.what());
    }
}
