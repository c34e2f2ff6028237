#include "CVEKHttp2Link.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>
#include <new>
#include <utility>

#include "CVEKHttp2LinkHandler.h"
#include "CVEKHttp2Memory.h"
#include "CVEKHttp2Setup.h"
#include "CVEKHttp2Source.h"
#include "CVEKThreadSpare.h"
#include "VEKHttp2Clock.h"
#include "VEKHttp2Option.h"
#include "VEKLogText.h"
#include "VEKServiceLog.h"
#include "VEKSocketWait.h"

namespace {

// Bytes after which an event pass ends though there is more to read: a peer that never stops
// sending must not keep the driving thread from its clock and its other connections.
constexpr size_t PASS_SIZE = size_t{256} * 1024;
// Bytes asked for in one call: in clear text, four times what the engine itself would ask for.
constexpr size_t READ_SIZE = size_t{64} * 1024;
constexpr size_t FRAME_HEADER_SIZE = 9;    // RFC 9113, section 4.1
constexpr size_t FIELD_OVERHEAD = 32;      // RFC 9113, section 6.5.2
constexpr size_t HEADER_BLOCK_SLACK = 64;  // what the engine reckons for a block beside its fields
constexpr std::chrono::seconds TRIM_INTERVAL(1);
// With offences contained: frames that a peer may cause and leave waiting.
constexpr size_t MAX_QUEUED_FRAMES = 10000;
// Of this end, HEADERS and a reset for each of its streams may wait as well: the peer's limit of
// streams can hold them back.
constexpr size_t OWN_FRAMES_PER_STREAM = 2;

CVEKHttp2Link& From(void* userData) {
    return *static_cast<CVEKHttp2Link*>(userData);
}

VEK_HTTP2_EVENT WaitEvent(int epfd, int fd, int timeoutMs) {
    epoll_event event{};
    const int count = epoll_wait(epfd, &event, 1, timeoutMs);
    if (count < 0) {
        return errno == EINTR ? VEK_HTTP2_EVENT_INTERRUPTED : VEK_HTTP2_EVENT_FAILED;
    }
    if (count == 0 || event.data.fd != fd) {
        return VEK_HTTP2_EVENT_NONE;
    }
    if ((event.events & EPOLLERR) != 0) {
        return VEK_HTTP2_EVENT_ERROR;
    }
    return (event.events & (EPOLLIN | EPOLLOUT)) != 0 ? VEK_HTTP2_EVENT_READY
                                                      : VEK_HTTP2_EVENT_NONE;
}

// What a block is, as far as it can be told before its first field.
VEK_HTTP2_BLOCK GuessBlock(const nghttp2_frame* frame) {
    if (frame->hd.type != NGHTTP2_HEADERS) {
        return VEK_HTTP2_BLOCK_PUSH;
    }
    switch (frame->headers.cat) {
        case NGHTTP2_HCAT_REQUEST:
            return VEK_HTTP2_BLOCK_REQUEST;
        case NGHTTP2_HCAT_RESPONSE:
            return VEK_HTTP2_BLOCK_RESPONSE;
        case NGHTTP2_HCAT_PUSH_RESPONSE:
            return VEK_HTTP2_BLOCK_PUSH;
        default:  // the response behind an informational one, until its status is seen, or trailers
            return VEK_HTTP2_BLOCK_TRAILERS;
    }
}

// What a close cause stands for where nothing better is known.
VEK_HTTP2_FAILURE FailureOfCause(int cause) {
    switch (cause) {
        case VEK_HTTP2_CONN_CLOSE_CAUSE_SELF:
            return VEK_HTTP2_FAILURE_SELF;
        case VEK_HTTP2_CONN_CLOSE_CAUSE_PEER:
            return VEK_HTTP2_FAILURE_GOAWAY;
        case VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR:
        case VEK_HTTP2_CONN_CLOSE_CAUSE_EVENT_ERROR:
            return VEK_HTTP2_FAILURE_TRANSPORT;
        case VEK_HTTP2_CONN_CLOSE_CAUSE_TIMEOUT:
            return VEK_HTTP2_FAILURE_RESPONSE_TIMEOUT;
        case VEK_HTTP2_CONN_CLOSE_CAUSE_STREAM_FULL:
            return VEK_HTTP2_FAILURE_STREAM_IDS;
        case VEK_HTTP2_CONN_CLOSE_CAUSE_PING_TIMEOUT:
            return VEK_HTTP2_FAILURE_PING_TIMEOUT;
        default:
            return VEK_HTTP2_FAILURE_INTERNAL;
    }
}

VEK_HTTP2_FAILURE FailureOfSetup(VEK_HTTP2_SETUP_STAGE stage) {
    switch (stage) {
        case VEK_HTTP2_SETUP_STAGE_RESOLVE:
            return VEK_HTTP2_FAILURE_RESOLVE;
        case VEK_HTTP2_SETUP_STAGE_CONNECT:
            return VEK_HTTP2_FAILURE_CONNECT;
        case VEK_HTTP2_SETUP_STAGE_TLS:
            return VEK_HTTP2_FAILURE_TLS;
        case VEK_HTTP2_SETUP_STAGE_ALPN:
            return VEK_HTTP2_FAILURE_ALPN;
        case VEK_HTTP2_SETUP_STAGE_UPGRADE:
            return VEK_HTTP2_FAILURE_UPGRADE;
        default:
            return VEK_HTTP2_FAILURE_INTERNAL;
    }
}

VEK_HTTP2_FAILURE FailureOfSetupTime(VEK_HTTP2_SETUP_STAGE part) {
    switch (part) {
        case VEK_HTTP2_SETUP_STAGE_CONNECT:
            return VEK_HTTP2_FAILURE_CONNECT_TIMEOUT;
        case VEK_HTTP2_SETUP_STAGE_TLS:
            return VEK_HTTP2_FAILURE_HANDSHAKE_TIMEOUT;
        default:
            return VEK_HTTP2_FAILURE_UPGRADE_TIMEOUT;
    }
}

// The HTTP/2 error code that stands for an error of the engine.
uint32_t CodeOfError(int error) {
    switch (error) {
        case NGHTTP2_ERR_FLOW_CONTROL:
            return NGHTTP2_FLOW_CONTROL_ERROR;
        case NGHTTP2_ERR_STREAM_CLOSED:
            return NGHTTP2_STREAM_CLOSED;
        case NGHTTP2_ERR_REFUSED_STREAM:
            return NGHTTP2_REFUSED_STREAM;
        case NGHTTP2_ERR_HEADER_COMP:
            return NGHTTP2_COMPRESSION_ERROR;
        case NGHTTP2_ERR_FRAME_SIZE_ERROR:
            return NGHTTP2_FRAME_SIZE_ERROR;
        default:
            return NGHTTP2_PROTOCOL_ERROR;
    }
}

void SetLimit(std::chrono::milliseconds& limit, uint32_t milliseconds) {
    if (milliseconds != 0) {
        limit = std::chrono::milliseconds(milliseconds);
    }
}

std::string_view TextOf(const nghttp2_goaway& goaway) {
    return {reinterpret_cast<const char*>(goaway.opaque_data), goaway.opaque_data_len};
}

std::string Escape(const nghttp2_vec& text) {
    return VEK_ESCAPE_TEXT({reinterpret_cast<const char*>(text.base), text.len});
}

VEK_HTTP2_BLOCK BlockOfStatus(std::string_view status) {
    return !status.empty() && status[0] == '1' ? VEK_HTTP2_BLOCK_INFORMATIONAL
                                               : VEK_HTTP2_BLOCK_RESPONSE;
}

// The thread's buffer, for one link at a time: a handler may drive another connection meanwhile.
class ReadBuffer {
  public:
    ReadBuffer() {
        if (spare_ != nullptr) {
            bytes_ = std::move(*spare_);
        }
        if (bytes_ == nullptr) {
            bytes_.reset(new (std::nothrow) uint8_t[READ_SIZE]);
        }
    }
    ReadBuffer(const ReadBuffer&) = delete;
    ReadBuffer& operator=(const ReadBuffer&) = delete;
    ~ReadBuffer() {
        if (spare_ != nullptr) {
            *spare_ = std::move(bytes_);
        }
    }
    // Null where there is no memory for it.
    uint8_t* Get() const { return bytes_.get(); }

