// Options as they are used: brought into their ranges, with 0 where it stands for no limit replaced
// by one that is never reached.
#ifndef VEK_HTTP_BOUNDS_H
#define VEK_HTTP_BOUNDS_H

#include <algorithm>
#include <chrono>
#include <cstdint>

#include "VEKHttpSettings.h"

constexpr uint32_t VEK_HTTP_MAX_STREAMS = INT32_MAX;

// Milliseconds; 0 for a negative time.
inline uint64_t VEK_HTTP_MS(std::chrono::milliseconds time) {
    return static_cast<uint64_t>(std::max<int64_t>(time.count(), 0));
}

// A limit for a part of a set-up, which must have one.
std::chrono::milliseconds VEK_HTTP_SETUP_TIME(std::chrono::milliseconds time);

VEK_ST_HTTP_SETTINGS VEK_HTTP_BOUND_SETTINGS(VEK_ST_HTTP_SETTINGS settings);

#endif
