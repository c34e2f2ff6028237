// CVEKHttp2ClientUpgrade: the client's side of the HTTP/1.1 upgrade to HTTP/2 in clear text
// (RFC 7540, section 3.2), in steps on a connected socket that does not block.
//
// Start, then Advance until it no longer returns VEK_HTTP2_STEP_WAIT, each time after GetEvents
// have come or GetDeadline has passed. What follows the answer's head stays in the socket.
// Transport and name stay the caller's and must outlive the object. One thread at a time.
#ifndef CVEK_HTTP2_CLIENT_UPGRADE_H
#define CVEK_HTTP2_CLIENT_UPGRADE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

#include "CVEKSocketNew.h"
#include "VEKHttp2Step.h"
#include "VEKHttp2UpgradeText.h"
#include "defHttp2.h"

class CVEKHttp2ClientUpgrade {
  public:
    CVEKHttp2ClientUpgrade(CVEKSocketNew& transport, const char* name);

    CVEKHttp2ClientUpgrade(const CVEKHttp2ClientUpgrade&) = delete;
    CVEKHttp2ClientUpgrade& operator=(const CVEKHttp2ClientUpgrade&) = delete;

    // Makes the request, with `host` in its Host line and the settings that the options give. The
    // time begins to run. Returns false after an Error line.
    bool Start(const char* host, const VEK_ST_HTTP2_OPTIONS& options,
               std::chrono::milliseconds limit = VEK_HTTP2_UPGRADE_LIMIT);
    // A VEK_HTTP2_STEP_... value; FAILED after an Error line, except when the request cannot be
    // written. An answer that ends in CR LF when the time is over, or the peer closes, counts:
    // meant.
    int Advance();
    short GetEvents() const;
    VEK_HTTP2_DEADLINE GetDeadline() const { return deadline_; }

    // The packed SETTINGS that were announced, for the engine.
    const uint8_t* GetPayload() const { return payload_; }
    size_t GetPayloadSize() const { return payloadSize_; }
    // Why it failed, and whether that was for want of time.
    const char* GetReason() const { return reason_; }
    bool IsTimeout() const { return isTimeout_; }

  private:
    int SendRequest();
    int ReadAnswer();
    int JudgeAnswer();
    int Expire();
    int Fail(const char* reason);

    CVEKSocketNew& transport_;
    const char* name_;
    VEK_HTTP2_DEADLINE deadline_;
    uint8_t payload_[VEK_HTTP2_SETTINGS_SIZE];
    size_t payloadSize_ = 0;
    std::string text_;  // the request, then what has come of the answer
    size_t sent_ = 0;
    bool isSent_ = false;
    int result_ = VEK_HTTP2_STEP_WAIT;
    const char* reason_ = "";
    bool isTimeout_ = false;
};

#endif
