// Where a client's requests go, and how. The values are good for most; 0 is no limit where not said
// otherwise.
#ifndef VEK_HTTP_CLIENT_OPTION_H
#define VEK_HTTP_CLIENT_OPTION_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "VEKDumpOption.h"
#include "VEKHttpObserver.h"
#include "VEKHttpSettings.h"

struct VEK_ST_TLS_OPTIONS;  // VEKTlsOption.h
struct ssl_ctx_st;          // SSL_CTX of openssl/ssl.h

// A server.
struct VEK_ST_HTTP_TARGET {
    // A name or an address, IPv6 without brackets.
    std::string host_;
    uint16_t port_ = 0;
    int family_ = 0;  // 4 or 6: only addresses of IPv4 or IPv6
    // Instead of host and port: the path of a Unix socket.
    std::string unixPath_;
    // TLS as the record says. Null: clear text.
    std::shared_ptr<const VEK_ST_TLS_OPTIONS> tls_;
    // Instead: TLS with a context of the program's own, as it stands; it agrees on "h2". No name is
    // sent or checked then but that of name_.
    std::shared_ptr<ssl_ctx_st> context_;
    // Clear text begins with the upgrade from HTTP/1.1 (RFC 7540, section 3.2), which costs a
    // request for "/", instead of prior knowledge.
    bool isUpgrade_ = false;
    // The name that is sent in the handshake and that the certificate must hold; empty: host_, or
    // "localhost" on a Unix socket without one.
    std::string name_;
    // ":authority" of requests that have none; empty: host_ and port_.
    std::string authority_;
};

struct VEK_ST_HTTP_CLIENT_OPTIONS {
    VEK_ST_HTTP_SETTINGS settings_;
    size_t connections_ = 1;   // to each target, over all loops, at least 1
    uint32_t streams_ = 100;   // at once on a connection, at least 1; fewer where the peer says so
    uint64_t requests_ = 0;    // on a connection, which is then replaced
    size_t settingUp_ = 250;   // connections to a target being made at once on a loop
    size_t waiting_ = 100000;  // requests to a target that wait on a loop; one more is FULL

    std::chrono::milliseconds connectTime_{10000};    // all addresses of a target together
    std::chrono::milliseconds handshakeTime_{10000};  // TLS, or the upgrade
    std::chrono::milliseconds responseTime_{30000};   // from Send to the end of the response
    std::chrono::milliseconds idleTime_{90000};       // without a request; then the connection ends

    // How often a request is sent, and how often connecting for it may fail, at least 1.
    unsigned attempts_ = 5;
    // The pause after a connection could not be made, or broke before it had an answer; it doubles
    // each time up to the second one, and each is up to a quarter shorter, by chance.
    std::chrono::milliseconds backoff_{100};
    std::chrono::milliseconds maxBackoff_{10000};

    VEK_ST_HTTP_OBSERVER observer_;

    // As the server's (VEKHttpServerOption.h).
    std::string captureDirectory_;
    VEK_ST_DUMP_OPTIONS capture_;
};

// What one request wants beside its message.
struct VEK_ST_HTTP_CALL_OPTIONS {
    size_t target_ = 0;                     // index, in the order of AddTarget
    std::chrono::milliseconds timeout_{0};  // instead of responseTime_; 0: that
    // May be sent again though the peer may have worked on it. Methods that may be repeated by
    // themselves (RFC 9110, section 9.2.2) are anyway.
    bool isRepeatable_ = false;
    // Takes the response's body piece by piece, which then has no limit. Returns true when the
    // piece has been dealt with; false keeps the peer's window closed by so many bytes until
    // Consume of the call. A response of which a piece was handed over is not asked for again.
    std::function<bool(std::string_view piece)> onPiece_;
    // The final response's header fields have come.
    std::function<void(const VEK_ST_HTTP_RESPONSE& head)> onHead_;
    // A 1xx response has come: its status and fields.
    std::function<void(int status, const CVEKHttpFields& fields)> onInformational_;
    // Only how the response ends, its status and the size of its body are wanted: its fields and
    // trailers, and the body where onPiece_ does not take it, are dropped as they come. A body that
    // is dropped has no limit.
    bool isContentDropped_ = false;
};

// Figures of a client since it was made; each is exact, all together not of one moment.
struct VEK_ST_HTTP_CLIENT_COUNTERS {
    uint64_t connections_ = 0;  // up now
    uint64_t opened_ = 0;       // up in all
    uint64_t connectFailed_ = 0;
    uint64_t waiting_ = 0;    // requests that wait for a connection now
    uint64_t flying_ = 0;     // requests that are with a peer now
    uint64_t sent_ = 0;       // handed to a connection, each time
    uint64_t repeated_ = 0;   // of which so many again
    uint64_t succeeded_ = 0;  // ended with a response
    uint64_t failed_ = 0;     // ended without a whole one
};

#endif
