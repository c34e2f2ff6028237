#include "CVEKTlsKeyLog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>
#include <utility>

#include "VEKServiceLog.h"
#include "VEKTlsAttachment.h"
#include "VEKTlsFile.h"
#include "VEKTlsReason.h"

namespace {

constexpr mode_t OWNER_ONLY = 0600;

// Without waiting: the open of a pipe would hang until it is read. -1 with errno.
int Open(const std::string& path) {
    if (path.find('\0') != std::string::npos) {  // it would be another file
        errno = EINVAL;
        return -1;
    }
    return open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY,
                OWNER_ONLY);
}

// Whether secrets can be left there without ever waiting for somebody who reads them.
bool IsFileOrDevice(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && (S_ISREG(status.st_mode) || S_ISCHR(status.st_mode));
}

void WriteSecret(const SSL* ssl, const char* line) {
    VEK_TLS_ATTACHED<CVEKTlsKeyLog>(SSL_get_SSL_CTX(ssl))->Write(line);
}

}  // namespace

bool CVEKTlsKeyLog::Start(SSL_CTX* context, const std::string& path, std::string& error) {
    const std::string name = VEK_TLS_FILE_TEXT("key log file", path);
    const int fd = Open(path);
    if (fd < 0) {
        error = name + ": " + strerror(errno);
        return false;
    }
    auto log = std::make_unique<CVEKTlsKeyLog>(fd);
    if (!IsFileOrDevice(fd)) {
        error = name + ": neither a file nor a character device";
        return false;
    }
    fcntl(fd, F_SETFL, O_APPEND);
    if (!VEK_TLS_ATTACH(context, std::move(log))) {
        return VEK_TLS_FAIL(error, name);
    }
    SSL_CTX_set_keylog_callback(context, WriteSecret);
    return true;
}

CVEKTlsKeyLog::~CVEKTlsKeyLog() {
    close(fd_);
}

void CVEKTlsKeyLog::Write(const char* line) const {
    // In one call: other connections, threads and programs append to the same file. And without
    // memory of our own: the library's frames above take no exception.
    char end = '\n';
    const size_t length = strlen(line);
    const iovec parts[] = {{const_cast<char*>(line), length}, {&end, sizeof end}};
    if (writev(fd_, parts, std::size(parts)) != static_cast<ssize_t>(length + sizeof end)) {
        VEK_SYSTEM_CALL_LOG("writev() failed!..key log is incomplete");
    }
}
