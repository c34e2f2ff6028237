// CVEKHttp2ServerUpgrade: the server's side of the HTTP/1.1 upgrade to HTTP/2 in clear text
// (RFC 7540, section 3.2), in steps on an accepted socket that does not block.
//
// Start, then Advance until it no longer returns VEK_HTTP2_STEP_WAIT, each time after GetEvents
// have come or GetDeadline has passed. What follows the request stays in the socket. Transport and
// name stay the caller's and must outlive the object. One thread at a time.
#ifndef CVEK_HTTP2_SERVER_UPGRADE_H
#define CVEK_HTTP2_SERVER_UPGRADE_H

#include <chrono>
#include <cstddef>
#include <string>

#include "CVEKSocketNew.h"
#include "VEKHttp2Step.h"
#include "defHttp2.h"

class CVEKHttp2ServerUpgrade {
  public:
    CVEKHttp2ServerUpgrade(CVEKSocketNew& transport, const char* name);

    CVEKHttp2ServerUpgrade(const CVEKHttp2ServerUpgrade&) = delete;
    CVEKHttp2ServerUpgrade& operator=(const CVEKHttp2ServerUpgrade&) = delete;

    // The time for all of it begins to run.
    void Start(std::chrono::milliseconds limit = VEK_HTTP2_UPGRADE_LIMIT);
    // A VEK_HTTP2_STEP_... value; DONE when the answer has left. FAILED after an Error line, but
    // for a body that is cut short and an answer that cannot be written.
    int Advance();
    short GetEvents() const;
    VEK_HTTP2_DEADLINE GetDeadline() const { return deadline_; }

    // Once done: the peer's SETTINGS payload, for the engine.
    const std::string& GetSettings() const { return settings_; }
    // The peer has asked for a path longer than "/": what follows becomes stream 1.
    bool IsRequest() const { return isRequest_; }
    const VEK_HTTP2_HEADER& GetHeaders() const { return headers_; }  // pseudo-headers first
    const std::string& GetBody() const { return body_; }
    // Why it failed, and whether that was for want of time.
    const char* GetReason() const { return reason_; }
    bool IsTimeout() const { return isTimeout_; }

  private:
    enum class State { HEAD, BODY, ANSWER, OVER };

    int Step();
    int ReadHead();
    int ParseHead();
    bool ParseRequestLine(const std::string& line);
    bool ParseHeaderLine(const std::string& line);
    int CheckBodySize();
    int ReadBody();
    int SendAnswer();
    int Expire();
    int Fail(const char* reason);
    int FailMemory();

    CVEKSocketNew& transport_;
    const char* name_;
    VEK_HTTP2_DEADLINE deadline_;
    State state_ = State::HEAD;
    int result_ = VEK_HTTP2_STEP_WAIT;
    std::string head_;
    VEK_HTTP2_HEADER headers_;
    std::string settings_;  // the text, and once done the payload
    std::string body_;
    size_t bodySize_ = 0;  // announced
    size_t sent_ = 0;
    bool isUpgrade_ = false;
    bool isRequest_ = false;
    bool isTimeout_ = false;
    const char* reason_ = "";
};

#endif
