// What the client and the server connection have in common: the engine's callbacks, the session's
// set-up and flush, the private event set, the liveness clock and the state. Each connection class
// befriends CVEKHttp2Core<itself> and keeps the fields that it works on; what differs between the
// two ends stays with them.
#ifndef CVEK_HTTP2_CORE_H
#define CVEK_HTTP2_CORE_H

#include <nghttp2/nghttp2.h>

#include <chrono>
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>
#include <thread>
#include <vector>

#include "CVEKHttp2Output.h"
#include "CVEKSocketNew.h"
#include "VEKHttp2Log.h"
#include "VEKHttp2Option.h"
#include "VEKServiceLog.h"
#include "defHttp2.h"

// Longest wait on a private event set.
constexpr int VEK_HTTP2_WAIT_MS = 10;

// Bytes after which an event pass ends though there is more to read: a peer that never stops
// sending must not keep the driving thread from its clock and its other connections.
constexpr size_t VEK_HTTP2_PASS_SIZE = size_t{256} * 1024;

// Largest header list taken from the peer, counted as SETTINGS_MAX_HEADER_LIST_SIZE does (RFC 9113,
// section 6.5.2): a few bytes of a compressed block can stand for kilobytes.
constexpr size_t VEK_HTTP2_MAX_HEADER_BYTES = size_t{64} * 1024;
constexpr size_t VEK_HTTP2_HEADER_OVERHEAD = 32;

// What a wait on the private event set found.
enum VEK_HTTP2_EVENT {
    VEK_HTTP2_EVENT_NONE,         // nothing for the connection's socket
    VEK_HTTP2_EVENT_READY,        // readable or writable
    VEK_HTTP2_EVENT_ERROR,        // error condition on the socket
    VEK_HTTP2_EVENT_INTERRUPTED,  // by a signal
    VEK_HTTP2_EVENT_FAILED,       // the wait itself failed; errno tells
};

// Seconds from `from` to now.
inline double VEK_SECONDS_SINCE(VEK_HTTP2_TIME from) {
    return std::chrono::duration<double>(std::chrono::system_clock::now() - from).count();
}

constexpr size_t VEK_HTTP2_FRAME_HEADER_SIZE = 9;  // RFC 9113, section 4.1

// The engine's data provider: hands the body that `source` points at out, chunk by chunk. The bytes
// themselves are taken when the frame is sent, from before rSize_, or behind it for the last chunk.
ssize_t VEK_HTTP2_READ_PAYLOAD(nghttp2_session* session, int32_t stream, uint8_t* buf,
                               size_t length, uint32_t* flags, nghttp2_data_source* source,
                               void* userData);

// A header field for the engine, which refers to the texts and does not copy them: they must stay
// as they are until the frame has been serialised.
nghttp2_nv VEK_HTTP2_FIELD(const char* name, size_t nameLength, const char* value,
                           size_t valueLength);

// Empties a list of fields whose memory is more than is worth keeping for the next ones.
void VEK_HTTP2_BOUND_FIELDS(VEK_HTTP2_HEADER& header);

// The same as VEK_HTTP2_FIELD for a pseudo-header.
nghttp2_nv VEK_HTTP2_PSEUDO_FIELD(std::string_view name, const char* value);

// Replaces the zeros of the first five options and the response timeout by their defaults.
void VEK_HTTP2_SET_DEFAULTS(VEK_ST_HTTP2_OPTIONS& options);

// Creates an event set that watches `fd` for reading and errors. -1 after an Info line.
int VEK_HTTP2_OPEN_EVENT(int fd);

// Waits for one event of `fd` on the set.
VEK_HTTP2_EVENT VEK_HTTP2_WAIT_EVENT(int epfd, int fd, int timeoutMs);

// A new record with a payload buffer of `size` bytes; null when memory ran out.
template <class RECORD>
RECORD* VEK_NEW_RECORD(size_t size) {
    auto* record = new (std::nothrow) RECORD;
    if (record == nullptr) {
        return nullptr;
    }
    record->payload_.data_ = static_cast<char*>(malloc(size));
    if (record->payload_.data_ == nullptr) {
        delete record;
        return nullptr;
    }
    return record;
}

template <class RECORD>
void VEK_DELETE_RECORD(RECORD* record) {
    free(record->payload_.data_);
    delete record;
}

template <class CONNECTION>
struct CVEKHttp2Core {
    using NewSession = int (*)(nghttp2_session**, const nghttp2_session_callbacks*, void*,
                               const nghttp2_option*);

