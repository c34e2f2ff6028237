#include "CVEKHttp2Response.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>
#include <utility>

#include "CVEKHttp2Core.h"
#include "CVEKHttp2Output.h"
#include "VEKHttp2Log.h"
#include "VEKHttp2Upgrade.h"
#include "VEKServiceLog.h"
#include "VEKText.h"

namespace {

using Core = CVEKHttp2Core<CVEKHttp2Response>;

constexpr int UPGRADE_STREAM = 1;  // the request that came with the upgrade (RFC 7540, section 3.2)

const char REFUSED_STATUS[] = "429";
const char RESET_STATUS[] = "000";  // resets the stream instead of answering

bool IsRequestHeaders(const nghttp2_frame* frame) {
    return frame->hd.type == NGHTTP2_HEADERS && frame->headers.cat == NGHTTP2_HCAT_REQUEST;
}

}  // namespace

CVEKHttp2Response::CVEKHttp2Response()
    : name_("undefined"),
      ssl_ctx_(nullptr),
      port_(0),
      fd_(-1),
      session_(nullptr),
      options_(),
      hdrs_(),
      nHdrs_(0),
      isUpgrade_(false),
      isEvent_(false),
      state_(VEK_HTTP2_CONN_STATE_INIT),
      cause_(VEK_HTTP2_CONN_CLOSE_CAUSE_NONE),
      epfd_(-1),
      auto429ResponseCount_(0),
      cancelCount_(0),
      ping_send_time_(std::chrono::system_clock::now()),
      user_callback_(nullptr),
      user_callback_args_(nullptr),
      last_recv_time_(ping_send_time_),
      last_send_time_(ping_send_time_),
      ping_send_flag_(false),
      ping_recv_flag_(false),
      enableSend_(false),
      generation_(0),
      refusal_(std::make_unique<VEK_ST_HTTP2_RESPONSE>()),
      output_(std::make_unique<CVEKHttp2Output>()),
      lastRequest_(requestMap_.end()),
      received_(0),
      headerBytes_(0) {
    VEK_COPY_TEXT(refusal_->rs_, REFUSED_STATUS);
    refusal_->payload_ = {0, 0, nullptr};
}

CVEKHttp2Response::~CVEKHttp2Response() {
    Disconnect();
    std::for_each(responses_.begin(), responses_.end(), VEK_DELETE_RECORD<VEK_ST_HTTP2_RESPONSE>);
}

bool CVEKHttp2Response::Initialize(const char* name, const VEK_ST_HTTP2_OPTIONS* options) {
    if (!requests_.empty()) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) alreay initialized...", name_.c_str());
        return false;
    }
    name_ = name;
    options_ = *options;
    VEK_HTTP2_SET_DEFAULTS(options_);
    try {
        return FillPools();
    } catch (const std::bad_alloc&) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%%) memory allocate failed...");  // no name: meant
        return false;
    }
}

bool CVEKHttp2Response::FillPools() {
    responses_.reserve(options_.nMaxConcurrentStream_);
    for (uint32_t i = 0; i < options_.nMaxConcurrentStream_; ++i) {
        CVEKHttp2StreamData* request = NewStreamData();
        if (request == nullptr) {
            return false;
        }
        requestPool_.push_back(request);
        auto* response = VEK_NEW_RECORD<VEK_ST_HTTP2_RESPONSE>(options_.nMaxPayloadSize_);
        if (response == nullptr) {
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%%) memory allocate failed...");  // no name: meant
            return false;
        }
        responses_.push_back(response);
        responsePool_.push_back(response);
    }
    return true;
}

bool CVEKHttp2Response::Initialize(const char* name,
                                   const uint32_t (&slots)[VEK_HTTP2_OPTION_COUNT]) {
    const VEK_ST_HTTP2_OPTIONS options = VEK_HTTP2_OPTION_RECORD(slots);
    return Initialize(name, &options);
}

// A new accumulator, owned by the connection; null after an Error line.
CVEKHttp2StreamData* CVEKHttp2Response::NewStreamData() {
    std::unique_ptr<CVEKHttp2StreamData> request(new (std::nothrow) CVEKHttp2StreamData);
    if (request == nullptr || !request->Initialize(options_.nMaxPayloadSize_)) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%%) memory allocate failed...");  // no name: meant
        return nullptr;
    }
    requests_.push_back(std::move(request));
    return requests_.back().get();
}

