#include "VEKStandardStream.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

void VEK_OPEN_STANDARD_STREAMS() {
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        // The lowest free number is the one that was found closed.
        if (fcntl(fd, F_GETFD) < 0 && errno == EBADF && open("/dev/null", O_RDWR) != fd) {
            return;
        }
    }
}

int VEK_LEAVE_STANDARD_STREAMS(int fd) {
    if (fd < 0 || fd > STDERR_FILENO) {
        return fd;
    }
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(fd);
    return moved;
}
