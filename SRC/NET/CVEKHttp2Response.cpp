#include "CVEKHttp2Response.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <new>

#include "CVEKHttp2Link.h"
#include "CVEKHttp2LinkHandler.h"
#include "CVEKHttp2ResponseRecords.h"
#include "CVEKHttp2ServerUpgrade.h"
#include "CVEKHttp2Setup.h"
#include "VEKHttp2Field.h"
#include "VEKHttp2Log.h"
#include "VEKLogText.h"
#include "VEKServiceLog.h"

namespace {

const char REFUSED_STATUS[] = "429";
const char RESET_STATUS[] = "000";  // resets the stream instead of answering

bool IsRequestHeaders(const nghttp2_frame* frame) {
    return frame->hd.type == NGHTTP2_HEADERS && frame->headers.cat == NGHTTP2_HCAT_REQUEST;
}

}  // namespace

// The way back from the link.
class CVEKHttp2Response::Handler : public CVEKHttp2LinkHandler {
  public:
    explicit Handler(CVEKHttp2Response& connection) : conn_(connection) {}

    bool OnTransportReady(CVEKHttp2Setup& setup) override { return conn_.OnTransportReady(setup); }
    bool OnSetupDone(const CVEKHttp2Setup& setup) override {
        const CVEKHttp2ServerUpgrade* upgrade = setup.GetServerUpgrade();
        return upgrade == nullptr
                   ? conn_.OpenSession({})
                   : conn_.TakeUpgrade(setup) && conn_.OpenSession(upgrade->GetSettings());
    }
    void OnStateChange() override { conn_.records_->GetResponses().Wake(); }
    void OnTrim() override { conn_.records_->Trim(); }
    bool HasDataToSend() const override {
        return conn_.records_->HasResponse(
            [this](int stream) { return conn_.link_->GetLocalClose(stream) == 0; });
    }

    int OnFrameRecv(const nghttp2_frame* frame) override {
        return Judge(conn_.OnFrameRecv(frame) == 0);
    }
    int OnFrameSend(const nghttp2_frame* frame) override {
        if (frame->hd.type == NGHTTP2_PUSH_PROMISE) {
            VEK_PEER_LOG(VEK_LOG_INFO, "PUSH_PROMISE");
        } else if (frame->hd.type == NGHTTP2_PING && G_VEK_HTTP2_DETAIL_LOG) {
            const bool isAck = (frame->hd.flags & NGHTTP2_FLAG_ACK) != 0;
            VEK_SERVICE_LOG(VEK_LOG_INFO, isAck ? "SEND PING ACK" : "SEND PING");
        }
        return 0;
    }
    int OnStreamClose(int32_t stream, uint32_t /*error*/) override {
        conn_.DeleteHttp2StreamData(stream);
        conn_.CloseResponse(stream);
        return 0;
    }
    int OnBeginHeaders(const nghttp2_frame* frame) override {
        return Judge(!IsRequestHeaders(frame) || conn_.CreateHttp2StreamData(frame->hd.stream_id));
    }
    int OnHeader(const nghttp2_frame* frame, std::string_view name,
                 std::string_view value) override {
        return Judge(!IsRequestHeaders(frame) ||
                     conn_.UpdateHdrRecv(frame->hd.stream_id, name.data(), value.data()));
    }
    int OnHeaderOverflow(const nghttp2_frame* frame, bool /*isFirst*/) override {
        VEK_PEER_LOG(VEK_LOG_WARNING, "conn(%s) stream(%d) header list too large!...reset",
                     conn_.GetName(), frame->hd.stream_id);
        return NGHTTP2_ERR_TEMPORAL_CALLBACK_FAILURE;  // resets the stream, not the connection
    }
    int OnDataChunkRecv(int32_t stream, const char* data, size_t length) override {
        return Judge(conn_.UpdatePayloadRecv(stream, data, length));
    }
    // The engine reports an invalid header field here and to OnError as well, after it has reset
    // the stream: nothing else is to be done about it.
    int OnInvalidFrameRecv(const nghttp2_frame* /*frame*/, int error) override {
        if (error == NGHTTP2_ERR_HTTP_HEADER || IsContained()) {
            return 0;
        }
        conn_.link_->NoteOffence(error, nghttp2_strerror(error));
        Close();
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/2 invalid frame recv callback-%s",
                        nghttp2_strerror(error));
        return NGHTTP2_ERR_CALLBACK_FAILURE;
    }
    int OnError(int error, std::string_view text) override {
        if (error == NGHTTP2_ERR_HTTP_HEADER) {
            return 0;
        }
        if (IsContained()) {
            VEK_PEER_LOG(VEK_LOG_WARNING, "conn(%s) %s", conn_.GetName(),
                         VEK_ESCAPE_TEXT(text).c_str());
            return 0;
        }
        conn_.link_->NoteOffence(error, text);
        Close();
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/2 error callback-%s", VEK_ESCAPE_TEXT(text).c_str());
        return NGHTTP2_ERR_CALLBACK_FAILURE;
    }
    int OnFrameNotSend(const nghttp2_frame* frame, int error) override {
        if (!IsRequestHeaders(frame)) {
            return 0;
        }
        Close();
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/2 not send callback-%s", nghttp2_strerror(error));
        return NGHTTP2_ERR_CALLBACK_FAILURE;
    }

  private:
    // The engine resets the stream, or says GOAWAY.
    bool IsContained() const { return conn_.link_->GetPolicy().isOffenceContained_; }
    // Records grow beyond every limit: only memory can be missing.
    int Judge(bool isGood) {
        if (!isGood) {
            conn_.link_->Note(VEK_HTTP2_FAILURE_MEMORY);
        }
        return isGood ? 0 : NGHTTP2_ERR_CALLBACK_FAILURE;
    }
    void Close() {
        conn_.SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
    }

    CVEKHttp2Response& conn_;
};

