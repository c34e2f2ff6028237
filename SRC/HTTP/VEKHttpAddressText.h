// An address as text.
#ifndef VEK_HTTP_ADDRESS_TEXT_H
#define VEK_HTTP_ADDRESS_TEXT_H

#include <sys/socket.h>

#include <string>

// `address` becomes the IPv4 or IPv6 address alone, IPv4 also where it is mapped into IPv6; `name`
// the same with its port, "127.0.0.1:8080" or "[::1]:8080". Others leave both as they are.
void VEK_HTTP_WRITE_ADDRESS(const sockaddr_storage& source, std::string& address,
                            std::string& name);

#endif
