// URLs, as they are given on the command line and in scenarios.
#ifndef VEK_LOAD_URL_H
#define VEK_LOAD_URL_H

#include <cstdint>
#include <string>
#include <string_view>

struct VEK_ST_LOAD_URL {
    bool isTls_ = false;
    std::string host_;  // a name or an address, IPv6 without brackets
    uint16_t port_ = 0;
    std::string authority_;   // as it is sent: with the port where it is not the scheme's own
    std::string path_ = "/";  // with the query
};

// False: `error` says what is wrong.
bool VEK_LOAD_READ_URL(std::string_view text, VEK_ST_LOAD_URL& url, std::string& error);
// "host:port" with IPv6 in brackets; the port may be left out where one is given to use instead.
bool VEK_LOAD_READ_HOST(std::string_view text, std::string& host, uint16_t& port,
                        uint16_t defaultPort, std::string& error);

#endif
