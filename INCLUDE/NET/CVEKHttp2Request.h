// CVEKHttp2Request: the client end of one HTTP/2 connection.
//
// Life: construct, Initialize once, Connect, requests, Disconnect; the same object may Connect
// again. The connection owns its records and buffers; it copies from and into the caller's and
// keeps none of those. The caller's own records and buffers are needed only during the call.
//
// Two ways of use, not to be mixed on one connection:
//  - synchronous: Request(req, resp) sends one request and waits for its response. A response that
//    takes longer than nTimeout_ closes the connection.
//  - asynchronous: Request(req, wait) queues; Response(resp), called again and again, sends what is
//    queued, waits up to 10 ms and delivers one response at a time, in the order of completion. A
//    response that takes longer than nTimeout_ is delivered as "000" with VEK_HTTP2_ERROR_TIMEOUT,
//    its stream is cancelled, and the connection stays up.
//
// Threads: one thread drives the connection (Connect, Response and everything that talks to the
// engine). Any other thread may queue with Request(req, wait) and read GetState, GetStateCause,
// GetError, GetInformationalCount, IsSendDataExist, IsComplete, GetIncompleteCount and IsStreamFull
// meanwhile.
//
// Failures are results, never exceptions; each is logged once, as "conn(<name>) ...". A fatal one
// moves the connection to state CLOSE, where GetStateCause and GetError tell why; it then stays
// closed until Disconnect and Connect. SetPolicy softens how strict that is. Results have names,
// see VEKHttp2Result.h.
#ifndef CVEK_HTTP2_REQUEST_H
#define CVEK_HTTP2_REQUEST_H

#include <netdb.h>
#include <nghttp2/nghttp2.h>
#include <openssl/ssl.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "CVEKSocketNew.h"
#include "VEKDumpOption.h"
#include "VEKExport.h"
#include "VEKHttp2Error.h"
#include "VEKHttp2Option.h"
#include "VEKHttp2Policy.h"
#include "VEKHttp2Result.h"
#include "VEKHttp2UpgradeText.h"
#include "defHttp2.h"

class CVEKHttp2Link;
class CVEKHttp2RequestRecords;
class CVEKHttp2Setup;

class VEK_API CVEKHttp2Request {
  public:
    // Throws std::bad_alloc; nothing else here throws.
    CVEKHttp2Request();
    // Disconnects and frees every record.
    ~CVEKHttp2Request();

    CVEKHttp2Request(const CVEKHttp2Request&) = delete;
    CVEKHttp2Request& operator=(const CVEKHttp2Request&) = delete;

    // Names the connection and copies the options (zeros become defaults, see
    // VEK_ST_HTTP2_OPTIONS), which limit its pools: up to nMaxConcurrentStream_ requests and as
    // many responses, each with a buffer of nMaxPayloadSize_ bytes. They come into being as they
    // are needed, and go again when they are not, as long as the connection is driven. Returns
    // false when called a second time or when memory ran out.
    bool Initialize(const char* name, const VEK_ST_HTTP2_OPTIONS* options);
    // The same from option slots such as G_HTTP2_OPTION.
    bool Initialize(const char* name, const uint32_t (&slots)[VEK_HTTP2_OPTION_COUNT]);

    // Names the peer of TLS connections, from the next Connect on until it is changed. A host name
    // is sent to the server (SNI) and must be among the names of its certificate; an address is
    // only checked (see VEK_TLS_SET_PEER). Null, empty or never called: nothing is sent or checked,
    // which a context that demands a name (VEK_ST_TLS_OPTIONS) refuses. A name that cannot be sent
    // fails the Connect. Returns false when memory ran out; the name then is what it was.
    bool SetPeerName(const char* name);

    // How strict the connection is from now on; a new one is as a new record says. Not while a
    // connection is up: other threads may be in it.
    void SetPolicy(const VEK_ST_HTTP2_POLICY& policy);

