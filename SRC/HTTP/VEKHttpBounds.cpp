#include "VEKHttpBounds.h"

namespace {

constexpr std::chrono::hours EVER(24 * 365);
constexpr uint32_t MAX_WINDOW = INT32_MAX;  // RFC 9113, section 6.9.1
constexpr uint32_t LEAST_FRAME = 16384;     // RFC 9113, section 6.5.2
constexpr uint32_t MOST_FRAME = (1U << 24) - 1;

size_t LimitOr(size_t limit, size_t most) {
    return limit == 0 ? most : std::min(limit, most);
}

}  // namespace

std::chrono::milliseconds VEK_HTTP_SETUP_TIME(std::chrono::milliseconds time) {
    return time.count() <= 0 ? EVER : std::min<std::chrono::milliseconds>(time, EVER);
}

VEK_ST_HTTP_SETTINGS VEK_HTTP_BOUND_SETTINGS(VEK_ST_HTTP_SETTINGS settings) {
    settings.headerBytes_ = LimitOr(settings.headerBytes_, INT32_MAX);
    settings.headerFields_ = LimitOr(settings.headerFields_, INT32_MAX);
    settings.bodyBytes_ = LimitOr(settings.bodyBytes_, PTRDIFF_MAX);
    settings.streamWindow_ = std::clamp(settings.streamWindow_, 1U, MAX_WINDOW);
    settings.connectionWindow_ = std::clamp(settings.connectionWindow_, 1U, MAX_WINDOW);
    settings.frameBytes_ = std::clamp(settings.frameBytes_, LEAST_FRAME, MOST_FRAME);
    return settings;
}
