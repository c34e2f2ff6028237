#include "CVEKHttpClientConnection.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "CVEKHttpClientGroup.h"
#include "CVEKHttpClientShard.h"
#include "VEKHttpBounds.h"

namespace {

constexpr int DECIMAL = 10;

CVEKHttpClientExchange& ExchangeOf(CVEKHttpStream& stream) {
    return static_cast<CVEKHttpClientExchange&>(stream);
}

int ParseStatus(std::string_view text) {
    int status = 0;
    for (const char c : text) {
        status = status * DECIMAL + (c - '0');  // three digits: the engine has seen to that
    }
    return status;
}

bool HasBody(const VEK_ST_HTTP_REQUEST& request) {
    return request.body_.IsProduced() || request.body_.GetSize() > 0 ||
           !request.trailers_.IsEmpty();
}

}  // namespace

CVEKHttpClientConnection::CVEKHttpClientConnection(CVEKHttpClientGroup& group, uint64_t number,
                                                   size_t slot)
    : CVEKHttpConnection(*group.GetShard().GetLoop(), number, group.GetTarget().text_,
                         group.GetShard().GetOptions().settings_,
                         group.GetShard().GetOptions().streams_, false),
      group_(group),
      options_(group.GetShard().GetOptions()),
      slot_(slot),
      limit_(options_.streams_) {}

void CVEKHttpClientConnection::Connect(const addrinfo* list) {
    Guard([=] { BeginConnect(list); });
}

void CVEKHttpClientConnection::BeginConnect(const addrinfo* list) {
    VEK_ST_HTTP2_SETUP_LIMITS limits;
    limits.connect_ = VEK_HTTP_SETUP_TIME(options_.connectTime_);
    limits.handshake_ = limits.upgrade_ = VEK_HTTP_SETUP_TIME(options_.handshakeTime_);
    CVEKHttp2Setup& setup = BeginSetup(limits);
    const CVEKHttpClientTarget& target = group_.GetTarget();
    const VEK_ST_HTTP_TARGET& peer = target.options_;
    const std::string& host = peer.unixPath_.empty() ? peer.host_ : peer.unixPath_;
    const bool isNameless = peer.context_ != nullptr && target.name_.empty();
    if (isNameless || setup.SetPeer(target.name_.c_str(), host.c_str(), peer.port_)) {
        setup.StartConnect(list, target.GetContext());
    }
    StepSetup();  // finds out when that has failed
}

bool CVEKHttpClientConnection::OnTransport(CVEKHttp2Setup& setup) {
    const CVEKHttpClientTarget& target = group_.GetTarget();
    StartCapture(options_.captureDirectory_, options_.capture_, target.HasTls());
    return !target.options_.isUpgrade_ ||
           setup.StartClientUpgrade(target.authority_.c_str(), link_.GetOptions());
}

void CVEKHttpClientConnection::OnUp(const CVEKHttp2Setup& /*setup*/) {
    NoteIdle();
    if (options_.observer_.onUp_) {
        options_.observer_.onUp_(DescribeAll());
    }
    group_.NoteUp(*this);
}

bool CVEKHttpClientConnection::HasRoom() const {
    return IsUp() && !IsDraining() && !isRetired_ && !HasFailed() && GetStreams() < limit_ &&
           (options_.requests_ == 0 || begun_ < options_.requests_);
}

bool CVEKHttpClientConnection::Begin(CVEKHttpClientExchange& exchange) {
    if (!HasRoom()) {
        return false;
    }
    const int32_t id = Submit(exchange);
    if (id == NGHTTP2_ERR_STREAM_ID_NOT_AVAILABLE) {
        Retire();
        return false;
    }
    if (id < 0) {
        const bool isMemory = id == NGHTTP2_ERR_NOMEM;
        group_.GetShard().Fail(
            exchange, isMemory ? VEK_HTTP_REASON::MEMORY : VEK_HTTP_REASON::INVALID,
            isMemory ? "memory has run out" : "header fields are over the limit", isMemory);
        return true;
    }
    Attach(exchange, id);
    exchange.state_ = CVEKHttpClientExchange::FLYING;
    VEK_ST_HTTP_RESPONSE& response = exchange.response_;
    response.connection_ = GetNumber();
    response.slot_ = slot_;
    response.times_.sent_ = std::chrono::steady_clock::now();
    CVEKHttpClientShard::Counters& counters = group_.GetShard().GetCounters();
    ++counters.sent;
    ++counters.flying;
    if (response.attempts_++ > 0) {
        ++counters.repeated;
    }
    if (options_.observer_.onBegin_) {
        VEK_ST_HTTP_EXCHANGE event;
        event.connection_ = GetNumber();
        event.stream_ = id;
        event.request_ = &exchange.GetRequest();
        event.times_ = response.times_;
        options_.observer_.onBegin_(event);
    }
    ArmBy(exchange.deadline_);
    if (++begun_ == options_.requests_) {
        Retire();
    }
    Wake();
    return true;
}

