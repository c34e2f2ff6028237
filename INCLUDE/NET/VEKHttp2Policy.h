// How strict a connection is, and what it puts up with: for SetPolicy of CVEKHttp2Request and
// CVEKHttp2Response, before a set-up. Every switch stands alone. A record as it is made is the
// strict way in which connections behave by themselves; the comments say what a switch changes.
//
// No thread or timer watches the limits: they are looked at whenever the driving thread comes by
// (Request and Response, or in event mode ProcEvent, ProcEventPre and IsValid), and take effect at
// the first such pass behind them. To hold a limit to about half its length, come by that often.
#ifndef VEK_HTTP2_POLICY_H
#define VEK_HTTP2_POLICY_H

#include <cstddef>
#include <cstdint>

// A maxLogLines_ for connections with strangers.
constexpr uint32_t VEK_HTTP2_LOG_LINES = 20;

struct VEK_ST_HTTP2_POLICY {
    // A GOAWAY ends the connection when what it leaves to be finished has been (RFC 9113, section
    // 6.8), and not at once. GetState stays OPEN until then; the cause is PEER.
    // Client: nothing more is queued or sent. Requests above the last stream that the GOAWAY names,
    // and those that have not left yet, are delivered with VEK_HTTP2_ERROR_UNPROCESSED; the others
    // are answered as ever. What has come whole is delivered also after the connection has closed,
    // however it closed, and what was still queued then with VEK_HTTP2_ERROR_UNPROCESSED.
    // Server: the requests that have come are still answered, unless the peer closes its end.
    bool isGoawayGraceful_ = false;
    // An offence of the peer that concerns one stream (RFC 9113, section 5.4.2) ends that stream
    // only; a client's request is delivered at once as "000" with the code in error_. One that
    // concerns the connection closes it behind a GOAWAY that says which, and so does a mass of
    // offences whose resets the peer does not take.
    bool isOffenceContained_ = false;
    // Client: 1xx responses are passed over, counted (GetInformationalCount) and, in detail mode,
    // logged; the response behind them is the response. Else the first one is.
    bool isInformationalSkipped_ = false;
    // Client: trailers are delivered in trailers_. Else they are dropped.
    bool hasTrailers_ = false;
    // Client: a request that cannot be sent (a text too long, a path without a leading slash, a
    // body over nMaxPayloadSize_) is refused with VEK_HTTP2_REQUEST_INVALID, by the synchronous
    // form with false, and the connection stays open. Else a wrong path or body closes it.
    bool isRequestChecked_ = false;
    // Client: an answer with VEK_HTTP2_ERROR_PAYLOAD_OVERFLOW keeps its status beside its error.
    bool isStatusKept_ = false;
    // Server: the request of an HTTP/1.1 upgrade is handed out as stream 1 for the path "/" too.
    bool isUpgradeRequestTaken_ = false;

    // Milliseconds; 0: as in brackets.
    uint32_t connectMs_ = 0;      // [10 s; Connect: the system's] for all addresses of the peer
    uint32_t handshakeMs_ = 0;    // [10 s] for the TLS handshake
    uint32_t upgradeMs_ = 0;      // [1 s] for the first bytes in clear text, and for the upgrade
    uint32_t responseMs_ = 0;     // [nTimeout_] for a response
    uint32_t settingsAckMs_ = 0;  // [none] for the acknowledgement of our SETTINGS
    // [none] for the peer to take something of what is there for it: a socket that refuses bytes,
    // or windows that stay closed while bodies wait.
    uint32_t stallMs_ = 0;

    // Bytes; 0: no limit.
    // Server: bodies of answers that are queued or in flight. The Response that exceeds it closes
    // the connection.
    size_t maxHeldBytes_ = 0;
    // Read on after a GOAWAY by which this end has refused a flood, while streams are still open.
    // To a peer that takes nothing of what was there before, that GOAWAY cannot leave: stallMs_
    // ends it.
    size_t maxBytesAfterGoaway_ = 0;

    // Log lines in a second that the peer can cause over and over; 0: no limit. What is left out is
    // counted in a line of its own. Lines that come once for a connection do not count, and in
    // detail mode none does.
    uint32_t maxLogLines_ = 0;
};

#endif
