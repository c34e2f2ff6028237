// CVEKLoadSchedule: how many flows a run begins, and when: as fast as they go, or each at a moment
// of its own that depends on nothing that happens, so that a server which stalls does not slow down
// what is asked of it. It only calculates, in times since the start of the run, and never changes.
#ifndef CVEK_LOAD_SCHEDULE_H
#define CVEK_LOAD_SCHEDULE_H

#include <chrono>
#include <cstdint>
#include <vector>

// A rate, flows in a second in all, that goes evenly from one value to another.
struct VEK_ST_LOAD_PHASE {
    double from_ = 0;
    double to_ = 0;
    std::chrono::nanoseconds length_{0};
};

class CVEKLoadSchedule {
  public:
    using Clock = std::chrono::steady_clock;
    using Duration = std::chrono::nanoseconds;

    // count: flows at most behind the warm-up, which goes at the first phase's first rate. phases:
    // one after another; the last one may have length zero and goes on for ever; none: as fast as
    // they go. length: of the rest, zero: no limit but that of the phases.
    CVEKLoadSchedule(int64_t count, std::vector<VEK_ST_LOAD_PHASE> phases, Duration length,
                     Duration warmUp);

    bool IsPaced() const { return !parts_.empty(); }
    // Flows at most, behind the warm-up.
    int64_t GetCount() const { return count_; }
    // Paced: with those of the warm-up.
    int64_t GetCountInAll() const { return countInAll_; }
    Duration GetWarmUp() const { return warmUp_; }
    // Of all, the warm-up too; Duration::max() without a limit.
    Duration GetLength() const { return length_; }
    // When the flow of this number, from 0 on, is to begin, where it is paced; Duration::max() for
    // one behind the last phase.
    Duration GetDue(int64_t number) const;
    // Flows that are due before this time; of a run that is not paced, none has its time.
    int64_t CountDue(Duration end) const;

  private:
    struct Part {
        VEK_ST_LOAD_PHASE phase_;
        double begin_ = 0;  // seconds
        double first_ = 0;  // flows before it
    };
    static double CountIn(const VEK_ST_LOAD_PHASE& phase, double seconds);

    int64_t count_;
    int64_t countInAll_ = 0;
    std::vector<Part> parts_;
    Duration warmUp_;
    Duration length_;
    double flows_ = 0;  // of all phases that end
};

#endif
