#include "CVEKHttp2Request.h"

#include <netinet/in.h>

#include <chrono>
#include <cstring>
#include <new>

#include "CVEKHttp2Link.h"
#include "CVEKHttp2LinkHandler.h"
#include "CVEKHttp2RequestRecords.h"
#include "CVEKHttp2Setup.h"
#include "VEKHttp2Clock.h"
#include "VEKHttp2Field.h"
#include "VEKHttp2Log.h"
#include "VEKLogText.h"
#include "VEKServiceLog.h"
#include "VEKSocketWait.h"
#include "VEKText.h"

namespace {

using AddressList = std::unique_ptr<addrinfo, decltype(&freeaddrinfo)>;

constexpr int CONNECT_RETRY = 10;
// Client stream ids are odd and end at 2^31 - 1 (RFC 9113, section 5.1.1).
constexpr int MAX_REQUEST_COUNT = 1 << 30;

constexpr int PORT_HTTP = 80;
constexpr int PORT_BARE_AUTHORITY = 433;  // 433, not 443: meant

const char* GetCauseText(int cause) {
    switch (cause) {
        case VEK_HTTP2_CONN_CLOSE_CAUSE_NONE:
            return "none";
        case VEK_HTTP2_CONN_CLOSE_CAUSE_SELF:
            return "normal";
        case VEK_HTTP2_CONN_CLOSE_CAUSE_PEER:
            return "by peer";
        case VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR:
            return "transport error";
        case VEK_HTTP2_CONN_CLOSE_CAUSE_TIMEOUT:
            return "timeout";
        case VEK_HTTP2_CONN_CLOSE_CAUSE_STREAM_FULL:
            return "stream full";
        case VEK_HTTP2_CONN_CLOSE_CAUSE_PING_TIMEOUT:
            return "ping timeout";
        case VEK_HTTP2_CONN_CLOSE_CAUSE_EVENT_ERROR:
            return "event error";
        case VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR:
            return "internal error";
        default:
            return "already closed";
    }
}

}  // namespace

// The way back from the link.
class CVEKHttp2Request::Handler : public CVEKHttp2LinkHandler {
  public:
    explicit Handler(CVEKHttp2Request& connection) : conn_(connection) {}

    bool OnTransportReady(CVEKHttp2Setup& setup) override { return conn_.OnTransportReady(setup); }
    bool OnSetupDone(const CVEKHttp2Setup& setup) override {
        const CVEKHttp2ClientUpgrade* upgrade = setup.GetClientUpgrade();
        return upgrade == nullptr
                   ? conn_.OpenSession(nullptr, 0)
                   : conn_.OpenSession(upgrade->GetPayload(), upgrade->GetPayloadSize());
    }
    void OnStateChange() override {
        const bool isOver =
            conn_.link_->IsDraining() || conn_.link_->GetState() == VEK_HTTP2_CONN_STATE_CLOSE;
        if (isOver && conn_.link_->GetPolicy().isGoawayGraceful_) {
            conn_.records_->GetRequests().Expire();  // what is queued is delivered: no more comes
        }
        conn_.records_->GetRequests().Wake();
    }
    void OnTrim() override { conn_.records_->Trim(); }
    bool HasDataToSend() const override {
        const auto isSent = [this](int stream) { return conn_.link_->GetLocalClose(stream) != 0; };
        return !isSent(conn_.sync_stream_id_) || !conn_.records_->ForEachStream(isSent);
    }
    bool IsDone() const override {
        return conn_.sync_stream_id_ == 0 && !conn_.records_->HasRequests() &&
               !conn_.records_->GetRequests().HasQueued();
    }

    int OnFrameRecv(const nghttp2_frame* frame) override {
        return Judge(conn_.OnFrameRecv(frame) == 0);
    }
    int OnFrameSend(const nghttp2_frame* frame) override {
        conn_.OnFrameSend(frame);
        return 0;
    }
    // A response that is still awaited will not come: the stream has ended for an offence.
    int OnStreamClose(int32_t stream, uint32_t error) override {
        conn_.CloseRecv(stream);
        const bool isLost =
            error != 0 && conn_.link_->GetPolicy().isOffenceContained_ && conn_.IsAwaited(stream);
        return Judge(!isLost || conn_.records_->CompleteReset(stream, static_cast<int>(error)));
    }
    // By default only the first HEADERS of a response counts, which may be an informational one;
    // the engine files later ones (the final response behind it, trailers) under another category:
    // meant.
    int OnBeginHeaders(const nghttp2_frame* frame) override {
        conn_.records_->GetPushed().clear();
        return Judge(!conn_.IsResponseHeaders(frame) || conn_.InsertRecv(frame->hd.stream_id));
    }
    int OnHeader(const nghttp2_frame* frame, std::string_view name,
                 std::string_view value) override {
        return Judge(conn_.TakeField(frame, name, value));
    }
    // The response is delivered with the fields that came before.
    int OnHeaderOverflow(const nghttp2_frame* frame, bool isFirst) override {
        if (isFirst) {
            VEK_PEER_LOG(VEK_LOG_WARNING, "conn(%s) stream(%d) header list too large!...ignore!",
                         conn_.GetName(), frame->hd.stream_id);
        }
        return 0;
    }
    int OnDataChunkRecv(int32_t stream, const char* data, size_t length) override {
        return Judge(conn_.link_->IsReleased(stream) ||
                     conn_.UpdatePayloadRecv(stream, data, length));
    }
    int OnInvalidFrameRecv(const nghttp2_frame* /*frame*/, int error) override {
        if (conn_.link_->GetPolicy().isOffenceContained_) {
            return 0;  // the engine resets the stream, or says GOAWAY
        }
        conn_.link_->NoteOffence(error, nghttp2_strerror(error));
        conn_.SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/2 invalid frame recv callback-%s",
                        nghttp2_strerror(error));
        return NGHTTP2_ERR_CALLBACK_FAILURE;
    }
    int OnError(int error, std::string_view text) override {
        if (conn_.link_->GetPolicy().isOffenceContained_) {
            VEK_PEER_LOG(VEK_LOG_WARNING, "conn(%s) %s", conn_.GetName(),
                         VEK_ESCAPE_TEXT(text).c_str());
            return 0;
        }
        conn_.link_->NoteOffence(error, text);
        conn_.SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/2 error callback-%s", VEK_ESCAPE_TEXT(text).c_str());
        return NGHTTP2_ERR_CALLBACK_FAILURE;
    }
    int OnFrameNotSend(const nghttp2_frame* frame, int error) override {
        const bool isRequest =
            frame->hd.type == NGHTTP2_HEADERS && frame->headers.cat == NGHTTP2_HCAT_REQUEST;
        // A closing stream was cancelled by us before its request could leave.
        if (!isRequest || error == NGHTTP2_ERR_STREAM_CLOSING) {
            return 0;
        }
        if (conn_.link_->IsDraining()) {
            return Judge(conn_.FailUnprocessed(frame->hd.stream_id, 0));
        }
        if (conn_.link_->GetPolicy().isOffenceContained_) {
            // The engine closes the stream as refused by the peer, which never hears of it.
            const int32_t stream = frame->hd.stream_id;
            return Judge(!conn_.IsAwaited(stream) ||
                         conn_.records_->CompleteReset(stream, NGHTTP2_INTERNAL_ERROR));
        }
        conn_.link_->Note(VEK_HTTP2_FAILURE_INTERNAL, nghttp2_strerror(error));
        conn_.SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/2 not send callback-%s", nghttp2_strerror(error));
        return NGHTTP2_ERR_CALLBACK_FAILURE;
    }

  private:
    int Judge(bool isGood) {
        if (!isGood) {
            conn_.link_->Note(VEK_HTTP2_FAILURE_OWN_LIMIT, "no record for a response");
        }
        return isGood ? 0 : NGHTTP2_ERR_CALLBACK_FAILURE;
    }

    CVEKHttp2Request& conn_;
};

