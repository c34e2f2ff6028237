// CVEKThread: base of a detached worker thread. A subclass supplies Initial, Run and Final;
// Execute starts a thread that runs them in that order.
//
// A thread object is started once and must outlive its thread: the thread cannot be joined, so
// its owner asks Run to return (by a flag of the subclass, say) and then polls GetStatus until it
// is no longer VEK_THREAD_RUNNING before the object goes.
#ifndef CVEK_THREAD_H
#define CVEK_THREAD_H

#include <pthread.h>

#include <atomic>

#include "VEKExport.h"

class VEK_API CVEKThread {
  public:
    enum e4threadStatus {
        VEK_THREAD_INIT = 0,       // constructed, not started
        VEK_THREAD_RUNNING = 1,    // from the first instruction of the thread
        VEK_THREAD_TERMINATE = 2,  // Final has returned, or the thread was cancelled
    };
    enum e4threadScope {
        VEK_SYSTEM_THREAD = 0,  // system contention scope
        VEK_USER_THREAD = 1,    // process contention scope
    };
    enum e4threadPriority {
        VEK_THREAD_PRIORITY_HIGHTEST = 0,
        VEK_THREAD_PRIORITY_LOWEST = 1,
        VEK_THREAD_PRIORITY_NORMAL = 2,
        VEK_THREAD_PRIORITY_DEFAULT = 3,
    };

    CVEKThread();
    virtual ~CVEKThread();

    CVEKThread(const CVEKThread&) = delete;
    CVEKThread& operator=(const CVEKThread&) = delete;

    // The body of the thread, in this order. Only Initial and Run can be cancelled.
    virtual void Initial() = 0;
    virtual void Run() = 0;
    virtual void Final() = 0;

    // Sets up the attributes of the thread to come; the constructor has called it.
    void Initialize();
    // Starts the thread and returns once it runs, after 10 ms at the earliest. Its contention scope
    // is the process when the environment variable VEK_THREAD_SCOPE is "PTHREAD_SCOPE_USER", else
    // the system. Returns 1, or 0 when the thread could not be made.
    int Execute();
    // Any thread may ask.
    e4threadStatus GetStatus() const { return status_; }
    // From the first instruction of the thread until it has ended. Any thread may ask.
    bool IsActive() const { return status_ == VEK_THREAD_RUNNING; }
    // True when the calling thread is the one that was started.
    bool IsSelf() const { return IsActive() && pthread_equal(threadId_, pthread_self()) != 0; }
    // Logs the status at level Info.
    void Report() const;

    // The following three are for the thread to be started.
    void SetThreadScope(e4threadScope scope);
    // In bytes; less than 16384 is taken as 16384.
    void SetStackSize(unsigned long size);
    unsigned long GetStackSize() const;
    // policy: SCHED_OTHER (0), SCHED_FIFO (1) or SCHED_RR (2); any other is refused with an Error
    // line. HIGHTEST gives the policy's minimum priority and LOWEST its maximum: meant. DEFAULT
    // inherits the creator's scheduling.
    void SetPriority(e4threadPriority priority, int policy);

    // Cancels the thread at its next cancellation point and does not wait for it; nothing happens
    // when the calling thread is the thread itself, or when no thread runs.
    void Terminate();
    // Sends the signal `sig` to the thread. Returns 0 or an error number (ESRCH when none runs).
    int SendSignal(int sig);

    // The following four are for the calling thread.
    void Yield();
    void SetCancelType();
    void SetCancelEnable();
    void SetCancelDisable();

  private:
    friend void* VEK_ThreadExecHandler(void* thread);

    pthread_attr_t threadAttr_;
    // Written by the thread, polled by its owner without a lock.
    std::atomic<e4threadStatus> status_;
    std::atomic<pthread_t> threadId_;
};

#endif
