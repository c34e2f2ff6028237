// CVEKHttp2Response: the server end of one accepted HTTP/2 connection.
//
// Life: construct, Initialize once, Accept a descriptor, then Request and Response in turn,
// Disconnect; the same object may Accept again. The connection owns its records and buffers and
// copies what it is given.
//
// With an event set of its own (isEvent false), Request drives the connection: it hands out the
// next complete request, and where there is none it first submits one response of those that
// Response has queued and waits up to 10 ms. In event mode (isEvent true) it never waits: the
// application watches GetSocket, level-triggered, and
//   - right after Accept and whenever the socket is readable, calls ProcEvent, then Request until
//     it returns 0 (SETTINGS leave with the first ProcEvent; the upgrade may have brought a
//     request);
//   - after Response, calls ProcEventPre until it returns 0; of several responses all but one may
//     go through SendResponse instead, so that they leave together with the last;
//   - while IsSendBlocked, also watches for writability, and calls ProcEvent on it;
//   - calls IsValid now and then, which keeps the liveness clock;
// and disconnects when GetState is CLOSE or Request, ProcEvent or IsValid reports failure.
//
// At most nMaxConcurrentStream_ - 1 requests are accepted at once. One more is answered with 429 by
// the connection itself; it is counted, and the user callback is told.
//
// Threads: one thread drives the connection. Any other may call Response(resp, wait),
// IsSendDataExist, GetIncompleteCount, GetState, GetStateCause, GetError, Get429ResponseCount and
// GetCancelCount meanwhile; a response queued so leaves when the driving thread comes by.
//
// Failures are results, never exceptions; each is logged once. A fatal one moves the connection to
// state CLOSE, where GetStateCause and GetError tell why. SetPolicy softens how strict that is.
// Results have names, see VEKHttp2Result.h.
#ifndef CVEK_HTTP2_RESPONSE_H
#define CVEK_HTTP2_RESPONSE_H

#include <nghttp2/nghttp2.h>
#include <openssl/ssl.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "CVEKSocketNew.h"
#include "VEKDumpOption.h"
#include "VEKExport.h"
#include "VEKHttp2Error.h"
#include "VEKHttp2Option.h"
#include "VEKHttp2Policy.h"
#include "VEKHttp2Result.h"
#include "defHttp2.h"

class CVEKHttp2Link;
class CVEKHttp2ResponseRecords;
class CVEKHttp2Setup;

// Tells the application of what the connection did by itself. event: one of the values below;
// connection: the CVEKHttp2Response; args: as given to SetUserCallback. Runs on the driving thread
// in the midst of receiving: it may call Response, but nothing that drives or ends the connection.
using VEK_HTTP2_RESPONSE_USER_CALLBACK = void (*)(int event, int streamId, int code,
                                                  void* connection, void* args);
constexpr int VEK_HTTP2_USER_EVENT_REFUSED = 1;  // a request is about to get 429; ids are 0
constexpr int VEK_HTTP2_USER_EVENT_RESET = 2;    // the peer has reset streamId with the error code

class VEK_API CVEKHttp2Response {
  public:
    // Throws std::bad_alloc; nothing else here throws.
    CVEKHttp2Response();
    // Disconnects and frees every record.
    ~CVEKHttp2Response();

    CVEKHttp2Response(const CVEKHttp2Response&) = delete;
    CVEKHttp2Response& operator=(const CVEKHttp2Response&) = delete;

    // Names the connection and copies the options (zeros become defaults, see
    // VEK_ST_HTTP2_OPTIONS), which limit its pools: up to nMaxConcurrentStream_ responses, and a
    // request for each stream, each with a buffer of nMaxPayloadSize_ bytes. They come into being
    // as they are needed, and go again when they are not, as long as the connection is driven.
    // Once, before Accept. Returns false when called a second time or when memory ran out.
    bool Initialize(const char* name, const VEK_ST_HTTP2_OPTIONS* options);
    // The same from option slots such as G_HTTP2_OPTION.
    bool Initialize(const char* name, const uint32_t (&slots)[VEK_HTTP2_OPTION_COUNT]);

    // How strict the connection is from now on; a new one is as a new record says. Not while a
    // connection is up: other threads may be in it.
    void SetPolicy(const VEK_ST_HTTP2_POLICY& policy);