    // Connects with HTTP/2 from the first byte: over TLS when `ctx` is set (ALPN "h2"; the context
    // is not owned and must outlive the connection), in clear text with prior knowledge when it is
    // null (RFC 9113, section 3.3). isEvent: the caller waits for the socket's events itself and
    // calls ProcEvent on each; otherwise the connection waits on an event set of its own.
    // Returns true when the session is up (its SETTINGS leave with the first request). After a
    // failure the descriptor stays open until Disconnect, and GetError tells why.
    bool Connect(const char* host, int port, SSL_CTX* ctx, bool isEvent);
    // Connects in clear text with the HTTP/1.1 upgrade (RFC 7540, section 3.2).
    bool Connect(const char* host, int port, bool isEvent);
    // A context without isEvent behind it would count as isEvent, and connect in clear text.
    template <class T, VEK_HTTP2_IF_POINTER<T> = 0>
    bool Connect(const char* host, int port, T ctx) = delete;
    template <class T, VEK_HTTP2_IF_POINTER<T> = 0>
    bool Connect(const char* host, T ctx) = delete;
    // As CVEKHttp2Response::EnableDump: called before Connect, the capture has everything but the
    // head of the upgrade's answer.
    bool EnableDump(const char* path, const char* name, int maxFileSize, const char* srcIP,
                    const char* destIP, const VEK_ST_DUMP_OPTIONS& options = {});
    void DisableDump();
    // Says GOAWAY where that makes sense, closes the socket and returns every record to its pool;
    // responses not yet collected are lost. Cancels a set-up that is under way. The state stays as
    // it is. Safe to repeat.
    void Disconnect();

    // The two Connects in steps that never wait, for callers that set up many connections at once:
    // TCP connect, TLS handshake and upgrade, each with a limit of its own (10 s, 10 s, 1 s). The
    // addresses, as of getaddrinfo for stream sockets, are copied and tried in turn; `host` and
    // `port` name the peer in requests. Returns false after a log line.
    bool StartConnect(const addrinfo* addresses, const char* host, int port, SSL_CTX* ctx,
                      bool isEvent);
    // In clear text with the HTTP/1.1 upgrade.
    bool StartConnect(const addrinfo* addresses, const char* host, int port, bool isEvent);
    template <class T, VEK_HTTP2_IF_POINTER<T> = 0>
    bool StartConnect(const addrinfo* addresses, const char* host, int port, T ctx) = delete;
    // Goes on as far as it can: VEK_HTTP2_STEP_DONE, WAIT or FAILED. After WAIT, step again when
    // GetWaitEvents (POLLIN or POLLOUT) have come on GetSocket, which may be another descriptor
    // after each step, or at GetWaitDeadline. Disconnect cancels at any moment. Without a set-up:
    // DONE while the connection is open, else FAILED; no events, and no deadline (max()).
    int Advance();
    short GetWaitEvents() const;
    std::chrono::steady_clock::time_point GetWaitDeadline() const;

    const char* GetName() const { return name_.c_str(); }
    // The descriptor, -1 when there is none.
    int GetSocket() const;
    // On the driving thread, from the set-up to Disconnect: what TLS has agreed with the peer
    // (in clear text only times_), and why it has failed, in the handshake or later (null: it has
    // not; the connection's own). In TLS 1.3 a server that refuses the client's certificate says so
    // only when the connection is up.
    VEK_ST_TLS_INFO GetTlsInfo() const;
    const VEK_ST_TLS_FAILURE* GetTlsFailure() const;
    // How long the parts of the last set-up took. The stepwise one resolves no name.
    const VEK_ST_CONNECT_TIMES& GetConnectTimes() const { return times_; }