bool CVEKHttp2Response::Accept(int fd, const char* ip, int port, bool isEvent) {
    isUpgrade_ = true;
    return AcceptSocket(fd, ip, port, nullptr, isEvent);
}

bool CVEKHttp2Response::Accept(int fd, const char* ip, int port, SSL_CTX* ctx, bool isEvent) {
    isUpgrade_ = false;
    return AcceptSocket(fd, ip, port, ctx, isEvent);
}

bool CVEKHttp2Response::AcceptSocket(int fd, const char* ip, int port, SSL_CTX* ctx, bool isEvent) {
    Disconnect();  // what an earlier connection may have left open
    ip_ = ip;
    port_ = port;
    fd_ = fd;
    SetState(VEK_HTTP2_CONN_STATE_INIT, VEK_HTTP2_CONN_CLOSE_CAUSE_NONE);
    ReturnRecords();  // again, now that no answer to the earlier connection is taken any more
    const bool isWatched = isEvent || InitInternalEvent();
    // Also after a failure: from here on the transport closes the descriptor.
    const bool isReady = transport_.SetFD(fd, isWatched ? ctx : nullptr,
                                          ctx == nullptr ? 0 : VEK_SOCKET_MODE_ACCEPT);
    if (!isWatched || !isReady) {
        return false;
    }
    CVEKSocketNew::SET_NONBLOCK(fd);
    CVEKSocketNew::SET_NODELAY(fd);
    SetDefaultHeader();
    isEvent_ = isEvent;
    return InitHttp2Session();
}

bool CVEKHttp2Response::EnableDump(const char* path, const char* name, int maxFileSize,
                                   const char* srcIP, const char* destIP) {
    return transport_.EnableDump(path, name, maxFileSize, srcIP, destIP);
}

void CVEKHttp2Response::DisableDump() {
    transport_.DisableDump();
}

void CVEKHttp2Response::Disconnect() {
    if (session_ != nullptr) {
        CloseSession();
        nghttp2_session_del(session_);
        session_ = nullptr;
    }
    output_->Clear();
    ReturnRecords();

    if (epfd_ != -1) {
        if (fd_ >= 1 && epoll_ctl(epfd_, EPOLL_CTL_DEL, fd_, nullptr) != 0) {
            VEK_SYSTEM_CALL_LOG("epoll_ctl() system call error. %d,%d", epfd_, fd_);
        }
        close(epfd_);
        epfd_ = -1;
    }
    if (fd_ > 0) {
        transport_.Clear();
        fd_ = -1;
    }
}

// A record that another thread is just filling is in no list or map; it comes back by itself.
void CVEKHttp2Response::ReturnRecords() {
    {
        const std::lock_guard<std::mutex> guard(mutexQ_);
        ++generation_;
        for (const auto& [stream, record] : responseMap_) {
            responsePool_.push_back(record);
        }
        responsePool_.insert(responsePool_.end(), responseList_.begin(), responseList_.end());
        responsePool_.insert(responsePool_.end(), strays_.begin(), strays_.end());
        responseList_.clear();
    }
    responseMap_.clear();
    strays_.clear();
    for (const auto& [stream, request] : requestMap_) {
        request->SetListed(false);
        requestPool_.push_back(request);
    }
    requestMap_.clear();
    lastRequest_ = requestMap_.end();
    requestList_.clear();
}

int CVEKHttp2Response::write(const char* buf, size_t len) {
    return transport_.Send(buf, len);
}

int CVEKHttp2Response::read(char* buf, size_t len) {
    return transport_.Recv(buf, len);
}

int CVEKHttp2Response::read(char* buf, const char* delim, int max) {
    return transport_.Recv(buf, delim, max);
}

int CVEKHttp2Response::Request(VEK_ST_HTTP2_REQUEST_RECV* out) {
    if (!Core::IsLive(*this)) {
        return -1;
    }
    const bool isFound = GetRequest(out);
    if (isFound || isEvent_) {
        return isFound ? 1 : 0;
    }
    return RecvRequest(out);
}