CVEKHttp2Response::CVEKHttp2Response()
    : name_("undefined"),
      port_(0),
      nHdrs_(0),
      isInitialized_(false),
      isUpgrade_(false),
      isEvent_(false),
      auto429ResponseCount_(0),
      cancelCount_(0),
      user_callback_(nullptr),
      user_callback_args_(nullptr),
      records_(std::make_unique<CVEKHttp2ResponseRecords>(name_)),
      handler_(std::make_unique<Handler>(*this)),
      link_(std::make_unique<CVEKHttp2Link>(*handler_, name_)) {}

CVEKHttp2Response::~CVEKHttp2Response() {
    Disconnect();
}

bool CVEKHttp2Response::Initialize(const char* name, const VEK_ST_HTTP2_OPTIONS* options) {
    if (isInitialized_) {
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
    link_->SetOptions(effective);
    records_->SetLimits(effective);
    isInitialized_ = true;
    return true;
}

bool CVEKHttp2Response::Initialize(const char* name,
                                   const uint32_t (&slots)[VEK_HTTP2_OPTION_COUNT]) {
    const VEK_ST_HTTP2_OPTIONS options = VEK_HTTP2_OPTION_RECORD(slots);
    return Initialize(name, &options);
}

void CVEKHttp2Response::SetPolicy(const VEK_ST_HTTP2_POLICY& policy) {
    link_->SetPolicy(policy);
}

bool CVEKHttp2Response::Accept(int fd, const char* ip, int port, bool isEvent) {
    return BeginAccept(fd, ip, port, true, isEvent) && AcceptSocket(nullptr);
}

bool CVEKHttp2Response::Accept(int fd, const char* ip, int port, SSL_CTX* ctx, bool isEvent) {
    return BeginAccept(fd, ip, port, false, isEvent) && AcceptSocket(ctx);
}

// Also after a failure the transport has the descriptor, and closes it.
bool CVEKHttp2Response::BeginAccept(int fd, const char* ip, int port, bool isUpgrade,
                                    bool isEvent) {
    Disconnect();  // what an earlier connection may have left open
    link_->Open(fd);
    link_->GetTransport().SetFD(fd, nullptr, 0);
    port_ = port;
    isUpgrade_ = isUpgrade;
    isEvent_ = isEvent;
    times_ = {};
    SetState(VEK_HTTP2_CONN_STATE_INIT, VEK_HTTP2_CONN_CLOSE_CAUSE_NONE);
    try {
        ip_ = ip;
    } catch (const std::bad_alloc&) {
        link_->Note(VEK_HTTP2_FAILURE_MEMORY);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) memory allocate failed...", name_.c_str());
        return false;
    }
    records_->Reset();  // again, now that no answer to the earlier connection is taken any more
    return isEvent || InitInternalEvent();
}

