#include "CVEKHttpConnection.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "VEKHttp2Field.h"
#include "VEKHttp2Policy.h"
#include "VEKHttpAddressText.h"
#include "VEKHttpFieldCheck.h"
#include "VEKLogText.h"
#include "VEKServiceLog.h"
#include "VEKSocketTraffic.h"
#include "VEKTlsConnection.h"

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr uint32_t DEFAULT_HEADER_TABLE = 4096;  // RFC 9113, section 6.5.2, as the next one
constexpr uint32_t DEFAULT_FRAME = 16384;
// How long a closed connection waits for its peer to close too: data that is under way to it would
// otherwise have the system drop what the peer has not read yet.
constexpr uint64_t LINGER_MS = 1000;
constexpr size_t DISCARD_SIZE = 16384;
constexpr int CAPTURE_FILE_BYTES = 256 << 20;
// Frames that wait for a peer which does not read: what it sends causes nearly all of them.
constexpr size_t MAX_QUEUED = 10000;
// A loop has other connections: tiny frames, or packed header fields, must not keep it.
constexpr std::chrono::microseconds PASS_TIME(500);

VEK_HTTP_REASON ReasonOf(VEK_HTTP2_SETUP_STAGE stage) {
    switch (stage) {
        case VEK_HTTP2_SETUP_STAGE_RESOLVE:
            return VEK_HTTP_REASON::RESOLVE;
        case VEK_HTTP2_SETUP_STAGE_TLS:
            return VEK_HTTP_REASON::TLS;
        case VEK_HTTP2_SETUP_STAGE_ALPN:
        case VEK_HTTP2_SETUP_STAGE_UPGRADE:
            return VEK_HTTP_REASON::NO_HTTP2;
        case VEK_HTTP2_SETUP_STAGE_TIME:
            return VEK_HTTP_REASON::TIMEOUT;
        default:
            return VEK_HTTP_REASON::CONNECT;
    }
}

VEK_ST_HTTP2_OPTIONS MakeOptions(const VEK_ST_HTTP_SETTINGS& settings, size_t streamLimit) {
    VEK_ST_HTTP2_OPTIONS options{};
    options.nMaxConcurrentStream_ = static_cast<uint32_t>(streamLimit);
    options.nMaxHeaderTableSize_ = settings.headerTableBytes_;
    options.nDefaultWindowSize_ = settings.streamWindow_;
    options.nDefaultFrameSize_ = settings.frameBytes_;
    options.nLocalWindowSize_ = settings.connectionWindow_;
    return options;
}

VEK_ST_HTTP2_LIMITS MakeLimits(const VEK_ST_HTTP_SETTINGS& settings) {
    VEK_ST_HTTP2_LIMITS limits;
    limits.headerBytes = settings.headerBytes_;
    limits.headerFields = settings.headerFields_;
    limits.isWindowManual = true;
    limits.isClosedStreamKept = false;
    limits.passTime = PASS_TIME;
    return limits;
}

// An end of a connection, as captures name it; Unix sockets have no address.
struct SocketEnd {
    std::string address;
    std::string name;
};

SocketEnd DescribeEnd(int fd, int (*ask)(int, sockaddr*, socklen_t*), const std::string& unnamed) {
    SocketEnd end{"", unnamed};
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    if (ask(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
        VEK_HTTP_WRITE_ADDRESS(address, end.address, end.name);
        const size_t colon = end.name.rfind(':');
        if (colon != std::string::npos) {
            end.name[colon] = '-';
        }
    }
    return end;
}

// Where there is no memory for a failure of the connection's own: neither the record nor its text,
// which is short enough for the string itself, needs any.
std::shared_ptr<const VEK_ST_HTTP_FAILURE> MemoryFailure() {
    static const VEK_ST_HTTP_FAILURE failure{VEK_HTTP_REASON::MEMORY, "no memory left",
                                             NGHTTP2_INTERNAL_ERROR, false};
    return {std::shared_ptr<const void>(), &failure};
}

}  // namespace

