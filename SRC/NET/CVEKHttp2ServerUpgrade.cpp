#include "CVEKHttp2ServerUpgrade.h"

#include <poll.h>
#include <strings.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "CVEKUtil.h"
#include "VEKHttp1Head.h"
#include "VEKHttp2Option.h"
#include "VEKHttp2UpgradeText.h"
#include "VEKLogText.h"
#include "VEKServiceLog.h"

namespace {

constexpr size_t SETTINGS_TEXT_SIZE = 256;
constexpr long MAX_BODY_SIZE = 1 << 20;
constexpr size_t BODY_CHUNK_SIZE = 16384;

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

// The announced body length; a value that is no number counts as 0.
long BodyLength(const VEK_HTTP2_HEADER& headers) {
    for (const auto& [name, value] : headers) {
        if (strcasecmp(name.c_str(), "Content-Length") == 0) {
            return strtol(value.c_str(), nullptr, 10);
        }
    }
    return 0;
}

// The settings text with the zero bytes behind it goes through the decoder as one token of 255
// characters, so any shorter token decodes to nothing: meant. The engine then starts without the
// peer's settings.
std::string DecodeSettings(std::string token) {
    token.resize(SETTINGS_TEXT_SIZE - 1, '\0');
    return VEK_BASE64_DECODE(to_base64(token));
}

}  // namespace

CVEKHttp2ServerUpgrade::CVEKHttp2ServerUpgrade(CVEKSocketNew& transport, const char* name)
    : transport_(transport), name_(name) {}

void CVEKHttp2ServerUpgrade::Start(std::chrono::milliseconds limit) {
    deadline_ = VEK_HTTP2_STEP_CLOCK::now() + limit;
}

int CVEKHttp2ServerUpgrade::Advance() {
    if (state_ == State::OVER) {
        return result_;
    }
    int result = VEK_HTTP2_STEP_DONE;
    try {
        while (state_ != State::OVER && result == VEK_HTTP2_STEP_DONE) {
            result = Step();
        }
    } catch (const std::bad_alloc&) {
        return FailMemory();
    }
    if (result == VEK_HTTP2_STEP_WAIT && VEK_HTTP2_IS_LATE(deadline_)) {
        result = Expire();
    }
    result_ = result;
    return result;
}

short CVEKHttp2ServerUpgrade::GetEvents() const {
    return state_ == State::ANSWER ? POLLOUT : POLLIN;
}

// Goes through one state; done means that the next one has begun.
int CVEKHttp2ServerUpgrade::Step() {
    switch (state_) {
        case State::HEAD:
            return ReadHead();
        case State::BODY:
            return ReadBody();
        case State::ANSWER:
            return SendAnswer();
        default:
            return result_;
    }
}

int CVEKHttp2ServerUpgrade::ReadHead() {
    switch (VEK_READ_HTTP1_HEAD(transport_, head_)) {
        case VEK_HTTP1_HEAD_WAIT:
            return VEK_HTTP2_STEP_WAIT;
        case VEK_HTTP1_HEAD_DONE:
            break;
        default:
            VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/1.1 receive failed!..");
            return Fail("upgrade request cannot be read");
    }
    if (G_VEK_HTTP2_DETAIL_LOG) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) HTTP/1.1 received...[\n%s:%d]", name_,
                        VEK_HTTP1_HEAD_TEXT(head_).c_str(), static_cast<int>(head_.size()));
    }
    const int result = ParseHead();
    return result == VEK_HTTP2_STEP_DONE ? CheckBodySize() : result;
}

int CVEKHttp2ServerUpgrade::ParseHead() {
    std::vector<std::string> lines;
    CVEKUtil::ParseCSV(head_, "\r\n", lines);
    if (lines.empty() || head_.find('\0') != std::string::npos) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/1.1 Header line parse failed!...");
        return Fail("upgrade request is malformed");
    }
    if (!ParseRequestLine(lines.front()) ||
        !std::all_of(lines.begin() + 1, lines.end(),
                     [this](const std::string& line) { return ParseHeaderLine(line); })) {
        return Fail("upgrade request is malformed");
    }
    if (!isUpgrade_) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) HTTP 1.1 Upgrade header empty!..", name_);
        return Fail("no upgrade asked for");
    }
    return VEK_HTTP2_STEP_DONE;
}

