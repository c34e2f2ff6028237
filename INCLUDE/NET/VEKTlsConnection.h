// What one connection does with its TLS session (an SSL* made from a context of CVEKTlsContext)
// around the handshake: it names its peer before, and reads what was agreed after. The functions
// are for the thread that owns the connection.
#ifndef VEK_TLS_CONNECTION_H
#define VEK_TLS_CONNECTION_H

#include <openssl/ssl.h>

#include <string>

#include "VEKConnectTimes.h"
#include "VEKExport.h"

// What a set-up has agreed.
struct VEK_ST_TLS_INFO {
    std::string version_;   // "TLSv1.2" or "TLSv1.3"
    std::string cipher_;    // "TLS_AES_256_GCM_SHA384"
    std::string group_;     // of the key exchange, "X25519"; empty: none (RSA key transport)
    std::string protocol_;  // of ALPN, "h2"; empty: none
    bool isResumed_ = false;

    // The peer's certificate, on a resumed session the one of the first handshake. All empty when
    // it has shown none.
    std::string peerSubject_;  // names as in RFC 2253, "CN=localhost,O=Example"
    std::string peerIssuer_;
    std::string peerExpiry_;   // "CCYY-MM-DD hh:mm:ss", UTC
    std::string peerVerdict_;  // "ok", or what is wrong with it, where that was not enforced

    VEK_ST_CONNECT_TIMES times_;  // as the connection has taken them
};

// Names the peer of a client's connection; once, before the handshake.
// name: its host name or address. A name is sent to the server (SNI) and must be among the names of
// its certificate (the DNS names; the subject's common name does not count: RFC 9110, section
// 4.3.4). An address, also in brackets or with a zone, must be among its addresses and is not sent
// (RFC 6066, section 3). Either may end in a dot. A name has letters, digits, '-', '_' and single
// dots between them: no wildcard, port or zone. Null or empty: nothing is sent and checked; see
// isNameDemanded_.
// target: where the connection leads, say "host:port". A session that the context has kept for the
// same target and name is offered for resumption, and those that the server sends are kept. Null:
// neither.
// Returns true, or false with the reason in `error`: it is neither such a name nor an address, or
// memory ran out.
VEK_API bool VEK_TLS_SET_PEER(SSL* ssl, const char* name, const char* target, std::string& error);

// Describes a connection whose handshake is complete, without times.
VEK_API VEK_ST_TLS_INFO VEK_TLS_DESCRIBE(SSL* ssl);

#endif
