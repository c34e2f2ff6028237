#include "VEKTimeZone.h"

#include <mutex>

namespace {

std::mutex G_TIME_ZONE_MUTEX;

}  // namespace

void VEKTimeZoneGuard::Lock() {
    G_TIME_ZONE_MUTEX.lock();
}

void VEKTimeZoneGuard::Unlock() {
    G_TIME_ZONE_MUTEX.unlock();
}

tm VEK_GET_LOCAL_TIME(time_t t) {
    const VEKTimeZoneGuard guard;
    tm local{};
    localtime_r(&t, &local);
    return local;
}

time_t VEK_MAKE_LOCAL_TIME(tm local) {
    const VEKTimeZoneGuard guard;
    return mktime(&local);
}
