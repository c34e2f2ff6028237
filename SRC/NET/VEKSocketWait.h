// Waiting for one descriptor, and how long it took. poll instead of select, which cannot take
// descriptors above 1023.
#ifndef VEK_SOCKET_WAIT_H
#define VEK_SOCKET_WAIT_H

#include <poll.h>

#include <chrono>
#include <cstdint>

// Waits until `fd` is ready for `events` (POLLIN, POLLOUT) or has an error pending. A negative
// timeout waits without limit. Returns 1 when ready, 0 on time-out, -1 with errno (EINTR included).
int VEK_WAIT_SOCKET(int fd, short events, std::chrono::microseconds timeout);

// Microseconds from `start` to now, rounded up: 0 is for what has not been measured.
uint32_t VEK_MICROS_SINCE(std::chrono::steady_clock::time_point start);

#endif
