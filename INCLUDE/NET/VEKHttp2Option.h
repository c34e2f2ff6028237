// Library-wide initialisation and options of the HTTP/2 classes.
#ifndef VEK_HTTP2_OPTION_H
#define VEK_HTTP2_OPTION_H

#include <cstdint>

#include "VEKExport.h"
#include "defHttp2.h"

constexpr int VEK_HTTP2_OPTION_COUNT = 10;

// Option values that a program may fill and hand to a connection's Initialize: slot 0 is
// nMaxConcurrentStream_ and so on in the order of VEK_ST_HTTP2_OPTIONS, slot 9 is nTimeout_. All
// zero at start; the library never fills it.
VEK_API extern uint32_t G_HTTP2_OPTION[VEK_HTTP2_OPTION_COUNT];

// True: connections log their options and every frame and header. Set by VEK_HTTP2_INIT.
VEK_API extern bool G_VEK_HTTP2_DETAIL_LOG;

// True: headers are printed with colour escapes. Off unless a program sets it.
VEK_API extern bool G_VEK_HTTP2_COLOR_LOG;

// Logs the engine's version and turns detail logging on when the environment variable
// VEK_HTTP2_DETAIL_LOG is "true" (in any letter case). Call it once, after the service log is open
// and before the first connection.
VEK_API void VEK_HTTP2_INIT();

// Text of an error code 0 to 9, "unknown..." for any other. Never null, not to be freed. These are
// not the close causes of a connection.
VEK_API const char* VEK_HTTP2_GET_ERROR_MSG(int code);

// Option slots laid out as G_HTTP2_OPTION, as a record.
VEK_API VEK_ST_HTTP2_OPTIONS
VEK_HTTP2_OPTION_RECORD(const uint32_t (&slots)[VEK_HTTP2_OPTION_COUNT]);

#endif
