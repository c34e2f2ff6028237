// How a server works, and what it allows its peers. The values are good for a server that strangers
// can reach; 0 is no limit where not said otherwise.
#ifndef VEK_HTTP_SERVER_OPTION_H
#define VEK_HTTP_SERVER_OPTION_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "VEKDumpOption.h"
#include "VEKHttpObserver.h"
#include "VEKHttpSettings.h"

struct VEK_ST_TLS_OPTIONS;  // VEKTlsOption.h
struct ssl_ctx_st;          // OpenSSL's SSL_CTX

struct VEK_ST_HTTP_SERVER_OPTIONS {
    VEK_ST_HTTP_SETTINGS settings_;
    uint32_t streams_ = 100;  // at once on a connection, at least 1

    size_t connections_ = 50000;        // one more is closed at once
    size_t connectionsPerPeer_ = 1000;  // of one address; Unix sockets do not count
    // Connections that are not up yet, an equal share of them on each loop. For one more the oldest
    // of its loop goes.
    size_t handshakes_ = 2000;
    // Own bodies of answers (shared ones take no memory) that wait for the peer of a connection.
    // Above, its requests are refused (REFUSED_STREAM) until it has read.
    size_t unreadBytes_ = size_t{16} * 1024 * 1024;

    // TLS handshake, first bytes or upgrade.
    std::chrono::milliseconds handshakeTime_{10000};
    // A request that does not come on though it may, or an answer that is not taken: the stream is
    // reset. A socket that takes nothing: the connection ends.
    std::chrono::milliseconds progressTime_{30000};
    std::chrono::milliseconds idleTime_{180000};  // without a stream; then the connection ends

    // Within a second on one connection; above, it ends with ENHANCE_YOUR_CALM.
    // RST_STREAM of the peer, requests that it takes back, those that its faults have caused, and
    // requests whose header fields are over the limit.
    unsigned resets_ = 200;
    unsigned controls_ = 1000;  // PING, SETTINGS, PRIORITY and DATA without bytes

    VEK_ST_HTTP_OBSERVER observer_;

    // The request that comes with an upgrade from HTTP/1.1 is answered, whatever it asks for.
    // false: not one for "/", by which some clients mean no more than the upgrade.
    bool isUpgradeRequestTaken_ = true;

    // An existing directory: each connection is captured into files of its own there,
    // "address-port.time.pcap" (CVEKPCAPDump), after its client's end; that of a Unix socket into
    // "unix-number.time.pcap". Its packets run from the client to the server, those that are sent,
    // too. Those of TLS are captured where hasTLS_ of capture_ asks for it: what comes behind the
    // handshake, in clear text. Empty: none.
    std::string captureDirectory_;
    VEK_ST_DUMP_OPTIONS capture_;
};

// Where a server listens.
struct VEK_ST_HTTP_LISTENER {
    // An address of this host, IPv4 or IPv6; empty: all addresses, IPv6 and IPv4. "::" is IPv6,
    // with IPv4 unless isV6Only_.
    std::string address_;
    uint16_t port_ = 0;  // 0: a free one; see CVEKHttpServer::GetPort
    bool isV6Only_ = false;
    // Instead of all that: the path of a Unix socket. One that is left there by a server that has
    // gone is replaced; the file goes when the server stops to listen.
    std::string unixPath_;
    // TLS, with the identities that the record names. Null: clear text, with prior knowledge
    // (RFC 9113, section 3.3) or the upgrade from HTTP/1.1 (RFC 7540, section 3.2), as the peer has
    // it.
    std::shared_ptr<const VEK_ST_TLS_OPTIONS> tls_;
    // Instead of tls_: a context that is made already, which agrees on "h2" by ALPN.
    std::shared_ptr<ssl_ctx_st> context_;
};

// Figures of a server since it was made; each is exact, all together not of one moment.
struct VEK_ST_HTTP_SERVER_COUNTERS {
    uint64_t connections_ = 0;  // now, those that are not up yet included
    uint64_t streams_ = 0;      // now: requests that are not over
    uint64_t accepted_ = 0;     // connections in all
    uint64_t up_ = 0;           // of which so many came to exchange requests
    uint64_t tooMany_ = 0;      // connections closed for the limits on their number
    uint64_t evicted_ = 0;      // set-ups given up for newer ones
    uint64_t abused_ = 0;       // connections ended for what their peers did, or did not do
    uint64_t pauses_ = 0;       // how often accepting paused, as descriptors or memory ran out
    uint64_t requests_ = 0;     // begun
    uint64_t answered_ = 0;     // answers that have left as a whole
    uint64_t refused_ = 0;      // requests refused, or answered with 431 or 413, by the limits
    uint64_t failed_ = 0;       // requests that ended without an answer as a whole
    uint64_t reset_ = 0;        // of which the peer has reset so many
};

#endif
