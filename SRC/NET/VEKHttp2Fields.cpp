#include "VEKHttp2Fields.h"

#include <utility>

namespace {

// What is kept is bounded, whatever the peer sends.
constexpr size_t MAX_SPARE_FIELDS = VEK_HTTP2_MAX_HEADERS;
constexpr size_t MAX_SPARE_SIZE = 256;

}  // namespace

void VEK_HTTP2_CLEAR_FIELDS(VEK_HTTP2_HEADER& header, VEK_HTTP2_HEADER& spare) {
    for (auto& field : header) {
        if (spare.size() < MAX_SPARE_FIELDS && field.first.capacity() <= MAX_SPARE_SIZE &&
            field.second.capacity() <= MAX_SPARE_SIZE) {
            spare.push_back(std::move(field));
        }
    }
    header.clear();
}

void VEK_HTTP2_ADD_FIELD(VEK_HTTP2_HEADER& header, VEK_HTTP2_HEADER& spare, const char* name,
                         const char* value) {
    if (spare.empty()) {
        header.emplace_back(name, value);
        return;
    }
    header.push_back(std::move(spare.back()));
    spare.pop_back();
    header.back().first = name;
    header.back().second = value;
}
