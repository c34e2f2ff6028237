#include "CVEKHttp2Request.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <set>

#include "CVEKHttp2Core.h"
#include "CVEKHttp2Output.h"
#include "VEKHttp2Log.h"
#include "VEKHttp2Upgrade.h"
#include "VEKServiceLog.h"
#include "VEKText.h"

namespace {

using Core = CVEKHttp2Core<CVEKHttp2Request>;

constexpr int CONNECT_RETRY = 10;
// Client stream ids are odd and end at 2^31 - 1 (RFC 9113, section 5.1.1).
constexpr int MAX_REQUEST_COUNT = 1 << 30;
constexpr int UPGRADE_STREAM = 1;  // the upgrade's own request (RFC 7540, section 3.2)

constexpr int PORT_HTTP = 80;
constexpr int PORT_BARE_AUTHORITY = 433;  // 433, not 443: meant

const char NO_STATUS[] = "000";

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

CVEKHttp2Request::CVEKHttp2Request()
    : name_("undefined"),
      port_(0),
      fd_(-1),
      ssl_ctx_(nullptr),
      session_(nullptr),
      options_(),
      isUpgrade_(false),
      isEvent_(false),
      state_(VEK_HTTP2_CONN_STATE_INIT),
      cause_(VEK_HTTP2_CONN_CLOSE_CAUSE_NONE),
      epfd_(-1),
      total_request_count_(0),
      last_send_stream_id_(0),
      last_recv_stream_id_(0),
      ping_send_time_(std::chrono::system_clock::now()),
      last_recv_time_(ping_send_time_),
      ping_send_flag_(false),
      ping_recv_flag_(false),
      generation_(0),
      sync_stream_id_(0),
      output_(std::make_unique<CVEKHttp2Output>()),
      lastResponse_(responseMap_.end()),
      received_(0),
      headerBytes_(0) {}

CVEKHttp2Request::~CVEKHttp2Request() {
    Disconnect();
    std::for_each(responses_.begin(), responses_.end(), VEK_DELETE_RECORD<VEK_ST_HTTP2_RESPONSE>);
    std::for_each(requests_.begin(), requests_.end(), VEK_DELETE_RECORD<VEK_ST_HTTP2_REQUEST>);
}

bool CVEKHttp2Request::Initialize(const char* name, const VEK_ST_HTTP2_OPTIONS* options) {
    if (name_ != "undefined" || !requests_.empty()) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) alreay initialized...", name_.c_str());
        return false;
    }
    name_ = name;
    options_ = *options;
    VEK_HTTP2_SET_DEFAULTS(options_);
    options_.nPushEnable_ = options_.nPushEnable_ != 0 ? 1 : 0;
    try {
        return FillPools();
    } catch (const std::bad_alloc&) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%%) memory allocate failed...");  // no name: meant
        return false;
    }
}

bool CVEKHttp2Request::FillPools() {
    requests_.reserve(options_.nMaxConcurrentStream_);
    responses_.reserve(options_.nMaxConcurrentStream_);
    for (uint32_t i = 0; i < options_.nMaxConcurrentStream_; ++i) {
        auto* request = VEK_NEW_RECORD<VEK_ST_HTTP2_REQUEST>(options_.nMaxPayloadSize_);
        if (request != nullptr) {
            requests_.push_back(request);
            requestPool_.push_back(request);
        }
        auto* response = VEK_NEW_RECORD<VEK_ST_HTTP2_RESPONSE>(options_.nMaxPayloadSize_);
        if (response != nullptr) {
            responses_.push_back(response);
            responsePool_.push_back(response);
        }
        if (request == nullptr || response == nullptr) {
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%%) memory allocate failed...");  // no name: meant
            return false;
        }
    }
    return true;
}

bool CVEKHttp2Request::Initialize(const char* name,
                                  const uint32_t (&slots)[VEK_HTTP2_OPTION_COUNT]) {
    const VEK_ST_HTTP2_OPTIONS options = VEK_HTTP2_OPTION_RECORD(slots);
    return Initialize(name, &options);
}

bool CVEKHttp2Request::Connect(const char* host, int port, SSL_CTX* ctx, bool isEvent) {
    host_ = host;
    port_ = port;
    ssl_ctx_ = ctx;
    isUpgrade_ = false;
    return Connect(host, isEvent);
}

bool CVEKHttp2Request::Connect(const char* host, int port, bool isEvent) {
    host_ = host;
    port_ = port;
    ssl_ctx_ = nullptr;
    isUpgrade_ = true;
    return Connect(host, isEvent);
}

bool CVEKHttp2Request::Connect(const char* host, bool isEvent) {
    if (session_ != nullptr || fd_ > 0 || epfd_ != -1) {
        Disconnect();  // what an earlier Connect has left open; requests queued since then stay
    }
    SetState(VEK_HTTP2_CONN_STATE_INIT, VEK_HTTP2_CONN_CLOSE_CAUSE_NONE);
    fd_ = CVEKSocketNew::CONNECT(host_.c_str(), port_, CONNECT_RETRY);
    if (fd_ < 0) {
        return false;
    }
    if (!transport_.SetFD(fd_, ssl_ctx_, VEK_SOCKET_MODE_CONNECT)) {
        return false;
    }
    if (!isEvent && !InitInternalEvent()) {
        return false;
    }
    CVEKSocketNew::SET_NONBLOCK(fd_);
    CVEKSocketNew::SET_NODELAY(fd_);
    SetVirtualHeader();
    isEvent_ = isEvent;
    return InitHttp2Session(host);
}

