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
    FILE* file = nullptr;
    if (fstat(fd, &info) == 0) {
        errno = EINVAL;
        file = S_ISREG(info.st_mode) ? fdopen(fd, flag == O_APPEND ? "a" : "w") : nullptr;
    }
    if (file == nullptr) {
        const int error = errno;
        close(fd);
        errno = error;
    }
    return file;
}
