// Copying text into the fixed-size character arrays of the framework's records.
#ifndef VEK_TEXT_H
#define VEK_TEXT_H

#include <algorithm>
#include <cstddef>
#include <cstring>

// Copies `text` into `field`, NUL-terminated. A null `text` counts as empty. Returns false when it
// did not fit; the field then holds as many of its characters as fit.
template <size_t SIZE>
bool VEK_COPY_TEXT(char (&field)[SIZE], const char* text) {
    const size_t length = text == nullptr ? 0 : strlen(text);
    const size_t copied = std::min(length, SIZE - 1);
    if (text != nullptr) {
        memmove(field, text, copied);
    }
    field[copied] = '\0';
    return copied == length;
}

#endif
