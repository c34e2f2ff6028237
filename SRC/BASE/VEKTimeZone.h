// The lock under which this library asks the C library for local times.
#ifndef VEK_TIME_ZONE_H
#define VEK_TIME_ZONE_H

#include <ctime>

// Held around localtime_r, mktime and their like. The C library has a lock of its own in them,
// which would stay locked for ever in a child that is forked meanwhile. So whoever forks waits for
// this one, which the log sees to.
class VEKTimeZoneGuard {
  public:
    VEKTimeZoneGuard() { Lock(); }
    ~VEKTimeZoneGuard() { Unlock(); }
    VEKTimeZoneGuard(const VEKTimeZoneGuard&) = delete;
    VEKTimeZoneGuard& operator=(const VEKTimeZoneGuard&) = delete;

    static void Lock();
    static void Unlock();  // also in the child
};

// localtime_r and mktime under that lock; a time that has no local form gives zeros.
tm VEK_GET_LOCAL_TIME(time_t t);
time_t VEK_MAKE_LOCAL_TIME(tm local);

#endif
