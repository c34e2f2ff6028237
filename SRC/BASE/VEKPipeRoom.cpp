#include "VEKPipeRoom.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <climits>

// The free pages cannot be asked for, but two neighbours in a pipe together hold more than one
// page, except for the first, from which was read.
bool VEK_HAS_PIPE_ROOM(int pipe, size_t size) {
    if (size <= PIPE_BUF) {
        return true;
    }
    const int capacity = fcntl(pipe, F_GETPIPE_SZ);
    int queued = 0;
    if (capacity < 0 || ioctl(pipe, FIONREAD, &queued) != 0) {
        return false;
    }
    if (queued == 0) {
        return size <= static_cast<size_t>(capacity);
    }
    const auto page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t used = 2 * static_cast<size_t>(queued) / page + 2;
    const size_t needed = size / page + 2;
    return used + needed <= static_cast<size_t>(capacity) / page;
}
