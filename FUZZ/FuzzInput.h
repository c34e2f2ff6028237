// What the fuzz targets share.
#ifndef FUZZ_INPUT_H
#define FUZZ_INPUT_H

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <memory>
#include <string>

inline void Require(bool isTrue) {
    if (!isTrue) {
        abort();
    }
}

// A heap buffer of exactly this size: the sanitizer sees one byte too many.
inline std::unique_ptr<char[]> MakeBuffer(size_t size) {
    return std::make_unique<char[]>(size);
}

// Up to 600 characters and no NUL among them.
inline std::string TakeText(FuzzedDataProvider& input) {
    const std::string text = input.ConsumeRandomLengthString(600);
    return text.c_str();
}

#endif
