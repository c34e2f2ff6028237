#include "CVEKLoadSchedule.h"

#include <algorithm>

CVEKLoadSchedule::Duration CVEKLoadSchedule::GetDue(int64_t number) const {
    if (!IsPaced()) {
        return Duration::zero();
    }
    const std::chrono::duration<double> offset(static_cast<double>(number) / rate_);
    return std::chrono::duration_cast<Duration>(offset);
}

int64_t CVEKLoadSchedule::GetPlanned(Duration end) const {
    if (!IsPaced()) {
        return length_ > Duration::zero() ? 0 : count_;
    }
    if (end == Duration::max()) {
        return count_;
    }
    const std::chrono::duration<double> length = end;
    return std::min(count_, static_cast<int64_t>(length.count() * rate_));
}
