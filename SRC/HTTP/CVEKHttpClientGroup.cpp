#include "CVEKHttpClientGroup.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <random>
#include <utility>

#include "CVEKHttpClientShard.h"
#include "VEKHttpBounds.h"

namespace {

constexpr unsigned MAX_DOUBLINGS = 20;
constexpr char NOT_IN_TIME[] = "no connection in time";

// Shorter by up to a quarter, so that clients which lost one server do not come back as one.
uint64_t Vary(uint64_t ms) {
    static thread_local std::minstd_rand chance{std::random_device()()};
    return ms - std::uniform_int_distribution<uint64_t>(0, ms / 4)(chance);
}

bool IsOfConnection(VEK_HTTP_REASON reason) {
    switch (reason) {
        case VEK_HTTP_REASON::REFUSED:
        case VEK_HTTP_REASON::PEER_CLOSED:
        case VEK_HTTP_REASON::BROKEN:
        case VEK_HTTP_REASON::TLS:
        case VEK_HTTP_REASON::PROTOCOL:
        case VEK_HTTP_REASON::IDLE:
        case VEK_HTTP_REASON::CLOSED:
            return true;
        default:
            return false;
    }
}

}  // namespace

CVEKHttpClientGroup::CVEKHttpClientGroup(CVEKHttpClientShard& shard,
                                         const CVEKHttpClientTarget& target, size_t index,
                                         const std::vector<size_t>& slots)
    : shard_(shard),
      loop_(*shard.GetLoop()),
      target_(target),
      options_(shard.GetOptions()),
      index_(index),
      addresses_(loop_, target.options_, [this](const char* error) { OnAddresses(error); }),
      freeSlots_(slots.rbegin(), slots.rend()) {}

CVEKHttpClientGroup::~CVEKHttpClientGroup() {
    loop_.Disarm(*this);
}

void CVEKHttpClientGroup::Submit(CVEKHttpClientExchange& exchange) {
    if (hasEnded_) {
        shard_.Fail(exchange, VEK_HTTP_REASON::CLOSED, "the client has ended", true);
        return;
    }
    if (!waiting_.IsEmpty() || room_.IsEmpty()) {
        if (options_.waiting_ > 0 && waiting_.GetSize() >= options_.waiting_) {
            shard_.Fail(exchange, VEK_HTTP_REASON::FULL, "too many requests are waiting", true);
            return;
        }
        Wait(exchange, false);
        OpenMore();
        return;
    }
    Wait(exchange, false);
    Serve();
}

void CVEKHttpClientGroup::Connect() {
    asked_ = freeSlots_.size();
    OpenMore();
}

void CVEKHttpClientGroup::Wait(CVEKHttpClientExchange& exchange, bool isFirst) {
    exchange.state_ = CVEKHttpClientExchange::WAITING;
    if (isFirst) {
        waiting_.PushFront(exchange);
    } else {
        waiting_.PushBack(exchange);
    }
    loop_.ArmBy(*this, exchange.deadline_);
    ++shard_.GetCounters().waiting;
}

void CVEKHttpClientGroup::Remove(CVEKHttpClientExchange& exchange) {
    waiting_.Remove(exchange);
    --shard_.GetCounters().waiting;
}

// Those who wait go where there is room, to one connection after the other.
void CVEKHttpClientGroup::Serve() {
    while (!waiting_.IsEmpty() && !room_.IsEmpty()) {
        CVEKHttpClientExchange& exchange = *waiting_.GetFirst();
        CVEKHttpClientConnection& connection = *room_.GetFirst();
        Remove(exchange);
        Unlist(connection);
        if (!connection.Begin(exchange)) {
            Wait(exchange, true);
        }
        NoteRoom(connection);
    }
    OpenMore();
}

// As many connections as those who wait need, beside those that are being made, or as were asked
// for, and no more than may be made at once.
size_t CVEKHttpClientGroup::CountWanted() const {
    const size_t expected = connecting_ * options_.streams_;
    const size_t waiting = waiting_.GetSize();
    const size_t needed =
        waiting > expected ? (waiting - expected + options_.streams_ - 1) / options_.streams_ : 0;
    const size_t room = options_.settingUp_ == 0 ? SIZE_MAX : options_.settingUp_;
    return std::min(
        {std::max(needed, asked_), room - std::min(room, connecting_), freeSlots_.size()});
}

