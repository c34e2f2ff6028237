// Numbers on the command lines of the samples.
#ifndef SAMPLE_NUMBER_H
#define SAMPLE_NUMBER_H

#include <charconv>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <system_error>

constexpr int MAX_PORT = 65535;

// Reads the argument of `-option` into `value`. Returns false after a line on standard error when
// it is not a number from `min` to `max`.
template <class NUMBER>
bool ParseNumber(char option, const char* text, NUMBER min, NUMBER max, NUMBER& value) {
    const char* end = text + strlen(text);
    const auto [stop, error] = std::from_chars(text, end, value);
    if (error == std::errc() && stop == end && value >= min && value <= max) {
        return true;
    }
    std::ostringstream complaint;
    complaint << '-' << option << ": \"" << text << "\" is not a number from " << min << " to "
              << max << '\n';
    fputs(complaint.str().c_str(), stderr);
    return false;
}

#endif