void CVEKHttp2Request::Disconnect() {
    if (session_ != nullptr) {
        CloseSession();
        nghttp2_session_del(session_);
        session_ = nullptr;
    }
    output_->Clear();
    released_.clear();

    // Response records are this thread's alone. A request record may be in the hands of a thread
    // that is just queueing: only those in a list or map go back.
    responseMap_.clear();
    lastResponse_ = responseMap_.end();
    responseList_.clear();
    responsePool_.assign(responses_.begin(), responses_.end());
    std::set<VEK_ST_HTTP2_REQUEST*> submitted;
    for (const auto& [stream, record] : requestMap_) {
        submitted.insert(record);
    }
    for (const auto& [time, record] : timeoutMap_) {
        submitted.insert(record);
    }
    requestMap_.clear();
    timeoutMap_.clear();
    {
        const std::lock_guard<std::mutex> guard(mutexQ_);
        ++generation_;
        requestPool_.insert(requestPool_.end(), submitted.begin(), submitted.end());
        requestPool_.insert(requestPool_.end(), requestList_.begin(), requestList_.end());
        requestList_.clear();
    }

    if (epfd_ != -1) {
        if (fd_ >= 1 && epoll_ctl(epfd_, EPOLL_CTL_DEL, fd_, nullptr) != 0) {
            VEK_SYSTEM_CALL_LOG("epoll_ctl() system call error.");
        }
        close(epfd_);
        epfd_ = -1;
    }
    if (fd_ > 0) {
        transport_.Clear();
        fd_ = -1;
        VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) disconnect...", name_.c_str());
    }
}

int CVEKHttp2Request::write(const char* buf, size_t len) {
    return transport_.Send(buf, len);
}

int CVEKHttp2Request::read(char* buf, size_t len) {
    return transport_.Recv(buf, len);
}

int CVEKHttp2Request::read(char* buf, const char* delim, int max) {
    return transport_.Recv(buf, delim, max);
}

bool CVEKHttp2Request::Request(VEK_ST_HTTP2_REQUEST* req, VEK_ST_HTTP2_RESPONSE* resp) {
    if (!Core::IsLive(*this)) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) invalid state!...", name_.c_str());
        return false;
    }
    resp->messageId_ = req->messageId_;
    if (!SendRequestSync(req)) {
        return false;
    }
    sync_stream_id_ = req->streamId_;
    const int result = RecvResponseSync(resp);
    sync_stream_id_ = 0;
    if (result == -1 || resp->streamId_ != req->streamId_) {
        ReleaseStream(req->streamId_);
    }
    if (result == -1) {
        return false;
    }
    ++total_request_count_;
    return true;
}

// A response is awaited on the stream. The peer may reset a stream that it has answered in full
// (RFC 9113, section 8.1), and its reset may cross our own: neither is an answer to anything.
bool CVEKHttp2Request::IsAwaited(int stream) const {
    const bool isOutstanding = requestMap_.find(stream) != requestMap_.end() ||
                               stream == sync_stream_id_ ||
                               (isUpgrade_ && stream == UPGRADE_STREAM);
    return isOutstanding && !IsCompleted(stream);
}

// The response to the stream waits to be collected.
bool CVEKHttp2Request::IsCompleted(int stream) const {
    return std::any_of(responseList_.begin(), responseList_.end(),
                       [stream](const auto* record) { return record->streamId_ == stream; });
}

// The engine refers to the request's texts and body until they have left. Where its response has
// come before that, or the caller gives up, the stream is cancelled: the record is about to go.
void CVEKHttp2Request::ReleaseStream(int stream) {
    if (session_ == nullptr) {
        return;
    }
    constexpr int LOCALLY_CLOSED = 1;
    constexpr int NOT_OPEN = -1;
    const int state = nghttp2_session_get_stream_local_close(session_, stream);
    const bool isOver = state == NOT_OPEN && IsCompleted(stream);  // else it is yet to be opened
    if (state != LOCALLY_CLOSED && !isOver) {
        CancelStream(stream);
    }
}

// Returns the engine's result. A DATA frame that the socket has refused is still the engine's to
// send, before the reset: it must not reach for the record any more.
int CVEKHttp2Request::CancelStream(int stream) {
    if (nghttp2_session_get_stream_local_close(session_, stream) != -1) {  // it has been opened
        released_.push_back(stream);
    }
    return nghttp2_submit_rst_stream(session_, NGHTTP2_FLAG_NONE, stream, NGHTTP2_CANCEL);
}

