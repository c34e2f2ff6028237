#include "CVEKHttpServerConnection.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "CVEKHttpServerCore.h"
#include "VEKHttp2Field.h"
#include "VEKHttpBounds.h"
#include "VEKHttpFieldCheck.h"

namespace {

constexpr uint64_t RATE_PERIOD_MS = 1000;
// How long a peer may take to acknowledge that the server is about to go.
constexpr uint64_t NOTICE_MS = 1000;
constexpr int STATUS_CONTINUE = 100;
constexpr int STATUS_SWITCHING = 101;
constexpr int STATUS_NO_CONTENT = 204;
constexpr int STATUS_NOT_MODIFIED = 304;
constexpr int STATUS_TOO_LARGE = 413;
constexpr int STATUS_FIELDS_TOO_LARGE = 431;
constexpr int LEAST_STATUS = 200;
constexpr int MOST_STATUS = 999;

CVEKHttpServerStream& StreamOf(CVEKHttpStream& stream) {
    return static_cast<CVEKHttpServerStream&>(stream);
}

bool HasBody(const CVEKHttpServerStream& stream) {
    const VEK_ST_HTTP_RESPONSE& response = stream.response_;
    if (stream.request_.method_ == "HEAD" || response.status_ == STATUS_NO_CONTENT ||
        response.status_ == STATUS_NOT_MODIFIED) {
        return false;
    }
    return response.body_.IsProduced() || response.body_.GetSize() > 0 ||
           !response.trailers_.IsEmpty();
}

// The code of a reset by which the engine has answered a fault of the peer.
bool IsOffence(uint32_t code) {
    return code == NGHTTP2_PROTOCOL_ERROR || code == NGHTTP2_FLOW_CONTROL_ERROR ||
           code == NGHTTP2_STREAM_CLOSED;
}

}  // namespace

CVEKHttpServerConnection::CVEKHttpServerConnection(CVEKHttpServerShard& shard, uint64_t number,
                                                   std::string peer, std::string address)
    : CVEKHttpConnection(*shard.GetLoop(), number, std::move(peer),
                         shard.GetServer().GetOptions().settings_,
                         shard.GetServer().GetOptions().streams_, true),
      shard_(shard),
      options_(shard.GetServer().GetOptions()),
      address_(std::move(address)) {}

void CVEKHttpServerConnection::Accept(int fd, SSL_CTX* ctx) {
    isInSetup_ = true;
    link_.GetTransport().SetFD(fd, nullptr, 0);  // the connection's from now on
    Guard([=] { BeginAccept(fd, ctx); });
}

void CVEKHttpServerConnection::BeginAccept(int fd, SSL_CTX* ctx) {
    VEK_ST_HTTP2_SETUP_LIMITS limits;
    limits.handshake_ = limits.firstBytes_ = limits.upgrade_ =
        VEK_HTTP_SETUP_TIME(options_.handshakeTime_);
    StartCapture(options_.captureDirectory_, options_.capture_, ctx != nullptr);
    CVEKHttp2Setup& setup = BeginSetup(limits);
    static_cast<void>(ctx != nullptr ? setup.StartAccepted(fd, ctx) : setup.StartDetect(fd));
    StepSetup();  // finds out when that has failed
}

bool CVEKHttpServerConnection::OnTransport(CVEKHttp2Setup& setup) {
    if (setup.IsUpgradeExpected()) {
        setup.StartServerUpgrade();
    }
    return true;
}

void CVEKHttpServerConnection::OnUp(const CVEKHttp2Setup& setup) {
    NoteSetupOver();
    ++shard_.GetCounters().up;
    NoteIdle();
    if (options_.observer_.onUp_) {
        options_.observer_.onUp_(Describe());
    }
    const CVEKHttp2ServerUpgrade* upgrade = setup.GetServerUpgrade();
    if (upgrade != nullptr && (upgrade->IsRequest() || options_.isUpgradeRequestTaken_)) {
        TakeUpgrade(*upgrade);
    }
}

