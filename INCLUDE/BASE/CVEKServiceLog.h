// CVEKServiceLog: formats log lines and emits them. The process has one, G_SERVICE_LOGGER, which
// VEKServiceLog.h opens, closes and logs through; include that header to log.
//
// A line is "[hh:mm:ss:uuuuuu][label  ]" and the message, or, when the environment variable
// VEK_LOG_FORMAT is set to anything but "STANDARD" (in any letter case),
// "CCYY/MM/DD-hh:mm:ss.uuuuuu   pid " and the message. Times are local.
//
// Any thread may log at any time, also while the log is closed. Opening is for one thread.
#ifndef CVEK_SERVICE_LOG_H
#define CVEK_SERVICE_LOG_H

#include <atomic>
#include <cstdarg>

#include "CVEKMutex.h"

class CVEKServiceLog {
  public:
    // A log that drops everything until it is opened.
    CVEKServiceLog();
    // Calls Finalize.
    ~CVEKServiceLog();

    CVEKServiceLog(const CVEKServiceLog&) = delete;
    CVEKServiceLog& operator=(const CVEKServiceLog&) = delete;

    // Opens in console mode with every level on. Returns 1, or 0 when memory ran out (after saying
    // so on standard output).
    int Initialize();
    // Closes: from here on every logging call returns at once. Safe to repeat; there is no way
    // back.
    void Finalize();

    // The levels that are let through, as a sum of VEK_LOG_ values.
    void SetMask(int mask) { logMask_ = mask; }
    int GetMask() const { return logMask_; }

    // Logs one line, as printf does. Always returns 1: logging never fails towards its caller.
    int MessageLog(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    // The same to the thread log `name`, always in the short line format. In console mode the name
    // plays no part.
    int MessageLog(const char* name, int level, const char* format, ...)
        __attribute__((format(printf, 4, 5)));
    // The same with the argument list, and `lead` put before the message as it is.
    int LeadMessageLog(int level, const char* lead, const char* format, va_list args)
        __attribute__((format(printf, 4, 0)));

    // Dumps up to 4096 bytes at level Debug, behind `title`, to the main log or to the thread log
    // `name`; the form of the dump is that of CVEKConv::HexaDump, the line format the short one. A
    // title that would not fit is cut. Returns 1, also when Debug is masked or the log closed, and
    // 0 when the data is too long.
    int HexaLog(const char* title, const unsigned char* data, unsigned long length);
    int HexaLog(const char* name, const char* title, const unsigned char* data,
                unsigned long length);

    // True when a line of this level would be emitted.
    bool IsEnabled(int level) const { return isClose_ == 0 && (level & logMask_) != 0; }

    // Registers a thread log. Console mode has none: returns 0 and does nothing.
    int InitThreadLog(const char* name);

  private:
    void WriteLine(int format, int level, const char* lead, const char* text, va_list args)
        __attribute__((format(printf, 5, 0)));
    int _HexaLog(const char* name, const char* title, const unsigned char* data,
                 unsigned long length);

    CVEKMutex mutex_;           // guards buffer_ and the order of the lines
    std::atomic<int> logMask_;  // read without the lock by every logging call
    char* buffer_;
    std::atomic<int> isClose_;
    int format_;
};

// Constructed before main and closed at exit.
extern CVEKServiceLog G_SERVICE_LOGGER;

#endif
