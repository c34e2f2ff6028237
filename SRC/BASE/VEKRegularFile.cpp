#include "VEKRegularFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "VEKStandardStream.h"

FILE* VEK_OPEN_REGULAR_FILE(const char* path, int flag, mode_t mode) {
    const int fd = VEK_LEAVE_STANDARD_STREAMS(
        open(path, O_WRONLY | O_CREAT | O_NONBLOCK | O_CLOEXEC | flag, mode));
    if (fd < 0) {
        return nullptr;
    }
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        close(fd);
        errno = EINVAL;
        return nullptr;
    }
    return fdopen(fd, flag == O_APPEND ? "a" : "w");
}
