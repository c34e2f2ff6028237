#include "ServerOptions.h"

#include <openssl/ssl.h>

#include <cstdio>
#include <cstring>

#include "SampleArguments.h"

namespace {

constexpr int MAX_BODY_SIZE = 1 << 20;
constexpr int MAX_STREAMS = 1000;
constexpr long MAX_CONNECTION_SIZE = 128L << 20;  // bytes of the bodies of all streams
constexpr int MAX_DELAY_MS = 60000;

enum LongOption {
    TLS_MIN = FIRST_LONG_OPTION,
    TLS_MAX,
    WANT_CLIENT,
    DEMAND_CLIENT,
    TLS12,
};
constexpr option LONG_OPTIONS[] = {
    {"tls-min", required_argument, nullptr, TLS_MIN},
    {"tls-max", required_argument, nullptr, TLS_MAX},
    {"want-client", required_argument, nullptr, WANT_CLIENT},
    {"demand-client", required_argument, nullptr, DEMAND_CLIENT},
    {"tls12", no_argument, nullptr, TLS12},
    {nullptr, 0, nullptr, 0},
};

// False after a line on standard error.
bool ParseVersion(const char* argument, int& version) {
    const bool isTls12 = strcmp(argument, "1.2") == 0;
    if (!isTls12 && strcmp(argument, "1.3") != 0) {
        fprintf(stderr, "version \"%s\" is neither 1.2 nor 1.3\n", argument);
        return false;
    }
    version = isTls12 ? TLS1_2_VERSION : TLS1_3_VERSION;
    return true;
}

}  // namespace

bool ServerOptions::Parse(int argc, char** argv) {
    const auto take = [this](int option, const char* argument) { return Take(option, argument); };
    if (ParseOptions(argc, argv, "p:k:r:ud:b:w:m:v", LONG_OPTIONS, take) &&
        Check(optind < argc ? argv[optind] : nullptr)) {
        return true;
    }
    PrintHelp(stderr, argv[0]);
    return false;
}

bool ServerOptions::Take(int option, const char* argument) {
    switch (option) {
        case 'p':
            return ParseNumber('p', argument, 0, MAX_PORT, port);
        case 'k':
            key = argument;
            return true;
        case 'r':
            certificate = argument;
            return true;
        case 'u':
            return isUpgrade = true;
        case 'd':
            captureDir = argument;
            return true;
        case 'b':
            return ParseNumber('b', argument, 0, MAX_BODY_SIZE, bodySize);
        case 'w':
            return ParseNumber('w', argument, 0, MAX_DELAY_MS, delayMs);
        case 'm':
            return ParseNumber('m', argument, 2, MAX_STREAMS, streams);
        case 'v':
            return isVerbose = true;
        case TLS12:
            return isTls12 = true;
        default:
            return TakeTls(option, argument);
    }
}

bool ServerOptions::TakeTls(int option, const char* argument) {
    hasTlsOption = true;
    switch (option) {
        case TLS_MIN:
            return ParseVersion(argument, tls.minVersion_);
        case TLS_MAX:
            return ParseVersion(argument, tls.maxVersion_);
        case WANT_CLIENT:
            tls.clientCertificate_ = VEK_TLS_CLIENT_CERTIFICATE_WANTED;
            break;
        case DEMAND_CLIENT:
            tls.clientCertificate_ = VEK_TLS_CLIENT_CERTIFICATE_DEMANDED;
            break;
        default:
            return false;
    }
    if (!tls.caFile_.empty() || argument[0] == '\0') {
        fputs("one file of --want-client or --demand-client\n", stderr);
        return false;
    }
    tls.caFile_ = argument;
    return true;
}

// Says on standard error what is wrong with the options together. `stray`: an argument that belongs
// to none, or null.
bool ServerOptions::Check(const char* stray) const {
    const bool isTls = key != nullptr;
    const char* complaint = nullptr;
    if (stray != nullptr) {
        complaint = "an argument belongs to no option";
    } else if (port < 0) {
        complaint = "-p is missing";
    } else if ((key == nullptr) != (certificate == nullptr)) {
        complaint = "-k and -r go together";
    } else if (isTls == isUpgrade) {
        complaint = "either -k and -r, or -u";
    } else if (hasTlsOption && (isTls12 || !isTls)) {
        complaint = "versions and client certificates go with -k and -r, not with --tls12";
    } else if (isTls12 && !isTls) {
        complaint = "--tls12 goes with -k and -r";
    } else if (captureDir != nullptr && !isUpgrade) {
        complaint = "-d goes with -u";
    } else if (captureDir != nullptr && captureDir[0] == '\0') {
        complaint = "-d needs the name of a directory";
    } else if (static_cast<long>(streams) * PayloadSize() > MAX_CONNECTION_SIZE) {
        complaint = "-m and -b together ask for too much memory";
    }
    if (complaint != nullptr) {
        fprintf(stderr, "%s\n", complaint);
    }
    return complaint == nullptr;
}

void ServerOptions::PrintHelp(FILE* stream, const char* program) {
    fprintf(
        stream,
        "usage: %s -p port (-k key -r certificate | -u [-d directory]) [-b bytes]\n"
        "       [-w milliseconds] [-m streams] [-v] [--tls-min version] [--tls-max version]\n"
        "       [--want-client file | --demand-client file] [--tls12]\n"
        "  -p port          port to listen on, 0 for any free one (it is printed)\n"
        "  -k key           private key, PEM; with -r: HTTP/2 over TLS\n"
        "  -r certificate   certificate chain, PEM\n"
        "  -u               clear text, with the HTTP/1.1 upgrade or prior knowledge\n"
        "  -d directory     capture each connection into a file there, address-port.time.pcap\n"
        "  -b bytes         size of the response body, up to %d (default: echo the request's);\n"
        "                   a request body over %d bytes and over this gets 413\n"
        "  -w milliseconds  answer so much later, up to %d\n"
        "  -m streams       concurrent streams of a connection, 2 to %d (100); one less is\n"
        "                   served at once, the last gets 429\n"
        "  -v               one line for each request, and the log\n"
        "  --tls-min version, --tls-max version\n"
        "                   lowest (1.2) and highest (1.3) version of TLS\n"
        "  --want-client file, --demand-client file\n"
        "                   ask clients for a certificate of the authorities in this PEM file;\n"
        "                   a client without one is welcome, or refused\n"
        "  --tls12          the framework's old TLS, 1.2 at most\n"
        "example: %s -p 8443 -k key.pem -r cert.pem\n",
        program, MAX_BODY_SIZE, MIN_PAYLOAD_SIZE, MAX_DELAY_MS, MAX_STREAMS, program);
}