    // Synchronous exchange. `req` stays unchanged until the call returns; resp->payload_.data_ must
    // hold nMaxPayloadSize_ bytes. Returns true with the response in `resp`, which may be a failed
    // one (rs_ "000", see error_); false when the connection is not open or has just closed. The
    // check of the policy answers a request that cannot be sent with false, and the state stays.
    bool Request(VEK_ST_HTTP2_REQUEST* req, VEK_ST_HTTP2_RESPONSE* resp);
    // Queues a copy of the request. wait: when no record is free, wait up to a second for one.
    // Memory that has run out counts as a full pool. Returns 1 queued; 0 no free record (without
    // wait); -1 stream ids used up; -2 no free record within the second; -3 connection closed,
    // finishing after a GOAWAY or disconnected meanwhile, a text too long for its field, or no
    // memory for its fields. A body over nMaxPayloadSize_ or a path without a leading slash closes
    // the connection when its turn comes; with the policy's check such a request, and one with too
    // long a text, gets -4 and changes nothing.
    int Request(VEK_ST_HTTP2_REQUEST* req, bool wait);
    // The same from separate values; a null authority is the connection's own.
    int Request(int messageId, const char* authority, const char* method, const char* path,
                const VEK_HTTP2_HEADER& hdr, size_t size, const char* data, bool wait);
    // Drives the connection and collects. Returns 1 with a response in `resp`; 0 none yet; -1 the
    // connection is not open or has just closed. A null `resp` only drives. For a timeout only
    // messageId_, rs_ and error_ are set. In event mode it neither drives nor looks at the time:
    // the caller gets time-outs from GetTimeout, called now and then until it returns 0, and
    // ProcEvent behind it sends their resets. With the policy's graceful GOAWAY, -1 comes when
    // there is nothing left to deliver: call it on until then, also after the connection has
    // closed.
    int Response(VEK_ST_HTTP2_RESPONSE* resp);
    // Takes the oldest request with this messageId_ back, of those queued by Request(req, wait) and
    // not delivered; its answer reaches nobody. Returns 1 when it had been submitted (its stream is
    // reset with CANCEL, RFC 9113, section 8.1); 2 when it had not and never will; 0 for no such
    // request; -1 not open or just closed. Driving thread.
    int Cancel(int32_t messageId);

    // A request waits to be submitted.
    bool IsSendDataExist();
    // The socket has refused bytes: call ProcEvent when it is writable again. For callers that
    // dispatch events themselves.
    bool IsSendBlocked() const;
    // The last submitted request is the last one answered.
    bool IsComplete();
    // Request records in use: queued and in flight; 0 while not open.
    int GetIncompleteCount();
    // Stream ids are about to run out: time to reconnect. True one request before Request says so.
    bool IsStreamFull() const;
    // With a session: sets the stream id of the next request (odd) and counts from there.
    void SetStreamID(int id);

    int GetState();
    // The first cause of a CLOSE stays.
    int GetStateCause();
    // Why the connection could not be set up, has ended or (after a GOAWAY) is about to: the first
    // reason, until the next set-up. Any thread.
    VEK_ST_HTTP2_ERROR GetError() const;
    // Informational responses passed over since last asked.
    int GetInformationalCount();

    // For callers that dispatch events themselves. ProcEventPre checks the peer's liveness, submits
    // one queued request and flushes: 1 submitted, 0 nothing queued (nothing flushed), -1 failed.
    int ProcEventPre();
    // Submits the first queued request without flushing: of several, all but one may go so, to
    // leave together with the last. Results as of ProcEventPre.
    int SendRequestAsync();
    // Receives until it would block, 256 KiB at most (the rest raises the next level-triggered
    // event), then sends. Returns false when the connection has closed.
    bool ProcEvent();
    // Collects what is complete, also after the connection has closed, until Disconnect: 1
    // delivered, 0 none.
    int GetResponse(VEK_ST_HTTP2_RESPONSE* resp);
    // Delivers one request that was not answered in time, as told at Response, and cancels its
    // stream: 1 delivered, 0 none, -1 the connection has closed.
    int GetTimeout(VEK_ST_HTTP2_RESPONSE* resp);
    // Flushes, waits up to 10 ms on the connection's own event set and processes. 0 or -1.
    int GetEvent();
    // Liveness: false when the connection is closed or a PING went unanswered; sends a PING after
    // nPingSendThreshold_ seconds of silence.
    bool IsValid();
    bool SendPing();

    // ---- Steps that programs need not call ----

