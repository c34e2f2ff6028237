#include "VEKSocketWait.h"

#include <cerrno>
#include <ctime>

int VEK_WAIT_SOCKET(int fd, short events, std::chrono::microseconds timeout) {
    constexpr long MICROS_PER_SECOND = 1000000;
    constexpr long NANOS_PER_MICRO = 1000;
    if (fd < 0) {  // poll would skip it in silence
        errno = EBADF;
        return -1;
    }
    pollfd entry{fd, events, 0};
    timespec limit{};
    limit.tv_sec = timeout.count() / MICROS_PER_SECOND;
    limit.tv_nsec = timeout.count() % MICROS_PER_SECOND * NANOS_PER_MICRO;
    const int result = ppoll(&entry, 1, timeout.count() < 0 ? nullptr : &limit, nullptr);
    if (result > 0 && (entry.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
    }
    return result;
}

uint32_t VEK_MICROS_SINCE(std::chrono::steady_clock::time_point start) {
    const auto passed = std::chrono::steady_clock::now() - start;
    return static_cast<uint32_t>(std::chrono::ceil<std::chrono::microseconds>(passed).count());
}
