#include "CVEKLoadEngine.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "VEKLoadUnit.h"

namespace {

// A thread without a connection to each target would have to send over those of others, and one
// without a user would never send.
unsigned CountThreads(const VEK_ST_LOAD_PLAN& plan) {
    const unsigned wanted = plan.threads_ > 0 ? plan.threads_ : std::thread::hardware_concurrency();
    const size_t limit =
        plan.users_ > 0 ? std::min(plan.users_, plan.connections_) : plan.connections_;
    return static_cast<unsigned>(std::min<size_t>(std::max(wanted, 1U), limit));
}

}  // namespace

CVEKLoadEngine::CVEKLoadEngine(VEK_ST_LOAD_PLAN plan, CVEKLoadSchedule schedule,
                               CVEKLoadRequestLog* log)
    : run_(std::move(plan), std::move(schedule)), loops_(CountThreads(run_.plan_)) {
    run_.workers_ = loops_.GetSize();
    run_.handedIn_.resize(run_.workers_);
    run_.log_ = log;
    run_.summary_.threads_ = run_.workers_;
    run_.summary_.seed_ = run_.plan_.seed_;
    for (const VEK_ST_LOAD_STAGE* stage : run_.stages_) {
        run_.summary_.steps_.push_back({stage->name_, {}});
    }
    size_t stages = 0;
    for (const VEK_ST_LOAD_FLOW& flow : run_.plan_.scenario_.flows_) {
        run_.firstStages_.push_back(stages);
        stages += flow.stages_.size();
    }
}

CVEKLoadEngine::~CVEKLoadEngine() {
    client_.reset();
    loops_.Stop();
}

VEK_ST_HTTP_CLIENT_OPTIONS CVEKLoadEngine::MakeOptions() {
    VEK_ST_HTTP_CLIENT_OPTIONS options;
    options.settings_ = run_.plan_.settings_;
    options.connections_ = run_.plan_.connections_;
    options.streams_ = run_.plan_.streams_;
    options.requests_ = run_.plan_.requestsOfConnection_;
    options.waiting_ = 0;
    options.responseTime_ = run_.plan_.timeout_;
    options.idleTime_ = std::chrono::milliseconds(0);
    options.attempts_ = 1;  // what is sent is counted, and so sent once
    options.observer_.onUp_ = [this](const auto& connection) { NoteUp(connection); };
    options.observer_.onDown_ = [this](const auto& connection, const auto& failure) {
        NoteDown(connection, failure);
    };
    return options;
}

VEK_ST_HTTP_FAILURE CVEKLoadEngine::Open() {
    client_ = std::make_unique<CVEKHttpClient>(loops_, MakeOptions());
    for (size_t i = 0; i < run_.workers_; ++i) {
        workers_.push_back(std::make_unique<CVEKLoadWorker>(run_, loops_.GetLoop(i), *client_, i,
                                                            [this] { onEnd_(); }));
    }
    for (const VEK_ST_HTTP_TARGET& target : run_.plan_.targets_) {
        VEK_ST_HTTP_FAILURE failure = client_->AddTarget(target);
        if (failure) {
            return failure;
        }
    }
    return {};
}

VEK_ST_HTTP_FAILURE CVEKLoadEngine::Connect() {
    client_->Connect();
    const size_t wanted = run_.plan_.connections_ * run_.plan_.targets_.size();
    std::unique_lock<std::mutex> guard(mutex_);
    changed_.wait(guard, [&] { return failure_ || up_ == wanted; });
    return failure_;
}

void CVEKLoadEngine::NoteUp(const VEK_ST_HTTP_CONNECTION& connection) {
    WorkerOf(connection).NoteUp(connection);
    const std::lock_guard<std::mutex> guard(mutex_);
    if (++up_ == 1) {
        first_ = connection;
    }
    changed_.notify_all();
}

void CVEKLoadEngine::NoteDown(const VEK_ST_HTTP_CONNECTION& connection,
                              const VEK_ST_HTTP_FAILURE& failure) {
    WorkerOf(connection).NoteDown(connection, failure);
    const bool wasUp = connection.up_ != std::chrono::steady_clock::time_point();
    const std::lock_guard<std::mutex> guard(mutex_);
    if (!wasUp && !failure_) {
        failure_ = failure;
        changed_.notify_all();
    }
}