bool CVEKHttp2Response::GetRequest(VEK_ST_HTTP2_REQUEST_RECV* out) {
    if (requestList_.empty()) {
        out->streamId_ = -1;
        return false;
    }
    const auto [stream, request] = requestList_.front();
    requestList_.pop_front();
    if (request == nullptr) {
        *out = {stream, &noHeaders_, 0, nullptr, 0};
        return true;
    }
    request->SetListed(false);
    out->streamId_ = stream;
    out->hdr_ = request->GetRequestHeader();
    out->size_ = request->GetRequestPayload(&out->data_);
    out->error_ = request->GetError();
    request->SetTimeout();
    return true;
}

int CVEKHttp2Response::RecvRequest(VEK_ST_HTTP2_REQUEST_RECV* out) {
    if (ProcEventPre() == -1) {
        return -1;
    }
    switch (Core::WaitOut(*this, IsSendDataExist() ? 0 : VEK_HTTP2_WAIT_MS)) {
        case VEK_HTTP2_EVENT_FAILED:
            VEK_SYSTEM_CALL_LOG("epoll_wait() failed!...");
            return -1;
        case VEK_HTTP2_EVENT_ERROR:
            SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_EVENT_ERROR);
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) event error dispatch!...", name_.c_str());
            return -1;
        case VEK_HTTP2_EVENT_READY:
            if (!ProcEvent()) {
                return -1;
            }
            break;
        default:
            break;
    }
    return GetRequest(out) ? 1 : 0;
}

int CVEKHttp2Response::Response(const VEK_ST_HTTP2_RESPONSE* resp, bool wait) {
    VEK_ST_HTTP2_RESPONSE* record = nullptr;
    int generation = 0;
    int result = TakeResponseRecord(wait, &record, &generation);
    if (result != 1) {
        return result;
    }
    try {
        CopyResponse(*resp, *record);
    } catch (const std::bad_alloc&) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%%) memory allocate failed...");  // no name: meant
        result = -3;
    }
    const std::lock_guard<std::mutex> guard(mutexQ_);
    if (result != 1 || generation != generation_) {
        responsePool_.push_back(record);
        return -3;
    }
    responseList_.push_back(record);
    return 1;
}

void CVEKHttp2Response::CopyResponse(const VEK_ST_HTTP2_RESPONSE& resp,
                                     VEK_ST_HTTP2_RESPONSE& record) const {
    record.streamId_ = resp.streamId_;
    memcpy(record.rs_, resp.rs_, sizeof record.rs_);
    record.rs_[sizeof record.rs_ - 1] = '\0';
    record.hdr_ = resp.hdr_;
    // The size stays as given, so that a payload that is too large is refused at submission.
    record.payload_.size_ = resp.payload_.size_;
    const size_t copied = std::min<size_t>(resp.payload_.size_, options_.nMaxPayloadSize_);
    if (copied > 0) {
        memcpy(record.payload_.data_, resp.payload_.data_, copied);
    }
}

// Returns 1 with a free record, else what Response is to return.
int CVEKHttp2Response::TakeResponseRecord(bool wait, VEK_ST_HTTP2_RESPONSE** record,
                                          int* generation) {
    if (!Core::IsOpen(*this)) {
        return -3;
    }
    if (!wait) {
        *record = Core::PopRecord(*this, responsePool_, generation);
        if (*record == nullptr) {
            SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
            return 0;
        }
        return 1;
    }
    const int result = Core::AwaitRecord(*this, responsePool_, record, generation);
    if (result == -2) {
        SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) response full timeout!..", name_.c_str());
    }
    return result;
}

void CVEKHttp2Response::PushResponsePool(VEK_ST_HTTP2_RESPONSE* record) {
    const std::lock_guard<std::mutex> guard(mutexQ_);
    responsePool_.push_back(record);
}

int CVEKHttp2Response::GetIncompleteCount() {
    if (!Core::IsOpen(*this)) {
        return 0;
    }
    const std::lock_guard<std::mutex> guard(mutexQ_);
    return static_cast<int>(options_.nMaxConcurrentStream_ - responsePool_.size());
}

