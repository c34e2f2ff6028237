// CVEKHttp2Link: what both ends of a connection share. It owns descriptor, transport, session,
// output, event set, state and liveness clock, and is the only one that touches them: bytes go from
// the engine to the socket and back inside it. What differs between the ends, and between the users
// of a link, is its handler's.
//
// A link knows nothing of records: it takes header fields of any number and length up to its
// limits, bodies by reference or from a source, and hands what it receives to the handler piece by
// piece.
//
// Threads: one thread drives the link. SetState, GetState, GetStateCause, IsDraining, Note and
// GetError may be called from any.
//
// Life: a set-up, in steps or at once, of which the link has a descriptor in the end;
// CreateSession, Start, event passes, Terminate, DeleteSession, CloseEvent, CloseSocket; then from
// the beginning.
#ifndef CVEK_HTTP2_LINK_H
#define CVEK_HTTP2_LINK_H

#include <nghttp2/nghttp2.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "CVEKHttp2ErrorNote.h"
#include "CVEKHttp2Output.h"
#include "CVEKLogLimit.h"
#include "CVEKSocketNew.h"
#include "VEKExport.h"
#include "VEKHttp2Policy.h"
#include "VEKHttp2Step.h"
#include "VEKThreadSafety.h"
#include "defHttp2.h"

class CVEKHttp2LinkHandler;
class CVEKHttp2Setup;
class CVEKHttp2Source;

// Longest wait on a private event set.
constexpr int VEK_HTTP2_WAIT_MS = 10;

// The stream of the request that came with the upgrade (RFC 7540, section 3.2).
constexpr int VEK_HTTP2_UPGRADE_STREAM = 1;

// What a wait on the private event set found.
enum VEK_HTTP2_EVENT {
    VEK_HTTP2_EVENT_NONE,         // nothing for the connection's socket
    VEK_HTTP2_EVENT_READY,        // readable or writable
    VEK_HTTP2_EVENT_ERROR,        // error condition on the socket
    VEK_HTTP2_EVENT_INTERRUPTED,  // by a signal
    VEK_HTTP2_EVENT_FAILED,       // the wait itself failed; errno tells
};

// What a block of header fields is (RFC 9113, section 8.1).
enum VEK_HTTP2_BLOCK {
    VEK_HTTP2_BLOCK_REQUEST,
    VEK_HTTP2_BLOCK_INFORMATIONAL,  // a 1xx response; another one follows
    VEK_HTTP2_BLOCK_RESPONSE,       // the final one
    VEK_HTTP2_BLOCK_TRAILERS,
    VEK_HTTP2_BLOCK_PUSH,  // a promised request, or what comes on a promised stream
};

// What a link allows, and how it works; before CreateSession.
struct VEK_ST_HTTP2_LIMITS {
    // Largest field block taken or given, counted as SETTINGS_MAX_HEADER_LIST_SIZE does (RFC 9113,
    // section 6.5.2): a few bytes of a compressed block can stand for kilobytes. Of what is
    // received, the engine takes no name and no value above 64 KiB, whatever the limit.
    size_t headerBytes = size_t{64} * 1024;
    // Most fields in a block.
    size_t headerFields = 4096;
    // The windows open again only as the handler calls Consume.
    bool isWindowManual = false;
    // Streams that have closed are kept for a while, for priorities that refer to them.
    bool isClosedStreamKept = true;
    // Longest time that one event pass reads, however small the frames are; 0: only bytes count.
    std::chrono::microseconds passTime{0};
};

class VEK_API CVEKHttp2Link {
  public:
    // Both must outlive the link; `name` is the connection's, for log lines.
    CVEKHttp2Link(CVEKHttp2LinkHandler& handler, const std::string& name);
    ~CVEKHttp2Link();
    CVEKHttp2Link(const CVEKHttp2Link&) = delete;
    CVEKHttp2Link& operator=(const CVEKHttp2Link&) = delete;

    void SetOptions(const VEK_ST_HTTP2_OPTIONS& options) { options_ = options; }
    const VEK_ST_HTTP2_OPTIONS& GetOptions() const { return options_; }
    void SetLimits(const VEK_ST_HTTP2_LIMITS& limits) { limits_ = limits; }
    void SetPolicy(const VEK_ST_HTTP2_POLICY& policy) {
        policy_ = policy;
        logLimit_.SetLinesPerSecond(policy.maxLogLines_);
    }
    const VEK_ST_HTTP2_POLICY& GetPolicy() const { return policy_; }