// What is the same for all requests is done once.
void CVEKLoadEngine::Prepare() {
    for (const VEK_ST_LOAD_FLOW& flow : run_.plan_.scenario_.flows_) {
        const VEK_ST_LOAD_STAGE& stage = flow.stages_[0];
        run_.requests_.emplace_back();
        if (flow.stages_.size() == 1 && stage.IsPlain() && stage.maxThink_.count() == 0) {
            VEK_ST_HTTP_CALL_OPTIONS options;
            options.target_ = stage.target_;
            options.isContentDropped_ = true;
            run_.requests_.back() = client_->Prepare(stage.Render({}), std::move(options));
        }
    }
}

void CVEKLoadEngine::Start(std::function<void()> onEnd) {
    onEnd_ = std::move(onEnd);
    Prepare();
    const std::chrono::nanoseconds now = std::chrono::system_clock::now().time_since_epoch();
    run_.summary_.startMs_ =
        std::chrono::duration_cast<std::chrono::milliseconds>(now + run_.plan_.warmUp_).count();
    run_.start_ = std::chrono::steady_clock::now();
    for (size_t i = 0; i < run_.workers_; ++i) {
        loops_.GetLoop(i).Post([&worker = *workers_[i]] { worker.Start(); });
    }
}

void CVEKLoadEngine::Stop() {
    for (size_t i = 0; i < run_.workers_; ++i) {
        loops_.GetLoop(i).Post([&worker = *workers_[i]] { worker.Stop(); });
    }
}

void CVEKLoadEngine::Look(
    const std::function<void(const VEK_ST_LOAD_SUMMARY& summary, bool isEven)>& work) {
    const std::lock_guard<std::mutex> guard(run_.mutex_);
    size_t least = SIZE_MAX;
    size_t most = 0;
    for (const size_t seconds : run_.handedIn_) {
        least = std::min(least, seconds);
        most = seconds == SIZE_MAX ? most : std::max(most, seconds);
    }
    if (least != SIZE_MAX) {
        run_.summary_.lengthNs_ = least * VEK_LOAD_NS_PER_SECOND;
    }
    work(run_.summary_, most <= least);
}

uint64_t CVEKLoadEngine::CountFlows(const VEK_ST_LOAD_SUMMARY& summary) const {
    uint64_t flows = 0;
    for (const size_t stage : run_.firstStages_) {
        flows += summary.steps_[stage].counts_.sent_;
    }
    return flows;
}

// What was to begin and has not, by the first step of its flow. A run for a time without a rate
// owes nothing.
void CVEKLoadEngine::CountUnsent(VEK_ST_LOAD_SUMMARY& summary,
                                 CVEKLoadSchedule::Duration end) const {
    const VEK_ST_LOAD_SCENARIO& scenario = run_.plan_.scenario_;
    const CVEKLoadSchedule& schedule = run_.schedule_;
    const auto limit = static_cast<uint64_t>(run_.plan_.GetLimit());
    uint64_t first = 0;
    uint64_t last = 0;
    if (schedule.IsPaced()) {
        first = static_cast<uint64_t>(schedule.CountDue(schedule.GetWarmUp()));
        last = static_cast<uint64_t>(std::min(schedule.CountDue(end), schedule.GetCountInAll()));
        last = std::max(first, last);  // a run may end within its warm-up
    } else if (schedule.GetLength() == CVEKLoadSchedule::Duration::max()) {
        first = static_cast<uint64_t>(std::max<int64_t>(run_.next_ - run_.counted_, 0));
        last = first + static_cast<uint64_t>(schedule.GetCount());
    }
    for (size_t kind = 0; kind < scenario.flows_.size(); ++kind) {
        uint64_t begun = 0;
        for (const auto& worker : workers_) {
            begun += worker->GetBegun()[kind];
        }
        const auto count = [&](uint64_t end) {
            return scenario.CountOf(kind, run_.plan_.share_, std::min(end, limit));
        };
        const uint64_t planned = count(last) - count(first);
        const uint64_t unsent = planned > begun ? planned - begun : 0;
        summary.steps_[run_.firstStages_[kind]].counts_.unsent_ += unsent;
        summary.total_.unsent_ += unsent;
    }
}

VEK_ST_LOAD_SUMMARY CVEKLoadEngine::Finish() {
    client_.reset();
    loops_.Stop();
    CVEKLoadSchedule::Duration end{};
    std::chrono::steady_clock::time_point last{};
    for (const auto& worker : workers_) {
        worker->Finish();
        end = std::max(end, worker->GetEnd());
        last = std::max(last, worker->GetLast());
    }
    VEK_ST_LOAD_SUMMARY summary = std::move(run_.summary_);
    CountUnsent(summary, end);
    const auto length = last - run_.start_ - run_.plan_.warmUp_;
    summary.lengthNs_ = static_cast<uint64_t>(std::max<int64_t>(length.count(), 0));
    return summary;
}
