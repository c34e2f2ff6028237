#include "VEKHttpFieldCheck.h"

#include <nghttp2/nghttp2.h>
#include <strings.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace {

constexpr std::string_view TRAILERS = "trailers";

const uint8_t* BytesOf(std::string_view text) {
    return reinterpret_cast<const uint8_t*>(text.data());
}

bool IsName(std::string_view name) {
    return name[0] != ':' && nghttp2_check_header_name(BytesOf(name), name.size()) != 0;
}

bool IsValue(std::string_view value) {
    return nghttp2_check_header_value_rfc9113(BytesOf(value), value.size()) != 0;
}

bool IsTrailers(std::string_view value) {
    return value.size() == TRAILERS.size() &&
           strncasecmp(value.data(), TRAILERS.data(), value.size()) == 0;
}

bool IsPath(const std::string& path) {
    return (path[0] == '/' || path == "*") && nghttp2_check_path(BytesOf(path), path.size()) != 0;
}

bool IsScheme(const std::string& scheme) {
    for (const char c : scheme) {
        const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        if (!isLetter && !(c >= '0' && c <= '9') && c != '+' && c != '-' && c != '.') {
            return false;
        }
    }
    return true;
}

}  // namespace

bool VEK_HTTP_IS_OF_CONNECTION(std::string_view name) {
    switch (name.size()) {
        case 7:
            return name == "upgrade";
        case 10:
            return name == "connection" || name == "keep-alive";
        case 14:
            return name == "http2-settings";
        case 16:
            return name == "proxy-connection";
        case 17:
            return name == "transfer-encoding";
        default:
            return false;
    }
}

const char* VEK_HTTP_FIND_FAULT(const CVEKHttpFields& fields) {
    for (const auto& [name, value] : fields) {
        if (name.empty() || !IsName(name)) {
            return "a field's name is none";
        }
        if (!IsValue(value)) {
            return "a field's value has characters that it must not have";
        }
        if (VEK_HTTP_IS_OF_CONNECTION(name) || (name == "te" && !IsTrailers(value))) {
            return "a field is none of HTTP/2, but of a connection of HTTP/1.1";
        }
    }
    return nullptr;
}

const char* VEK_HTTP_FIND_FAULT(const VEK_ST_HTTP_REQUEST& request) {
    const std::string& method = request.method_;
    const std::string& authority = request.authority_;
    if (nghttp2_check_method(BytesOf(method), method.size()) == 0) {
        return "the method is none";
    }
    if (!IsPath(request.path_)) {
        return "the path is none";
    }
    if (!IsScheme(request.scheme_)) {
        return "the scheme is none";
    }
    if (nghttp2_check_authority(BytesOf(authority), authority.size()) == 0) {
        return "the authority is none";
    }
    const char* fault = VEK_HTTP_FIND_FAULT(request.fields_);
    return fault != nullptr ? fault : VEK_HTTP_FIND_FAULT(request.trailers_);
}