CVEKHttpConnection::CVEKHttpConnection(CVEKLoopCore& core, uint64_t number, std::string peer,
                                       const VEK_ST_HTTP_SETTINGS& settings, size_t streamLimit,
                                       bool isServer)
    : core_(core),
      link_(*this, name_),
      settings_(settings),
      number_(number),
      name_(std::move(peer)),
      begun_(Clock::now()),
      passTime_(begun_),
      isServer_(isServer) {
    link_.SetOptions(MakeOptions(settings, streamLimit));
    link_.SetLimits(MakeLimits(settings));
    VEK_ST_HTTP2_POLICY policy;
    policy.maxLogLines_ = VEK_HTTP2_LOG_LINES;
    link_.SetPolicy(policy);
}

CVEKHttpConnection::~CVEKHttpConnection() {
    Close();
}

CVEKHttp2Setup& CVEKHttpConnection::BeginSetup(const VEK_ST_HTTP2_SETUP_LIMITS& limits) {
    setup_ = std::make_unique<CVEKHttp2Setup>(link_.GetTransport(), name_.c_str());
    setup_->SetLimits(limits);
    return *setup_;
}

void CVEKHttpConnection::StepSetup() {
    // While addresses are tried, the descriptor is closed and opened again, under the same number
    // maybe: the loop must let go of it before.
    if (!isServer_ && !isTransportReady_ && poll_ != nullptr) {
        poll_->Watch(0);
    }
    switch (AdvanceSetup()) {
        case VEK_HTTP2_STEP_WAIT:
            if (!WatchSetup()) {
                Fail(VEK_HTTP_REASON::SYSTEM, "descriptor cannot be watched");
                GoDown();
            }
            return;
        case VEK_HTTP2_STEP_DONE:
            OpenSession();
            return;
        default:
            FailSetup();
    }
}

void CVEKHttpConnection::StartCapture(const std::string& directory,
                                      const VEK_ST_DUMP_OPTIONS& options, bool isTls) {
    if (directory.empty() || (isTls && !options.hasTLS_)) {
        return;
    }
    const int fd = link_.GetTransport().GetSocket();
    const std::string unnamed = "unix-" + std::to_string(number_);
    const SocketEnd own = DescribeEnd(fd, getsockname, unnamed);
    const SocketEnd peer = DescribeEnd(fd, getpeername, unnamed);
    const SocketEnd& client = isServer_ ? peer : own;
    const SocketEnd& server = isServer_ ? own : peer;
    if (!link_.GetTransport().EnableDump(directory.c_str(), client.name.c_str(), CAPTURE_FILE_BYTES,
                                         client.address.c_str(), server.address.c_str(), options)) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "no capture of %s in %s", client.name.c_str(),
                        directory.c_str());
    }
}

int CVEKHttpConnection::AdvanceSetup() {
    if (!isTransportReady_) {
        const int result = setup_->AdvanceTransport();
        if (result != VEK_HTTP2_STEP_DONE) {
            return result;
        }
        connected_ = Clock::now() - std::chrono::microseconds(setup_->GetTimes().tlsUs_);
        isTransportReady_ = true;
        if (!OnTransport(*setup_)) {
            return VEK_HTTP2_STEP_FAILED;
        }
    }
    const bool isUpgrade =
        setup_->GetClientUpgrade() != nullptr || setup_->GetServerUpgrade() != nullptr;
    return isUpgrade ? setup_->AdvanceUpgrade() : VEK_HTTP2_STEP_DONE;
}

bool CVEKHttpConnection::WatchSetup() {
    const auto left = std::chrono::ceil<milliseconds>(setup_->GetDeadline() - Clock::now());
    core_.Arm(*this, core_.GetNow() + static_cast<uint64_t>(std::max<int64_t>(left.count(), 0)));
    return WatchSocket(setup_->GetEvents() == POLLOUT ? UV_WRITABLE : UV_READABLE);
}

