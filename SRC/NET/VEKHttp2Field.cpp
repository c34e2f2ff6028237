#include "VEKHttp2Field.h"

#include <algorithm>
#include <cstdint>

namespace {

constexpr uint32_t DEFAULT_MAX_CONCURRENT_STREAM = 100;
constexpr uint32_t DEFAULT_MAX_PAYLOAD_SIZE = 1024;
constexpr uint32_t DEFAULT_MAX_HEADER_TABLE_SIZE = 64;
constexpr uint32_t DEFAULT_WINDOW_SIZE = 65536;
constexpr uint32_t DEFAULT_FRAME_SIZE = 16384;
constexpr uint32_t DEFAULT_TIMEOUT = 1;

constexpr size_t MAX_KEPT_SIZE = 256;  // of the name or value of a field

// A record that is used again mostly gets the text that it holds.
void SetText(std::string& text, std::string_view value) {
    if (text != value) {
        text.assign(value.data(), value.size());
    }
}

void SetDefault(uint32_t& option, uint32_t value) {
    if (option == 0) {
        option = value;
    }
}

}  // namespace

nghttp2_nv VEK_HTTP2_FIELD(std::string_view name, std::string_view value) {
    return {reinterpret_cast<uint8_t*>(const_cast<char*>(name.data())),
            reinterpret_cast<uint8_t*>(const_cast<char*>(value.data())), name.size(), value.size(),
            NGHTTP2_NV_FLAG_NO_COPY_NAME | NGHTTP2_NV_FLAG_NO_COPY_VALUE};
}

int VEK_HTTP2_FILL_FIELDS(nghttp2_nv* fields, int count, const VEK_HTTP2_HEADER& header,
                          size_t& rest) {
    rest = 0;
    while (rest < header.size() && count < VEK_HTTP2_MAX_HEADERS) {
        const auto& [name, value] = header[rest++];
        fields[count++] = VEK_HTTP2_FIELD(name, value);
    }
    return count;
}

size_t VEK_HTTP2_PUT_FIELD(VEK_HTTP2_HEADER& header, size_t count, std::string_view name,
                           std::string_view value) {
    if (count == header.size()) {
        header.emplace_back(name, value);
    } else {
        SetText(header[count].first, name);
        SetText(header[count].second, value);
    }
    return count + 1;
}

void VEK_HTTP2_BOUND_FIELDS(VEK_HTTP2_HEADER& header) {
    const bool isSmall = header.size() <= VEK_HTTP2_MAX_HEADERS &&
                         std::all_of(header.begin(), header.end(), [](const auto& field) {
                             return field.first.capacity() <= MAX_KEPT_SIZE &&
                                    field.second.capacity() <= MAX_KEPT_SIZE;
                         });
    if (!isSmall) {
        VEK_HTTP2_HEADER().swap(header);
    }
}

void VEK_HTTP2_SET_DEFAULTS(VEK_ST_HTTP2_OPTIONS& options) {
    SetDefault(options.nMaxConcurrentStream_, DEFAULT_MAX_CONCURRENT_STREAM);
    SetDefault(options.nMaxPayloadSize_, DEFAULT_MAX_PAYLOAD_SIZE);
    SetDefault(options.nMaxHeaderTableSize_, DEFAULT_MAX_HEADER_TABLE_SIZE);
    SetDefault(options.nDefaultWindowSize_, DEFAULT_WINDOW_SIZE);
    SetDefault(options.nDefaultFrameSize_, DEFAULT_FRAME_SIZE);
    SetDefault(options.nTimeout_, DEFAULT_TIMEOUT);
}