void CVEKHttpServerConnection::NoteIdle() {
    idleSince_ = core_.GetNow();
    if (options_.idleTime_.count() > 0) {
        ArmBy(idleSince_ + VEK_HTTP_MS(options_.idleTime_));
    }
}

void CVEKHttpServerConnection::NoteSetupOver() {
    if (isInSetup_) {
        isInSetup_ = false;
        shard_.EndSetup(setupPlace_);
    }
}

// The HTTP/1.1 request becomes stream 1 (RFC 7540, section 3.2).
void CVEKHttpServerConnection::TakeUpgrade(const CVEKHttp2ServerUpgrade& upgrade) {
    CVEKHttpServerStream& stream = BeginStream(1);
    for (const auto& [name, value] : upgrade.GetHeaders()) {
        if (!VEK_HTTP_IS_OF_CONNECTION(name)) {
            PutField(stream, name, value, false);
        }
    }
    EndHead(stream);
    if (!stream.isAnswered_ && !upgrade.GetBody().empty()) {
        OnData(stream, upgrade.GetBody());
    }
    EndRequest(stream);
}

CVEKHttpServerStream& CVEKHttpServerConnection::BeginStream(int32_t id) {
    CVEKHttpServerStream& stream = shard_.AcquireStream();
    Attach(stream, id);
    link_.SetStreamData(id, static_cast<CVEKHttpStream*>(&stream));
    stream.times_.begun_ = GetPassTime();
    ++shard_.GetCounters().requests;
    ++shard_.GetCounters().streams;
    ArmForProgress();
    return stream;
}

void CVEKHttpServerConnection::ArmForProgress() {
    if (options_.progressTime_.count() > 0) {
        ArmBy(core_.GetNow() + VEK_HTTP_MS(options_.progressTime_));
    }
}

int CVEKHttpServerConnection::OnHead(const nghttp2_frame* frame) {
    if (frame->hd.type != NGHTTP2_HEADERS || frame->headers.cat != NGHTTP2_HCAT_REQUEST) {
        return 0;
    }
    if (options_.unreadBytes_ > 0 && heldBytes_ > options_.unreadBytes_) {
        ++shard_.GetCounters().refused;
        link_.SubmitReset(frame->hd.stream_id, NGHTTP2_REFUSED_STREAM);
        return 0;
    }
    BeginStream(frame->hd.stream_id);
    return 0;
}

int CVEKHttpServerConnection::OnField(CVEKHttpStream& stream, std::string_view name,
                                      std::string_view value) {
    PutField(StreamOf(stream), name, value, link_.GetBlock() == VEK_HTTP2_BLOCK_TRAILERS);
    return 0;
}

void CVEKHttpServerConnection::PutField(CVEKHttpServerStream& stream, std::string_view name,
                                        std::string_view value, bool isTrailer) {
    VEK_ST_HTTP_REQUEST& request = stream.request_;
    if (isTrailer) {
        request.trailers_.Add(name, value);
    } else if (name.empty() || name[0] != ':') {
        request.fields_.Add(name, value);
    } else if (name == ":method") {
        request.method_ = value;
    } else if (name == ":path") {
        request.path_ = value;
    } else if (name == ":authority") {
        request.authority_ = value;
    } else if (name == ":scheme") {
        request.scheme_ = value;
    }
}

int CVEKHttpServerConnection::OnFieldOverflow(CVEKHttpStream& stream) {
    if (link_.GetBlock() == VEK_HTTP2_BLOCK_TRAILERS) {
        RefuseSize(StreamOf(stream), STATUS_FIELDS_TOO_LARGE);
    } else {
        StreamOf(stream).isTooLarge_ = true;  // answered when the block has ended
    }
    return CheckRate(resets_, options_.resets_, "too many header fields over the limit");
}

