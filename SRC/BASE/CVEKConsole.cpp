#include "CVEKConsole.h"

#include <fcntl.h>
#include <poll.h>
#include <stdio_ext.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <memory>
#include <string>

#include "VEKPipeRoom.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto WAIT = std::chrono::seconds(1);
constexpr useconds_t NAP_US = 1000;

bool Lock(FILE* stream, Clock::time_point deadline) {
    while (ftrylockfile(stream) != 0) {
        if (Clock::now() >= deadline) {
            return false;
        }
        usleep(NAP_US);
    }
    return true;
}

// Files take what comes or refuse it, and a stream in memory has no descriptor.
bool CanWait(int fd) {
    struct stat info {};
    return fstat(fd, &info) == 0 && !S_ISREG(info.st_mode);
}

// True when a write of up to PIPE_BUF bytes finds room, or fails at once.
bool AwaitRoom(int fd, Clock::time_point deadline) {
    pollfd poll{fd, POLLOUT, 0};
    for (;;) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
        const int count = ::poll(&poll, 1, static_cast<int>(std::max<long>(left, 0)));
        if (count >= 0 || errno != EINTR) {
            return count > 0;
        }
    }
}

// After a write that failed with errno.
bool MayTryAgain(int fd, Clock::time_point deadline) {
    return errno == EINTR ||
           (errno == EAGAIN && Clock::now() < deadline && AwaitRoom(fd, deadline));
}

// Writes out what the program has put into the stream, which takes one call: more than the pipe
// holds at once stays there until the program flushes it, and keeps lines back.
bool WriteOut(FILE* stream, Clock::time_point deadline) {
    const size_t pending = __fpending(stream);
    if (pending == 0) {
        return true;
    }
    const int fd = fileno(stream);
    if (CanWait(fd) && !AwaitRoom(fd, deadline)) {
        return false;
    }
    const bool isPipe = fcntl(fd, F_GETPIPE_SZ) >= 0;
    while (isPipe && !VEK_HAS_PIPE_ROOM(fd, pending)) {
        if (Clock::now() >= deadline) {
            return false;
        }
        usleep(NAP_US);
    }
    return fflush_unlocked(stream) == 0;
}

// Writes without waiting, though the descriptor's mode is to wait: where the system cannot do that
// for one call, through a descriptor of its own. Without either there is still the room that is
// seen, unless another process takes it first.
ssize_t WriteNow(int fd, const char* text, size_t length) {
    const iovec part = {const_cast<char*>(text), length};
    const ssize_t count = pwritev2(fd, &part, 1, -1, RWF_NOWAIT);
    if (count >= 0 || (errno != EOPNOTSUPP && errno != ENOSYS && errno != EINVAL)) {
        return count;
    }
    const int own = open(("/proc/self/fd/" + std::to_string(fd)).c_str(),
                         O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (own < 0) {
        errno = EAGAIN;
        return AwaitRoom(fd, Clock::time_point()) ? write(fd, text, length) : -1;
    }
    const ssize_t result = write(own, text, length);
    const int error = errno;
    close(own);
    errno = error;
    return result;
}

}  // namespace

CVEKConsole::CVEKConsole() : isStuck_(false), isTorn_(false) {}

bool CVEKConsole::Write(FILE* stream, const char* text, size_t length) {
    const auto deadline = isStuck_ ? Clock::time_point() : Clock::now() + WAIT;
    if (!Lock(stream, deadline)) {
        isStuck_ = true;
        return false;
    }
    const std::unique_ptr<FILE, void (*)(FILE*)> lock(stream, funlockfile);
    isStuck_ = !WriteLocked(stream, text, length, deadline);
    return !isStuck_;
}

bool CVEKConsole::Flush(FILE* stream) {
    const auto deadline = Clock::now() + WAIT;
    if (!Lock(stream, deadline)) {
        return false;
    }
    const std::unique_ptr<FILE, void (*)(FILE*)> lock(stream, funlockfile);
    return WriteOut(stream, deadline);
}

bool CVEKConsole::WriteLocked(FILE* stream, const char* text, size_t length,
                              Clock::time_point deadline) {
    const int fd = fileno(stream);
    if (!CanWait(fd)) {
        return fwrite_unlocked(text, length, 1, stream) == 1;
    }
    if (isTorn_ && !WriteAll(fd, "\n", 1, deadline)) {
        return false;
    }
    isTorn_ = false;
    return WriteOut(stream, deadline) && WriteAll(fd, text, length, deadline);
}

bool CVEKConsole::WriteAll(int fd, const char* text, size_t length, Clock::time_point deadline) {
    size_t done = 0;
    while (done < length) {
        const char* rest = text + done;
        const size_t left = length - done;
        const ssize_t count = WriteNow(fd, rest, std::min<size_t>(left, PIPE_BUF));
        if (count > 0) {
            done += static_cast<size_t>(count);
        } else if (count == 0 || !MayTryAgain(fd, deadline)) {
            break;
        }
    }
    isTorn_ = isTorn_ || (done > 0 && done < length);
    return done == length;
}
