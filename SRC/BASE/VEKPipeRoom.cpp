#include "VEKPipeRoom.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <climits>

namespace {

struct Fill {
    size_t capacity;  // bytes, 0 when it is no pipe
    size_t queued;
};

Fill GetFill(int pipe) {
    const int capacity = fcntl(pipe, F_GETPIPE_SZ);
    int queued = 0;
    if (capacity < 0 || ioctl(pipe, FIONREAD, &queued) != 0) {
        return {0, 0};
    }
    return {static_cast<size_t>(capacity), static_cast<size_t>(queued)};
}

}  // namespace

// The free pages cannot be asked for, but two neighbours in a pipe together hold more than one
// page, except for the first, from which was read.
bool VEK_HAS_PIPE_ROOM(int pipe, size_t size) {
    if (size <= PIPE_BUF) {
        return true;
    }
    const Fill fill = GetFill(pipe);
    if (fill.queued == 0) {
        return size <= fill.capacity;
    }
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t used = 2 * fill.queued / page + 2;
    const size_t needed = size / page + 2;
    return used + needed <= fill.capacity / page;
}

size_t VEK_GET_PIPE_QUEUE(int pipe) {
    return GetFill(pipe).queued;
}

bool VEK_IS_PIPE_HALF_EMPTY(int pipe) {
    const Fill fill = GetFill(pipe);
    return fill.capacity > 0 && 2 * fill.queued <= fill.capacity;
}