CVEKHttp2Request::CVEKHttp2Request()
    : name_("undefined"),
      port_(0),
      ssl_ctx_(nullptr),
      isInitialized_(false),
      isUpgrade_(false),
      isUpgradeAwaited_(false),
      isEvent_(false),
      total_request_count_(0),
      informationalCount_(0),
      sync_stream_id_(0),
      records_(std::make_unique<CVEKHttp2RequestRecords>(name_)),
      handler_(std::make_unique<Handler>(*this)),
      link_(std::make_unique<CVEKHttp2Link>(*handler_, name_)) {}

CVEKHttp2Request::~CVEKHttp2Request() {
    Disconnect();
}

bool CVEKHttp2Request::Initialize(const char* name, const VEK_ST_HTTP2_OPTIONS* options) {
    if (name_ != "undefined" || isInitialized_) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) alreay initialized...", name_.c_str());
        return false;
    }
    try {
        name_ = name;
    } catch (const std::bad_alloc&) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%%) memory allocate failed...");  // no name: meant
        return false;
    }
    VEK_ST_HTTP2_OPTIONS effective = *options;
    VEK_HTTP2_SET_DEFAULTS(effective);
    effective.nPushEnable_ = effective.nPushEnable_ != 0 ? 1 : 0;
    link_->SetOptions(effective);
    records_->SetLimits(effective);
    isInitialized_ = true;
    return true;
}

bool CVEKHttp2Request::Initialize(const char* name,
                                  const uint32_t (&slots)[VEK_HTTP2_OPTION_COUNT]) {
    const VEK_ST_HTTP2_OPTIONS options = VEK_HTTP2_OPTION_RECORD(slots);
    return Initialize(name, &options);
}

bool CVEKHttp2Request::SetPeerName(const char* name) {
    try {
        peerName_ = name == nullptr ? "" : name;
    } catch (const std::bad_alloc&) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) memory allocate failed...", name_.c_str());
        return false;
    }
    return true;
}

void CVEKHttp2Request::SetPolicy(const VEK_ST_HTTP2_POLICY& policy) {
    link_->SetPolicy(policy);
    records_->KeepStatus(policy.isStatusKept_);
}

bool CVEKHttp2Request::Connect(const char* host, int port, SSL_CTX* ctx, bool isEvent) {
    return SetTarget(host, port, ctx, false) && Connect(host, isEvent);
}

bool CVEKHttp2Request::Connect(const char* host, int port, bool isEvent) {
    return SetTarget(host, port, nullptr, true) && Connect(host, isEvent);
}

bool CVEKHttp2Request::SetTarget(const char* host, int port, SSL_CTX* ctx, bool isUpgrade) {
    port_ = port;
    ssl_ctx_ = ctx;
    isUpgrade_ = isUpgrade;
    try {
        host_ = host;
    } catch (const std::bad_alloc&) {
        link_->Note(VEK_HTTP2_FAILURE_MEMORY);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) memory allocate failed...", name_.c_str());
        return false;
    }
    return true;
}

bool CVEKHttp2Request::Connect(const char* host, bool isEvent) {
    try {
        const bool isUp = ConnectSocket(host, isEvent);
        if (!isUp) {
            link_->Note(VEK_HTTP2_FAILURE_INTERNAL, "session cannot be set up");  // if nothing else
        }
        return isUp;
    } catch (const std::bad_alloc&) {
        link_->Note(VEK_HTTP2_FAILURE_MEMORY);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) memory allocate failed...", name_.c_str());
        return false;
    }
}

bool CVEKHttp2Request::ConnectSocket(const char* host, bool isEvent) {
    BeginConnect(isEvent);
    if (!OpenSocket()) {
        return false;
    }
    if (!isEvent && !InitInternalEvent()) {
        return false;
    }
    SetVirtualHeader();
    return InitHttp2Session(host);
}

// Connects, and shakes hands where TLS is to be used.
bool CVEKHttp2Request::OpenSocket() {
    CVEKHttp2Setup setup(link_->GetTransport(), name_.c_str());
    link_->LimitSetup(setup);
    VEK_ST_SOCKET_FAILURE failure;
    bool isStarted = false;
    if (link_->GetPolicy().connectMs_ != 0) {
        const auto start = std::chrono::steady_clock::now();
        const AddressList list(
            CVEKSocketNew::RESOLVE(IPPROTO_TCP, host_.c_str(), port_, &failure.resolverError_),
            freeaddrinfo);
        times_.nameUs_ = VEK_MICROS_SINCE(start);
        isStarted = list != nullptr && SetPeer(setup) && setup.StartConnect(list.get(), ssl_ctx_);
    } else {
        const int fd = CVEKSocketNew::CONNECT(IPPROTO_TCP, host_.c_str(), port_, CONNECT_RETRY,
                                              times_, &failure);
        link_->Open(fd);
        isStarted = fd >= 0 && SetPeer(setup) && setup.StartConnected(fd, ssl_ctx_);
    }
    const bool isOpen = isStarted && setup.RunTransport();
    if (link_->GetPolicy().connectMs_ != 0) {
        link_->Open(link_->GetTransport().GetSocket());
        times_.tcpUs_ = setup.GetTimes().tcpUs_;
    }
    times_.tlsUs_ = setup.GetTimes().tlsUs_;
    if (failure.resolverError_ != 0 || failure.errno_ != 0) {
        VEK_ST_HTTP2_ERROR error;
        error.failure_ =
            failure.resolverError_ != 0 ? VEK_HTTP2_FAILURE_RESOLVE : VEK_HTTP2_FAILURE_CONNECT;
        error.resolverError_ = failure.resolverError_;
        error.errno_ = failure.errno_;
        link_->Note(error);
    } else if (!isOpen) {
        link_->NoteSetup(setup);
    }
    return isOpen;
}