    // Notes why the connection fails, unless that is known already; the next set-up forgets it.
    // reason: the details in somebody's words, may be empty; systemError: an errno, or 0.
    void Note(VEK_HTTP2_FAILURE failure, std::string_view reason = {}, uint32_t code = 0,
              int systemError = 0);
    // The same for an offence of the peer, by the engine's error and words.
    void NoteOffence(int error, std::string_view text);
    void Note(const VEK_ST_HTTP2_ERROR& error) { errorNote_.Put(error, {}); }
    // The same for a set-up that has failed.
    void NoteSetup(const CVEKHttp2Setup& setup);
    VEK_ST_HTTP2_ERROR GetError() const { return errorNote_.Get(); }

    // Of the policy. Receive and Flush have a scope of it.
    CVEKLogLimit& GetLogLimit() { return logLimit_; }

    // The descriptor, -1 when there is none, and the transport over it.
    int GetSocket() const { return fd_; }
    // Descriptor 0 is never a connection's: meant.
    bool HasSocket() const { return fd_ > 0; }
    CVEKSocketNew& GetTransport() { return transport_; }
    // Takes the connected descriptor over, to be closed from then on.
    void Open(int fd) { fd_ = fd; }

    // Stepwise set-up. Begins one, which the caller starts; null after an Error line when there is
    // no memory. Advance goes on with it and returns a VEK_HTTP2_STEP_... value; on WAIT, wait for
    // the events on the socket, which may be another one each time, and no longer than the
    // deadline.
    CVEKHttp2Setup* BeginSetup();
    // Gives a set-up the policy's time limits.
    void LimitSetup(CVEKHttp2Setup& setup) const;
    bool IsSettingUp() const { return setup_ != nullptr; }
    int Advance();
    short GetWaitEvents() const;
    VEK_HTTP2_DEADLINE GetWaitDeadline() const;
    // Drops a set-up that is under way; the socket stays.
    void CancelSetup();

    // Makes the private event set. False after an Info line.
    bool OpenEvent();
    bool HasEvent() const { return epfd_ != -1; }
    int GetEvent() const { return epfd_; }
    // Deletes the session; drops what has not left.
    void DeleteSession();
    // Closes the private event set. False, with errno, when the socket could not be taken out of
    // it.
    bool CloseEvent();
    // Closes the socket. Returns whether there was one.
    bool CloseSocket();

    // Creates the session of a client or a server. Returns the engine's result.
    int CreateSession(bool isServer);
    // Takes over the stream that came with the HTTP/1.1 upgrade (RFC 7540, section 3.2), and the
    // announced settings. Returns the engine's result.
    int UpgradeSession(const void* settings, size_t length);
    int SubmitSettings(const nghttp2_settings_entry* entries, size_t count);
    // Opens the connection-level receive window, where the options ask for it. False after an Error
    // line.
    bool SetLocalWindow();
    // The session is ready: opens the state and starts the liveness clock.
    void Start();
    bool HasSession() const { return session_ != nullptr; }
    // Says GOAWAY with `code` and flushes; failures change nothing any more.
    void Terminate(uint32_t code);

    // The first cause of a CLOSE stays; `cause` counts only for that state.
    void SetState(int state, int cause) VEK_EXCLUDES(mutexS_);
    int GetState() const { return state_; }
    int GetStateCause() const VEK_EXCLUDES(mutexS_);
    // Replaces the cause alone.
    void SetCause(int cause) VEK_EXCLUDES(mutexS_);
    // Neither closed nor before its start.
    bool IsOpen() const;
    // The peer has said GOAWAY and what it leaves to be finished is to be: the connection closes
    // when that is done.
    void StartDrain();
    bool IsDraining() const { return isDraining_; }
    // Closes the connection where that is done. Returns whether it was. Event passes do it too.
    bool EndDrainWhenDone();
    // Open, and with a session; for the driving thread.
    bool IsLive() const { return session_ != nullptr && IsOpen(); }

