#include "CVEKLogLimit.h"

#include <utility>

#include "CVEKServiceLog.h"
#include "VEKHttp2Option.h"

namespace {

constexpr std::chrono::seconds SECOND(1);

thread_local CVEKLogLimit* G_LIMIT = nullptr;  // of the scope that the thread is in

}  // namespace

CVEKLogLimit::Scope::Scope(CVEKLogLimit& limit)
    : limit_(limit.most_ == 0 || G_VEK_HTTP2_DETAIL_LOG ? nullptr : &limit),
      before_(std::exchange(G_LIMIT, limit_)) {}

CVEKLogLimit::Scope::~Scope() {
    G_LIMIT = before_;
    if (limit_ != nullptr && limit_->leftOut_ > 0) {
        limit_->TellWhenOver(Clock::now());
    }
}

void CVEKLogLimit::Tell() {
    if (leftOut_ > 0) {
        VEK_SERVICE_LOG(VEK_LOG_WARNING, "conn(%s) log lines left out(%lu): over %u in a second...",
                        name_.c_str(), std::exchange(leftOut_, 0), most_);
    }
}

// What the mask drops counts for nothing.
bool CVEKLogLimit::Admits(int level) {
    return G_SERVICE_LOGGER.IsEnabled(level) && (G_LIMIT == nullptr || G_LIMIT->Admit());
}

bool CVEKLogLimit::Admit() {
    const Clock::time_point now = Clock::now();
    TellWhenOver(now);
    if (now - start_ >= SECOND) {
        start_ = now;
        count_ = 0;
    }
    if (count_ < most_) {
        ++count_;
        return true;
    }
    ++leftOut_;
    return false;
}

void CVEKLogLimit::TellWhenOver(Clock::time_point now) {
    if (now - start_ >= SECOND) {
        Tell();
    }
}