bool CVEKHttpConnection::WatchSocket(int events) {
    const int fd = link_.GetTransport().GetSocket();
    if (poll_ != nullptr && poll_->GetDescriptor() != fd) {
        std::exchange(poll_, nullptr)->Close();
    }
    if (poll_ == nullptr) {
        poll_ = CVEKLoopPoll::Open(core_, fd, OnPoll, this);
    }
    return poll_ != nullptr && poll_->Watch(events);
}

void CVEKHttpConnection::FailSetup() {
    const VEK_ST_HTTP2_SETUP_FAILURE failure = setup_->GetFailure();
    std::string text = failure.text_;
    if (failure.errno_ != 0 && failure.tlsCause_ == 0) {  // TLS has told it
        text += std::string(": ") + strerror(failure.errno_);
    }
    Fail(failure.errno_ == ENOMEM ? VEK_HTTP_REASON::MEMORY : ReasonOf(failure.stage_), text);
    GoDown();
}

void CVEKHttpConnection::OpenSession() {
    core_.Disarm(*this);
    link_.Open(link_.GetTransport().GetSocket());
    const int result = StartSession();
    if (result != 0) {
        Fail(result == NGHTTP2_ERR_NOMEM ? VEK_HTTP_REASON::MEMORY : VEK_HTTP_REASON::NO_HTTP2,
             nghttp2_strerror(result));
        GoDown();
        return;
    }
    const std::unique_ptr<CVEKHttp2Setup> setup = std::move(setup_);
    BeginPass();
    up_ = passTime_;
    isUp_ = true;
    OnUp(*setup);
    Pass();  // TLS may hold what came behind the handshake
}

int CVEKHttpConnection::StartSession() {
    int result = link_.CreateSession(isServer_);
    if (result == 0 && setup_->GetServerUpgrade() != nullptr) {
        const std::string& payload = setup_->GetServerUpgrade()->GetSettings();
        result = link_.UpgradeSession(payload.data(), payload.size());
    } else if (result == 0 && setup_->GetClientUpgrade() != nullptr) {
        const CVEKHttp2ClientUpgrade& upgrade = *setup_->GetClientUpgrade();
        result = link_.UpgradeSession(upgrade.GetPayload(), upgrade.GetPayloadSize());
    }
    if (result == 0) {
        result = SubmitSettings();
    }
    if (result == 0 && !link_.SetLocalWindow()) {
        result = NGHTTP2_ERR_NOMEM;
    }
    if (result == 0) {
        link_.Start();
    }
    return result;
}

// What differs from what HTTP/2 takes for granted.
int CVEKHttpConnection::SubmitSettings() {
    constexpr size_t MAX_ENTRIES = 5;
    nghttp2_settings_entry entries[MAX_ENTRIES];
    size_t count = 0;
    if (isServer_) {
        entries[count++] = {NGHTTP2_SETTINGS_MAX_CONCURRENT_STREAMS,
                            link_.GetOptions().nMaxConcurrentStream_};
    } else {
        entries[count++] = {NGHTTP2_SETTINGS_ENABLE_PUSH, 0};
    }
    entries[count++] = {NGHTTP2_SETTINGS_INITIAL_WINDOW_SIZE, settings_.streamWindow_};
    entries[count++] = {NGHTTP2_SETTINGS_MAX_HEADER_LIST_SIZE,
                        static_cast<uint32_t>(settings_.headerBytes_)};
    if (settings_.frameBytes_ != DEFAULT_FRAME) {
        entries[count++] = {NGHTTP2_SETTINGS_MAX_FRAME_SIZE, settings_.frameBytes_};
    }
    if (settings_.headerTableBytes_ != DEFAULT_HEADER_TABLE) {
        entries[count++] = {NGHTTP2_SETTINGS_HEADER_TABLE_SIZE, settings_.headerTableBytes_};
    }
    return link_.SubmitSettings(entries, count);
}

