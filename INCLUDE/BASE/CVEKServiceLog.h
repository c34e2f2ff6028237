// CVEKServiceLog: formats log lines and emits them. The process has one, G_SERVICE_LOGGER, which
// VEKServiceLog.h opens, closes and logs through; include that header to log.
//
// A line is "[hh:mm:ss:uuuuuu][label  ]" and the message, or, when the environment variable
// VEK_LOG_FORMAT is set to anything but "STANDARD" (in any letter case),
// "CCYY/MM/DD-hh:mm:ss.uuuuuu   pid " and the message. Times are local.
//
// In console mode each line goes to standard output, behind what the program has printed there, at
// once unless that is a file. Where nobody reads that, a line waits up to a second, and those after
// it are dropped until there is room again (CVEKConsole.h).
//
// In file mode lines go through a FIFO to a thread that appends them to files
// (CVEKServiceLogWriter.h). The FIFO is APP.pid.PIPE in the directory that VEK_RES_HOME names, else
// in that of TMPDIR, else in the current one. Logging does not wait for the thread, unless an
// option says so: a line that finds the FIFO full is lost. The FIFO is made as large as the system
// lets it; a record of more than PIPE_BUF bytes counts it as full from about its middle.
//
// Lost lines are counted. A Warning line tells how many there were, whatever the mask: as soon as
// the next line finds room, in file mode once the FIFO is half empty, or when the log is closed.
// Those that the files refuse, on a full disk say, count as well, and are told of once the main
// file takes lines again.
//
// Any thread may log at any time, also while the log is closed, and fork while others log; a line
// that a signal handler logs while its thread is inside the log is lost. Opening is for one thread,
// and for the process that logs: a child does not inherit the thread. What it logs goes through its
// parent's FIFO into the parent's files, and is lost once the parent has gone and the FIFO is full.
// It adds no thread logs, and its end leaves the parent's log as it is.
#ifndef CVEK_SERVICE_LOG_H
#define CVEK_SERVICE_LOG_H

#include <sys/types.h>

#include <atomic>
#include <cstdarg>

#include "CVEKConsole.h"
#include "CVEKMutex.h"
#include "CVEKServiceLogWriter.h"
#include "VEKExport.h"
#include "VEKServiceLog.h"

class VEK_API CVEKServiceLog {
  public:
    // A log that drops everything until it is opened.
    CVEKServiceLog();
    // Calls Finalize.
    ~CVEKServiceLog();

    CVEKServiceLog(const CVEKServiceLog&) = delete;
    CVEKServiceLog& operator=(const CVEKServiceLog&) = delete;

    // Sets the options, which VEKServiceLog.h describes. Returns 1, or 0 when the log was opened in
    // file mode, or closed, before.
    int SetOptions(const VEK_ST_SERVICE_LOG_OPTIONS& options);

    // Opens in console mode with every level on. Returns 1, or 0 when memory ran out (after saying
    // so on standard output). A log that is open in file mode changes to console mode.
    int Initialize();
    // Opens in file mode with every level on. path: an existing directory that may be written, of
    // up to 3967 characters together with the current one if it is relative (which one that is
    // matters no more once the log is open); name: base name of the files, up to 63; extension: up
    // to 15, may be empty; dailyDir: 1 for a directory per day; maxSize: size in bytes from which a
    // file is replaced, 0 for none. The file names are described in CVEKWriteFile.h. Returns 1, or
    // 0 after saying on standard output why: no memory, an invalid path or name, a FIFO that could
    // not be made, or a log that has been opened in file mode, or closed, before. A main file that
    // cannot be opened, or a thread that cannot be started, returns 0 silently.
    int Initialize(const char* path, const char* name, const char* extension, int dailyDir,
                   unsigned long maxSize);
    // Waits until what was logged before is out; VEK_FLUSH_SERVICE_LOG says what is to be known.
    int Flush();
    // Closes: from here on every logging call returns at once. Waits until the lines that were
    // logged before are written, then removes the FIFO. Safe to repeat, also by several threads at
    // once, each of which waits, and in a signal handler that then ends the process; there is no
    // way back.
    void Finalize();

    // The levels that are let through, as a sum of VEK_LOG_ values.
    void SetMask(int mask) { logMask_ = mask; }
    int GetMask() const { return logMask_; }

