#include "CVEKHttp2ClientUpgrade.h"

#include <poll.h>

#include <cstdio>
#include <cstring>
#include <new>

#include "VEKHttp1Head.h"
#include "VEKHttp2Option.h"
#include "VEKServiceLog.h"

namespace {

constexpr size_t SETTINGS_ENTRIES = 16;

std::string MakeRequest(const char* host, const std::string& token) {
    std::string text(strlen(HTTP2_UPGRADE_REQUEST) + strlen(host) + token.size(), '\0');
    text.resize(static_cast<size_t>(
        snprintf(text.data(), text.size(), HTTP2_UPGRADE_REQUEST, host, token.c_str())));
    return text;
}

}  // namespace

CVEKHttp2ClientUpgrade::CVEKHttp2ClientUpgrade(CVEKSocketNew& transport, const char* name)
    : transport_(transport), name_(name), payload_() {}

bool CVEKHttp2ClientUpgrade::Start(const char* host, const VEK_ST_HTTP2_OPTIONS& options,
                                   std::chrono::milliseconds limit) {
    deadline_ = VEK_HTTP2_STEP_CLOCK::now() + limit;
    nghttp2_settings_entry entries[SETTINGS_ENTRIES];
    const int count = populate_settings(entries, &options);
    const ssize_t packed = nghttp2_pack_settings_payload(payload_, sizeof payload_, entries,
                                                         static_cast<size_t>(count));
    if (packed < 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "nghttp2_pack_settings_payload() failed!...");
        Fail("nghttp2_pack_settings_payload() failed");
        return false;
    }
    payloadSize_ = static_cast<size_t>(packed);
    try {
        std::string token = VEK_BASE64_ENCODE(payload_, payloadSize_);
        to_token68(token);
        text_ = MakeRequest(host, token);
    } catch (const std::bad_alloc&) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) memory allocate failed...", name_);
        Fail("memory allocate failed");
        return false;
    }
    if (G_VEK_HTTP2_DETAIL_LOG) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "Send HTTP/2 Upgrade...[\n%s:%d]", text_.c_str(),
                        static_cast<int>(text_.size()));
    }
    return true;
}

int CVEKHttp2ClientUpgrade::Advance() {
    if (result_ != VEK_HTTP2_STEP_WAIT) {
        return result_;
    }
    try {
        if (!isSent_) {
            result_ = SendRequest();
        }
        if (isSent_ && result_ == VEK_HTTP2_STEP_WAIT) {
            result_ = ReadAnswer();
        }
        if (result_ == VEK_HTTP2_STEP_WAIT && VEK_HTTP2_IS_LATE(deadline_)) {
            result_ = Expire();
        }
    } catch (const std::bad_alloc&) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) memory allocate failed...", name_);
        return Fail("memory allocate failed");
    }
    return result_;
}

short CVEKHttp2ClientUpgrade::GetEvents() const {
    return isSent_ ? POLLIN : POLLOUT;
}

int CVEKHttp2ClientUpgrade::SendRequest() {
    const int result = VEK_SEND_HTTP1_TEXT(transport_, text_.data(), text_.size(), sent_);
    if (result == VEK_HTTP2_STEP_FAILED) {
        return Fail("upgrade request cannot be written");
    }
    if (result == VEK_HTTP2_STEP_DONE) {
        isSent_ = true;
        text_.clear();
    }
    return VEK_HTTP2_STEP_WAIT;
}

int CVEKHttp2ClientUpgrade::ReadAnswer() {
    switch (VEK_READ_HTTP1_HEAD(transport_, text_)) {
        case VEK_HTTP1_HEAD_WAIT:
            return VEK_HTTP2_STEP_WAIT;
        case VEK_HTTP1_HEAD_OVERFLOW:
            text_.clear();
            return JudgeAnswer();
        default:
            return JudgeAnswer();
    }
}

// Whatever has come by now is the answer.
int CVEKHttp2ClientUpgrade::JudgeAnswer() {
    if (text_.empty()) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "Receive HTTP/2 Upgrade failed!...");
        return Fail("upgrade answer cannot be read");
    }
    if (G_VEK_HTTP2_DETAIL_LOG) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "Recv HTTP/2 Upgrade...[\n%s:%d]",
                        VEK_HTTP1_HEAD_TEXT(text_).c_str(), static_cast<int>(text_.size()));
    }
    const size_t size = text_.size();
    // Anywhere in the text will do: meant.
    if (size < 2 || text_.compare(size - 2, 2, "\r\n") != 0 ||
        text_.find("101") == std::string::npos || text_.find("h2c") == std::string::npos) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "HTTP/2 Upgrade response failed!...");
        return Fail("upgrade refused");
    }
    return VEK_HTTP2_STEP_DONE;
}

int CVEKHttp2ClientUpgrade::Expire() {
    if (isSent_ && !text_.empty()) {
        return JudgeAnswer();
    }
    isTimeout_ = true;
    if (!isSent_) {
        return Fail("upgrade request cannot be written in time");
    }
    VEK_SERVICE_LOG(VEK_LOG_ERROR, "Receive HTTP/2 Upgrade... timeout...");
    return Fail("upgrade timeout");
}

int CVEKHttp2ClientUpgrade::Fail(const char* reason) {
    reason_ = reason;
    result_ = VEK_HTTP2_STEP_FAILED;
    return result_;
}
