#include "CVEKHttp2ErrorNote.h"

#include <netdb.h>
#include <nghttp2/nghttp2.h>

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <new>

#include "VEKLogText.h"
#include "VEKText.h"

namespace {

void Append(VEK_ST_HTTP2_ERROR& error, const char* format, const char* text) {
    const size_t used = strlen(error.text_);
    snprintf(error.text_ + used, sizeof error.text_ - used, format, text);
}

void Complete(VEK_ST_HTTP2_ERROR& error, std::string_view reason) {
    VEK_COPY_TEXT(error.reason_, VEK_ESCAPE_TEXT(reason, sizeof error.reason_ - 1).c_str());
    error.text_[0] = '\0';
    Append(error, "%s", VEK_HTTP2_FAILURE_TEXT(error.failure_));
    const bool hasCode = error.code_ != 0 || error.failure_ == VEK_HTTP2_FAILURE_GOAWAY;
    if (hasCode) {
        error.codeName_ = nghttp2_http2_strerror(error.code_);
        Append(error, " (%s)", error.codeName_);
    }
    if (error.reason_[0] != '\0') {
        Append(error, ": %s", error.reason_);
    }
    if (error.resolverError_ != 0) {
        Append(error, ": %s", gai_strerror(error.resolverError_));
    }
    if (error.errno_ != 0) {
        char buffer[64] = "";
        const char* words = strerror_r(error.errno_, buffer, sizeof buffer);
        if (strstr(error.reason_, words) == nullptr) {  // TLS may have said it in its own
            Append(error, ": %s", words);
        }
    }
}

}  // namespace

const char* VEK_HTTP2_FAILURE_TEXT(VEK_HTTP2_FAILURE failure) {
    switch (failure) {
        case VEK_HTTP2_FAILURE_NONE:
            return "none";
        case VEK_HTTP2_FAILURE_RESOLVE:
            return "no address found";
        case VEK_HTTP2_FAILURE_CONNECT:
            return "cannot connect";
        case VEK_HTTP2_FAILURE_TLS:
            return "TLS handshake failed";
        case VEK_HTTP2_FAILURE_ALPN:
            return "HTTP/2 not agreed on over TLS";
        case VEK_HTTP2_FAILURE_UPGRADE:
            return "upgrade to HTTP/2 failed";
        case VEK_HTTP2_FAILURE_CONNECT_TIMEOUT:
            return "not connected in time";
        case VEK_HTTP2_FAILURE_HANDSHAKE_TIMEOUT:
            return "no TLS handshake in time";
        case VEK_HTTP2_FAILURE_UPGRADE_TIMEOUT:
            return "no first bytes or upgrade in time";
        case VEK_HTTP2_FAILURE_RESPONSE_TIMEOUT:
            return "no response in time";
        case VEK_HTTP2_FAILURE_SETTINGS_TIMEOUT:
            return "SETTINGS not acknowledged in time";
        case VEK_HTTP2_FAILURE_PING_TIMEOUT:
            return "PING not acknowledged in time";
        case VEK_HTTP2_FAILURE_STALL:
            return "peer does not take its data";
        case VEK_HTTP2_FAILURE_GOAWAY:
            return "GOAWAY received";
        case VEK_HTTP2_FAILURE_PEER_CLOSED:
            return "closed by peer";
        case VEK_HTTP2_FAILURE_TRANSPORT:
            return "transport broken";
        case VEK_HTTP2_FAILURE_OFFENCE:
            return "protocol broken by peer";
        case VEK_HTTP2_FAILURE_OWN_LIMIT:
            return "own limit exceeded";
        case VEK_HTTP2_FAILURE_STREAM_IDS:
            return "no stream id left";
        case VEK_HTTP2_FAILURE_INTERNAL:
            return "internal error";
        case VEK_HTTP2_FAILURE_MEMORY:
            return "out of memory";
        case VEK_HTTP2_FAILURE_SELF:
            return "closed by this end";
    }
    return "unknown";
}

void CVEKHttp2ErrorNote::Put(VEK_ST_HTTP2_ERROR error, std::string_view reason) {
    const CVEKLockGuard guard(lock_);
    if (failure_ != VEK_HTTP2_FAILURE_NONE) {
        return;
    }
    failure_ = error.failure_;
    Complete(error, reason);
    error_.reset(new (std::nothrow) VEK_ST_HTTP2_ERROR(error));
}

VEK_ST_HTTP2_ERROR CVEKHttp2ErrorNote::Get() const {
    const CVEKLockGuard guard(lock_);
    if (error_ != nullptr) {
        return *error_;
    }
    VEK_ST_HTTP2_ERROR bare;
    bare.failure_ = failure_;
    return bare;
}

void CVEKHttp2ErrorNote::Clear() {
    const CVEKLockGuard guard(lock_);
    failure_ = VEK_HTTP2_FAILURE_NONE;
    error_.reset();
}
