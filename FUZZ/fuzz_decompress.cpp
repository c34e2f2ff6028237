// The receiving side of the compressed framing with any bytes from the peer: it may take them for
// messages or refuse them, and stays within its buffers.
#include <fuzzer/FuzzedDataProvider.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "CVEKSocketNew.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const auto workSize = input.ConsumeIntegralInRange<size_t>(0, 1000);
    const auto messageSize = input.ConsumeIntegralInRange<size_t>(0, 1000);
    const std::string bytes = input.ConsumeRemainingBytesAsString();
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) { abort(); }
    send(fds[0], bytes.data(), bytes.size(), MSG_DONTWAIT);
    close(fds[0]);
    CVEKSocketNew socket;
    socket.SetFD(fds[1], nullptr, 0);
    socket.SetIOMethod(VEK_SOCKET_IO_LOOP);
    socket.InitCompress(workSize);
    // Of exactly the given size: the sanitizer sees one byte too many.
    const auto message = std::make_unique<char[]>(messageSize);
    while (socket.DecompressRecv(message.get(), messageSize) >= 0) {}
    return 0;
}
