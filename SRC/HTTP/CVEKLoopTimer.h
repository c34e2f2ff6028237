// CVEKLoopTimer: somebody with a deadline. CVEKLoopTimers: deadlines, the earliest first, in a
// pairing heap of the timers themselves: setting one needs no memory, and one that is set behind
// all others, as most are, costs no more than two comparisons until it is taken out.
#ifndef CVEK_LOOP_TIMER_H
#define CVEK_LOOP_TIMER_H

#include <cstdint>

class CVEKLoopTimers;

// Armed ones must be disarmed before they go.
class CVEKLoopTimer {
  public:
    virtual ~CVEKLoopTimer() = default;
    // The deadline has come, and is none any more.
    virtual void OnTimer() = 0;
    // The loop goes with the deadline still to come.
    virtual void OnTimerDropped() {}
    bool IsArmed() const { return place_ != nullptr; }
    // Milliseconds of CVEKLoopCore::GetNow; nanoseconds where it was armed by ArmFine.
    uint64_t GetDue() const { return due_; }

  private:
    friend class CVEKLoopTimers;

    uint64_t due_ = 0;
    CVEKLoopTimers* place_ = nullptr;    // where it is armed
    CVEKLoopTimer* child_ = nullptr;     // the first of those that are due later
    CVEKLoopTimer* next_ = nullptr;      // of the same parent
    CVEKLoopTimer* previous_ = nullptr;  // likewise; the first one's: the parent
};

class CVEKLoopTimers {
  public:
    // The one that is due first; null: there is none.
    CVEKLoopTimer* GetFirst() const { return first_; }
    bool IsEmpty() const { return first_ == nullptr; }
    // Adds one that is armed nowhere.
    void Add(CVEKLoopTimer& timer, uint64_t due);
    // Takes one out, from where it is armed, if anywhere.
    static void Remove(CVEKLoopTimer& timer);

  private:
    static CVEKLoopTimer* Merge(CVEKLoopTimer* one, CVEKLoopTimer* other);
    static CVEKLoopTimer* MergeAll(CVEKLoopTimer* list);
    static void Cut(CVEKLoopTimer& timer);

    CVEKLoopTimer* first_ = nullptr;
};

#endif
