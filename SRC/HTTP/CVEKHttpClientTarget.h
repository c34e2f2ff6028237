// CVEKHttpClientTarget: a client's target, with what all loops need of it.
#ifndef CVEK_HTTP_CLIENT_TARGET_H
#define CVEK_HTTP_CLIENT_TARGET_H

#include <string>

#include "CVEKTlsContext.h"
#include "VEKHttpClientOption.h"

struct CVEKHttpClientTarget {
    VEK_ST_HTTP_TARGET options_;
    CVEKTlsContext tls_;     // with a context where the target has TLS
    std::string name_;       // to verify
    std::string authority_;  // of requests without one
    std::string text_;       // "host:port" or the Unix socket's path
};

#endif