  private:
    using Bytes = std::unique_ptr<uint8_t[]>;

    Bytes* const spare_ = CVEKThreadSpare<Bytes>::Get();
    Bytes bytes_;
};

}  // namespace

// Nothing may be thrown through the engine.
template <class ACTION>
int CVEKHttp2Link::Guard(ACTION action) {
    try {
        return action();
    } catch (const std::bad_alloc&) {
        Note(VEK_HTTP2_FAILURE_MEMORY);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) memory allocate failed...", name_.c_str());
        result_ = NGHTTP2_ERR_NOMEM;
        return NGHTTP2_ERR_CALLBACK_FAILURE;
    }
}

// The engine's callbacks. `userData` is the link.
struct CVEKHttp2Link::Callbacks {
    static ssize_t Send(nghttp2_session*, const uint8_t* data, size_t length, int, void* userData) {
        const int result = From(userData).Put({{data, length}});
        return result == 0 ? static_cast<ssize_t>(length) : result;
    }

    static int SendData(nghttp2_session*, nghttp2_frame* frame, const uint8_t* header,
                        size_t length, nghttp2_data_source* source, void* userData) {
        return From(userData).PutData(frame, header, length, source->ptr);
    }

    static ssize_t OfferChunk(nghttp2_session*, int32_t, uint8_t*, size_t length, uint32_t* flags,
                              nghttp2_data_source* source, void* userData) {
        auto* chunk = static_cast<VEK_ST_HTTP2_CHUNK_DATA*>(source->ptr);
        return From(userData).OfferChunk(chunk, length, flags);
    }

    static ssize_t OfferSource(nghttp2_session*, int32_t, uint8_t*, size_t length, uint32_t* flags,
                               nghttp2_data_source* source, void* userData) {
        return From(userData).OfferSource(static_cast<CVEKHttp2Source*>(source->ptr), length,
                                          flags);
    }

    static int OnFrameRecv(nghttp2_session*, const nghttp2_frame* frame, void* userData) {
        CVEKHttp2Link& link = From(userData);
        link.last_recv_time_ = link.passTime_;
        if (frame->hd.type == NGHTTP2_SETTINGS && (frame->hd.flags & NGHTTP2_FLAG_ACK) != 0) {
            link.isSettingsAwaited_ = false;
        } else if (frame->hd.type == NGHTTP2_GOAWAY) {
            link.Note(VEK_HTTP2_FAILURE_GOAWAY, TextOf(frame->goaway), frame->goaway.error_code);
        }
        return link.Guard([&] { return link.handler_.OnFrameRecv(frame); });
    }

    static int OnFrameSend(nghttp2_session*, const nghttp2_frame* frame, void* userData) {
        CVEKHttp2Link& link = From(userData);
        if (frame->hd.type == NGHTTP2_SETTINGS && (frame->hd.flags & NGHTTP2_FLAG_ACK) == 0) {
            link.isSettingsAwaited_ = true;
            link.settingsTime_ = VEK_HTTP2_NOW();
        } else if (frame->hd.type == NGHTTP2_GOAWAY) {
            link.OnGoawaySent(frame->goaway);
        } else if (frame->hd.type == NGHTTP2_HEADERS && link.bodies_ == 0 &&
                   (frame->hd.flags & NGHTTP2_FLAG_END_STREAM) == 0) {
            link.AwaitProgress();  // a request that the peer's limit of streams has held back
        }
        return link.Guard([&] { return link.handler_.OnFrameSend(frame); });
    }

    static int OnStreamClose(nghttp2_session*, int32_t stream, uint32_t error, void* userData) {
        CVEKHttp2Link& link = From(userData);
        if (error != 0) {
            VEK_PEER_LOG(VEK_LOG_INFO, "conn(%s) stream(%d) just closed with error!(%d)",
                         link.name_.c_str(), stream, static_cast<int>(error));
        }
        std::vector<int32_t>& released = link.released_;
        released.erase(std::remove(released.begin(), released.end(), stream), released.end());
        return link.Guard([&] { return link.handler_.OnStreamClose(stream, error); });
    }

    static int OnHeader(nghttp2_session*, const nghttp2_frame* frame, const uint8_t* name,
                        size_t nameLength, const uint8_t* value, size_t valueLength, uint8_t,
                        void* userData) {
        return From(userData).TakeField(frame, {reinterpret_cast<const char*>(name), nameLength},
                                        {reinterpret_cast<const char*>(value), valueLength});
    }

    static int OnBeginHeaders(nghttp2_session*, const nghttp2_frame* frame, void* userData) {
        CVEKHttp2Link& link = From(userData);
        link.headerBytes_ = 0;
        link.headerFields_ = 0;
        link.block_ = GuessBlock(frame);
        return link.Guard([&] { return link.handler_.OnBeginHeaders(frame); });
    }

    static int OnDataChunkRecv(nghttp2_session*, uint8_t, int32_t stream, const uint8_t* data,
                               size_t length, void* userData) {
        CVEKHttp2Link& link = From(userData);
        return link.Guard([&] {
            return link.handler_.OnDataChunkRecv(stream, reinterpret_cast<const char*>(data),
                                                 length);
        });
    }

    static int OnInvalidHeader(nghttp2_session* session, const nghttp2_frame* frame,
                               nghttp2_rcbuf* name, nghttp2_rcbuf* value, uint8_t, void* userData) {
        const int32_t stream = frame->hd.type == NGHTTP2_PUSH_PROMISE
                                   ? frame->push_promise.promised_stream_id
                                   : frame->hd.stream_id;
        From(userData).ReportInvalidHeader(frame, stream, name, value);
        nghttp2_submit_rst_stream(session, NGHTTP2_FLAG_NONE, stream, NGHTTP2_PROTOCOL_ERROR);
        return NGHTTP2_ERR_TEMPORAL_CALLBACK_FAILURE;
    }

