// What a TCP socket has carried, as the kernel counts it.
#ifndef VEK_SOCKET_TRAFFIC_H
#define VEK_SOCKET_TRAFFIC_H

#include <cstdint>

#include "VEKExport.h"

// Bytes of both directions, without what was sent again. Zeros for other sockets.
VEK_API void VEK_SOCKET_TRAFFIC(int socket, uint64_t& sent, uint64_t& received);

#endif
