#include "CVEKLoopCore.h"

#include <malloc.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <new>
#include <system_error>
#include <utility>

namespace {

constexpr uint64_t NS_PER_MS = 1000000;
// Connections that must have gone, and the quiet behind the last of them, before the allocator is
// asked to return memory: it takes its time for that.
constexpr size_t GONE_COUNT = 256;
constexpr uint64_t GONE_QUIET_MS = 300;

void Check(int result, const char* call) {
    if (result != 0) {
        throw std::system_error(-result, std::generic_category(), call);
    }
}

class WorkTask : public CVEKLoopTask {
  public:
    explicit WorkTask(std::function<void()> work) : work_(std::move(work)) {}
    void Run() override {
        const std::unique_ptr<WorkTask> owner(this);
        work_();
    }

  private:
    std::function<void()> work_;
};

// Work that somebody waits for, who keeps the task: what ends servers and clients needs no memory.
class InvokeTask : public CVEKLoopTask {
  public:
    explicit InvokeTask(const std::function<void()>& work) : work_(work) {}
    void Run() override {
        std::exception_ptr error;
        try {
            work_();
        } catch (...) {
            error = std::current_exception();
        }
        const std::lock_guard<std::mutex> guard(mutex_);
        error_ = error;
        isDone_ = true;
        done_.notify_one();  // the task may go as soon as the lock does
    }
    // Until it has run; with what it has thrown.
    void Wait() {
        std::unique_lock<std::mutex> guard(mutex_);
        done_.wait(guard, [this] { return isDone_; });
        if (error_ != nullptr) {
            std::rethrow_exception(error_);
        }
    }

  private:
    const std::function<void()>& work_;
    std::mutex mutex_;
    std::condition_variable done_;
    std::exception_ptr error_;
    bool isDone_ = false;
};

template <class HANDLE>
uv_handle_t* AsHandle(HANDLE* handle) {
    return reinterpret_cast<uv_handle_t*>(handle);
}

template <class HANDLE>
CVEKLoopCore& CoreOf(HANDLE* handle) {
    return *static_cast<CVEKLoopCore*>(handle->data);
}

}  // namespace

struct CVEKLoopCore::Signal {
    uv_signal_t handle{};
    std::function<void()> work;
};

CVEKLoopCore::CVEKLoopCore() {
    Check(uv_loop_init(&loop_), "uv_loop_init");
    const int result = uv_async_init(&loop_, &wake_, OnWake);
    if (result != 0) {
        uv_loop_close(&loop_);
        Check(result, "uv_async_init");
    }
    uv_timer_init(&loop_, &timer_);
    uv_prepare_init(&loop_, &prepare_);
    uv_check_init(&loop_, &check_);
    uv_idle_init(&loop_, &idle_);
    wake_.data = timer_.data = prepare_.data = check_.data = this;
    // Timers run before the wait, and what closes after it: both phases settle.
    uv_prepare_start(&prepare_, [](uv_prepare_t* handle) { CoreOf(handle).Settle(); });
    uv_check_start(&check_, [](uv_check_t* handle) { CoreOf(handle).Settle(); });
}

CVEKLoopCore::~CVEKLoopCore() {
    for (const auto& signal : signals_) {
        uv_close(AsHandle(&signal->handle), nullptr);
    }
    uv_close(AsHandle(&wake_), nullptr);
    uv_close(AsHandle(&timer_), nullptr);
    uv_close(AsHandle(&prepare_), nullptr);
    uv_close(AsHandle(&check_), nullptr);
    uv_close(AsHandle(&idle_), nullptr);
    if (fineFd_ >= 0) {
        uv_close(AsHandle(&finePoll_), nullptr);
    }
    uv_run(&loop_, UV_RUN_DEFAULT);  // until the last one is closed
    uv_loop_close(&loop_);
    if (fineFd_ >= 0) {
        close(fineFd_);
    }
}