void CVEKHttp2Request::BeginConnect(bool isEvent) {
    if (link_->IsSettingUp() || link_->HasSession() || link_->HasSocket() || link_->HasEvent()) {
        Disconnect();  // what an earlier Connect has left open, and what was queued for it
    }
    SetState(VEK_HTTP2_CONN_STATE_INIT, VEK_HTTP2_CONN_CLOSE_CAUSE_NONE);
    isEvent_ = isEvent;
    times_ = {};
}

bool CVEKHttp2Request::SetPeer(CVEKHttp2Setup& setup) const {
    return ssl_ctx_ == nullptr || setup.SetPeer(peerName_.c_str(), host_.c_str(), port_);
}

bool CVEKHttp2Request::StartConnect(const addrinfo* addresses, const char* host, int port,
                                    SSL_CTX* ctx, bool isEvent) {
    return SetTarget(host, port, ctx, false) && BeginSteps(addresses, isEvent);
}

bool CVEKHttp2Request::StartConnect(const addrinfo* addresses, const char* host, int port,
                                    bool isEvent) {
    return SetTarget(host, port, nullptr, true) && BeginSteps(addresses, isEvent);
}

bool CVEKHttp2Request::BeginSteps(const addrinfo* addresses, bool isEvent) {
    BeginConnect(isEvent);
    CVEKHttp2Setup* setup = link_->BeginSetup();
    const bool isStarted =
        setup != nullptr && SetPeer(*setup) && setup->StartConnect(addresses, ssl_ctx_);
    link_->Open(link_->GetTransport().GetSocket());
    if (setup != nullptr && !isStarted) {
        link_->NoteSetup(*setup);
    }
    if (!isStarted) {
        link_->CancelSetup();
    }
    return isStarted;
}

bool CVEKHttp2Request::OnTransportReady(CVEKHttp2Setup& setup) {
    if (!isEvent_ && !InitInternalEvent()) {
        return false;
    }
    times_ = setup.GetTimes();
    SetVirtualHeader();
    LogSession();
    return !isUpgrade_ || setup.StartClientUpgrade(host_.c_str(), link_->GetOptions());
}

int CVEKHttp2Request::Advance() {
    return link_->Advance();
}

short CVEKHttp2Request::GetWaitEvents() const {
    return link_->GetWaitEvents();
}

std::chrono::steady_clock::time_point CVEKHttp2Request::GetWaitDeadline() const {
    return link_->GetWaitDeadline();
}

bool CVEKHttp2Request::EnableDump(const char* path, const char* name, int maxFileSize,
                                  const char* srcIP, const char* destIP,
                                  const VEK_ST_DUMP_OPTIONS& options) {
    return link_->GetTransport().EnableDump(path, name, maxFileSize, srcIP, destIP, options);
}

void CVEKHttp2Request::DisableDump() {
    link_->GetTransport().DisableDump();
}

void CVEKHttp2Request::Disconnect() {
    link_->CancelSetup();
    CloseSession();
    link_->DeleteSession();
    records_->Reset();
    if (!link_->CloseEvent()) {
        VEK_SYSTEM_CALL_LOG("epoll_ctl() system call error.");
    }
    if (link_->CloseSocket()) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) disconnect...", name_.c_str());
    }
}

int CVEKHttp2Request::GetSocket() const {
    return link_->GetSocket();
}

VEK_ST_TLS_INFO CVEKHttp2Request::GetTlsInfo() const {
    VEK_ST_TLS_INFO info = link_->GetTransport().GetTLSInfo();
    info.times_ = times_;
    return info;
}

const VEK_ST_TLS_FAILURE* CVEKHttp2Request::GetTlsFailure() const {
    return link_->GetTransport().GetTLSFailure();
}

int CVEKHttp2Request::write(const char* buf, size_t len) {
    return link_->GetTransport().Send(buf, len);
}

int CVEKHttp2Request::read(char* buf, size_t len) {
    return link_->GetTransport().Recv(buf, len);
}

int CVEKHttp2Request::read(char* buf, const char* delim, int max) {
    return link_->GetTransport().Recv(buf, delim, max);
}

bool CVEKHttp2Request::Request(VEK_ST_HTTP2_REQUEST* req, VEK_ST_HTTP2_RESPONSE* resp) {
    if (link_->EndDrainWhenDone() || !link_->IsLive() || link_->IsDraining()) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) invalid state!...", name_.c_str());
        return false;
    }
    if (link_->GetPolicy().isRequestChecked_ && !IsSendable(req->path_, req->payload_.size_)) {
        return false;
    }
    resp->messageId_ = req->messageId_;
    if (!SendRequestSync(req)) {
        return false;
    }
    sync_stream_id_ = req->streamId_;
    const int result = RecvResponseSync(resp);
    sync_stream_id_ = 0;
    if (result == VEK_HTTP2_COLLECT_CLOSED || resp->streamId_ != req->streamId_) {
        ReleaseStream(req->streamId_);
    }
    if (result == VEK_HTTP2_COLLECT_CLOSED) {
        return false;
    }
    ++total_request_count_;
    return true;
}

// A response is awaited on the stream. The peer may reset a stream that it has answered in full
// (RFC 9113, section 8.1), and its reset may cross our own: neither is an answer to anything.
bool CVEKHttp2Request::IsAwaited(int stream) const {
    const bool isOutstanding = records_->HasRequest(stream) || stream == sync_stream_id_ ||
                               (isUpgradeAwaited_ && stream == VEK_HTTP2_UPGRADE_STREAM);
    return isOutstanding && !records_->IsComplete(stream);
}

// The engine refers to the request's texts and body until they have left. Where its response has
// come before that, or the caller gives up, the stream is cancelled: the record is about to go.
void CVEKHttp2Request::ReleaseStream(int stream) {
    if (!link_->HasSession()) {
        return;
    }
    constexpr int LOCALLY_CLOSED = 1;
    constexpr int NOT_OPEN = -1;
    const int state = link_->GetLocalClose(stream);
    const bool isOver =
        state == NOT_OPEN && records_->IsComplete(stream);  // else it is yet to be opened
    const bool isEngines = state != LOCALLY_CLOSED && !isOver;
    if (isEngines && link_->CancelStream(stream) == NGHTTP2_ERR_NOMEM) {
        link_->CloseForMemory();
    }
}

