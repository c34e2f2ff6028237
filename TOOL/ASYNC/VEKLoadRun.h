// What the threads of a run share.
#ifndef VEK_LOAD_RUN_H
#define VEK_LOAD_RUN_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "CVEKHttpClient.h"
#include "CVEKLoadSchedule.h"
#include "VEKLoadPlan.h"

struct VEK_ST_LOAD_RUN {
    VEK_ST_LOAD_RUN(const VEK_ST_LOAD_PLAN& plan, const CVEKLoadSchedule& schedule)
        : plan_(plan), schedule_(schedule) {}

    const VEK_ST_LOAD_PLAN plan_;
    const CVEKLoadSchedule schedule_;
    std::chrono::steady_clock::time_point start_;
    VEK_HTTP_PREPARED request_;          // where all are the same
    size_t workers_ = 0;
    std::atomic<int64_t> next_{0};       // number of the next request, where none has its moment
    std::atomic<int64_t> done_{0};       // requests that have ended, whatever their end
    std::atomic<int64_t> errors_{0};     // of these without an answer
    std::atomic<size_t> over_{0};        // workers that send no more
    std::atomic<size_t> ended_{0};       // workers that wait for nothing any more
};

#endif