bool CVEKHttp2Request::IsReleased(int32_t stream) const {
    return std::find(released_.begin(), released_.end(), stream) != released_.end();
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
        return -1;
    }
    VEK_ST_HTTP2_REQUEST* record = nullptr;
    int generation = 0;
    int result = TakeRequestRecord(wait, &record, &generation);
    if (result != 1) {
        return result;
    }
    record->messageId_ = messageId;
    if (!VEK_COPY_TEXT(record->authority_, authority) || !VEK_COPY_TEXT(record->method_, method) ||
        !VEK_COPY_TEXT(record->path_, path)) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) authority, method or path too long!...",
                        name_.c_str());
        result = -3;
    }
    try {
        record->hdr_ = hdr;
    } catch (const std::bad_alloc&) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%%) memory allocate failed...");  // no name: meant
        result = -3;
    }
    record->payload_.size_ = size;  // as given: a body that is too large is refused at submission
    if (size > 0 && size <= options_.nMaxPayloadSize_) {
        memcpy(record->payload_.data_, data, size);
    }
    record->streamId_ = 0;
    record->startT_ = std::chrono::system_clock::now();
    {
        const std::lock_guard<std::mutex> guard(mutexQ_);
        if (result != 1 || generation != generation_) {
            requestPool_.push_back(record);
            return -3;
        }
        requestList_.push_back(record);
    }
    ++total_request_count_;
    return 1;
}

// Returns 1 with a free record, else what Request is to return.
int CVEKHttp2Request::TakeRequestRecord(bool wait, VEK_ST_HTTP2_REQUEST** record, int* generation) {
    if (GetState() == VEK_HTTP2_CONN_STATE_CLOSE) {
        return -3;
    }
    if (!wait) {
        *record = Core::PopRecord(*this, requestPool_, generation);
        return *record == nullptr ? 0 : 1;
    }
    const int result = Core::AwaitRecord(*this, requestPool_, record, generation);
    if (result == -2) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) request pool full timeout!..", name_.c_str());
        size_t pool = 0;
        size_t list = 0;
        {
            const std::lock_guard<std::mutex> guard(mutexQ_);
            pool = requestPool_.size();
            list = requestList_.size();
        }
        // Submitted requests are what neither waits in the pool nor in the list: their map belongs
        // to the driving thread.
        VEK_SERVICE_LOG(VEK_LOG_DEBUG, "Pool : %lu,%lu,%lu", static_cast<unsigned long>(pool),
                        static_cast<unsigned long>(requests_.size() - pool - list),
                        static_cast<unsigned long>(list));
    }
    return result;
}

void CVEKHttp2Request::PushRequestPool(VEK_ST_HTTP2_REQUEST* record) {
    const std::lock_guard<std::mutex> guard(mutexQ_);
    requestPool_.push_back(record);
}

int CVEKHttp2Request::Response(VEK_ST_HTTP2_RESPONSE* resp) {
    if (!Core::IsLive(*this)) {
        return -1;
    }
    const int result = resp == nullptr ? 0 : GetResponse(resp);
    if (result == 1 || isEvent_) {
        return result;
    }
    return RecvResponseAsync(resp);
}

bool CVEKHttp2Request::IsSendDataExist() {
    const std::lock_guard<std::mutex> guard(mutexQ_);
    return !requestList_.empty();
}

bool CVEKHttp2Request::IsSendBlocked() const {
    return output_->IsBlocked();
}

bool CVEKHttp2Request::IsComplete() {
    const std::lock_guard<std::mutex> guard(mutexQ_);
    return last_send_stream_id_ == last_recv_stream_id_;
}

int CVEKHttp2Request::GetIncompleteCount() {
    if (!Core::IsOpen(*this)) {
        return 0;
    }
    const std::lock_guard<std::mutex> guard(mutexQ_);
    return static_cast<int>(options_.nMaxConcurrentStream_ - requestPool_.size());
}

// One earlier than Request refuses: meant.
bool CVEKHttp2Request::IsStreamFull() const {
    return total_request_count_ >= MAX_REQUEST_COUNT - 1;
}

void CVEKHttp2Request::SetStreamID(int id) {
    if (session_ != nullptr) {
        nghttp2_session_set_next_stream_id(session_, id);
        total_request_count_ = id / 2;
    }
}

void CVEKHttp2Request::SetState(int state, int cause) {
    Core::SetState(*this, state, cause);
}

int CVEKHttp2Request::GetState() {
    return Core::GetState(*this);
}

int CVEKHttp2Request::GetStateCause() {
    return Core::GetStateCause(*this);
}

int CVEKHttp2Request::ProcEventPre() {
    if (!IsValid()) {
        return -1;
    }
    const int result = SendRequestAsync();
    if (result != 1) {
        return result;
    }
    return FlushOrClose("nghttp2_session_recv") ? 1 : -1;  // names the receive call: meant
}

bool CVEKHttp2Request::ProcEvent() {
    if (!Core::Receive(*this)) {
        return false;
    }
    const int result = Core::Flush(*this);
    if (result != 0 && GetState() != VEK_HTTP2_CONN_STATE_CLOSE) {
        SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_session_send() failed...%s", name_.c_str(),
                        nghttp2_strerror(result));
    }
    return Core::EndPass(*this);
}

