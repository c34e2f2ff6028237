// What both ends of a connection can set: sizes in HTTP/2's terms and limits on what a peer may
// send. The values are good for most. For the first three 0 is no limit; the others are brought
// into their ranges.
#ifndef VEK_HTTP_SETTINGS_H
#define VEK_HTTP_SETTINGS_H

#include <cstddef>
#include <cstdint>

struct VEK_ST_HTTP_SETTINGS {
    // A block of header fields, as RFC 9113, section 6.5.2, counts it (32 bytes for each field
    // beside its texts). Servers answer 431 to a request above, clients fail with TOO_LARGE. Above
    // 16 times as much, bytes or fields, the connection ends with ENHANCE_YOUR_CALM.
    size_t headerBytes_ = size_t{64} * 1024;
    size_t headerFields_ = 256;
    // A body that is collected. Servers answer 413 above, clients fail with TOO_LARGE. One that is
    // handed over piece by piece has no limit.
    size_t bodyBytes_ = size_t{16} * 1024 * 1024;
    // What the peer may send ahead, in bytes, on a stream and on a connection; 1 to 2^31 - 1.
    uint32_t streamWindow_ = 256 * 1024;
    uint32_t connectionWindow_ = 4 * 1024 * 1024;
    uint32_t frameBytes_ = 16384;  // largest frame taken; 16384 to 2^24 - 1
    uint32_t headerTableBytes_ = 4096;
};

#endif
