// The command lines of the samples.
#ifndef SAMPLE_ARGUMENTS_H
#define SAMPLE_ARGUMENTS_H

#include <unistd.h>

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

// Hands each option, which `letters` describes as for getopt, and its argument to parse(option,
// argument). Returns whether all were good; '?' is one that is not known or lacks its argument.
// What belongs to no option begins at argv[optind].
template <class PARSE>
bool ParseOptions(int argc, char** argv, const char* letters, PARSE parse) {
    bool isValid = true;
    int option = 0;
    while ((option = getopt(argc, argv, letters)) != -1) {
        isValid = parse(option, optarg) && isValid;
    }
    return isValid;
}

#endif
