// CVEKMutex: a robust mutex between the threads of one process, and CVEKMutexGuard, which holds
// one for a scope.
#ifndef CVEK_MUTEX_H
#define CVEK_MUTEX_H

#include <pthread.h>

class CVEKMutex {
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

  private:
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

#endif