    static int OnInvalidFrameRecv(nghttp2_session*, const nghttp2_frame* frame, int error,
                                  void* userData) {
        CVEKHttp2Link& link = From(userData);
        return link.Guard([&] { return link.handler_.OnInvalidFrameRecv(frame, error); });
    }

    static int OnError(nghttp2_session*, int error, const char* text, size_t length,
                       void* userData) {
        CVEKHttp2Link& link = From(userData);
        return link.Guard([&] { return link.handler_.OnError(error, {text, length}); });
    }

    static int OnFrameNotSend(nghttp2_session*, const nghttp2_frame* frame, int error,
                              void* userData) {
        CVEKHttp2Link& link = From(userData);
        return link.Guard([&] { return link.handler_.OnFrameNotSend(frame, error); });
    }

    static void Set(nghttp2_session_callbacks* callbacks) {
        nghttp2_session_callbacks_set_send_callback(callbacks, Send);
        nghttp2_session_callbacks_set_on_frame_recv_callback(callbacks, OnFrameRecv);
        nghttp2_session_callbacks_set_on_frame_send_callback(callbacks, OnFrameSend);
        nghttp2_session_callbacks_set_on_stream_close_callback(callbacks, OnStreamClose);
        nghttp2_session_callbacks_set_on_header_callback(callbacks, OnHeader);
        nghttp2_session_callbacks_set_on_begin_headers_callback(callbacks, OnBeginHeaders);
        nghttp2_session_callbacks_set_on_data_chunk_recv_callback(callbacks, OnDataChunkRecv);
        nghttp2_session_callbacks_set_on_invalid_header_callback2(callbacks, OnInvalidHeader);
        nghttp2_session_callbacks_set_on_invalid_frame_recv_callback(callbacks, OnInvalidFrameRecv);
        nghttp2_session_callbacks_set_error_callback2(callbacks, OnError);
        nghttp2_session_callbacks_set_on_frame_not_send_callback(callbacks, OnFrameNotSend);
        nghttp2_session_callbacks_set_send_data_callback(callbacks, SendData);
    }

    static nghttp2_data_provider Provide(VEK_ST_HTTP2_CHUNK_DATA* body) {
        nghttp2_data_provider provider{};
        provider.source.ptr = body;
        provider.read_callback = OfferChunk;
        if (body != nullptr) {
            body->rSize_ = 0;
        }
        return provider;
    }

    static nghttp2_data_provider Provide(CVEKHttp2Source* source) {
        nghttp2_data_provider provider{};
        provider.source.ptr = source;
        provider.read_callback = OfferSource;
        return provider;
    }
};

CVEKHttp2Link::CVEKHttp2Link(CVEKHttp2LinkHandler& handler, const std::string& name)
    : handler_(handler),
      name_(name),
      logLimit_(name),
      passTime_(VEK_HTTP2_NOW()),
      trimTime_(passTime_),
      ping_send_time_(passTime_),
      last_recv_time_(passTime_) {}

CVEKHttp2Link::~CVEKHttp2Link() {
    DeleteSession();
    CloseEvent();
    CloseSocket();
}

CVEKHttp2Setup* CVEKHttp2Link::BeginSetup() {
    CancelSetup();
    isTransportReady_ = false;
    setup_.reset(new (std::nothrow) CVEKHttp2Setup(transport_, name_.c_str()));
    if (setup_ != nullptr) {
        LimitSetup(*setup_);
    } else {
        Note(VEK_HTTP2_FAILURE_MEMORY);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) memory allocate failed...", name_.c_str());
    }
    return setup_.get();
}

void CVEKHttp2Link::LimitSetup(CVEKHttp2Setup& setup) const {
    VEK_ST_HTTP2_SETUP_LIMITS limits;
    SetLimit(limits.connect_, policy_.connectMs_);
    SetLimit(limits.handshake_, policy_.handshakeMs_);
    SetLimit(limits.firstBytes_, policy_.upgradeMs_);
    SetLimit(limits.upgrade_, policy_.upgradeMs_);
    setup.SetLimits(limits);
}

void CVEKHttp2Link::Note(VEK_HTTP2_FAILURE failure, std::string_view reason, uint32_t code,
                         int systemError) {
    const int error = errno;  // for the log line that follows
    VEK_ST_HTTP2_ERROR note;
    note.failure_ = failure;
    note.code_ = code;
    note.errno_ = systemError;
    errorNote_.Put(note, reason);
    errno = error;
}

void CVEKHttp2Link::NoteOffence(int error, std::string_view text) {
    Note(VEK_HTTP2_FAILURE_OFFENCE, text, CodeOfError(error));
}

void CVEKHttp2Link::NoteSetup(const CVEKHttp2Setup& setup) {
    const VEK_ST_HTTP2_SETUP_FAILURE& failure = setup.GetFailure();
    VEK_ST_HTTP2_ERROR error;
    error.failure_ = failure.stage_ == VEK_HTTP2_SETUP_STAGE_TIME
                         ? FailureOfSetupTime(failure.part_)
                         : FailureOfSetup(failure.stage_);
    error.errno_ = failure.errno_;
    error.tlsCause_ = failure.tlsCause_;
    errorNote_.Put(error, failure.text_);
}

int CVEKHttp2Link::Advance() {
    if (setup_ == nullptr) {
        return IsLive() ? VEK_HTTP2_STEP_DONE : VEK_HTTP2_STEP_FAILED;
    }
    int result = VEK_HTTP2_STEP_FAILED;
    try {
        result = AdvanceTransport();
        if (result == VEK_HTTP2_STEP_DONE) {
            result = AdvanceUpgrade();
        }
    } catch (const std::bad_alloc&) {
        Note(VEK_HTTP2_FAILURE_MEMORY);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) memory allocate failed...", name_.c_str());
        result = VEK_HTTP2_STEP_FAILED;
    }
    if (result == VEK_HTTP2_STEP_FAILED) {
        NoteSetup(*setup_);
    }
    if (result != VEK_HTTP2_STEP_WAIT) {
        CancelSetup();
    }
    return result;
}

int CVEKHttp2Link::AdvanceTransport() {
    if (isTransportReady_) {
        return VEK_HTTP2_STEP_DONE;
    }
    const int result = setup_->AdvanceTransport();
    fd_ = transport_.GetSocket();
    if (result != VEK_HTTP2_STEP_DONE) {
        return result;
    }
    isTransportReady_ = handler_.OnTransportReady(*setup_);
    return isTransportReady_ ? VEK_HTTP2_STEP_DONE : VEK_HTTP2_STEP_FAILED;
}

