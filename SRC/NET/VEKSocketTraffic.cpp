#include "VEKSocketTraffic.h"

#include <linux/tcp.h>  // the C library's own has no byte counts, and cannot stand beside it
#include <netinet/in.h>
#include <sys/socket.h>

void VEK_SOCKET_TRAFFIC(int socket, uint64_t& sent, uint64_t& received) {
    tcp_info info{};
    socklen_t size = sizeof info;
    getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size);
    sent = info.tcpi_bytes_sent - info.tcpi_bytes_retrans;
    received = info.tcpi_bytes_received;
}