    // Days to keep the files of the main log and of the thread logs added so far; see
    // CVEKWriteFile::SetKeepDays.
    void SetKeepDays(int days) { logWriter_.SetKeepDays(days); }

    // Logs one line, as printf does. Always returns 1: logging never fails towards its caller.
    int MessageLog(int level, const char* format, ...) __attribute__((format(printf, 3, 4)));
    // The same to the thread log `name`, of up to 31 characters, always in the short line format.
    // In console mode the name plays no part.
    int MessageLog(const char* name, int level, const char* format, ...)
        __attribute__((format(printf, 4, 5)));
    // The same with the argument list, and `lead` put before the message as it is.
    int LeadMessageLog(int level, const char* lead, const char* format, va_list args)
        __attribute__((format(printf, 4, 0)));

    // Dumps up to 4096 bytes at level Debug, behind `title`, to the main log or to the thread log
    // `name`; the form of the dump is that of CVEKConv::HexaDump, the line format the short one. A
    // title that would not fit is cut. Returns 1, also when Debug is masked or the log closed, and
    // 0 when the data is too long.
    int HexaLog(const char* name, const char* title, const unsigned char* data,
                unsigned long length);
    int HexaLog(const char* title, const unsigned char* data, unsigned long length);

    // The lines lost so far.
    unsigned long GetLostCount() const { return lost_ + logWriter_.GetRefusedCount(); }

    // True when a line of this level would be emitted.
    bool IsEnabled(int level) const { return isClose_ == 0 && (level & logMask_) != 0; }

    // Adds the thread log `name`, of up to 31 characters; its file is made by its first line and is
    // named "NAME.name", where NAME is that of the main file. Returns 1, or 0 when the name is
    // there already or is too long, or memory ran out. Console mode and child processes have none:
    // returns 0 and does nothing.
    int InitThreadLog(const char* name);

  private:
    static void BeforeFork();
    static void AfterForkInParent();
    static void AfterForkInChild();
    bool IsInherited() const;
    int AllocateBuffer();
    bool StartWriter();
    int CreatePipe();
    void ClosePipe();
    void WriteLine(const char* name, int format, int level, const char* lead, const char* text,
                   va_list args) __attribute__((format(printf, 6, 0)));
    void FinalizeInterrupting();
    void EndLogging();
    void AwaitWriter(bool isInterrupting);
    template <class CONDITION>
    bool AwaitProgress(CONDITION isDone) const;
    void Emit(const char* name, int level, size_t length);
    void CountLost();
    bool CanWait() const;
    bool AwaitRecord(const char* name, int level, size_t length);
    void Nap();
    void TellLost();
    bool WriteRecord(const char* name, int level, char* record, size_t length);
    bool WriteConsole(const char* name, int level, const char* text, size_t length);
    bool CallSink(const char* name, int level, const char* text, size_t length);
    FILE* GetStream() const;
    int _HexaLog(const char* name, const char* title, const unsigned char* data,
                 unsigned long length);

    CVEKServiceLogWriter logWriter_;
    CVEKMutex mutex_;             // guards all below that is not atomic, and the order of the lines
    std::atomic<int> writeMode_;  // 1 file, 2 console
    char pipeName_[4096];
    int pipe_;                  // both ends of the FIFO, -1 for none
    std::atomic<int> logMask_;  // read without the lock by every logging call
    char* buffer_;              // a record of the FIFO
    std::atomic<int> isClose_;
    int format_;                // 1 short, 2 long
    std::atomic<pid_t> owner_;  // the process that runs the writer thread, 0 for none
    VEK_ST_SERVICE_LOG_OPTIONS options_;
    int waiting_;  // threads that wait for room
    CVEKConsole console_;
    std::atomic<unsigned long> lost_;    // lines that found no room, since the log was opened
    std::atomic<unsigned long> untold_;  // those that no line has told of yet
    CVEKMutex closing_;                  // for one thread at a time
    CVEKServiceLog* next_;               // of all logs, for a fork
};

// Constructed before main and closed at exit, but never destroyed: threads may outlive main.
VEK_API extern CVEKServiceLog& G_SERVICE_LOGGER;

#endif