void CVEKHttpConnection::OnPoll(void* owner, int status, int events) {
    auto* connection = static_cast<CVEKHttpConnection*>(owner);
    connection->Guard([=] { connection->Handle(status, events); });
}

void CVEKHttpConnection::Handle(int status, int events) {
    if (isLingering_) {
        DiscardInput();
    } else if (setup_ != nullptr) {
        StepSetup();
    } else if (status >= 0 && (events & UV_READABLE) == 0) {
        SettlePass();  // takes bytes again
    } else {
        if (status < 0) {
            Fail(VEK_HTTP_REASON::BROKEN, "connection is broken");
        }
        Pass();
    }
}

void CVEKHttpConnection::BeginPass() {
    isInPass_ = true;
    passTime_ = Clock::now();
}

void CVEKHttpConnection::Pass() {
    BeginPass();
    link_.Receive();
    SettlePass();
}

void CVEKHttpConnection::OnSettle() {
    Guard([this] {
        if (link_.GetTransport().IsRecvBuffered() && !HasFailed()) {
            Pass();
        } else {
            SettlePass();
        }
    });
}

// What the pass has caused leaves; then the connection goes, or waits for more.
void CVEKHttpConnection::SettlePass() {
    if (!isInPass_) {
        BeginPass();
    }
    if (link_.IsLive()) {
        link_.FlushOrClose("nghttp2_session_send", true);
    }
    isInPass_ = false;
    if (link_.IsLive() && link_.GetQueued() > MAX_QUEUED) {
        Fail(VEK_HTTP_REASON::ABUSE, "the peer does not take its answers",
             NGHTTP2_ENHANCE_YOUR_CALM);
    }
    // A server's last bytes still have to leave.
    const bool isDone = link_.IsLive() && link_.IsOver() && !(isServer_ && link_.IsSendBlocked());
    if (!link_.IsLive() || HasFailed() || isDone) {
        ExplainEnd();
        GoDown();
        return;
    }
    NoteBlocked();
    if (!WatchSocket(link_.IsSendBlocked() ? UV_READABLE | UV_WRITABLE : UV_READABLE)) {
        Fail(VEK_HTTP_REASON::SYSTEM, "descriptor cannot be watched");
    }
    if (HasFailed() || link_.GetTransport().IsRecvBuffered()) {
        core_.Mark(*this);
    }
}

void CVEKHttpConnection::NoteBlocked() {
    if (!link_.IsSendBlocked()) {
        blockedSince_ = 0;
    } else if (blockedSince_ == 0) {
        blockedSince_ = core_.GetNow();
        ArmBy(CheckDeadlines(blockedSince_));
    }
}

// Notes why the engine has ended the connection, unless that is known.
void CVEKHttpConnection::ExplainEnd() {
    const char* complaint = complaint_ != nullptr ? complaint_->c_str() : "";
    switch (link_.GetResult()) {
        case 0:
            if (IsDraining()) {
                Fail(isGoawayReceived_ ? VEK_HTTP_REASON::PEER_CLOSED : VEK_HTTP_REASON::CLOSED,
                     isGoawayReceived_ ? "the peer has said GOAWAY" : "drained", goawayCode_);
            } else {
                Fail(VEK_HTTP_REASON::PROTOCOL, *complaint != '\0' ? complaint : "protocol error",
                     NGHTTP2_PROTOCOL_ERROR);
            }
            return;
        case NGHTTP2_ERR_EOF:
        case NGHTTP2_ERR_CALLBACK_FAILURE:
            ExplainBreak();
            return;
        case NGHTTP2_ERR_NOMEM:
            FailMemory();
            return;
        case NGHTTP2_ERR_FLOODED:
        case NGHTTP2_ERR_TOO_MANY_CONTINUATIONS:
            Fail(VEK_HTTP_REASON::ABUSE, "flooded by the peer", NGHTTP2_ENHANCE_YOUR_CALM);
            return;
        default:
            Fail(VEK_HTTP_REASON::PROTOCOL, nghttp2_strerror(link_.GetResult()),
                 NGHTTP2_PROTOCOL_ERROR);
    }
}