int CVEKHttpServerConnection::OnFrame(const nghttp2_frame* frame) {
    const bool isEnd = (frame->hd.flags & NGHTTP2_FLAG_END_STREAM) != 0;
    const bool isAck = (frame->hd.flags & NGHTTP2_FLAG_ACK) != 0;
    switch (frame->hd.type) {
        case NGHTTP2_HEADERS:
        case NGHTTP2_DATA: {
            if (frame->hd.type == NGHTTP2_DATA && frame->hd.length == frame->data.padlen &&
                !isEnd) {
                return CheckRate(controls_, options_.controls_,
                                 "too many DATA frames without bytes");
            }
            CVEKHttpStream* stream = Find(frame->hd.stream_id);
            if (stream == nullptr) {
                return 0;
            }
            if (frame->hd.type == NGHTTP2_HEADERS && frame->headers.cat == NGHTTP2_HCAT_REQUEST) {
                StreamOf(*stream).isComplete_ = isEnd;
                EndHead(StreamOf(*stream));
            }
            if (isEnd) {
                EndRequest(StreamOf(*stream));
            }
            return 0;
        }
        case NGHTTP2_RST_STREAM:
            NoteReset(frame->hd.stream_id);
            return CheckRate(resets_, options_.resets_, "too many resets");
        case NGHTTP2_PING:
        case NGHTTP2_SETTINGS:
            return isAck ? 0
                         : CheckRate(controls_, options_.controls_,
                                     "too many PING or SETTINGS frames");
        case NGHTTP2_PRIORITY:
            return CheckRate(controls_, options_.controls_, "too many PRIORITY frames");
        default:
            return 0;
    }
}

void CVEKHttpServerConnection::NoteReset(int32_t id) {
    CVEKHttpStream* stream = Find(id);
    if (stream != nullptr && !StreamOf(*stream).isSent_) {
        ++shard_.GetCounters().reset;
    }
}

bool CVEKHttpServerConnection::Rate::IsOver(uint64_t now, unsigned limit) {
    if (now - since >= RATE_PERIOD_MS) {
        since = now;
        count = 0;
    }
    return limit > 0 && ++count > limit;
}

// Returns what ends the engine's work at once where it is too much.
int CVEKHttpServerConnection::CheckRate(Rate& rate, unsigned limit, const char* text) {
    if (!rate.IsOver(core_.GetNow(), limit)) {
        return 0;
    }
    Fail(VEK_HTTP_REASON::ABUSE, text, NGHTTP2_ENHANCE_YOUR_CALM);
    return NGHTTP2_ERR_CALLBACK_FAILURE;
}

void CVEKHttpServerConnection::EndHead(CVEKHttpServerStream& stream) {
    VEK_ST_HTTP_REQUEST& request = stream.request_;
    if (request.authority_.empty()) {
        request.authority_ = request.fields_.Find("host").value_or("");
    }
    stream.isBegun_ = true;
    if (options_.observer_.onBegin_) {
        VEK_ST_HTTP_EXCHANGE exchange;
        exchange.connection_ = GetNumber();
        exchange.stream_ = stream.GetId();
        exchange.request_ = &request;
        exchange.times_ = stream.times_;
        options_.observer_.onBegin_(exchange);
    }
    if (stream.isTooLarge_) {
        RefuseSize(stream, STATUS_FIELDS_TOO_LARGE);
        return;
    }
    if (shard_.GetServer().headHandler_) {
        OfferHead(stream);
    }
    if (!stream.isComplete_ && !stream.isAnswered_ && request.fields_.Find("expect")) {
        Inform(stream, STATUS_CONTINUE, {});
    }
}

void CVEKHttpServerConnection::OfferHead(CVEKHttpServerStream& stream) {
    CVEKHttpResponder responder = shard_.MakeResponder(stream);
    stream.isAnswerAsked_ = true;
    std::optional<VEK_ST_HTTP_RECEIVER> receiver;
    try {
        receiver = shard_.GetServer().headHandler_(stream.request_, responder);
    } catch (const std::bad_alloc&) {
        responder.Release();
        throw;
    } catch (...) {
        return;  // with the responder's 500
    }
    if (receiver) {
        stream.receiver_ = std::move(*receiver);
    } else if (responder.IsEmpty() || stream.isAnswered_) {
        stream.isDiscarded_ = true;
    } else {
        stream.isAnswerAsked_ = false;
        responder.Release();
    }
}