int CVEKHttp2Link::AdvanceUpgrade() {
    const bool isUpgrade =
        setup_->GetClientUpgrade() != nullptr || setup_->GetServerUpgrade() != nullptr;
    const int result = isUpgrade ? setup_->AdvanceUpgrade() : VEK_HTTP2_STEP_DONE;
    if (result != VEK_HTTP2_STEP_DONE) {
        return result;
    }
    return handler_.OnSetupDone(*setup_) ? VEK_HTTP2_STEP_DONE : VEK_HTTP2_STEP_FAILED;
}

short CVEKHttp2Link::GetWaitEvents() const {
    return setup_ == nullptr ? short{0} : setup_->GetEvents();
}

VEK_HTTP2_DEADLINE CVEKHttp2Link::GetWaitDeadline() const {
    return setup_ == nullptr ? VEK_HTTP2_DEADLINE::max() : setup_->GetDeadline();
}

void CVEKHttp2Link::CancelSetup() {
    setup_.reset();
}

bool CVEKHttp2Link::OpenEvent() {
    epfd_ = epoll_create(1);
    if (epfd_ < 0) {
        Note(VEK_HTTP2_FAILURE_INTERNAL, "epoll_create()", 0, errno);
        VEK_SYSTEM_CALL_LOG("epoll_create() system call error.");
        return false;
    }
    epoll_event event{};
    event.events = EPOLLIN | EPOLLERR;
    event.data.fd = fd_;
    if (epoll_ctl(epfd_, EPOLL_CTL_ADD, fd_, &event) != 0) {
        Note(VEK_HTTP2_FAILURE_INTERNAL, "epoll_ctl()", 0, errno);
        VEK_SYSTEM_CALL_LOG("epoll_ctl() system call error.");
        close(epfd_);
        epfd_ = -1;
        return false;
    }
    return true;
}

void CVEKHttp2Link::DeleteSession() {
    nghttp2_session_del(session_);
    session_ = nullptr;
    output_.Clear();
    std::vector<int32_t>().swap(released_);
    areBodiesReleased_ = false;
}

bool CVEKHttp2Link::CloseEvent() {
    if (epfd_ == -1) {
        return true;
    }
    const bool isOut = !HasSocket() || epoll_ctl(epfd_, EPOLL_CTL_DEL, fd_, nullptr) == 0;
    const int error = errno;
    close(epfd_);
    epfd_ = -1;
    errno = error;
    return isOut;
}

bool CVEKHttp2Link::CloseSocket() {
    logLimit_.Tell();
    if (!HasSocket()) {
        return false;
    }
    transport_.Clear();
    fd_ = -1;
    return true;
}

int CVEKHttp2Link::CreateSession(bool isServer) {
    nghttp2_option* option = nullptr;
    int result = nghttp2_option_new(&option);
    if (result != 0) {
        return result;
    }
    const std::unique_ptr<nghttp2_option, decltype(&nghttp2_option_del)> optionOwner(
        option, nghttp2_option_del);
    nghttp2_option_set_peer_max_concurrent_streams(option, options_.nMaxConcurrentStream_);
    nghttp2_option_set_no_auto_window_update(option, limits_.isWindowManual ? 1 : 0);
    if (limits_.headerBytes > VEK_ST_HTTP2_LIMITS().headerBytes) {  // more than the engine's own
        nghttp2_option_set_max_send_header_block_length(option,
                                                        limits_.headerBytes + HEADER_BLOCK_SLACK);
    }
    nghttp2_option_set_no_closed_streams(option, limits_.isClosedStreamKept ? 0 : 1);
    result_ = 0;

    nghttp2_session_callbacks* callbacks = nullptr;
    result = nghttp2_session_callbacks_new(&callbacks);
    if (result != 0) {
        return result;
    }
    const std::unique_ptr<nghttp2_session_callbacks, decltype(&nghttp2_session_callbacks_del)>
        callbacksOwner(callbacks, nghttp2_session_callbacks_del);
    Callbacks::Set(callbacks);
    nghttp2_mem* memory = CVEKHttp2Memory::Get();
    return isServer ? nghttp2_session_server_new3(&session_, callbacks, this, option, memory)
                    : nghttp2_session_client_new3(&session_, callbacks, this, option, memory);
}

int CVEKHttp2Link::UpgradeSession(const void* settings, size_t length) {
    return nghttp2_session_upgrade2(session_, static_cast<const uint8_t*>(settings), length, 0,
                                    nullptr);
}

int CVEKHttp2Link::SubmitSettings(const nghttp2_settings_entry* entries, size_t count) {
    return nghttp2_submit_settings(session_, NGHTTP2_FLAG_NONE, entries, count);
}

bool CVEKHttp2Link::SetLocalWindow() {
    if (options_.nLocalWindowSize_ == 0) {
        return true;
    }
    const int result = nghttp2_session_set_local_window_size(
        session_, NGHTTP2_FLAG_NONE, 0, static_cast<int32_t>(options_.nLocalWindowSize_));
    if (result != 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR,
                        "conn(%s) nghttp2_session_set_local_window_size() failed!...%s",
                        name_.c_str(), nghttp2_strerror(result));
        return false;
    }
    return true;
}

void CVEKHttp2Link::Start() {
    SetState(VEK_HTTP2_CONN_STATE_OPEN, VEK_HTTP2_CONN_CLOSE_CAUSE_NONE);
    last_recv_time_ = VEK_HTTP2_NOW();
    trimTime_ = last_recv_time_;
    ping_send_flag_ = false;  // a PING of an earlier session is none of this one's
    ping_recv_flag_ = false;
    isGoawaySent_ = false;
    bytesAfterGoaway_ = 0;
    isSettingsAwaited_ = false;
    ioError_ = 0;
    bodies_ = 0;
}

void CVEKHttp2Link::Terminate(uint32_t code) {
    if (nghttp2_session_terminate_session(session_, code) != 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_session_terminate_session() failed!...",
                        name_.c_str());
    }
    if (Flush() != 0) {
        // The engine fails on requests that cannot leave any more; what it gave before can.
        output_.Flush(transport_);
    }
}

void CVEKHttp2Link::SetState(int state, int cause) {
    if (state == VEK_HTTP2_CONN_STATE_CLOSE) {
        Note(FailureOfCause(cause));
    } else if (state == VEK_HTTP2_CONN_STATE_INIT) {
        errorNote_.Clear();
        isDraining_ = false;
    }
    {
        const CVEKLockGuard guard(mutexS_);
        if (state_ == VEK_HTTP2_CONN_STATE_CLOSE && state == VEK_HTTP2_CONN_STATE_CLOSE) {
            return;
        }
        state_ = state;
        cause_ = state == VEK_HTTP2_CONN_STATE_CLOSE ? cause : VEK_HTTP2_CONN_CLOSE_CAUSE_NONE;
    }
    handler_.OnStateChange();
}

int CVEKHttp2Link::GetStateCause() const {
    const CVEKLockGuard guard(mutexS_);
    return cause_;
}

