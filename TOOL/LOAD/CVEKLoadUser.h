// CVEKLoadUser: a virtual user who walks through one flow, request by request, with values of his
// own. All of it on the thread of his loop.
#ifndef CVEK_LOAD_USER_H
#define CVEK_LOAD_USER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "CVEKEventLoop.h"
#include "CVEKHttpClient.h"
#include "VEKLoadRun.h"

// A request on its way.
struct VEK_ST_LOAD_REQUEST {
    size_t stage_ = 0;     // number of the step
    uint64_t number_ = 0;  // of the flow; 0 where nobody asks
    std::chrono::steady_clock::time_point due_;
    uint64_t bytes_ = 0;  // of its body
};

class CVEKLoadUser;

// Where the user's requests are counted.
class CVEKLoadUserHost {
  public:
    virtual ~CVEKLoadUserHost() = default;
    // Returns whether there is an answer.
    virtual bool CountStage(const VEK_ST_LOAD_REQUEST& request,
                            const VEK_ST_HTTP_RESPONSE& response,
                            std::chrono::steady_clock::time_point now) = 0;
    virtual void NoteUnexpected(size_t stage, const std::string& text) = 0;
    virtual bool IsSendingOver() const = 0;
    // His flow is over; it may give him another one.
    virtual void EndUser(CVEKLoadUser& user, bool isFailed) = 0;
};

class CVEKLoadUser {
  public:
    CVEKLoadUser(const VEK_ST_LOAD_RUN& run, CVEKEventLoop& loop, CVEKHttpClient& client,
                 CVEKLoadUserHost& host)
        : run_(run), loop_(loop), client_(client), host_(host) {}

    // Walks a flow. kind: which of the scenario's.
    void Walk(uint64_t number, size_t kind, std::chrono::steady_clock::time_point due);
    bool IsThinking() const { return isThinking_; }
    // Ends a pause, and the flow with it.
    void StopThinking();

  private:
    using Clock = std::chrono::steady_clock;

    const VEK_ST_LOAD_STAGE& GetStage() const { return flow_->stages_[step_]; }
    void Send(Clock::time_point due);
    void OnResponse(VEK_ST_HTTP_RESPONSE& response);
    bool TakeAnswer(const VEK_ST_HTTP_RESPONSE& response);
    void GoOn();
    std::chrono::microseconds ChooseThinkTime() const;

    const VEK_ST_LOAD_RUN& run_;
    CVEKEventLoop& loop_;
    CVEKHttpClient& client_;
    CVEKLoadUserHost& host_;
    const VEK_ST_LOAD_FLOW* flow_ = nullptr;
    size_t firstStage_ = 0;
    size_t step_ = 0;
    VEK_ST_LOAD_REQUEST request_;
    std::vector<std::string> values_;
    CVEKTimer thinking_;
    bool isThinking_ = false;
};

#endif