bool CVEKHttp2Response::AcceptSocket(SSL_CTX* ctx) {
    CVEKHttp2Setup setup(link_->GetTransport(), name_.c_str());
    link_->LimitSetup(setup);
    if (!setup.StartAccepted(link_->GetSocket(), ctx) || !setup.RunTransport()) {
        link_->NoteSetup(setup);
        return false;
    }
    times_ = setup.GetTimes();
    SetDefaultHeader();
    const bool isUp = InitHttp2Session();
    if (!isUp) {
        link_->Note(VEK_HTTP2_FAILURE_INTERNAL, "session cannot be set up");  // if nothing else
    }
    return isUp;
}

bool CVEKHttp2Response::StartAccept(int fd, const char* ip, int port, SSL_CTX* ctx, bool isEvent) {
    if (!BeginAccept(fd, ip, port, false, isEvent)) {
        return false;
    }
    CVEKHttp2Setup* setup = link_->BeginSetup();
    return setup != nullptr && NoteStart(*setup, setup->StartAccepted(fd, ctx));
}

bool CVEKHttp2Response::StartAccept(int fd, const char* ip, int port, bool isEvent) {
    if (!BeginAccept(fd, ip, port, true, isEvent)) {
        return false;
    }
    CVEKHttp2Setup* setup = link_->BeginSetup();
    return setup != nullptr && NoteStart(*setup, setup->StartAccepted(fd, nullptr));
}

bool CVEKHttp2Response::StartAcceptAny(int fd, const char* ip, int port, bool isEvent) {
    if (!BeginAccept(fd, ip, port, false, isEvent)) {
        return false;
    }
    CVEKHttp2Setup* setup = link_->BeginSetup();
    return setup != nullptr && NoteStart(*setup, setup->StartDetect(fd));
}

bool CVEKHttp2Response::NoteStart(const CVEKHttp2Setup& setup, bool isStarted) {
    if (!isStarted) {
        link_->NoteSetup(setup);
        link_->CancelSetup();
    }
    return isStarted;
}

bool CVEKHttp2Response::OnTransportReady(CVEKHttp2Setup& setup) {
    isUpgrade_ = isUpgrade_ || setup.IsUpgradeExpected();
    times_ = setup.GetTimes();
    SetDefaultHeader();
    LogSession();
    if (isUpgrade_) {
        setup.StartServerUpgrade();
    }
    return true;
}

int CVEKHttp2Response::Advance() {
    return link_->Advance();
}

short CVEKHttp2Response::GetWaitEvents() const {
    return link_->GetWaitEvents();
}

std::chrono::steady_clock::time_point CVEKHttp2Response::GetWaitDeadline() const {
    return link_->GetWaitDeadline();
}

bool CVEKHttp2Response::EnableDump(const char* path, const char* name, int maxFileSize,
                                   const char* srcIP, const char* destIP,
                                   const VEK_ST_DUMP_OPTIONS& options) {
    return link_->GetTransport().EnableDump(path, name, maxFileSize, srcIP, destIP, options);
}

void CVEKHttp2Response::DisableDump() {
    link_->GetTransport().DisableDump();
}

void CVEKHttp2Response::Disconnect() {
    link_->CancelSetup();
    CloseSession();
    link_->DeleteSession();
    records_->Reset();
    const int epfd = link_->GetEvent();
    if (!link_->CloseEvent()) {
        VEK_SYSTEM_CALL_LOG("epoll_ctl() system call error. %d,%d", epfd, link_->GetSocket());
    }
    link_->CloseSocket();
}

int CVEKHttp2Response::GetSocket() const {
    return link_->GetSocket();
}

VEK_ST_TLS_INFO CVEKHttp2Response::GetTlsInfo() const {
    VEK_ST_TLS_INFO info = link_->GetTransport().GetTLSInfo();
    info.times_ = times_;
    return info;
}

const VEK_ST_TLS_FAILURE* CVEKHttp2Response::GetTlsFailure() const {
    return link_->GetTransport().GetTLSFailure();
}

int CVEKHttp2Response::write(const char* buf, size_t len) {
    return link_->GetTransport().Send(buf, len);
}

int CVEKHttp2Response::read(char* buf, size_t len) {
    return link_->GetTransport().Recv(buf, len);
}

int CVEKHttp2Response::read(char* buf, const char* delim, int max) {
    return link_->GetTransport().Recv(buf, delim, max);
}