void CVEKHttp2Link::SetCause(int cause) {
    const CVEKLockGuard guard(mutexS_);
    cause_ = cause;
}

bool CVEKHttp2Link::IsOpen() const {
    const int state = state_;
    return state != VEK_HTTP2_CONN_STATE_CLOSE && state != VEK_HTTP2_CONN_STATE_INIT;
}

bool CVEKHttp2Link::IsWithinLimits(const nghttp2_nv* fields, size_t count) const {
    size_t bytes = 0;
    for (size_t i = 0; i < count; ++i) {
        bytes += fields[i].namelen + fields[i].valuelen + FIELD_OVERHEAD;
    }
    return count <= limits_.headerFields && bytes <= limits_.headerBytes;
}

void CVEKHttp2Link::CloseForMemory() {
    Note(VEK_HTTP2_FAILURE_MEMORY);
    SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
    VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) memory allocate failed...", name_.c_str());
}

int32_t CVEKHttp2Link::SubmitRequest(const nghttp2_nv* fields, size_t count,
                                     VEK_ST_HTTP2_CHUNK_DATA* body) {
    const nghttp2_data_provider provider = Callbacks::Provide(body);
    const bool hasBody = body != nullptr && body->size_ > 0;
    if (hasBody) {
        AwaitProgress();
    }
    return nghttp2_submit_request(session_, nullptr, fields, count, hasBody ? &provider : nullptr,
                                  nullptr);
}

int32_t CVEKHttp2Link::SubmitRequest(const nghttp2_nv* fields, size_t count,
                                     CVEKHttp2Source* source, void* data) {
    const nghttp2_data_provider provider = Callbacks::Provide(source);
    if (source != nullptr) {
        AwaitProgress();
    }
    return !IsWithinLimits(fields, count)
               ? static_cast<int32_t>(NGHTTP2_ERR_INVALID_ARGUMENT)
               : nghttp2_submit_request(session_, nullptr, fields, count,
                                        source != nullptr ? &provider : nullptr, data);
}

int CVEKHttp2Link::SubmitResponse(int32_t stream, const nghttp2_nv* fields, size_t count,
                                  VEK_ST_HTTP2_CHUNK_DATA* body) {
    const nghttp2_data_provider provider = Callbacks::Provide(body);
    const bool hasBody = body != nullptr && body->size_ > 0;
    if (hasBody) {
        AwaitProgress();
    }
    return nghttp2_submit_response(session_, stream, fields, count, hasBody ? &provider : nullptr);
}

int CVEKHttp2Link::SubmitResponse(int32_t stream, const nghttp2_nv* fields, size_t count,
                                  CVEKHttp2Source* source) {
    const nghttp2_data_provider provider = Callbacks::Provide(source);
    if (source != nullptr) {
        AwaitProgress();
    }
    return !IsWithinLimits(fields, count)
               ? static_cast<int>(NGHTTP2_ERR_INVALID_ARGUMENT)
               : nghttp2_submit_response(session_, stream, fields, count,
                                         source != nullptr ? &provider : nullptr);
}

int CVEKHttp2Link::SubmitInformational(int32_t stream, const nghttp2_nv* fields, size_t count) {
    return !IsWithinLimits(fields, count)
               ? static_cast<int>(NGHTTP2_ERR_INVALID_ARGUMENT)
               : nghttp2_submit_headers(session_, NGHTTP2_FLAG_NONE, stream, nullptr, fields, count,
                                        nullptr);
}

int CVEKHttp2Link::SubmitTrailers(int32_t stream, const nghttp2_nv* fields, size_t count) {
    return !IsWithinLimits(fields, count) ? static_cast<int>(NGHTTP2_ERR_INVALID_ARGUMENT)
                                          : nghttp2_submit_trailer(session_, stream, fields, count);
}

int CVEKHttp2Link::ResumeBody(int32_t stream) {
    return nghttp2_session_resume_data(session_, stream);
}

void* CVEKHttp2Link::GetStreamData(int32_t stream) const {
    return nghttp2_session_get_stream_user_data(session_, stream);
}

void CVEKHttp2Link::SetStreamData(int32_t stream, void* data) {
    nghttp2_session_set_stream_user_data(session_, stream, data);
}

int CVEKHttp2Link::SubmitShutdownNotice() {
    return nghttp2_submit_shutdown_notice(session_);
}

int CVEKHttp2Link::SubmitGoaway(uint32_t code) {
    return nghttp2_submit_goaway(session_, NGHTTP2_FLAG_NONE,
                                 nghttp2_session_get_last_proc_stream_id(session_), code, nullptr,
                                 0);
}

int CVEKHttp2Link::SubmitReset(int32_t stream, uint32_t code) {
    return nghttp2_submit_rst_stream(session_, NGHTTP2_FLAG_NONE, stream, code);
}

// A DATA frame that the socket has refused is still the engine's to send, before the reset: it must
// not reach for the body any more.
int CVEKHttp2Link::CancelStream(int32_t stream) {
    if (session_ == nullptr) {
        return NGHTTP2_ERR_INVALID_STATE;
    }
    if (GetLocalClose(stream) != -1) {  // it has been opened
        try {
            released_.push_back(stream);
        } catch (const std::bad_alloc&) {
            DeleteSession();  // or it would reach for the body
            return NGHTTP2_ERR_NOMEM;
        }
    }
    return SubmitReset(stream, NGHTTP2_CANCEL);
}

int CVEKHttp2Link::Consume(int32_t stream, size_t length) {
    return nghttp2_session_consume(session_, stream, length);
}

int CVEKHttp2Link::GetLocalClose(int32_t stream) const {
    return nghttp2_session_get_stream_local_close(session_, stream);
}

void CVEKHttp2Link::SetNextStream(int32_t stream) {
    nghttp2_session_set_next_stream_id(session_, stream);
}

int CVEKHttp2Link::Flush() {
    if (session_ == nullptr) {
        return NGHTTP2_ERR_INVALID_STATE;
    }
    const CVEKLogLimit::Scope scope(logLimit_);
    const bool wasBlocked = output_.IsBlocked();
    const uint64_t taken = output_.GetTaken();
    const int result = FlushSession();
    // That the socket refuses bytes counts from when it first does, and anew when it takes some.
    if (output_.IsBlocked() && (!wasBlocked || output_.GetTaken() != taken)) {
        progressTime_ = VEK_HTTP2_NOW();
    }
    return result;
}

int CVEKHttp2Link::FlushSession() {
    if (output_.IsBlocked() && !output_.Flush(transport_)) {
        return FlushResult();
    }
    const int result = nghttp2_session_send(session_);
    // Where the socket has refused bytes on the way, the engine holds more than the output: if the
    // output left now, nobody would wait for the socket and come back for the rest.
    if (result != 0 || output_.IsBlocked()) {
        return result;
    }
    return output_.Flush(transport_) ? 0 : FlushResult();
}

