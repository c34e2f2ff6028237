#include "VEKHttp2Upgrade.h"

#include <strings.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "CVEKHttp2Request.h"
#include "CVEKHttp2Response.h"
#include "CVEKUtil.h"
#include "VEKServiceLog.h"
#include "VEKSocketWait.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

constexpr std::chrono::seconds UPGRADE_TIMEOUT(1);  // for all that one side waits for
constexpr size_t HEAD_SIZE = 4096;
constexpr char HEAD_END[] = "\r\n\r\n";
constexpr size_t SETTINGS_TEXT_SIZE = 256;
constexpr long MAX_BODY_SIZE = 1 << 20;
constexpr size_t SETTINGS_ENTRIES = 16;

constexpr int WAIT_TIMEOUT = 0;
constexpr int WAIT_FAILED = -1;

// Waits until the socket is readable. Returns above 0, WAIT_TIMEOUT, or WAIT_FAILED after a line.
int WaitReadable(int fd, Clock::time_point limit) {
    for (;;) {
        const auto left = std::chrono::duration_cast<microseconds>(limit - Clock::now());
        const int result = VEK_WAIT_SOCKET(fd, POLLIN, std::max(left, microseconds::zero()));
        if (result >= 0) {
            return result;
        }
        if (errno != EINTR) {
            VEK_SYSTEM_CALL_LOG("select() failed...");
            return WAIT_FAILED;
        }
    }
}

bool EndsWith(const std::string& text, std::string_view end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// Reads an HTTP/1.1 head, which may come in pieces. What has come is in `head`: all of it when it
// ends with an empty line. Returns the last read's result, below 1 when there is nothing to go by.
template <class CONNECTION>
int ReadHead(CONNECTION& conn, Clock::time_point limit, std::string& head) {
    char buffer[HEAD_SIZE + 1] = {};  // the read may store one byte more than its maximum
    int result = conn.read(buffer, HEAD_END, HEAD_SIZE);
    if (result < 1) {
        return result;
    }
    head.assign(buffer, static_cast<size_t>(result));
    while (!EndsWith(head, HEAD_END) && WaitReadable(conn.GetSocket(), limit) > 0) {
        if (head.size() == HEAD_SIZE) {
            return VEK_SOCKET_OVERFLOW;
        }
        // Byte by byte: what follows the head belongs to HTTP/2.
        result = conn.read(buffer, 1);
        if (result == 1) {
            head += buffer[0];
        } else if (result != VEK_SOCKET_AGAIN) {
            break;
        }
    }
    return static_cast<int>(head.size());
}

// What a request head says.
struct UpgradeHead {
    VEK_HTTP2_HEADER headers;
    std::string settings;
    bool isUpgrade = false;
    bool isRequest = false;
};

// The value behind the colon of a header line; one space is taken for granted: meant.
std::string ValueOf(const std::string& line) {
    const size_t begin = line.find(':') + 2;
    return begin < line.size() ? line.substr(begin) : std::string();
}

void LowerName(std::string& name) {
    for (char& c : name) {
        if (c >= 'A' && c <= 'Z') {
            c = static_cast<char>(c - 'A' + 'a');
        }
    }
}

bool ParseRequestLine(const char* name, const std::string& line, UpgradeHead& head) {
    std::vector<std::string> parts;
    CVEKUtil::ParseCSV(line, " ", parts);
    if (parts.size() < 3) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) first_line(%s) parse failed!..", name,
                        line.c_str());
        return false;
    }
    const std::string& path = parts[1];
    if (path.size() > 1) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "HTTP/1.1 Upgrade with Request (%s)", path.c_str());
        head.isRequest = true;
    }
    head.headers.emplace_back(":method", parts[0]);
    head.headers.emplace_back(":path", path);
    head.headers.emplace_back(":scheme", "http");
    return true;
}

