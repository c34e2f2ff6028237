#include "CVEKLoadSchedule.h"

#include <algorithm>
#include <cmath>

#include "VEKLoadUnit.h"

namespace {

double Seconds(std::chrono::nanoseconds time) {
    return static_cast<double>(time.count()) / VEK_LOAD_NS_PER_SECOND;
}

// When this many flows have begun, at a rate that changes by so much in a second.
double FindTime(double rate, double change, double flows) {
    if (flows <= 0) {  // with a rate of 0, nothing would be divided by nothing
        return 0;
    }
    if (change == 0) {
        return flows / rate;
    }
    // The form of the root that loses no digits where the change is small.
    const double root = std::sqrt(std::max(rate * rate + 2 * change * flows, 0.0));
    return 2 * flows / (rate + root);
}

}  // namespace

CVEKLoadSchedule::CVEKLoadSchedule(int64_t count, std::vector<VEK_ST_LOAD_PHASE> phases,
                                   Duration length, Duration warmUp, VEK_ST_LOAD_SHARE share)
    : share_(share), count_(share.CountBelow(count)), warmUp_(warmUp), length_(Duration::max()) {
    if (!phases.empty() && warmUp > Duration::zero()) {
        const double rate = phases.front().from_ > 0 ? phases.front().from_ : phases.front().to_;
        phases.insert(phases.begin(), {rate, rate, warmUp});
    }
    double begin = 0;
    for (const VEK_ST_LOAD_PHASE& phase : phases) {
        parts_.push_back({phase, begin, flows_});
        begin += Seconds(phase.length_);
        flows_ += CountIn(phase, Seconds(phase.length_));
    }
    if (IsPaced() && phases.back().length_ > Duration::zero()) {
        length_ = std::chrono::ceil<Duration>(std::chrono::duration<double>(begin));
    }
    if (length > Duration::zero()) {
        length_ = std::min(length_, warmUp + length);
    }
    const int64_t warm = CountAllDue(warmUp_);
    countInAll_ = share_.CountBelow(count > INT64_MAX - warm ? INT64_MAX : count + warm);
}

double CVEKLoadSchedule::CountIn(const VEK_ST_LOAD_PHASE& phase, double seconds) {
    const double length = Seconds(phase.length_);
    const double change = length > 0 ? (phase.to_ - phase.from_) / length : 0;
    return phase.from_ * seconds + change / 2 * seconds * seconds;
}

CVEKLoadSchedule::Duration CVEKLoadSchedule::FindDue(int64_t number) const {
    const auto flows = static_cast<double>(number);
    const bool isEndless = parts_.back().phase_.length_ == Duration::zero();
    if (!isEndless && flows >= flows_) {
        return Duration::max();
    }
    const auto behind =
        std::upper_bound(parts_.begin(), parts_.end(), flows,
                         [](double wanted, const Part& part) { return wanted < part.first_; });
    const Part& part = *std::prev(behind);
    const double length = Seconds(part.phase_.length_);
    const double change = length > 0 ? (part.phase_.to_ - part.phase_.from_) / length : 0;
    const double seconds = part.begin_ + FindTime(part.phase_.from_, change, flows - part.first_);
    return Duration(std::llround(seconds * VEK_LOAD_NS_PER_SECOND));
}

int64_t CVEKLoadSchedule::CountAllDue(Duration end) const {
    if (!IsPaced() || end <= Duration::zero()) {
        return 0;
    }
    if (end == Duration::max() && parts_.back().phase_.length_ == Duration::zero()) {
        return INT64_MAX;
    }
    // Near enough by the integral, and then exactly by the moments themselves.
    const double seconds = Seconds(end);
    double flows = 0;
    for (const Part& part : parts_) {
        const double length = Seconds(part.phase_.length_);
        const double within = seconds - part.begin_;
        flows +=
            within <= 0 ? 0 : CountIn(part.phase_, length > 0 ? std::min(within, length) : within);
    }
    auto count = static_cast<int64_t>(flows);
    while (count > 0 && FindDue(count - 1) >= end) {
        --count;
    }
    while (FindDue(count) < end) {
        ++count;
    }
    return count;
}