int CVEKHttp2Request::GetEvent() {
    if (!FlushOrClose("nghttp2_session_send")) {
        return -1;
    }
    const VEK_HTTP2_EVENT event = Core::Wait(*this, VEK_HTTP2_WAIT_MS);
    if (event == VEK_HTTP2_EVENT_FAILED) {
        VEK_SYSTEM_CALL_LOG("epoll_wait() failed!...");
        return -1;
    }
    return DispatchEvent(event) ? 0 : -1;
}

bool CVEKHttp2Request::IsValid() {
    return Core::IsValid(*this);
}

bool CVEKHttp2Request::SendPing() {
    if (!Core::SubmitPing(*this)) {
        return false;
    }
    const int result = Core::Flush(*this);
    if (result == 0) {
        Core::MarkPingSent(*this);
        return true;
    }
    if (GetState() == VEK_HTTP2_CONN_STATE_CLOSE) {
        return false;
    }
    SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR);
    VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_session_send() failed...%s", name_.c_str(),
                    nghttp2_strerror(result));
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
    if (G_VEK_HTTP2_DETAIL_LOG) {
        VEK_HTTP2_LOG_OPTIONS(name_.c_str(), options_, "DEFAULT");
    }
    uint8_t settings[VEK_HTTP2_SETTINGS_SIZE];
    size_t settingsLength = 0;
    if (isUpgrade_) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) http/1.1 Upgrade negotiation", name_.c_str());
        if (!VEK_HTTP2_CLIENT_UPGRADE(this, host, &options_, settings, settingsLength)) {
            return false;
        }
    } else {
        VEK_SERVICE_LOG(VEK_LOG_INFO,
                        ssl_ctx_ != nullptr ? "conn(%s) http/2 direct with tls negotiation"
                                            : "conn(%s) http/2 direct negotiation",
                        name_.c_str());
    }
    int result = Core::CreateSession(*this, nghttp2_session_client_new2);
    if (result != 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_session_client_new() failed!...%s",
                        name_.c_str(), nghttp2_strerror(result));
        return false;
    }
    if (isUpgrade_) {
        // Also submits these settings.
        result = nghttp2_session_upgrade2(session_, settings, settingsLength, 0, nullptr);
        if (result != 0) {
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_session_upgrade2() failed!...%s",
                            name_.c_str(), nghttp2_strerror(result));
            return false;
        }
    } else if (!SettingNegotiation()) {
        return false;
    }
    if (!Core::SetLocalWindow(*this)) {
        return false;
    }
    SetState(VEK_HTTP2_CONN_STATE_OPEN, VEK_HTTP2_CONN_CLOSE_CAUSE_NONE);
    last_recv_time_ = std::chrono::system_clock::now();
    ping_send_flag_ = false;  // a PING of an earlier session is none of this one's
    ping_recv_flag_ = false;
    {
        const std::lock_guard<std::mutex> guard(mutexQ_);
        last_send_stream_id_ = 0;
        last_recv_stream_id_ = 0;
    }
    total_request_count_ = 0;
    VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) http session initialized...", name_.c_str());
    return true;
}

int CVEKHttp2Request::SendSettingsHdr() {
    if (session_ == nullptr) {
        return -1;
    }
    nghttp2_settings_entry entries[5];
    const int count = populate_settings(entries, &options_);
    const int result =
        nghttp2_submit_settings(session_, NGHTTP2_FLAG_NONE, entries, static_cast<size_t>(count));
    if (result != 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_submit_settings() failed!...%s",
                        name_.c_str(), nghttp2_strerror(result));
        return -1;
    }
    return 0;
}

bool CVEKHttp2Request::SettingNegotiation() {
    return SendSettingsHdr() != -1;
}

bool CVEKHttp2Request::InitInternalEvent() {
    epfd_ = VEK_HTTP2_OPEN_EVENT(fd_);
    return epfd_ != -1;
}

void CVEKHttp2Request::CloseSession() {
    if (session_ == nullptr) {
        return;
    }
    int cause = GetStateCause();
    switch (cause) {
        case VEK_HTTP2_CONN_CLOSE_CAUSE_NONE:
            cause = VEK_HTTP2_CONN_CLOSE_CAUSE_SELF;
            Core::Terminate(*this, NGHTTP2_NO_ERROR);
            break;
        case VEK_HTTP2_CONN_CLOSE_CAUSE_STREAM_FULL:
            Core::Terminate(*this, NGHTTP2_NO_ERROR);
            break;
        case VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR:
            Core::Terminate(*this, NGHTTP2_INTERNAL_ERROR);
            break;
        default:  // the peer has gone or the transport is broken
            break;
    }
    VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) closed...cause(%s)", name_.c_str(),
                    GetCauseText(cause));
}