bool ParseHeaderLine(const char* name, const std::string& line, UpgradeHead& head) {
    if (strcasecmp(line.c_str(), "Upgrade: h2c") == 0) {
        head.isUpgrade = true;
        if (G_VEK_HTTP2_DETAIL_LOG) {
            VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) h2c upgrade!...", name);
        }
        return true;
    }
    if (line.find("HTTP2-Settings:") != std::string::npos) {
        head.settings = ValueOf(line).substr(0, SETTINGS_TEXT_SIZE - 1);
        return true;
    }
    const size_t colon = line.find(':');
    if (colon == std::string::npos) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/1.1 Header item parse failed!...");
        return false;
    }
    std::string field = line.substr(0, colon);
    if (strcasecmp(field.c_str(), "Host") == 0) {
        field = ":authority";
    }
    LowerName(field);
    head.headers.emplace_back(field, ValueOf(line));
    return true;
}

bool ParseHead(const char* name, const std::string& text, UpgradeHead& head) {
    std::vector<std::string> lines;
    CVEKUtil::ParseCSV(text, "\r\n", lines);
    if (lines.empty() || text.find('\0') != std::string::npos) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/1.1 Header line parse failed!...");
        return false;
    }
    if (!ParseRequestLine(name, lines.front(), head)) {
        return false;
    }
    for (size_t i = 1; i < lines.size(); ++i) {
        if (!ParseHeaderLine(name, lines[i], head)) {
            return false;
        }
    }
    if (!head.isUpgrade) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) HTTP 1.1 Upgrade header empty!..", name);
    }
    return head.isUpgrade;
}

// The announced body length; a value that is no number counts as 0.
long BodyLength(const UpgradeHead& head) {
    for (const auto& [name, value] : head.headers) {
        if (strcasecmp(name.c_str(), "Content-Length") == 0) {
            return strtol(value.c_str(), nullptr, 10);
        }
    }
    return 0;
}

using Body = std::unique_ptr<char, decltype(&free)>;

// Reads exactly `length` bytes. Returns null when they do not come in time or there is no memory.
Body ReadBody(CVEKHttp2Response& conn, Clock::time_point limit, size_t length) {
    Body body(static_cast<char*>(malloc(length)), free);
    if (body == nullptr) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "memory allocate(%d bytes) failed!...",
                        static_cast<int>(length));
        return body;
    }
    size_t total = 0;
    while (total < length) {
        const int result = conn.read(body.get() + total, length - total);
        if (result > 0) {
            total += static_cast<size_t>(result);
        } else if (result != VEK_SOCKET_AGAIN || WaitReadable(conn.GetSocket(), limit) <= 0) {
            body.reset();
            break;
        }
    }
    return body;
}

bool ReadRequestHead(CVEKHttp2Response& conn, Clock::time_point limit, UpgradeHead& head) {
    const int ready = WaitReadable(conn.GetSocket(), limit);
    if (ready == WAIT_FAILED) {
        return false;
    }
    std::string text;
    const int result = ready == WAIT_TIMEOUT ? 0 : ReadHead(conn, limit, text);
    if (!EndsWith(text, HEAD_END)) {
        if (ready == WAIT_TIMEOUT || (result > 0 && Clock::now() >= limit)) {
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) Receive HTTP/2 upgrade request. timeout!..",
                            conn.GetName());
        } else {
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/1.1 receive failed!..");
        }
        return false;
    }
    if (G_VEK_HTTP2_DETAIL_LOG) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) HTTP/1.1 received...[\n%s:%d]", conn.GetName(),
                        text.c_str(), static_cast<int>(text.size()));
    }
    return ParseHead(conn.GetName(), text, head);
}

bool ReadAnswer(CVEKHttp2Request& conn, std::string& answer) {
    const Clock::time_point limit = Clock::now() + UPGRADE_TIMEOUT;
    const int ready = WaitReadable(conn.GetSocket(), limit);
    if (ready == WAIT_FAILED) {
        return false;
    }
    if (ready == WAIT_TIMEOUT) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "Receive HTTP/2 Upgrade... timeout...");
        return false;
    }
    if (ReadHead(conn, limit, answer) < 1) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "Receive HTTP/2 Upgrade failed!...");
        return false;
    }
    if (G_VEK_HTTP2_DETAIL_LOG) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "Recv HTTP/2 Upgrade...[\n%s:%d]", answer.c_str(),
                        static_cast<int>(answer.size()));
    }
    return true;
}

