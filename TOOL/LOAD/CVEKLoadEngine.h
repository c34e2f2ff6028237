// CVEKLoadEngine: carries a run out: connects, keeps its connections busy on a loop for each
// thread, and adds up what came of it.
//
// Life: Open, Connect, Start, the call of onEnd, Finish. One thread at a time, but for Stop and
// Look, which any may use.
#ifndef CVEK_LOAD_ENGINE_H
#define CVEK_LOAD_ENGINE_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "CVEKEventLoops.h"
#include "CVEKHttpClient.h"
#include "CVEKLoadSchedule.h"
#include "CVEKLoadWorker.h"
#include "VEKLoadPlan.h"
#include "VEKLoadRun.h"

class CVEKLoadEngine {
  public:
    // log: gets a line for each request, or null. Throws std::system_error when the system has no
    // threads or descriptors left.
    CVEKLoadEngine(VEK_ST_LOAD_PLAN plan, CVEKLoadSchedule schedule, CVEKLoadRequestLog* log);
    ~CVEKLoadEngine();
    CVEKLoadEngine(const CVEKLoadEngine&) = delete;
    CVEKLoadEngine& operator=(const CVEKLoadEngine&) = delete;

    // Makes the client. Returns what is wrong with what is to be asked, or with files and names
    // that its TLS needs.
    VEK_ST_HTTP_FAILURE Open();
    // Opens all connections, and waits until they are up. Returns why the first one of those that
    // failed has.
    VEK_ST_HTTP_FAILURE Connect();
    // The first connection that came up; after Connect.
    const VEK_ST_HTTP_CONNECTION& GetFirstConnection() const { return first_; }

    const CVEKLoadSchedule& GetSchedule() const { return run_.schedule_; }
    // When it was; since Start.
    std::chrono::steady_clock::time_point GetStart() const { return run_.start_; }

    // Begins to send. onEnd: there is nothing more to wait for; on one of the run's threads.
    void Start(std::function<void()> onEnd);
    // Ends the sending, and what is in flight a second later.
    void Stop();

    // What there is so far, up to the last full second. isEven: of all threads; if not, some have
    // handed in a second more than its length says. `work` must not keep it.
    void Look(const std::function<void(const VEK_ST_LOAD_SUMMARY& summary, bool isEven)>& work);

    // Flows that have begun, of what Look shows.
    uint64_t CountFlows(const VEK_ST_LOAD_SUMMARY& summary) const;

    // Ends what is still in flight, and the connections.
    VEK_ST_LOAD_SUMMARY Finish();

  private:
    VEK_ST_HTTP_CLIENT_OPTIONS MakeOptions();
    void Prepare();
    void CountUnsent(VEK_ST_LOAD_SUMMARY& summary, CVEKLoadSchedule::Duration end) const;
    void NoteUp(const VEK_ST_HTTP_CONNECTION& connection);
    void NoteDown(const VEK_ST_HTTP_CONNECTION& connection, const VEK_ST_HTTP_FAILURE& failure);
    CVEKLoadWorker& WorkerOf(const VEK_ST_HTTP_CONNECTION& connection) {
        return *workers_[(connection.slot_ + connection.target_) % run_.workers_];
    }

    VEK_ST_LOAD_RUN run_;
    CVEKEventLoops loops_;
    std::unique_ptr<CVEKHttpClient> client_;
    std::vector<std::unique_ptr<CVEKLoadWorker>> workers_;
    std::function<void()> onEnd_;

    std::mutex mutex_;  // of the rest, which is about connecting
    std::condition_variable changed_;
    size_t up_ = 0;
    VEK_ST_HTTP_CONNECTION first_;
    VEK_ST_HTTP_FAILURE failure_;
};

#endif
