#include "CVEKLoadWorker.h"

#include <nghttp2/nghttp2.h>

#include <algorithm>
#include <new>
#include <utility>

namespace {

constexpr std::chrono::milliseconds TICK{10};
// How long answers are awaited after the run was stopped.
constexpr std::chrono::seconds STOP_GRACE{1};
constexpr std::chrono::seconds ROW{1};  // of the series
constexpr size_t MAX_CAUSES = 64;       // with texts of their own
// Of a tag: when it was due, in nanoseconds since the start, and the number of its step.
constexpr unsigned STAGE_BITS = VEK_ST_LOAD_PLAN::STAGE_BITS;

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

int64_t Nanoseconds(std::chrono::steady_clock::duration time) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(time).count();
}

}  // namespace

CVEKLoadWorker::CVEKLoadWorker(VEK_ST_LOAD_RUN& run, CVEKEventLoop& loop, CVEKHttpClient& client,
                               size_t index, std::function<void()> onEnd)
    : run_(run),
      loop_(loop),
      client_(client),
      index_(index),
      onEnd_(std::move(onEnd)),
      warmUp_(run.schedule_.GetWarmUp()),
      turn_(run.plan_.connections_, run.workers_, index) {
    const VEK_ST_LOAD_PLAN& plan = run_.plan_;
    places_.resize(plan.targets_.size() * plan.connections_);
    counts_.resize(run_.stages_.size());
    begun_.resize(plan.scenario_.flows_.size());
    limit_ = plan.GetLimit();
    users_ = (plan.users_ + run_.workers_ - 1 - index) / run_.workers_;
}

size_t CVEKLoadWorker::GetLimit() const {
    const bool isLimited = run_.plan_.users_ > 0;
    return isLimited && capacity_ > 0 ? users_ : capacity_;
}

void CVEKLoadWorker::NoteUp(const VEK_ST_HTTP_CONNECTION& connection) {
    Place& place = PlaceOf(connection.target_, connection.slot_);
    place.answered_ = 0;
    SetGivenUp(place, false);
    ++place.slot_.opened_;
    ++connections_.opened_;
    connections_.resumed_ += connection.isTlsResumed_ ? 1 : 0;
    connections_.tcp_.Record(Nanoseconds(connection.connected_ - connection.begun_));
    connections_.tls_.Record(Nanoseconds(connection.up_ - connection.connected_));
}

// A connection that brought no answer would bring none again.
void CVEKLoadWorker::NoteDown(const VEK_ST_HTTP_CONNECTION& connection,
                              const VEK_ST_HTTP_FAILURE& failure) {
    connections_.wireBytesSent_ += connection.bytesSent_;
    connections_.wireBytesReceived_ += connection.bytesReceived_;
    const bool wasUp = connection.up_ != Clock::time_point();
    connections_.failed_ += wasUp ? 0 : 1;
    if (failure && failure.reason_ != VEK_HTTP_REASON::CLOSED) {
        ++connections_.causes_[Known(failure.text_)];
    }
    Place& place = PlaceOf(connection.target_, connection.slot_);
    if (isStarted_ && place.answered_ == 0) {
        SetGivenUp(place, true);
    }
}

// What a peer can make differ each time must not grow with the run.
std::string CVEKLoadWorker::Known(const std::string& cause) {
    if (causes_.size() < MAX_CAUSES) {
        causes_.insert(cause);
    }
    return causes_.count(cause) > 0 ? cause : "others";
}

