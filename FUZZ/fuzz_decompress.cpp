// The receiving side of the compressed framing with any bytes from the peer: it may take them for
// messages or refuse them, and stays within its buffers.
#include <sys/socket.h>
#include <unistd.h>

#include "CVEKSocketNew.h"
#include "Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const auto workSize = input.ConsumeIntegralInRange<size_t>(0, 1000);
    const auto messageSize = input.ConsumeIntegralInRange<size_t>(0, 1000);
    const std::string bytes = input.ConsumeRemainingBytesAsString();
    int fds[2];
    Require(socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == 0);
    send(fds[0], bytes.data(), bytes.size(), MSG_DONTWAIT);
    close(fds[0]);
    CVEKSocketNew socket;
    socket.SetFD(fds[1], nullptr, 0);
    socket.SetIOMethod(VEK_SOCKET_IO_LOOP);
    socket.InitCompress(workSize);
    const auto message = Buffer(messageSize);
    while (socket.DecompressRecv(message.get(), messageSize) >= 0) {}
    return 0;
}
