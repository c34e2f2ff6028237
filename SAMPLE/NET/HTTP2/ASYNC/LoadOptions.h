// The command line of test_http2_client_async.
#ifndef LOAD_OPTIONS_H
#define LOAD_OPTIONS_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <string>

#include "SampleArguments.h"
#include "defHttp2.h"

constexpr int MAX_LOAD_STREAMS = 10000;
constexpr int MAX_LOAD_CONNECTIONS = 1000;
constexpr double MIN_LOAD_SECONDS = 0.001;
constexpr double MAX_LOAD_SECONDS = 1e6;
constexpr double MIN_LOAD_RATE = 0.001;
constexpr double MAX_LOAD_RATE = 1e7;
constexpr int MAX_LOAD_BODY_SIZE = 16 << 20;
constexpr int MIN_LOAD_BUFFER_SIZE = 16384;  // largest response body taken, unless -b is more
constexpr double MAX_LOAD_MEMORY = 4096.0 * 1024 * 1024;  // bytes of buffers in all connections
constexpr int64_t DEFAULT_LOAD_COUNT = 10;
constexpr int64_t MAX_LOAD_COUNT = 1000000000000;

struct LoadOptions {
    std::string host;
    int port = 0;
    int64_t count = -1;  // -1: not given
    bool isUpgrade = false;
    bool isVerbose = false;
    int streams = 100;
    int connections = 1;
    double seconds = 0;  // 0: no limit
    double rate = 0;     // requests per second, 0: as fast as they go
    int bodySize = 4096;
    std::string path = "/test/test";
    bool isPriorKnowledge = false;
    bool isJson = false;
    bool isStartedAtOnce = false;
    std::string caFile;  // empty: the system's authorities
    bool isInsecure = false;
    bool isTls12 = false;

    // Requests to send at most; a run for a time ends with the time.
    int64_t Count() const {
        return count >= 0 ? count : seconds > 0 ? MAX_LOAD_COUNT : DEFAULT_LOAD_COUNT;
    }
    int BufferSize() const { return std::max(bodySize, MIN_LOAD_BUFFER_SIZE); }
    bool IsTls() const { return !isUpgrade && !isPriorKnowledge; }
};

enum LoadLongOption {
    LOAD_CACERT = FIRST_LONG_OPTION,
    LOAD_INSECURE,
    LOAD_TLS12,
};
constexpr option LOAD_LONG_OPTIONS[] = {
    {"cacert", required_argument, nullptr, LOAD_CACERT},
    {"insecure", no_argument, nullptr, LOAD_INSECURE},
    {"tls12", no_argument, nullptr, LOAD_TLS12},
    {nullptr, 0, nullptr, 0},
};

inline void Help(const char* program) {
    fprintf(
        stderr,
        "usage: %s -h host -p port [-u | -d] [-c count] [-t seconds] [-r rate] [-m streams]\n"
        "       [-n connections] [-b bytes] [-a path] [-s] [-j] [-v]\n"
        "       [--cacert file | --insecure | --tls12]\n"
        "  -h host         server, a name or an address\n"
        "  -p port         its port\n"
        "  -u              clear text with the HTTP/1.1 upgrade instead of TLS\n"
        "  -d              clear text with prior knowledge instead of TLS\n"
        "  -c count        requests in all (%d; with -t as many as the time allows)\n"
        "  -t seconds      end after this time, fractions allowed\n"
        "  -r rate         requests per second in all, on a fixed schedule; latency then counts\n"
        "                  from the scheduled moment\n"
        "  -m streams      requests in flight on each connection (100)\n"
        "  -n connections  each driven by a thread of its own (1)\n"
        "  -b bytes        size of the request body (4096)\n"
        "  -a path         what to ask for (/test/test)\n"
        "  -s              start at once, do not wait for Enter\n"
        "  -j              print the summary as a JSON object; the log goes to standard error\n"
        "  -v              one line for each response, and the log\n"
        "  --cacert file   PEM certificates of those who may vouch for the server (the system's)\n"
        "  --insecure      take a server whose certificate does not hold, and say once what it is\n"
        "  --tls12         the framework's old TLS: 1.2 at most, no server name, no host check;\n"
        "                  takes self-signed certificates\n"
        "Over TLS, 1.2 or 1.3, the certificate of the server must be valid for the host of -h.\n"
        "Ctrl-C ends the run and prints the summary. Exit status: 0 when every request was\n"
        "answered, 1 when not, 2 for bad arguments.\n"
        "example: %s -h 127.0.0.1 -p 8443 -s -c 100000\n",
        program, static_cast<int>(DEFAULT_LOAD_COUNT), program);
}

