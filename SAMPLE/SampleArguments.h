// The command lines of the samples.
#ifndef SAMPLE_ARGUMENTS_H
#define SAMPLE_ARGUMENTS_H

#include <getopt.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <system_error>

constexpr int MAX_PORT = 65535;
constexpr int FIRST_LONG_OPTION = 256;  // what stands for an option without a letter
constexpr option NO_LONG_OPTIONS[] = {{nullptr, 0, nullptr, 0}};

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

// Hands each option, which `letters` and `names` describe as for getopt_long, and its argument to
// parse(option, argument). Returns whether all were good; '?' is one that is not known or lacks its
// argument. What belongs to no option begins at argv[optind].
template <class PARSE>
bool ParseOptions(int argc, char** argv, const char* letters, const option* names, PARSE parse) {
    bool isValid = true;
    int found = 0;
    while ((found = getopt_long(argc, argv, letters, names, nullptr)) != -1) {
        isValid = parse(found, optarg) && isValid;
    }
    return isValid;
}

template <class PARSE>
bool ParseOptions(int argc, char** argv, const char* letters, PARSE parse) {
    return ParseOptions(argc, argv, letters, NO_LONG_OPTIONS, parse);
}

#endif
