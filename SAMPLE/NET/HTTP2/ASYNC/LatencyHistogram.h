// A histogram of latencies that keeps every value with a relative error below 0.8 %, in constant
// memory, whatever their range: each power of two of nanoseconds is cut into 128 equal buckets.
#ifndef LATENCY_HISTOGRAM_H
#define LATENCY_HISTOGRAM_H

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <vector>

class LatencyHistogram {
  public:
    using Duration = std::chrono::nanoseconds;

    // Negative latencies (a clock that was set back) count as 0.
    void Record(Duration latency) {
        const uint64_t value = static_cast<uint64_t>(std::max<Duration::rep>(latency.count(), 0));
        ++counts_[IndexOf(value)];
        ++count_;
        sum_ += static_cast<double>(value);
        min_ = std::min(min_, value);
        max_ = std::max(max_, value);
    }

    void Add(const LatencyHistogram& other) {
        std::transform(counts_.begin(), counts_.end(), other.counts_.begin(), counts_.begin(),
                       std::plus<>());
        count_ += other.count_;
        sum_ += other.sum_;
        min_ = std::min(min_, other.min_);
        max_ = std::max(max_, other.max_);
    }

    uint64_t Count() const { return count_; }
    // Exact. Zero while nothing is recorded, as are the others.
    Duration Min() const { return Duration(count_ == 0 ? 0 : min_); }
    Duration Max() const { return Duration(max_); }
    Duration Mean() const {
        return Duration(count_ == 0 ? 0 : static_cast<int64_t>(sum_ / static_cast<double>(count_)));
    }

    // The latency that `percent` (0 to 100) of all values do not exceed, at the precision of the
    // buckets: the upper end of the bucket, and never beyond Max().
    Duration Percentile(double percent) const {
        const double wanted = percent / 100 * static_cast<double>(count_);
        uint64_t seen = 0;
        for (size_t i = 0; i < counts_.size(); ++i) {
            seen += counts_[i];
            if (seen > 0 && static_cast<double>(seen) >= wanted) {
                return Duration(std::min(UpperEnd(i), max_));
            }
        }
        return Max();
    }

    // How many values lie below `limit`, at the precision of the buckets.
    uint64_t CountBelow(Duration limit) const {
        const size_t end = IndexOf(static_cast<uint64_t>(limit.count()));
        uint64_t count = 0;
        std::for_each(counts_.begin(), counts_.begin() + static_cast<std::ptrdiff_t>(end),
                      [&count](uint64_t bucket) { count += bucket; });
        return count;
    }

  private:
    static constexpr unsigned SPLIT_BITS = 7;
    static constexpr uint64_t SPLIT = uint64_t{1} << SPLIT_BITS;
    static constexpr unsigned VALUE_BITS = 63;  // of a duration that is not negative
    static constexpr size_t BUCKETS = (VALUE_BITS - SPLIT_BITS + 1) * SPLIT;

    // Values below SPLIT have a bucket each. Above, the highest bit chooses the row, the SPLIT_BITS
    // behind it the bucket.
    static size_t IndexOf(uint64_t value) {
        if (value < SPLIT) {
            return value;
        }
        const unsigned shift =
            VALUE_BITS - static_cast<unsigned>(__builtin_clzll(value)) - SPLIT_BITS;
        return (shift + 1) * SPLIT + ((value >> shift) - SPLIT);
    }

    static uint64_t UpperEnd(size_t index) {
        if (index < SPLIT) {
            return index;
        }
        const unsigned shift = static_cast<unsigned>(index / SPLIT) - 1;
        return ((SPLIT + index % SPLIT + 1) << shift) - 1;
    }

    std::vector<uint64_t> counts_ = std::vector<uint64_t>(BUCKETS);
    uint64_t count_ = 0;
    double sum_ = 0;
    uint64_t min_ = std::numeric_limits<uint64_t>::max();
    uint64_t max_ = 0;
};

#endif
