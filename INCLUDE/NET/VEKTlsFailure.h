// Why a TLS connection could not be set up: a cause for programs and a text for people.
#ifndef VEK_TLS_FAILURE_H
#define VEK_TLS_FAILURE_H

#include <openssl/ssl.h>

#include <string>

#include "VEKExport.h"

enum VEK_TLS_CAUSE {
    // The peer's certificate was refused.
    VEK_TLS_CAUSE_CERTIFICATE_EXPIRED = 1,        // it, or one above it
    VEK_TLS_CAUSE_CERTIFICATE_NOT_YET_VALID = 2,  // the same
    VEK_TLS_CAUSE_UNKNOWN_ISSUER = 3,             // no trusted authority stands above it
    VEK_TLS_CAUSE_SELF_SIGNED = 4,                // it vouches for itself
    VEK_TLS_CAUSE_WRONG_HOST = 5,                 // is not for the name or address of this peer
    VEK_TLS_CAUSE_CERTIFICATE_OTHER = 6,          // revoked, wrong purpose, weak key, ...
    VEK_TLS_CAUSE_NO_CERTIFICATE = 7,             // a client showed none where it must
    // The two ends do not come together.
    VEK_TLS_CAUSE_NO_COMMON_VERSION = 8,
    VEK_TLS_CAUSE_NO_COMMON_CIPHER = 9,  // cipher, group or kind of signature
    VEK_TLS_CAUSE_NO_H2 = 10,            // one of them does not offer or select "h2"
    // The peer gave up, or is none of ours.
    VEK_TLS_CAUSE_ALERT = 11,  // it sent an alert that none of the above stands for; see alert_
    VEK_TLS_CAUSE_PEER_CLOSED = 12,  // in the handshake, or before its first byte behind it
    VEK_TLS_CAUSE_NOT_TLS = 13,      // it answered in clear text
    VEK_TLS_CAUSE_UNFINISHED = 14,   // nothing failed: the handshake still waits for the peer
    VEK_TLS_CAUSE_SYSTEM = 15,       // a system call failed; see systemError_
    VEK_TLS_CAUSE_OTHER = 16,
};

struct VEK_ST_TLS_FAILURE {
    VEK_TLS_CAUSE cause_ = VEK_TLS_CAUSE_OTHER;
    int alert_ = -1;  // number of the alert that the peer has sent (RFC 8446, section 6); -1: none
    int systemError_ = 0;  // errno of VEK_TLS_CAUSE_SYSTEM, else 0
    std::string text_;     // one line: the cause, and the reason in the TLS library's words
};

// Explains why the handshake of `ssl`, or the first read behind it, has failed. (In TLS 1.3 a
// client's handshake is over before the server has judged the client's certificate.)
// sslError: what SSL_get_error said of the failed call, or SSL_ERROR_NONE for a handshake that
// ended without "h2"; systemError: errno as the failed call left it, which a later one may change.
// Call it once for a failure, from the thread of the failed call: it empties the thread's error
// queue. A session kept for the target is dropped when the handshake has failed, or TLS behind it
// (an alert, a broken record): it may be the reason (RFC 8446, section 6.2).
VEK_API VEK_ST_TLS_FAILURE VEK_TLS_EXPLAIN(SSL* ssl, int sslError, int systemError);

// Name of an alert in lower case, "certificate required"; "alert 99" for one without a name.
VEK_API std::string VEK_TLS_ALERT_NAME(int alert);

#endif