int CVEKHttpServerConnection::OnData(CVEKHttpStream& base, std::string_view data) {
    CVEKHttpServerStream& stream = StreamOf(base);
    if (stream.receiver_.onPiece_ && !stream.isDiscarded_) {
        Hold(stream, data.size());  // which Consume may release meanwhile
        if (stream.receiver_.onPiece_(data)) {
            Consume(stream, data.size());
        }
        return 0;
    }
    link_.Consume(stream.GetId(), data.size());
    if (stream.isDiscarded_ || stream.isAnswered_) {
        return 0;
    }
    std::string& body = stream.request_.body_.EditText();
    if (body.size() + data.size() > options_.settings_.bodyBytes_) {
        RefuseSize(stream, STATUS_TOO_LARGE);
        return 0;
    }
    body.append(data);
    return 0;
}

void CVEKHttpServerConnection::EndRequest(CVEKHttpServerStream& stream) {
    stream.isComplete_ = true;
    EndReceiver(stream, {});
    if (stream.isAnswered_ || stream.isAnswerAsked_) {
        return;
    }
    stream.isAnswerAsked_ = true;
    CVEKHttpResponder responder = shard_.MakeResponder(stream);
    const CVEKHttpServer::Handler& handler = shard_.GetServer().handler_;
    if (!handler) {
        VEK_ST_HTTP_RESPONSE response;
        response.status_ = 404;
        responder.Send(std::move(response));
        return;
    }
    try {
        handler(stream.request_, std::move(responder));
    } catch (const std::bad_alloc&) {
        throw;  // ends the connection
    } catch (...) {
        return;  // the responder's end has answered 500
    }
}

void CVEKHttpServerConnection::EndReceiver(CVEKHttpServerStream& stream,
                                           const VEK_ST_HTTP_FAILURE& failure) {
    const VEK_ST_HTTP_RECEIVER receiver = std::exchange(stream.receiver_, {});
    if (receiver.onEnd_) {
        Tell([&] { receiver.onEnd_(stream.request_.trailers_, failure); });
    }
}

// The request is over a limit: it is answered, or given up where its answer is under way.
void CVEKHttpServerConnection::RefuseSize(CVEKHttpServerStream& stream, int status) {
    ++shard_.GetCounters().refused;
    VEK_ST_HTTP_RESPONSE response;
    response.status_ = status;
    stream.isAnswerAsked_ = true;
    stream.isDiscarded_ = true;
    if (!Answer(stream, std::move(response))) {
        Reset(stream, NGHTTP2_ENHANCE_YOUR_CALM);
    }
    VEK_ST_HTTP_FAILURE failure;
    failure.reason_ = VEK_HTTP_REASON::TOO_LARGE;
    Tell([&] { failure.text_ = "the request is over the limit"; });
    EndReceiver(stream, failure);
}

bool CVEKHttpServerConnection::Answer(CVEKHttpServerStream& stream,
                                      VEK_ST_HTTP_RESPONSE&& response) {
    if (stream.isAnswered_) {
        return false;
    }
    stream.isAnswered_ = true;
    stream.onGone_ = nullptr;
    stream.times_.sent_ = GetPassTime();
    stream.response_ = std::move(response);
    try {
        int result = SubmitAnswer(stream);
        if (result == NGHTTP2_ERR_INVALID_ARGUMENT) {
            stream.response_ = VEK_ST_HTTP_RESPONSE();
            stream.response_.status_ = VEK_HTTP_STATUS_ERROR;
            result = SubmitAnswer(stream);
        }
        CheckMemory(result);
        NoteProgress(stream);
        ArmForProgress();
    } catch (const std::bad_alloc&) {
        FailMemory();
    }
    Wake();
    return true;
}