    // Creates the session with its callbacks; `make` is the engine's client or server constructor.
    // Returns the engine's result.
    static int CreateSession(CONNECTION& conn, NewSession make) {
        nghttp2_option* option = nullptr;
        int result = nghttp2_option_new(&option);
        if (result != 0) {
            return result;
        }
        const std::unique_ptr<nghttp2_option, decltype(&nghttp2_option_del)> optionOwner(
            option, nghttp2_option_del);
        nghttp2_option_set_peer_max_concurrent_streams(option, conn.options_.nMaxConcurrentStream_);

        nghttp2_session_callbacks* callbacks = nullptr;
        result = nghttp2_session_callbacks_new(&callbacks);
        if (result != 0) {
            return result;
        }
        const std::unique_ptr<nghttp2_session_callbacks, decltype(&nghttp2_session_callbacks_del)>
            callbacksOwner(callbacks, nghttp2_session_callbacks_del);
        SetCallbacks(callbacks);
        return make(&conn.session_, callbacks, &conn, option);
    }

    // Sends everything that the session has to send, as far as the socket takes it. Returns the
    // engine's result.
    static int Flush(CONNECTION& conn) {
        if (conn.session_ == nullptr) {
            return NGHTTP2_ERR_INVALID_STATE;
        }
        const auto write = [&conn](const char* data, size_t length) {
            return conn.write(data, length);
        };
        if (conn.output_->IsBlocked() && !conn.output_->Flush(write)) {
            return FlushResult(conn);
        }
        conn.passTime_ = std::chrono::system_clock::now();
        const int result = nghttp2_session_send(conn.session_);
        if (result != 0) {
            return result;
        }
        return conn.output_->Flush(write) ? 0 : FlushResult(conn);
    }

    // The connection-level receive window, where the options ask for one. False after an Error
    // line.
    static bool SetLocalWindow(CONNECTION& conn) {
        if (conn.options_.nLocalWindowSize_ == 0) {
            return true;
        }
        const int result = nghttp2_session_set_local_window_size(
            conn.session_, NGHTTP2_FLAG_NONE, 0,
            static_cast<int32_t>(conn.options_.nLocalWindowSize_));
        if (result != 0) {
            VEK_SERVICE_LOG(VEK_LOG_ERROR,
                            "conn(%s) nghttp2_session_set_local_window_size() failed!...%s",
                            conn.GetName(), nghttp2_strerror(result));
            return false;
        }
        return true;
    }