int CVEKHttp2Request::Request(VEK_ST_HTTP2_REQUEST* req, bool wait) {
    return RequestCopy(req->messageId_, req->authority_, req->method_, req->path_, req->hdr_,
                       req->payload_.size_, req->payload_.data_, wait);
}

int CVEKHttp2Request::Request(int messageId, const char* authority, const char* method,
                              const char* path, const VEK_HTTP2_HEADER& hdr, size_t size,
                              const char* data, bool wait) {
    return RequestCopy(messageId, authority, method, path, hdr, size, data, wait);
}

int CVEKHttp2Request::RequestCopy(int messageId, const char* authority, const char* method,
                                  const char* path, const VEK_HTTP2_HEADER& hdr, size_t size,
                                  const char* data, bool wait) {
    if (total_request_count_ >= MAX_REQUEST_COUNT) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) stream id full!...", name_.c_str());
        return VEK_HTTP2_REQUEST_STREAM_IDS;
    }
    if (GetState() == VEK_HTTP2_CONN_STATE_CLOSE) {
        return VEK_HTTP2_REQUEST_CLOSED;
    }
    const VEK_ST_HTTP2_POLICY& policy = link_->GetPolicy();
    if (policy.isRequestChecked_ && !IsSendable(path, size)) {
        return VEK_HTTP2_REQUEST_INVALID;
    }
    CVEKHttp2RequestRecords::RequestBox::Lease record;
    const int result = records_->TakeRequest(wait, *link_, record);
    if (result != VEK_HTTP2_TAKE_DONE) {
        return result;
    }
    record->messageId_ = messageId;
    if (!VEK_COPY_TEXT(record->authority_, authority) || !VEK_COPY_TEXT(record->method_, method) ||
        !VEK_COPY_TEXT(record->path_, path)) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) authority, method or path too long!...",
                        name_.c_str());
        return policy.isRequestChecked_ ? VEK_HTTP2_REQUEST_INVALID : VEK_HTTP2_REQUEST_CLOSED;
    }
    try {
        if (record->hdr_ != hdr) {  // a record used again mostly has the fields already
            record->hdr_ = hdr;
        }
    } catch (const std::bad_alloc&) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%%) memory allocate failed...");  // no name: meant
        return VEK_HTTP2_REQUEST_CLOSED;
    }
    record->payload_.size_ = size;  // as given: a body that is too large is refused at submission
    if (size > 0 && size <= link_->GetOptions().nMaxPayloadSize_) {
        memcpy(record->payload_.data_, data, size);
    }
    record->streamId_ = 0;
    record->startT_ = VEK_HTTP2_NOW();
    if (records_->GetRequests().Post(record) != VEK_HTTP2_POST_DONE) {
        return VEK_HTTP2_REQUEST_CLOSED;
    }
    ++total_request_count_;
    return VEK_HTTP2_REQUEST_QUEUED;
}

// The check of the policy, before anything is queued.
bool CVEKHttp2Request::IsSendable(const char* path, size_t size) const {
    const bool isSendable = path[0] == '/' && size <= link_->GetOptions().nMaxPayloadSize_;
    if (!isSendable) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) request with path(%s) size(%zu) refused!...",
                        name_.c_str(), path, size);
    }
    return isSendable;
}

int CVEKHttp2Request::Response(VEK_ST_HTTP2_RESPONSE* resp) {
    if (!link_->IsLive()) {
        return CollectRest(resp);
    }
    int result = Collect(resp);
    if (result == VEK_HTTP2_COLLECT_NONE && !isEvent_) {
        result = RecvResponseAsync(resp);
    }
    return result == VEK_HTTP2_COLLECT_CLOSED && !link_->IsLive() ? CollectRest(resp) : result;
}

// A response that is complete; while the connection finishes after a GOAWAY, also a request that
// cannot leave any more.
int CVEKHttp2Request::Collect(VEK_ST_HTTP2_RESPONSE* resp) {
    if (resp == nullptr) {
        return VEK_HTTP2_COLLECT_NONE;
    }
    const int result = GetResponse(resp);
    return result == VEK_HTTP2_COLLECT_NONE && link_->IsDraining() ? GetUnsent(resp) : result;
}

// What a closed connection still has to deliver.
int CVEKHttp2Request::CollectRest(VEK_ST_HTTP2_RESPONSE* resp) {
    if (resp == nullptr || !link_->GetPolicy().isGoawayGraceful_ || !link_->HasSession()) {
        return VEK_HTTP2_COLLECT_CLOSED;
    }
    const bool isDone =
        GetResponse(resp) == VEK_HTTP2_COLLECT_DONE || GetUnsent(resp) == VEK_HTTP2_COLLECT_DONE;
    return isDone ? VEK_HTTP2_COLLECT_DONE : VEK_HTTP2_COLLECT_CLOSED;
}

int CVEKHttp2Request::GetUnsent(VEK_ST_HTTP2_RESPONSE* resp) {
    auto* record = records_->GetRequests().Next();
    if (record == nullptr) {
        return VEK_HTTP2_COLLECT_NONE;
    }
    resp->messageId_ = record->messageId_;
    resp->streamId_ = 0;
    VEK_COPY_TEXT(resp->rs_, CVEKHttp2RequestRecords::NO_STATUS);
    resp->hdr_.clear();
    resp->trailers_.clear();
    resp->payload_.size_ = 0;
    resp->error_ = VEK_HTTP2_ERROR_UNPROCESSED;
    records_->GetRequests().Return(record);
    return VEK_HTTP2_COLLECT_DONE;
}

// Begins to finish after a GOAWAY, or goes on with it when another one names an earlier stream.
bool CVEKHttp2Request::Drain(int32_t lastStream) {
    link_->StartDrain();
    return (sync_stream_id_ == 0 || FailUnprocessed(sync_stream_id_, lastStream)) &&
           records_->ForEachStream(
               [this, lastStream](int stream) { return FailUnprocessed(stream, lastStream); });
}

// Completes the request of a stream above the last one, or that is yet to be opened. The engine
// closes the former by itself, and must not send the latter.
bool CVEKHttp2Request::FailUnprocessed(int stream, int32_t lastStream) {
    const bool isUnsent = link_->GetLocalClose(stream) == -1;
    if ((stream <= lastStream && !isUnsent) || !IsAwaited(stream)) {
        return true;
    }
    if (isUnsent) {
        link_->SubmitReset(stream, NGHTTP2_CANCEL);
    }
    return records_->CompleteReset(stream, VEK_HTTP2_ERROR_UNPROCESSED);
}

