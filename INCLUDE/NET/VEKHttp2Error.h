// Why a connection could not be set up, or has ended: for GetError of CVEKHttp2Request and
// CVEKHttp2Response.
#ifndef VEK_HTTP2_ERROR_H
#define VEK_HTTP2_ERROR_H

#include <cstdint>

#include "VEKExport.h"

enum VEK_HTTP2_FAILURE {
    VEK_HTTP2_FAILURE_NONE = 0,
    // The set-up.
    VEK_HTTP2_FAILURE_RESOLVE = 1,  // the peer's name has no address; see resolverError_
    VEK_HTTP2_FAILURE_CONNECT = 2,  // no address let us connect; see errno_
    VEK_HTTP2_FAILURE_TLS = 3,      // the handshake failed; see tlsCause_ and reason_
    VEK_HTTP2_FAILURE_ALPN = 4,     // the peer does not speak HTTP/2 over TLS
    VEK_HTTP2_FAILURE_UPGRADE = 5,  // the HTTP/1.1 upgrade, or the first bytes
    // Time.
    VEK_HTTP2_FAILURE_CONNECT_TIMEOUT = 6,
    VEK_HTTP2_FAILURE_HANDSHAKE_TIMEOUT = 7,
    VEK_HTTP2_FAILURE_UPGRADE_TIMEOUT = 8,   // or the first bytes
    VEK_HTTP2_FAILURE_RESPONSE_TIMEOUT = 9,  // synchronous use
    VEK_HTTP2_FAILURE_SETTINGS_TIMEOUT = 10,
    VEK_HTTP2_FAILURE_PING_TIMEOUT = 11,
    VEK_HTTP2_FAILURE_STALL = 12,  // the peer did not take what was there for it
    // The peer.
    VEK_HTTP2_FAILURE_GOAWAY = 13,  // it has said so; see code_
    VEK_HTTP2_FAILURE_PEER_CLOSED = 14,
    VEK_HTTP2_FAILURE_TRANSPORT = 15,  // the socket or TLS broke; errno_ where there is one
    VEK_HTTP2_FAILURE_OFFENCE = 16,    // the peer has broken the protocol; see code_
    // This end.
    VEK_HTTP2_FAILURE_OWN_LIMIT = 17,  // a limit of the options or the policy
    VEK_HTTP2_FAILURE_STREAM_IDS = 18,
    VEK_HTTP2_FAILURE_INTERNAL = 19,  // the engine, the system, or a call that must not be made
    VEK_HTTP2_FAILURE_MEMORY = 20,
    VEK_HTTP2_FAILURE_SELF = 21,  // closed on purpose
};

struct VEK_ST_HTTP2_ERROR {
    VEK_HTTP2_FAILURE failure_ = VEK_HTTP2_FAILURE_NONE;
    char text_[384] = "";        // one line for people: all that is known
    uint32_t code_ = 0;          // HTTP/2 error code (RFC 9113, section 7), where one was exchanged
    const char* codeName_ = "";  // and its name there; lasts for ever
    int errno_ = 0;              // of a failed system call, else 0
    int resolverError_ = 0;      // EAI_... of getaddrinfo, else 0
    int tlsCause_ = 0;           // a VEK_TLS_CAUSE where it is known, else 0
    char reason_[256] =
        "";  // in the words of the resolver, the TLS library, the engine or the peer
};

// What the value stands for, "GOAWAY received". Never null, not to be freed.
VEK_API const char* VEK_HTTP2_FAILURE_TEXT(VEK_HTTP2_FAILURE failure);

#endif