int CVEKHttpServerConnection::SubmitAnswer(CVEKHttpServerStream& stream) {
    VEK_ST_HTTP_RESPONSE& response = stream.response_;
    const int status = response.status_;
    if (status < LEAST_STATUS || status > MOST_STATUS ||
        VEK_HTTP_FIND_FAULT(response.fields_) != nullptr ||
        VEK_HTTP_FIND_FAULT(response.trailers_) != nullptr) {
        return NGHTTP2_ERR_INVALID_ARGUMENT;
    }
    constexpr int DECIMAL = 10;
    stream.status_[0] = static_cast<char>('0' + status / (DECIMAL * DECIMAL));
    stream.status_[1] = static_cast<char>('0' + status / DECIMAL % DECIMAL);
    stream.status_[2] = static_cast<char>('0' + status % DECIMAL);
    std::vector<nghttp2_nv>& fields = shard_.GetFields();
    fields.clear();
    fields.push_back(VEK_HTTP2_FIELD(":status", {stream.status_, 3}));
    for (const CVEKHttpFields::Field& field : response.fields_) {
        fields.push_back(VEK_HTTP2_FIELD(field.first, field.second));
    }
    const bool hasBody = HasBody(stream);
    if (hasBody) {
        stream.SetBody(response.body_, response.trailers_);
        stream.heldBytes_ = response.body_.IsShared() ? 0 : response.body_.GetSize();
        heldBytes_ += stream.heldBytes_;
    }
    return link_.SubmitResponse(stream.GetId(), fields.data(), fields.size(),
                                hasBody ? static_cast<CVEKHttp2Source*>(&stream) : nullptr);
}

void CVEKHttpServerConnection::Inform(CVEKHttpServerStream& stream, int status,
                                      const CVEKHttpFields& list) {
    if (stream.isAnswered_ || status < STATUS_CONTINUE || status == STATUS_SWITCHING ||
        status >= LEAST_STATUS || VEK_HTTP_FIND_FAULT(list) != nullptr) {
        return;
    }
    try {
        CheckMemory(SubmitInformational(stream, status, list));
    } catch (const std::bad_alloc&) {
        FailMemory();
    }
    Wake();
}

int CVEKHttpServerConnection::SubmitInformational(const CVEKHttpServerStream& stream, int status,
                                                  const CVEKHttpFields& list) {
    const std::string text = std::to_string(status);
    std::vector<nghttp2_nv>& fields = shard_.GetFields();
    fields.clear();
    fields.push_back(VEK_HTTP2_FIELD(":status", text));
    for (const CVEKHttpFields::Field& field : list) {
        fields.push_back(VEK_HTTP2_FIELD(field.first, field.second));
    }
    for (nghttp2_nv& field : fields) {
        field.flags = NGHTTP2_NV_FLAG_NONE;  // the texts do not stay: the engine copies them
    }
    return link_.SubmitInformational(stream.GetId(), fields.data(), fields.size());
}

void CVEKHttpServerConnection::Reset(CVEKHttpServerStream& stream, uint32_t code) {
    stream.isGivenUp_ = stream.isGivenUp_ || !stream.isAnswered_;
    stream.isAnswered_ = true;
    stream.onGone_ = nullptr;
    stream.isDiscarded_ = true;
    CheckMemory(link_.SubmitReset(stream.GetId(), code));
    Wake();
}

int CVEKHttpServerConnection::OnSent(const nghttp2_frame* frame) {
    const bool isEnd = (frame->hd.flags & NGHTTP2_FLAG_END_STREAM) != 0;
    if (frame->hd.type == NGHTTP2_RST_STREAM && IsOffence(frame->rst_stream.error_code)) {
        static_cast<void>(CheckRate(resets_, options_.resets_, "too many faults"));
        return 0;  // the flush goes on, and the connection ends behind it
    }
    if (!isEnd || (frame->hd.type != NGHTTP2_DATA && frame->hd.type != NGHTTP2_HEADERS)) {
        return 0;
    }
    CVEKHttpStream* stream = Find(frame->hd.stream_id);
    if (stream != nullptr) {
        StreamOf(*stream).isSent_ = true;
        if (!StreamOf(*stream).isComplete_) {  // the rest of the request is of no use any more
            link_.SubmitReset(frame->hd.stream_id, NGHTTP2_NO_ERROR);
        }
    }
    return 0;
}

