// Why a request, a connection or a listener has failed: a reason for programs and a text for
// people.
#ifndef VEK_HTTP_FAILURE_H
#define VEK_HTTP_FAILURE_H

#include <cstdint>
#include <string>

#include "VEKExport.h"

enum class VEK_HTTP_REASON {
    NONE,         // nothing has failed
    INVALID,      // the message or an option is none that can be used
    RESOLVE,      // the target's name has no address
    CONNECT,      // no connection: nobody answers at the addresses
    TLS,          // the handshake has failed, or what TLS does behind it
    NO_HTTP2,     // the peer speaks no HTTP/2, or has refused the upgrade to it
    TIMEOUT,      // a deadline has passed; the text says which
    IDLE,         // connections: nothing was to be done for the time allowed
    CANCELLED,    // by this side: the call was cancelled
    REFUSED,      // the peer has not worked on it: refused, or beyond its GOAWAY
    RESET,        // the peer has reset the stream
    PEER_CLOSED,  // the peer has closed the connection
    BROKEN,       // the connection is lost
    PROTOCOL,     // the peer has broken the rules of HTTP/2
    ABUSE,        // the peer has done what is allowed too often or too slowly
    TOO_LARGE,    // header fields or body are over the limit
    BODY,         // the producer of the body has failed
    FULL,         // as many requests are waiting, or connections open, as may
    CLOSED,       // the client, the server or the loop has ended
    MEMORY,       // memory has run out
    SYSTEM,       // a system call has failed
};

// The reason's name in lower case, "timeout".
VEK_API const char* VEK_HTTP_REASON_NAME(VEK_HTTP_REASON reason);

struct VEK_ST_HTTP_FAILURE {
    VEK_HTTP_REASON reason_ = VEK_HTTP_REASON::NONE;
    std::string text_;   // one line
    uint32_t code_ = 0;  // the HTTP/2 error code, where one was exchanged (RFC 9113, section 7)
    // Requests: the peer has not worked on it, or the method may be repeated (RFC 9110, section
    // 9.2.2), so that it can be sent again.
    bool isRepeatable_ = false;

    // True when there is one.
    explicit operator bool() const { return reason_ != VEK_HTTP_REASON::NONE; }
};

#endif
