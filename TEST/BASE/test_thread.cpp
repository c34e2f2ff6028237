#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>

#include "CVEKMutex.h"
#include "CVEKThread.h"
#include "TestSupport.h"

namespace {

struct Thread : CVEKThread {
    void Initial() override {
        sched_param parameters{};
        pthread_getschedparam(pthread_self(), &policy, &parameters);
        priority = parameters.sched_priority;
        pthread_attr_t attributes;
        pthread_getattr_np(pthread_self(), &attributes);
        pthread_attr_getstacksize(&attributes, &stackSize);
        pthread_attr_getdetachstate(&attributes, &detached);
        pthread_attr_destroy(&attributes);
        steps += 'I';
    }
    void Run() override {
        Terminate();  // not itself
        steps += IsSelf() ? 'R' : '?';
        while (!isDone) { usleep(1000); }
    }
    void Final() override { steps += 'F'; }

    std::string steps;
    int policy = -1, priority = -1, detached = -1;
    size_t stackSize = 0;
    std::atomic<bool> isDone{false};
};

TEST(Thread, RunsAsItIsSetUpUntilItsEndOrItsCancellation) {
    const struct {
        CVEKThread::e4threadPriority priority;
        int policy, expected;
        bool isCancelled;
    } cases[] = {
        {CVEKThread::VEK_THREAD_PRIORITY_DEFAULT, SCHED_OTHER, 0, false},
        {CVEKThread::VEK_THREAD_PRIORITY_DEFAULT, SCHED_RR, 0, true},
        {CVEKThread::VEK_THREAD_PRIORITY_NORMAL, SCHED_RR, 50, false},
        {CVEKThread::VEK_THREAD_PRIORITY_HIGHTEST, SCHED_FIFO, 1, false},
        {CVEKThread::VEK_THREAD_PRIORITY_LOWEST, SCHED_RR, 99, true},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.expected);
        const bool isCancelled = test.isCancelled && !IS_SANITIZED;
        Thread thread;
        thread.SetStackSize(1);
        EXPECT_EQ(16384U, thread.GetStackSize());
        thread.SetStackSize(300 << 10);
        thread.SetPriority(test.priority, test.policy);
        EXPECT_EQ(CVEKThread::VEK_THREAD_INIT, thread.GetStatus());
        EXPECT_EQ(ESRCH, thread.SendSignal(0));
        thread.Terminate();
        if (thread.Execute() == 0) {  // who may not be in a hurry
            EXPECT_NE(0, test.expected);
            continue;
        }
        EXPECT_TRUE(thread.IsActive() && !thread.IsSelf());
        EXPECT_EQ(0, thread.SendSignal(0));
        isCancelled ? thread.Terminate() : thread.isDone.store(true);
        EXPECT_TRUE(Eventually([&] { return thread.GetStatus() == CVEKThread::VEK_THREAD_TERMINATE; }));
        EXPECT_EQ(isCancelled ? "IR" : "IRF", thread.steps);
        EXPECT_EQ(test.expected == 0 ? SCHED_OTHER : test.policy, thread.policy);
        EXPECT_EQ(test.expected, thread.priority);
        if (!IS_SANITIZED) { EXPECT_EQ(300U << 10, thread.stackSize); }  // they take more
        EXPECT_EQ(PTHREAD_CREATE_DETACHED, thread.detached);
    }
}

TEST(Thread, SaysWhatItCannotDo) {
    Thread thread;
    setenv("VEK_THREAD_SCOPE", "PTHREAD_SCOPE_USER", 1);
    const std::string log = Capture([&] {
        thread.Report();
        thread.SetPriority(CVEKThread::VEK_THREAD_PRIORITY_NORMAL, 99);
        thread.SetStackSize(1UL << 46);
        EXPECT_EQ(0, thread.Execute());
    });
    unsetenv("VEK_THREAD_SCOPE");
    EXPECT_EQ(4U, FindAll(log,
                          "\\](thread status\\(0\\)|invalid _policy type...|"
                          "\\[95-.*\\]pthread_attr_setscope\\(\\) failed...|"
                          "\\[11-.*\\]pthread_create\\(\\) failed...)$")
                      .size())
        << log;
}

TEST(Mutex, IsHeldByOne) {
    CVEKMutex mutex;
    {
        const CVEKMutexGuard guard(mutex);
        EXPECT_EQ(EBUSY, mutex.TryLock());
    }
    if (!IS_SANITIZED) { EXPECT_EQ(0, mutex.TryLock()); }  // no mutex should be held when it is renewed, says tsan
    mutex.Renew();
    EXPECT_EQ(0, mutex.TryLock());
    mutex.Unlock();
}

}  // namespace
