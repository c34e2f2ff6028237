// CVEKTlsKeyLog: the file to which a TLS context writes its connections' secrets.
#ifndef CVEK_TLS_KEY_LOG_H
#define CVEK_TLS_KEY_LOG_H

#include <openssl/ssl.h>

#include <string>

class CVEKTlsKeyLog {
  public:
    // Opens the file (or character device), for its owner only when it is new, and has the context
    // append to it as long as it lives. Returns false with the reason in `error`.
    static bool Start(SSL_CTX* context, const std::string& path, std::string& error);

    explicit CVEKTlsKeyLog(int fd) : fd_(fd) {}
    ~CVEKTlsKeyLog();
    CVEKTlsKeyLog(const CVEKTlsKeyLog&) = delete;
    CVEKTlsKeyLog& operator=(const CVEKTlsKeyLog&) = delete;

    // Appends one line. Any thread.
    void Write(const char* line) const;

  private:
    int fd_;
};

#endif
