// How long the parts of a connection's set-up took.
#ifndef VEK_CONNECT_TIMES_H
#define VEK_CONNECT_TIMES_H

#include <cstdint>

// By the steady clock, in microseconds; 0: was not part of it.
struct VEK_ST_CONNECT_TIMES {
    uint32_t nameUs_ = 0;  // name resolution
    uint32_t tcpUs_ = 0;   // connect, all addresses together
    uint32_t tlsUs_ = 0;   // handshake
};

#endif
