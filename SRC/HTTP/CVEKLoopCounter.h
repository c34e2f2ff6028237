// CVEKLoopCounter: a figure that one thread alone changes, its loop's, and any may read: none of it
// costs more than a plain number.
#ifndef CVEK_LOOP_COUNTER_H
#define CVEK_LOOP_COUNTER_H

#include <atomic>
#include <cstdint>

class CVEKLoopCounter {
  public:
    uint64_t Get() const { return value_.load(std::memory_order_relaxed); }
    CVEKLoopCounter& operator++() { return Set(Get() + 1); }
    CVEKLoopCounter& operator--() { return Set(Get() - 1); }

  private:
    CVEKLoopCounter& Set(uint64_t value) {
        value_.store(value, std::memory_order_relaxed);
        return *this;
    }

    std::atomic<uint64_t> value_{0};
};

#endif
