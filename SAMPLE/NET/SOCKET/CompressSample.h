// What the compressed pair shares: numbers of the command line, and the way a connected descriptor
// becomes a socket for compressed messages.
#ifndef COMPRESS_SAMPLE_H
#define COMPRESS_SAMPLE_H

#include <charconv>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "CVEKSocketNew.h"
#include "CVEKUtil.h"

constexpr int MAX_PORT = 65535;
constexpr int DEFAULT_MESSAGE_SIZE = 64 << 10;
constexpr int MAX_MESSAGE_SIZE = 64 << 20;

inline bool ParseNumber(char option, const char* text, int min, int max, int& value) {
    const char* end = text + strlen(text);
    const auto [stop, error] = std::from_chars(text, end, value);
    if (error != std::errc() || stop != end || value < min || value > max) {
        fprintf(stderr, "-%c: \"%s\" is not a number from %d to %d\n", option, text, min, max);
        return false;
    }
    return true;
}

// Takes the descriptor over for messages of up to `size` bytes. It stays blocking, and in looping
// mode each frame is sent and received as a whole.
inline bool SetUpSocket(CVEKSocketNew& socket, int fd, int size) {
    CVEKSocketNew::SET_NODELAY(fd);
    socket.SetIOMethod(VEK_SOCKET_IO_LOOP);
    return socket.SetFD(fd, nullptr, 0) &&
           socket.InitCompress(static_cast<size_t>(CVEKUtil::LZ4_GetCompressBoundSize(size)));
}

#endif