int CVEKHttp2Request::PrepareRequest(VEK_ST_HTTP2_REQUEST* req) {
    if (req->path_[0] != '/') {
        SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP resource path(%s) invalid!... must '/' begin...",
                        req->path_);
        return -1;
    }
    if (req->payload_.size_ > options_.nMaxPayloadSize_) {
        SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "payload size(%lu-%u) overflow!...",
                        static_cast<unsigned long>(req->payload_.size_), options_.nMaxPayloadSize_);
        return -1;
    }
    const char* authority = req->authority_[0] != '\0' ? req->authority_ : authority_.c_str();
    int count = 0;
    req->hdrs_[count++] = VEK_HTTP2_PSEUDO_FIELD(":scheme", scheme_.c_str());
    req->hdrs_[count++] = VEK_HTTP2_PSEUDO_FIELD(":authority", authority);
    req->hdrs_[count++] = VEK_HTTP2_PSEUDO_FIELD(":path", req->path_);
    req->hdrs_[count++] = VEK_HTTP2_PSEUDO_FIELD(":method", req->method_);
    for (const auto& [name, value] : req->hdr_) {
        if (count == VEK_HTTP2_MAX_HEADERS) {
            VEK_SERVICE_LOG(VEK_LOG_WARNING, "too many http headers(%d,%s:%s)...ignore!", count,
                            name.c_str(), value.c_str());
            break;
        }
        req->hdrs_[count++] = VEK_HTTP2_FIELD(name.data(), name.size(), value.data(), value.size());
    }
    return count;
}

int CVEKHttp2Request::SendRequest(VEK_ST_HTTP2_REQUEST* req) {
    const int count = session_ == nullptr ? -1 : PrepareRequest(req);
    if (count == -1) {
        return -1;
    }
    nghttp2_data_provider provider{};
    provider.source.ptr = &req->payload_;
    provider.read_callback = VEK_HTTP2_READ_PAYLOAD;
    req->payload_.rSize_ = 0;
    const int32_t stream =
        nghttp2_submit_request(session_, nullptr, req->hdrs_, static_cast<size_t>(count),
                               req->payload_.size_ > 0 ? &provider : nullptr, nullptr);
    if (stream < 0) {
        SetState(VEK_HTTP2_CONN_STATE_CLOSE, stream == NGHTTP2_ERR_STREAM_ID_NOT_AVAILABLE
                                                 ? VEK_HTTP2_CONN_CLOSE_CAUSE_STREAM_FULL
                                                 : VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "http/2 conn(%s) nghttp2_submit_request() failed!...%s",
                        name_.c_str(), nghttp2_strerror(stream));
        return stream;
    }
    req->streamId_ = stream;
    const std::lock_guard<std::mutex> guard(mutexQ_);
    last_send_stream_id_ = stream;
    return stream;
}

bool CVEKHttp2Request::SendRequestSync(VEK_ST_HTTP2_REQUEST* req) {
    return SendRequest(req) >= 0;
}

int CVEKHttp2Request::SendRequestAsync() {
    VEK_ST_HTTP2_REQUEST* record = nullptr;
    {
        const std::lock_guard<std::mutex> guard(mutexQ_);
        if (requestList_.empty()) {
            return 0;
        }
        record = requestList_.front();
        requestList_.pop_front();
    }
    const int stream = SendRequest(record);
    if (stream < 0) {
        PushRequestPool(record);
        return -1;
    }
    // Mostly the newest and the highest: the hints save a search.
    timeoutMap_.emplace_hint(timeoutMap_.end(), record->startT_, record);
    const size_t submitted = requestMap_.size();
    requestMap_.emplace_hint(requestMap_.end(), stream, record);
    if (requestMap_.size() == submitted) {
        VEK_SERVICE_LOG(VEK_LOG_WARNING, "stream-i(%d) requedtMap duplicate!..", stream);
    }
    return 1;
}

int CVEKHttp2Request::RecvResponseSync(VEK_ST_HTTP2_RESPONSE* resp) {
    const VEK_HTTP2_TIME start = std::chrono::system_clock::now();
    if (!FlushOrClose("nghttp2_session_send")) {
        return -1;
    }
    for (;;) {
        if (VEK_SECONDS_SINCE(start) > options_.nTimeout_) {
            SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_TIMEOUT);
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) event wait timeout!...", name_.c_str());
            return -1;
        }
        const VEK_HTTP2_EVENT event = Core::Wait(*this, VEK_HTTP2_WAIT_MS);
        if (event == VEK_HTTP2_EVENT_INTERRUPTED) {
            continue;
        }
        if (event == VEK_HTTP2_EVENT_FAILED) {
            VEK_SYSTEM_CALL_LOG("epoll_wait() failed!...");
            return -1;
        }
        if (!DispatchEvent(event)) {
            return -1;
        }
        if (!responseList_.empty()) {
            return GetResponse(resp);
        }
    }
}

int CVEKHttp2Request::RecvResponseAsync(VEK_ST_HTTP2_RESPONSE* resp) {
    if (ProcEventPre() == -1) {
        return -1;
    }
    const int timeoutMs = IsSendDataExist() ? 0 : VEK_HTTP2_WAIT_MS;
    const VEK_HTTP2_EVENT event = Core::WaitOut(*this, timeoutMs);
    if (event == VEK_HTTP2_EVENT_FAILED) {
        VEK_SYSTEM_CALL_LOG("epoll_wait() failed!...%d %d", epfd_, fd_);
        return -1;
    }
    if (!DispatchEvent(event)) {
        return -1;
    }
    if (resp == nullptr) {
        return 0;
    }
    const int result = GetTimeout(resp);
    return result != 0 ? result : GetResponse(resp);
}