// A socket that takes no more now is no failure.
int CVEKHttp2Link::FlushResult() {
    const int result = PutResult();
    return result == NGHTTP2_ERR_WOULDBLOCK ? 0 : result;
}

bool CVEKHttp2Link::FlushOrClose(const char* call, bool isQuiet) {
    const int result = Flush();
    // A peer that has said its last may take no more: the receive tells of its end.
    const bool isPeers = IsDraining() && result == NGHTTP2_ERR_CALLBACK_FAILURE;
    if (result == 0 || isPeers) {
        return true;
    }
    CloseOnError(call, result, isQuiet);
    return false;
}

void CVEKHttp2Link::CloseOnError(const char* call, int result, bool isQuiet) {
    if (isQuiet && GetState() == VEK_HTTP2_CONN_STATE_CLOSE) {
        return;
    }
    if (IsDraining() && result == NGHTTP2_ERR_EOF) {
        EndDrain();
        return;
    }
    CloseOnOffence(result);
    SetState(VEK_HTTP2_CONN_STATE_CLOSE,
             IsDraining() ? VEK_HTTP2_CONN_CLOSE_CAUSE_PEER : VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR);
    result_ = result_ != 0 ? result_ : result;
    VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) %s() failed...%s", name_.c_str(), call,
                    nghttp2_strerror(result));
}

bool CVEKHttp2Link::Receive() {
    if (GetState() == VEK_HTTP2_CONN_STATE_CLOSE) {  // a session that has failed must not go on
        return false;
    }
    const CVEKLogLimit::Scope scope(logLimit_);
    received_ = 0;
    passTime_ = VEK_HTTP2_NOW();
    const int result =
        session_ == nullptr ? static_cast<int>(NGHTTP2_ERR_INVALID_STATE) : FeedSession();
    if (result != 0) {
        CloseOnError("nghttp2_session_recv", result, true);
        return false;
    }
    return GetState() != VEK_HTTP2_CONN_STATE_CLOSE;
}

bool CVEKHttp2Link::EndPass() {
    if (GetState() == VEK_HTTP2_CONN_STATE_CLOSE) {
        return false;
    }
    if (EndDrainWhenDone()) {
        return false;
    }
    if (IsOver() && !IsDraining()) {
        SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) session ended by protocol error!...",
                        name_.c_str());
        return false;
    }
    TrimWhenDue();
    // What is contained is answered by resets, which a peer that does not read lets pile up.
    if (policy_.isOffenceContained_ &&
        nghttp2_session_get_outbound_queue_size(session_) >
            MAX_QUEUED_FRAMES + OWN_FRAMES_PER_STREAM * options_.nMaxConcurrentStream_) {
        CloseOnLimit(VEK_HTTP2_FAILURE_OWN_LIMIT, NGHTTP2_ENHANCE_YOUR_CALM);
        return false;
    }
    return CheckLimits();
}

void CVEKHttp2Link::StartDrain() {
    isDraining_ = true;
    handler_.OnStateChange();
}

bool CVEKHttp2Link::IsDrained() const {
    return handler_.IsDone() ||
           (nghttp2_session_want_read(session_) == 0 && nghttp2_session_want_write(session_) == 0 &&
            output_.GetSize() == 0);
}

bool CVEKHttp2Link::EndDrainWhenDone() {
    if (!IsDraining() || !IsLive() || !IsDrained()) {
        return false;
    }
    EndDrain();
    return true;
}

void CVEKHttp2Link::EndDrain() {
    VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) finished after GOAWAY...", name_.c_str());
    SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_PEER);
}

// The engine has said GOAWAY by itself: this end does so only when it has closed.
void CVEKHttp2Link::OnGoawaySent(const nghttp2_goaway& goaway) {
    if (IsOpen() && goaway.error_code != NGHTTP2_NO_ERROR) {
        isGoawaySent_ = true;
        Note(VEK_HTTP2_FAILURE_OFFENCE, TextOf(goaway), goaway.error_code);
    }
}

bool CVEKHttp2Link::CheckLimits() {
    if (session_ == nullptr || !HasTimeLimits()) {
        return true;
    }
    passTime_ = VEK_HTTP2_NOW();
    if (policy_.settingsAckMs_ != 0 && isSettingsAwaited_ &&
        passTime_ - settingsTime_ >= std::chrono::milliseconds(policy_.settingsAckMs_)) {
        CloseOnLimit(VEK_HTTP2_FAILURE_SETTINGS_TIMEOUT, NGHTTP2_SETTINGS_TIMEOUT);
        return false;
    }
    if (policy_.stallMs_ != 0 && IsStalled()) {
        CloseOnLimit(VEK_HTTP2_FAILURE_STALL, NGHTTP2_ENHANCE_YOUR_CALM);
        return false;
    }
    return true;
}

void CVEKHttp2Link::CloseOnLimit(VEK_HTTP2_FAILURE failure, uint32_t code) {
    Note(failure, {}, code);
    VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) %s!...", name_.c_str(),
                    VEK_HTTP2_FAILURE_TEXT(failure));
    SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR);
    Terminate(code);
}

// Notes why the engine's call has failed, and tells a peer whose fault it is, where that is asked
// for: on these results the engine says no GOAWAY by itself.
void CVEKHttp2Link::CloseOnOffence(int result) {
    uint32_t code = NGHTTP2_NO_ERROR;
    switch (result) {
        case NGHTTP2_ERR_FLOODED:
        case NGHTTP2_ERR_TOO_MANY_CONTINUATIONS:
            code = NGHTTP2_ENHANCE_YOUR_CALM;
            break;
        case NGHTTP2_ERR_BAD_CLIENT_MAGIC:
            code = NGHTTP2_PROTOCOL_ERROR;
            break;
        case NGHTTP2_ERR_NOMEM:
            return Note(VEK_HTTP2_FAILURE_MEMORY);
        default:
            return NoteTransport(result);
    }
    Note(VEK_HTTP2_FAILURE_OFFENCE, nghttp2_strerror(result), code);
    if (policy_.isOffenceContained_) {
        Terminate(code);
    }
}

// TLS may have failed behind the handshake: a server of TLS 1.3 refuses certificates only then.
// Where neither it nor the socket has, it was one of our own callbacks.
void CVEKHttp2Link::NoteTransport(int result) {
    const VEK_HTTP2_FAILURE failure =
        result == NGHTTP2_ERR_EOF ? VEK_HTTP2_FAILURE_PEER_CLOSED : VEK_HTTP2_FAILURE_TRANSPORT;
    const VEK_ST_TLS_FAILURE* tls = transport_.GetTLSFailure();
    if (tls == nullptr) {
        const bool isOurs = result != NGHTTP2_ERR_EOF && ioError_ == 0;
        return isOurs ? Note(VEK_HTTP2_FAILURE_INTERNAL, nghttp2_strerror(result))
                      : Note(failure, {}, 0, ioError_);
    }
    VEK_ST_HTTP2_ERROR error;
    error.failure_ = failure;
    error.tlsCause_ = tls->cause_;
    error.errno_ = tls->systemError_;
    errorNote_.Put(error, tls->text_);
}

