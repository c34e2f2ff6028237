#include "CVEKEventLoop.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <new>
#include <utility>

#include "CVEKLoopCore.h"

// Kept by the handle and, while it is armed, by itself.
struct CVEKTimer::State : public CVEKLoopTimer, public std::enable_shared_from_this<State> {
    State(const std::shared_ptr<CVEKLoopCore>& core, std::function<void()> work)
        : core_(core.get()), owner_(core), work_(std::move(work)) {}

    void Start(uint64_t delay, bool isRepeated) {
        if (isCancelled_) {
            return;
        }
        self_ = shared_from_this();
        interval_ = isRepeated ? delay : 0;
        core_->Arm(*this, core_->GetNow() + delay);
    }
    void StartFine(std::chrono::steady_clock::time_point due) {
        if (isCancelled_) {
            return;
        }
        self_ = shared_from_this();
        const std::chrono::nanoseconds time = due.time_since_epoch();
        core_->ArmFine(*this, static_cast<uint64_t>(std::max<int64_t>(time.count(), 0)));
    }
    void OnTimer() override {
        const std::shared_ptr<State> guard = std::move(self_);
        if (isCancelled_) {
            return;
        }
        if (interval_ > 0) {
            self_ = guard;
            core_->Arm(*this, std::max(GetDue() + interval_, core_->GetNow() + 1));
        }
        work_();
    }
    void OnTimerDropped() override { self_.reset(); }
    void Cancel() {
        isCancelled_ = true;
        const std::shared_ptr<CVEKLoopCore> core = owner_.lock();
        if (core == nullptr) {
            return;
        }
        if (core->IsCurrent()) {
            End();
            return;
        }
        try {
            core->Post([state = shared_from_this()] { state->End(); });
        } catch (const std::bad_alloc&) {
            return;  // it ends when it is next due
        }
    }
    void End() {
        core_->Disarm(*this);
        self_.reset();
    }

    CVEKLoopCore* core_;  // on the loop's thread; others ask the owner
    std::weak_ptr<CVEKLoopCore> owner_;
    std::function<void()> work_;
    std::shared_ptr<State> self_;
    uint64_t interval_ = 0;
    std::atomic<bool> isCancelled_{false};
};

void CVEKTimer::Cancel() {
    const std::shared_ptr<State> state = std::move(state_);
    if (state != nullptr) {
        state->Cancel();
    }
}

CVEKEventLoop::CVEKEventLoop() : core_(std::make_shared<CVEKLoopCore>()) {}

CVEKEventLoop::~CVEKEventLoop() {
    core_->Close();
}

void CVEKEventLoop::Run() {
    core_->Run();
}

void CVEKEventLoop::Stop() {
    core_->Stop();
}

void CVEKEventLoop::Post(std::function<void()> work) {
    core_->Post(std::move(work));
}

CVEKTimer CVEKEventLoop::After(std::chrono::microseconds delay, std::function<void()> work) {
    return Start(delay, false, std::move(work));
}

CVEKTimer CVEKEventLoop::At(std::chrono::steady_clock::time_point due, std::function<void()> work) {
    auto state = std::make_shared<CVEKTimer::State>(core_, std::move(work));
    if (core_->IsCurrent()) {
        state->StartFine(due);
    } else {
        core_->Post([state, due] { state->StartFine(due); });
    }
    return CVEKTimer(std::move(state));
}

CVEKTimer CVEKEventLoop::Every(std::chrono::microseconds delay, std::function<void()> work) {
    return Start(delay, true, std::move(work));
}

CVEKTimer CVEKEventLoop::Start(std::chrono::microseconds delay, bool isRepeated,
                               std::function<void()> work) {
    using std::chrono::milliseconds;
    const milliseconds rounded = std::chrono::ceil<milliseconds>(delay);
    const auto ms =
        static_cast<uint64_t>(std::max(rounded, milliseconds(isRepeated ? 1 : 0)).count());
    auto state = std::make_shared<CVEKTimer::State>(core_, std::move(work));
    if (core_->IsCurrent()) {
        state->Start(ms, isRepeated);
    } else {
        core_->Post([state, ms, isRepeated] { state->Start(ms, isRepeated); });
    }
    return CVEKTimer(std::move(state));
}

bool CVEKEventLoop::OnSignal(int signal, std::function<void()> work) {
    if (signal == SIGKILL || signal == SIGSTOP || signal <= 0 || signal >= NSIG) {
        return false;
    }
    bool isWatched = false;
    core_->Invoke([&] { isWatched = core_->WatchSignal(signal, std::move(work)); });
    return isWatched;
}

bool CVEKEventLoop::IsCurrent() const {
    return core_->IsCurrent();
}

std::chrono::microseconds CVEKEventLoop::GetLag() const {
    return core_->GetLag();
}
