#include "CVEKMutex.h"

CVEKMutex::CVEKMutex() : mutex_(), attr_(), valid_(0) {
    Make();
}

void CVEKMutex::Make() {
    if (pthread_mutexattr_init(&attr_) != 0) {
        return;
    }
    pthread_mutexattr_setrobust(&attr_, PTHREAD_MUTEX_ROBUST);
    if (pthread_mutex_init(&mutex_, &attr_) != 0) {
        pthread_mutexattr_destroy(&attr_);
        return;
    }
    valid_ = 1;
}

CVEKMutex::~CVEKMutex() {
    if (valid_ == 1) {
        pthread_mutex_destroy(&mutex_);
        pthread_mutexattr_destroy(&attr_);
    }
}

void CVEKMutex::Lock() {
    pthread_mutex_lock(&mutex_);
}

int CVEKMutex::TryLock() {
    return pthread_mutex_trylock(&mutex_);
}

void CVEKMutex::Unlock() {
    pthread_mutex_unlock(&mutex_);
}

void CVEKMutex::Renew() {
    if (valid_ == 1) {
        pthread_mutex_destroy(&mutex_);
        pthread_mutexattr_destroy(&attr_);
    }
    valid_ = 0;
    Make();
}

// The variable encloses the time of holding, so that no moment is left in which a handler would
// wait for its own thread.
CVEKReentryGuard::CVEKReentryGuard(CVEKMutex& mutex, std::atomic<bool>& isInside)
    : mutex_(mutex), isInside_(isInside), isEntered_(!isInside_.exchange(true)) {
    if (isEntered_) {
        mutex_.Lock();
    }
}

CVEKReentryGuard::~CVEKReentryGuard() {
    if (isEntered_) {
        mutex_.Unlock();
        isInside_ = false;
    }
}