    // Submissions leave with the next flush. Fields are referred to, not copied, until their frame
    // has been serialised. A body by reference (size_ above 0; the link counts rSize_) or from a
    // source must stay until the stream has closed or was released. Null, or a size of 0: none.
    // All return the engine's result, SubmitRequest the new stream's id; a list over the limits is
    // NGHTTP2_ERR_INVALID_ARGUMENT, but for bodies by reference, whose callers have limits of their
    // own.
    int32_t SubmitRequest(const nghttp2_nv* fields, size_t count, VEK_ST_HTTP2_CHUNK_DATA* body);
    int32_t SubmitRequest(const nghttp2_nv* fields, size_t count, CVEKHttp2Source* source,
                          void* data = nullptr);
    int SubmitResponse(int32_t stream, const nghttp2_nv* fields, size_t count,
                       VEK_ST_HTTP2_CHUNK_DATA* body);
    int SubmitResponse(int32_t stream, const nghttp2_nv* fields, size_t count,
                       CVEKHttp2Source* source);
    // A 1xx response before the final one.
    int SubmitInformational(int32_t stream, const nghttp2_nv* fields, size_t count);
    // From a source's Offer, before it says END_TRAILERS.
    int SubmitTrailers(int32_t stream, const nghttp2_nv* fields, size_t count);
    // A source that had said LATER has bytes again.
    int ResumeBody(int32_t stream);
    int SubmitReset(int32_t stream, uint32_t code);
    // What the handler has noted for the stream, as of SubmitRequest or SetStreamData; null for no
    // such stream. Set it to null in OnStreamClose where what it leads to goes.
    void* GetStreamData(int32_t stream) const;
    void SetStreamData(int32_t stream, void* data);
    // GOAWAY in two steps (RFC 9113, section 6.8): the notice lets the peer go on for the time that
    // it takes to arrive, the other one names the last stream that has come.
    int SubmitShutdownNotice();
    int SubmitGoaway(uint32_t code);
    // Resets the stream with CANCEL and lets go of its fields and body at once: a DATA frame that a
    // blocked socket holds back is dropped. When memory ends, the session goes. Not in the midst of
    // a receive or a flush.
    int CancelStream(int32_t stream);
    // The same for all bodies, before Terminate: none is reached for any more.
    void ReleaseBodies() { areBodiesReleased_ = true; }
    // The stream was cancelled and has not closed yet.
    bool IsReleased(int32_t stream) const {
        return areBodiesReleased_ ||
               (!released_.empty() &&
                std::find(released_.begin(), released_.end(), stream) != released_.end());
    }
    // With manual windows: so many bytes of the stream's body have been dealt with.
    int Consume(int32_t stream, size_t length);
    // The engine's: 1 when this end has closed its half, 0 when not, -1 for no such stream.
    int GetLocalClose(int32_t stream) const;
    // The id that the next request gets.
    void SetNextStream(int32_t stream);

    // Sends everything that the session has to send, as far as the socket takes it. Returns the
    // engine's result.
    int Flush();
    // The same, with CloseOnError where it fails, and false.
    bool FlushOrClose(const char* call, bool isQuiet);
    // Closes the connection for an engine's result, with an Error line under the name of `call`.
    // isQuiet: leaves one that has closed already alone.
    void CloseOnError(const char* call, int result, bool isQuiet);
    // The first half of an event pass. Returns false when the connection has closed.
    bool Receive();
    // The end of an event pass. The engine ends a session by itself on some offences (a frame over
    // the size limit, too many resets): it says GOAWAY and has nothing to do any more. Returns
    // false when the connection has closed.
    bool EndPass();
    // Looks at the limits of the policy that concern time. Returns false when one has closed the
    // connection. Receive, EndPass and IsValid do it too.
    bool CheckLimits();
    // The session has nothing to do any more: by an offence, or as the last stream has closed
    // behind a GOAWAY.
    bool IsOver() const;
    // What the engine has said of the failure that closed the connection; NGHTTP2_ERR_NOMEM also
    // when the handler met it; 0 when that is not why.
    int GetResult() const { return result_; }
    // Frames that wait to be sent, beside bodies.
    size_t GetQueued() const { return nghttp2_session_get_outbound_queue_size(session_); }
    // The socket has refused bytes.
    bool IsSendBlocked() const { return output_.IsBlocked(); }
    // Waits for the socket on the private event set, for one event.
    VEK_HTTP2_EVENT Wait(int timeoutMs);
    // The same, waiting on through interruptions by signals.
    VEK_HTTP2_EVENT WaitOut(int timeoutMs);
    // Closes the connection when memory ends, with an Error line.
    void CloseForMemory();
    // Closes the connection after an error condition on the socket, with an Error line.
    void CloseOnEventError();

    // Liveness by PING; a due one is sent by the owner's SendPing, whose result counts.
    template <class SEND_PING>
    bool IsValid(SEND_PING sendPing);
    // Submits a PING. False after the connection has closed with an Error line.
    bool SubmitPing();
    void MarkPingSent();
    // For the owner's OnFrameRecv.
    void OnPingRecv(const nghttp2_frame* frame);

    // In OnHeader: the block that is being received.
    VEK_HTTP2_BLOCK GetBlock() const { return block_; }
    // The block is over the limits many times: a few bytes of a peer's may stand for thousands.
    bool IsBlockExcessive() const;

