// What a run sends, and over how many connections.
#ifndef VEK_LOAD_PLAN_H
#define VEK_LOAD_PLAN_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>

#include "VEKHttpClientOption.h"
#include "VEKHttpMessage.h"

struct VEK_ST_LOAD_PLAN {
    VEK_ST_HTTP_TARGET target_;
    VEK_ST_HTTP_REQUEST request_;
    size_t connections_ = 1;
    uint32_t streams_ = 100;  // requests in flight on each connection
    unsigned threads_ = 0;    // 0: one for each core; never more than connections
    // From sending a request, or from when it waits for a connection, to the end of its response.
    std::chrono::milliseconds timeout_{5000};
    // Not null: each request's body begins with its number, in eight digits, and this gets every
    // response with the number of its request, on the threads of the run. Null: all requests are
    // the same, and what comes is only counted.
    std::function<void(int64_t number, const VEK_ST_HTTP_RESPONSE& response)> onResponse_;
};

#endif