int CVEKHttp2Response::Request(VEK_ST_HTTP2_REQUEST_RECV* out) {
    if (!link_->IsLive()) {
        return VEK_HTTP2_RECEIVE_CLOSED;
    }
    const bool isFound = GetRequest(out);
    if (isFound || isEvent_) {
        return isFound ? VEK_HTTP2_RECEIVE_DONE : VEK_HTTP2_RECEIVE_NONE;
    }
    return RecvRequest(out);
}

bool CVEKHttp2Response::GetRequest(VEK_ST_HTTP2_REQUEST_RECV* out) {
    if (!records_->TakeRequest(*out)) {
        out->streamId_ = -1;
        return false;
    }
    out->ticket_ = records_->GetResponses().GetGeneration();
    return true;
}

int CVEKHttp2Response::RecvRequest(VEK_ST_HTTP2_REQUEST_RECV* out) {
    if (ProcEventPre() == VEK_HTTP2_SUBMIT_FAILED) {
        return VEK_HTTP2_RECEIVE_CLOSED;
    }
    switch (link_->WaitOut(IsSendDataExist() ? 0 : VEK_HTTP2_WAIT_MS)) {
        case VEK_HTTP2_EVENT_FAILED:
            VEK_SYSTEM_CALL_LOG("epoll_wait() failed!...");
            return VEK_HTTP2_RECEIVE_CLOSED;
        case VEK_HTTP2_EVENT_ERROR:
            if (!link_->GetPolicy().isGoawayGraceful_) {
                link_->CloseOnEventError();
                return VEK_HTTP2_RECEIVE_CLOSED;
            }
            [[fallthrough]];  // what came before the error is read first
        case VEK_HTTP2_EVENT_READY:
            if (!ProcEvent()) {
                return VEK_HTTP2_RECEIVE_CLOSED;
            }
            break;
        default:
            break;
    }
    return GetRequest(out) ? VEK_HTTP2_RECEIVE_DONE : VEK_HTTP2_RECEIVE_NONE;
}

int CVEKHttp2Response::Response(const VEK_ST_HTTP2_RESPONSE* resp, bool wait) {
    return QueueResponse(*resp, nullptr, wait);
}

int CVEKHttp2Response::Response(const VEK_ST_HTTP2_RESPONSE* resp, uint64_t ticket, bool wait) {
    return QueueResponse(*resp, &ticket, wait);
}

// ticket: null for an answer to whatever connection there is.
int CVEKHttp2Response::QueueResponse(const VEK_ST_HTTP2_RESPONSE& resp, const uint64_t* ticket,
                                     bool wait) {
    auto& responses = records_->GetResponses();
    const auto isStale = [ticket](uint64_t generation) {
        return ticket != nullptr && *ticket != generation;
    };
    // Asked before a record is wanted, and again where there was none: a stranger's answer takes
    // none and closes nothing.
    if (!link_->IsOpen() || isStale(responses.GetGeneration())) {
        return VEK_HTTP2_RESPONSE_CLOSED;
    }
    CVEKHttp2ResponseRecords::ResponseBox::Lease record;
    const int result = responses.Take(
        wait, [this] { return link_->IsOpen(); }, record);
    if (result == VEK_HTTP2_TAKE_CLOSED && !wait) {
        return result;
    }
    if (result != VEK_HTTP2_TAKE_DONE) {
        const bool isStrange = isStale(responses.GetGeneration());
        return isStrange ? VEK_HTTP2_RESPONSE_CLOSED : RefuseResponse(result);
    }
    if (isStale(record.GetGeneration())) {
        return VEK_HTTP2_RESPONSE_CLOSED;
    }
    try {
        CopyResponse(resp, *record);
    } catch (const std::bad_alloc&) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%%) memory allocate failed...");  // no name: meant
        return VEK_HTTP2_RESPONSE_CLOSED;
    }
    switch (responses.Post(record, link_->GetPolicy().maxHeldBytes_)) {
        case VEK_HTTP2_POST_DONE:
            return VEK_HTTP2_RESPONSE_QUEUED;
        case VEK_HTTP2_POST_HELD:
            return RefuseResponse(VEK_HTTP2_RESPONSE_HELD);
        default:
            return VEK_HTTP2_RESPONSE_CLOSED;
    }
}

// Closes the connection where too many answers wait. Returns the result.
int CVEKHttp2Response::RefuseResponse(int result) {
    switch (result) {
        case VEK_HTTP2_RESPONSE_LATE:
            CloseOnOwnLimit("too many answers");
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) response full timeout!..", name_.c_str());
            break;
        case VEK_HTTP2_RESPONSE_FULL:
            CloseOnOwnLimit("too many answers");
            break;
        case VEK_HTTP2_RESPONSE_HELD:
            CloseOnOwnLimit("too many bytes of answers");
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) too many bytes of answers!..", name_.c_str());
            break;
        default:
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) invalid state!...", name_.c_str());
            break;
    }
    return result;
}