int32_t CVEKHttpClientConnection::Submit(CVEKHttpClientExchange& exchange) {
    try {
        return SubmitFields(exchange);
    } catch (const std::bad_alloc&) {
        return NGHTTP2_ERR_NOMEM;
    }
}

int32_t CVEKHttpClientConnection::SubmitFields(CVEKHttpClientExchange& exchange) {
    const VEK_ST_HTTP_REQUEST& request = exchange.GetRequest();
    const std::vector<nghttp2_nv>* fields = nullptr;
    if (exchange.prepared_ != nullptr) {
        fields = &exchange.prepared_->GetFields();
    } else {
        std::vector<nghttp2_nv>& own = group_.GetShard().GetFields();
        own.clear();
        VEK_HTTP_LIST_FIELDS(request, group_.GetTarget(), own);
        fields = &own;
    }
    const bool hasBody = HasBody(request);
    exchange.SetBody(request.body_, exchange.request_.trailers_);
    return link_.SubmitRequest(fields->data(), fields->size(),
                               hasBody ? static_cast<CVEKHttp2Source*>(&exchange) : nullptr,
                               static_cast<CVEKHttpStream*>(&exchange));
}

void CVEKHttpClientConnection::Abort(CVEKHttpClientExchange& exchange) {
    if (link_.HasSession()) {
        link_.CancelStream(exchange.GetId());
    }
    Detach(exchange);
    exchange.response_.times_.ended_ = std::chrono::steady_clock::now();
    NoteEnd(exchange, exchange.response_.failure_);
    group_.NoteRoom(*this);
    Wake();
}

void CVEKHttpClientConnection::NoteIdle() {
    idleSince_ = core_.GetNow();
    if (options_.idleTime_.count() > 0) {
        ArmBy(idleSince_ + VEK_HTTP_MS(options_.idleTime_));
    }
    if (isRetired_) {
        Drain(false);
    }
}

void CVEKHttpClientConnection::Retire() {
    isRetired_ = true;
    group_.NoteRoom(*this);
    if (GetStreams() == 0) {
        Drain(false);
    }
}

int CVEKHttpClientConnection::OnField(CVEKHttpStream& stream, std::string_view name,
                                      std::string_view value) {
    CVEKHttpClientExchange& exchange = ExchangeOf(stream);
    if (!exchange.IsFlying()) {
        return 0;
    }
    VEK_ST_HTTP_RESPONSE& response = exchange.response_;
    const bool isStatus = name == ":status";
    if (!isStatus && exchange.GetOptions().isContentDropped_ &&
        link_.GetBlock() != VEK_HTTP2_BLOCK_INFORMATIONAL) {
        return 0;
    }
    switch (link_.GetBlock()) {
        case VEK_HTTP2_BLOCK_INFORMATIONAL:
            if (isStatus) {
                exchange.informational_.Clear();
                exchange.informationalStatus_ = ParseStatus(value);
            } else {
                exchange.informational_.Add(name, value);
            }
            return 0;
        case VEK_HTTP2_BLOCK_RESPONSE:
            if (isStatus) {
                response.status_ = ParseStatus(value);
                response.times_.answer_ = GetPassTime();
            } else {
                response.fields_.Add(name, value);
            }
            return 0;
        case VEK_HTTP2_BLOCK_TRAILERS:
            response.trailers_.Add(name, value);
            return 0;
        default:
            return 0;
    }
}

