// Both sides of the HTTP/1.1 upgrade to HTTP/2 in clear text, token "h2c" (RFC 7540, section 3.2),
// and the encoding of the HTTP2-Settings value.
#ifndef VEK_HTTP2_UPGRADE_H
#define VEK_HTTP2_UPGRADE_H

#include <nghttp2/nghttp2.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "defHttp2.h"

class CVEKHttp2Request;
class CVEKHttp2Response;

// The client's request: format with the host and the settings token.
extern const char* const HTTP2_UPGRADE_REQUEST;
// The server's answer.
extern const char* const HTTP2_UPGRADE_RESPONSE;

// Room for a packed SETTINGS payload (6 bytes for each setting).
constexpr size_t VEK_HTTP2_SETTINGS_SIZE = 128;

// Fills the settings that a client announces from the options. Returns their number, 5; `entries`
// must have room for as many.
int populate_settings(nghttp2_settings_entry* entries, const VEK_ST_HTTP2_OPTIONS* options);

// Base64 (RFC 4648, section 4) with padding.
std::string VEK_BASE64_ENCODE(const void* data, size_t size);
// The bytes of a padded base64 text; empty when it is none.
std::string VEK_BASE64_DECODE(std::string_view text);
// Base64 to the unpadded, URL-safe alphabet (RFC 4648, section 5), in place.
void to_token68(std::string& text);
// The reverse: padded base64.
std::string to_base64(std::string_view token);

// Performs the client's side on a connected socket: sends the request, with `host` in its Host
// line, and waits up to a second for the answer. payload and payloadLen receive the SETTINGS
// payload that was announced. Returns false when the server did not switch.
bool VEK_HTTP2_CLIENT_UPGRADE(CVEKHttp2Request* conn, const char* host,
                              const VEK_ST_HTTP2_OPTIONS* options,
                              uint8_t (&payload)[VEK_HTTP2_SETTINGS_SIZE], size_t& payloadLen);

// Performs the server's side on an accepted socket: waits up to a second for the request, with a
// body of up to 1 MiB, and answers. A request for a path longer than "/" becomes stream 1 of the
// connection. settings receives the announced SETTINGS payload. Returns false when the peer did not
// ask for the upgrade in good form and time: after a log line, but for a body that is cut short and
// an answer that cannot be written.
bool VEK_HTTP2_SERVER_UPGRADE(CVEKHttp2Response* conn, std::string& settings);

#endif
