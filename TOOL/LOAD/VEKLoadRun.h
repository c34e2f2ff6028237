// What the threads of a run share.
#ifndef VEK_LOAD_RUN_H
#define VEK_LOAD_RUN_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

#include "CVEKHttpClient.h"
#include "CVEKLoadRequestLog.h"
#include "CVEKLoadSchedule.h"
#include "VEKLoadPlan.h"
#include "VEKLoadSummary.h"

struct VEK_ST_LOAD_RUN {
    VEK_ST_LOAD_RUN(VEK_ST_LOAD_PLAN plan, CVEKLoadSchedule schedule)
        : plan_(std::move(plan)),
          schedule_(std::move(schedule)),
          stages_(plan_.scenario_.GetStages()) {}

    const VEK_ST_LOAD_PLAN plan_;
    const CVEKLoadSchedule schedule_;
    const std::vector<const VEK_ST_LOAD_STAGE*> stages_;  // of the plan, by their numbers
    std::vector<size_t> firstStages_;                     // of each kind of flow
    CVEKLoadRequestLog* log_ = nullptr;                   // null: nobody wants lines
    std::chrono::steady_clock::time_point start_;
    std::vector<VEK_HTTP_PREPARED> requests_;  // by kind of flow; null where each is another one
    size_t workers_ = 0;
    std::atomic<int64_t> next_{0};     // number of the next flow, where none has its moment
    std::atomic<int64_t> counted_{0};  // of these, begun after the warm-up
    std::atomic<size_t> over_{0};      // workers that begin no more
    std::atomic<size_t> ended_{0};     // workers that wait for nothing any more

    std::mutex mutex_;             // of the rest
    VEK_ST_LOAD_SUMMARY summary_;  // what the workers have handed in so far
    // Full seconds behind the warm-up of which each has handed in all; SIZE_MAX: it has ended.
    std::vector<size_t> handedIn_;
};

#endif
