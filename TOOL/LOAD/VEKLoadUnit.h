// Numbers that more than one place of the load generator counts with.
#ifndef VEK_LOAD_UNIT_H
#define VEK_LOAD_UNIT_H

#include <cstdint>

constexpr uint64_t VEK_LOAD_NS_PER_MS = 1000000;
constexpr uint64_t VEK_LOAD_NS_PER_SECOND = 1000000000;
constexpr double VEK_LOAD_PERCENT = 100;
constexpr int VEK_LOAD_STATUS_CLASS = 100;  // statuses from 200 on are 2xx, and so on
constexpr int VEK_LOAD_MAX_STATUS = 999;

#endif
