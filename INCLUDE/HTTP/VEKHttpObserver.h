// What a client or a server lets a program observe. Every hook is null at first, and costs nothing
// then. Hooks run on the loop's thread of the connection, in the midst of its work: they may use
// any operation, must not wait and must not throw.
#ifndef VEK_HTTP_OBSERVER_H
#define VEK_HTTP_OBSERVER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "VEKHttpMessage.h"

// A connection, while a hook runs.
struct VEK_ST_HTTP_CONNECTION {
    uint64_t number_ = 0;  // counts the client's or the server's connections from 1 on
    size_t target_ = 0;    // clients: index of the target
    size_t slot_ = 0;      // clients: which of the target's connections it is, or replaces
    // "127.0.0.1:8080", "[::1]:8080", or the path of a Unix socket; clients: with the target's host
    // as it was given, "localhost:8080".
    std::string peer_;
    // Of TLS, for onUp_ only: onDown_ comes when it has ended.
    std::string tlsVersion_;  // "TLSv1.3"; empty: clear text
    std::string tlsCipher_;
    bool isTlsResumed_ = false;
    // The peer's certificate, as VEK_ST_TLS_INFO has it; empty: it has shown none.
    std::string tlsSubject_;
    std::string tlsIssuer_;
    std::string tlsExpiry_;
    std::string tlsVerdict_;
    std::chrono::steady_clock::time_point begun_;      // accepted, or connecting began
    std::chrono::steady_clock::time_point connected_;  // clients: the transport stood, without TLS
    std::chrono::steady_clock::time_point up_;         // requests can be exchanged
    // What TCP has carried so far, TLS and frames included; 0 on Unix sockets.
    uint64_t bytesSent_ = 0;
    uint64_t bytesReceived_ = 0;
};

// A request, while a hook runs. response_ is null before its end and, on a server, when it was
// given up without an answer.
struct VEK_ST_HTTP_EXCHANGE {
    uint64_t connection_ = 0;
    int32_t stream_ = 0;
    const VEK_ST_HTTP_REQUEST* request_ = nullptr;
    const VEK_ST_HTTP_RESPONSE* response_ = nullptr;
    VEK_ST_HTTP_TIMES times_;
    VEK_ST_HTTP_FAILURE failure_;  // why it did not end well
};

struct VEK_ST_HTTP_OBSERVER {
    std::function<void(const VEK_ST_HTTP_CONNECTION&)> onUp_;
    // Also for one that never was up.
    std::function<void(const VEK_ST_HTTP_CONNECTION&, const VEK_ST_HTTP_FAILURE&)> onDown_;
    // Clients: it goes to a connection; servers: its header fields have come.
    std::function<void(const VEK_ST_HTTP_EXCHANGE&)> onBegin_;
    // Clients: before the handler, also when it is going to be sent again.
    std::function<void(const VEK_ST_HTTP_EXCHANGE&)> onEnd_;
};

#endif
