// Text of foreign origin in log lines: what a peer sent must not end a line, start another that the
// program never logged, or speak to the terminal on which the log is read.
#ifndef VEK_LOG_TEXT_H
#define VEK_LOG_TEXT_H

#include <cstddef>
#include <string>
#include <string_view>

#include "VEKExport.h"

// A length that leaves a line readable.
constexpr size_t VEK_LOG_TEXT_LIMIT = 256;

// The text as printable ASCII: control characters, 0x7f and the bytes above it become "\xHH" with
// two lower-case digits; all else stays as it is. The result has up to `limit` characters; one that
// had more is cut, not inside an escape, and ends in "..." in their place (in as many dots as
// `limit` allows). Without memory it is "...". The text may hold any bytes, also NUL:
//   VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) method(%s)", name, VEK_ESCAPE_TEXT(method).c_str());
// For what comes from others only: the log itself leaves its lines as they are.
VEK_API std::string VEK_ESCAPE_TEXT(std::string_view text,
                                    size_t limit = VEK_LOG_TEXT_LIMIT) noexcept;

#endif