int CVEKHttp2Request::Cancel(int32_t messageId) {
    if (!link_->IsLive()) {
        return VEK_HTTP2_CANCEL_CLOSED;
    }
    // Those that were submitted are older than those that are queued.
    auto* record = records_->FindMessage(messageId);
    if (record == nullptr) {
        const bool isFound = records_->GetRequests().Withdraw(
            [messageId](const auto& queued) { return queued.messageId_ == messageId; });
        return isFound ? VEK_HTTP2_CANCEL_UNSENT : VEK_HTTP2_CANCEL_NONE;
    }
    const int stream = record->streamId_;
    const bool isOpen = !records_->IsComplete(stream) || link_->GetLocalClose(stream) == 0;
    if (isOpen && link_->CancelStream(stream) == NGHTTP2_ERR_NOMEM) {
        link_->CloseForMemory();  // the session may refer to the record, until Disconnect
        return VEK_HTTP2_CANCEL_CLOSED;
    }
    records_->DropTimeout(record);
    records_->ForgetRequest(record);
    records_->DropComplete(stream);
    records_->SetLastReceived(stream);
    records_->GetRequests().Return(record);
    return link_->FlushOrClose("nghttp2_session_send", true) ? VEK_HTTP2_CANCEL_DONE
                                                             : VEK_HTTP2_CANCEL_CLOSED;
}

bool CVEKHttp2Request::IsSendDataExist() {
    return records_->GetRequests().HasQueued();
}

bool CVEKHttp2Request::IsSendBlocked() const {
    return link_->IsSendBlocked();
}

bool CVEKHttp2Request::IsComplete() {
    return records_->IsAllAnswered();
}

int CVEKHttp2Request::GetIncompleteCount() {
    return link_->IsOpen() ? static_cast<int>(records_->GetRequests().GetUsed()) : 0;
}

// One earlier than Request refuses: meant.
bool CVEKHttp2Request::IsStreamFull() const {
    return total_request_count_ >= MAX_REQUEST_COUNT - 1;
}

void CVEKHttp2Request::SetStreamID(int id) {
    if (link_->HasSession()) {
        link_->SetNextStream(id);
        total_request_count_ = id / 2;
    }
}

void CVEKHttp2Request::SetState(int state, int cause) {
    link_->SetState(state, cause);
}

int CVEKHttp2Request::GetState() {
    return link_->GetState();
}

int CVEKHttp2Request::GetStateCause() {
    return link_->GetStateCause();
}

VEK_ST_HTTP2_ERROR CVEKHttp2Request::GetError() const {
    return link_->GetError();
}

int CVEKHttp2Request::GetInformationalCount() {
    return informationalCount_.exchange(0);
}

int CVEKHttp2Request::ProcEventPre() {
    if (!IsValid()) {
        return VEK_HTTP2_SUBMIT_FAILED;
    }
    const int result = SendRequestAsync();
    if (result != VEK_HTTP2_SUBMIT_DONE) {
        return result;
    }
    // Names the receive call: meant.
    return link_->FlushOrClose("nghttp2_session_recv", false) ? VEK_HTTP2_SUBMIT_DONE
                                                              : VEK_HTTP2_SUBMIT_FAILED;
}

int CVEKHttp2Request::SendRequestAsync() {
    auto* record = link_->IsDraining() ? nullptr : records_->GetRequests().Next();
    if (record == nullptr) {
        return VEK_HTTP2_SUBMIT_NONE;
    }
    const int stream = SendRequest(record);
    if (stream < 0) {
        records_->GetRequests().Return(record);
        return VEK_HTTP2_SUBMIT_FAILED;
    }
    try {
        records_->FileRequest(record);
    } catch (const std::bad_alloc&) {
        link_->CloseForMemory();  // the engine has the record, until Disconnect
        return VEK_HTTP2_SUBMIT_FAILED;
    }
    return VEK_HTTP2_SUBMIT_DONE;
}

bool CVEKHttp2Request::ProcEvent() {
    return link_->Receive() && link_->FlushOrClose("nghttp2_session_send", true) &&
           link_->EndPass();
}

int CVEKHttp2Request::GetResponse(VEK_ST_HTTP2_RESPONSE* resp) {
    auto* record = records_->TakeComplete();
    if (record == nullptr) {
        return VEK_HTTP2_COLLECT_NONE;
    }
    resp->streamId_ = record->streamId_;
    isUpgradeAwaited_ = isUpgradeAwaited_ && record->streamId_ != VEK_HTTP2_UPGRADE_STREAM;
    if (link_->HasSession() && link_->GetLocalClose(record->streamId_) == 0) {
        ReleaseStream(record->streamId_);
    }
    records_->EndRequest(record->streamId_, resp->messageId_);
    memcpy(resp->rs_, record->rs_, sizeof resp->rs_);
    resp->hdr_.swap(record->hdr_);  // the caller's old fields serve the next response
    resp->trailers_.swap(record->trailers_);
    resp->payload_.size_ = record->payload_.size_;
    resp->error_ = record->error_;
    if (record->payload_.size_ > 0) {
        memcpy(resp->payload_.data_, record->payload_.data_, record->payload_.size_);
    }
    records_->SetLastReceived(record->streamId_);
    records_->ReturnResponse(record);
    return VEK_HTTP2_COLLECT_DONE;
}

int CVEKHttp2Request::GetTimeout(VEK_ST_HTTP2_RESPONSE* resp) {
    auto* record = records_->GetOldest();
    if (GetTimeoutSeconds() == 0 || record == nullptr) {
        return VEK_HTTP2_COLLECT_NONE;
    }
    const double seconds = VEK_SECONDS_SINCE(record->startT_);
    if (seconds < GetTimeoutSeconds() || records_->IsComplete(record->streamId_)) {
        return VEK_HTTP2_COLLECT_NONE;
    }
    VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) message(%d) response timeout!...%lf second",
                    name_.c_str(), record->messageId_, seconds);
    records_->DropTimeout(record);
    const int result = link_->CancelStream(record->streamId_);
    if (result != 0) {
        SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_submit_rst_stream() failed!...%s",
                        name_.c_str(), nghttp2_strerror(result));
        return VEK_HTTP2_COLLECT_CLOSED;
    }
    records_->ForgetRequest(record);
    resp->messageId_ = record->messageId_;
    VEK_COPY_TEXT(resp->rs_, CVEKHttp2RequestRecords::NO_STATUS);
    resp->trailers_.clear();
    resp->error_ = VEK_HTTP2_ERROR_TIMEOUT;
    records_->GetRequests().Return(record);
    return VEK_HTTP2_COLLECT_DONE;
}