// TLS may have failed behind the handshake: a server of TLS 1.3 judges certificates only then.
void CVEKHttpConnection::ExplainBreak() {
    const VEK_ST_TLS_FAILURE* tls = link_.GetTransport().GetTLSFailure();
    if (tls != nullptr && tls->systemError_ == 0) {
        Fail(VEK_HTTP_REASON::TLS, tls->text_);
    } else if (link_.GetResult() == NGHTTP2_ERR_EOF) {
        Fail(VEK_HTTP_REASON::PEER_CLOSED,
             isGoawayReceived_ ? "closed by the peer after its GOAWAY" : "closed by the peer",
             goawayCode_);
    } else {
        const int error = link_.GetError().errno_;
        Fail(VEK_HTTP_REASON::BROKEN, error != 0 ? strerror(error) : "connection is broken",
             goawayCode_);
    }
}

void CVEKHttpConnection::Fail(VEK_HTTP_REASON reason, std::string_view text, uint32_t code) {
    if (failure_ != nullptr) {
        return;
    }
    try {
        auto failure = std::make_shared<VEK_ST_HTTP_FAILURE>();
        failure->reason_ = reason;
        failure->text_ = text;
        failure->code_ = code;
        failure_ = std::move(failure);
    } catch (const std::bad_alloc&) {
        failure_ = MemoryFailure();
    }
    if (isUp_) {
        Wake();
    }
}

void CVEKHttpConnection::FailMemory() {
    if (failure_ == nullptr) {
        failure_ = MemoryFailure();
        if (isUp_) {
            Wake();
        }
    }
}

void CVEKHttpConnection::End(VEK_HTTP_REASON reason, std::string_view text) {
    if (isLingering_) {
        Close();
        OnDown(*failure_);
        return;
    }
    Fail(reason, text);
    isLingering_ = true;  // enough of waiting
    GoDown();
}

// The streams go with the connection.
void CVEKHttpConnection::GoDown() {
    core_.Unmark(*this);
    isInPass_ = true;
    while (!streams_.IsEmpty()) {
        CVEKHttpStream& stream = *streams_.GetFirst();
        Detach(stream);
        OnStreamEnd(stream, failure_->code_, failure_.get());
    }
    const bool isPeerThere = link_.HasSession() && link_.GetResult() != NGHTTP2_ERR_EOF &&
                             failure_->reason_ != VEK_HTTP_REASON::BROKEN &&
                             failure_->reason_ != VEK_HTTP_REASON::TLS;
    if (isPeerThere && !link_.IsOver()) {
        link_.ReleaseBodies();  // which went with the streams
        link_.Terminate(failure_->code_);
    }
    setup_.reset();
    link_.DeleteSession();
    if (isServer_ && isPeerThere && !isLingering_) {
        BeginLinger();
        return;
    }
    Close();
    OnDown(*failure_);
}

void CVEKHttpConnection::BeginLinger() {
    isLingering_ = true;
    link_.GetTransport().EndSending();
    bool isArmed = false;
    Tell([&] {
        core_.Arm(*this, core_.GetNow() + LINGER_MS);
        isArmed = true;
    });
    if (!isArmed || !WatchSocket(UV_READABLE)) {
        Close();
        OnDown(*failure_);
    }
}

void CVEKHttpConnection::DiscardInput() {
    char bytes[DISCARD_SIZE];
    const ssize_t count = recv(link_.GetSocket(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR)) {
        Close();
        OnDown(*failure_);
    }
}

