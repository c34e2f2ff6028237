#include "VEKLoadPlan.h"

#include <algorithm>

int64_t VEK_ST_LOAD_PLAN::GetLimit() const {
    const uint64_t limit = std::min<uint64_t>(scenario_.GetLimit(), INT64_MAX);
    return share_.CountBelow(static_cast<int64_t>(limit));
}