void CVEKHttpServerConnection::OnStreamEnd(CVEKHttpStream& base, uint32_t code,
                                           const VEK_ST_HTTP_FAILURE* failure) {
    CVEKHttpServerStream& stream = StreamOf(base);
    heldBytes_ -= stream.heldBytes_;
    VEK_ST_HTTP_FAILURE reason;
    if (!stream.isSent_) {
        reason.reason_ = failure != nullptr ? failure->reason_ : VEK_HTTP_REASON::RESET;
        reason.code_ = code;
        Tell([&] {
            reason.text_ = failure != nullptr ? failure->text_ : nghttp2_http2_strerror(code);
        });
    }
    CVEKHttpServerShard::Counters& counters = shard_.GetCounters();
    ++(stream.isSent_ ? counters.answered : counters.failed);
    --counters.streams;
    const std::function<void()> onGone = std::exchange(stream.onGone_, nullptr);
    if (onGone) {
        onGone();
    }
    if (!stream.isComplete_ || reason) {
        EndReceiver(stream, reason);
    }
    if (options_.observer_.onEnd_ && stream.isBegun_) {
        VEK_ST_HTTP_EXCHANGE exchange;
        exchange.connection_ = GetNumber();
        exchange.stream_ = stream.GetId();
        exchange.request_ = &stream.request_;
        exchange.response_ = stream.isAnswered_ && !stream.isGivenUp_ ? &stream.response_ : nullptr;
        exchange.times_ = stream.times_;
        exchange.times_.ended_ = std::chrono::steady_clock::now();
        exchange.failure_ = std::move(reason);
        Tell([&] { options_.observer_.onEnd_(exchange); });
    }
    shard_.ReleaseStream(stream);
    if (GetStreams() == 0) {
        NoteIdle();
    }
}

// The server has done its part for now: the request is still to come on, or the answer to be taken.
bool CVEKHttpServerConnection::IsPeersTurn(const CVEKHttpServerStream& stream) const {
    if (stream.isAnswered_) {
        return !stream.IsWaiting();
    }
    return !stream.isComplete_ && !IsHeld(stream);
}

uint64_t CVEKHttpServerConnection::CheckDeadlines(uint64_t now) {
    uint64_t next = UINT64_MAX;
    // Calls `expire` where `limit` has passed since `since`, else notes when that will be.
    const auto check = [&](uint64_t since, uint64_t limit, auto expire) {
        if (limit > 0 && now >= since + limit) {
            expire();
        } else if (limit > 0) {
            next = std::min(next, since + limit);
        }
    };
    if (drainTime_ != 0) {
        check(drainTime_, NOTICE_MS, [this] { Drain(false); });
    }
    if (GetStreams() == 0) {
        check(idleSince_, VEK_HTTP_MS(options_.idleTime_),
              [this] { Fail(VEK_HTTP_REASON::IDLE, "idle for too long"); });
    }
    const uint64_t progressMs = VEK_HTTP_MS(options_.progressTime_);
    if (GetBlockedSince() != 0) {
        check(GetBlockedSince(), progressMs, [this] {
            ++shard_.GetCounters().abused;
            Fail(VEK_HTTP_REASON::TIMEOUT, "the peer does not read");
        });
    }
    ForEach([&](CVEKHttpStream& stream) {
        if (IsPeersTurn(StreamOf(stream))) {
            check(GetProgressTime(stream), progressMs, [&] {
                NoteProgress(stream);
                Reset(StreamOf(stream), NGHTTP2_CANCEL);
            });
        } else if (progressMs > 0) {
            next = std::min(next, now + progressMs);
        }
    });
    return next;
}

void CVEKHttpServerConnection::BeginDrain() {
    drainTime_ = core_.GetNow();
    Drain(true);
    ArmBy(drainTime_ + NOTICE_MS);
}

void CVEKHttpServerConnection::OnDown(const VEK_ST_HTTP_FAILURE& failure) {
    NoteSetupOver();
    if (failure.reason_ == VEK_HTTP_REASON::ABUSE) {
        ++shard_.GetCounters().abused;
    }
    if (options_.observer_.onDown_) {
        Tell([&] { options_.observer_.onDown_(Describe(), failure); });
    }
    shard_.NoteDown(*this, address_);
}