int CVEKHttp2Request::GetResponse(VEK_ST_HTTP2_RESPONSE* resp) {
    if (responseList_.empty()) {
        return 0;
    }
    VEK_ST_HTTP2_RESPONSE* record = responseList_.front();
    responseList_.pop_front();
    resp->streamId_ = record->streamId_;
    if (session_ != nullptr &&
        nghttp2_session_get_stream_local_close(session_, record->streamId_) == 0) {
        ReleaseStream(record->streamId_);
    }
    VEK_ST_HTTP2_REQUEST* done = nullptr;
    const auto request = requestMap_.find(record->streamId_);
    if (request != requestMap_.end()) {
        resp->messageId_ = request->second->messageId_;
        DeleteTimeout(request->second);
        done = request->second;
        requestMap_.erase(request);
    }
    memcpy(resp->rs_, record->rs_, sizeof resp->rs_);
    resp->hdr_.swap(record->hdr_);  // the caller's old fields serve the next response
    resp->payload_.size_ = record->payload_.size_;
    resp->error_ = record->error_;
    if (record->payload_.size_ > 0) {
        memcpy(resp->payload_.data_, record->payload_.data_, record->payload_.size_);
    }
    {
        const std::lock_guard<std::mutex> guard(mutexQ_);
        last_recv_stream_id_ = record->streamId_;
        if (done != nullptr) {
            requestPool_.push_back(done);
        }
    }
    responsePool_.push_back(record);
    return 1;
}

int CVEKHttp2Request::GetTimeout(VEK_ST_HTTP2_RESPONSE* resp) {
    if (options_.nTimeout_ == 0 || timeoutMap_.empty()) {
        return 0;
    }
    const auto oldest = timeoutMap_.begin();
    VEK_ST_HTTP2_REQUEST* record = oldest->second;
    const double seconds = VEK_SECONDS_SINCE(record->startT_);
    if (seconds < options_.nTimeout_ || IsCompleted(record->streamId_)) {
        return 0;
    }
    VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) message(%d) response timeout!...%lf second",
                    name_.c_str(), record->messageId_, seconds);
    timeoutMap_.erase(oldest);
    const int result = CancelStream(record->streamId_);
    if (result != 0) {
        SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_submit_rst_stream() failed!...%s",
                        name_.c_str(), nghttp2_strerror(result));
        return -1;
    }
    if (requestMap_.erase(record->streamId_) == 0) {
        VEK_SERVICE_LOG(VEK_LOG_WARNING, "conn(%s) stream(%d) not found!...", name_.c_str(),
                        record->streamId_);
    }
    const auto partial = responseMap_.find(record->streamId_);
    if (partial != responseMap_.end()) {
        responsePool_.push_back(partial->second.record);
        responseMap_.erase(partial);
        lastResponse_ = responseMap_.end();
    }
    resp->messageId_ = record->messageId_;
    VEK_COPY_TEXT(resp->rs_, NO_STATUS);
    resp->error_ = VEK_HTTP2_ERROR_TIMEOUT;
    PushRequestPool(record);
    return 1;
}

void CVEKHttp2Request::DeleteTimeout(VEK_ST_HTTP2_REQUEST* req) {
    const auto [first, last] = timeoutMap_.equal_range(req->startT_);
    const auto found =
        std::find_if(first, last, [req](const auto& entry) { return entry.second == req; });
    if (found == last) {
        VEK_SERVICE_LOG(VEK_LOG_WARNING, "conn(%s) time-out map search failed!...", name_.c_str());
        return;
    }
    timeoutMap_.erase(found);
}

// A free response record for `stream`, emptied but for the fields; null after an Error line when
// there is none.
VEK_ST_HTTP2_RESPONSE* CVEKHttp2Request::TakeResponseRecord(int stream) {
    if (responsePool_.empty()) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) response buffer full!...", name_.c_str());
        return nullptr;
    }
    VEK_ST_HTTP2_RESPONSE* record = responsePool_.back();
    responsePool_.pop_back();
    VEK_COPY_TEXT(record->rs_, NO_STATUS);
    VEK_HTTP2_BOUND_FIELDS(record->hdr_);
    record->streamId_ = stream;
    record->payload_.size_ = 0;
    record->error_ = 0;
    return record;
}

bool CVEKHttp2Request::InsertRecv(int stream) {
    VEK_ST_HTTP2_RESPONSE* record = TakeResponseRecord(stream);
    if (record == nullptr) {
        return false;
    }
    const size_t begun = responseMap_.size();
    responseMap_.emplace_hint(responseMap_.end(), stream, Receiving{record, 0});
    if (responseMap_.size() == begun) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) stream_id(%d) duplicate...", name_.c_str(),
                        stream);
    }
    return true;
}

