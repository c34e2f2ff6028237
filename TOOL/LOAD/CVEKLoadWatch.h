// CVEKLoadWatch: watches over a run from the main thread: signals, conditions to end it early, the
// screen. All of it on the thread that calls Run.
#ifndef CVEK_LOAD_WATCH_H
#define CVEK_LOAD_WATCH_H

#include <chrono>
#include <functional>
#include <string>

#include "CVEKEventLoop.h"
#include "CVEKLoadEngine.h"
#include "CVEKLoadScreen.h"
#include "VEKLoadOptions.h"

class CVEKLoadWatch {
  public:
    // cause: as a summary's endedBy_; text: for a line, or empty.
    using OnEnd = std::function<void(const char* cause, const std::string& text)>;

    // The engine is connected. onEnd: the run ends early, for what this one has seen.
    CVEKLoadWatch(const VEK_ST_LOAD_OPTIONS& options, CVEKLoadEngine& engine, OnEnd onEnd);

    // Starts the run at that moment, and lets it go on to its end. Returns what has brought it
    // about.
    std::string Run(std::chrono::steady_clock::time_point start);
    // Ends the sending for this cause, if nothing else has.
    void End(const std::string& cause);

    // Where more can be done meanwhile.
    CVEKEventLoop& GetLoop() { return loop_; }

  private:
    void OnSignal(int signal);
    void Look(const VEK_ST_LOAD_SUMMARY& summary);
    void Judge(const VEK_ST_LOAD_SUMMARY& summary);
    void Draw(const VEK_ST_LOAD_SUMMARY& summary);
    void EndHere(const char* cause, const std::string& text);

    const VEK_ST_LOAD_OPTIONS& options_;
    CVEKLoadEngine& engine_;
    const OnEnd onEnd_;
    CVEKLoadScreen screen_;
    CVEKEventLoop loop_;
    bool isSignalled_ = false;
    int unevenLooks_ = 0;
    std::string endedBy_;
};

#endif
