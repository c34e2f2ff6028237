#include "VEKLoadSummary.h"

#include <algorithm>

#include "VEKLoadHdr.h"
#include "VEKLoadUnit.h"

namespace {

constexpr int FIRST_GOOD = 200;
constexpr int FIRST_BAD = 400;

double SecondsOf(uint64_t ns) {
    return static_cast<double>(ns) / VEK_LOAD_NS_PER_SECOND;
}

double RateOf(uint64_t count, uint64_t ns) {
    return ns == 0 ? 0 : static_cast<double>(count) / SecondsOf(ns);
}

template <class MAP>
void AddMap(MAP& to, const MAP& from) {
    for (const auto& [key, count] : from) {
        to[key] += count;
    }
}

}  // namespace

void VEK_ST_LOAD_COUNTS::Add(const VEK_ST_LOAD_COUNTS& other) {
    sent_ += other.sent_;
    answered_ += other.answered_;
    timedOut_ += other.timedOut_;
    failed_ += other.failed_;
    unsent_ += other.unsent_;
    AddMap(causes_, other.causes_);
    AddMap(statuses_, other.statuses_);
    informational_ += other.informational_;
    AddMap(unexpected_, other.unexpected_);
    bytesSent_ += other.bytesSent_;
    bytesReceived_ += other.bytesReceived_;
    latency_.Add(other.latency_);
    service_.Add(other.service_);
    firstByte_.Add(other.firstByte_);
}

void VEK_ST_LOAD_COUNTS::Clear() {
    CVEKLoadHistogram* const histograms[] = {&latency_, &service_, &firstByte_};
    CVEKLoadHistogram kept[3];
    for (size_t i = 0; i < 3; ++i) {
        kept[i] = std::move(*histograms[i]);
        kept[i].Clear();
    }
    *this = VEK_ST_LOAD_COUNTS();
    for (size_t i = 0; i < 3; ++i) {
        *histograms[i] = std::move(kept[i]);
    }
}

uint64_t VEK_ST_LOAD_COUNTS::CountStatus(int status) const {
    uint64_t sum = 0;
    for (const auto& [code, count] : statuses_) {
        if (code == status || code / VEK_LOAD_STATUS_CLASS == status) {
            sum += count;
        }
    }
    return sum;
}

uint64_t VEK_ST_LOAD_COUNTS::CountErrors() const {
    uint64_t sum = timedOut_ + failed_;
    for (const auto& [code, count] : statuses_) {
        if (code < FIRST_GOOD || code >= FIRST_BAD) {
            sum += count;
        }
    }
    return sum;
}

uint64_t VEK_ST_LOAD_COUNTS::CountUnexpected() const {
    uint64_t sum = 0;
    for (const auto& [text, count] : unexpected_) {
        sum += count;
    }
    return sum;
}

void VEK_ST_LOAD_SLOT::Record(uint64_t ns) {
    min_ = answered_ == 0 ? ns : std::min(min_, ns);
    max_ = std::max(max_, ns);
    sum_ += ns;
    ++answered_;
}

void VEK_ST_LOAD_SLOT::Add(const VEK_ST_LOAD_SLOT& other) {
    if (other.answered_ > 0) {
        min_ = answered_ == 0 ? other.min_ : std::min(min_, other.min_);
    }
    max_ = std::max(max_, other.max_);
    sum_ += other.sum_;
    answered_ += other.answered_;
    failed_ += other.failed_;
    opened_ += other.opened_;
}

VEK_ST_LOAD_PACKED VEK_ST_LOAD_PACKED::Pack(const CVEKLoadHistogram& histogram) {
    return {histogram.GetMin(), histogram.GetMax(), histogram.GetSumText(),
            histogram.GetSquaresText(), VEK_LOAD_ENCODE_HDR(histogram)};
}

bool VEK_ST_LOAD_PACKED::Unpack(CVEKLoadHistogram& histogram) const {
    std::vector<uint64_t> buckets;
    return (hdr_.empty() || VEK_LOAD_DECODE_HDR(hdr_, buckets)) &&
           histogram.Restore(std::move(buckets), min_, max_, sum_, squares_);
}