int CVEKHttp2Request::GetEvent() {
    if (!link_->FlushOrClose("nghttp2_session_send", false)) {
        return VEK_HTTP2_CALL_FAILED;
    }
    const VEK_HTTP2_EVENT event = link_->Wait(VEK_HTTP2_WAIT_MS);
    if (event == VEK_HTTP2_EVENT_FAILED) {
        VEK_SYSTEM_CALL_LOG("epoll_wait() failed!...");
        return VEK_HTTP2_CALL_FAILED;
    }
    return DispatchEvent(event) ? VEK_HTTP2_CALL_DONE : VEK_HTTP2_CALL_FAILED;
}

bool CVEKHttp2Request::IsValid() {
    return link_->IsValid([this] { return SendPing(); });
}

bool CVEKHttp2Request::SendPing() {
    if (!link_->SubmitPing()) {
        return false;
    }
    const int result = link_->Flush();
    if (result == 0) {
        link_->MarkPingSent();
        return true;
    }
    if (GetState() == VEK_HTTP2_CONN_STATE_CLOSE) {
        return false;
    }
    link_->CloseOnError("nghttp2_session_send", result, true);
    return true;  // the caller meets the closed state at its next check: meant
}

void CVEKHttp2Request::SetVirtualHeader() {
    scheme_ = ssl_ctx_ != nullptr ? "https" : "http";
    authority_ = host_;
    if (port_ != PORT_HTTP && port_ != PORT_BARE_AUTHORITY) {
        authority_ += ":" + std::to_string(port_);
    }
}

bool CVEKHttp2Request::InitHttp2Session(const char* host) {
    LogSession();
    uint8_t settings[VEK_HTTP2_SETTINGS_SIZE];
    size_t length = 0;
    return (!isUpgrade_ || Upgrade(host, link_->GetOptions(), settings, length)) &&
           OpenSession(settings, length);
}

void CVEKHttp2Request::LogSession() const {
    if (G_VEK_HTTP2_DETAIL_LOG) {
        VEK_HTTP2_LOG_OPTIONS(name_.c_str(), link_->GetOptions(), "DEFAULT");
        VEK_HTTP2_LOG_TLS(name_.c_str(), GetTlsInfo());
    }
    const char* text = "conn(%s) http/2 direct negotiation";
    if (isUpgrade_) {
        text = "conn(%s) http/1.1 Upgrade negotiation";
    } else if (ssl_ctx_ != nullptr) {
        text = "conn(%s) http/2 direct with tls negotiation";
    }
    VEK_SERVICE_LOG(VEK_LOG_INFO, text, name_.c_str());
}

bool CVEKHttp2Request::Upgrade(const char* host, const VEK_ST_HTTP2_OPTIONS& options,
                               uint8_t (&payload)[VEK_HTTP2_SETTINGS_SIZE], size_t& payloadLen) {
    CVEKHttp2Setup setup(link_->GetTransport(), name_.c_str());
    link_->LimitSetup(setup);
    if (!setup.StartClientUpgrade(host, options) || !setup.RunUpgrade()) {
        link_->NoteSetup(setup);
        return false;
    }
    const CVEKHttp2ClientUpgrade& upgrade = *setup.GetClientUpgrade();
    payloadLen = upgrade.GetPayloadSize();
    memcpy(payload, upgrade.GetPayload(), payloadLen);
    return true;
}

// Creates and starts the session; `settings` were announced by the upgrade.
bool CVEKHttp2Request::OpenSession(const uint8_t* settings, size_t length) {
    int result = link_->CreateSession(false);
    if (result != 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_session_client_new() failed!...%s",
                        name_.c_str(), nghttp2_strerror(result));
        return false;
    }
    if (isUpgrade_) {
        result = link_->UpgradeSession(settings, length);  // also submits these settings
        if (result != 0) {
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_session_upgrade2() failed!...%s",
                            name_.c_str(), nghttp2_strerror(result));
            return false;
        }
    } else if (!SettingNegotiation()) {
        return false;
    }
    if (!link_->SetLocalWindow()) {
        return false;
    }
    link_->Start();
    isUpgradeAwaited_ = isUpgrade_;
    records_->ClearLast();
    total_request_count_ = 0;
    informationalCount_ = 0;
    VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) http session initialized...", name_.c_str());
    return true;
}

int CVEKHttp2Request::SendSettingsHdr() {
    if (!link_->HasSession()) {
        return VEK_HTTP2_CALL_FAILED;
    }
    nghttp2_settings_entry entries[5];
    const int count = populate_settings(entries, &link_->GetOptions());
    const int result = link_->SubmitSettings(entries, static_cast<size_t>(count));
    if (result != 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_submit_settings() failed!...%s",
                        name_.c_str(), nghttp2_strerror(result));
        return VEK_HTTP2_CALL_FAILED;
    }
    return VEK_HTTP2_CALL_DONE;
}

bool CVEKHttp2Request::SettingNegotiation() {
    return SendSettingsHdr() == VEK_HTTP2_CALL_DONE;
}

bool CVEKHttp2Request::InitInternalEvent() {
    return link_->OpenEvent();
}

void CVEKHttp2Request::CloseSession() {
    if (!link_->HasSession()) {
        return;
    }
    int cause = GetStateCause();
    switch (cause) {
        case VEK_HTTP2_CONN_CLOSE_CAUSE_NONE:
            cause = VEK_HTTP2_CONN_CLOSE_CAUSE_SELF;
            link_->Terminate(NGHTTP2_NO_ERROR);
            break;
        case VEK_HTTP2_CONN_CLOSE_CAUSE_STREAM_FULL:
            link_->Terminate(NGHTTP2_NO_ERROR);
            break;
        case VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR:
            link_->Terminate(NGHTTP2_INTERNAL_ERROR);
            break;
        default:  // the peer has gone or the transport is broken
            break;
    }
    VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) closed...cause(%s)", name_.c_str(),
                    GetCauseText(cause));
}