void CVEKHttpConnection::Close() {
    core_.Unmark(*this);
    core_.Disarm(*this);
    if (poll_ != nullptr) {
        std::exchange(poll_, nullptr)->Close();
    }
    link_.DeleteSession();
    NoteTraffic();
    link_.GetTransport().Clear();
    link_.CloseSocket();
}

void CVEKHttpConnection::OnTimer() {
    Guard([this] { HandleTimer(); });
}

void CVEKHttpConnection::HandleTimer() {
    if (isLingering_) {
        Close();
        OnDown(*failure_);
        return;
    }
    if (setup_ != nullptr) {
        StepSetup();
        return;
    }
    BeginPass();
    const uint64_t due = CheckDeadlines(core_.GetNow());
    if (due != UINT64_MAX) {
        core_.Arm(*this, std::max(due, core_.GetNow() + 1));
    }
    SettlePass();
}

void CVEKHttpConnection::Drain(bool isNotice) {
    if (!link_.HasSession() || (isNotice ? isNoticeSent_ : isGoawaySent_)) {
        return;
    }
    if (isNotice) {
        isNoticeSent_ = true;
        link_.SubmitShutdownNotice();
    } else {
        isGoawaySent_ = true;
        link_.SubmitGoaway(NGHTTP2_NO_ERROR);
    }
    Wake();
}

void CVEKHttpConnection::ResumeBody(CVEKHttpStream& stream) {
    link_.ResumeBody(stream.id_);
    Wake();
}

bool CVEKHttpConnection::SubmitTrailers(const CVEKHttpStream& stream,
                                        const CVEKHttpFields& trailers) {
    if (VEK_HTTP_FIND_FAULT(trailers) != nullptr) {
        return false;
    }
    std::vector<nghttp2_nv> fields;
    for (const CVEKHttpFields::Field& field : trailers) {
        fields.push_back(VEK_HTTP2_FIELD(field.first, field.second));
        fields.back().flags = NGHTTP2_NV_FLAG_NONE;  // they may have to outlive the message
    }
    return link_.SubmitTrailers(stream.id_, fields.data(), fields.size()) == 0;
}

void CVEKHttpConnection::Consume(CVEKHttpStream& stream, size_t bytes) {
    const size_t taken = std::min(bytes, stream.unconsumed_);
    stream.unconsumed_ -= taken;
    NoteProgress(stream);  // the peer may go on from now
    link_.Consume(stream.id_, taken);
    Wake();
}

void CVEKHttpConnection::Attach(CVEKHttpStream& stream, int32_t id) {
    stream.id_ = id;
    stream.connection_ = this;
    stream.progressTime_ = core_.GetNow();
    stream.unconsumed_ = 0;
    streams_.PushBack(stream);
    found_ = &stream;
}

void CVEKHttpConnection::Detach(CVEKHttpStream& stream) {
    streams_.Remove(stream);
    stream.connection_ = nullptr;
    if (found_ == &stream) {
        found_ = nullptr;
    }
    if (link_.HasSession()) {
        if (stream.unconsumed_ > 0) {
            link_.Consume(stream.id_, stream.unconsumed_);
        }
        link_.SetStreamData(stream.id_, nullptr);
    }
}

CVEKHttpStream* CVEKHttpConnection::Find(int32_t id) const {
    if (found_ == nullptr || found_->id_ != id) {
        found_ = static_cast<CVEKHttpStream*>(link_.GetStreamData(id));
    }
    return found_;
}

int CVEKHttpConnection::OnFrameRecv(const nghttp2_frame* frame) {
    if (frame->hd.type == NGHTTP2_GOAWAY) {
        isGoawayReceived_ = true;
        goawayLast_ = frame->goaway.last_stream_id;
        goawayCode_ = frame->goaway.error_code;
    } else if (frame->hd.type == NGHTTP2_PING && (frame->hd.flags & NGHTTP2_FLAG_ACK) != 0 &&
               isNoticeSent_) {
        Drain(false);
    }
    return OnFrame(frame);
}

