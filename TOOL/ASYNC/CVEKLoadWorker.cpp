#include "CVEKLoadWorker.h"

#include <nghttp2/nghttp2.h>

#include <algorithm>
#include <new>
#include <utility>

namespace {

constexpr std::chrono::milliseconds TICK{10};
// How long answers are awaited after the run was stopped.
constexpr std::chrono::seconds STOP_GRACE{1};
constexpr size_t NUMBER_DIGITS = 8;
constexpr int CLASS_SIZE = 100;  // of status codes

std::string DescribeFailure(const VEK_ST_HTTP_FAILURE& failure) {
    switch (failure.reason_) {
        case VEK_HTTP_REASON::REFUSED:
            if (failure.code_ != NGHTTP2_REFUSED_STREAM) {
                return "connection closed by peer (GOAWAY)";
            }
            [[fallthrough]];
        case VEK_HTTP_REASON::RESET:
            return std::string("stream reset by peer: ") + nghttp2_http2_strerror(failure.code_);
        case VEK_HTTP_REASON::PEER_CLOSED:
        case VEK_HTTP_REASON::BROKEN:
        case VEK_HTTP_REASON::TLS:
            return "connection lost";
        case VEK_HTTP_REASON::CLOSED:
            return "not answered before the end";
        default:
            return failure.text_;
    }
}

// The body begins with the number of its request, in eight digits.
void WriteNumber(std::string& body, int64_t number) {
    for (size_t i = NUMBER_DIGITS; i > 0; --i, number /= 10) {
        if (i <= body.size()) {
            body[i - 1] = static_cast<char>('0' + number % 10);
        }
    }
}

}  // namespace

CVEKLoadWorker::CVEKLoadWorker(VEK_ST_LOAD_RUN& run, CVEKEventLoop& loop, CVEKHttpClient& client,
                               size_t index, std::function<void()> onEnd)
    : run_(run), loop_(loop), client_(client), index_(index), onEnd_(std::move(onEnd)) {
    const size_t connections = run_.plan_.connections_;
    const size_t count = (connections + run_.workers_ - 1 - index) / run_.workers_;
    places_.resize(count);
    result_.slots_.resize(count);
    result_.threads_ = 1;
    limit_ = count * run_.plan_.streams_;
    nextNumber_ = static_cast<int64_t>(index);
}

void CVEKLoadWorker::NoteUp(const VEK_ST_HTTP_CONNECTION& connection) {
    Place& place = PlaceOf(connection.slot_);
    place.answered_ = 0;
    SetGivenUp(place, false);
    ++result_.slots_[connection.slot_ / run_.workers_].opened_;
    result_.reconnects_ += isStarted_ ? 1 : 0;
}

// A connection that brought no answer would bring none again.
void CVEKLoadWorker::NoteDown(const VEK_ST_HTTP_CONNECTION& connection,
                              const VEK_ST_HTTP_FAILURE& failure) {
    if (failure.reason_ == VEK_HTTP_REASON::TLS) {
        result_.connectionFailure_ = failure.text_;
    }
    Place& place = PlaceOf(connection.slot_);
    if (isStarted_ && place.answered_ == 0) {
        SetGivenUp(place, true);
    }
}

void CVEKLoadWorker::SetGivenUp(Place& place, bool isGivenUp) {
    if (place.isGivenUp_ != isGivenUp) {
        place.isGivenUp_ = isGivenUp;
        limit_ = isGivenUp ? limit_ - run_.plan_.streams_ : limit_ + run_.plan_.streams_;
    }
}

void CVEKLoadWorker::Start() {
    isStarted_ = true;
    end_ = std::min(end_, run_.schedule_.GetLength());
    tick_ = loop_.Every(TICK, [this] { OnTick(); });
    Pump(Clock::now());
}

void CVEKLoadWorker::Stop() {
    isStopped_ = true;
    end_ = std::min(end_, Duration(Clock::now() - run_.start_));
}

void CVEKLoadWorker::OnTick() {
    result_.lag_ = std::max(result_.lag_, loop_.GetLag());
    const Clock::time_point now = Clock::now();
    Pump(now);
    if (isOver_ && !hasEnded_ && IsWaitOver(now)) {
        hasEnded_ = true;
        tick_.Cancel();
        if (++run_.ended_ == run_.workers_) {
            onEnd_();
        }
    }
}

// Nothing is left to wait for, or it has been waited for long enough: behind the end of the sending,
// what waits for a connection is not sent any more.
bool CVEKLoadWorker::IsWaitOver(Clock::time_point now) const {
    const Duration elapsed = now - run_.start_;
    if (inFlight_ == 0 || elapsed < end_) {
        return inFlight_ == 0;
    }
    return (isStopped_ && elapsed - end_ >= STOP_GRACE) ||
           (run_.over_ == run_.workers_ && client_.GetCounters().flying_ == 0);
}

// Sends what is due and has room. What was due before the end is sent once more behind it, for the
// thread may have slept over the end, but nothing waits for a stream then.
void CVEKLoadWorker::Pump(Clock::time_point now) {
    if (isOver_ || !isStarted_) {
        return;
    }
    try {
        while (inFlight_ < limit_ && SendDue(now)) {
        }
    } catch (const std::bad_alloc&) {
        isExhausted_ = true;
    }
    if (isExhausted_ || limit_ == 0 || now - run_.start_ >= end_) {
        isOver_ = true;
        ++run_.over_;
        dueTimer_.Cancel();
    } else if (run_.schedule_.IsPaced()) {
        Arm(now);
    }
}

