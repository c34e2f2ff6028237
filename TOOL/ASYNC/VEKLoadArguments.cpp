#include "VEKLoadArguments.h"

#include <cstdio>

#include "SampleArguments.h"
#include "defHttp2.h"

namespace {

constexpr int MAX_STREAMS = 10000;
constexpr int MAX_CONNECTIONS = 1000000;
constexpr int MAX_THREADS = 1000;
constexpr double MIN_SECONDS = 0.001;
constexpr double MAX_SECONDS = 1e6;
constexpr double MIN_RATE = 0.001;
constexpr double MAX_RATE = 1e7;
constexpr int MAX_BODY_SIZE = 16 << 20;
constexpr int64_t DEFAULT_COUNT = 10;
constexpr int64_t MAX_COUNT = 1000000000000;
// A request in flight takes about so much, whatever its body; all together not more than that.
constexpr double REQUEST_MEMORY = 2048;
constexpr double MAX_MEMORY = 4096.0 * 1024 * 1024;

enum LongOption {
    LONG_CACERT = FIRST_LONG_OPTION,
    LONG_INSECURE,
    LONG_TLS12,
};
constexpr option LONG_OPTIONS[] = {
    {"cacert", required_argument, nullptr, LONG_CACERT},
    {"insecure", no_argument, nullptr, LONG_INSECURE},
    {"tls12", no_argument, nullptr, LONG_TLS12},
    {"threads", required_argument, nullptr, 'T'},
    {nullptr, 0, nullptr, 0},
};

// What is wrong with the arguments together; null: nothing. `stray`: one that belongs to no option,
// or null.
const char* FindComplaint(const VEK_ST_LOAD_ARGUMENTS& arguments, const char* stray) {
    const double memory = REQUEST_MEMORY * arguments.streams_ * arguments.connections_;
    const int chosen =
        arguments.isInsecure_ + arguments.isTls12_ + static_cast<int>(!arguments.caFile_.empty());
    if (stray != nullptr) {
        return "an argument belongs to no option";
    }
    if (arguments.host_.empty() || arguments.port_ == 0) {
        return "-h and -p are needed";
    }
    if (arguments.isUpgrade_ && arguments.isPriorKnowledge_) {
        return "either -u or -d";
    }
    if (chosen > 1) {
        return "either --cacert, --insecure or --tls12";
    }
    if (chosen > 0 && !arguments.IsTls()) {
        return "--cacert, --insecure and --tls12 are for TLS";
    }
    if (arguments.path_.empty() || arguments.path_[0] != '/' ||
        arguments.path_.size() >= sizeof VEK_ST_HTTP2_REQUEST::path_) {
        return "the path of -a begins with a slash and has up to 511 characters";
    }
    return memory > MAX_MEMORY ? "-m and -n together ask for too much memory" : nullptr;
}

bool ParseOption(int option, const char* argument, VEK_ST_LOAD_ARGUMENTS& arguments) {
    switch (option) {
        case 'h':
            arguments.host_ = argument;
            return true;
        case 'p':
            return ParseNumber('p', argument, 1, MAX_PORT, arguments.port_);
        case 'c':
            return ParseNumber<int64_t>('c', argument, 0, MAX_COUNT, arguments.count_);
        case 'u':
            return arguments.isUpgrade_ = true;
        case 'v':
            return arguments.isVerbose_ = true;
        case 'm':
            return ParseNumber('m', argument, 1, MAX_STREAMS, arguments.streams_);
        case 'n':
            return ParseNumber('n', argument, 1, MAX_CONNECTIONS, arguments.connections_);
        case 'T':
            return ParseNumber('T', argument, 1, MAX_THREADS, arguments.threads_);
        case 't':
            return ParseNumber('t', argument, MIN_SECONDS, MAX_SECONDS, arguments.seconds_);
        case 'r':
            return ParseNumber('r', argument, MIN_RATE, MAX_RATE, arguments.rate_);
        case 'b':
            return ParseNumber('b', argument, 0, MAX_BODY_SIZE, arguments.bodySize_);
        case 'a':
            arguments.path_ = argument;
            return true;
        case 'd':
            return arguments.isPriorKnowledge_ = true;
        case 'j':
            return arguments.isJson_ = true;
        case 's':
            return arguments.isStartedAtOnce_ = true;
        case LONG_CACERT:
            arguments.caFile_ = argument;
            return !arguments.caFile_.empty();
        case LONG_INSECURE:
            return arguments.isInsecure_ = true;
        case LONG_TLS12:
            return arguments.isTls12_ = true;
        default:
            return false;
    }
}

}  // namespace

int64_t VEK_ST_LOAD_ARGUMENTS::GetCount() const {
    return count_ >= 0 ? count_ : seconds_ > 0 ? MAX_COUNT : DEFAULT_COUNT;
}

bool VEK_LOAD_PARSE(int argc, char** argv, VEK_ST_LOAD_ARGUMENTS& arguments) {
    const auto parse = [&arguments](int option, const char* argument) {
        return ParseOption(option, argument, arguments);
    };
    if (!ParseOptions(argc, argv, "h:p:c:uvm:n:T:t:r:b:a:djs", LONG_OPTIONS, parse)) {
        return false;
    }
    const char* complaint = FindComplaint(arguments, optind < argc ? argv[optind] : nullptr);
    if (complaint != nullptr) {
        fprintf(stderr, "%s\n", complaint);
    }
    return complaint == nullptr;
}

void VEK_LOAD_HELP(const char* program) {
    fprintf(
        stderr,
        "usage: %s -h host -p port [-u | -d] [-c count] [-t seconds] [-r rate] [-m streams]\n"
        "       [-n connections] [-T threads] [-b bytes] [-a path] [-s] [-j] [-v]\n"
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
        "  -n connections  as many as descriptors allow (1)\n"
        "  -T, --threads n threads that drive the connections (one for each core)\n"
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
        program, static_cast<int>(DEFAULT_COUNT), program);
}
