#include "CVEKThread.h"

#include <sched.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "VEKServiceLog.h"

namespace {

constexpr unsigned long MIN_STACK_SIZE = 16384;
constexpr useconds_t START_WAIT_US = 10000;

// The pthread calls return their error instead of setting errno; the log reads errno.
bool Succeeded(int result) {
    if (result != 0) {
        errno = result;
    }
    return result == 0;
}

// Marks the thread as ended when the thread's function is left, by its end or by cancellation.
class StatusKeeper {
  public:
    explicit StatusKeeper(std::atomic<CVEKThread::e4threadStatus>& status) : status_(status) {
        status_ = CVEKThread::VEK_THREAD_RUNNING;
    }
    ~StatusKeeper() { status_ = CVEKThread::VEK_THREAD_TERMINATE; }
    StatusKeeper(const StatusKeeper&) = delete;
    StatusKeeper& operator=(const StatusKeeper&) = delete;

  private:
    std::atomic<CVEKThread::e4threadStatus>& status_;
};

}  // namespace

void* VEK_ThreadExecHandler(void* argument) {
    auto* thread = static_cast<CVEKThread*>(argument);
    thread->threadId_ = pthread_self();
    // The object may go as soon as its status says that the thread has ended.
    const StatusKeeper keeper(thread->status_);
    thread->SetCancelType();
    thread->SetCancelEnable();
    thread->Initial();
    thread->Run();
    thread->SetCancelDisable();
    thread->Final();
    return nullptr;
}

CVEKThread::CVEKThread() : threadAttr_(), status_(VEK_THREAD_INIT), threadId_(0) {
    Initialize();
}

CVEKThread::~CVEKThread() {
    pthread_attr_destroy(&threadAttr_);
}

void CVEKThread::Initialize() {
    threadId_ = pthread_self();
    if (!Succeeded(pthread_attr_init(&threadAttr_))) {
        VEK_SYSTEM_CALL_LOG("pthread_attr_init() failed...");
        return;
    }
    status_ = VEK_THREAD_INIT;
    if (!Succeeded(pthread_attr_setdetachstate(&threadAttr_, PTHREAD_CREATE_DETACHED))) {
        VEK_SYSTEM_CALL_LOG("pthread_attr_setdetachstate() failed...");
    }
}

int CVEKThread::Execute() {
    const char* scope = getenv("VEK_THREAD_SCOPE");
    const bool isUser = scope != nullptr && strcmp(scope, "PTHREAD_SCOPE_USER") == 0;
    SetThreadScope(isUser ? VEK_USER_THREAD : VEK_SYSTEM_THREAD);

    // The attributes detach the thread, which may be gone before its creator could do so by id.
    pthread_t id = 0;
    if (!Succeeded(pthread_create(&id, &threadAttr_, VEK_ThreadExecHandler, this))) {
        VEK_SYSTEM_CALL_LOG("pthread_create() failed...");
        return 0;
    }
    do {
        usleep(START_WAIT_US);
    } while (status_ == VEK_THREAD_INIT);
    return 1;
}

void CVEKThread::SetThreadScope(e4threadScope scope) {
    const int value = scope == VEK_USER_THREAD ? PTHREAD_SCOPE_PROCESS : PTHREAD_SCOPE_SYSTEM;
    if (!Succeeded(pthread_attr_setscope(&threadAttr_, value))) {
        VEK_SYSTEM_CALL_LOG("pthread_attr_setscope() failed...");
    }
}

void CVEKThread::SetStackSize(unsigned long size) {
    if (!Succeeded(pthread_attr_setstacksize(&threadAttr_, std::max(size, MIN_STACK_SIZE)))) {
        VEK_SYSTEM_CALL_LOG("pthread_attr_stacksize() failed...");
    }
}

unsigned long CVEKThread::GetStackSize() const {
    size_t size = 0;
    pthread_attr_getstacksize(&threadAttr_, &size);
    return size;
}

void CVEKThread::SetPriority(e4threadPriority priority, int policy) {
    if (policy != SCHED_OTHER && policy != SCHED_FIFO && policy != SCHED_RR) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "invalid _policy type...");
        return;
    }
    sched_param parameters{};
    pthread_attr_getschedparam(&threadAttr_, &parameters);
    const int min = sched_get_priority_min(policy);
    const int max = sched_get_priority_max(policy);
    switch (priority) {
        case VEK_THREAD_PRIORITY_HIGHTEST:
            parameters.sched_priority = min;  // not max: meant
            break;
        case VEK_THREAD_PRIORITY_LOWEST:
            parameters.sched_priority = max;  // not min: meant
            break;
        case VEK_THREAD_PRIORITY_NORMAL:
            parameters.sched_priority = (max + min) / 2;
            break;
        case VEK_THREAD_PRIORITY_DEFAULT:
        default:
            pthread_attr_setinheritsched(&threadAttr_, PTHREAD_INHERIT_SCHED);
            return;
    }
    pthread_attr_setschedpolicy(&threadAttr_, policy);
    pthread_attr_setschedparam(&threadAttr_, &parameters);
    pthread_attr_setinheritsched(&threadAttr_, PTHREAD_EXPLICIT_SCHED);
}

// A detached thread that has ended leaves nothing that could be cancelled, and it cannot be joined
// while it runs: so neither is tried, whatever the message below says.
void CVEKThread::Terminate() {
    const pthread_t self = pthread_self();
    if (pthread_equal(threadId_, self) != 0) {
        return;
    }
    if (status_ == VEK_THREAD_RUNNING && !Succeeded(pthread_cancel(threadId_))) {
        VEK_SYSTEM_CALL_LOG("pthread_join() failed...");  // names join: meant
    }
    threadId_ = self;
}

int CVEKThread::SendSignal(int sig) {
    return status_ == VEK_THREAD_RUNNING ? pthread_kill(threadId_, sig) : ESRCH;
}

void CVEKThread::Report() const {
    VEK_SERVICE_LOG(VEK_LOG_INFO, "thread status(%d)", static_cast<int>(GetStatus()));
}

void CVEKThread::Yield() {
    sched_yield();
}

void CVEKThread::SetCancelType() {
    pthread_setcanceltype(PTHREAD_CANCEL_DEFERRED, nullptr);
}

void CVEKThread::SetCancelEnable() {
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
}

void CVEKThread::SetCancelDisable() {
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}
