// Requests and responses, as they are sent and as they come. A new one is complete: fill in what
// differs. Neither may have fields of an HTTP/1.1 connection (Connection, Keep-Alive,
// Proxy-Connection, Transfer-Encoding, Upgrade, TE but for "trailers"; RFC 9113, section 8.2.2): a
// client fails such a request with INVALID, a server answers 500 instead, and trailers that a
// producer has filled in end its message with a reset.
#ifndef VEK_HTTP_MESSAGE_H
#define VEK_HTTP_MESSAGE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "CVEKHttpBody.h"
#include "CVEKHttpFields.h"
#include "VEKHttpFailure.h"

struct VEK_ST_HTTP_REQUEST {
    std::string method_ = "GET";
    std::string scheme_;      // to send; empty: the target's
    std::string authority_;   // "host:port"; to send; empty: the target's
    std::string path_ = "/";  // with the query
    CVEKHttpFields fields_;
    CVEKHttpBody body_;
    CVEKHttpFields trailers_;
};

// When things happened; a default value: not at all.
struct VEK_ST_HTTP_TIMES {
    using Time = std::chrono::steady_clock::time_point;

    Time begun_;   // clients: Send was called; servers: the header fields had come
    Time sent_;    // clients: handed to the connection; servers: the answer was given
    Time answer_;  // clients: the final response began to come
    Time ended_;
};

struct VEK_ST_HTTP_RESPONSE {
    int status_ = 200;  // received: 0 when there was none
    CVEKHttpFields fields_;
    CVEKHttpBody body_;
    CVEKHttpFields trailers_;

    // Received ones only. A response that has failed may hold what came before.
    VEK_ST_HTTP_FAILURE failure_;
    VEK_ST_HTTP_TIMES times_;
    size_t bodyBytes_ = 0;      // of the body, however it was taken
    size_t informational_ = 0;  // 1xx responses that came before
    unsigned attempts_ = 0;     // how often the request was sent
    uint64_t connection_ = 0;   // number of the connection; see VEK_ST_HTTP_CONNECTION
    size_t slot_ = 0;           // the connection's
};

#endif