int CVEKHttp2Response::Get429ResponseCount() {
    const std::lock_guard<std::mutex> guard(mutexS_);
    return std::exchange(auto429ResponseCount_, 0);
}

int CVEKHttp2Response::GetCancelCount() {
    const std::lock_guard<std::mutex> guard(mutexS_);
    return std::exchange(cancelCount_, 0);
}

void CVEKHttp2Response::SetUserCallback(VEK_HTTP2_RESPONSE_USER_CALLBACK fn, void* args) {
    user_callback_ = fn;
    user_callback_args_ = args;
}

bool CVEKHttp2Response::IsSendDataExist() {
    const std::lock_guard<std::mutex> guard(mutexQ_);
    return !responseList_.empty();
}

bool CVEKHttp2Response::IsSendBlocked() const {
    return output_->IsBlocked();
}

void CVEKHttp2Response::DebugPrint() {
    const std::lock_guard<std::mutex> guard(mutexQ_);
    VEK_SERVICE_LOG(VEK_LOG_INFO, "debug response-list %d , request-Map-%d, response-pool %lu",
                    static_cast<int>(responseList_.size()), static_cast<int>(requestMap_.size()),
                    static_cast<unsigned long>(responsePool_.size()));
    if (!requestMap_.empty()) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "REMAIN %d", requestMap_.begin()->first);
    }
}

void CVEKHttp2Response::SetState(int state, int cause) {
    Core::SetState(*this, state, cause);
}

int CVEKHttp2Response::GetState() {
    return Core::GetState(*this);
}

int CVEKHttp2Response::GetStateCause() {
    return Core::GetStateCause(*this);
}

int CVEKHttp2Response::ProcEventPre() {
    if (!IsValid()) {
        return -1;
    }
    const int result = SendResponse();
    if (result != 1) {
        return result;
    }
    return FlushOrClose() ? 1 : -1;
}

bool CVEKHttp2Response::ProcEvent() {
    return Core::Receive(*this) && FlushOrClose() && Core::EndPass(*this);
}

bool CVEKHttp2Response::IsValid() {
    return Core::IsValid(*this);
}

bool CVEKHttp2Response::SendPing() {
    if (!Core::SubmitPing(*this)) {
        return false;
    }
    const int result = Core::Flush(*this);
    if (result != 0 && result != NGHTTP2_ERR_EOF) {  // an end of file is tolerated: meant
        if (GetState() != VEK_HTTP2_CONN_STATE_CLOSE) {
            SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR);
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_session_send() failed...%s",
                            name_.c_str(), nghttp2_strerror(result));
        }
        return false;
    }
    Core::MarkPingSent(*this);
    return true;
}

bool CVEKHttp2Response::InitHttp2Session() {
    if (G_VEK_HTTP2_DETAIL_LOG) {
        VEK_HTTP2_LOG_OPTIONS(name_.c_str(), options_, "DEFALUT");  // spelt so: meant
    }
    std::string settings;
    if (isUpgrade_ && !VEK_HTTP2_SERVER_UPGRADE(this, settings)) {
        return false;
    }
    int result = Core::CreateSession(*this, nghttp2_session_server_new2);
    if (result != 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_session_server_new2() error!...%s",
                        name_.c_str(), nghttp2_strerror(result));
        return false;
    }
    if (isUpgrade_) {
        result =
            nghttp2_session_upgrade2(session_, reinterpret_cast<const uint8_t*>(settings.data()),
                                     settings.size(), 0, nullptr);
        if (result != 0) {
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_session_upgrade2() failed!...%s",
                            name_.c_str(), nghttp2_strerror(result));
            return false;
        }
    }
    if (!SettingNegotiation() || !Core::SetLocalWindow(*this)) {
        return false;
    }
    SetState(VEK_HTTP2_CONN_STATE_OPEN, VEK_HTTP2_CONN_CLOSE_CAUSE_NONE);
    last_recv_time_ = std::chrono::system_clock::now();
    last_send_time_ = last_recv_time_;
    ping_send_flag_ = false;  // a PING of an earlier session is none of this one's
    ping_recv_flag_ = false;
    user_callback_ = nullptr;
    {
        const std::lock_guard<std::mutex> guard(mutexS_);
        auto429ResponseCount_ = 0;
        cancelCount_ = 0;
    }
    VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) http session initialized...", name_.c_str());
    return true;
}