    // Of the operations above, on the driving thread. Where nothing else is said, false or a
    // negative result is failure.
    // The common tail of both Connects, to the host and port that they stored; `host` goes into the
    // upgrade.
    bool Connect(const char* host, bool isEvent);
    // `cause` counts only for CLOSE, and the first one stays. Any thread.
    void SetState(int state, int cause);
    // The transport's Send, Recv and delimited Recv, with their results (CVEKSocketNew).
    int write(const char* buf, size_t len);
    int read(char* buf, size_t len);
    int read(char* buf, const char* delim, int max);
    void SetVirtualHeader();
    bool InitHttp2Session(const char* host);
    // The HTTP/1.1 upgrade on the connected socket, which must not block; see
    // VEK_HTTP2_CLIENT_UPGRADE.
    bool Upgrade(const char* host, const VEK_ST_HTTP2_OPTIONS& options,
                 uint8_t (&payload)[VEK_HTTP2_SETTINGS_SIZE], size_t& payloadLen);
    int SendSettingsHdr();
    bool SettingNegotiation();
    bool InitInternalEvent();
    void CloseSession();
    int PrepareRequest(VEK_ST_HTTP2_REQUEST* req);  // header fields built
    int SendRequest(VEK_ST_HTTP2_REQUEST* req);     // stream id
    bool SendRequestSync(VEK_ST_HTTP2_REQUEST* req);
    int RecvResponseSync(VEK_ST_HTTP2_RESPONSE* resp);   // 1
    int RecvResponseAsync(VEK_ST_HTTP2_RESPONSE* resp);  // 1 delivered, 0 none yet
    void DeleteTimeout(VEK_ST_HTTP2_REQUEST* req);

    // Intake of what the engine receives, by stream id. False fails the session: an unknown stream
    // or no free record.
    bool InsertRecv(int stream);
    bool UpdateHdrRecv(int stream, const char* name, const char* value);
    bool UpdatePayloadRecv(int stream, const char* data, size_t len);
    bool OnResponseRecv(int stream);
    bool RSTRecv(int stream, int error);
    void CloseRecv(int stream);

  private:
    class Handler;  // leads back from the link

    bool SetTarget(const char* host, int port, SSL_CTX* ctx, bool isUpgrade);
    bool ConnectSocket(const char* host, bool isEvent);
    void BeginConnect(bool isEvent);
    bool SetPeer(CVEKHttp2Setup& setup) const;
    bool BeginSteps(const addrinfo* addresses, bool isEvent);
    bool OnTransportReady(CVEKHttp2Setup& setup);
    void LogSession() const;
    bool OpenSession(const uint8_t* settings, size_t length);
    bool OpenSocket();
    bool IsAwaited(int stream) const;
    bool IsSendable(const char* path, size_t size) const;
    double GetTimeoutSeconds() const;
    int Collect(VEK_ST_HTTP2_RESPONSE* resp);
    int CollectRest(VEK_ST_HTTP2_RESPONSE* resp);
    int GetUnsent(VEK_ST_HTTP2_RESPONSE* resp);
    bool Drain(int32_t lastStream);
    bool FailUnprocessed(int stream, int32_t lastStream);
    void ReleaseStream(int stream);
    int RequestCopy(int messageId, const char* authority, const char* method, const char* path,
                    const VEK_HTTP2_HEADER& hdr, size_t size, const char* data, bool wait);
    bool DispatchEvent(int event);

    int OnFrameRecv(const nghttp2_frame* frame);
    bool TakeField(const nghttp2_frame* frame, std::string_view name, std::string_view value);
    int OnHeadersRecv(const nghttp2_frame* frame, bool isEnd);
    void OnPushRecv(const nghttp2_frame* frame);
    void PrintPushedFields();
    void OnFrameSend(const nghttp2_frame* frame) const;
    bool IsResponseHeaders(const nghttp2_frame* frame) const;

    std::string name_;
    std::string host_;
    int port_;
    std::string scheme_;
    std::string authority_;
    std::string peerName_;
    VEK_ST_CONNECT_TIMES times_;
    SSL_CTX* ssl_ctx_;  // not owned
    bool isInitialized_;
    bool isUpgrade_;
    bool isUpgradeAwaited_;  // the answer to the upgrade's own request
    bool isEvent_;
    std::atomic<int> total_request_count_;  // incremented by the thread that queues, without a lock
    std::atomic<int> informationalCount_;
    int32_t sync_stream_id_;  // of the synchronous request in progress, 0 for none
    std::unique_ptr<CVEKHttp2RequestRecords> records_;
    std::unique_ptr<Handler> handler_;
    std::unique_ptr<CVEKHttp2Link> link_;  // descriptor, transport, session, state
};

#endif
