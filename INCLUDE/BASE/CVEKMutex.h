// CVEKMutex: a robust mutex between the threads of one process; CVEKOwnedMutex: one that knows its
// holder; and the guards that hold one of either for a scope.
#ifndef CVEK_MUTEX_H
#define CVEK_MUTEX_H

#include <pthread.h>

#include <atomic>

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

// A mutex that knows its holder: a signal handler, or a function that the holder calls, cannot wait
// for it, and finds out.
class CVEKOwnedMutex {
  public:
    CVEKOwnedMutex();

    // Takes the mutex and returns true, or returns false when the calling thread has it already.
    bool Enter();
    // Releases it; the calling thread must have taken it.
    void Leave();
    // As CVEKMutex::Renew.
    void Renew();

  private:
    CVEKMutex mutex_;
    std::atomic<pthread_t> holder_;  // 0 for none
};

// Enters on construction, leaves at the end of the scope what it entered.
class CVEKOwnedMutexGuard {
  public:
    explicit CVEKOwnedMutexGuard(CVEKOwnedMutex& mutex)
        : mutex_(mutex), isEntered_(mutex_.Enter()) {}
    ~CVEKOwnedMutexGuard() {
        if (isEntered_) {
            mutex_.Leave();
        }
    }

    CVEKOwnedMutexGuard(const CVEKOwnedMutexGuard&) = delete;
    CVEKOwnedMutexGuard& operator=(const CVEKOwnedMutexGuard&) = delete;

    // False when the calling thread had the mutex before: what it guards is in use.
    bool IsEntered() const { return isEntered_; }

  private:
    CVEKOwnedMutex& mutex_;
    const bool isEntered_;
};

#endif
