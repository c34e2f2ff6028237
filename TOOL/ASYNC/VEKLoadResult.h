// What a run has counted: one record for each thread, added up at the end.
#ifndef VEK_LOAD_RESULT_H
#define VEK_LOAD_RESULT_H

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "CVEKLoadHistogram.h"

// One of the run's connections, with all those that replaced it.
struct VEK_ST_LOAD_SLOT {
    using Duration = CVEKLoadHistogram::Duration;

    int64_t opened_ = 0;
    int64_t answered_ = 0;
    // Of the latencies of what was answered.
    Duration min_ = Duration::max();
    Duration max_{0};
    Duration sum_{0};

    void Record(Duration latency);
};

// A request that was sent ends as exactly one of these: answered, timed out or failed.
struct VEK_ST_LOAD_RESULT {
    using Clock = std::chrono::steady_clock;
    // 0 for a status outside 100 to 599.
    static constexpr size_t STATUS_CLASSES = 6;

    int64_t sent_ = 0;
    int64_t answered_ = 0;
    int64_t timedOut_ = 0;
    int64_t failed_ = 0;
    int64_t unsent_ = 0;  // what was asked for, or due, and was not sent
    int64_t bytesSent_ = 0;
    int64_t bytesReceived_ = 0;
    int64_t reconnects_ = 0;
    std::array<int64_t, STATUS_CLASSES> statusClasses_{};
    std::map<std::string, int64_t> causes_;  // of failed_
    CVEKLoadHistogram latency_;              // of answered_
    std::vector<VEK_ST_LOAD_SLOT> slots_;
    std::string connectionFailure_;  // why TLS has ended a connection, the last of them
    Clock::time_point end_;          // of the last of all requests
    // The most by which a loop of the run was late for something.
    std::chrono::microseconds lag_{0};
    size_t threads_ = 0;

    void Fail(const std::string& cause);
    // Slots are put behind those that are there.
    void Add(const VEK_ST_LOAD_RESULT& other);
};

#endif