bool CVEKHttp2Request::UpdateHdrRecv(int stream, const char* name, const char* value) {
    const auto found = FindResponse(stream);
    if (found == responseMap_.end()) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "stream_id(%d) not found...", stream);
        return false;
    }
    auto& [record, fields] = found->second;
    if (strcmp(name, ":status") == 0) {
        VEK_COPY_TEXT(record->rs_, value);
        return true;
    }
    if (fields == record->hdr_.size()) {
        record->hdr_.emplace_back(name, value);
    } else {
        record->hdr_[fields].first = name;
        record->hdr_[fields].second = value;
    }
    ++fields;
    return true;
}

bool CVEKHttp2Request::UpdatePayloadRecv(int stream, const char* data, size_t len) {
    const auto found = FindResponse(stream);
    if (found == responseMap_.end()) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "stream_id(%d) not found...", stream);
        return false;
    }
    VEK_ST_HTTP2_RESPONSE* record = found->second.record;
    VEK_ST_HTTP2_CHUNK_DATA& payload = record->payload_;
    if (len <= options_.nMaxPayloadSize_ - payload.size_) {
        memcpy(payload.data_ + payload.size_, data, len);
        payload.size_ += len;
        return true;
    }
    VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) payload buffer overflow!...", name_.c_str());
    VEK_COPY_TEXT(record->rs_, NO_STATUS);
    record->error_ = VEK_HTTP2_ERROR_PAYLOAD_OVERFLOW;
    return true;  // the stream goes on and is delivered as failed
}

bool CVEKHttp2Request::OnResponseRecv(int stream) {
    const auto found = FindResponse(stream);
    if (found == responseMap_.end()) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "stream_id(%d) not found...", stream);
        return false;
    }
    const auto [record, fields] = found->second;
    record->hdr_.resize(fields);
    responseList_.push_back(record);
    responseMap_.erase(found);
    lastResponse_ = responseMap_.end();
    return true;
}

// What arrives for a stream mostly comes in a row: the place found last is looked at first.
CVEKHttp2Request::ResponseMap::iterator CVEKHttp2Request::FindResponse(int stream) {
    if (lastResponse_ == responseMap_.end() || lastResponse_->first != stream) {
        lastResponse_ = responseMap_.find(stream);
    }
    return lastResponse_;
}

// A record that the stream already has in responseMap_ stays there until Disconnect: meant.
bool CVEKHttp2Request::RSTRecv(int stream, int error) {
    VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) received RST_STREAM frame! stream_id(%d) cause(%d)",
                    name_.c_str(), stream, error);
    VEK_ST_HTTP2_RESPONSE* record = TakeResponseRecord(stream);
    if (record == nullptr) {
        return false;
    }
    record->hdr_.clear();
    record->error_ = error;
    responseList_.push_back(record);
    return true;
}

void CVEKHttp2Request::CloseRecv(int /*stream*/) {}

int CVEKHttp2Request::OnFrameRecv(const nghttp2_frame* frame) {
    const bool isEnd =
        (frame->hd.flags & NGHTTP2_FLAG_END_STREAM) != 0 && !IsReleased(frame->hd.stream_id);
    switch (frame->hd.type) {
        case NGHTTP2_DATA:
            return !isEnd || OnResponseRecv(frame->hd.stream_id) ? 0 : NGHTTP2_ERR_CALLBACK_FAILURE;
        case NGHTTP2_HEADERS:
            return OnHeadersRecv(frame, isEnd);
        case NGHTTP2_RST_STREAM:
            return !IsAwaited(frame->hd.stream_id) ||
                           RSTRecv(frame->hd.stream_id,
                                   static_cast<int>(frame->rst_stream.error_code))
                       ? 0
                       : NGHTTP2_ERR_CALLBACK_FAILURE;
        case NGHTTP2_SETTINGS:
            if (G_VEK_HTTP2_DETAIL_LOG) {
                VEK_HTTP2_LOG_SETTINGS(name_.c_str(), frame->settings, " -");
            }
            return 0;
        case NGHTTP2_PUSH_PROMISE:
            VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) receive PUSH ...not support!", name_.c_str());
            VEK_SERVICE_LOG(VEK_LOG_INFO, "\t(padlen=%zu, promised_stream_id=%d)",
                            frame->push_promise.padlen, frame->push_promise.promised_stream_id);
            VEK_HTTP2_LOG_HEADERS(frame->push_promise.nva, frame->push_promise.nvlen);
            return 0;
        case NGHTTP2_PING:
            Core::OnPingRecv(*this, frame);
            return 0;
        case NGHTTP2_GOAWAY:
            VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) receive GOAWAY frame(%d)...", name_.c_str(),
                            static_cast<int>(frame->goaway.error_code));
            SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_PEER);
            return 0;
        case NGHTTP2_WINDOW_UPDATE:
            return 0;
        default:
            VEK_SERVICE_LOG(VEK_LOG_INFO, "RECV FRAME[%d]...", frame->hd.type);
            return 0;
    }
}