void CVEKLoadWorker::SetGivenUp(Place& place, bool isGivenUp) {
    if (place.isGivenUp_ != isGivenUp) {
        place.isGivenUp_ = isGivenUp;
        capacity_ = isGivenUp ? capacity_ - run_.plan_.streams_ : capacity_ + run_.plan_.streams_;
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
    EndThinking();
}

// Behind the end of the sending there is no next step to think about.
void CVEKLoadWorker::EndThinking() {
    for (const auto& user : all_) {
        if (user->IsThinking()) {
            user->StopThinking();
        }
    }
}

void CVEKLoadWorker::OnTick() {
    const Clock::time_point now = Clock::now();
    if (IsWarm(now)) {
        if (!isWarm_) {
            EndWarmUp();
        }
        lagNs_ = std::max(lagNs_, static_cast<uint64_t>(Nanoseconds(loop_.GetLag())));
        const auto second = static_cast<size_t>((now - run_.start_ - warmUp_) / ROW);
        if (second > second_) {
            HandIn(second);
            second_ = second;
        }
    }
    Pump(now);
    if (now - run_.start_ >= end_) {
        EndThinking();
    }
    if (isOver_ && !hasEnded_ && IsWaitOver(now)) {
        hasEnded_ = true;
        tick_.Cancel();
        HandIn(SIZE_MAX);
        if (++run_.ended_ == run_.workers_) {
            onEnd_();
        }
    }
}

// What connections have had so far is in no figure, but for their opening.
void CVEKLoadWorker::EndWarmUp() {
    isWarm_ = true;
    if (warmUp_ > Duration::zero()) {
        client_.CountBytes(warmSent_, warmReceived_);
        warmSent_ += connections_.wireBytesSent_;
        warmReceived_ += connections_.wireBytesReceived_;
        connections_.failed_ = 0;
        connections_.causes_.clear();
    }
}

// Adds what was counted to what all have, and begins anew. next: the second that begins.
void CVEKLoadWorker::HandIn(size_t next) {
    VEK_ST_LOAD_COUNTS sum;
    for (const VEK_ST_LOAD_COUNTS& counts : counts_) {
        sum.Add(counts);
    }
    VEK_ST_LOAD_SECOND row;
    row.sent_ = std::exchange(sentNow_, 0);
    row.answered_ = sum.answered_;
    row.errors_ = sum.CountErrors();
    row.inFlight_ = inFlight_;
    row.latency_ = VEK_ST_LOAD_PACKED::Pack(sum.latency_);
    const std::lock_guard<std::mutex> guard(run_.mutex_);
    run_.handedIn_[index_] = next;
    VEK_ST_LOAD_SUMMARY& all = run_.summary_;
    for (size_t i = 0; i < counts_.size(); ++i) {
        all.steps_[i].counts_.Add(counts_[i]);
        counts_[i].Clear();
    }
    all.total_.Add(sum);
    all.connections_.Add(connections_);
    connections_ = VEK_ST_LOAD_CONNECTIONS();
    all.lagNs_ = std::max(all.lagNs_, lagNs_);
    const bool isEmpty = sum.sent_ == 0 && second_ >= all.seconds_.size();
    if (!hasEnded_ || !isEmpty) {
        all.seconds_.resize(std::max(all.seconds_.size(), second_ + 1));
        all.seconds_[second_].Add(row);
    }
    for (const auto& [second, count] : sentBefore_) {
        all.seconds_[second].sent_ += count;
    }
    sentBefore_.clear();
}

void CVEKLoadWorker::Finish() {
    inFlight_ = 0;
    for (const Place& place : places_) {
        if (place.slot_.opened_ > 0) {
            connections_.slots_.push_back(place.slot_);
        }
    }
    HandIn(SIZE_MAX);
    const std::lock_guard<std::mutex> guard(run_.mutex_);
    run_.summary_.connections_.wireBytesSent_ -= warmSent_;
    run_.summary_.connections_.wireBytesReceived_ -= warmReceived_;
}

// Nothing is left to wait for, or it has been waited for long enough: behind the end of the
// sending, what waits for a connection is not sent any more.
bool CVEKLoadWorker::IsWaitOver(Clock::time_point now) const {
    const Duration elapsed = now - run_.start_;
    if (inFlight_ == 0 || elapsed < end_) {
        return inFlight_ == 0;
    }
    return (isStopped_ && elapsed - end_ >= STOP_GRACE) ||
           (run_.over_ == run_.workers_ && client_.GetCounters().flying_ == 0);
}

// Begins what is due and has room. What was due before the end is begun once more behind it, for
// the thread may have slept over the end, but nothing waits for a stream then.
void CVEKLoadWorker::Pump(Clock::time_point now) {
    if (isOver_ || !isStarted_) {
        return;
    }
    try {
        while (inFlight_ < GetLimit() && BeginDue(now)) {
        }
    } catch (const std::bad_alloc&) {
        isExhausted_ = true;
    }
    if (isExhausted_ || capacity_ == 0 || now - run_.start_ >= end_) {
        isOver_ = true;
        last_ = std::max(last_, now);
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

bool CVEKLoadWorker::BeginDue(Clock::time_point now) {
    int64_t number = 0;
    Duration due{};
    if (!TakeNumber(now - run_.start_, number, due)) {
        return false;
    }
    Begin(number, run_.schedule_.IsPaced() ? run_.start_ + due : now);
    return true;
}

// False: nothing is due now.
bool CVEKLoadWorker::TakeNumber(Duration elapsed, int64_t& number, Duration& due) {
    const CVEKLoadSchedule& schedule = run_.schedule_;
    if (!schedule.IsPaced()) {
        if (elapsed >= end_) {
            return false;
        }
        const auto relaxed = std::memory_order_relaxed;
        isExhausted_ =
            (elapsed >= warmUp_ && run_.counted_.fetch_add(1, relaxed) >= schedule.GetCount()) ||
            (number = run_.next_.fetch_add(1, relaxed)) >= limit_;
        return !isExhausted_;
    }
    due = schedule.GetDue(turn_.GetNumber());
    isExhausted_ = turn_.GetNumber() >= std::min(schedule.GetCountInAll(), limit_) || due >= end_;
    if (isExhausted_ || due > elapsed) {
        return false;
    }
    number = turn_.GetNumber();
    turn_.Advance();
    return true;
}

void CVEKLoadWorker::Begin(int64_t own, Clock::time_point due) {
    const auto number = static_cast<uint64_t>(run_.plan_.share_.GetNumber(own));
    const size_t kind = run_.plan_.scenario_.Choose(number);
    const uint64_t counted = IsWarm(due) ? 1 : 0;
    ++inFlight_;
    begun_[kind] += counted;
    try {
        Send(number, kind, due);
    } catch (const std::bad_alloc&) {  // or the run would wait for it for ever
        --inFlight_;
        begun_[kind] -= counted;
        throw;
    }
}

void CVEKLoadWorker::Send(uint64_t number, size_t kind, Clock::time_point due) {
    if (const VEK_HTTP_PREPARED& prepared = run_.requests_[kind]; prepared != nullptr) {
        const auto offset = static_cast<uint64_t>(Nanoseconds(due - run_.start_));
        client_.Send(prepared, *this, offset << STAGE_BITS | run_.firstStages_[kind]);
        return;
    }
    if (free_.empty()) {
        CVEKLoadUserHost& host = *this;
        all_.push_back(std::make_unique<CVEKLoadUser>(run_, loop_, client_, host));
        free_.push_back(all_.back().get());
    }
    CVEKLoadUser& user = *free_.back();
    free_.pop_back();
    user.Walk(number, kind, due);
}

void CVEKLoadWorker::EndUser(CVEKLoadUser& user, bool isFailed) {
    --inFlight_;
    free_.push_back(&user);
    if (isFailed) {
        PumpLater();
    } else {
        Pump(Clock::now());
    }
}

void CVEKLoadWorker::OnResponse(uint64_t tag, VEK_ST_HTTP_RESPONSE& response) {
    const Clock::time_point now = Clock::now();
    VEK_ST_LOAD_REQUEST request;
    request.stage_ = tag & ((1U << STAGE_BITS) - 1);
    request.due_ = run_.start_ + Duration(static_cast<Duration::rep>(tag >> STAGE_BITS));
    request.bytes_ = run_.stages_[request.stage_]->body_.GetText().size();
    --inFlight_;
    CountStage(request, response, now);
    if (response.failure_) {
        PumpLater();
    } else {
        Pump(now);
    }
}

bool CVEKLoadWorker::CountStage(const VEK_ST_LOAD_REQUEST& request,
                                const VEK_ST_HTTP_RESPONSE& response, Clock::time_point now) {
    const bool isAnswered = !response.failure_;
    if (isAnswered) {
        ++PlaceOf(request, response).answered_;
    }
    if (!IsWarm(request.due_)) {
        return isAnswered;
    }
    VEK_ST_LOAD_COUNTS& counts = counts_[request.stage_];
    if (response.attempts_ == 0) {
        ++counts.unsent_;
        return false;
    }
    ++counts.sent_;
    CountSent(response.times_.sent_);
    counts.bytesSent_ += request.bytes_;
    last_ = now;
    if (isAnswered) {
        CountAnswer(request, response, now);
    } else {
        CountFailure(request, response);
    }
    if (run_.log_ != nullptr) {
        Log(request, response, now);
    }
    return isAnswered;
}

// In its own second, which is told once it has ended: so the series adds up to the total.
void CVEKLoadWorker::CountSent(Clock::time_point sent) {
    const Duration time = std::max(sent - run_.start_ - warmUp_, Duration::zero());
    if (time >= second_ * ROW) {
        ++sentNow_;
    } else {
        ++sentBefore_[static_cast<size_t>(time / ROW)];
    }
}

void CVEKLoadWorker::CountAnswer(const VEK_ST_LOAD_REQUEST& request,
                                 const VEK_ST_HTTP_RESPONSE& response, Clock::time_point now) {
    VEK_ST_LOAD_COUNTS& counts = counts_[request.stage_];
    const int64_t latency = Nanoseconds(now - request.due_);
    ++counts.answered_;
    ++counts.statuses_[response.status_];
    counts.bytesReceived_ += response.bodyBytes_;
    counts.latency_.Record(latency);
    counts.service_.Record(Nanoseconds(now - response.times_.sent_));
    counts.firstByte_.Record(Nanoseconds(response.times_.answer_ - response.times_.sent_));
    counts.informational_ += response.informational_;
    PlaceOf(request, response).slot_.Record(static_cast<uint64_t>(std::max<int64_t>(latency, 0)));
}

void CVEKLoadWorker::CountFailure(const VEK_ST_LOAD_REQUEST& request,
                                  const VEK_ST_HTTP_RESPONSE& response) {
    VEK_ST_LOAD_COUNTS& counts = counts_[request.stage_];
    ++PlaceOf(request, response).slot_.failed_;
    if (response.failure_.reason_ == VEK_HTTP_REASON::TIMEOUT) {
        ++counts.timedOut_;
    } else {
        ++counts.failed_;
        ++counts.causes_[Known(DescribeFailure(response.failure_))];
    }
}

void CVEKLoadWorker::Log(const VEK_ST_LOAD_REQUEST& request, const VEK_ST_HTTP_RESPONSE& response,
                         Clock::time_point now) {
    VEK_ST_LOAD_LINE line;
    line.step_ = request.stage_;
    line.begin_ = Nanoseconds(request.due_ - run_.start_);
    line.latency_ = Nanoseconds(now - request.due_);
    line.service_ = Nanoseconds(now - response.times_.sent_);
    line.status_ = response.failure_ ? 0 : response.status_;
    line.bytes_ = response.bodyBytes_;
    line.connection_ = response.connection_;
    line.failure_ = response.failure_ ? VEK_HTTP_REASON_NAME(response.failure_.reason_) : "";
    run_.log_->Add(line);
}

void CVEKLoadWorker::NoteUnexpected(size_t stage, const std::string& text) {
    ++counts_[stage].unexpected_[text];
}

void CVEKLoadWorker::Arm(Clock::time_point now) {
    const Duration next = run_.schedule_.GetDue(turn_.GetNumber());
    if (next == Duration::max()) {
        return;
    }
    const Clock::time_point due = run_.start_ + next;
    if (inFlight_ < GetLimit() && due != armedFor_ && due < now + TICK) {
        armedFor_ = due;
        dueTimer_ = loop_.At(due, [this] { Pump(Clock::now()); });
    }
}
