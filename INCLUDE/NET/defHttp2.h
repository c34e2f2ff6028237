// The records that callers and the two connection classes (CVEKHttp2Request, CVEKHttp2Response)
// exchange. They are plain: every field is public, none is hidden behind an operation.
#ifndef DEF_HTTP2_H
#define DEF_HTTP2_H

#include <nghttp2/nghttp2.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

// The most header fields in one request or response, pseudo-headers included.
constexpr int VEK_HTTP2_MAX_HEADERS = 64;

// Clock of the time stamps in records and connections, in nanosecond ticks. They are readings of
// the steady clock, expressed as system time: setting the system's clock does not move them.
using VEK_HTTP2_TIME = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;

// Header fields as (name, value), in the order in which they are sent or were received. Duplicates
// are kept. Names are in lower case (RFC 9113, section 8.2).
using VEK_HTTP2_HEADER = std::vector<std::pair<std::string, std::string>>;

// A payload buffer. The record never frees `data_`.
struct VEK_ST_HTTP2_CHUNK_DATA {
    size_t size_ = 0;   // to send: bytes in data_; received: bytes received so far
    size_t rSize_ = 0;  // to send: bytes already handed to the engine; the caller sets it to 0
    char* data_ = nullptr;
};

// One client request. A new one is empty: no texts, no fields, no body, numbers 0.
struct VEK_ST_HTTP2_REQUEST {
    // The texts end where they begin, and hdrs_ is filled before it is read: neither is cleared.
    VEK_ST_HTTP2_REQUEST() {  // NOLINT: see above
        authority_[0] = method_[0] = path_[0] = '\0';
    }

    int32_t messageId_ = 0;            // the caller's own number, copied into the response
    char authority_[128];              // ":authority"; empty: the connection's own
    char method_[16];                  // ":method"
    char path_[512];                   // ":path", beginning with a slash
    VEK_HTTP2_HEADER hdr_;             // further fields
    VEK_ST_HTTP2_CHUNK_DATA payload_;  // size_ 0: no body
    int32_t streamId_ = 0;             // set when submitted
    VEK_HTTP2_TIME startT_;  // when it was queued (asynchronous use); the timeout runs from here
    nghttp2_nv hdrs_[VEK_HTTP2_MAX_HEADERS];  // built at submission from the fields above
};

// One response. A new one is empty: no status, no fields, no body, numbers 0.
struct VEK_ST_HTTP2_RESPONSE {
    VEK_ST_HTTP2_RESPONSE() {}  // NOLINT: hdrs_ is filled before it is read

    int32_t messageId_ = 0;  // copied from the request
    int32_t streamId_ = 0;
    char rs_[4] = "";       // ":status" as three digits; "000": no HTTP status (see error_)
    VEK_HTTP2_HEADER hdr_;  // the fields that are not pseudo-headers
    // Received: data_ must hold nMaxPayloadSize_ bytes.
    VEK_ST_HTTP2_CHUNK_DATA payload_;
    int32_t error_ = 0;  // 0, VEK_HTTP2_ERROR_..., or the error code of the peer's RST_STREAM
    nghttp2_nv hdrs_[VEK_HTTP2_MAX_HEADERS];  // built when a server sends the response
    // Received, where the policy asks for them: the fields behind the body. A server sends none.
    VEK_HTTP2_HEADER trailers_;
};

// Values of error_ that are not HTTP/2 error codes; rs_ is then "000".
// Body over nMaxPayloadSize_; the policy can have rs_ kept.
constexpr int32_t VEK_HTTP2_ERROR_PAYLOAD_OVERFLOW = -9999;
constexpr int32_t VEK_HTTP2_ERROR_TIMEOUT = -9998;  // no response within nTimeout_
// The peer has not processed the request and never will: it may be sent again, on another
// connection (RFC 9113, section 6.8). Only where the policy asks for it.
constexpr int32_t VEK_HTTP2_ERROR_UNPROCESSED = -9997;