  private:
    struct Callbacks;
    int AdvanceTransport();
    int AdvanceUpgrade();
    enum Liveness { LIVENESS_CLOSED, LIVENESS_GOOD, LIVENESS_PING_DUE };

    Liveness CheckLiveness();
    bool HasTimeLimits() const { return policy_.settingsAckMs_ != 0 || policy_.stallMs_ != 0; }
    void TrimWhenDue();
    void CloseOnLimit(VEK_HTTP2_FAILURE failure, uint32_t code);
    void CloseOnOffence(int result);
    void NoteTransport(int result);
    bool IsDrained() const;
    void EndDrain();
    bool IsStalled();
    bool IsProgressLate(VEK_HTTP2_TIME now) const;
    void AwaitProgress();
    void OnGoawaySent(const nghttp2_goaway& goaway);
    bool IsWithinLimits(const nghttp2_nv* fields, size_t count) const;
    int FlushSession();
    int FlushResult();
    int PutResult();
    int Put(std::initializer_list<CVEKHttp2Output::Part> parts);
    int FeedSession();
    ssize_t Read(uint8_t* buf, size_t length);
    int PutData(const nghttp2_frame* frame, const uint8_t* header, size_t length, void* body);
    ssize_t OfferSource(CVEKHttp2Source* source, size_t length, uint32_t* flags);
    ssize_t OfferChunk(VEK_ST_HTTP2_CHUNK_DATA* chunk, size_t length, uint32_t* flags);
    bool IsPassFull() const;
    int TakeField(const nghttp2_frame* frame, std::string_view name, std::string_view value);
    void ReportInvalidHeader(const nghttp2_frame* frame, int32_t stream, nghttp2_rcbuf* name,
                             nghttp2_rcbuf* value) const;
    template <class ACTION>
    int Guard(ACTION action);

    CVEKHttp2LinkHandler& handler_;
    const std::string& name_;
    int fd_ = -1;
    int epfd_ = -1;
    CVEKSocketNew transport_;
    std::unique_ptr<CVEKHttp2Setup> setup_;  // while it is under way
    bool isTransportReady_ = false;          // of the set-up
    nghttp2_session* session_ = nullptr;     // owned
    CVEKHttp2Output output_;
    VEK_ST_HTTP2_OPTIONS options_{};
    VEK_ST_HTTP2_LIMITS limits_;
    VEK_ST_HTTP2_POLICY policy_;
    CVEKHttp2ErrorNote errorNote_;
    CVEKLogLimit logLimit_;

    mutable CVEKLock mutexS_;
    std::atomic<int> state_{VEK_HTTP2_CONN_STATE_INIT};  // written under mutexS_, read without it
    int cause_ VEK_GUARDED_BY(mutexS_) = VEK_HTTP2_CONN_CLOSE_CAUSE_NONE;

    VEK_HTTP2_TIME passTime_;  // when the current event pass or check began
    VEK_HTTP2_TIME trimTime_;
    VEK_HTTP2_TIME ping_send_time_;
    VEK_HTTP2_TIME last_recv_time_;
    bool ping_send_flag_ = false;
    bool ping_recv_flag_ = false;
    bool isGoawaySent_ = false;       // for an offence, by the engine
    bool isSettingsAwaited_ = false;  // our SETTINGS have left, their acknowledgement has not come
    std::atomic<bool> isDraining_{false};
    int ioError_ = 0;  // errno of the send or receive that failed

    int result_ = 0;               // see GetResult
    size_t received_ = 0;          // bytes in the current event pass
    size_t bytesAfterGoaway_ = 0;  // received behind our own GOAWAY
    VEK_HTTP2_TIME settingsTime_;  // when our SETTINGS left
    // Bodies submitted that have not left in full, as far as is known: streams that were reset
    // still count. 0 is exact.
    size_t bodies_ = 0;
    VEK_HTTP2_TIME progressTime_;  // when the peer has last taken some of them
    // Of the field block being received.
    size_t headerBytes_ = 0;
    size_t headerFields_ = 0;
    VEK_HTTP2_BLOCK block_ = VEK_HTTP2_BLOCK_REQUEST;
    // The body that the engine read from last comes from a source: it sends each DATA frame before
    // it reads for another.
    bool isSourceRead_ = false;
    // Streams that were cancelled and have not closed yet: their bodies may be gone.
    std::vector<int32_t> released_;
    bool areBodiesReleased_ = false;  // of all streams
};

template <class SEND_PING>
bool CVEKHttp2Link::IsValid(SEND_PING sendPing) {
    switch (CheckLiveness()) {
        case LIVENESS_CLOSED:
            return false;
        case LIVENESS_PING_DUE:
            return sendPing();
        default:
            return true;
    }
}

#endif
