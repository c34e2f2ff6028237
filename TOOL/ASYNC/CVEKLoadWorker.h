// CVEKLoadWorker: one thread of a run. It keeps the streams of its connections busy, or sends what
// its part of the schedule has due, and counts what becomes of it. All of it on its loop's thread,
// but for what says otherwise.
//
// Life: NoteUp of its connections, Start, over (it sends no more), ended (it waits for no more).
#ifndef CVEK_LOAD_WORKER_H
#define CVEK_LOAD_WORKER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "CVEKEventLoop.h"
#include "CVEKHttpClient.h"
#include "CVEKHttpSink.h"
#include "VEKLoadResult.h"
#include "VEKLoadRun.h"

class CVEKLoadWorker : private CVEKHttpSink {
  public:
    using Clock = CVEKLoadSchedule::Clock;
    using Duration = CVEKLoadSchedule::Duration;

    // index: which of the run's workers it is. The connections to slot `index` and every
    // run.workers_ behind it are on its loop. onEnd: the last worker has ended.
    CVEKLoadWorker(VEK_ST_LOAD_RUN& run, CVEKEventLoop& loop, CVEKHttpClient& client, size_t index,
                   std::function<void()> onEnd);

    // The client's hooks, for its connections.
    void NoteUp(const VEK_ST_HTTP_CONNECTION& connection);
    void NoteDown(const VEK_ST_HTTP_CONNECTION& connection, const VEK_ST_HTTP_FAILURE& failure);

    void Start();
    // Sends no more, and waits for a second at most for the answers to what is in flight.
    void Stop();
    // When the client has ended: when its sending has, from the start, and what it has counted.
    Duration GetEnd() const { return end_; }
    const VEK_ST_LOAD_RESULT& GetResult() const { return result_; }

  private:
    // A slot while the run goes on.
    struct Place {
        bool isGivenUp_ = false;
        int64_t answered_ = 0;  // since it was last opened
    };

    void OnResponse(uint64_t tag, VEK_ST_HTTP_RESPONSE& response) override;
    void Count(Clock::time_point due, const VEK_ST_HTTP_RESPONSE& response, Clock::time_point now);
    void CountAnswer(Clock::time_point due, const VEK_ST_HTTP_RESPONSE& response,
                     Clock::time_point now);
    void Pump(Clock::time_point now);
    void PumpLater();
    bool SendDue(Clock::time_point now);
    bool TakeNumber(Duration elapsed, int64_t& number, Duration& due);
    int64_t FollowNumber(int64_t number) const;
    void Send(int64_t number, Clock::time_point due);
    void SendNumbered(int64_t number, Clock::time_point due);
    void Arm(Clock::time_point now);
    void OnTick();
    bool IsWaitOver(Clock::time_point now) const;
    void SetGivenUp(Place& place, bool isGivenUp);
    Place& PlaceOf(size_t slot) { return places_[slot / run_.workers_]; }

    VEK_ST_LOAD_RUN& run_;
    CVEKEventLoop& loop_;
    CVEKHttpClient& client_;
    const size_t index_;
    const std::function<void()> onEnd_;
    std::vector<Place> places_;
    CVEKTimer tick_;
    CVEKTimer dueTimer_;
    Clock::time_point armedFor_;  // of dueTimer_
    Duration end_ = Duration::max();  // of the sending, from the start
    int64_t nextNumber_ = 0;          // of a schedule: the next of this worker's
    size_t inFlight_ = 0;             // those that wait for a connection among them
    size_t limit_ = 0;                // of inFlight_
    bool isStarted_ = false;
    bool isStopped_ = false;
    bool isExhausted_ = false;  // there is nothing more to send
    bool isOver_ = false;
    bool hasEnded_ = false;
    bool isPumpPosted_ = false;
    VEK_ST_LOAD_RESULT result_;
};

#endif