// A request as a server application sees it. The pointers lead into the connection's own record.
struct VEK_ST_HTTP2_REQUEST_RECV {
    int32_t streamId_ = -1;
    VEK_HTTP2_HEADER* hdr_ = nullptr;
    size_t size_ = 0;
    char* data_ = nullptr;
    int32_t error_ = 0;
    uint64_t ticket_ = 0;  // for the Response that must not reach anybody else
};

// For overloads that keep a pointer from standing where a bool is meant.
template <class T>
using VEK_HTTP2_IF_POINTER =
    std::enable_if_t<std::is_pointer_v<T> || std::is_null_pointer_v<T>, int>;

// State of a connection. TRANSPORT and SLEEP are declared for their values; nothing enters them.
enum VEK_HTTP2_CONN_STATE {
    VEK_HTTP2_CONN_STATE_INIT = 0,
    VEK_HTTP2_CONN_STATE_OPEN = 1,
    VEK_HTTP2_CONN_STATE_TRANSPORT = 2,
    VEK_HTTP2_CONN_STATE_SLEEP = 3,
    VEK_HTTP2_CONN_STATE_CLOSE = 4,
};

// Why a connection is in state CLOSE; the first cause stays.
enum VEK_HTTP2_CONN_CLOSE_CAUSE {
    VEK_HTTP2_CONN_CLOSE_CAUSE_NONE = 0,
    VEK_HTTP2_CONN_CLOSE_CAUSE_SELF = 1,            // closed by this end
    VEK_HTTP2_CONN_CLOSE_CAUSE_PEER = 2,            // GOAWAY received
    VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR = 3,           // transport failed
    VEK_HTTP2_CONN_CLOSE_CAUSE_TIMEOUT = 4,         // no response in time (synchronous use)
    VEK_HTTP2_CONN_CLOSE_CAUSE_STREAM_FULL = 5,     // no stream id left
    VEK_HTTP2_CONN_CLOSE_CAUSE_PING_TIMEOUT = 6,    // PING not acknowledged
    VEK_HTTP2_CONN_CLOSE_CAUSE_EVENT_ERROR = 7,     // error condition on the socket
    VEK_HTTP2_CONN_CLOSE_CAUSE_INTERNAL_ERROR = 8,  // engine error or invalid use
    VEK_HTTP2_CONN_ERROR_CAUSE_STREAM_ALREADY_CLOSED = 9,
};

// Results of a step of the stepwise set-up.
constexpr int VEK_HTTP2_STEP_DONE = 1;  // the session is up
constexpr int VEK_HTTP2_STEP_WAIT = 0;  // step again when the socket is ready, or the time is over
// After a log line, but for an upgrade whose body is cut short or that cannot be written.
constexpr int VEK_HTTP2_STEP_FAILED = -1;

// Sizes and tunes a connection, which copies it at Initialize and there replaces zeros by the
// defaults in brackets.
struct VEK_ST_HTTP2_OPTIONS {
    // [100] most records of each kind, and requests in flight at once. A server announces this many
    // streams and serves one less: the request that makes it full is answered with 429.
    uint32_t nMaxConcurrentStream_ = 0;
    uint32_t nMaxPayloadSize_ = 0;        // [1024] largest body, bytes
    uint32_t nMaxHeaderTableSize_ = 0;    // [64] SETTINGS_HEADER_TABLE_SIZE, bytes
    uint32_t nDefaultWindowSize_ = 0;     // [65536] SETTINGS_INITIAL_WINDOW_SIZE, bytes
    uint32_t nDefaultFrameSize_ = 0;      // [16384] SETTINGS_MAX_FRAME_SIZE, bytes
    uint32_t nLocalWindowSize_ = 0;       // [0] connection-level receive window; 0: the engine's
    uint32_t nPushEnable_ = 0;            // [0] SETTINGS_ENABLE_PUSH
    uint32_t nPingTimeoutThreshold_ = 0;  // [0] seconds to wait for a PING's acknowledgement
    uint32_t nPingSendThreshold_ = 0;     // [0] seconds of silence before a PING; 0: none are sent
    uint32_t nTimeout_ = 0;               // [1] seconds to wait for a response
};

#endif
