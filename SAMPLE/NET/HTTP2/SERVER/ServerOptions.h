// The command line of test_http2_server.
#ifndef SERVER_OPTIONS_H
#define SERVER_OPTIONS_H

#include <algorithm>
#include <cstdio>

#include "VEKTlsOption.h"

struct ServerOptions {
    int port = -1;
    const char* key = nullptr;
    const char* certificate = nullptr;
    bool isUpgrade = false;
    const char* captureDir = nullptr;
    int bodySize = -1;  // -1: echo the request's body
    int delayMs = 0;
    int streams = 100;
    bool isVerbose = false;
    VEK_ST_TLS_OPTIONS tls;
    bool isTls12 = false;
    bool hasTlsOption = false;  // one that goes with neither --tls12 nor clear text

    // Reads the command line. Returns false, after lines on standard error, when it is none that
    // can be used.
    bool Parse(int argc, char** argv);
    static void PrintHelp(FILE* stream, const char* program);
    // Bytes of the largest request body that is taken.
    int PayloadSize() const { return std::max(MIN_PAYLOAD_SIZE, bodySize); }

  private:
    static constexpr int MIN_PAYLOAD_SIZE = 16384;

    bool Take(int option, const char* argument);
    bool TakeTls(int option, const char* argument);
    bool Check(const char* stray) const;
};

#endif
