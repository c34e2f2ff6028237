// CVEKHttpClientTarget: a client's target, with what all loops need of it.
#ifndef CVEK_HTTP_CLIENT_TARGET_H
#define CVEK_HTTP_CLIENT_TARGET_H

#include <memory>
#include <string>

#include "CVEKTlsContext.h"
#include "VEKHttpClientOption.h"

struct CVEKHttpClientTarget {
    VEK_ST_HTTP_TARGET options_;
    CVEKTlsContext tls_;     // with a context where options_.tls_ asks for one
    std::string name_;       // to verify
    std::string authority_;  // of requests without one
    std::string text_;       // "host:port" or the Unix socket's path

    // Null for clear text.
    SSL_CTX* GetContext() const {
        return options_.context_ != nullptr ? options_.context_.get() : tls_.GetContext();
    }
    bool HasTls() const { return GetContext() != nullptr; }
};

#endif