void CVEKHttp2Response::CloseOnOwnLimit(const char* reason) {
    link_->Note(VEK_HTTP2_FAILURE_OWN_LIMIT, reason);
    SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
}

void CVEKHttp2Response::CopyResponse(const VEK_ST_HTTP2_RESPONSE& resp,
                                     VEK_ST_HTTP2_RESPONSE& record) const {
    record.streamId_ = resp.streamId_;
    memcpy(record.rs_, resp.rs_, sizeof record.rs_);
    record.rs_[sizeof record.rs_ - 1] = '\0';
    record.hdr_ = resp.hdr_;
    // The size stays as given, so that a payload that is too large is refused at submission.
    record.payload_.size_ = resp.payload_.size_;
    const size_t copied =
        std::min<size_t>(resp.payload_.size_, link_->GetOptions().nMaxPayloadSize_);
    if (copied > 0) {
        memcpy(record.payload_.data_, resp.payload_.data_, copied);
    }
}

int CVEKHttp2Response::GetIncompleteCount() {
    return link_->IsOpen() ? static_cast<int>(records_->GetResponses().GetUsed()) : 0;
}

int CVEKHttp2Response::Get429ResponseCount() {
    return auto429ResponseCount_.exchange(0);
}

int CVEKHttp2Response::GetCancelCount() {
    return cancelCount_.exchange(0);
}

void CVEKHttp2Response::SetUserCallback(VEK_HTTP2_RESPONSE_USER_CALLBACK fn, void* args) {
    user_callback_ = fn;
    user_callback_args_ = args;
}

bool CVEKHttp2Response::IsSendDataExist() {
    return records_->GetResponses().HasQueued();
}

bool CVEKHttp2Response::IsSendBlocked() const {
    return link_->IsSendBlocked();
}

void CVEKHttp2Response::DebugPrint() {
    const size_t requests = records_->GetRequestCount();
    const VEK_ST_HTTP2_OUTBOX_COUNTS responses = records_->GetResponses().GetCounts();
    VEK_SERVICE_LOG(VEK_LOG_INFO, "debug response-list %d , request-Map-%d, response-pool %lu",
                    static_cast<int>(responses.queued), static_cast<int>(requests),
                    static_cast<unsigned long>(responses.free));
    if (requests > 0) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "REMAIN %d", records_->GetFirstStream());
    }
}

void CVEKHttp2Response::SetState(int state, int cause) {
    link_->SetState(state, cause);
}

int CVEKHttp2Response::GetState() {
    return link_->GetState();
}

int CVEKHttp2Response::GetStateCause() {
    return link_->GetStateCause();
}

VEK_ST_HTTP2_ERROR CVEKHttp2Response::GetError() const {
    return link_->GetError();
}

int CVEKHttp2Response::ProcEventPre() {
    const CVEKLogLimit::Scope scope(link_->GetLogLimit());  // answers may come too late
    if (!IsValid()) {
        return VEK_HTTP2_SUBMIT_FAILED;
    }
    const int result = SendResponse();
    if (result != VEK_HTTP2_SUBMIT_DONE) {
        return result;
    }
    return link_->FlushOrClose("nghttp2_session_send", false) ? VEK_HTTP2_SUBMIT_DONE
                                                              : VEK_HTTP2_SUBMIT_FAILED;
}

bool CVEKHttp2Response::ProcEvent() {
    return link_->Receive() && link_->FlushOrClose("nghttp2_session_send", false) &&
           link_->EndPass();
}

bool CVEKHttp2Response::IsValid() {
    return link_->IsValid([this] { return SendPing(); });
}

bool CVEKHttp2Response::SendPing() {
    if (!link_->SubmitPing()) {
        return false;
    }
    const int result = link_->Flush();
    if (result != 0 && result != NGHTTP2_ERR_EOF) {  // an end of file is tolerated: meant
        link_->CloseOnError("nghttp2_session_send", result, true);
        return false;
    }
    link_->MarkPingSent();
    return true;
}

bool CVEKHttp2Response::InitHttp2Session() {
    LogSession();
    std::string settings;
    return (!isUpgrade_ || Upgrade(settings)) && OpenSession(settings);
}

