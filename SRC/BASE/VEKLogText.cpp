#include "VEKLogText.h"

#include <new>

namespace {

constexpr std::string_view MARK = "...";

std::string Escape(char c) {
    constexpr char DIGITS[] = "0123456789abcdef";
    constexpr unsigned FIRST_PRINTABLE = 0x20;
    constexpr unsigned LAST_PRINTABLE = 0x7e;
    const unsigned byte = static_cast<unsigned char>(c);
    if (byte < FIRST_PRINTABLE || byte > LAST_PRINTABLE) {
        return {'\\', 'x', DIGITS[byte / 16], DIGITS[byte % 16]};
    }
    return std::string(1, c);
}

std::string EscapeAll(std::string_view text, size_t limit) {
    std::string result;
    size_t kept = 0;  // of the result, if the mark is to follow
    for (const char c : text) {
        result += Escape(c);
        if (result.size() > limit) {
            result.resize(kept);
            return result.append(MARK.substr(0, limit - kept));
        }
        if (result.size() + MARK.size() <= limit) {
            kept = result.size();
        }
    }
    return result;
}

}  // namespace

std::string VEK_ESCAPE_TEXT(std::string_view text, size_t limit) noexcept {
    try {
        return EscapeAll(text, limit);
    } catch (const std::bad_alloc&) {
        return std::string(MARK);  // short enough for a string that takes none
    }
}
