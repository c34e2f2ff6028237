#include "CVEKTlsKeyLog.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "VEKServiceLog.h"
#include "VEKTlsAttachment.h"
#include "VEKTlsReason.h"

namespace {

constexpr mode_t OWNER_ONLY = 0600;

void WriteSecret(const SSL* ssl, const char* line) {
    VEK_TLS_ATTACHED<CVEKTlsKeyLog>(SSL_get_SSL_CTX(ssl))->Write(line);
}

}  // namespace

bool CVEKTlsKeyLog::Start(SSL_CTX* context, const std::string& path, std::string& error) {
    const int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, OWNER_ONLY);
    if (fd < 0) {
        error = "key log file " + path + ": " + strerror(errno);
        return false;
    }
    if (!VEK_TLS_ATTACH(context, std::make_unique<CVEKTlsKeyLog>(fd))) {
        return VEK_TLS_FAIL(error, "key log file " + path);
    }
    SSL_CTX_set_keylog_callback(context, WriteSecret);
    return true;
}

CVEKTlsKeyLog::~CVEKTlsKeyLog() {
    close(fd_);
}

void CVEKTlsKeyLog::Write(const char* line) const {
    // In one call: other connections, threads and programs append to the same file.
    const std::string text = std::string(line) + '\n';
    if (write(fd_, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        VEK_SYSTEM_CALL_LOG("write() failed!..key log is incomplete");
    }
}