    // The first half of an event pass. Returns false when the connection has closed.
    static bool Receive(CONNECTION& conn) {
        conn.received_ = 0;
        conn.passTime_ = std::chrono::system_clock::now();
        const int result = conn.session_ == nullptr ? static_cast<int>(NGHTTP2_ERR_INVALID_STATE)
                                                    : nghttp2_session_recv(conn.session_);
        if (result != 0) {
            if (conn.GetState() != VEK_HTTP2_CONN_STATE_CLOSE) {
                conn.SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR);
                VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_session_recv() failed...%s",
                                conn.GetName(), nghttp2_strerror(result));
            }
            return false;
        }
        return conn.GetState() != VEK_HTTP2_CONN_STATE_CLOSE;
    }

    // The end of an event pass. The engine ends a session by itself on some offences (a frame over
    // the size limit, too many resets): it says GOAWAY and has nothing to do any more. Returns
    // false when the connection has closed.
    static bool EndPass(CONNECTION& conn) {
        if (conn.GetState() == VEK_HTTP2_CONN_STATE_CLOSE) {
            return false;
        }
        if (nghttp2_session_want_read(conn.session_) == 0 &&
            nghttp2_session_want_write(conn.session_) == 0) {
            conn.SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR);
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) session ended by protocol error!...",
                            conn.GetName());
            return false;
        }
        return true;
    }

    // Submits a PING. False after the connection has closed with an Error line.
    static bool SubmitPing(CONNECTION& conn) {
        if (conn.session_ == nullptr) {
            return false;
        }
        const int result = nghttp2_submit_ping(conn.session_, NGHTTP2_FLAG_NONE, nullptr);
        if (result != 0) {
            conn.SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR);
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) nghttp2_submit_ping() failed!...%s",
                            conn.GetName(), nghttp2_strerror(result));
        }
        return result == 0;
    }

    // Waits for the socket. What needs no event is done first: TLS may hold received bytes back,
    // nothing announces that a socket which refused bytes takes some again, and a frame that was
    // submitted outside a flush (the reset of a stream that timed out) must not wait for one.
    static VEK_HTTP2_EVENT Wait(CONNECTION& conn, int timeoutMs) {
        if (conn.transport_.IsRecvBuffered()) {
            return VEK_HTTP2_EVENT_READY;
        }
        if ((conn.output_->IsBlocked() || nghttp2_session_want_write(conn.session_) != 0) &&
            Flush(conn) != 0) {
            return VEK_HTTP2_EVENT_READY;  // the pass that follows meets the failure and reports it
        }
        return VEK_HTTP2_WAIT_EVENT(conn.epfd_, conn.fd_, timeoutMs);
    }

    // The same, waiting on through interruptions by signals.
    static VEK_HTTP2_EVENT WaitOut(CONNECTION& conn, int timeoutMs) {
        using std::chrono::milliseconds;
        using std::chrono::steady_clock;
        const steady_clock::time_point limit = steady_clock::now() + milliseconds(timeoutMs);
        VEK_HTTP2_EVENT event = Wait(conn, timeoutMs);
        while (event == VEK_HTTP2_EVENT_INTERRUPTED) {
            const auto left = std::chrono::ceil<milliseconds>(limit - steady_clock::now());
            event = left.count() > 0 ? Wait(conn, static_cast<int>(left.count()))
                                     : VEK_HTTP2_EVENT_NONE;
        }
        return event;
    }

    // Liveness by PING; see the connection's IsValid.
    static bool IsValid(CONNECTION& conn) {
        if (conn.GetState() == VEK_HTTP2_CONN_STATE_CLOSE || conn.session_ == nullptr) {
            return false;
        }
        if (conn.options_.nPingSendThreshold_ == 0) {
            return true;
        }
        if (!conn.ping_send_flag_) {
            return VEK_SECONDS_SINCE(conn.last_recv_time_) < conn.options_.nPingSendThreshold_ ||
                   conn.SendPing();
        }
        if (conn.ping_recv_flag_) {
            conn.ping_send_flag_ = false;
            conn.ping_recv_flag_ = false;
            return true;
        }
        if (VEK_SECONDS_SINCE(conn.ping_send_time_) >= conn.options_.nPingTimeoutThreshold_) {
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) ping timeout!...", conn.GetName());
            conn.SetState(VEK_HTTP2_CONN_STATE_CLOSE, VEK_HTTP2_CONN_CLOSE_CAUSE_PING_TIMEOUT);
            return false;
        }
        return true;
    }

    static void MarkPingSent(CONNECTION& conn) {
        conn.ping_send_time_ = std::chrono::system_clock::now();
        conn.ping_send_flag_ = true;
        conn.ping_recv_flag_ = false;
    }

    static void OnPingRecv(CONNECTION& conn, const nghttp2_frame* frame) {
        const bool isAck = (frame->hd.flags & NGHTTP2_FLAG_ACK) != 0;
        if (isAck && conn.ping_send_flag_) {
            conn.ping_recv_flag_ = true;
        }
        if (G_VEK_HTTP2_DETAIL_LOG) {
            VEK_SERVICE_LOG(VEK_LOG_INFO, isAck ? "RECV PING ACK" : "RECV PING");
        }
    }

    // The one place that writes the state: the first close cause stays.
    static void SetState(CONNECTION& conn, int state, int cause) {
        const std::lock_guard<std::mutex> guard(conn.mutexS_);
        if (conn.state_ == VEK_HTTP2_CONN_STATE_CLOSE && state == VEK_HTTP2_CONN_STATE_CLOSE) {
            return;
        }
        conn.state_ = state;
        conn.cause_ = state == VEK_HTTP2_CONN_STATE_CLOSE ? cause : VEK_HTTP2_CONN_CLOSE_CAUSE_NONE;
    }

    static int GetState(CONNECTION& conn) { return conn.state_; }

    static int GetStateCause(CONNECTION& conn) {
        const std::lock_guard<std::mutex> guard(conn.mutexS_);
        return conn.cause_;
    }

    static bool IsOpen(CONNECTION& conn) {
        const int state = conn.GetState();
        return state != VEK_HTTP2_CONN_STATE_CLOSE && state != VEK_HTTP2_CONN_STATE_INIT;
    }

    // Takes the record that came last into a pool under mutexQ_, with the generation that it
    // belongs to. Null when the pool is empty.
    template <class RECORD>
    static RECORD* PopRecord(CONNECTION& conn, std::vector<RECORD*>& pool, int* generation) {
        const std::lock_guard<std::mutex> guard(conn.mutexQ_);
        *generation = conn.generation_;
        if (pool.empty()) {
            return nullptr;
        }
        RECORD* record = pool.back();
        pool.pop_back();
        return record;
    }

    // The same, waiting up to a second for a record. Returns 1 with one, -2 when none came, -3
    // after an Error line when the connection is not open.
    template <class RECORD>
    static int AwaitRecord(CONNECTION& conn, std::vector<RECORD*>& pool, RECORD** record,
                           int* generation) {
        constexpr double WAIT_SECONDS = 1.0;
        constexpr std::chrono::microseconds PAUSE(100);
        const VEK_HTTP2_TIME start = std::chrono::system_clock::now();
        for (;;) {
            if (!IsOpen(conn)) {
                VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) invalid state!...", conn.GetName());
                return -3;
            }
            *record = PopRecord(conn, pool, generation);
            if (*record != nullptr) {
                return 1;
            }
            if (VEK_SECONDS_SINCE(start) > WAIT_SECONDS) {
                return -2;
            }
            std::this_thread::sleep_for(PAUSE);
        }
    }

    // Open, and not yet disconnected; for the driving thread.
    static bool IsLive(CONNECTION& conn) { return conn.session_ != nullptr && IsOpen(conn); }

    // Says GOAWAY with `code` and flushes; failures change nothing any more.
    static void Terminate(CONNECTION& conn, uint32_t code) {
        if (nghttp2_session_terminate_session(conn.session_, code) != 0) {
            VEK_SERVICE_LOG(VEK_LOG_ERROR,
                            "conn(%s) nghttp2_session_terminate_session() failed!...",
                            conn.GetName());
        }
        if (Flush(conn) != 0) {
            // The engine fails on requests that cannot leave any more; what it gave before can.
            conn.output_->Flush(
                [&conn](const char* data, size_t length) { return conn.write(data, length); });
        }
    }

  private:
    // A socket that takes no more now is no failure.
    static int FlushResult(CONNECTION& conn) {
        return conn.output_->GetResult() == VEK_SOCKET_AGAIN ? 0 : NGHTTP2_ERR_CALLBACK_FAILURE;
    }

    // Nothing may be thrown through the engine.
    template <class ACTION>
    static int Guard(const CONNECTION& conn, ACTION action) {
        try {
            return action();
        } catch (const std::bad_alloc&) {
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) memory allocate failed...", conn.GetName());
            return NGHTTP2_ERR_CALLBACK_FAILURE;
        }
    }

    static CONNECTION& From(void* userData) { return *static_cast<CONNECTION*>(userData); }

    // Hands the parts of a frame to the output. Returns 0 or an error of the engine.
    static int Put(CONNECTION& conn, std::initializer_list<CVEKHttp2Output::Part> parts) {
        const auto write = [&conn](const char* buf, size_t size) { return conn.write(buf, size); };
        return Guard(conn, [&] {
            if (conn.output_->Add(parts, write)) {
                return 0;
            }
            return static_cast<int>(conn.output_->GetResult() == VEK_SOCKET_AGAIN
                                        ? NGHTTP2_ERR_WOULDBLOCK
                                        : NGHTTP2_ERR_CALLBACK_FAILURE);
        });
    }

    static ssize_t Send(nghttp2_session*, const uint8_t* data, size_t length, int, void* userData) {
        const int result = Put(From(userData), {{data, length}});
        return result == 0 ? static_cast<ssize_t>(length) : result;
    }

    // The payload of a DATA frame goes from its record into the output, and not through the engine.
    static int SendData(nghttp2_session*, nghttp2_frame* frame, const uint8_t* header,
                        size_t length, nghttp2_data_source* source, void* userData) {
        if (From(userData).IsReleased(frame->hd.stream_id)) {
            return NGHTTP2_ERR_TEMPORAL_CALLBACK_FAILURE;  // drops the frame, not the connection
        }
        const auto* payload = static_cast<VEK_ST_HTTP2_CHUNK_DATA*>(source->ptr);
        const bool isLast = (frame->hd.flags & NGHTTP2_FLAG_END_STREAM) != 0;
        const size_t offset = isLast ? payload->rSize_ : payload->rSize_ - length;
        return Put(From(userData),
                   {{header, VEK_HTTP2_FRAME_HEADER_SIZE}, {payload->data_ + offset, length}});
    }

    static ssize_t Recv(nghttp2_session*, uint8_t* buf, size_t length, int, void* userData) {
        CONNECTION& conn = From(userData);
        const bool isPassFull = conn.received_ >= VEK_HTTP2_PASS_SIZE;
        const bool isDrained = conn.received_ > 0 && conn.transport_.IsRecvDrained();
        if (isDrained || (isPassFull && !conn.transport_.IsRecvBuffered())) {
            return NGHTTP2_ERR_WOULDBLOCK;
        }
        const int result = conn.read(reinterpret_cast<char*>(buf), length);
        if (result > 0) {
            conn.received_ += static_cast<size_t>(result);
            return result;
        }
        if (result == VEK_SOCKET_AGAIN) {
            return NGHTTP2_ERR_WOULDBLOCK;
        }
        return result == 0 ? NGHTTP2_ERR_EOF : NGHTTP2_ERR_CALLBACK_FAILURE;
    }

    static int OnFrameRecv(nghttp2_session*, const nghttp2_frame* frame, void* userData) {
        CONNECTION& conn = From(userData);
        conn.last_recv_time_ = conn.passTime_;
        return Guard(conn, [&] { return conn.OnFrameRecv(frame); });
    }

    static int OnFrameSend(nghttp2_session*, const nghttp2_frame* frame, void* userData) {
        return From(userData).OnFrameSend(frame);
    }

    static int OnStreamClose(nghttp2_session*, int32_t stream, uint32_t error, void* userData) {
        CONNECTION& conn = From(userData);
        if (error != 0) {
            VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) stream(%d) just closed with error!(%d)",
                            conn.GetName(), stream, static_cast<int>(error));
        }
        return Guard(conn, [&] { return conn.OnStreamClose(stream); });
    }

    static int OnHeader(nghttp2_session*, const nghttp2_frame* frame, const uint8_t* name,
                        size_t nameLength, const uint8_t* value, size_t valueLength, uint8_t,
                        void* userData) {
        CONNECTION& conn = From(userData);
        const bool wasTooLarge = conn.headerBytes_ > VEK_HTTP2_MAX_HEADER_BYTES;
        conn.headerBytes_ += nameLength + valueLength + VEK_HTTP2_HEADER_OVERHEAD;
        if (conn.headerBytes_ > VEK_HTTP2_MAX_HEADER_BYTES) {
            return conn.OnHeaderOverflow(frame, !wasTooLarge);
        }
        return Guard(conn, [&] {
            return conn.OnHeader(frame, reinterpret_cast<const char*>(name),
                                 reinterpret_cast<const char*>(value));
        });
    }

    static int OnBeginHeaders(nghttp2_session*, const nghttp2_frame* frame, void* userData) {
        CONNECTION& conn = From(userData);
        conn.headerBytes_ = 0;
        return Guard(conn, [&] { return conn.OnBeginHeaders(frame); });
    }

    static int OnDataChunkRecv(nghttp2_session*, uint8_t, int32_t stream, const uint8_t* data,
                               size_t length, void* userData) {
        return From(userData).OnDataChunkRecv(stream, reinterpret_cast<const char*>(data), length);
    }

    static int OnInvalidHeader(nghttp2_session* session, const nghttp2_frame* frame,
                               nghttp2_rcbuf* name, nghttp2_rcbuf* value, uint8_t, void* userData) {
        const int32_t stream = frame->hd.type == NGHTTP2_PUSH_PROMISE
                                   ? frame->push_promise.promised_stream_id
                                   : frame->hd.stream_id;
        const nghttp2_vec nameText = nghttp2_rcbuf_get_buf(name);
        const nghttp2_vec valueText = nghttp2_rcbuf_get_buf(value);
        VEK_SERVICE_LOG(
            VEK_LOG_ERROR,
            "conn(%s)Invalid header field for stream_id=%d,in frame type= %d,"
            "name=[%s,%d],value=[%s:%d]",
            From(userData).GetName(), stream, frame->hd.type,
            reinterpret_cast<const char*>(nameText.base), static_cast<int>(nameText.len),
            reinterpret_cast<const char*>(valueText.base), static_cast<int>(valueText.len));
        nghttp2_submit_rst_stream(session, NGHTTP2_FLAG_NONE, stream, NGHTTP2_PROTOCOL_ERROR);
        return NGHTTP2_ERR_TEMPORAL_CALLBACK_FAILURE;
    }

    static int OnInvalidFrameRecv(nghttp2_session*, const nghttp2_frame*, int error,
                                  void* userData) {
        return From(userData).OnInvalidFrameRecv(error);
    }

    static int OnError(nghttp2_session*, int error, const char* text, size_t length,
                       void* userData) {
        return From(userData).OnError(error, text, length);
    }

    static int OnFrameNotSend(nghttp2_session*, const nghttp2_frame* frame, int error,
                              void* userData) {
        return From(userData).OnFrameNotSend(frame, error);
    }

    static void SetCallbacks(nghttp2_session_callbacks* callbacks) {
        nghttp2_session_callbacks_set_send_callback(callbacks, Send);
        nghttp2_session_callbacks_set_recv_callback(callbacks, Recv);
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
};

#endif