void CVEKHttp2Response::LogSession() const {
    if (G_VEK_HTTP2_DETAIL_LOG) {
        VEK_HTTP2_LOG_OPTIONS(name_.c_str(), link_->GetOptions(), "DEFALUT");  // spelt so: meant
        VEK_HTTP2_LOG_TLS(name_.c_str(), GetTlsInfo());
    }
}

bool CVEKHttp2Response::Upgrade(std::string& settings) {
    CVEKHttp2Setup setup(link_->GetTransport(), name_.c_str());
    link_->LimitSetup(setup);
    setup.StartServerUpgrade();
    if (!setup.RunUpgrade()) {
        link_->NoteSetup(setup);
        return false;
    }
    try {
        settings = setup.GetServerUpgrade()->GetSettings();
        return TakeUpgrade(setup);
    } catch (const std::bad_alloc&) {
        link_->Note(VEK_HTTP2_FAILURE_MEMORY);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) memory allocate failed...", name_.c_str());
        return false;
    }
}

// What the peer has asked for along with the upgrade becomes stream 1. Without memory for it the
// set-up fails: nobody would ever answer.
bool CVEKHttp2Response::TakeUpgrade(const CVEKHttp2Setup& setup) {
    const CVEKHttp2ServerUpgrade& upgrade = *setup.GetServerUpgrade();
    const bool isTaken = upgrade.IsRequest() || link_->GetPolicy().isUpgradeRequestTaken_;
    return !isTaken || DoProcUpgradeWithRequest(upgrade.GetHeaders(), upgrade.GetBody().data(),
                                                upgrade.GetBody().size());
}

// Creates and starts the session; `settings` were announced by the upgrade.
bool CVEKHttp2Response::OpenSession(const std::string& settings) {
    int result = link_->CreateSession(true);
    if (result != 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_session_server_new2() error!...%s",
                        name_.c_str(), nghttp2_strerror(result));
        return false;
    }
    if (isUpgrade_) {
        result = link_->UpgradeSession(settings.data(), settings.size());
        if (result != 0) {
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_session_upgrade2() failed!...%s",
                            name_.c_str(), nghttp2_strerror(result));
            return false;
        }
    }
    if (!SettingNegotiation() || !link_->SetLocalWindow()) {
        return false;
    }
    link_->Start();
    user_callback_ = nullptr;
    auto429ResponseCount_ = 0;
    cancelCount_ = 0;
    VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) http session initialized...", name_.c_str());
    return true;
}

int CVEKHttp2Response::SendSettingsHdr() {
    if (!link_->HasSession()) {
        return VEK_HTTP2_CALL_FAILED;
    }
    const VEK_ST_HTTP2_OPTIONS& options = link_->GetOptions();
    const nghttp2_settings_entry entries[] = {
        // One stream of these is refused with 429; see OnRequestRecv.
        {NGHTTP2_SETTINGS_MAX_CONCURRENT_STREAMS, options.nMaxConcurrentStream_},
        {NGHTTP2_SETTINGS_INITIAL_WINDOW_SIZE, options.nDefaultWindowSize_},
        {NGHTTP2_SETTINGS_MAX_FRAME_SIZE, options.nDefaultFrameSize_},
        {NGHTTP2_SETTINGS_HEADER_TABLE_SIZE, options.nMaxHeaderTableSize_},
    };
    const int result = link_->SubmitSettings(entries, sizeof entries / sizeof entries[0]);
    if (result != 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_submit_settings() failed...: %s",
                        name_.c_str(), nghttp2_strerror(result));
        return VEK_HTTP2_CALL_FAILED;
    }
    return VEK_HTTP2_CALL_DONE;
}

bool CVEKHttp2Response::SettingNegotiation() {
    return SendSettingsHdr() == VEK_HTTP2_CALL_DONE;
}

bool CVEKHttp2Response::InitInternalEvent() {
    return link_->OpenEvent();
}

void CVEKHttp2Response::CloseSession() {
    if (!link_->HasSession()) {
        return;
    }
    switch (GetStateCause()) {
        case VEK_HTTP2_CONN_CLOSE_CAUSE_NONE:
            link_->Terminate(NGHTTP2_NO_ERROR);
            link_->SetCause(VEK_HTTP2_CONN_CLOSE_CAUSE_SELF);  // without a change of state: meant
            break;
        case VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR:
            break;
        default:
            link_->Terminate(link_->IsDraining() ? NGHTTP2_NO_ERROR : NGHTTP2_INTERNAL_ERROR);
            break;
    }
    VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) closed...", name_.c_str());
}

