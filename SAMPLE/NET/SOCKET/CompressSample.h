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
constexpr int DEFAULT_LIMIT_SECONDS = 30;
constexpr int MAX_LIMIT_SECONDS = 3600;

struct CompressOptions {
    int port = -1;
    int messageSize = DEFAULT_MESSAGE_SIZE;
    int protocol = IPPROTO_TCP;
    int limitSeconds = DEFAULT_LIMIT_SECONDS;
};

// minPort: 0 where any free port will do.
inline bool ParseCompressOption(int option, const char* argument, int minPort,
                                CompressOptions& options) {
    switch (option) {
        case 'p':
            return ParseNumber('p', argument, minPort, MAX_PORT, options.port);
        case 'b':
            return ParseNumber('b', argument, 1, MAX_MESSAGE_SIZE, options.messageSize);
        case 't':
            return ParseNumber('t', argument, 1, MAX_LIMIT_SECONDS, options.limitSeconds);
        case 's':
            options.protocol = IPPROTO_SCTP;
            return true;
        default:
            return false;
    }
}

// Takes the descriptor over for messages as the options have them. It stays blocking, and in
// looping mode each frame is sent and received as a whole; a peer that says nothing, or takes
// nothing, fails the call when the limit is over.
inline bool SetUpSocket(CVEKSocketNew& socket, int fd, const CompressOptions& options) {
    CVEKSocketNew::SET_NODELAY(fd);
    const timeval limit = {options.limitSeconds, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    socket.SetIOMethod(VEK_SOCKET_IO_LOOP);
    const int bound = CVEKUtil::LZ4_GetCompressBoundSize(options.messageSize);
    return socket.SetFD(fd, nullptr, 0) && socket.InitCompress(static_cast<size_t>(bound));
}

#endif
