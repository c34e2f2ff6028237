// What HTTP/2 takes as parts of a request (RFC 9113, section 8.2.1). A request with others would
// never be sent, and nobody would learn why.
#ifndef VEK_LOAD_FIELD_H
#define VEK_LOAD_FIELD_H

#include <nghttp2/nghttp2.h>

#include <cstdint>
#include <string_view>

inline const uint8_t* VEK_LOAD_BYTES(std::string_view text) {
    // The bytes are the caller's, not the view's.
    // cppcheck-suppress returnDanglingLifetime
    return reinterpret_cast<const uint8_t*>(text.data());
}

inline bool VEK_LOAD_IS_METHOD(std::string_view text) {
    return nghttp2_check_method(VEK_LOAD_BYTES(text), text.size()) != 0;
}

inline bool VEK_LOAD_IS_PATH(std::string_view text) {
    return text.substr(0, 1) == "/" && nghttp2_check_path(VEK_LOAD_BYTES(text), text.size()) != 0;
}

// In lower case.
inline bool VEK_LOAD_IS_NAME(std::string_view text) {
    return text.substr(0, 1) != ":" &&
           nghttp2_check_header_name(VEK_LOAD_BYTES(text), text.size()) != 0;
}

inline bool VEK_LOAD_IS_VALUE(std::string_view text) {
    return nghttp2_check_header_value_rfc9113(VEK_LOAD_BYTES(text), text.size()) != 0;
}

#endif