// Where memory ends, connecting fails for now.
void CVEKHttpClientGroup::OpenMore() {
    try {
        TryOpenMore();
    } catch (const std::bad_alloc&) {
        VEK_ST_HTTP_FAILURE failure;
        failure.reason_ = VEK_HTTP_REASON::MEMORY;
        NoteFailure(failure);
        loop_.ArmBy(*this, retryTime_);
    }
}

void CVEKHttpClientGroup::TryOpenMore() {
    size_t wanted = CountWanted();
    if (hasEnded_ || wanted == 0) {
        return;
    }
    if (loop_.GetNow() < retryTime_) {
        loop_.ArmBy(*this, retryTime_);
        return;
    }
    if (addresses_.Get() == nullptr) {
        if (!addresses_.IsFinding()) {
            addresses_.Find();  // and then comes here again
        }
        return;
    }
    for (; wanted > 0 && !freeSlots_.empty() && loop_.GetNow() >= retryTime_; --wanted) {
        Open();
    }
}

void CVEKHttpClientGroup::OnAddresses(const char* error) {
    if (error != nullptr) {
        ++shard_.GetCounters().connectFailed;
        VEK_ST_HTTP_FAILURE failure;
        failure.reason_ = VEK_HTTP_REASON::RESOLVE;
        try {
            failure.text_ = target_.options_.host_ + ": " + error;
            TellDown(failure);
        } catch (const std::bad_alloc&) {
            failure.reason_ = VEK_HTTP_REASON::MEMORY;
        }
        NoteFailure(failure);
    }
    OpenMore();
}

// Of a connection that has not come about.
void CVEKHttpClientGroup::TellDown(const VEK_ST_HTTP_FAILURE& failure) const {
    if (options_.observer_.onDown_ && !freeSlots_.empty()) {
        VEK_ST_HTTP_CONNECTION none;
        none.target_ = GetIndex();
        none.slot_ = freeSlots_.back();
        none.begun_ = std::chrono::steady_clock::now();
        options_.observer_.onDown_(none, failure);
    }
}

void CVEKHttpClientGroup::Open() {
    connections_.push_back(
        std::make_unique<CVEKHttpClientConnection>(*this, shard_.NextNumber(), freeSlots_.back()));
    freeSlots_.pop_back();  // which leaves room for its return
    asked_ -= asked_ > 0 ? 1 : 0;
    ++connecting_;
    CVEKHttpClientConnection& connection = *connections_.back();
    connection.index_ = connections_.size() - 1;
    connection.Connect(addresses_.Get());
}

void CVEKHttpClientGroup::NoteUp(CVEKHttpClientConnection& connection) {
    --connecting_;
    ++up_;
    ++shard_.GetCounters().connections;
    ++shard_.GetCounters().opened;
    NoteRoom(connection);
    Serve();
}

void CVEKHttpClientGroup::NoteRoom(CVEKHttpClientConnection& connection) {
    if (connection.HasRoom()) {
        List(connection);
        return;
    }
    Unlist(connection);
    if (connection.IsOver()) {
        ReleaseSlot(connection);
    }
}

void CVEKHttpClientGroup::List(CVEKHttpClientConnection& connection) {
    if (connection.isListed_) {
        return;
    }
    connection.isListed_ = true;
    room_.PushBack(connection);
}

void CVEKHttpClientGroup::Unlist(CVEKHttpClientConnection& connection) {
    if (!connection.isListed_) {
        return;
    }
    connection.isListed_ = false;
    room_.Remove(connection);
}

void CVEKHttpClientGroup::ReleaseSlot(CVEKHttpClientConnection& connection) {
    if (!connection.isReplaced_) {
        connection.isReplaced_ = true;
        freeSlots_.push_back(connection.GetSlot());
    }
}

bool CVEKHttpClientGroup::MayRepeat(const CVEKHttpClientExchange& exchange,
                                    const VEK_ST_HTTP_FAILURE& failure, bool isUnprocessed) const {
    const bool isBodyGone = exchange.GetRequest().body_.IsProduced() && exchange.HasProduced();
    return !hasEnded_ && !exchange.isHandedOver_ && !isBodyGone && !exchange.isCancelled_ &&
           exchange.response_.attempts_ < options_.attempts_ && IsOfConnection(failure.reason_) &&
           (isUnprocessed || failure.isRepeatable_ || exchange.GetOptions().isRepeatable_);
}

