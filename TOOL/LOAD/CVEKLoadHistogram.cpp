#include "CVEKLoadHistogram.h"

#include <algorithm>
#include <cmath>
#include <numeric>
#include <tuple>
#include <utility>

void CVEKLoadHistogram::Grow(size_t index) {
    buckets_.resize((index / HALF + 1) * HALF);
}

void CVEKLoadHistogram::Add(const CVEKLoadHistogram& other) {
    if (buckets_.size() < other.buckets_.size()) {
        buckets_.resize(other.buckets_.size());
    }
    for (size_t i = 0; i < other.buckets_.size(); ++i) {
        buckets_[i] += other.buckets_[i];
    }
    count_ += other.count_;
    sum_ += other.sum_;
    squares_ += other.squares_;
    min_ = std::min(min_, other.min_);
    max_ = std::max(max_, other.max_);
}

void CVEKLoadHistogram::Clear() {
    std::fill(buckets_.begin(), buckets_.end(), 0);
    count_ = 0;
    sum_ = 0;
    squares_ = 0;
    min_ = UINT64_MAX;
    max_ = 0;
}

double CVEKLoadHistogram::GetMean() const {
    return count_ == 0 ? 0 : static_cast<double>(sum_) / static_cast<double>(count_);
}

// The difference is taken between integers: of floating-point squares nothing would be left of it
// where the durations are long and close together.
double CVEKLoadHistogram::GetDeviation() const {
    if (count_ == 0) {
        return 0;
    }
    const Sum mean = sum_ / count_;
    const Sum rest = sum_ % count_;
    // Of the deviations from the mean rounded down, whose sum is the rest.
    const Sum squares = squares_ - mean * (sum_ + rest);
    const double average = static_cast<double>(rest) / static_cast<double>(count_);
    const double variance =
        static_cast<double>(squares) / static_cast<double>(count_) - average * average;
    return std::sqrt(std::max(variance, 0.0));
}

uint64_t CVEKLoadHistogram::GetPercentile(double percent) const {
    // A product just above a whole number must not ask for one more.
    const double wanted = std::nextafter(percent, 0.0) / 100 * static_cast<double>(count_);
    uint64_t seen = 0;
    for (size_t i = 0; i < buckets_.size(); ++i) {
        seen += buckets_[i];
        if (seen > 0 && static_cast<double>(seen) >= wanted) {
            return std::min(EndOf(i), max_);
        }
    }
    return max_;
}

uint64_t CVEKLoadHistogram::GetCountUpTo(uint64_t ns) const {
    const size_t end = std::min(IndexOf(std::min<uint64_t>(ns, LIMIT_NS)) + 1, buckets_.size());
    return std::accumulate(buckets_.begin(), buckets_.begin() + static_cast<std::ptrdiff_t>(end),
                           uint64_t{0});
}

uint64_t CVEKLoadHistogram::BeginOf(size_t index) {
    if (index < 2 * HALF) {
        return index;
    }
    const size_t row = index / HALF - 1;
    return (HALF + index % HALF) << row;
}

uint64_t CVEKLoadHistogram::EndOf(size_t index) {
    return BeginOf(index + 1) - 1;
}

bool CVEKLoadHistogram::Restore(std::vector<uint64_t> buckets, uint64_t min, uint64_t max,
                                std::string_view sum, std::string_view squares) {
    *this = CVEKLoadHistogram();
    if (buckets.size() > IndexOf(LIMIT_NS) + 1) {
        return false;
    }
    const auto isUsed = [](uint64_t bucket) { return bucket > 0; };
    const auto first = std::find_if(buckets.begin(), buckets.end(), isUsed);
    const auto last = std::find_if(buckets.rbegin(), buckets.rend(), isUsed);
    CVEKLoadHistogram made;
    for (const uint64_t bucket : buckets) {
        if (__builtin_add_overflow(made.count_, bucket, &made.count_)) {
            return false;
        }
    }
    if (!ReadSum(sum, made.sum_) || !ReadSum(squares, made.squares_)) {
        return false;
    }
    if (made.count_ == 0) {
        return made.sum_ == 0 && made.squares_ == 0;
    }
    made.min_ = min;
    made.max_ = max;
    const Sum mean = made.sum_ / made.count_;
    const Sum square = made.squares_ / made.count_;
    const bool isWithin = max <= LIMIT_NS && mean >= min && mean <= max && square >= mean * mean &&
                          square <= Sum{max} * max &&
                          IndexOf(min) == static_cast<size_t>(first - buckets.begin()) &&
                          IndexOf(max) == static_cast<size_t>(buckets.rend() - last) - 1;
    if (!isWithin) {
        return false;
    }
    made.buckets_ = std::move(buckets);
    made.Grow(made.buckets_.size() - 1);
    *this = std::move(made);
    return true;
}

bool CVEKLoadHistogram::operator==(const CVEKLoadHistogram& other) const {
    const auto& [small, large] = buckets_.size() < other.buckets_.size()
                                     ? std::tie(buckets_, other.buckets_)
                                     : std::tie(other.buckets_, buckets_);
    return count_ == other.count_ && sum_ == other.sum_ && squares_ == other.squares_ &&
           GetMin() == other.GetMin() && max_ == other.max_ &&
           std::equal(small.begin(), small.end(), large.begin());
}

std::string CVEKLoadHistogram::WriteSum(Sum sum) {
    std::string text;
    do {
        text.insert(text.begin(), static_cast<char>('0' + static_cast<int>(sum % 10)));
        sum /= 10;
    } while (sum > 0);
    return text;
}

bool CVEKLoadHistogram::ReadSum(std::string_view text, Sum& sum) {
    sum = 0;
    for (const char digit : text) {
        if (digit < '0' || digit > '9' || __builtin_mul_overflow(sum, Sum{10}, &sum) ||
            __builtin_add_overflow(sum, static_cast<Sum>(digit - '0'), &sum)) {
            return false;
        }
    }
    return !text.empty();
}
