#include "CVEKLoadEngine.h"

#include <algorithm>
#include <utility>

namespace {

constexpr uint32_t WINDOW_SIZE = 1U << 30;

// A thread without a connection would have nothing to do.
unsigned CountThreads(const VEK_ST_LOAD_PLAN& plan) {
    return static_cast<unsigned>(std::min<size_t>(plan.threads_, plan.connections_));
}

}  // namespace

CVEKLoadEngine::CVEKLoadEngine(const VEK_ST_LOAD_PLAN& plan, const CVEKLoadSchedule& schedule)
    : run_(plan, schedule), loops_(CountThreads(plan)) {
    run_.workers_ = loops_.GetSize();
}

CVEKLoadEngine::~CVEKLoadEngine() {
    loops_.Stop();  // first: workers use the client there
    client_.reset();
}

VEK_ST_HTTP_CLIENT_OPTIONS CVEKLoadEngine::MakeOptions() {
    VEK_ST_HTTP_CLIENT_OPTIONS options;
    options.settings_.streamWindow_ = WINDOW_SIZE;
    options.settings_.connectionWindow_ = WINDOW_SIZE;
    options.connections_ = run_.plan_.connections_;
    options.streams_ = run_.plan_.streams_;
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

VEK_ST_HTTP_FAILURE CVEKLoadEngine::Connect() {
    client_ = std::make_unique<CVEKHttpClient>(loops_, MakeOptions());
    for (size_t i = 0; i < run_.workers_; ++i) {
        workers_.push_back(std::make_unique<CVEKLoadWorker>(run_, loops_.GetLoop(i), *client_, i,
                                                            [this] { onEnd_(); }));
    }
    VEK_ST_HTTP_FAILURE failure = client_->AddTarget(run_.plan_.target_);
    if (failure) {
        return failure;
    }
    client_->Connect();
    std::unique_lock<std::mutex> guard(mutex_);
    changed_.wait(guard, [this] { return failure_ || up_ == run_.plan_.connections_; });
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

void CVEKLoadEngine::Start(std::function<void()> onEnd) {
    onEnd_ = std::move(onEnd);
    VEK_ST_HTTP_CALL_OPTIONS options;
    options.isContentDropped_ = true;
    run_.request_ = client_->Prepare(run_.plan_.request_, options);
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

VEK_ST_LOAD_RESULT CVEKLoadEngine::Finish(double& seconds) {
    loops_.Stop();  // first: workers use the client there
    client_.reset();
    VEK_ST_LOAD_RESULT result;
    VEK_ST_LOAD_RESULT::Clock::duration end{};
    for (const auto& worker : workers_) {
        result.Add(worker->GetResult());
        end = std::max(end, worker->GetEnd());
    }
    result.unsent_ = std::max<int64_t>(0, run_.schedule_.GetPlanned(end) - result.sent_);
    result.bytesSent_ = result.sent_ * static_cast<int64_t>(run_.plan_.request_.body_.GetSize());
    const std::chrono::duration<double> length = std::max(result.end_, run_.start_) - run_.start_;
    seconds = length.count();
    return result;
}
