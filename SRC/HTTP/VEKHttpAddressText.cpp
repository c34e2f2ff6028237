#include "VEKHttpAddressText.h"

#include <arpa/inet.h>
#include <netinet/in.h>

namespace {

constexpr size_t V4_OFFSET = 12;  // of an IPv4 address that is mapped into IPv6 (RFC 4291)

}  // namespace

void VEK_HTTP_WRITE_ADDRESS(const sockaddr_storage& source, std::string& address,
                            std::string& name) {
    char text[INET6_ADDRSTRLEN] = "";
    if (source.ss_family == AF_INET) {
        const auto& v4 = reinterpret_cast<const sockaddr_in&>(source);
        address = inet_ntop(AF_INET, &v4.sin_addr, text, sizeof text);
        name = address + ":" + std::to_string(ntohs(v4.sin_port));
    } else if (source.ss_family == AF_INET6) {
        const auto& v6 = reinterpret_cast<const sockaddr_in6&>(source);
        const bool isMapped = IN6_IS_ADDR_V4MAPPED(&v6.sin6_addr) != 0;
        address = isMapped ? inet_ntop(AF_INET, &v6.sin6_addr.s6_addr[V4_OFFSET], text, sizeof text)
                           : inet_ntop(AF_INET6, &v6.sin6_addr, text, sizeof text);
        name =
            (isMapped ? address : "[" + address + "]") + ":" + std::to_string(ntohs(v6.sin6_port));
    }
}