int CVEKHttp2Request::PrepareRequest(VEK_ST_HTTP2_REQUEST* req) {
    if (req->path_[0] != '/') {
        link_->Note(VEK_HTTP2_FAILURE_INTERNAL, "path of a request without a leading slash");
        SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP resource path(%s) invalid!... must '/' begin...",
                        req->path_);
        return VEK_HTTP2_PREPARE_REFUSED;
    }
    const uint32_t maxPayloadSize = link_->GetOptions().nMaxPayloadSize_;
    if (req->payload_.size_ > maxPayloadSize) {
        link_->Note(VEK_HTTP2_FAILURE_OWN_LIMIT, "body of a request too large");
        SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "payload size(%lu-%u) overflow!...",
                        static_cast<unsigned long>(req->payload_.size_), maxPayloadSize);
        return VEK_HTTP2_PREPARE_REFUSED;
    }
    const char* authority = req->authority_[0] != '\0' ? req->authority_ : authority_.c_str();
    int count = 0;
    req->hdrs_[count++] = VEK_HTTP2_FIELD(":scheme", scheme_);
    req->hdrs_[count++] = VEK_HTTP2_FIELD(":authority", authority);
    req->hdrs_[count++] = VEK_HTTP2_FIELD(":path", req->path_);
    req->hdrs_[count++] = VEK_HTTP2_FIELD(":method", req->method_);
    size_t rest = 0;
    count = VEK_HTTP2_FILL_FIELDS(req->hdrs_, count, req->hdr_, rest);
    if (rest < req->hdr_.size()) {
        VEK_SERVICE_LOG(VEK_LOG_WARNING, "too many http headers(%d,%s:%s)...ignore!", count,
                        req->hdr_[rest].first.c_str(), req->hdr_[rest].second.c_str());
    }
    return count;
}

int CVEKHttp2Request::SendRequest(VEK_ST_HTTP2_REQUEST* req) {
    const int count =
        link_->HasSession() ? PrepareRequest(req) : static_cast<int>(VEK_HTTP2_PREPARE_REFUSED);
    if (count < 0) {
        return count;
    }
    const int32_t stream =
        link_->SubmitRequest(req->hdrs_, static_cast<size_t>(count), &req->payload_);
    if (stream < 0) {
        SetState(VEK_HTTP2_CONN_STATE_CLOSE, stream == NGHTTP2_ERR_STREAM_ID_NOT_AVAILABLE
                                                 ? VEK_HTTP2_CONN_CLOSE_CAUSE_STREAM_FULL
                                                 : VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "http/2 conn(%s) nghttp2_submit_request() failed!...%s",
                        name_.c_str(), nghttp2_strerror(stream));
        return stream;
    }
    req->streamId_ = stream;
    records_->SetLastSent(stream);
    return stream;
}

bool CVEKHttp2Request::SendRequestSync(VEK_ST_HTTP2_REQUEST* req) {
    return SendRequest(req) >= 0;
}

int CVEKHttp2Request::RecvResponseSync(VEK_ST_HTTP2_RESPONSE* resp) {
    const VEK_HTTP2_TIME start = VEK_HTTP2_NOW();
    if (!link_->FlushOrClose("nghttp2_session_send", false)) {
        return VEK_HTTP2_COLLECT_CLOSED;
    }
    for (;;) {
        if (VEK_SECONDS_SINCE(start) > GetTimeoutSeconds()) {
            link_->Note(VEK_HTTP2_FAILURE_RESPONSE_TIMEOUT);
            SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_TIMEOUT);
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) event wait timeout!...", name_.c_str());
            return VEK_HTTP2_COLLECT_CLOSED;
        }
        const VEK_HTTP2_EVENT event = link_->Wait(VEK_HTTP2_WAIT_MS);
        if (event == VEK_HTTP2_EVENT_INTERRUPTED) {
            continue;
        }
        if (event == VEK_HTTP2_EVENT_FAILED) {
            VEK_SYSTEM_CALL_LOG("epoll_wait() failed!...");
            return VEK_HTTP2_COLLECT_CLOSED;
        }
        const bool isOpen = DispatchEvent(event) && link_->CheckLimits();
        if (records_->HasComplete() && (isOpen || link_->GetPolicy().isGoawayGraceful_)) {
            return GetResponse(resp);
        }
        if (!isOpen) {
            return VEK_HTTP2_COLLECT_CLOSED;
        }
    }
}

int CVEKHttp2Request::RecvResponseAsync(VEK_ST_HTTP2_RESPONSE* resp) {
    if (ProcEventPre() == VEK_HTTP2_SUBMIT_FAILED) {
        return VEK_HTTP2_COLLECT_CLOSED;
    }
    const int timeoutMs = IsSendDataExist() ? 0 : VEK_HTTP2_WAIT_MS;
    const VEK_HTTP2_EVENT event = link_->WaitOut(timeoutMs);
    if (event == VEK_HTTP2_EVENT_FAILED) {
        VEK_SYSTEM_CALL_LOG("epoll_wait() failed!...%d %d", link_->GetEvent(), link_->GetSocket());
        return VEK_HTTP2_COLLECT_CLOSED;
    }
    if (!DispatchEvent(event)) {
        return VEK_HTTP2_COLLECT_CLOSED;
    }
    if (resp == nullptr) {
        return VEK_HTTP2_COLLECT_NONE;
    }
    const int result = GetTimeout(resp);
    return result != VEK_HTTP2_COLLECT_NONE ? result : GetResponse(resp);
}

double CVEKHttp2Request::GetTimeoutSeconds() const {
    constexpr double MS_PER_SECOND = 1000;
    const uint32_t limitMs = link_->GetPolicy().responseMs_;
    return limitMs != 0 ? limitMs / MS_PER_SECOND : link_->GetOptions().nTimeout_;
}

void CVEKHttp2Request::DeleteTimeout(VEK_ST_HTTP2_REQUEST* req) {
    records_->DropTimeout(req);
}

bool CVEKHttp2Request::InsertRecv(int stream) {
    return records_->InsertResponse(stream);
}

bool CVEKHttp2Request::UpdateHdrRecv(int stream, const char* name, const char* value) {
    return records_->PutField(stream, name, value);
}

bool CVEKHttp2Request::UpdatePayloadRecv(int stream, const char* data, size_t len) {
    return records_->PutPayload(stream, data, len);
}

bool CVEKHttp2Request::OnResponseRecv(int stream) {
    return records_->CompleteResponse(stream);
}

bool CVEKHttp2Request::RSTRecv(int stream, int error) {
    VEK_PEER_LOG(VEK_LOG_INFO, "conn(%s) received RST_STREAM frame! stream_id(%d) cause(%d)",
                 name_.c_str(), stream, error);
    return records_->CompleteReset(stream, error);
}

void CVEKHttp2Request::CloseRecv(int /*stream*/) {}