void VEK_ST_LOAD_SECOND::Add(const VEK_ST_LOAD_SECOND& other) {
    sent_ += other.sent_;
    answered_ += other.answered_;
    errors_ += other.errors_;
    inFlight_ += other.inFlight_;
    if (latency_.hdr_.empty() || other.latency_.hdr_.empty()) {
        latency_ = latency_.hdr_.empty() ? other.latency_ : latency_;
        return;
    }
    CVEKLoadHistogram sum;
    CVEKLoadHistogram part;
    latency_.Unpack(sum);
    other.latency_.Unpack(part);
    sum.Add(part);
    latency_ = VEK_ST_LOAD_PACKED::Pack(sum);
}

void VEK_ST_LOAD_CONNECTIONS::Add(const VEK_ST_LOAD_CONNECTIONS& other) {
    opened_ += other.opened_;
    failed_ += other.failed_;
    resumed_ += other.resumed_;
    AddMap(causes_, other.causes_);
    tcp_.Add(other.tcp_);
    tls_.Add(other.tls_);
    wireBytesSent_ += other.wireBytesSent_;
    wireBytesReceived_ += other.wireBytesReceived_;
    slots_.insert(slots_.end(), other.slots_.begin(), other.slots_.end());
}

double VEK_ST_LOAD_RANK::GetRate() const {
    return RateOf(answered_, lengthNs_);
}

void VEK_ST_LOAD_RANKS::Add(const VEK_ST_LOAD_RANKS& other) {
    count_ += other.count_;
    skewNs_ = std::max(skewNs_, other.skewNs_);
    clockErrorNs_ = std::max(clockErrorNs_, other.clockErrorNs_);
    joinNs_ = std::max(joinNs_, other.joinNs_);
    clocksNs_ = std::max(clocksNs_, other.clocksNs_);
    barrierNs_ = std::max(barrierNs_, other.barrierNs_);
    reductionNs_ = std::max(reductionNs_, other.reductionNs_);
    rows_.insert(rows_.end(), other.rows_.begin(), other.rows_.end());
}

void VEK_ST_LOAD_SUMMARY::Add(const VEK_ST_LOAD_SUMMARY& other) {
    runs_ += other.runs_;
    commands_.insert(commands_.end(), other.commands_.begin(), other.commands_.end());
    startMs_ = std::min(startMs_, other.startMs_);
    lengthNs_ = std::max(lengthNs_, other.lengthNs_);
    endedBy_ = endedBy_ == other.endedBy_ ? endedBy_ : "several";
    threads_ += other.threads_;
    lagNs_ = std::max(lagNs_, other.lagNs_);
    unwritten_ += other.unwritten_;
    total_.Add(other.total_);
    for (size_t i = 0; i < other.steps_.size(); ++i) {
        AddStep(i, other.steps_[i]);
    }
    connections_.Add(other.connections_);
    seconds_.resize(std::max(seconds_.size(), other.seconds_.size()));
    for (size_t i = 0; i < other.seconds_.size(); ++i) {
        seconds_[i].Add(other.seconds_[i]);
    }
    ranks_.Add(other.ranks_);
    verdicts_.clear();
}

// Steps of the same run have the same place; there may be several of one name.
void VEK_ST_LOAD_SUMMARY::AddStep(size_t index, const VEK_ST_LOAD_STEP& step) {
    auto known = steps_.end();
    if (index < steps_.size() && steps_[index].name_ == step.name_) {
        known = steps_.begin() + static_cast<std::ptrdiff_t>(index);
    } else {
        known = std::find_if(steps_.begin(), steps_.end(),
                             [&](const auto& own) { return own.name_ == step.name_; });
    }
    if (known == steps_.end()) {
        steps_.push_back(step);
    } else {
        known->counts_.Add(step.counts_);
    }
}

double VEK_ST_LOAD_SUMMARY::GetSeconds() const {
    return SecondsOf(lengthNs_);
}

double VEK_ST_LOAD_SUMMARY::GetRate() const {
    return RateOf(total_.answered_, lengthNs_);
}

const std::vector<std::pair<double, const char*>>& VEK_LOAD_PERCENTILES() {
    static const std::vector<std::pair<double, const char*>> list = {
        {50, "p50"}, {75, "p75"},     {90, "p90"},      {95, "p95"},
        {99, "p99"}, {99.9, "p99.9"}, {99.99, "p99.99"}};
    return list;
}
