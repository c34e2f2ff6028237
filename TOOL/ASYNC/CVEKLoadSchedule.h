// CVEKLoadSchedule: how many requests a run sends, and when: as fast as they go, or each at a moment
// of its own that depends on nothing that happens, so that a server which stalls does not slow down
// what is asked of it. It only calculates, in times since the start of the run, and never changes.
#ifndef CVEK_LOAD_SCHEDULE_H
#define CVEK_LOAD_SCHEDULE_H

#include <chrono>
#include <cstdint>

class CVEKLoadSchedule {
  public:
    using Clock = std::chrono::steady_clock;
    using Duration = Clock::duration;

    // count: requests at most. rate: requests per second in all, 0: as fast as they go. length: of
    // the sending; zero: no limit.
    CVEKLoadSchedule(int64_t count, double rate, Duration length)
        : count_(count), rate_(rate), length_(length) {}

    bool IsPaced() const { return rate_ > 0; }
    int64_t GetCount() const { return count_; }
    // Duration::max() without a limit.
    Duration GetLength() const { return length_ > Duration::zero() ? length_ : Duration::max(); }
    // When the request of this number, from 0 on, is to be sent; zero where that has no moment.
    Duration GetDue(int64_t number) const;
    // Requests that were to be sent in a run whose sending has ended at this time. One for a time
    // without a rate has none that it owes.
    int64_t GetPlanned(Duration end) const;

  private:
    const int64_t count_;
    const double rate_;
    const Duration length_;
};

#endif
