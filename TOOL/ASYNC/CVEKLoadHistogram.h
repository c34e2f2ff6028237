// CVEKLoadHistogram: latencies, each kept with a relative error below 0.8 %, in constant memory,
// whatever their range: each power of two of nanoseconds is cut into 128 equal buckets.
#ifndef CVEK_LOAD_HISTOGRAM_H
#define CVEK_LOAD_HISTOGRAM_H

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <vector>

class CVEKLoadHistogram {
  public:
    using Duration = std::chrono::nanoseconds;

    // Negative latencies count as 0.
    void Record(Duration latency) {
        const uint64_t value = static_cast<uint64_t>(std::max<Duration::rep>(latency.count(), 0));
        ++counts_[IndexOf(value)];
        ++count_;
        sum_ += static_cast<double>(value);
        min_ = std::min(min_, value);
        max_ = std::max(max_, value);
    }
    void Add(const CVEKLoadHistogram& other);

    uint64_t GetCount() const { return count_; }
    // Exact. Zero while nothing is recorded, as are the others.
    Duration GetMin() const { return Duration(count_ == 0 ? 0 : min_); }
    Duration GetMax() const { return Duration(max_); }
    Duration GetMean() const;
    // The latency that `percent` (0 to 100) of all values do not exceed, at the precision of the
    // buckets: the upper end of the bucket, and never beyond GetMax().
    Duration GetPercentile(double percent) const;
    // How many values lie below `limit`, at the precision of the buckets.
    uint64_t CountBelow(Duration limit) const;

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
    static uint64_t GetUpperEnd(size_t index);

    std::vector<uint64_t> counts_ = std::vector<uint64_t>(BUCKETS);
    uint64_t count_ = 0;
    double sum_ = 0;
    uint64_t min_ = std::numeric_limits<uint64_t>::max();
    uint64_t max_ = 0;
};

#endif