int CVEKHttp2Response::SendSettingsHdr() {
    if (session_ == nullptr) {
        return -1;
    }
    const nghttp2_settings_entry entries[] = {
        {NGHTTP2_SETTINGS_MAX_CONCURRENT_STREAMS, options_.nMaxConcurrentStream_},
        {NGHTTP2_SETTINGS_INITIAL_WINDOW_SIZE, options_.nDefaultWindowSize_},
        {NGHTTP2_SETTINGS_MAX_FRAME_SIZE, options_.nDefaultFrameSize_},
        {NGHTTP2_SETTINGS_HEADER_TABLE_SIZE, options_.nMaxHeaderTableSize_},
    };
    const int result = nghttp2_submit_settings(session_, NGHTTP2_FLAG_NONE, entries,
                                               sizeof entries / sizeof entries[0]);
    if (result != 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_submit_settings() failed...: %s",
                        name_.c_str(), nghttp2_strerror(result));
        return -1;
    }
    return 0;
}

bool CVEKHttp2Response::SettingNegotiation() {
    return SendSettingsHdr() != -1;
}

bool CVEKHttp2Response::InitInternalEvent() {
    epfd_ = VEK_HTTP2_OPEN_EVENT(fd_);
    return epfd_ != -1;
}

void CVEKHttp2Response::CloseSession() {
    if (session_ == nullptr) {
        return;
    }
    switch (GetStateCause()) {
        case VEK_HTTP2_CONN_CLOSE_CAUSE_NONE: {
            Core::Terminate(*this, NGHTTP2_NO_ERROR);
            const std::lock_guard<std::mutex> guard(mutexS_);
            cause_ = VEK_HTTP2_CONN_CLOSE_CAUSE_SELF;  // without a change of state: meant
            break;
        }
        case VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR:
            break;
        default:
            Core::Terminate(*this, NGHTTP2_INTERNAL_ERROR);
            break;
    }
    VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) closed...", name_.c_str());
}

void CVEKHttp2Response::SetDefaultHeader() {
    nHdrs_ = 1;
}

int CVEKHttp2Response::SendResponse() {
    VEK_ST_HTTP2_RESPONSE* record = nullptr;
    {
        const std::lock_guard<std::mutex> guard(mutexQ_);
        if (responseList_.empty()) {
            return 0;
        }
        record = responseList_.front();
        responseList_.pop_front();
    }
    const int result = SendResponse(record);
    if (result != 1) {
        PushResponsePool(record);
        return result == 0 ? 1 : -1;
    }
    if (!responseMap_.emplace(static_cast<unsigned int>(record->streamId_), record).second) {
        // The engine refers to the record, which stays out of the pool until Disconnect: meant.
        strays_.push_back(record);
        VEK_SERVICE_LOG(VEK_LOG_WARNING, "conn(%s) stream(%d) duplicate...", name_.c_str(),
                        record->streamId_);
    }
    return 1;
}

int CVEKHttp2Response::SendResponse(VEK_ST_HTTP2_RESPONSE* record) {
    const int count = session_ == nullptr ? -1 : PrepareResponse(record);
    if (count == -1) {
        return -1;
    }
    if (count == -2) {
        VEK_SERVICE_LOG(VEK_LOG_WARNING, "conn(%s) stream(%d) alreay closed or invalid...",
                        name_.c_str(), record->streamId_);
        return 0;
    }
    if (strcmp(record->rs_, RESET_STATUS) == 0) {
        SendSystemError(record->streamId_);
        return -1;  // also after a reset that went well: meant
    }
    nghttp2_data_provider provider{};
    provider.source.ptr = &record->payload_;
    provider.read_callback = VEK_HTTP2_READ_PAYLOAD;
    record->payload_.rSize_ = 0;
    const int result = nghttp2_submit_response(session_, record->streamId_, record->hdrs_,
                                               static_cast<size_t>(count),
                                               record->payload_.size_ > 0 ? &provider : nullptr);
    if (result != 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_submit_response() failed!...%s",
                        name_.c_str(), nghttp2_strerror(result));
        return -1;
    }
    return 1;
}

