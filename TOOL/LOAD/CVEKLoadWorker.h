// CVEKLoadWorker: one thread of a run. It keeps the streams of its connections busy, or begins what
// its part of the schedule has due, and counts what becomes of it. Once a second it hands in what
// it has counted. All of it on its loop's thread, but for what says otherwise.
//
// Life: NoteUp of its connections, Start, over (it begins no more), ended (it waits for no more).
#ifndef CVEK_LOAD_WORKER_H
#define CVEK_LOAD_WORKER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "CVEKEventLoop.h"
#include "CVEKHttpClient.h"
#include "CVEKHttpSink.h"
#include "CVEKLoadTurn.h"
#include "CVEKLoadUser.h"
#include "VEKLoadRun.h"

class CVEKLoadWorker : private CVEKHttpSink, private CVEKLoadUserHost {
  public:
    using Clock = CVEKLoadSchedule::Clock;
    using Duration = CVEKLoadSchedule::Duration;

    // index: which of the run's workers it is. Connection slot s of target t is on the loop of
    // worker (s + t) % run.workers_. onEnd: the last worker has ended.
    CVEKLoadWorker(VEK_ST_LOAD_RUN& run, CVEKEventLoop& loop, CVEKHttpClient& client, size_t index,
                   std::function<void()> onEnd);

    // The client's hooks, for its connections.
    void NoteUp(const VEK_ST_HTTP_CONNECTION& connection);
    void NoteDown(const VEK_ST_HTTP_CONNECTION& connection, const VEK_ST_HTTP_FAILURE& failure);

    void Start();
    // Begins no more, and waits for a second at most for the answers to what is in flight.
    void Stop();

    // The client and the loops have ended: what is left is handed in.
    void Finish();
    // Then: when the sending has ended, from the start; and flows that were begun, by their kind.
    Duration GetEnd() const { return end_; }
    Clock::time_point GetLast() const { return last_; }
    const std::vector<uint64_t>& GetBegun() const { return begun_; }

  private:
    // A connection's slot while the run goes on.
    struct Place {
        bool isGivenUp_ = true;
        int64_t answered_ = 0;  // since it was last opened
        VEK_ST_LOAD_SLOT slot_;
    };

    void OnResponse(uint64_t tag, VEK_ST_HTTP_RESPONSE& response) override;
    bool CountStage(const VEK_ST_LOAD_REQUEST& request, const VEK_ST_HTTP_RESPONSE& response,
                    Clock::time_point now) override;
    void NoteUnexpected(size_t stage, const std::string& text) override;
    bool IsSendingOver() const override { return Clock::now() - run_.start_ >= end_; }
    void EndUser(CVEKLoadUser& user, bool isFailed) override;

    void CountSent(Clock::time_point sent);
    void CountAnswer(const VEK_ST_LOAD_REQUEST& request, const VEK_ST_HTTP_RESPONSE& response,
                     Clock::time_point now);
    void CountFailure(const VEK_ST_LOAD_REQUEST& request, const VEK_ST_HTTP_RESPONSE& response);
    void Log(const VEK_ST_LOAD_REQUEST& request, const VEK_ST_HTTP_RESPONSE& response,
             Clock::time_point now);
    void Pump(Clock::time_point now);
    void PumpLater();
    bool BeginDue(Clock::time_point now);
    bool TakeNumber(Duration elapsed, int64_t& number, Duration& due);
    void Begin(int64_t own, Clock::time_point due);
    void Send(uint64_t number, size_t kind, Clock::time_point due);
    void Arm(Clock::time_point now);
    void OnTick();
    void EndWarmUp();
    void HandIn(size_t next);
    std::string Known(const std::string& cause);
    size_t GetLimit() const;
    bool IsWarm(Clock::time_point due) const { return due - run_.start_ >= warmUp_; }
    bool IsWaitOver(Clock::time_point now) const;
    void EndThinking();
    void SetGivenUp(Place& place, bool isGivenUp);
    Place& PlaceOf(size_t target, size_t slot) {
        return places_[target * run_.plan_.connections_ + slot];
    }
    Place& PlaceOf(const VEK_ST_LOAD_REQUEST& request, const VEK_ST_HTTP_RESPONSE& response) {
        return PlaceOf(run_.stages_[request.stage_]->target_, response.slot_);
    }

    VEK_ST_LOAD_RUN& run_;
    CVEKEventLoop& loop_;
    CVEKHttpClient& client_;
    const size_t index_;
    const std::function<void()> onEnd_;
    const Duration warmUp_;
    CVEKLoadTurn turn_;  // of a schedule
    std::vector<Place> places_;
    CVEKTimer tick_;
    CVEKTimer dueTimer_;
    Clock::time_point armedFor_;      // of dueTimer_
    Duration end_ = Duration::max();  // of the sending, from the start
    int64_t limit_ = 0;               // of the numbers of flows: no variable has values beyond
    size_t inFlight_ = 0;             // flows, those that wait for a connection among them
    size_t capacity_ = 0;             // streams of its connections
    size_t users_ = 0;                // of inFlight_; 0: no limit
    bool isStarted_ = false;
    bool isStopped_ = false;
    bool isExhausted_ = false;  // there is nothing more to begin
    bool isOver_ = false;
    bool hasEnded_ = false;
    bool isPumpPosted_ = false;
    bool isWarm_ = false;
    std::vector<std::unique_ptr<CVEKLoadUser>> all_;
    std::vector<CVEKLoadUser*> free_;

    // What was counted since it was last handed in.
    std::vector<VEK_ST_LOAD_COUNTS> counts_;  // by stage
    VEK_ST_LOAD_CONNECTIONS connections_;
    std::vector<uint64_t> begun_;  // by kind of flow; never handed in
    uint64_t lagNs_ = 0;
    size_t second_ = 0;
    uint64_t sentNow_ = 0;                   // of what has ended: in this second
    std::map<size_t, uint64_t> sentBefore_;  // and in others
    std::set<std::string> causes_;           // all of the run
    // On the wire, up to the end of the warm-up.
    uint64_t warmSent_ = 0;
    uint64_t warmReceived_ = 0;
    Clock::time_point last_;  // end of the last request that counts, or of the sending
};

#endif
