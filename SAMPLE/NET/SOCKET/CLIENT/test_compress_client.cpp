// Sends compressed messages to test_compress_server, one after another, and compares what comes
// back: the sending example of CVEKSocketNew's framing.
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "NET/SOCKET/CompressSample.h"
#include "VEKServiceLog.h"
#include "VEKStandardStream.h"

namespace {

constexpr int CONNECT_RETRY = 10;
constexpr size_t RUN_LENGTH = 64;  // of equal bytes in a compressible message

struct Options : CompressOptions {
    std::string host;
    int count = 100;
};
Options G_OPTIONS;

void Help(FILE* stream, const char* program) {
    fprintf(stream,
            "usage: %s -h host -p port [-c count] [-b bytes] [-t limit] [-s]\n"
            "  -h host   server, a name or an address\n"
            "  -p port   its port\n"
            "  -c count  number of messages (100), by turns of random and of repetitive bytes\n"
            "  -b bytes  largest message, up to %d (%d); each has any size up to this\n"
            "  -t limit  seconds to wait for a server that says nothing (%d)\n"
            "  -s        SCTP instead of TCP, with messages no larger than the send buffer\n"
            "example: %s -h 127.0.0.1 -p 7000 -c 1000\n",
            program, MAX_MESSAGE_SIZE, DEFAULT_MESSAGE_SIZE, DEFAULT_LIMIT_SECONDS, program);
}

bool ParseOption(int option, const char* argument) {
    switch (option) {
        case 'h':
            G_OPTIONS.host = TrimHost(argument);
            return true;
        case 'c':
            return ParseNumber('c', argument, 1, INT_MAX, G_OPTIONS.count);
        default:
            return ParseCompressOption(option, argument, 1, G_OPTIONS);
    }
}

bool ParseArg(int argc, char** argv) {
    return ParseOptions(argc, argv, "h:p:c:b:t:s", ParseOption) && optind == argc &&
           !G_OPTIONS.host.empty() && G_OPTIONS.port > 0;
}

// Fills the message with random bytes, or with runs of them.
void Fill(std::vector<char>& message, bool isRandom, std::mt19937_64& random) {
    if (!isRandom) {
        for (size_t i = 0; i < message.size(); i += RUN_LENGTH) {
            memset(&message[i], static_cast<char>(random()),
                   std::min(RUN_LENGTH, message.size() - i));
        }
        return;
    }
    for (size_t i = 0; i < message.size(); i += sizeof(uint64_t)) {
        const uint64_t bytes = random();
        memcpy(&message[i], &bytes, std::min(sizeof bytes, message.size() - i));
    }
}

// Sends one message and takes its echo. False, after a line on standard error, when that fails.
bool Exchange(CVEKSocketNew& socket, const std::vector<char>& message, std::vector<char>& echo) {
    const int length = static_cast<int>(message.size());
    if (socket.CompressSend(message.data(), message.size()) != length) {
        fprintf(stderr, "a message of %d bytes could not be sent\n", length);
        return false;
    }
    const int received = socket.DecompressRecv(echo.data(), echo.size());
    if (received < 0) {
        fprintf(stderr, "the echo of %d bytes did not come\n", length);
        return false;
    }
    if (received != length || memcmp(echo.data(), message.data(), message.size()) != 0) {
        fprintf(stderr, "the echo of %d bytes is another message of %d bytes\n", length, received);
        return false;
    }
    return true;
}

bool ExchangeAll(CVEKSocketNew& socket) {
    using Clock = std::chrono::steady_clock;
    const auto size = static_cast<size_t>(G_OPTIONS.messageSize);
    std::mt19937_64 random;  // the same messages in each run
    std::uniform_int_distribution<size_t> lengths(0, size);
    std::vector<char> message;
    std::vector<char> echo(size);
    size_t bytes = 0;
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < G_OPTIONS.count; ++i) {
        message.resize(lengths(random));
        Fill(message, i % 2 == 0, random);
        if (!Exchange(socket, message, echo)) {
            return false;
        }
        bytes += message.size();
    }
    printf("%d messages, %zu bytes each way, %.1f seconds\n", G_OPTIONS.count, bytes,
           std::chrono::duration<double>(Clock::now() - start).count());
    return true;
}

const char* GetReason(const VEK_ST_SOCKET_FAILURE& failure) {
    return failure.resolverError_ != 0 && failure.resolverError_ != EAI_SYSTEM
               ? gai_strerror(failure.resolverError_)
               : strerror(failure.errno_);
}

int Run(const char* program) {
    VEK_ST_CONNECT_TIMES times;
    VEK_ST_SOCKET_FAILURE failure;
    const int fd = CVEKSocketNew::CONNECT(G_OPTIONS.protocol, G_OPTIONS.host.c_str(),
                                          G_OPTIONS.port, CONNECT_RETRY, times, &failure);
    if (fd < 0) {
        fprintf(stderr, "%s: cannot connect to %s port %d: %s\n", program, G_OPTIONS.host.c_str(),
                G_OPTIONS.port, GetReason(failure));
        return 1;
    }
    CVEKSocketNew socket;
    return SetUpSocket(socket, fd, G_OPTIONS) && ExchangeAll(socket) ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    VEK_OPEN_STANDARD_STREAMS();
    if (AnswerQuestion(argc, argv, Help)) {
        return 0;
    }
    if (!ParseArg(argc, argv)) {
        Help(stderr, argv[0]);
        return 1;
    }
    VEK_OPEN_SERVICE_LOG(VEK_LOG_ERROR);
    const int result = Run(argv[0]);
    VEK_CLOSE_SERVICE_LOG();
    return result;
}
