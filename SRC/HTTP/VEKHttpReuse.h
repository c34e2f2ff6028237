// What is kept of a message's memory for the next one: a peer that sent a large one shall not have
// it held for ever.
#ifndef VEK_HTTP_REUSE_H
#define VEK_HTTP_REUSE_H

#include <cstddef>
#include <string>

#include "CVEKHttpFields.h"

constexpr size_t VEK_HTTP_KEPT_SIZE = 8192;  // of a text or of a list of fields

inline void VEK_HTTP_REUSE(std::string& text) {
    if (text.capacity() > VEK_HTTP_KEPT_SIZE) {
        std::string().swap(text);
    }
    text.clear();
}

inline void VEK_HTTP_REUSE(CVEKHttpFields& fields) {
    if (fields.GetBytes() > VEK_HTTP_KEPT_SIZE) {
        fields = CVEKHttpFields();
    }
    fields.Clear();
}

#endif
