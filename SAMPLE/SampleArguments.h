// The command lines of the samples.
#ifndef SAMPLE_ARGUMENTS_H
#define SAMPLE_ARGUMENTS_H

#include <getopt.h>
#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <system_error>

#include <vek/VEKVersion.h>

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

// Answers --help, by printHelp(stdout, program), and --version. Returns whether one was given.
template <class PRINT>
bool AnswerQuestion(int argc, char** argv, PRINT printHelp) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--help") == 0) {
            printHelp(stdout, argv[0]);
            return true;
        }
        if (strcmp(argv[i], "--version") == 0) {
            const char* slash = strrchr(argv[0], '/');
            printf("%s %s\n", slash != nullptr ? slash + 1 : argv[0], VEK_VERSION);
            return true;
        }
    }
    return false;
}

// A host as it was typed; an IPv6 address may have its brackets: "[::1]".
inline std::string TrimHost(const char* text) {
    const std::string host = text;
    const bool isBracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    return isBracketed ? host.substr(1, host.size() - 2) : host;
}

// Waits for Enter; who sits at a terminal is told so.
inline void WaitForEnter() {
    if (isatty(STDIN_FILENO) != 0) {
        fputs("Press Enter to start\n", stderr);
    }
    fflush(stdout);  // also into a pipe: the operator is to see what came before
    getchar();
}

#endif