    // Takes over the accepted descriptor `fd` of the peer ip:port: Disconnect closes it, also after
    // a failure here. Without `ctx` in the argument list the peer must ask for the HTTP/1.1 upgrade
    // within a second (RFC 7540, section 3.2). With it the handshake runs here, for up to 10
    // seconds, and must agree on "h2"; a null `ctx` is clear text with prior knowledge (RFC 9113,
    // section 3.3). The context is not owned and must outlive the connection. Clears the user
    // callback: set it afterwards. Returns true when the session is up; else GetError tells why.
    bool Accept(int fd, const char* ip, int port, bool isEvent);
    bool Accept(int fd, const char* ip, int port, SSL_CTX* ctx, bool isEvent);
    // A context without isEvent behind it would count as isEvent, and accept in clear text.
    template <class T, VEK_HTTP2_IF_POINTER<T> = 0>
    bool Accept(int fd, const char* ip, int port, T ctx) = delete;
    // Copies the clear-text traffic, on request that of TLS as well, into capture files from now
    // on, over all connections to come; arguments and result as in CVEKSocketNew::EnableDump.
    // Called before Accept, it has everything but the head of the upgrade request, which is not
    // copied.
    bool EnableDump(const char* path, const char* name, int maxFileSize, const char* srcIP,
                    const char* destIP, const VEK_ST_DUMP_OPTIONS& options = {});
    void DisableDump();
    // Says GOAWAY where that makes sense, closes the socket and frees every record: what Request
    // gave out leads nowhere from then on. Cancels a set-up that is under way. The state stays as
    // it is. Safe to repeat.
    void Disconnect();

    // The two Accepts in steps that never wait, for servers that set up many connections at once:
    // TLS handshake (10 s) or upgrade (1 s). Return false after a log line.
    bool StartAccept(int fd, const char* ip, int port, SSL_CTX* ctx, bool isEvent);
    bool StartAccept(int fd, const char* ip, int port, bool isEvent);
    template <class T, VEK_HTTP2_IF_POINTER<T> = 0>
    bool StartAccept(int fd, const char* ip, int port, T ctx) = delete;
    // In clear text, as the peer has it: its first bytes, which must come within a second, tell
    // prior knowledge from the upgrade.
    bool StartAcceptAny(int fd, const char* ip, int port, bool isEvent);
    template <class T, VEK_HTTP2_IF_POINTER<T> = 0>
    bool StartAcceptAny(int fd, const char* ip, int port, T ctx) = delete;
    // Goes on as far as it can: VEK_HTTP2_STEP_DONE, WAIT or FAILED. After WAIT, step again when
    // GetWaitEvents (POLLIN or POLLOUT) have come on the descriptor, or at GetWaitDeadline.
    // Disconnect cancels at any moment. Before DONE there is no session, and no record. Without a
    // set-up: DONE while the connection is open, else FAILED; no events, and no deadline (max()).
    int Advance();
    short GetWaitEvents() const;
    std::chrono::steady_clock::time_point GetWaitDeadline() const;

    const char* GetName() const { return name_.c_str(); }
    // The descriptor, -1 when there is none.
    int GetSocket() const;
    // On the driving thread, from the set-up to Disconnect: what TLS has agreed with the peer
    // (in clear text only times_), and why it has failed, in the handshake or later (null: it has
    // not; the connection's own).
    VEK_ST_TLS_INFO GetTlsInfo() const;
    const VEK_ST_TLS_FAILURE* GetTlsFailure() const;
    // How long the parts of the last set-up took; here only the handshake.
    const VEK_ST_CONNECT_TIMES& GetConnectTimes() const { return times_; }

    // The next complete request. Returns 1 with `out` filled; 0 none ready (out->streamId_ is -1);
    // -1 the connection is not open, has just closed, or this pass submitted a "000" response
    // (GetState tells: it is still OPEN then). `out` points into the connection and stays
    // valid until the request's stream closes or the connection is driven on: copy what is needed
    // longer. A request whose body did not fit has error_ 1 and the bytes that did; one that the
    // peer has reset meanwhile has no headers.
    int Request(VEK_ST_HTTP2_REQUEST_RECV* out);
    // Queues a copy of the response for its streamId_. rs_ "000" resets the stream instead. wait:
    // when no record is free, wait up to a second for one; memory that has run out counts as a full
    // pool. Returns 1 queued; 0 no free record (without wait) and -2 none within the second, both
    // of which close the connection; -3 not open, disconnected meanwhile, or no memory for its
    // fields. A response whose stream has closed is dropped when its turn comes; a payload over
    // nMaxPayloadSize_ closes the connection then. With a limit of the policy on the bytes held, -4
    // for a payload that exceeds it, which closes the connection at once.
    int Response(const VEK_ST_HTTP2_RESPONSE* resp, bool wait);
    // The same for the request that came with this ticket_: where the object has been used for
    // another connection since, nothing is queued, and the result is -3.
    int Response(const VEK_ST_HTTP2_RESPONSE* resp, uint64_t ticket, bool wait);

    // Responses queued or in flight; 0 while not open.
    int GetIncompleteCount();
    // Requests answered with 429, and RST_STREAM frames received, since last asked.
    int Get429ResponseCount();
    int GetCancelCount();
    void SetUserCallback(VEK_HTTP2_RESPONSE_USER_CALLBACK fn, void* args);

    // A response waits to be submitted.
    bool IsSendDataExist();
    // The socket has refused bytes: call ProcEvent when it is writable again.
    bool IsSendBlocked() const;
    // Logs how many records are where.
    void DebugPrint();

