#include "CVEKLoadHistogram.h"

#include <functional>

void CVEKLoadHistogram::Add(const CVEKLoadHistogram& other) {
    std::transform(counts_.begin(), counts_.end(), other.counts_.begin(), counts_.begin(),
                   std::plus<>());
    count_ += other.count_;
    sum_ += other.sum_;
    min_ = std::min(min_, other.min_);
    max_ = std::max(max_, other.max_);
}

CVEKLoadHistogram::Duration CVEKLoadHistogram::GetMean() const {
    return Duration(count_ == 0 ? 0 : static_cast<int64_t>(sum_ / static_cast<double>(count_)));
}

CVEKLoadHistogram::Duration CVEKLoadHistogram::GetPercentile(double percent) const {
    const double wanted = percent / 100 * static_cast<double>(count_);
    uint64_t seen = 0;
    for (size_t i = 0; i < counts_.size(); ++i) {
        seen += counts_[i];
        if (seen > 0 && static_cast<double>(seen) >= wanted) {
            return Duration(std::min(GetUpperEnd(i), max_));
        }
    }
    return GetMax();
}

uint64_t CVEKLoadHistogram::CountBelow(Duration limit) const {
    const size_t end = IndexOf(static_cast<uint64_t>(limit.count()));
    uint64_t count = 0;
    std::for_each(counts_.begin(), counts_.begin() + static_cast<std::ptrdiff_t>(end),
                  [&count](uint64_t bucket) { count += bucket; });
    return count;
}

uint64_t CVEKLoadHistogram::GetUpperEnd(size_t index) {
    if (index < SPLIT) {
        return index;
    }
    const unsigned shift = static_cast<unsigned>(index / SPLIT) - 1;
    return ((SPLIT + index % SPLIT + 1) << shift) - 1;
}
