// What the compressed pair shares: options, and the way a connected descriptor becomes a socket for
// compressed messages.
#ifndef COMPRESS_SAMPLE_H
#define COMPRESS_SAMPLE_H

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "CVEKSocketNew.h"
#include "CVEKUtil.h"
#include "SampleArguments.h"

constexpr int DEFAULT_MESSAGE_SIZE = 64 << 10;
constexpr int MAX_MESSAGE_SIZE = 64 << 20;

struct CompressOptions {
    int port = -1;
    int messageSize = DEFAULT_MESSAGE_SIZE;
    int protocol = IPPROTO_TCP;
};

// minPort: 0 where any free port will do.
inline bool ParseCompressOption(int option, const char* argument, int minPort,
                                CompressOptions& options) {
    switch (option) {
        case 'p':
            return ParseNumber('p', argument, minPort, MAX_PORT, options.port);
        case 'b':
            return ParseNumber('b', argument, 1, MAX_MESSAGE_SIZE, options.messageSize);
        case 's':
            options.protocol = IPPROTO_SCTP;
            return true;
        default:
            return false;
    }
}

constexpr int PATIENCE_SECONDS = 10;  // with a peer that says nothing, or takes nothing

// Takes the descriptor over for messages of up to `size` bytes. It stays blocking, and in looping
// mode each frame is sent and received as a whole.
inline bool SetUpSocket(CVEKSocketNew& socket, int fd, int size) {
    CVEKSocketNew::SET_NODELAY(fd);
    const timeval patience = {PATIENCE_SECONDS, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    socket.SetIOMethod(VEK_SOCKET_IO_LOOP);
    return socket.SetFD(fd, nullptr, 0) &&
           socket.InitCompress(static_cast<size_t>(CVEKUtil::LZ4_GetCompressBoundSize(size)));
}

#endif
