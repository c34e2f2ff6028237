// Takes compressed messages and sends each back, one connection after another, over TCP or SCTP:
// the receiving example of CVEKSocketNew's framing.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "NET/SOCKET/CompressSample.h"
#include "VEKServiceLog.h"
#include "VEKStandardStream.h"

namespace {

CompressOptions G_OPTIONS;

void Help(const char* program) {
    fprintf(stderr,
            "usage: %s -p port [-b bytes] [-s]\n"
            "  -p port   port to listen on, 0 for any free one (it is printed)\n"
            "  -b bytes  largest message, up to %d (%d)\n"
            "  -s        SCTP instead of TCP\n"
            "example: %s -p 7000\n",
            program, MAX_MESSAGE_SIZE, DEFAULT_MESSAGE_SIZE, program);
}

bool ParseArg(int argc, char** argv) {
    return ParseOptions(argc, argv, "p:b:s",
                        [](int option, const char* argument) {
                            return ParseCompressOption(option, argument, 0, G_OPTIONS);
                        }) &&
           optind == argc && G_OPTIONS.port >= 0;
}

int LocalPort(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

// Waits for the next byte and leaves it where it is. False when the peer has closed.
bool IsMoreComing(const CVEKSocketNew& socket) {
    char byte = 0;
    return recv(socket.GetSocket(), &byte, 1, MSG_PEEK) > 0;
}

// Echoes until the peer closes or sends something else than messages.
void Serve(int fd, const char* ip) {
    CVEKSocketNew socket;
    if (!SetUpSocket(socket, fd, G_OPTIONS.messageSize)) {
        return;
    }
    const auto size = static_cast<size_t>(G_OPTIONS.messageSize);
    const std::unique_ptr<char[]> message(new char[size]);
    long messages = 0;
    long bytes = 0;
    const char* end = "closed";
    while (IsMoreComing(socket)) {
        const int length = socket.DecompressRecv(message.get(), size);
        if (length < 0) {
            end = "refused: not a message, or too large";
            break;
        }
        if (socket.CompressSend(message.get(), static_cast<size_t>(length)) != length) {
            end = "broken";
            break;
        }
        ++messages;
        bytes += length;
    }
    printf("%s: %ld messages, %ld bytes, %s\n", ip, messages, bytes, end);
    fflush(stdout);
}

int Run(const char* program) {
    const int listenFd =
        CVEKSocketNew::LISTEN(AF_INET, G_OPTIONS.protocol, G_OPTIONS.port, nullptr);
    if (listenFd < 0) {
        fprintf(stderr, "%s: cannot listen on port %d: %s\n", program, G_OPTIONS.port,
                strerror(errno));
        return 1;
    }
    printf("listening on port %d\n", LocalPort(listenFd));
    fflush(stdout);
    for (;;) {
        char ip[VEK_SOCKET_IP_TEXT_SIZE] = "";
        const int fd = CVEKSocketNew::ACCEPT(listenFd, -1, ip, nullptr);
        if (fd < 0) {
            fprintf(stderr, "%s: cannot accept: %s\n", program, strerror(errno));
            close(listenFd);
            return 1;
        }
        Serve(fd, ip);
    }
}

}  // namespace

int main(int argc, char** argv) {
    VEK_OPEN_STANDARD_STREAMS();
    if (!ParseArg(argc, argv)) {
        Help(argv[0]);
        return 1;
    }
    VEK_OPEN_SERVICE_LOG(VEK_LOG_ERROR);
    const int result = Run(argv[0]);
    VEK_CLOSE_SERVICE_LOG();
    return result;
}