void CVEKHttpClientGroup::Settle(CVEKHttpClientExchange& exchange, VEK_ST_HTTP_FAILURE failure,
                                 bool isUnprocessed) {
    if (!failure) {
        shard_.Complete(exchange);
        if (!waiting_.IsEmpty()) {
            Serve();
        }
        return;
    }
    failure.isRepeatable_ = isUnprocessed || exchange.IsIdempotent();
    if (!MayRepeat(exchange, failure, isUnprocessed)) {
        exchange.response_.failure_ = std::move(failure);
        shard_.Complete(exchange);
        return;
    }
    VEK_ST_HTTP_RESPONSE& response = exchange.response_;
    response.fields_.Clear();
    response.body_.Clear();
    response.trailers_.Clear();
    response.status_ = 0;
    response.bodyBytes_ = response.informational_ = 0;
    response.times_.answer_ = response.times_.ended_ = VEK_ST_HTTP_TIMES::Time();
    Wait(exchange, true);
    Serve();
}

void CVEKHttpClientGroup::NoteDown(CVEKHttpClientConnection& connection,
                                   const VEK_ST_HTTP_FAILURE& failure) {
    CVEKHttpClientShard::Counters& counters = shard_.GetCounters();
    const bool wasUp = connection.IsUp();
    const bool wasUseful = connection.HasAnswered() || failure.reason_ == VEK_HTTP_REASON::IDLE;
    --(wasUp ? up_ : connecting_);
    if (wasUp) {
        --counters.connections;
    } else {
        ++counters.connectFailed;
    }
    Unlist(connection);
    ReleaseSlot(connection);
    const auto owner = VEK_TAKE_OUT(connections_, connection);
    loop_.NoteGone();
    if (!hasEnded_) {
        if (!wasUseful) {
            NoteFailure(failure);
        }
        OpenMore();
    }
}

// Connections that were tried together fail together, and count once.
void CVEKHttpClientGroup::NoteFailure(const VEK_ST_HTTP_FAILURE& failure) {
    const uint64_t now = loop_.GetNow();
    if (now < retryTime_) {
        return;
    }
    const uint64_t delay =
        std::min(VEK_HTTP_MS(options_.backoff_) << std::min(failures_, MAX_DOUBLINGS),
                 VEK_HTTP_MS(options_.maxBackoff_));
    ++failures_;
    retryTime_ = now + std::max<uint64_t>(Vary(delay), 1);
    addresses_.Forget();
    try {
        lateText_ = std::string(NOT_IN_TIME) + ": " + failure.text_;
    } catch (const std::bad_alloc&) {
        lateText_.clear();
    }
    if (up_ > 0) {
        return;
    }
    waiting_.ForEach([&](CVEKHttpClientExchange& exchange) {
        if (++exchange.connectFailures_ >= options_.attempts_) {
            Remove(exchange);
            shard_.Fail(exchange, failure.reason_, failure.text_, true);
        }
    });
}

void CVEKHttpClientGroup::OnTimer() {
    const uint64_t next = CheckWaiting(loop_.GetNow());
    if (next != UINT64_MAX) {
        loop_.ArmBy(*this, next);
    }
    Serve();
}

// Fails those whose time is over. Returns when the next one's is.
uint64_t CVEKHttpClientGroup::CheckWaiting(uint64_t now) {
    uint64_t next = UINT64_MAX;
    waiting_.ForEach([&](CVEKHttpClientExchange& exchange) {
        if (exchange.deadline_ <= now) {
            shard_.GiveUp(exchange, VEK_HTTP_REASON::TIMEOUT,
                          failures_ == 0 || lateText_.empty() ? NOT_IN_TIME : lateText_.c_str());
        } else {
            next = std::min(next, exchange.deadline_);
        }
    });
    return next;
}

void CVEKHttpClientGroup::CountBytes(uint64_t& sent, uint64_t& received) {
    for (const auto& connection : connections_) {
        connection->CountBytes(sent, received);
    }
}

void CVEKHttpClientGroup::End() {
    hasEnded_ = true;
    while (!connections_.empty()) {
        connections_.back()->End(VEK_HTTP_REASON::CLOSED, "the client has ended");
    }
    while (!waiting_.IsEmpty()) {
        CVEKHttpClientExchange& exchange = *waiting_.GetFirst();
        Remove(exchange);
        exchange.NoteFailure(VEK_HTTP_REASON::CLOSED, "the client has ended", true);
        shard_.Complete(exchange);
    }
    hasEnded_ = false;
}