int CVEKHttp2Response::PrepareResponse(VEK_ST_HTTP2_RESPONSE* record) {
    if (!IsRequestExist(record->streamId_)) {
        VEK_SERVICE_LOG(VEK_LOG_WARNING, "conn(%s) stream(%d) not found!..(may alreay closed...)",
                        name_.c_str(), record->streamId_);
        return -2;
    }
    if (record->payload_.size_ > options_.nMaxPayloadSize_) {
        SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) payload size(%lu) overflow!...", name_.c_str(),
                        static_cast<unsigned long>(record->payload_.size_));
        return -1;
    }
    int count = 0;
    record->hdrs_[count++] = VEK_HTTP2_PSEUDO_FIELD(":status", record->rs_);
    for (const auto& [name, value] : record->hdr_) {
        if (count < VEK_HTTP2_MAX_HEADERS) {
            record->hdrs_[count++] =
                VEK_HTTP2_FIELD(name.data(), name.size(), value.data(), value.size());
        } else {
            VEK_SERVICE_LOG(VEK_LOG_WARNING, "too many http headers(%d,%s:%s)...ignore!", count,
                            name.c_str(), value.c_str());
        }
    }
    return count;
}

bool CVEKHttp2Response::SendSystemError(int streamId) {
    if (session_ == nullptr) {
        return false;
    }
    const int result =
        nghttp2_submit_rst_stream(session_, NGHTTP2_FLAG_NONE, streamId, NGHTTP2_INTERNAL_ERROR);
    if (result != 0) {
        SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_submit_rst_stream() failed!...%s",
                        name_.c_str(), nghttp2_strerror(result));
    }
    return false;
}

void CVEKHttp2Response::CloseResponse(int streamId) {
    const auto found = responseMap_.find(static_cast<unsigned int>(streamId));
    if (found != responseMap_.end()) {
        PushResponsePool(found->second);
        responseMap_.erase(found);
    }
}

bool CVEKHttp2Response::DoProcUpgradeWithRequest(const VEK_HTTP2_HEADER& headers, const char* body,
                                                 size_t length) {
    if (requestPool_.empty()) {
        return false;
    }
    CVEKHttp2StreamData* request = requestPool_.back();
    requestPool_.pop_back();
    request->New(UPGRADE_STREAM);
    for (const auto& [name, value] : headers) {
        request->AddRequestHeader(name.c_str(), value.c_str());
    }
    if (!request->SetRequestPayload(body, length)) {
        request->SetPayloadError();
    }
    if (!requestMap_.emplace(UPGRADE_STREAM, request).second) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) stream_id(%d) duplicate!....", name_.c_str(),
                        UPGRADE_STREAM);
        requestPool_.push_back(request);
        return false;
    }
    request->SetListed(true);
    requestList_.emplace_back(UPGRADE_STREAM, request);
    return true;
}

bool CVEKHttp2Response::CreateHttp2StreamData(int streamId) {
    CVEKHttp2StreamData* request = nullptr;
    if (requestPool_.empty()) {
        VEK_SERVICE_LOG(VEK_LOG_WARNING, "conn(%s) stream buffer full!...%d %lu..try more allocate",
                        name_.c_str(), streamId, static_cast<unsigned long>(requestMap_.size()));
        request = NewStreamData();
        if (request == nullptr) {
            return false;
        }
    } else {
        request = requestPool_.back();
        requestPool_.pop_back();
    }
    request->New(streamId);
    if (!requestMap_.emplace(streamId, request).second) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) stream_id(%d) duplicate!....", name_.c_str(),
                        streamId);
        requestPool_.push_back(request);
        return false;
    }
    return true;
}

bool CVEKHttp2Response::UpdateHdrRecv(int streamId, const char* name, const char* value) {
    const auto found = FindRequest(streamId);
    if (found == requestMap_.end()) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) stream_id(%d) not found...", name_.c_str(),
                        streamId);
        return false;
    }
    found->second->AddRequestHeader(name, value);
    return true;
}

