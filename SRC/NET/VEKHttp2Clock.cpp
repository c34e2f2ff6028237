#include "VEKHttp2Clock.h"

#include <chrono>

VEK_HTTP2_TIME VEK_HTTP2_NOW() {
    using std::chrono::steady_clock;
    using std::chrono::system_clock;
    static const system_clock::duration OFFSET =
        system_clock::now().time_since_epoch() -
        std::chrono::duration_cast<system_clock::duration>(steady_clock::now().time_since_epoch());
    return VEK_HTTP2_TIME(OFFSET + steady_clock::now().time_since_epoch());
}

double VEK_SECONDS_SINCE(VEK_HTTP2_TIME from) {
    return std::chrono::duration<double>(VEK_HTTP2_NOW() - from).count();
}