// A PING behind the notice, whose acknowledgement tells that it has arrived.
int CVEKHttpConnection::OnFrameSend(const nghttp2_frame* frame) {
    if (frame->hd.type == NGHTTP2_GOAWAY && isNoticeSent_ && !isGoawaySent_) {
        link_.SubmitPing();
    }
    return OnSent(frame);
}

int CVEKHttpConnection::OnStreamClose(int32_t stream, uint32_t error) {
    CVEKHttpStream* found = Find(stream);
    if (found != nullptr) {
        Detach(*found);
        OnStreamEnd(*found, error, nullptr);
    }
    return 0;
}

int CVEKHttpConnection::OnBeginHeaders(const nghttp2_frame* frame) {
    return OnHead(frame);
}

int CVEKHttpConnection::OnHeader(const nghttp2_frame* frame, std::string_view name,
                                 std::string_view value) {
    CVEKHttpStream* stream = Find(frame->hd.stream_id);
    return stream == nullptr ? 0 : OnField(*stream, name, value);
}

int CVEKHttpConnection::OnHeaderOverflow(const nghttp2_frame* frame, bool isFirst) {
    if (link_.IsBlockExcessive()) {
        Fail(VEK_HTTP_REASON::ABUSE, "header fields are over the limit by far",
             NGHTTP2_ENHANCE_YOUR_CALM);
        return NGHTTP2_ERR_CALLBACK_FAILURE;
    }
    CVEKHttpStream* stream = isFirst ? Find(frame->hd.stream_id) : nullptr;
    return stream == nullptr ? 0 : OnFieldOverflow(*stream);
}

int CVEKHttpConnection::OnDataChunkRecv(int32_t stream, const char* data, size_t length) {
    CVEKHttpStream* found = Find(stream);
    if (found == nullptr) {
        link_.Consume(stream, length);
        return 0;
    }
    NoteProgress(*found);
    return OnData(*found, {data, length});
}

int CVEKHttpConnection::OnInvalidFrameRecv(const nghttp2_frame* /*frame*/, int error) {
    complaint_ = std::make_unique<std::string>(nghttp2_strerror(error));
    return 0;
}

int CVEKHttpConnection::OnError(int /*error*/, std::string_view text) {
    complaint_ = std::make_unique<std::string>(VEK_ESCAPE_TEXT(text));
    return 0;
}

// The kernel counts as long as there is a socket.
void CVEKHttpConnection::NoteTraffic() {
    if (link_.GetSocket() >= 0) {
        VEK_SOCKET_TRAFFIC(link_.GetSocket(), bytesSent_, bytesReceived_);
    }
}

void CVEKHttpConnection::CountBytes(uint64_t& sent, uint64_t& received) {
    NoteTraffic();
    sent += bytesSent_;
    received += bytesReceived_;
}

VEK_ST_HTTP_CONNECTION CVEKHttpConnection::Describe() {
    VEK_ST_HTTP_CONNECTION description;
    description.number_ = number_;
    description.peer_ = name_;
    description.begun_ = begun_;
    description.connected_ = connected_;
    description.up_ = up_;
    SSL* ssl = link_.GetTransport().GetTLS();
    if (ssl != nullptr && isUp_) {
        VEK_ST_TLS_INFO info = VEK_TLS_DESCRIBE(ssl);
        description.tlsVersion_ = std::move(info.version_);
        description.tlsCipher_ = std::move(info.cipher_);
        description.isTlsResumed_ = info.isResumed_;
        description.tlsSubject_ = std::move(info.peerSubject_);
        description.tlsIssuer_ = std::move(info.peerIssuer_);
        description.tlsExpiry_ = std::move(info.peerExpiry_);
        description.tlsVerdict_ = std::move(info.peerVerdict_);
    }
    NoteTraffic();
    description.bytesSent_ = bytesSent_;
    description.bytesReceived_ = bytesReceived_;
    return description;
}
