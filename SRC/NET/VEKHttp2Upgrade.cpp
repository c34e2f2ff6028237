#include "VEKHttp2Upgrade.h"

#include "CVEKHttp2Request.h"
#include "CVEKHttp2Response.h"

bool VEK_HTTP2_CLIENT_UPGRADE(CVEKHttp2Request* conn, const char* host,
                              const VEK_ST_HTTP2_OPTIONS* options,
                              uint8_t (&payload)[VEK_HTTP2_SETTINGS_SIZE], size_t& payloadLen) {
    return conn->Upgrade(host, *options, payload, payloadLen);
}

bool VEK_HTTP2_SERVER_UPGRADE(CVEKHttp2Response* conn, std::string& settings) {
    return conn->Upgrade(settings);
}
