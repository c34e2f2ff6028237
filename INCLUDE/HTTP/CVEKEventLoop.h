// CVEKEventLoop: one event loop. It runs on the thread that calls Run: everything that belongs to
// it, connections, timers and posted work, is done there, one thing after another. CVEKEventLoops
// has a number of loops with a thread for each.
//
// Servers and clients are made on a loop or on a group. They may live longer than it does: what
// they have in flight ends with the loop.
//
// What makes or ends a server or a client, and OnSignal, waits for the loops concerned, or works in
// place of one that does not run. That is for any thread. On a loop's own it is done at once, but
// other loops are waited for there too: where a second loop's thread waits for this one at the same
// time, both wait for ever. A program that makes or ends servers and clients on the threads of
// several loops has each of them on that one loop, or leaves it to a thread which runs none.
//
// Functions that are handed over may do anything but wait: the loop's other work waits for them.
// They must not throw.
#ifndef CVEK_EVENT_LOOP_H
#define CVEK_EVENT_LOOP_H

#include <chrono>
#include <functional>
#include <memory>

#include "CVEKTimer.h"
#include "VEKExport.h"

class CVEKLoopCore;

class VEK_API CVEKEventLoop {
  public:
    // Throws std::system_error when the system has no descriptors left for it.
    CVEKEventLoop();
    // Not while Run is under way. Work that was posted and never run is dropped.
    ~CVEKEventLoop();
    CVEKEventLoop(const CVEKEventLoop&) = delete;
    CVEKEventLoop& operator=(const CVEKEventLoop&) = delete;

    // Works on the calling thread until Stop. Then what is in flight on the loop's connections has
    // been ended and reported, and a further Run goes on with what is left.
    void Run();
    // Has Run return after the work at hand; before Run, the next one returns at once. Any thread.
    void Stop();

    // Has `work` run on the loop's thread, behind what was posted before. Any thread; on the loop's
    // own it runs after the current piece of work, not within it.
    void Post(std::function<void()> work);
    // Call `work` once after, or again and again every `delay`, counted in milliseconds (rounded
    // up; an interval is at least one). Any thread.
    [[nodiscard]] CVEKTimer After(std::chrono::microseconds delay, std::function<void()> work);
    [[nodiscard]] CVEKTimer Every(std::chrono::microseconds delay, std::function<void()> work);
    // Calls `work` once at that moment, as precisely as the system can and the loop is free. The
    // first one takes a descriptor; where there is none, it is late by a millisecond at most. Any
    // thread.
    [[nodiscard]] CVEKTimer At(std::chrono::steady_clock::time_point due,
                               std::function<void()> work);
    // Calls `work` on the loop's thread whenever the process gets the signal, instead of what it
    // would do by itself. For the loop's life; several loops may watch one signal, and all get it.
    // Any thread. Returns false for a signal that cannot be caught.
    bool OnSignal(int signal, std::function<void()> work);

    // The calling thread is the one that runs the loop.
    bool IsCurrent() const;
    // How much longer than it should the loop has last kept timers waiting: what it does is too
    // much for it when this grows. Any thread.
    std::chrono::microseconds GetLag() const;

    // For servers and clients.
    const std::shared_ptr<CVEKLoopCore>& GetCore() const { return core_; }

  private:
    CVEKTimer Start(std::chrono::microseconds delay, bool isRepeated, std::function<void()> work);

    std::shared_ptr<CVEKLoopCore> core_;
};

#endif
