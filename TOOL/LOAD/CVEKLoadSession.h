// CVEKLoadSession: a run from its options to its results, step by step, so that several programs
// can do each step together.
//
// Life: Prepare, Connect, a CVEKLoadWatch on the engine, Finish, Conclude. One thread at a time.
// Where a step returns another status than VEK_LOAD_WELL, `error` says why and none follows.
#ifndef CVEK_LOAD_SESSION_H
#define CVEK_LOAD_SESSION_H

#include <memory>
#include <string>

#include "CVEKLoadEngine.h"
#include "CVEKLoadOutputs.h"
#include "CVEKLoadRequestLog.h"
#include "VEKLoadOptions.h"
#include "VEKLoadStatus.h"

class CVEKLoadMetrics;

// What the program needs before its first session.
void VEK_LOAD_INITIALIZE();

class CVEKLoadSession {
  public:
    // The options must stay.
    explicit CVEKLoadSession(const VEK_ST_LOAD_OPTIONS& options);
    ~CVEKLoadSession();
    CVEKLoadSession(const CVEKLoadSession&) = delete;
    CVEKLoadSession& operator=(const CVEKLoadSession&) = delete;

    // Reads what the options name, and opens what they write.
    int Prepare(std::string& error);
    // Then, up to Connect: what is to be done.
    VEK_ST_LOAD_PLAN& GetPlan() { return plan_; }

    // Opens all connections.
    int Connect(std::string& error);
    CVEKLoadEngine& GetEngine() { return *engine_; }

    // Ends the connections, and adds up. endedBy: from the watch.
    VEK_ST_LOAD_SUMMARY Finish(const std::string& endedBy);

    // Everything has been counted: judges it, writes it down, and finds the exit status.
    int Conclude(VEK_ST_LOAD_SUMMARY& summary);
    static int Conclude(const VEK_ST_LOAD_OPTIONS& options, CVEKLoadOutputs& outputs,
                        VEK_ST_LOAD_SUMMARY& summary);

  private:
    bool HasDescriptors(std::string& error) const;

    const VEK_ST_LOAD_OPTIONS& options_;
    VEK_ST_LOAD_PLAN plan_;
    CVEKLoadOutputs outputs_;
    std::unique_ptr<CVEKLoadRequestLog> log_;  // null: nobody wants lines
    std::unique_ptr<CVEKLoadEngine> engine_;
#ifdef VEK_PROMETHEUS
    std::unique_ptr<CVEKLoadMetrics> metrics_;
#endif
};

#endif
