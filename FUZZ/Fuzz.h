// What all fuzz targets share.
#ifndef FUZZ_H
#define FUZZ_H

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

inline void Require(bool isTrue) { isTrue ? void() : abort(); }

// Heap buffers of exactly the documented size: the sanitizer sees one byte too many.
constexpr auto Buffer = std::make_unique<char[]>;

inline std::string TakeText(FuzzedDataProvider& input, size_t length) {
    const std::string text = input.ConsumeRandomLengthString(length);
    return text.substr(0, text.find('\0'));
}

// Reads what somebody was given: the sanitizer sees what is no longer there.
inline void Touch(std::string_view text) {
    volatile unsigned sum = 0;
    for (const char c : text) { sum = sum + static_cast<unsigned char>(c); }
}

template <class FIELDS>
void TouchFields(const FIELDS& fields) {
    for (const auto& [name, value] : fields) { Touch(name), Touch(value); }
}

#endif