bool CVEKHttp2ServerUpgrade::ParseRequestLine(const std::string& line) {
    std::vector<std::string> parts;
    CVEKUtil::ParseCSV(line, " ", parts);
    if (parts.size() < 3) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) first_line(%s) parse failed!..", name_,
                        VEK_ESCAPE_TEXT(line).c_str());
        return false;
    }
    const std::string& path = parts[1];
    if (path.size() > 1) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "HTTP/1.1 Upgrade with Request (%s)",
                        VEK_ESCAPE_TEXT(path).c_str());
        isRequest_ = true;
    }
    headers_.emplace_back(":method", parts[0]);
    headers_.emplace_back(":path", path);
    headers_.emplace_back(":scheme", "http");
    return true;
}

bool CVEKHttp2ServerUpgrade::ParseHeaderLine(const std::string& line) {
    if (strcasecmp(line.c_str(), "Upgrade: h2c") == 0) {
        isUpgrade_ = true;
        if (G_VEK_HTTP2_DETAIL_LOG) {
            VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) h2c upgrade!...", name_);
        }
        return true;
    }
    if (line.find("HTTP2-Settings:") != std::string::npos) {
        settings_ = ValueOf(line).substr(0, SETTINGS_TEXT_SIZE - 1);
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
    headers_.emplace_back(field, ValueOf(line));
    return true;
}

int CVEKHttp2ServerUpgrade::CheckBodySize() {
    const long length = BodyLength(headers_);
    if (isRequest_) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "conn(%s) HTTP/1.1 Upgrade with request...(payload=%d)",
                        name_, static_cast<int>(std::clamp<long>(length, INT_MIN, INT_MAX)));
    }
    if (length < 0 || length > MAX_BODY_SIZE) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) HTTP/1.1 body length(%ld) invalid!...", name_,
                        length);
        return Fail("upgrade request's body length is invalid");
    }
    bodySize_ = static_cast<size_t>(length);
    state_ = State::BODY;
    return VEK_HTTP2_STEP_DONE;
}

// The body grows as it comes, not as it is announced.
int CVEKHttp2ServerUpgrade::ReadBody() {
    char chunk[BODY_CHUNK_SIZE];
    while (body_.size() < bodySize_) {
        const int result = transport_.Recv(chunk, std::min(sizeof chunk, bodySize_ - body_.size()));
        if (result == VEK_SOCKET_AGAIN) {
            return VEK_HTTP2_STEP_WAIT;
        }
        if (result <= 0) {
            return Fail("upgrade request's body is cut short");
        }
        body_.append(chunk, static_cast<size_t>(result));
    }
    if (G_VEK_HTTP2_DETAIL_LOG) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "Send HTTP/2 upgrade response[\n%s:%d]",
                        HTTP2_UPGRADE_RESPONSE, static_cast<int>(strlen(HTTP2_UPGRADE_RESPONSE)));
    }
    state_ = State::ANSWER;
    return VEK_HTTP2_STEP_DONE;
}

int CVEKHttp2ServerUpgrade::SendAnswer() {
    const int result = VEK_SEND_HTTP1_TEXT(transport_, HTTP2_UPGRADE_RESPONSE,
                                           strlen(HTTP2_UPGRADE_RESPONSE), sent_);
    if (result == VEK_HTTP2_STEP_FAILED) {
        return Fail("upgrade answer cannot be written");
    }
    if (result == VEK_HTTP2_STEP_DONE) {
        settings_ = DecodeSettings(settings_);
        state_ = State::OVER;
    }
    return result;
}

int CVEKHttp2ServerUpgrade::Expire() {
    isTimeout_ = true;
    if (state_ == State::HEAD) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) Receive HTTP/2 upgrade request. timeout!..",
                        name_);
    }
    return Fail("upgrade timeout");
}

int CVEKHttp2ServerUpgrade::Fail(const char* reason) {
    reason_ = reason;
    state_ = State::OVER;
    result_ = VEK_HTTP2_STEP_FAILED;
    return result_;
}

int CVEKHttp2ServerUpgrade::FailMemory() {
    if (state_ == State::BODY) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "memory allocate(%d bytes) failed!...",
                        static_cast<int>(bodySize_));
    } else {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) memory allocate failed...", name_);
    }
    return Fail("memory allocate failed");
}
