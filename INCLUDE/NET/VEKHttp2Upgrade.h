// Both sides of the HTTP/1.1 upgrade to HTTP/2 in clear text, token "h2c" (RFC 7540, section 3.2),
// on the connection classes. VEKHttp2UpgradeText.h has its texts and the encoding of its settings.
#ifndef VEK_HTTP2_UPGRADE_H
#define VEK_HTTP2_UPGRADE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "VEKExport.h"
#include "VEKHttp2UpgradeText.h"
#include "defHttp2.h"

class CVEKHttp2Request;
class CVEKHttp2Response;

// Performs the client's side on a connected socket, which must not block: sends the request, with
// `host` in its Host line, and waits up to a second for the answer. payload and payloadLen receive
// the SETTINGS payload that was announced. Returns false when the server did not switch.
VEK_API bool VEK_HTTP2_CLIENT_UPGRADE(CVEKHttp2Request* conn, const char* host,
                                      const VEK_ST_HTTP2_OPTIONS* options,
                                      uint8_t (&payload)[VEK_HTTP2_SETTINGS_SIZE],
                                      size_t& payloadLen);

// Performs the server's side on an accepted socket, which must not block: waits up to a second for
// the request, with a body of up to 1 MiB, and answers. A request for a path longer than "/"
// becomes stream 1 of the connection. settings receives the announced SETTINGS payload. Returns
// false when the peer did not ask for the upgrade in good form and time: after a log line, but for
// a body that is cut short and an answer that cannot be written.
VEK_API bool VEK_HTTP2_SERVER_UPGRADE(CVEKHttp2Response* conn, std::string& settings);

#endif