void CVEKLoopCore::Run() {
    {
        std::unique_lock<std::mutex> guard(mutexT_);
        left_.wait(guard, [this] { return !isRunning_ && !isHeld_; });
        isRunning_ = true;
        thread_ = std::this_thread::get_id();
    }
    uv_async_send(&wake_);
    while (!isStopping_) {
        uv_run(&loop_, UV_RUN_ONCE);
    }
    isStopping_ = false;
    EndResidents();
    RunTasks();
    {
        const std::lock_guard<std::mutex> guard(mutexT_);
        isRunning_ = false;
        isHeld_ = true;
    }
    RunTasks();  // what was posted before isRunning_ fell may have somebody waiting
    LetGo();
}

// Takes the loop's place while it does not run. False: it does.
bool CVEKLoopCore::Hold() {
    std::unique_lock<std::mutex> guard(mutexT_);
    left_.wait(guard, [this] { return isRunning_ || !isHeld_; });
    if (isRunning_) {
        return false;
    }
    isHeld_ = true;
    thread_ = std::this_thread::get_id();
    return true;
}

void CVEKLoopCore::LetGo() {
    const std::lock_guard<std::mutex> guard(mutexT_);
    thread_ = std::thread::id();
    isHeld_ = false;
    left_.notify_all();
}

void CVEKLoopCore::Stop() {
    isStopping_ = true;
    uv_async_send(&wake_);
}

void CVEKLoopCore::Close() {
    Invoke([this] { EndResidents(); });
    CVEKLoopTask* task = nullptr;
    {
        const std::lock_guard<std::mutex> guard(mutexT_);
        isClosed_ = true;
        task = std::exchange(first_, nullptr);
    }
    while (task != nullptr) {
        std::exchange(task, task->next_)->Drop();
    }
    for (const CVEKLoopTimers* timers : {&timers_, &fine_}) {
        while (!timers->IsEmpty()) {
            CVEKLoopTimer* timer = timers->GetFirst();
            Disarm(*timer);
            timer->OnTimerDropped();
        }
    }
}

void CVEKLoopCore::Post(CVEKLoopTask* task) {
    bool isFirst = false;
    {
        std::unique_lock<std::mutex> guard(mutexT_);
        if (isClosed_) {
            guard.unlock();
            task->Drop();
            return;
        }
        isFirst = first_ == nullptr;
        Append(task);
    }
    if (isFirst) {
        uv_async_send(&wake_);
    }
}

void CVEKLoopCore::Post(std::function<void()> work) {
    Post(new WorkTask(std::move(work)));
}

void CVEKLoopCore::Invoke(const std::function<void()>& work) {
    if (IsCurrent()) {
        work();
        return;
    }
    if (!Hold()) {
        InvokeTask task(work);
        if (PostWhileRunning(task)) {
            task.Wait();
            return;
        }
        Invoke(work);  // it has ended meanwhile
        return;
    }
    const std::unique_ptr<CVEKLoopCore, void (*)(CVEKLoopCore*)> held(
        this, [](CVEKLoopCore* core) { core->LetGo(); });
    RunTasks();
    work();
}

// False when the loop does not run: nobody may come for the task.
bool CVEKLoopCore::PostWhileRunning(CVEKLoopTask& task) {
    {
        const std::lock_guard<std::mutex> guard(mutexT_);
        if (!isRunning_) {
            return false;
        }
        Append(&task);
    }
    uv_async_send(&wake_);
    return true;
}

void CVEKLoopCore::Append(CVEKLoopTask* task) {
    (first_ == nullptr ? first_ : last_->next_) = task;
    last_ = task;
}

void CVEKLoopCore::OnWake(uv_async_t* handle) {
    CoreOf(handle).RunTasks();
}

void CVEKLoopCore::RunTasks() {
    CVEKLoopTask* task = nullptr;
    {
        const std::lock_guard<std::mutex> guard(mutexT_);
        task = std::exchange(first_, nullptr);
        last_ = nullptr;
    }
    while (task != nullptr) {
        CVEKLoopTask* next = std::exchange(task->next_, nullptr);
        task->Run();
        task = next;
    }
}

void CVEKLoopCore::Arm(CVEKLoopTimer& timer, uint64_t due) {
    Disarm(timer);
    timers_.Add(timer, std::max(due, leastDue_));
    SetTimer();
}

