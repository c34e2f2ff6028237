#include "VEKHttp2Option.h"

#include <strings.h>

#include <cstdlib>
#include <cstring>

#include "VEKServiceLog.h"

uint32_t G_HTTP2_OPTION[VEK_HTTP2_OPTION_COUNT] = {};
bool G_VEK_HTTP2_DETAIL_LOG = false;
bool G_VEK_HTTP2_COLOR_LOG = false;

namespace {

const char* const ERROR_MSG[] = {
    "none",
    "normal closed.",
    "receive GOAWAY!",
    "http/2 engine error!",
    "receive timeout!",
    "stream_queue full!",
    "stream_id full!",
    "ping timeout!",
    "event error dispatch!",
    "internal error!",
    "stream already closed!",
};
constexpr int LAST_ERROR_CODE = 9;  // the eleventh text is out of reach: meant

}  // namespace

void VEK_HTTP2_INIT() {
    VEK_SERVICE_LOG(VEK_LOG_INFO, "nghttp2 version        : %s", nghttp2_version(0)->version_str);
    const char* detail = getenv("VEK_HTTP2_DETAIL_LOG");
    if (detail != nullptr && strcasecmp(detail, "true") == 0) {
        G_VEK_HTTP2_DETAIL_LOG = true;
    }
    VEK_SERVICE_LOG(VEK_LOG_INFO, "nghttp2 detail-logging : %s",
                    G_VEK_HTTP2_DETAIL_LOG ? "true" : "false");
}

const char* VEK_HTTP2_GET_ERROR_MSG(int code) {
    return code >= 0 && code <= LAST_ERROR_CODE ? ERROR_MSG[code] : "unknown...";
}

VEK_ST_HTTP2_OPTIONS VEK_HTTP2_OPTION_RECORD(const uint32_t (&slots)[VEK_HTTP2_OPTION_COUNT]) {
    VEK_ST_HTTP2_OPTIONS options;
    static_assert(sizeof options == sizeof slots, "a slot for each option");
    memcpy(&options, slots, sizeof options);
    return options;
}