bool CVEKHttp2Response::UpdatePayloadRecv(int streamId, const char* data, size_t len) {
    const auto found = FindRequest(streamId);
    if (found == requestMap_.end()) {
        return false;
    }
    if (!found->second->SetRequestPayload(data, len)) {
        found->second->SetPayloadError();
    }
    return true;
}

bool CVEKHttp2Response::OnRequestRecv(int streamId) {
    const auto found = FindRequest(streamId);
    if (found == requestMap_.end()) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) stream_id(%d) not found...", name_.c_str(),
                        streamId);
        return false;
    }
    // This stream counts, so one request fewer than the limit is accepted at once: meant.
    if (requestMap_.size() >= options_.nMaxConcurrentStream_) {
        return RefuseRequest(streamId);
    }
    found->second->SetListed(true);
    requestList_.emplace_back(streamId, found->second);
    return true;
}

bool CVEKHttp2Response::RefuseRequest(int streamId) {
    VEK_SERVICE_LOG(VEK_LOG_WARNING, "Too many request automatic response...");
    refusal_->streamId_ = streamId;
    {
        const std::lock_guard<std::mutex> guard(mutexS_);
        ++auto429ResponseCount_;
    }
    if (user_callback_ != nullptr) {
        user_callback_(VEK_HTTP2_USER_EVENT_REFUSED, 0, 0, this, user_callback_args_);
    }
    return SendResponse(refusal_.get()) == 1;
}

void CVEKHttp2Response::RSTRecv(int streamId, int errorCode) {
    VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) received RST_STREAM frame! stream_id(%d) cause(%d)",
                    name_.c_str(), streamId, errorCode);
    if (user_callback_ != nullptr && IsRequestExist(streamId)) {
        user_callback_(VEK_HTTP2_USER_EVENT_RESET, streamId, errorCode, this, user_callback_args_);
    }
    const std::lock_guard<std::mutex> guard(mutexS_);
    ++cancelCount_;
}

// A complete request that the application has not taken yet stays in requestList_ and is handed out
// without headers: meant. Its accumulator is free for the next stream at once.
void CVEKHttp2Response::DeleteHttp2StreamData(int streamId) {
    const auto found = FindRequest(streamId);
    if (found == requestMap_.end()) {
        VEK_SERVICE_LOG(VEK_LOG_WARNING, "conn(%s) stream_id(%d) not found!", name_.c_str(),
                        streamId);
        return;
    }
    CVEKHttp2StreamData* request = found->second;
    requestMap_.erase(found);
    lastRequest_ = requestMap_.end();
    request->Reset();
    if (request->IsListed()) {
        request->SetListed(false);
        // From the back: a peer that resets its streams does so soon.
        const auto entry =
            std::find(requestList_.rbegin(), requestList_.rend(), std::pair(streamId, request));
        entry->second = nullptr;
    }
    requestPool_.push_back(request);
}

bool CVEKHttp2Response::IsRequestExist(int streamId) {
    return FindRequest(streamId) != requestMap_.end();
}

// What arrives for a stream mostly comes in a row: the place found last is looked at first.
CVEKHttp2Response::RequestMap::iterator CVEKHttp2Response::FindRequest(int streamId) {
    if (lastRequest_ == requestMap_.end() || lastRequest_->first != streamId) {
        lastRequest_ = requestMap_.find(streamId);
    }
    return lastRequest_;
}

int CVEKHttp2Response::OnFrameRecv(const nghttp2_frame* frame) {
    const int32_t stream = frame->hd.stream_id;
    switch (frame->hd.type) {
        case NGHTTP2_DATA:
        case NGHTTP2_HEADERS:
            return (frame->hd.flags & NGHTTP2_FLAG_END_STREAM) == 0 || OnRequestRecv(stream)
                       ? 0
                       : NGHTTP2_ERR_CALLBACK_FAILURE;
        case NGHTTP2_RST_STREAM:
            RSTRecv(stream, static_cast<int>(frame->rst_stream.error_code));
            return 0;
        case NGHTTP2_SETTINGS:
            if (G_VEK_HTTP2_DETAIL_LOG) {
                VEK_HTTP2_LOG_SETTINGS(name_.c_str(), frame->settings, "-");
            }
            return 0;
        case NGHTTP2_PING:
            Core::OnPingRecv(*this, frame);
            return 0;
        case NGHTTP2_GOAWAY:
            VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) receive GOAWAY Frame(%d)...", name_.c_str(),
                            static_cast<int>(frame->goaway.error_code));
            SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_PEER);
            return 0;
        case NGHTTP2_WINDOW_UPDATE:
            return 0;
        default:
            VEK_SERVICE_LOG(VEK_LOG_INFO, "RECV FRAME(%d)!...", frame->hd.type);
            return 0;
    }
}