int CVEKHttpClientConnection::OnFieldOverflow(CVEKHttpStream& stream) {
    group_.GetShard().GiveUp(ExchangeOf(stream), VEK_HTTP_REASON::TOO_LARGE,
                             "the response's header fields are over the limit");
    return 0;
}

int CVEKHttpClientConnection::OnData(CVEKHttpStream& stream, std::string_view data) {
    CVEKHttpClientExchange& exchange = ExchangeOf(stream);
    VEK_ST_HTTP_RESPONSE& response = exchange.response_;
    const VEK_ST_HTTP_CALL_OPTIONS& options = exchange.GetOptions();
    if (options.onPiece_ && exchange.IsFlying()) {
        response.bodyBytes_ += data.size();
        exchange.isHandedOver_ = true;
        Hold(exchange, data.size());
        if (options.onPiece_(data)) {
            Consume(exchange, data.size());
        }
        return 0;
    }
    link_.Consume(exchange.GetId(), data.size());
    if (!exchange.IsFlying()) {
        return 0;
    }
    response.bodyBytes_ += data.size();
    if (options.isContentDropped_) {
        return 0;
    }
    std::string& body = response.body_.EditText();
    if (body.size() + data.size() > options_.settings_.bodyBytes_) {
        group_.GetShard().GiveUp(exchange, VEK_HTTP_REASON::TOO_LARGE,
                                 "the response's body is over the limit");
    } else {
        body.append(data);
    }
    return 0;
}

int CVEKHttpClientConnection::OnFrame(const nghttp2_frame* frame) {
    switch (frame->hd.type) {
        case NGHTTP2_HEADERS:
        case NGHTTP2_DATA: {
            CVEKHttpStream* stream = Find(frame->hd.stream_id);
            if (stream == nullptr) {
                return 0;
            }
            if (frame->hd.type == NGHTTP2_HEADERS) {
                EndHead(ExchangeOf(*stream));
            }
            if ((frame->hd.flags & NGHTTP2_FLAG_END_STREAM) != 0) {
                ExchangeOf(*stream).isComplete_ = true;
            }
            return 0;
        }
        case NGHTTP2_SETTINGS:
            if ((frame->hd.flags & NGHTTP2_FLAG_ACK) == 0) {
                TakeSettings(frame->settings);
            }
            return 0;
        case NGHTTP2_GOAWAY:
            group_.NoteRoom(*this);
            return 0;
        default:
            return 0;
    }
}

void CVEKHttpClientConnection::EndHead(CVEKHttpClientExchange& exchange) {
    const VEK_ST_HTTP_CALL_OPTIONS& options = exchange.GetOptions();
    if (!exchange.IsFlying()) {
        return;
    }
    switch (link_.GetBlock()) {
        case VEK_HTTP2_BLOCK_INFORMATIONAL:
            ++exchange.response_.informational_;
            if (options.onInformational_) {
                options.onInformational_(exchange.informationalStatus_, exchange.informational_);
            }
            return;
        case VEK_HTTP2_BLOCK_RESPONSE:
            if (options.onHead_) {
                options.onHead_(exchange.response_);
            }
            return;
        default:
            return;
    }
}

void CVEKHttpClientConnection::TakeSettings(const nghttp2_settings& settings) {
    for (size_t i = 0; i < settings.niv; ++i) {
        if (settings.iv[i].settings_id == NGHTTP2_SETTINGS_MAX_CONCURRENT_STREAMS) {
            limit_ = std::min(options_.streams_, settings.iv[i].value);
        }
    }
    group_.NoteRoom(*this);
}

// The engine has kept a request back that it cannot send any more.
int CVEKHttpClientConnection::OnNotSent(const nghttp2_frame* frame, int /*error*/) {
    if (frame->hd.type != NGHTTP2_HEADERS || frame->headers.cat != NGHTTP2_HCAT_REQUEST) {
        return 0;
    }
    CVEKHttpStream* found = nullptr;
    ForEach([&](CVEKHttpStream& stream) {
        found = stream.GetId() == frame->hd.stream_id ? &stream : found;
    });
    if (found != nullptr) {
        Detach(*found);
        OnStreamEnd(*found, NGHTTP2_REFUSED_STREAM, nullptr);
    }
    return 0;
}

