#include "VEKLoadResult.h"

#include <algorithm>

void VEK_ST_LOAD_SLOT::Record(Duration latency) {
    ++answered_;
    min_ = std::min(min_, latency);
    max_ = std::max(max_, latency);
    sum_ += latency;
}

void VEK_ST_LOAD_RESULT::Fail(const std::string& cause) {
    ++failed_;
    ++causes_[cause];
}

void VEK_ST_LOAD_RESULT::Add(const VEK_ST_LOAD_RESULT& other) {
    sent_ += other.sent_;
    answered_ += other.answered_;
    timedOut_ += other.timedOut_;
    failed_ += other.failed_;
    unsent_ += other.unsent_;
    bytesSent_ += other.bytesSent_;
    bytesReceived_ += other.bytesReceived_;
    reconnects_ += other.reconnects_;
    for (size_t i = 0; i < STATUS_CLASSES; ++i) {
        statusClasses_[i] += other.statusClasses_[i];
    }
    for (const auto& [cause, count] : other.causes_) {
        causes_[cause] += count;
    }
    latency_.Add(other.latency_);
    slots_.insert(slots_.end(), other.slots_.begin(), other.slots_.end());
    if (!other.connectionFailure_.empty()) {
        connectionFailure_ = other.connectionFailure_;
    }
    end_ = std::max(end_, other.end_);
    lag_ = std::max(lag_, other.lag_);
    threads_ += other.threads_;
}