// Says on standard error what is wrong with the options together. `stray`: an argument that belongs
// to none, or null.
inline bool CheckOptions(const LoadOptions& options, const char* stray) {
    const double memory = 2.0 * options.BufferSize() * options.streams * options.connections;
    const char* complaint = nullptr;
    if (stray != nullptr) {
        complaint = "an argument belongs to no option";
    } else if (options.host.empty() || options.port == 0) {
        complaint = "-h and -p are needed";
    } else if (options.isUpgrade && options.isPriorKnowledge) {
        complaint = "either -u or -d";
    } else if (options.isInsecure + options.isTls12 + !options.caFile.empty() > 1) {
        complaint = "either --cacert, --insecure or --tls12";
    } else if (!options.IsTls() &&
               (options.isInsecure || options.isTls12 || !options.caFile.empty())) {
        complaint = "--cacert, --insecure and --tls12 are for TLS";
    } else if (options.path.empty() || options.path[0] != '/' ||
               options.path.size() >= sizeof VEK_ST_HTTP2_REQUEST::path_) {
        complaint = "the path of -a begins with a slash and has up to 511 characters";
    } else if (memory > MAX_LOAD_MEMORY) {
        complaint = "-m, -n and -b together ask for too much memory";
    }
    if (complaint != nullptr) {
        fprintf(stderr, "%s\n", complaint);
    }
    return complaint == nullptr;
}

inline bool ParseOption(int option, const char* argument, LoadOptions& options) {
    switch (option) {
        case 'h':
            options.host = argument;
            return true;
        case 'p':
            return ParseNumber('p', argument, 1, MAX_PORT, options.port);
        case 'c':
            return ParseNumber<int64_t>('c', argument, 0, MAX_LOAD_COUNT, options.count);
        case 'u':
            return options.isUpgrade = true;
        case 'v':
            return options.isVerbose = true;
        case 'm':
            return ParseNumber('m', argument, 1, MAX_LOAD_STREAMS, options.streams);
        case 'n':
            return ParseNumber('n', argument, 1, MAX_LOAD_CONNECTIONS, options.connections);
        case 't':
            return ParseNumber('t', argument, MIN_LOAD_SECONDS, MAX_LOAD_SECONDS, options.seconds);
        case 'r':
            return ParseNumber('r', argument, MIN_LOAD_RATE, MAX_LOAD_RATE, options.rate);
        case 'b':
            return ParseNumber('b', argument, 0, MAX_LOAD_BODY_SIZE, options.bodySize);
        case 'a':
            options.path = argument;
            return true;
        case 'd':
            return options.isPriorKnowledge = true;
        case 'j':
            return options.isJson = true;
        case 's':
            return options.isStartedAtOnce = true;
        case LOAD_CACERT:
            options.caFile = argument;
            return !options.caFile.empty();
        case LOAD_INSECURE:
            return options.isInsecure = true;
        case LOAD_TLS12:
            return options.isTls12 = true;
        default:
            return false;
    }
}

// Returns false after saying on standard error what is wrong.
inline bool ParseArg(int argc, char** argv, LoadOptions& options) {
    const bool isValid = ParseOptions(argc, argv, "h:p:c:uvm:n:t:r:b:a:djs", LOAD_LONG_OPTIONS,
                                      [&options](int option, const char* argument) {
                                          return ParseOption(option, argument, options);
                                      });
    return isValid && CheckOptions(options, optind < argc ? argv[optind] : nullptr);
}

#endif