int CVEKHttp2Request::OnFrameRecv(const nghttp2_frame* frame) {
    const int32_t stream = frame->hd.stream_id;
    const bool isEnd =
        (frame->hd.flags & NGHTTP2_FLAG_END_STREAM) != 0 && !link_->IsReleased(stream);
    switch (frame->hd.type) {
        case NGHTTP2_DATA:
            return !isEnd || OnResponseRecv(stream) ? 0 : NGHTTP2_ERR_CALLBACK_FAILURE;
        case NGHTTP2_HEADERS:
            return OnHeadersRecv(frame, isEnd);
        case NGHTTP2_RST_STREAM:
            return !IsAwaited(stream) ||
                           RSTRecv(stream, static_cast<int>(frame->rst_stream.error_code))
                       ? 0
                       : NGHTTP2_ERR_CALLBACK_FAILURE;
        case NGHTTP2_SETTINGS:
            if (G_VEK_HTTP2_DETAIL_LOG) {
                VEK_HTTP2_LOG_SETTINGS(name_.c_str(), frame->settings, " -");
            }
            return 0;
        case NGHTTP2_PUSH_PROMISE:
            OnPushRecv(frame);
            return 0;
        case NGHTTP2_PING:
            link_->OnPingRecv(frame);
            return 0;
        case NGHTTP2_GOAWAY:
            VEK_PEER_LOG(VEK_LOG_INFO, "conn(%s) receive GOAWAY frame(%d)...", name_.c_str(),
                         static_cast<int>(frame->goaway.error_code));
            if (link_->GetPolicy().isGoawayGraceful_) {
                return Drain(frame->goaway.last_stream_id) ? 0 : NGHTTP2_ERR_CALLBACK_FAILURE;
            }
            SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_PEER);
            return 0;
        case NGHTTP2_WINDOW_UPDATE:
            return 0;
        default:
            VEK_PEER_LOG(VEK_LOG_INFO, "RECV FRAME[%d]...", frame->hd.type);
            return 0;
    }
}

bool CVEKHttp2Request::TakeField(const nghttp2_frame* frame, std::string_view name,
                                 std::string_view value) {
    const int32_t stream = frame->hd.stream_id;
    const VEK_ST_HTTP2_POLICY& policy = link_->GetPolicy();
    const bool isHeard = !link_->IsReleased(stream);
    switch (link_->GetBlock()) {
        case VEK_HTTP2_BLOCK_PUSH:
            records_->GetPushed().emplace_back(name, value);
            return true;
        case VEK_HTTP2_BLOCK_TRAILERS:
            return !policy.hasTrailers_ || !isHeard || records_->PutTrailer(stream, name, value);
        case VEK_HTTP2_BLOCK_INFORMATIONAL:
            return policy.isInformationalSkipped_ || !IsResponseHeaders(frame) ||
                   records_->PutField(stream, name, value);
        default: {
            const bool isWanted =
                policy.isInformationalSkipped_ ? isHeard : IsResponseHeaders(frame);
            return !isWanted || records_->PutField(stream, name, value);
        }
    }
}

int CVEKHttp2Request::OnHeadersRecv(const nghttp2_frame* frame, bool isEnd) {
    if (link_->GetBlock() == VEK_HTTP2_BLOCK_INFORMATIONAL &&
        link_->GetPolicy().isInformationalSkipped_) {
        ++informationalCount_;
        if (G_VEK_HTTP2_DETAIL_LOG) {
            VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) stream(%d) informational response...",
                            name_.c_str(), frame->hd.stream_id);
        }
        return 0;
    }
    if (isEnd && !OnResponseRecv(frame->hd.stream_id)) {
        return NGHTTP2_ERR_CALLBACK_FAILURE;
    }
    if ((frame->hd.flags & NGHTTP2_FLAG_PRIORITY) != 0) {
        const nghttp2_priority_spec& priority = frame->headers.pri_spec;
        VEK_PEER_LOG(VEK_LOG_INFO, "dep_stream_id=%d, weight=%u, exclusive=%d", priority.stream_id,
                     static_cast<unsigned>(priority.weight), priority.exclusive);
    }
    if (frame->headers.cat == NGHTTP2_HCAT_PUSH_RESPONSE) {
        VEK_PEER_LOG(VEK_LOG_INFO, "frame-headers");
        PrintPushedFields();
    }
    return 0;
}

void CVEKHttp2Request::OnPushRecv(const nghttp2_frame* frame) {
    VEK_PEER_LOG(VEK_LOG_INFO, "conn(%s) receive PUSH ...not support!", name_.c_str());
    VEK_PEER_LOG(VEK_LOG_INFO, "\t(padlen=%zu, promised_stream_id=%d)", frame->push_promise.padlen,
                 frame->push_promise.promised_stream_id);
    PrintPushedFields();
}

// The fields of the block that has just ended, collected as they came: the engine keeps none.
void CVEKHttp2Request::PrintPushedFields() {
    VEK_HTTP2_LOG_HEADERS(records_->GetPushed());
    VEK_HTTP2_HEADER().swap(records_->GetPushed());
}

void CVEKHttp2Request::OnFrameSend(const nghttp2_frame* frame) const {
    if (!G_VEK_HTTP2_DETAIL_LOG) {
        return;
    }
    if (frame->hd.type == NGHTTP2_PING) {
        const bool isAck = (frame->hd.flags & NGHTTP2_FLAG_ACK) != 0;
        VEK_SERVICE_LOG(VEK_LOG_INFO, "SEND PING[%d]...%s", frame->hd.type, isAck ? "ACK" : "");
    } else if (frame->hd.type == NGHTTP2_GOAWAY) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "Send GO-AWAY Frame...");
    }
}

// The header block of a response that somebody still waits for.
bool CVEKHttp2Request::IsResponseHeaders(const nghttp2_frame* frame) const {
    return frame->hd.type == NGHTTP2_HEADERS && frame->headers.cat == NGHTTP2_HCAT_RESPONSE &&
           !link_->IsReleased(frame->hd.stream_id);
}

// Acts on a wait's result. Returns false when the connection has closed.
bool CVEKHttp2Request::DispatchEvent(int event) {
    // What came whole before the error is to be had, where that is asked for: the read meets both.
    const bool isReadFirst = link_->GetPolicy().isGoawayGraceful_;
    if (event == VEK_HTTP2_EVENT_ERROR && !isReadFirst) {
        link_->CloseOnEventError();
        return false;
    }
    return event == VEK_HTTP2_EVENT_NONE || event == VEK_HTTP2_EVENT_INTERRUPTED || ProcEvent();
}
