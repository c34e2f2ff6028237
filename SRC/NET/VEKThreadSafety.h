// A lock that clang checks (-Wthread-safety): a field names the lock that guards it, a function the
// lock that it needs, and a use without it does not compile. Other compilers see no annotations.
#ifndef VEK_THREAD_SAFETY_H
#define VEK_THREAD_SAFETY_H

#include <chrono>
#include <condition_variable>
#include <mutex>

#ifdef __clang__
#define VEK_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define VEK_THREAD_ATTRIBUTE(x)
#endif

#define VEK_CAPABILITY(name) VEK_THREAD_ATTRIBUTE(capability(name))
#define VEK_SCOPED_CAPABILITY VEK_THREAD_ATTRIBUTE(scoped_lockable)
#define VEK_GUARDED_BY(lock) VEK_THREAD_ATTRIBUTE(guarded_by(lock))
#define VEK_REQUIRES(...) VEK_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define VEK_EXCLUDES(...) VEK_THREAD_ATTRIBUTE(locks_excluded(__VA_ARGS__))
#define VEK_ACQUIRE(...) VEK_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define VEK_RELEASE(...) VEK_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define VEK_NO_THREAD_CHECK VEK_THREAD_ATTRIBUTE(no_thread_safety_analysis)

class VEK_CAPABILITY("mutex") CVEKLock {
  public:
    void Lock() VEK_ACQUIRE() { mutex_.lock(); }
    void Unlock() VEK_RELEASE() { mutex_.unlock(); }
    // Lets go of the lock, which the caller holds, until `condition` is notified or `limit` has
    // come. Returns false when the limit has come.
    bool WaitUntil(std::condition_variable& condition, std::chrono::steady_clock::time_point limit)
        VEK_REQUIRES(this) VEK_NO_THREAD_CHECK {
        std::unique_lock<std::mutex> lock(mutex_, std::adopt_lock);
        const bool isNotified = condition.wait_until(lock, limit) == std::cv_status::no_timeout;
        lock.release();
        return isNotified;
    }

  private:
    std::mutex mutex_;
};

class VEK_SCOPED_CAPABILITY CVEKLockGuard {
  public:
    explicit CVEKLockGuard(CVEKLock& lock) VEK_ACQUIRE(lock) : lock_(lock) { lock_.Lock(); }
    ~CVEKLockGuard() VEK_RELEASE() { lock_.Unlock(); }
    CVEKLockGuard(const CVEKLockGuard&) = delete;
    CVEKLockGuard& operator=(const CVEKLockGuard&) = delete;

  private:
    CVEKLock& lock_;
};

#endif