void CVEKHttpClientConnection::OnStreamEnd(CVEKHttpStream& stream, uint32_t code,
                                           const VEK_ST_HTTP_FAILURE* down) {
    CVEKHttpClientExchange& exchange = ExchangeOf(stream);
    const bool isGivenUp = !exchange.IsFlying();
    exchange.state_ = CVEKHttpClientExchange::ENDING;
    VEK_ST_HTTP_FAILURE failure;
    bool isUnprocessed = false;
    if (isGivenUp) {
        Tell([&] { failure = exchange.response_.failure_; });
    } else if (exchange.isComplete_) {
        hasAnswered_ = true;
        group_.NoteAnswer();
    } else if (down != nullptr) {
        failure.reason_ = down->reason_;
        failure.code_ = down->code_;
        Tell([&] { failure.text_ = down->text_; });
        isUnprocessed = link_.HasSession() && link_.GetLocalClose(stream.GetId()) == -1;
    } else {
        isUnprocessed = code == NGHTTP2_REFUSED_STREAM;
        failure.reason_ = isUnprocessed                ? VEK_HTTP_REASON::REFUSED
                          : stream.HasProducerFailed() ? VEK_HTTP_REASON::BODY
                                                       : VEK_HTTP_REASON::RESET;
        failure.code_ = code;
        if (isUnprocessed && IsBeyondGoaway(stream.GetId())) {
            failure.code_ = GetGoawayCode();
            Tell([&] { failure.text_ = "beyond the GOAWAY of the peer"; });
        } else {
            Tell([&] {
                failure.text_ = std::string("stream is over: ") + nghttp2_http2_strerror(code);
            });
        }
    }
    exchange.response_.times_.ended_ =
        down == nullptr ? GetPassTime() : std::chrono::steady_clock::now();
    NoteEnd(exchange, failure);
    group_.NoteRoom(*this);
    if (!isGivenUp) {
        group_.Settle(exchange, std::move(failure), isUnprocessed);
    }
}

// It has left the connection.
void CVEKHttpClientConnection::NoteEnd(CVEKHttpClientExchange& exchange,
                                       const VEK_ST_HTTP_FAILURE& failure) {
    --group_.GetShard().GetCounters().flying;
    if (GetStreams() == 0) {
        NoteIdle();
    }
    if (options_.observer_.onEnd_) {
        VEK_ST_HTTP_EXCHANGE event;
        event.connection_ = GetNumber();
        event.stream_ = exchange.GetId();
        event.request_ = &exchange.GetRequest();
        event.response_ = &exchange.response_;
        event.times_ = exchange.response_.times_;
        Tell([&] {
            event.failure_ = failure;
            options_.observer_.onEnd_(event);
        });
    }
}

uint64_t CVEKHttpClientConnection::CheckDeadlines(uint64_t now) {
    uint64_t next = UINT64_MAX;
    ForEach([&](CVEKHttpStream& stream) {
        CVEKHttpClientExchange& exchange = ExchangeOf(stream);
        if (exchange.deadline_ <= now) {
            group_.GetShard().GiveUp(exchange, VEK_HTTP_REASON::TIMEOUT, "no response in time");
        } else {
            next = std::min(next, exchange.deadline_);
        }
    });
    const uint64_t idleMs = VEK_HTTP_MS(options_.idleTime_);
    if (GetStreams() == 0 && idleMs > 0) {
        if (now >= idleSince_ + idleMs) {
            Fail(VEK_HTTP_REASON::IDLE, "idle for too long");
        } else {
            next = std::min(next, idleSince_ + idleMs);
        }
    } else if (idleMs > 0) {
        next = std::min(next, now + idleMs);
    }
    return next;
}

void CVEKHttpClientConnection::OnDown(const VEK_ST_HTTP_FAILURE& failure) {
    if (options_.observer_.onDown_) {
        Tell([&] { options_.observer_.onDown_(DescribeAll(), failure); });
    }
    group_.NoteDown(*this, failure);
}

VEK_ST_HTTP_CONNECTION CVEKHttpClientConnection::DescribeAll() {
    VEK_ST_HTTP_CONNECTION description = Describe();
    description.target_ = group_.GetIndex();
    description.slot_ = slot_;
    return description;
}
