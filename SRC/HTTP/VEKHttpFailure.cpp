#include "VEKHttpFailure.h"

#include <cstddef>

const char* VEK_HTTP_REASON_NAME(VEK_HTTP_REASON reason) {
    static const char* const NAMES[] = {
        "none",  "invalid",   "resolve", "connect", "tls",         "no http/2", "timeout",
        "idle",  "cancelled", "refused", "reset",   "peer closed", "broken",    "protocol",
        "abuse", "too large", "body",    "full",    "closed",      "memory",    "system",
    };
    static_assert(sizeof NAMES / sizeof *NAMES == static_cast<size_t>(VEK_HTTP_REASON::SYSTEM) + 1,
                  "a name for each reason");
    return NAMES[static_cast<size_t>(reason)];
}