int CVEKHttp2Request::OnHeadersRecv(const nghttp2_frame* frame, bool isEnd) {
    if (isEnd && !OnResponseRecv(frame->hd.stream_id)) {
        return NGHTTP2_ERR_CALLBACK_FAILURE;
    }
    if ((frame->hd.flags & NGHTTP2_FLAG_PRIORITY) != 0) {
        const nghttp2_priority_spec& priority = frame->headers.pri_spec;
        VEK_SERVICE_LOG(VEK_LOG_INFO, "dep_stream_id=%d, weight=%u, exclusive=%d",
                        priority.stream_id, static_cast<unsigned>(priority.weight),
                        priority.exclusive);
    }
    if (frame->headers.cat == NGHTTP2_HCAT_PUSH_RESPONSE) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "frame-headers");
        VEK_HTTP2_LOG_HEADERS(frame->headers.nva, frame->headers.nvlen);
    }
    return 0;
}

int CVEKHttp2Request::OnFrameSend(const nghttp2_frame* frame) {
    if (!G_VEK_HTTP2_DETAIL_LOG) {
        return 0;
    }
    if (frame->hd.type == NGHTTP2_PING) {
        const bool isAck = (frame->hd.flags & NGHTTP2_FLAG_ACK) != 0;
        VEK_SERVICE_LOG(VEK_LOG_INFO, "SEND PING[%d]...%s", frame->hd.type, isAck ? "ACK" : "");
    } else if (frame->hd.type == NGHTTP2_GOAWAY) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "Send GO-AWAY Frame...");
    }
    return 0;
}

// The header block of a response that somebody still waits for.
bool CVEKHttp2Request::IsResponseHeaders(const nghttp2_frame* frame) const {
    return frame->hd.type == NGHTTP2_HEADERS && frame->headers.cat == NGHTTP2_HCAT_RESPONSE &&
           !IsReleased(frame->hd.stream_id);
}

int CVEKHttp2Request::OnStreamClose(int32_t stream) {
    CloseRecv(stream);
    released_.erase(std::remove(released_.begin(), released_.end(), stream), released_.end());
    return 0;
}

// Only the first HEADERS of a response counts, which may be an informational one; the engine files
// later ones (the final response behind it, trailers) under another category: meant.
int CVEKHttp2Request::OnBeginHeaders(const nghttp2_frame* frame) {
    return !IsResponseHeaders(frame) || InsertRecv(frame->hd.stream_id)
               ? 0
               : NGHTTP2_ERR_CALLBACK_FAILURE;
}

int CVEKHttp2Request::OnHeader(const nghttp2_frame* frame, const char* name, const char* value) {
    return !IsResponseHeaders(frame) || UpdateHdrRecv(frame->hd.stream_id, name, value)
               ? 0
               : NGHTTP2_ERR_CALLBACK_FAILURE;
}

// The response is delivered with the fields that came before.
int CVEKHttp2Request::OnHeaderOverflow(const nghttp2_frame* frame, bool isFirst) {
    if (isFirst) {
        VEK_SERVICE_LOG(VEK_LOG_WARNING, "conn(%s) stream(%d) header list too large!...ignore!",
                        name_.c_str(), frame->hd.stream_id);
    }
    return 0;
}

int CVEKHttp2Request::OnDataChunkRecv(int32_t stream, const char* data, size_t len) {
    return IsReleased(stream) || UpdatePayloadRecv(stream, data, len)
               ? 0
               : NGHTTP2_ERR_CALLBACK_FAILURE;
}

int CVEKHttp2Request::OnInvalidFrameRecv(int error) {
    SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR);
    VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/2 invalid frame recv callback-%s",
                    nghttp2_strerror(error));
    return NGHTTP2_ERR_CALLBACK_FAILURE;
}

int CVEKHttp2Request::OnError(int /*error*/, const char* text, size_t len) {
    SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
    VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/2 error callback-%.*s", static_cast<int>(len), text);
    return NGHTTP2_ERR_CALLBACK_FAILURE;
}

int CVEKHttp2Request::OnFrameNotSend(const nghttp2_frame* frame, int error) {
    if (frame->hd.type != NGHTTP2_HEADERS || frame->headers.cat != NGHTTP2_HCAT_REQUEST) {
        return 0;
    }
    if (error == NGHTTP2_ERR_STREAM_CLOSING) {  // cancelled by us before it could leave
        return 0;
    }
    SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
    VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/2 not send callback-%s", nghttp2_strerror(error));
    return NGHTTP2_ERR_CALLBACK_FAILURE;
}

// Flushes; a failure closes the connection and is logged under the name of `call`.
bool CVEKHttp2Request::FlushOrClose(const char* call) {
    const int result = Core::Flush(*this);
    if (result == 0) {
        return true;
    }
    SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR);
    VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) %s() failed...%s", name_.c_str(), call,
                    nghttp2_strerror(result));
    return false;
}

// Acts on a wait's result. Returns false when the connection has closed.
bool CVEKHttp2Request::DispatchEvent(int event) {
    if (event == VEK_HTTP2_EVENT_ERROR) {
        SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_EVENT_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) event error dispatch!...", name_.c_str());
        return false;
    }
    return event != VEK_HTTP2_EVENT_READY || ProcEvent();
}