// The library's timer stands for the first of ours; one that is too early finds nothing due.
void CVEKLoopCore::SetTimer() {
    const uint64_t due = timers_.GetFirst()->GetDue();
    if (uv_is_active(AsHandle(&timer_)) != 0 && timerDue_ <= due) {
        return;
    }
    timerDue_ = due;
    const uint64_t now = uv_now(&loop_);
    uv_timer_start(&timer_, OnTimer, due > now ? due - now : 0, 0);
}

void CVEKLoopCore::OnTimer(uv_timer_t* handle) {
    CoreOf(handle).RunTimers();
}

void CVEKLoopCore::RunTimers() {
    if (!timers_.IsEmpty()) {
        const uint64_t nowNs = uv_hrtime();
        const uint64_t dueNs = timers_.GetFirst()->GetDue() * NS_PER_MS;
        lagUs_ = nowNs > dueNs ? static_cast<int64_t>((nowNs - dueNs) / 1000) : 0;
    }
    const uint64_t now = uv_now(&loop_);
    leastDue_ = now + 1;
    while (!timers_.IsEmpty() && timers_.GetFirst()->GetDue() <= now) {
        CVEKLoopTimer* timer = timers_.GetFirst();
        Disarm(*timer);
        timer->OnTimer();
    }
    leastDue_ = 0;
    if (!timers_.IsEmpty()) {
        SetTimer();
    }
}

void CVEKLoopCore::ArmFine(CVEKLoopTimer& timer, uint64_t due) {
    Disarm(timer);
    if (!OpenFineTimer()) {
        Arm(timer, due / NS_PER_MS + 1);
        return;
    }
    fine_.Add(timer, std::max(due, leastFineDue_));
    if (fine_.GetFirst() == &timer) {
        SetFineTimer();
    }
}

// False: the system has no descriptor for it.
bool CVEKLoopCore::OpenFineTimer() {
    if (fineFd_ >= 0) {
        return true;
    }
    const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd < 0 || uv_poll_init(&loop_, &finePoll_, fd) != 0) {
        close(fd);
        return false;
    }
    fineFd_ = fd;
    finePoll_.data = this;
    uv_poll_start(&finePoll_, UV_READABLE,
                  [](uv_poll_t* handle, int, int) { CoreOf(handle).RunFineTimers(); });
    return true;
}

void CVEKLoopCore::SetFineTimer() {
    constexpr uint64_t NS_PER_S = 1000 * NS_PER_MS;
    const uint64_t due = fine_.GetFirst()->GetDue();
    itimerspec time{};
    time.it_value.tv_sec = static_cast<time_t>(due / NS_PER_S);
    time.it_value.tv_nsec = static_cast<long>(due % NS_PER_S);
    timerfd_settime(fineFd_, TFD_TIMER_ABSTIME, &time, nullptr);
}

void CVEKLoopCore::RunFineTimers() {
    uint64_t expirations = 0;
    if (read(fineFd_, &expirations, sizeof expirations) < 0) {
        return;  // it was set anew meanwhile
    }
    const uint64_t now = uv_hrtime();
    leastFineDue_ = now + 1;
    while (!fine_.IsEmpty() && fine_.GetFirst()->GetDue() <= now) {
        CVEKLoopTimer* timer = fine_.GetFirst();
        Disarm(*timer);
        timer->OnTimer();
    }
    leastFineDue_ = 1;
    if (!fine_.IsEmpty()) {
        SetFineTimer();
    }
}

void CVEKLoopCore::Mark(CVEKLoopSettler& settler) {
    if (settler.place_ != nullptr) {
        return;
    }
    if (marked_ == nullptr) {
        uv_idle_start(&idle_, [](uv_idle_t*) {});
    }
    settler.place_ = markedEnd_;
    *markedEnd_ = &settler;
    markedEnd_ = &settler.next_;
}

void CVEKLoopCore::Unmark(CVEKLoopSettler& settler) {
    if (settler.place_ == nullptr) {
        return;
    }
    if (settler.next_ != nullptr) {
        settler.next_->place_ = settler.place_;
    } else if (markedEnd_ == &settler.next_) {
        markedEnd_ = settler.place_;
    }
    *settler.place_ = std::exchange(settler.next_, nullptr);
    settler.place_ = nullptr;
    if (marked_ == nullptr) {
        uv_idle_stop(&idle_);  // or the loop would not wait any more
    }
}

