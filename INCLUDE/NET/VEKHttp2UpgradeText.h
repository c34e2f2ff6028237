// The texts of the HTTP/1.1 upgrade to HTTP/2 in clear text, token "h2c" (RFC 7540, section 3.2),
// and the encoding of the settings that travel with it. Safe to call from any thread.
#ifndef VEK_HTTP2_UPGRADE_TEXT_H
#define VEK_HTTP2_UPGRADE_TEXT_H

#include <nghttp2/nghttp2.h>

#include <cstddef>
#include <string>
#include <string_view>

#include "VEKExport.h"
#include "defHttp2.h"

// The client's request: format with the host and the settings token.
VEK_API extern const char* const HTTP2_UPGRADE_REQUEST;
// The server's answer.
VEK_API extern const char* const HTTP2_UPGRADE_RESPONSE;

// Room for a packed SETTINGS payload (6 bytes for each setting).
constexpr size_t VEK_HTTP2_SETTINGS_SIZE = 128;

// Fills the settings that a client announces from the options. Returns their number, 5; `entries`
// must have room for as many.
VEK_API int populate_settings(nghttp2_settings_entry* entries, const VEK_ST_HTTP2_OPTIONS* options);

// Base64 (RFC 4648, section 4) with padding.
VEK_API std::string VEK_BASE64_ENCODE(const void* data, size_t size);
// The bytes of a padded base64 text; empty when it is none.
VEK_API std::string VEK_BASE64_DECODE(std::string_view text);
// Base64 to the unpadded, URL-safe alphabet (RFC 4648, section 5), in place.
VEK_API void to_token68(std::string& text);
// The reverse: padded base64.
VEK_API std::string to_base64(std::string_view token);

#endif