bool CVEKHttp2Link::IsProgressLate(VEK_HTTP2_TIME now) const {
    return now - progressTime_ >= std::chrono::milliseconds(policy_.stallMs_);
}

bool CVEKHttp2Link::IsStalled() {
    if ((bodies_ == 0 && !output_.IsBlocked()) || !IsProgressLate(passTime_)) {
        return false;
    }
    const bool isStalled = output_.IsBlocked() || handler_.HasDataToSend();
    bodies_ = isStalled ? bodies_ : 0;
    return isStalled;
}

// A body is about to be submitted: where nothing else waits, its time begins to run.
void CVEKHttp2Link::AwaitProgress() {
    if (policy_.stallMs_ == 0) {
        return;
    }
    const VEK_HTTP2_TIME now = VEK_HTTP2_NOW();
    if (bodies_ == 0 ||
        (IsProgressLate(now) && !output_.IsBlocked() && !handler_.HasDataToSend())) {
        bodies_ = 0;
        progressTime_ = now;
    }
    ++bodies_;
}

bool CVEKHttp2Link::IsOver() const {
    return nghttp2_session_want_read(session_) == 0 && nghttp2_session_want_write(session_) == 0;
}

// What needs no event is done first: TLS may hold received bytes back, nothing announces that a
// socket which refused bytes takes some again, and a frame that was submitted outside a flush (the
// reset of a stream that timed out) must not wait for one.
VEK_HTTP2_EVENT CVEKHttp2Link::Wait(int timeoutMs) {
    if (transport_.IsRecvBuffered()) {
        return VEK_HTTP2_EVENT_READY;
    }
    if ((output_.IsBlocked() || nghttp2_session_want_write(session_) != 0) && Flush() != 0) {
        return VEK_HTTP2_EVENT_READY;  // the pass that follows meets the failure and reports it
    }
    return WaitEvent(epfd_, fd_, timeoutMs);
}

VEK_HTTP2_EVENT CVEKHttp2Link::WaitOut(int timeoutMs) {
    using std::chrono::milliseconds;
    using std::chrono::steady_clock;
    const steady_clock::time_point limit = steady_clock::now() + milliseconds(timeoutMs);
    VEK_HTTP2_EVENT event = Wait(timeoutMs);
    while (event == VEK_HTTP2_EVENT_INTERRUPTED) {
        const auto left = std::chrono::ceil<milliseconds>(limit - steady_clock::now());
        event = left.count() > 0 ? Wait(static_cast<int>(left.count())) : VEK_HTTP2_EVENT_NONE;
    }
    return event;
}

void CVEKHttp2Link::CloseOnEventError() {
    int error = 0;
    socklen_t length = sizeof error;
    getsockopt(fd_, SOL_SOCKET, SO_ERROR, &error, &length);
    Note(VEK_HTTP2_FAILURE_TRANSPORT, {}, 0, error);
    SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_EVENT_ERROR);
    VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) event error dispatch!...", name_.c_str());
}

CVEKHttp2Link::Liveness CVEKHttp2Link::CheckLiveness() {
    if (GetState() == VEK_HTTP2_CONN_STATE_CLOSE || session_ == nullptr) {
        return LIVENESS_CLOSED;
    }
    passTime_ = VEK_HTTP2_NOW();
    TrimWhenDue();
    // What has come in time is not late because nobody has looked: the next pass reads it and
    // judges.
    const auto isUnread = [this] {
        return transport_.IsRecvBuffered() ||
               VEK_WAIT_SOCKET(fd_, POLLIN, std::chrono::microseconds(0)) > 0;
    };
    if (EndDrainWhenDone() || (HasTimeLimits() && !isUnread() && !CheckLimits())) {
        return LIVENESS_CLOSED;
    }
    const auto secondsSince = [this](VEK_HTTP2_TIME from) {
        return std::chrono::duration<double>(passTime_ - from).count();
    };
    if (options_.nPingSendThreshold_ == 0) {
        return LIVENESS_GOOD;
    }
    if (!ping_send_flag_) {
        return secondsSince(last_recv_time_) < options_.nPingSendThreshold_ ? LIVENESS_GOOD
                                                                            : LIVENESS_PING_DUE;
    }
    if (ping_recv_flag_) {
        ping_send_flag_ = false;
        ping_recv_flag_ = false;
        return LIVENESS_GOOD;
    }
    if (secondsSince(ping_send_time_) >= options_.nPingTimeoutThreshold_) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) ping timeout!...", name_.c_str());
        SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_PING_TIMEOUT);
        return LIVENESS_CLOSED;
    }
    return LIVENESS_GOOD;
}

void CVEKHttp2Link::TrimWhenDue() {
    if (passTime_ - trimTime_ >= TRIM_INTERVAL) {
        trimTime_ = passTime_;
        handler_.OnTrim();
    }
}

bool CVEKHttp2Link::SubmitPing() {
    if (session_ == nullptr) {
        return false;
    }
    const int result = nghttp2_submit_ping(session_, NGHTTP2_FLAG_NONE, nullptr);
    if (result != 0) {
        SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_submit_ping() failed!...%s", name_.c_str(),
                        nghttp2_strerror(result));
    }
    return result == 0;
}

void CVEKHttp2Link::MarkPingSent() {
    ping_send_time_ = VEK_HTTP2_NOW();
    ping_send_flag_ = true;
    ping_recv_flag_ = false;
}

void CVEKHttp2Link::OnPingRecv(const nghttp2_frame* frame) {
    const bool isAck = (frame->hd.flags & NGHTTP2_FLAG_ACK) != 0;
    if (isAck && ping_send_flag_) {
        ping_recv_flag_ = true;
    }
    if (G_VEK_HTTP2_DETAIL_LOG) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, isAck ? "RECV PING ACK" : "RECV PING");
    }
}

// Hands the parts of a frame to the output. Returns 0 or an error of the engine.
int CVEKHttp2Link::Put(std::initializer_list<CVEKHttp2Output::Part> parts) {
    return Guard([&] { return output_.Add(parts, transport_) ? 0 : PutResult(); });
}

// Right behind the write that did not go through.
int CVEKHttp2Link::PutResult() {
    if (output_.GetResult() == VEK_SOCKET_AGAIN) {
        return NGHTTP2_ERR_WOULDBLOCK;
    }
    ioError_ = errno;
    return NGHTTP2_ERR_CALLBACK_FAILURE;
}

