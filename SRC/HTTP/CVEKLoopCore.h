// CVEKLoopCore: what a CVEKEventLoop is made of. One thread runs it; Post, Invoke, Stop, IsCurrent
// and GetLag are for any.
//
// One pass of the loop waits for events, hands them out, does what was posted and then settles
// those who asked for it: what several events cause for one connection leaves it together.
#ifndef CVEK_LOOP_CORE_H
#define CVEK_LOOP_CORE_H

#include <uv.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "CVEKLoopTimer.h"

// A piece of work for the loop; Run disposes of the object.
class CVEKLoopTask {
  public:
    virtual ~CVEKLoopTask() = default;
    virtual void Run() = 0;
    // The loop has ended for good. Disposes of the object too.
    virtual void Drop() { delete this; }

  private:
    friend class CVEKLoopCore;
    CVEKLoopTask* next_ = nullptr;
};

// Somebody with something to do at the end of the pass.
class CVEKLoopSettler {
  public:
    virtual ~CVEKLoopSettler() = default;
    virtual void OnSettle() = 0;

  private:
    friend class CVEKLoopCore;
    CVEKLoopSettler* next_ = nullptr;    // among those that are marked
    CVEKLoopSettler** place_ = nullptr;  // what leads to it there; null: it is not marked
};

// Somebody who lives on the loop and must know of its end. Once for each end.
class CVEKLoopResident {
  public:
    virtual ~CVEKLoopResident() = default;
    virtual void OnLoopEnd() = 0;

  private:
    friend class CVEKLoopCore;
    bool isToHear_ = false;  // of the end that is under way
};

class CVEKLoopCore {
  public:
    CVEKLoopCore();
    ~CVEKLoopCore();
    CVEKLoopCore(const CVEKLoopCore&) = delete;
    CVEKLoopCore& operator=(const CVEKLoopCore&) = delete;

    void Run();
    void Stop();
    bool IsCurrent() const { return thread_.load() == std::this_thread::get_id(); }
    std::chrono::microseconds GetLag() const { return std::chrono::microseconds(lagUs_.load()); }

    // No more work: ends what lives on the loop, drops what was posted and what will be. For the
    // loop's owner, while it does not run.
    void Close();
    // Takes the task; it runs on the loop's thread.
    void Post(CVEKLoopTask* task);
    void Post(std::function<void()> work);
    // Runs `work` on the loop's thread, or here where the loop does not run, and returns when it is
    // done. Not on the thread of another loop that waits for this one.
    void Invoke(const std::function<void()>& work);

    // The rest is the loop's thread's.
    uv_loop_t* GetLoop() { return &loop_; }
    // Milliseconds of the steady clock, as of this pass.
    uint64_t GetNow() const { return uv_now(&loop_); }
    void Arm(CVEKLoopTimer& timer, uint64_t due);
    // Moves the deadline forward, or sets it; a later one than there is changes nothing.
    void ArmBy(CVEKLoopTimer& timer, uint64_t due) {
        if (!timer.IsArmed() || due < timer.GetDue()) {
            Arm(timer, due);
        }
    }
    // Sets the deadline in nanoseconds of the steady clock. It costs a descriptor for the loop and
    // a system call each time: for those who cannot do with milliseconds.
    void ArmFine(CVEKLoopTimer& timer, uint64_t due);
    static void Disarm(CVEKLoopTimer& timer) { CVEKLoopTimers::Remove(timer); }
    // Has OnSettle called at the end of the pass, or before the next wait.
    void Mark(CVEKLoopSettler& settler);
    void Unmark(CVEKLoopSettler& settler);
    void Enter(CVEKLoopResident& resident);
    void Leave(CVEKLoopResident& resident);
    bool WatchSignal(int signal, std::function<void()> work);
    // The library has memory to watch the descriptor. It ends the process where it finds none.
    bool HasRoomFor(int fd);
    // A connection has gone: memory is returned to the system when many have.
    void NoteGone();

  private:
    struct Signal;
    // Comes when connections have gone and it has been quiet since.
    class Trim : public CVEKLoopTimer {
      public:
        explicit Trim(CVEKLoopCore& core) : core_(core) {}
        void OnTimer() override { core_.TrimWhenQuiet(); }

      private:
        CVEKLoopCore& core_;
    };

    static void OnWake(uv_async_t* handle);
    static void OnTimer(uv_timer_t* handle);
    bool Hold();
    void LetGo();
    bool PostWhileRunning(CVEKLoopTask& task);
    void Append(CVEKLoopTask* task);
    void RunTasks();
    void RunTimers();
    void Settle();
    void EndResidents();
    void SetTimer();
    bool OpenFineTimer();
    void SetFineTimer();
    void RunFineTimers();
    void TrimWhenQuiet();

    uv_loop_t loop_{};
    uv_async_t wake_{};
    uv_timer_t timer_{};
    uv_prepare_t prepare_{};
    uv_check_t check_{};
    uv_idle_t idle_{};  // active: the next wait returns at once

    std::atomic<std::thread::id> thread_{};
    std::atomic<bool> isStopping_{false};
    std::atomic<int64_t> lagUs_{0};

    std::mutex mutexT_;
    CVEKLoopTask* first_ = nullptr;  // under mutexT_, as the next five
    CVEKLoopTask* last_ = nullptr;
    bool isRunning_ = false;
    bool isHeld_ = false;  // somebody works in the loop's place
    bool isClosed_ = false;
    std::condition_variable left_;  // nobody runs or holds the loop any more

    CVEKLoopTimers timers_;
    uint64_t timerDue_ = 0;  // of timer_, while it is active
    // While timers run: one that is set for now or before has its turn behind the loop's other
    // work, which those that are set again and again would keep out for ever.
    uint64_t leastDue_ = 0;
    CVEKLoopTimers fine_;
    uint64_t leastFineDue_ = 1;  // the same; the system takes 0 for no time at all
    int fineFd_ = -1;            // a timer of the system, for fine_
    uv_poll_t finePoll_{};
    CVEKLoopSettler* marked_ = nullptr;  // those who asked, in order, which needs no memory
    CVEKLoopSettler** markedEnd_ = &marked_;
    CVEKLoopSettler* settling_ = nullptr;
    std::vector<CVEKLoopResident*> residents_;
    std::vector<std::unique_ptr<Signal>> signals_;
    size_t watched_ = 0;  // descriptors below this one have room in the library's table
    Trim trim_{*this};
    size_t gone_ = 0;  // connections, since memory was returned
    uint64_t goneTime_ = 0;
};

// Waits for one descriptor on a loop, which must not be closed before. Its memory goes when the
// loop has let go of it.
class CVEKLoopPoll {
  public:
    using Callback = void (*)(void* owner, int status, int events);

    // Null when the loop cannot wait for the descriptor.
    static CVEKLoopPoll* Open(CVEKLoopCore& core, int fd, Callback callback, void* owner);
    // UV_READABLE, UV_WRITABLE or both; 0: nothing for now. False when the system refuses.
    bool Watch(int events);
    void Close();
    int GetDescriptor() const { return fd_; }

  private:
    CVEKLoopPoll() = default;
    ~CVEKLoopPoll() = default;

    uv_poll_t handle_{};
    Callback callback_ = nullptr;
    void* owner_ = nullptr;
    int fd_ = -1;
    int events_ = 0;
};

#endif
