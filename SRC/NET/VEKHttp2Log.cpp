#include "VEKHttp2Log.h"

#include "CVEKLogLimit.h"
#include "VEKHttp2Option.h"
#include "VEKLogText.h"
#include "VEKServiceLog.h"

namespace {

const char* GetSettingName(int32_t id) {
    switch (id) {
        case NGHTTP2_SETTINGS_HEADER_TABLE_SIZE:
            return "SETTINGS_HEADER_TABLE_SIZE";
        case NGHTTP2_SETTINGS_ENABLE_PUSH:
            return "SETTINGS_ENABLE_PUSH";
        case NGHTTP2_SETTINGS_MAX_CONCURRENT_STREAMS:
            return "SETTINGS_MAX_CONCURRENT_STREAMS";
        case NGHTTP2_SETTINGS_INITIAL_WINDOW_SIZE:
            return "SETTINGS_INITIAL_WINDOW_SIZE";
        case NGHTTP2_SETTINGS_MAX_FRAME_SIZE:
            return "SETTINGS_MAX_FRAME_SIZE";
        case NGHTTP2_SETTINGS_MAX_HEADER_LIST_SIZE:
            return "SETTINGS_MAX_HEADER_LIST_SIZE";
        default:
            return "UNKNOWN";
    }
}

}  // namespace

void VEK_HTTP2_LOG_OPTIONS(const char* name, const VEK_ST_HTTP2_OPTIONS& options,
                           const char* defaultWord) {
    const auto number = [](uint32_t value) { return static_cast<int>(value); };
    VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) http/2 options...", name);
    VEK_SERVICE_LOG(VEK_LOG_INFO, " -MAX CONCURRENT STREAM =  %7d",
                    number(options.nMaxConcurrentStream_));
    VEK_SERVICE_LOG(VEK_LOG_INFO, " -MAX PAYLOAD SIZE      =  %7d",
                    number(options.nMaxPayloadSize_));
    VEK_SERVICE_LOG(VEK_LOG_INFO, " -%s WINDOW SIZE   =  %7d", defaultWord,
                    number(options.nDefaultWindowSize_));
    VEK_SERVICE_LOG(VEK_LOG_INFO, " -%s FRAME SIZE    =  %7d", defaultWord,
                    number(options.nDefaultFrameSize_));
    VEK_SERVICE_LOG(VEK_LOG_INFO, " -USING SERVER PUSH     =  %7s",
                    options.nPushEnable_ != 0 ? "true" : "false");
    VEK_SERVICE_LOG(VEK_LOG_INFO, " -RESPONSE TIMEOUT      =  %7d", number(options.nTimeout_));
}

void VEK_HTTP2_LOG_TLS(const char* name, const VEK_ST_TLS_INFO& info) {
    if (info.version_.empty()) {
        return;
    }
    VEK_SERVICE_LOG(VEK_LOG_INFO,
                    "conn(%s) tls %s, cipher %s, group %s, %s, peer [%s] of [%s] until [%s]: [%s], "
                    "microseconds: name %u, tcp %u, tls %u",
                    name, info.version_.c_str(), info.cipher_.c_str(), info.group_.c_str(),
                    info.isResumed_ ? "resumed" : "new", VEK_ESCAPE_TEXT(info.peerSubject_).c_str(),
                    VEK_ESCAPE_TEXT(info.peerIssuer_).c_str(), info.peerExpiry_.c_str(),
                    info.peerVerdict_.c_str(), info.times_.nameUs_, info.times_.tcpUs_,
                    info.times_.tlsUs_);
}

void VEK_HTTP2_LOG_SETTINGS(const char* name, const nghttp2_settings& settings, const char* lead) {
    const bool isAck = (settings.hd.flags & NGHTTP2_FLAG_ACK) != 0;
    VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) %s...(niv=%lu)", name,
                    isAck ? "receive settings ack" : "received settings",
                    static_cast<unsigned long>(settings.niv));
    for (size_t i = 0; i < settings.niv; ++i) {
        const nghttp2_settings_entry& entry = settings.iv[i];
        VEK_SERVICE_LOG(VEK_LOG_INFO, "%s%s(0x%02x):%u", lead, GetSettingName(entry.settings_id),
                        static_cast<unsigned>(entry.settings_id), entry.value);
    }
}

void VEK_HTTP2_LOG_HEADERS(const VEK_HTTP2_HEADER& fields) {
    const char* begin = G_VEK_HTTP2_COLOR_LOG ? "\033[1;34m" : "";
    const char* end = G_VEK_HTTP2_COLOR_LOG ? "\033[0m" : "";
    for (const auto& [name, value] : fields) {
        VEK_PEER_LOG(VEK_LOG_INFO, "%s%s%s: %s\n", begin, VEK_ESCAPE_TEXT(name).c_str(), end,
                     VEK_ESCAPE_TEXT(value).c_str());
    }
}