void CVEKHttp2Response::SetDefaultHeader() {
    nHdrs_ = 1;
}

int CVEKHttp2Response::SendResponse() {
    auto* record = records_->GetResponses().Next();
    if (record == nullptr) {
        return VEK_HTTP2_SUBMIT_NONE;
    }
    const int result = SendResponse(record);
    if (result != VEK_HTTP2_SUBMIT_DONE) {
        records_->GetResponses().Return(record);
        return result == 0 ? VEK_HTTP2_SUBMIT_DONE : VEK_HTTP2_SUBMIT_FAILED;
    }
    bool isFiled = false;
    try {
        isFiled = records_->FileResponse(record);
    } catch (const std::bad_alloc&) {
        link_->CloseForMemory();  // the engine has the record, until Disconnect
        return VEK_HTTP2_SUBMIT_FAILED;
    }
    if (!isFiled) {
        // The engine refers to the record, which stays out of the pool until Disconnect: meant.
        VEK_PEER_LOG(VEK_LOG_WARNING, "conn(%s) stream(%d) duplicate...", name_.c_str(),
                     record->streamId_);
    }
    return VEK_HTTP2_SUBMIT_DONE;
}

int CVEKHttp2Response::SendResponse(VEK_ST_HTTP2_RESPONSE* record) {
    const int count =
        link_->HasSession() ? PrepareResponse(record) : static_cast<int>(VEK_HTTP2_PREPARE_REFUSED);
    if (count == VEK_HTTP2_PREPARE_REFUSED) {
        return VEK_HTTP2_SUBMIT_FAILED;
    }
    if (count == VEK_HTTP2_PREPARE_NO_STREAM) {
        VEK_PEER_LOG(VEK_LOG_WARNING, "conn(%s) stream(%d) alreay closed or invalid...",
                     name_.c_str(), record->streamId_);
        return VEK_HTTP2_SUBMIT_NONE;
    }
    if (strcmp(record->rs_, RESET_STATUS) == 0) {
        SendSystemError(record->streamId_);
        return VEK_HTTP2_SUBMIT_FAILED;  // also after a reset that went well: meant
    }
    const int result = link_->SubmitResponse(record->streamId_, record->hdrs_,
                                             static_cast<size_t>(count), &record->payload_);
    if (result != 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_submit_response() failed!...%s",
                        name_.c_str(), nghttp2_strerror(result));
        return VEK_HTTP2_SUBMIT_FAILED;
    }
    return VEK_HTTP2_SUBMIT_DONE;
}

int CVEKHttp2Response::PrepareResponse(VEK_ST_HTTP2_RESPONSE* record) {
    if (!IsRequestExist(record->streamId_)) {
        VEK_PEER_LOG(VEK_LOG_WARNING, "conn(%s) stream(%d) not found!..(may alreay closed...)",
                     name_.c_str(), record->streamId_);
        return VEK_HTTP2_PREPARE_NO_STREAM;
    }
    if (record->payload_.size_ > link_->GetOptions().nMaxPayloadSize_) {
        CloseOnOwnLimit("body of an answer too large");
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) payload size(%lu) overflow!...", name_.c_str(),
                        static_cast<unsigned long>(record->payload_.size_));
        return VEK_HTTP2_PREPARE_REFUSED;
    }
    record->hdrs_[0] = VEK_HTTP2_FIELD(":status", record->rs_);
    size_t rest = 0;
    const int count = VEK_HTTP2_FILL_FIELDS(record->hdrs_, 1, record->hdr_, rest);
    for (; rest < record->hdr_.size(); ++rest) {
        const auto& [name, value] = record->hdr_[rest];
        VEK_SERVICE_LOG(VEK_LOG_WARNING, "too many http headers(%d,%s:%s)...ignore!", count,
                        name.c_str(), value.c_str());
    }
    return count;
}

bool CVEKHttp2Response::SendSystemError(int streamId) {
    if (!link_->HasSession()) {
        return false;
    }
    const int result = link_->SubmitReset(streamId, NGHTTP2_INTERNAL_ERROR);
    if (result != 0) {
        SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_submit_rst_stream() failed!...%s",
                        name_.c_str(), nghttp2_strerror(result));
    }
    return false;
}

