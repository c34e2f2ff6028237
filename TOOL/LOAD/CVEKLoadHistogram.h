// CVEKLoadHistogram: durations in nanoseconds, counted in buckets that are at most 0.1 % wide, the
// same for every histogram: adding two up loses nothing. Beside the buckets it keeps exact sums.
// Memory is taken as the largest duration grows, up to 300 KB for a day.
//
// One thread at a time.
#ifndef CVEK_LOAD_HISTOGRAM_H
#define CVEK_LOAD_HISTOGRAM_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

class CVEKLoadHistogram {
  public:
    __extension__ using Sum = unsigned __int128;

    // The longest duration that is told apart, a day; a longer one counts as that.
    static constexpr int64_t LIMIT_NS = int64_t{86400} * 1000000000;

    // Negative durations count as 0.
    void Record(int64_t ns) {
        const auto value = static_cast<uint64_t>(ns < 0 ? 0 : ns > LIMIT_NS ? LIMIT_NS : ns);
        const size_t index = IndexOf(value);
        if (index >= buckets_.size()) {
            Grow(index);
        }
        ++buckets_[index];
        ++count_;
        sum_ += value;
        squares_ += static_cast<Sum>(value) * value;
        min_ = value < min_ ? value : min_;
        max_ = value > max_ ? value : max_;
    }
    void Add(const CVEKLoadHistogram& other);
    // Empties it; the memory stays.
    void Clear();

    uint64_t GetCount() const { return count_; }
    // Exact. Zero while nothing is recorded, as are the others.
    uint64_t GetMin() const { return count_ == 0 ? 0 : min_; }
    uint64_t GetMax() const { return max_; }
    double GetMean() const;
    // Standard deviation of what was recorded.
    double GetDeviation() const;
    // The duration that `percent` (0 to 100) of all do not exceed: the upper end of its bucket, and
    // never beyond GetMax.
    uint64_t GetPercentile(double percent) const;
    // How many are at most as long as the upper end of the bucket of `ns`.
    uint64_t GetCountUpTo(uint64_t ns) const;

    // Buckets from 0 on; those behind the end are empty. BeginOf and EndOf: the smallest and the
    // largest duration of a bucket.
    const std::vector<uint64_t>& GetBuckets() const { return buckets_; }
    static uint64_t BeginOf(size_t index);
    static uint64_t EndOf(size_t index);

    // Sums as decimal texts, as no JSON number holds them.
    std::string GetSumText() const { return WriteSum(sum_); }
    std::string GetSquaresText() const { return WriteSum(squares_); }
    // Takes what a histogram was, in place of all. False, and it is empty, when the parts do not
    // fit together.
    bool Restore(std::vector<uint64_t> buckets, uint64_t min, uint64_t max, std::string_view sum,
                 std::string_view squares);

    bool operator==(const CVEKLoadHistogram& other) const;

    // Cut of the buckets: durations below 2048 have one each, above each power of two has 1024.
    static constexpr unsigned HALF_BITS = 10;
    static constexpr uint64_t HALF = uint64_t{1} << HALF_BITS;

  private:
    static size_t IndexOf(uint64_t value) {
        constexpr unsigned LOWEST_ZEROS = 63 - HALF_BITS;
        const auto zeros = static_cast<unsigned>(__builtin_clzll(value | (2 * HALF - 1)));
        const unsigned row = LOWEST_ZEROS - zeros;
        return (size_t{row} << HALF_BITS) + static_cast<size_t>(value >> row);
    }
    static std::string WriteSum(Sum sum);
    static bool ReadSum(std::string_view text, Sum& sum);
    void Grow(size_t index);

    std::vector<uint64_t> buckets_;
    uint64_t count_ = 0;
    Sum sum_ = 0;
    Sum squares_ = 0;
    uint64_t min_ = UINT64_MAX;
    uint64_t max_ = 0;
};

#endif
