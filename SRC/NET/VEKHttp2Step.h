// Work on one descriptor in steps. A step goes on as far as it can without waiting; its owner waits
// for the events that it names, until its deadline, and takes the next one.
#ifndef VEK_HTTP2_STEP_H
#define VEK_HTTP2_STEP_H

#include <chrono>

#include "defHttp2.h"

using VEK_HTTP2_STEP_CLOCK = std::chrono::steady_clock;
using VEK_HTTP2_DEADLINE = VEK_HTTP2_STEP_CLOCK::time_point;

inline bool VEK_HTTP2_IS_LATE(VEK_HTTP2_DEADLINE deadline) {
    return VEK_HTTP2_STEP_CLOCK::now() >= deadline;
}

// For the whole of an upgrade on one side.
constexpr std::chrono::milliseconds VEK_HTTP2_UPGRADE_LIMIT(1000);

#endif