int CVEKHttp2Response::OnFrameSend(const nghttp2_frame* frame) {
    last_send_time_ = passTime_;
    if (frame->hd.type == NGHTTP2_PUSH_PROMISE) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "PUSH_PROMISE");
    } else if (frame->hd.type == NGHTTP2_PING && G_VEK_HTTP2_DETAIL_LOG) {
        const bool isAck = (frame->hd.flags & NGHTTP2_FLAG_ACK) != 0;
        VEK_SERVICE_LOG(VEK_LOG_INFO, isAck ? "SEND PING ACK" : "SEND PING");
    }
    return 0;
}

int CVEKHttp2Response::OnStreamClose(int32_t stream) {
    DeleteHttp2StreamData(stream);
    CloseResponse(stream);
    return 0;
}

int CVEKHttp2Response::OnBeginHeaders(const nghttp2_frame* frame) {
    return !IsRequestHeaders(frame) || CreateHttp2StreamData(frame->hd.stream_id)
               ? 0
               : NGHTTP2_ERR_CALLBACK_FAILURE;
}

int CVEKHttp2Response::OnHeader(const nghttp2_frame* frame, const char* name, const char* value) {
    return !IsRequestHeaders(frame) || UpdateHdrRecv(frame->hd.stream_id, name, value)
               ? 0
               : NGHTTP2_ERR_CALLBACK_FAILURE;
}

int CVEKHttp2Response::OnHeaderOverflow(const nghttp2_frame* frame, bool /*isFirst*/) {
    VEK_SERVICE_LOG(VEK_LOG_WARNING, "conn(%s) stream(%d) header list too large!...reset",
                    name_.c_str(), frame->hd.stream_id);
    return NGHTTP2_ERR_TEMPORAL_CALLBACK_FAILURE;  // resets the stream, not the connection
}

int CVEKHttp2Response::OnDataChunkRecv(int32_t stream, const char* data, size_t len) {
    return UpdatePayloadRecv(stream, data, len) ? 0 : NGHTTP2_ERR_CALLBACK_FAILURE;
}

// The engine reports an invalid header field here and to OnError as well, after it has reset the
// stream: nothing else is to be done about it.
int CVEKHttp2Response::OnInvalidFrameRecv(int error) {
    if (error == NGHTTP2_ERR_HTTP_HEADER) {
        return 0;
    }
    SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
    VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/2 invalid frame recv callback-%s",
                    nghttp2_strerror(error));
    return NGHTTP2_ERR_CALLBACK_FAILURE;
}

int CVEKHttp2Response::OnError(int error, const char* text, size_t len) {
    if (error == NGHTTP2_ERR_HTTP_HEADER) {
        return 0;
    }
    SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
    VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/2 error callback-%.*s", static_cast<int>(len), text);
    return NGHTTP2_ERR_CALLBACK_FAILURE;
}

int CVEKHttp2Response::OnFrameNotSend(const nghttp2_frame* frame, int error) {
    if (!IsRequestHeaders(frame)) {
        return 0;
    }
    SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
    VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/2 not send callback-%s", nghttp2_strerror(error));
    return NGHTTP2_ERR_CALLBACK_FAILURE;
}

// Flushes; a failure closes the connection.
bool CVEKHttp2Response::FlushOrClose() {
    const int result = Core::Flush(*this);
    if (result == 0) {
        return true;
    }
    SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR);
    VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_session_send() failed...%s", name_.c_str(),
                    nghttp2_strerror(result));
    return false;
}
