// CVEKMutex: a robust mutex between the threads of one process; CVEKMutexGuard, which holds one for
// a scope; and CVEKReentryGuard, which does so unless the thread has it.
#ifndef CVEK_MUTEX_H
#define CVEK_MUTEX_H

#include <pthread.h>

#include <atomic>

#include "VEKExport.h"

class VEK_API CVEKMutex {
  public:
    CVEKMutex();
    // The mutex must not be held.
    ~CVEKMutex();

    CVEKMutex(const CVEKMutex&) = delete;
    CVEKMutex& operator=(const CVEKMutex&) = delete;

    // Takes the mutex, waiting for it. Not recursive. A thread must release it before it ends:
    // after one that did not, the mutex can be taken once more and is of no use from its release
    // on.
    void Lock();
    // Takes the mutex if it is free. Returns 0 when taken, else an error number (EBUSY when held).
    int TryLock();
    // Releases the mutex; the calling thread must hold it.
    void Unlock();
    // Makes the mutex anew, and free, in a child process: there the thread that forked counts as
    // another one than that which took the mutex, and cannot release it.
    void Renew();

  private:
    void Make();

    pthread_mutex_t mutex_;
    pthread_mutexattr_t attr_;
    int valid_;  // 1 when both of the above were initialised
};

// Locks on construction, unlocks at the end of the scope.
class CVEKMutexGuard {
  public:
    explicit CVEKMutexGuard(CVEKMutex& mutex) : mutex_(mutex) { mutex_.Lock(); }
    ~CVEKMutexGuard() { mutex_.Unlock(); }

    CVEKMutexGuard(const CVEKMutexGuard&) = delete;
    CVEKMutexGuard& operator=(const CVEKMutexGuard&) = delete;

  private:
    CVEKMutex& mutex_;
};

// Holds a mutex for a scope, unless the calling thread is inside such a scope already: a signal
// handler that has interrupted it, or a function that it calls, cannot wait for it. isInside: says
// so, a thread_local variable, false at first.
class CVEKReentryGuard {
  public:
    CVEKReentryGuard(CVEKMutex& mutex, std::atomic<bool>& isInside);
    ~CVEKReentryGuard();

    CVEKReentryGuard(const CVEKReentryGuard&) = delete;
    CVEKReentryGuard& operator=(const CVEKReentryGuard&) = delete;

    // False when the calling thread was inside before: what the mutex guards is in use.
    bool IsEntered() const { return isEntered_; }

  private:
    CVEKMutex& mutex_;
    std::atomic<bool>& isInside_;
    const bool isEntered_;
};

#endif