// The settings text with the zero bytes behind it goes through the decoder as one token of 255
// characters, so any shorter token decodes to nothing: meant. The engine then starts without the
// peer's settings.
std::string DecodeSettings(const std::string& text) {
    std::string token = text;
    token.resize(SETTINGS_TEXT_SIZE - 1, '\0');
    return VEK_BASE64_DECODE(to_base64(token));
}

}  // namespace

bool VEK_HTTP2_CLIENT_UPGRADE(CVEKHttp2Request* conn, const char* host,
                              const VEK_ST_HTTP2_OPTIONS* options,
                              uint8_t (&payload)[VEK_HTTP2_SETTINGS_SIZE], size_t& payloadLen) {
    nghttp2_settings_entry entries[SETTINGS_ENTRIES];
    const int count = populate_settings(entries, options);
    const ssize_t packed =
        nghttp2_pack_settings_payload(payload, sizeof payload, entries, static_cast<size_t>(count));
    if (packed < 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "nghttp2_pack_settings_payload() failed!...");
        return false;
    }
    payloadLen = static_cast<size_t>(packed);
    std::string token = VEK_BASE64_ENCODE(payload, payloadLen);
    to_token68(token);

    std::string text(strlen(HTTP2_UPGRADE_REQUEST) + strlen(host) + token.size(), '\0');
    text.resize(static_cast<size_t>(
        snprintf(text.data(), text.size(), HTTP2_UPGRADE_REQUEST, host, token.c_str())));
    if (G_VEK_HTTP2_DETAIL_LOG) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "Send HTTP/2 Upgrade...[\n%s:%d]", text.c_str(),
                        static_cast<int>(text.size()));
    }
    if (conn->write(text.data(), text.size()) < 1) {
        return false;
    }

    std::string answer;
    if (!ReadAnswer(*conn, answer)) {
        return false;
    }
    // Anywhere in the text will do: meant.
    if (!EndsWith(answer, "\r\n") || answer.find("101") == std::string::npos ||
        answer.find("h2c") == std::string::npos) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/2 Upgrade response failed!...");
        return false;
    }
    return true;
}

bool VEK_HTTP2_SERVER_UPGRADE(CVEKHttp2Response* conn, std::string& settings) {
    const Clock::time_point limit = Clock::now() + UPGRADE_TIMEOUT;
    UpgradeHead head;
    if (!ReadRequestHead(*conn, limit, head)) {
        return false;
    }
    const long length = BodyLength(head);
    if (head.isRequest) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) HTTP/1.1 Upgrade with request...(payload=%d)",
                        conn->GetName(),
                        static_cast<int>(std::clamp<long>(length, INT_MIN, INT_MAX)));
    }
    if (length < 0 || length > MAX_BODY_SIZE) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) HTTP/1.1 body length(%ld) invalid!...",
                        conn->GetName(), length);
        return false;
    }
    const auto size = static_cast<size_t>(length);
    const Body body = size > 0 ? ReadBody(*conn, limit, size) : Body(nullptr, free);
    if (size > 0 && body == nullptr) {
        return false;
    }
    if (G_VEK_HTTP2_DETAIL_LOG) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "Send HTTP/2 upgrade response[\n%s:%d]",
                        HTTP2_UPGRADE_RESPONSE, static_cast<int>(strlen(HTTP2_UPGRADE_RESPONSE)));
    }
    if (conn->write(HTTP2_UPGRADE_RESPONSE, strlen(HTTP2_UPGRADE_RESPONSE)) <= 0) {
        return false;
    }
    settings = DecodeSettings(head.settings);
    if (head.isRequest) {
        conn->DoProcUpgradeWithRequest(head.headers, body.get(), size);
    }
    return true;
}