// The payload of a DATA frame goes from where it is into the output, and not through the engine.
int CVEKHttp2Link::PutData(const nghttp2_frame* frame, const uint8_t* header, size_t length,
                           void* body) {
    if (IsReleased(frame->hd.stream_id)) {
        return NGHTTP2_ERR_TEMPORAL_CALLBACK_FAILURE;  // drops the frame, not the connection
    }
    // Before a source hands its bytes out, which it does once.
    if (!output_.MakeRoom(FRAME_HEADER_SIZE + length, transport_)) {
        return PutResult();
    }
    const char* data = nullptr;
    if (isSourceRead_) {
        data = length > 0 ? static_cast<CVEKHttp2Source*>(body)->Take(length) : nullptr;
    } else {
        const auto* chunk = static_cast<VEK_ST_HTTP2_CHUNK_DATA*>(body);
        // rSize_ stands before the last piece, and behind any other one.
        const bool isLast = (frame->hd.flags & NGHTTP2_FLAG_END_STREAM) != 0;
        data = chunk->data_ + (isLast ? chunk->rSize_ : chunk->rSize_ - length);
    }
    const bool isEnd = (frame->hd.flags & NGHTTP2_FLAG_END_STREAM) != 0;
    bodies_ -= isEnd && bodies_ > 0 ? 1 : 0;
    progressTime_ = policy_.stallMs_ != 0 ? VEK_HTTP2_NOW() : progressTime_;
    return Put({{header, FRAME_HEADER_SIZE}, {data, length}});
}

// Says how much of a body by reference goes next; the bytes themselves are taken when the frame is
// sent.
ssize_t CVEKHttp2Link::OfferChunk(VEK_ST_HTTP2_CHUNK_DATA* chunk, size_t length, uint32_t* flags) {
    isSourceRead_ = false;
    const size_t remaining = chunk->size_ - chunk->rSize_;
    *flags |= NGHTTP2_DATA_FLAG_NO_COPY;
    if (remaining > length) {
        chunk->rSize_ += length;
        return static_cast<ssize_t>(length);
    }
    *flags |= NGHTTP2_DATA_FLAG_EOF;
    return static_cast<ssize_t>(remaining);
}

ssize_t CVEKHttp2Link::OfferSource(CVEKHttp2Source* source, size_t length, uint32_t* flags) {
    isSourceRead_ = true;
    CVEKHttp2Source::End end = CVEKHttp2Source::END_OPEN;
    ssize_t offered = CVEKHttp2Source::FAILED;
    try {
        offered = source->Offer(length, end);
    } catch (const std::bad_alloc&) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) memory allocate failed...", name_.c_str());
    }
    if (offered == CVEKHttp2Source::LATER) {
        return NGHTTP2_ERR_DEFERRED;
    }
    if (offered < 0 || (offered == 0 && end == CVEKHttp2Source::END_OPEN)) {
        return NGHTTP2_ERR_TEMPORAL_CALLBACK_FAILURE;
    }
    *flags |= NGHTTP2_DATA_FLAG_NO_COPY;
    if (end != CVEKHttp2Source::END_OPEN) {
        *flags |= NGHTTP2_DATA_FLAG_EOF;
    }
    if (end == CVEKHttp2Source::END_TRAILERS) {
        *flags |= NGHTTP2_DATA_FLAG_NO_END_STREAM;
    }
    return offered;
}

// Gives the session what there is to read in this pass. Zero, or the engine's error.
int CVEKHttp2Link::FeedSession() {
    const ReadBuffer buffer;
    while (buffer.Get() != nullptr) {
        const ssize_t size = Read(buffer.Get(), READ_SIZE);
        if (size < 0) {
            return size == NGHTTP2_ERR_WOULDBLOCK ? 0 : static_cast<int>(size);
        }
        const ssize_t taken =
            nghttp2_session_mem_recv(session_, buffer.Get(), static_cast<size_t>(size));
        if (taken < 0) {
            return static_cast<int>(taken);
        }
    }
    return NGHTTP2_ERR_NOMEM;
}

ssize_t CVEKHttp2Link::Read(uint8_t* buf, size_t length) {
    if (isGoawaySent_ && policy_.maxBytesAfterGoaway_ != 0 &&
        bytesAfterGoaway_ > policy_.maxBytesAfterGoaway_) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) peer goes on after GOAWAY!...", name_.c_str());
        SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR);
        return NGHTTP2_ERR_CALLBACK_FAILURE;
    }
    if (received_ > 0 && (transport_.IsRecvDrained() || IsPassFull())) {
        return NGHTTP2_ERR_WOULDBLOCK;
    }
    const int result = transport_.Recv(reinterpret_cast<char*>(buf), length);
    if (result > 0) {
        received_ += static_cast<size_t>(result);
        bytesAfterGoaway_ += isGoawaySent_ ? static_cast<size_t>(result) : 0;
        return result;
    }
    if (result == VEK_SOCKET_AGAIN) {
        return NGHTTP2_ERR_WOULDBLOCK;
    }
    ioError_ = result == 0 ? 0 : errno;
    return result == 0 ? NGHTTP2_ERR_EOF : NGHTTP2_ERR_CALLBACK_FAILURE;
}

// What TLS has decrypted already does not wait: no event tells of it.
bool CVEKHttp2Link::IsPassFull() const {
    const bool isFull = received_ >= PASS_SIZE || (limits_.passTime.count() > 0 &&
                                                   VEK_HTTP2_NOW() - passTime_ >= limits_.passTime);
    return isFull && !transport_.IsRecvBuffered();
}

bool CVEKHttp2Link::IsBlockExcessive() const {
    constexpr size_t EXCESS = 16;
    return headerBytes_ / EXCESS > limits_.headerBytes ||
           headerFields_ / EXCESS > limits_.headerFields;
}

int CVEKHttp2Link::TakeField(const nghttp2_frame* frame, std::string_view name,
                             std::string_view value) {
    const bool wasTooLarge =
        headerBytes_ > limits_.headerBytes || headerFields_ > limits_.headerFields;
    headerBytes_ += name.size() + value.size() + FIELD_OVERHEAD;
    ++headerFields_;
    if (headerBytes_ > limits_.headerBytes || headerFields_ > limits_.headerFields) {
        return Guard([&] { return handler_.OnHeaderOverflow(frame, !wasTooLarge); });
    }
    // The status comes first (RFC 9113, section 8.3).
    if (headerFields_ == 1 && block_ != VEK_HTTP2_BLOCK_PUSH && name == ":status") {
        block_ = BlockOfStatus(value);
    }
    return Guard([&] { return handler_.OnHeader(frame, name, value); });
}

void CVEKHttp2Link::ReportInvalidHeader(const nghttp2_frame* frame, int32_t stream,
                                        nghttp2_rcbuf* name, nghttp2_rcbuf* value) const {
    const nghttp2_vec nameText = nghttp2_rcbuf_get_buf(name);
    const nghttp2_vec valueText = nghttp2_rcbuf_get_buf(value);
    VEK_PEER_LOG(VEK_LOG_ERROR,
                 "conn(%s)Invalid header field for stream_id=%d,in frame type= %d,"
                 "name=[%s,%d],value=[%s:%d]",
                 name_.c_str(), stream, frame->hd.type, Escape(nameText).c_str(),
                 static_cast<int>(nameText.len), Escape(valueText).c_str(),
                 static_cast<int>(valueText.len));
}
