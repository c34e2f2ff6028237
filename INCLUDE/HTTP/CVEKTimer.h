// CVEKTimer: a timer of an event loop that runs for as long as its owner keeps it. Made by
// CVEKEventLoop::After, Every and At. Dropping it cancels it; where that happens on the loop's own
// thread, the function is not called any more. Any thread may hold, move and drop it, one at a
// time.
#ifndef CVEK_TIMER_H
#define CVEK_TIMER_H

#include <memory>

#include "VEKExport.h"

class VEK_API CVEKTimer {
  public:
    struct State;

    // Runs nothing.
    CVEKTimer() = default;
    ~CVEKTimer() { Cancel(); }
    CVEKTimer(CVEKTimer&& other) noexcept = default;
    CVEKTimer& operator=(CVEKTimer&& other) noexcept {
        Cancel();
        state_ = std::move(other.state_);
        return *this;
    }
    CVEKTimer(const CVEKTimer&) = delete;
    CVEKTimer& operator=(const CVEKTimer&) = delete;

    void Cancel();

  private:
    friend class CVEKEventLoop;
    explicit CVEKTimer(std::shared_ptr<State> state) : state_(std::move(state)) {}

    std::shared_ptr<State> state_;
};

#endif
