// The clock of the connections' time stamps and limits: readings of the steady clock, expressed as
// system time with an offset that is taken once. Setting the system's clock so lets nothing time
// out, and nothing wait longer.
#ifndef VEK_HTTP2_CLOCK_H
#define VEK_HTTP2_CLOCK_H

#include "defHttp2.h"

VEK_HTTP2_TIME VEK_HTTP2_NOW();

// Seconds from `from` to now.
double VEK_SECONDS_SINCE(VEK_HTTP2_TIME from);

#endif