void CVEKHttp2Response::CloseResponse(int streamId) {
    records_->DropResponse(streamId);
}

bool CVEKHttp2Response::DoProcUpgradeWithRequest(const VEK_HTTP2_HEADER& headers, const char* body,
                                                 size_t length) {
    if (!records_->CreateUpgradeRequest(VEK_HTTP2_UPGRADE_STREAM)) {
        return false;
    }
    CVEKHttp2StreamData* request = records_->FindRequest(VEK_HTTP2_UPGRADE_STREAM);
    for (const auto& [name, value] : headers) {
        request->AddRequestHeader(name.c_str(), value.c_str());
    }
    if (!request->SetRequestPayload(body, length)) {
        request->SetPayloadError();
    }
    records_->ListRequest(VEK_HTTP2_UPGRADE_STREAM);
    return true;
}

bool CVEKHttp2Response::CreateHttp2StreamData(int streamId) {
    return records_->CreateRequest(streamId);
}

bool CVEKHttp2Response::UpdateHdrRecv(int streamId, const char* name, const char* value) {
    CVEKHttp2StreamData* request = records_->FindRequest(streamId);
    if (request == nullptr) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) stream_id(%d) not found...", name_.c_str(),
                        streamId);
        return false;
    }
    request->AddRequestHeader(name, value);
    return true;
}

bool CVEKHttp2Response::UpdatePayloadRecv(int streamId, const char* data, size_t len) {
    CVEKHttp2StreamData* request = records_->FindRequest(streamId);
    if (request == nullptr) {
        return false;
    }
    if (!request->SetRequestPayload(data, len)) {
        request->SetPayloadError();
    }
    return true;
}

bool CVEKHttp2Response::OnRequestRecv(int streamId) {
    if (!IsRequestExist(streamId)) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) stream_id(%d) not found...", name_.c_str(),
                        streamId);
        return false;
    }
    // This stream counts, so one request fewer than the limit is accepted at once: meant.
    if (records_->GetRequestCount() >= link_->GetOptions().nMaxConcurrentStream_) {
        return RefuseRequest(streamId);
    }
    records_->ListRequest(streamId);
    return true;
}

bool CVEKHttp2Response::RefuseRequest(int streamId) {
    VEK_PEER_LOG(VEK_LOG_WARNING, "Too many request automatic response...");
    VEK_ST_HTTP2_RESPONSE& refusal = records_->GetRefusal(REFUSED_STATUS);
    refusal.streamId_ = streamId;
    ++auto429ResponseCount_;
    if (user_callback_ != nullptr) {
        user_callback_(VEK_HTTP2_USER_EVENT_REFUSED, 0, 0, this, user_callback_args_);
    }
    return SendResponse(&refusal) == 1;
}

void CVEKHttp2Response::RSTRecv(int streamId, int errorCode) {
    VEK_PEER_LOG(VEK_LOG_INFO, "conn(%s) received RST_STREAM frame! stream_id(%d) cause(%d)",
                 name_.c_str(), streamId, errorCode);
    if (user_callback_ != nullptr && IsRequestExist(streamId)) {
        user_callback_(VEK_HTTP2_USER_EVENT_RESET, streamId, errorCode, this, user_callback_args_);
    }
    ++cancelCount_;
}

// A complete request that the application has not taken yet stays in requestList_ and is handed out
// without headers: meant.
void CVEKHttp2Response::DeleteHttp2StreamData(int streamId) {
    if (!records_->DropRequest(streamId)) {
        VEK_PEER_LOG(VEK_LOG_WARNING, "conn(%s) stream_id(%d) not found!", name_.c_str(), streamId);
    }
}

bool CVEKHttp2Response::IsRequestExist(int streamId) {
    return records_->FindRequest(streamId) != nullptr;
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
            link_->OnPingRecv(frame);
            return 0;
        case NGHTTP2_GOAWAY:
            VEK_PEER_LOG(VEK_LOG_INFO, "conn(%s) receive GOAWAY Frame(%d)...", name_.c_str(),
                         static_cast<int>(frame->goaway.error_code));
            if (link_->GetPolicy().isGoawayGraceful_) {
                link_->StartDrain();
                return 0;
            }
            SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_PEER);
            return 0;
        case NGHTTP2_WINDOW_UPDATE:
            return 0;
        default:
            VEK_PEER_LOG(VEK_LOG_INFO, "RECV FRAME(%d)!...", frame->hd.type);
            return 0;
    }
}
