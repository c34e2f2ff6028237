#include "VEKLoadUrl.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <charconv>

namespace {

constexpr uint16_t HTTP_PORT = 80;
constexpr uint16_t HTTPS_PORT = 443;

bool IsVisible(char c) {
    return static_cast<unsigned char>(c) > ' ' && c != '\x7f';
}

bool ReadPort(std::string_view text, uint16_t& port) {
    const auto [end, code] = std::from_chars(text.data(), text.data() + text.size(), port);
    return code == std::errc() && end == text.data() + text.size() && port > 0;
}

bool IsName(std::string_view host) {
    return !host.empty() && std::all_of(host.begin(), host.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '-' || c == '_';
    });
}

}  // namespace

bool VEK_LOAD_READ_HOST(std::string_view text, std::string& host, uint16_t& port,
                        uint16_t defaultPort, std::string& error) {
    const std::string all(text);
    bool isGood = false;
    std::string_view rest;
    if (text.substr(0, 1) == "[") {
        const size_t end = text.find(']');
        host = text.substr(1, end == std::string_view::npos ? end : end - 1);
        rest = end == std::string_view::npos ? "?" : text.substr(end + 1);
        in6_addr address{};
        isGood = inet_pton(AF_INET6, host.c_str(), &address) == 1;
    } else {
        const size_t colon = text.find(':');
        host = text.substr(0, colon);
        rest = colon == std::string_view::npos ? "" : text.substr(colon);
        isGood = IsName(host);
    }
    port = defaultPort;
    if (!rest.empty()) {
        isGood = isGood && rest[0] == ':' && ReadPort(rest.substr(1), port);
    }
    if (!isGood || port == 0) {
        error = "\"" + all + "\" is no host with a port, \"name:8443\" or \"[::1]:8443\"";
        return false;
    }
    return true;
}

bool VEK_LOAD_READ_URL(std::string_view text, VEK_ST_LOAD_URL& url, std::string& error) {
    constexpr std::string_view HTTP = "http://";
    constexpr std::string_view HTTPS = "https://";
    url = VEK_ST_LOAD_URL();
    const std::string all(text);
    url.isTls_ = text.substr(0, HTTPS.size()) == HTTPS;
    if (!url.isTls_ && text.substr(0, HTTP.size()) != HTTP) {
        error = "\"" + all + "\" is no URL: it begins with neither http:// nor https://";
        return false;
    }
    if (!std::all_of(text.begin(), text.end(), IsVisible)) {
        error = "\"" + all + "\" is no URL: it holds a blank or a control character";
        return false;
    }
    text.remove_prefix(url.isTls_ ? HTTPS.size() : HTTP.size());
    text = text.substr(0, text.find('#'));  // a fragment is never sent
    const size_t end = std::min(text.find_first_of("/?"), text.size());
    const uint16_t standard = url.isTls_ ? HTTPS_PORT : HTTP_PORT;
    if (!VEK_LOAD_READ_HOST(text.substr(0, end), url.host_, url.port_, standard, error)) {
        error = "\"" + all + "\" is no URL: " + error;
        return false;
    }
    const bool isV6 = url.host_.find(':') != std::string::npos;
    url.authority_ = (isV6 ? "[" + url.host_ + "]" : url.host_) +
                     (url.port_ == standard ? "" : ":" + std::to_string(url.port_));
    const std::string_view path = text.substr(end);
    url.path_ = (path.substr(0, 1) == "/" ? "" : "/") + std::string(path);
    return true;
}