// Those who ask again meanwhile have their turn after the next wait, which returns at once.
void CVEKLoopCore::Settle() {
    if (marked_ == nullptr) {
        return;
    }
    settling_ = std::exchange(marked_, nullptr);
    settling_->place_ = &settling_;
    markedEnd_ = &marked_;
    while (settling_ != nullptr) {
        CVEKLoopSettler* settler = settling_;
        Unmark(*settler);
        settler->OnSettle();
    }
}

void CVEKLoopCore::Enter(CVEKLoopResident& resident) {
    residents_.push_back(&resident);
}

void CVEKLoopCore::Leave(CVEKLoopResident& resident) {
    residents_.erase(std::remove(residents_.begin(), residents_.end(), &resident),
                     residents_.end());
}

void CVEKLoopCore::EndResidents() {
    for (CVEKLoopResident* resident : residents_) {
        resident->isToHear_ = true;
    }
    const auto find = [this] {  // each of them may have others leave, or enter
        return std::find_if(residents_.begin(), residents_.end(),
                            [](const CVEKLoopResident* one) { return one->isToHear_; });
    };
    for (auto place = find(); place != residents_.end(); place = find()) {
        (*place)->isToHear_ = false;
        (*place)->OnLoopEnd();
    }
}

bool CVEKLoopCore::WatchSignal(int signal, std::function<void()> work) {
    auto entry = std::make_unique<Signal>();
    entry->work = std::move(work);
    uv_signal_init(&loop_, &entry->handle);
    entry->handle.data = entry.get();
    const int result = uv_signal_start(
        &entry->handle,
        [](uv_signal_t* handle, int) { static_cast<Signal*>(handle->data)->work(); }, signal);
    signals_.push_back(std::move(entry));
    return result == 0;
}

bool CVEKLoopCore::HasRoomFor(int fd) {
    const auto needed = static_cast<size_t>(fd) + 1;
    if (needed <= watched_) {
        return true;
    }
    size_t size = 1;
    while (size < needed + 2) {  // as the library does: a power of two, less two
        size *= 2;
    }
    void* probe = malloc(size * sizeof(void*));
    free(probe);
    watched_ = probe != nullptr ? size - 2 : watched_;
    return probe != nullptr;
}

void CVEKLoopCore::NoteGone() {
    goneTime_ = GetNow();
    if (++gone_ >= GONE_COUNT && !trim_.IsArmed()) {
        Arm(trim_, goneTime_ + GONE_QUIET_MS);
    }
}

void CVEKLoopCore::TrimWhenQuiet() {
    const uint64_t due = goneTime_ + GONE_QUIET_MS;
    if (GetNow() < due) {
        Arm(trim_, due);
        return;
    }
    gone_ = 0;
    malloc_trim(0);
}

CVEKLoopPoll* CVEKLoopPoll::Open(CVEKLoopCore& core, int fd, Callback callback, void* owner) {
    auto* poll = core.HasRoomFor(fd) ? new (std::nothrow) CVEKLoopPoll() : nullptr;
    if (poll == nullptr || uv_poll_init(core.GetLoop(), &poll->handle_, fd) != 0) {
        delete poll;
        return nullptr;
    }
    poll->handle_.data = poll;
    poll->callback_ = callback;
    poll->owner_ = owner;
    poll->fd_ = fd;
    return poll;
}

bool CVEKLoopPoll::Watch(int events) {
    if (events == events_) {
        return true;
    }
    events_ = events;
    if (events == 0) {
        return uv_poll_stop(&handle_) == 0;
    }
    return uv_poll_start(&handle_, events, [](uv_poll_t* handle, int status, int ready) {
               auto* poll = static_cast<CVEKLoopPoll*>(handle->data);
               if (status < 0) {
                   poll->events_ = 0;  // the library has stopped watching
               }
               poll->callback_(poll->owner_, status, ready);
           }) == 0;
}

void CVEKLoopPoll::Close() {
    uv_poll_stop(&handle_);
    uv_close(AsHandle(&handle_),
             [](uv_handle_t* handle) { delete static_cast<CVEKLoopPoll*>(handle->data); });
}