    int GetState();
    // The first cause of a CLOSE stays.
    int GetStateCause();
    // Why the connection could not be set up, has ended or (after a GOAWAY) is about to: the first
    // reason, until the next set-up. Any thread.
    VEK_ST_HTTP2_ERROR GetError() const;

    // Checks liveness, submits one queued response and flushes. Returns 1 submitted, or dropped
    // because its stream has closed; 0 nothing queued (nothing flushed); -1 the connection has
    // closed, or the response was a "000", whose reset leaves with the next flush.
    int ProcEventPre();
    // Receives until it would block, 256 KiB at most (the rest raises the next level-triggered
    // event), then sends. Returns false when the connection has closed.
    bool ProcEvent();
    // Liveness: false when the connection is closed or a PING went unanswered; sends a PING after
    // nPingSendThreshold_ seconds of silence.
    bool IsValid();
    bool SendPing();

    // Submits the first queued response without flushing: 1 submitted or dropped, 0 none queued, -1
    // as for ProcEventPre.
    int SendResponse();
    // Submits `record`, which with its texts and payload must stay as it is until its stream has
    // closed: 1 submitted, 0 no such stream, -1 as for ProcEventPre.
    int SendResponse(VEK_ST_HTTP2_RESPONSE* record);

    // ---- Steps that programs need not call ----

    // Of the operations above, on the driving thread; false or a negative result is failure.
    // Request without waiting or driving; false when none is ready.
    bool GetRequest(VEK_ST_HTTP2_REQUEST_RECV* out);
    // The same after one pass of event processing.
    int RecvRequest(VEK_ST_HTTP2_REQUEST_RECV* out);
    // `cause` counts only for CLOSE, and the first one stays. Any thread.
    void SetState(int state, int cause);
    // The transport's Send, Recv and delimited Recv, with their results (CVEKSocketNew).
    int write(const char* buf, size_t len);
    int read(char* buf, size_t len);
    int read(char* buf, const char* delim, int max);
    bool InitHttp2Session();
    // The HTTP/1.1 upgrade on the accepted socket, which must not block; see
    // VEK_HTTP2_SERVER_UPGRADE.
    bool Upgrade(std::string& settings);
    int SendSettingsHdr();  // 0 or -1
    bool SettingNegotiation();
    bool InitInternalEvent();
    void CloseSession();
    void SetDefaultHeader();
    int PrepareResponse(VEK_ST_HTTP2_RESPONSE* record);  // fields built, -1 refused, -2 no stream
    bool SendSystemError(int streamId);                  // submits a reset; always false
    void CloseResponse(int streamId);
    // Makes stream 1 from the request that came with the upgrade. False when there is one already
    // or no accumulator is free.
    bool DoProcUpgradeWithRequest(const VEK_HTTP2_HEADER& headers, const char* body, size_t length);

    // Intake of what the engine receives, by stream id. False fails the session: an unknown stream,
    // one that is there already, or no memory.
    bool CreateHttp2StreamData(int streamId);
    bool UpdateHdrRecv(int streamId, const char* name, const char* value);
    bool UpdatePayloadRecv(int streamId, const char* data, size_t len);
    bool OnRequestRecv(int streamId);
    void RSTRecv(int streamId, int errorCode);
    void DeleteHttp2StreamData(int streamId);
    bool IsRequestExist(int streamId);

  private:
    class Handler;  // leads back from the link

    bool AcceptSocket(SSL_CTX* ctx);
    bool BeginAccept(int fd, const char* ip, int port, bool isUpgrade, bool isEvent);
    bool OnTransportReady(CVEKHttp2Setup& setup);
    void LogSession() const;
    bool TakeUpgrade(const CVEKHttp2Setup& setup);
    bool OpenSession(const std::string& settings);
    bool RefuseRequest(int streamId);
    bool NoteStart(const CVEKHttp2Setup& setup, bool isStarted);
    void CloseOnOwnLimit(const char* reason);
    int RefuseResponse(int result);
    int QueueResponse(const VEK_ST_HTTP2_RESPONSE& resp, const uint64_t* ticket, bool wait);
    void CopyResponse(const VEK_ST_HTTP2_RESPONSE& resp, VEK_ST_HTTP2_RESPONSE& record) const;

    int OnFrameRecv(const nghttp2_frame* frame);

    std::string name_;
    std::string ip_;
    int port_;
    VEK_ST_CONNECT_TIMES times_;
    int nHdrs_;  // set by SetDefaultHeader; each response has fields of its own
    bool isInitialized_;
    bool isUpgrade_;
    bool isEvent_;
    std::atomic<int> auto429ResponseCount_;
    std::atomic<int> cancelCount_;
    VEK_HTTP2_RESPONSE_USER_CALLBACK user_callback_;
    void* user_callback_args_;
    std::unique_ptr<CVEKHttp2ResponseRecords> records_;
    std::unique_ptr<Handler> handler_;
    std::unique_ptr<CVEKHttp2Link> link_;  // descriptor, transport, session, state
};

#endif
