// What a run sends, and over how many connections.
#ifndef VEK_LOAD_PLAN_H
#define VEK_LOAD_PLAN_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "VEKHttpClientOption.h"
#include "VEKLoadFlow.h"
#include "VEKLoadShare.h"

struct VEK_ST_LOAD_PLAN {
    // Of the number of a step, which goes with its requests.
    static constexpr unsigned STAGE_BITS = 12;
    static constexpr size_t MAX_STAGES = size_t{1} << STAGE_BITS;

    std::vector<VEK_ST_HTTP_TARGET> targets_;
    VEK_ST_LOAD_SCENARIO scenario_;
    size_t connections_ = 1;  // to each target
    uint32_t streams_ = 100;  // requests in flight on each connection
    unsigned threads_ = 0;    // 0: one for each core; never more than connections or users
    size_t users_ = 0;        // flows at once; 0: as many as there are streams
    uint64_t requestsOfConnection_ = 0;   // after which it is replaced; 0: no limit
    std::chrono::nanoseconds warmUp_{0};  // what is due before is in no figure
    uint64_t seed_ = 0;
    VEK_ST_LOAD_SHARE share_;  // of the scenario's flows
    VEK_ST_HTTP_SETTINGS settings_;
    // From sending a request, or from when it waits for a connection, to the end of its response.
    std::chrono::milliseconds timeout_{5000};

    // Flows of the share that the variables have values for.
    int64_t GetLimit() const;
};

#endif
