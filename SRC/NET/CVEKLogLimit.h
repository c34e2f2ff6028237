// CVEKLogLimit: how many lines a second a peer can have logged about its connection. Without one, a
// peer writes as much of the log as it likes, at a few bytes a line.
//
// While a Scope lives, VEK_PEER_LOG counts the lines of its thread for the connection, and leaves
// out those above the limit; a Warning line tells how many there were, once their second is over,
// at the latest when the connection ends. Lines of VEK_SERVICE_LOG are neither counted nor left
// out: the program's own, in its callbacks too, and those that come once for a connection.
//
// Belongs to the thread that drives the connection.
#ifndef CVEK_LOG_LIMIT_H
#define CVEK_LOG_LIMIT_H

#include <chrono>
#include <cstdint>
#include <string>

#include "VEKServiceLog.h"

class CVEKLogLimit {
  public:
    class Scope {
      public:
        // In detail mode, and without a limit, everything is logged.
        explicit Scope(CVEKLogLimit& limit);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

      private:
        CVEKLogLimit* limit_;
        CVEKLogLimit* before_;
    };

    // name: the connection's, for the line that tells; must outlive the limit.
    explicit CVEKLogLimit(const std::string& name) : name_(name) {}
    CVEKLogLimit(const CVEKLogLimit&) = delete;
    CVEKLogLimit& operator=(const CVEKLogLimit&) = delete;

    // 0: no limit.
    void SetLinesPerSecond(uint32_t lines) { most_ = lines; }
    // Tells of the lines that were left out since it was told last, if any.
    void Tell();

    // Whether a line of this level may be logged now, in the calling thread's scope if there is
    // one.
    static bool Admits(int level);

  private:
    using Clock = std::chrono::steady_clock;

    bool Admit();
    void TellWhenOver(Clock::time_point now);

    const std::string& name_;
    uint32_t most_ = 0;
    Clock::time_point start_;  // of the second that runs
    uint32_t count_ = 0;       // lines in it
    unsigned long leftOut_ = 0;
};

// VEK_SERVICE_LOG for lines that a peer can cause over and over.
#define VEK_PEER_LOG(level, ...) \
    (CVEKLogLimit::Admits(level) ? VEK_SERVICE_LOG(level, __VA_ARGS__) : 1)

#endif