// From within the end of a connection: it has not been told yet that its slot is given up.
void CVEKLoadWorker::PumpLater() {
    if (!isPumpPosted_) {
        isPumpPosted_ = true;
        loop_.Post([this] {
            isPumpPosted_ = false;
            Pump(Clock::now());
        });
    }
}

bool CVEKLoadWorker::SendDue(Clock::time_point now) {
    int64_t number = 0;
    Duration due{};
    if (!TakeNumber(now - run_.start_, number, due)) {
        return false;
    }
    Send(number, run_.schedule_.IsPaced() ? run_.start_ + due : now);
    return true;
}

// False: nothing is due now.
bool CVEKLoadWorker::TakeNumber(Duration elapsed, int64_t& number, Duration& due) {
    const CVEKLoadSchedule& schedule = run_.schedule_;
    if (!schedule.IsPaced()) {
        if (elapsed >= end_) {
            return false;
        }
        number = run_.next_.fetch_add(1, std::memory_order_relaxed);
        isExhausted_ = number >= schedule.GetCount();
        return !isExhausted_;
    }
    due = schedule.GetDue(nextNumber_);
    isExhausted_ = nextNumber_ >= schedule.GetCount() || due >= end_;
    if (isExhausted_ || due > elapsed) {
        return false;
    }
    number = nextNumber_;
    nextNumber_ = FollowNumber(number);
    return true;
}

// With a schedule, the requests go to the connections in turn: the worker has those of its slots.
int64_t CVEKLoadWorker::FollowNumber(int64_t number) const {
    const auto connections = static_cast<int64_t>(run_.plan_.connections_);
    const auto workers = static_cast<int64_t>(run_.workers_);
    const int64_t slot = number % connections + workers;
    return slot < connections ? number + workers
                              : number - number % connections + connections +
                                    static_cast<int64_t>(index_);
}

void CVEKLoadWorker::Send(int64_t number, Clock::time_point due) {
    if (run_.plan_.onResponse_) {
        SendNumbered(number, due);
    } else {
        client_.Send(run_.request_, *this, static_cast<uint64_t>((due - run_.start_).count()));
    }
    ++inFlight_;
}

void CVEKLoadWorker::SendNumbered(int64_t number, Clock::time_point due) {
    VEK_ST_HTTP_REQUEST request = run_.plan_.request_;
    WriteNumber(request.body_.EditText(), number);
    client_.Send(std::move(request), [this, number, due](VEK_ST_HTTP_RESPONSE& response) {
        if (!response.failure_) {
            run_.plan_.onResponse_(number, response);
        }
        OnResponse(static_cast<uint64_t>((due - run_.start_).count()), response);
    });
}

void CVEKLoadWorker::OnResponse(uint64_t tag, VEK_ST_HTTP_RESPONSE& response) {
    const Clock::time_point now = Clock::now();
    --inFlight_;
    if (response.attempts_ > 0) {
        Count(run_.start_ + Duration(static_cast<Duration::rep>(tag)), response, now);
    }
    if (response.failure_) {
        PumpLater();
    } else {
        Pump(now);
    }
}

void CVEKLoadWorker::Count(Clock::time_point due, const VEK_ST_HTTP_RESPONSE& response,
                           Clock::time_point now) {
    ++result_.sent_;
    result_.end_ = now;
    run_.done_.fetch_add(1, std::memory_order_relaxed);
    if (!response.failure_) {
        CountAnswer(due, response, now);
        return;
    }
    run_.errors_.fetch_add(1, std::memory_order_relaxed);
    if (response.failure_.reason_ == VEK_HTTP_REASON::TIMEOUT) {
        ++result_.timedOut_;
    } else {
        result_.Fail(DescribeFailure(response.failure_));
    }
}

void CVEKLoadWorker::CountAnswer(Clock::time_point due, const VEK_ST_HTTP_RESPONSE& response,
                                 Clock::time_point now) {
    ++result_.answered_;
    result_.bytesReceived_ += static_cast<int64_t>(response.bodyBytes_);
    const int status = response.status_ / CLASS_SIZE;
    const bool isKnown =
        status >= 1 && status < static_cast<int>(VEK_ST_LOAD_RESULT::STATUS_CLASSES);
    ++result_.statusClasses_[isKnown ? static_cast<size_t>(status) : 0];
    result_.latency_.Record(now - due);
    result_.slots_[response.slot_ / run_.workers_].Record(now - due);
    ++PlaceOf(response.slot_).answered_;
}

// What comes later than the next tick is left to it.
void CVEKLoadWorker::Arm(Clock::time_point now) {
    const Clock::time_point due = run_.start_ + run_.schedule_.GetDue(nextNumber_);
    if (inFlight_ < limit_ && due != armedFor_ && due < now + TICK) {
        armedFor_ = due;
        dueTimer_ = loop_.At(due, [this] { Pump(Clock::now()); });
    }
}
