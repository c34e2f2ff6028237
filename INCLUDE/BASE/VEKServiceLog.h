// The service log's front door: everything that logs includes this header and nothing else of
// the log. It therefore includes no header of the framework but the one with VEK_API.
//
// A program opens the log once, any thread logs through VEK_SERVICE_LOG, and the program closes
// the log before it ends. Lines logged before the log is open, or after it is closed, are dropped.
#ifndef VEK_SERVICE_LOG_H
#define VEK_SERVICE_LOG_H

#include "VEKExport.h"

// Levels of a line, and the bits of the mask that lets lines through.
constexpr int VEK_LOG_DEBUG = 1;
constexpr int VEK_LOG_INFO = 2;
constexpr int VEK_LOG_WARNING = 4;
constexpr int VEK_LOG_ERROR = 8;
constexpr int VEK_LOG_ALL = 15;

// Takes a line: its level; the thread log that it is for, "MAIN" for none; its text with the line
// end, which no NUL follows. argument: sinkArgument_. One call runs at a time, in the thread that
// logs, until the log is closed, at the latest at the end of the process. A line for which the
// function throws is lost, and so is one that it logs itself. It must not fork.
using VEK_LOG_SINK = void (*)(void* argument, int level, const char* name, const char* line,
                              unsigned long length);

// What a program may ask of the log; as constructed, the record stands for the usual way.
struct VEK_ST_SERVICE_LOG_OPTIONS {
    // File mode: whoever logs a line that finds no room waits until there is some, instead of
    // losing the line; lines of several threads may then change places. What the log itself has to
    // say of its files does not wait, nor does a child process, which has no thread that makes
    // room. A full disk is not waited for: what it refuses is lost, and counted.
    bool isWaiting_ = false;

    // File mode: VEK_ST_WF_OPTIONS in CVEKWriteFile.h describes these, for the main log and each
    // thread log.
    bool isSizeOfFile_ = false;
    bool isUmaskHeeded_ = false;
    unsigned int maxPieces_ = 0;

    // Console mode: lines go to standard error instead of standard output,
    bool isStandardError_ = false;
    // or to a function.
    VEK_LOG_SINK sink_ = nullptr;
    void* sinkArgument_ = nullptr;
};

// Sets the options of the log, which is not open yet, or in console mode. Returns 1, or 0 when it
// was opened in file mode, or closed, before: its options stay.
VEK_API int VEK_SET_SERVICE_LOG_OPTIONS(const VEK_ST_SERVICE_LOG_OPTIONS& options);

// Opens the process-wide log in console mode: every line goes to standard output.
// mask: sum of the levels to print. Returns 1, or 0 when memory ran out.
VEK_API int VEK_OPEN_SERVICE_LOG(int mask);

// Opens it in file mode: lines go to files, which a thread of the log writes.
// path: an existing directory that may be written, with "$(NAME)" for environment variables, of up
// to 3967 characters when these are replaced; name: base name of the files, up to 63 characters,
// whose extension is LOG; keepDays: days after which files of that name are deleted, 0 for never;
// mask: sum of the levels to write; dailyDir: 1 for a directory per day; maxSize: size in bytes
// from which a file is replaced, 0 for none. Returns 1, or 0 when it could not be opened, mostly
// after saying why on standard output. A log that was opened in file mode before, or closed, is
// left as it is and gives 0. CVEKServiceLog.h has the details, and what adds thread logs.
VEK_API int VEK_OPEN_SERVICE_LOG(const char* path, const char* name, int keepDays, int mask,
                                 int dailyDir, unsigned long maxSize);

// Waits until what was logged before is in the files, or with the system, as long as that gets on:
// a second without any progress ends the wait. Returns 1, or 0 when it may not all be there. Any
// thread may call it, and a signal handler, one for SIGABRT or SIGSEGV above all: the process takes
// along what the log still has in its FIFO. A line that the signal has interrupted is lost.
VEK_API int VEK_FLUSH_SERVICE_LOG();

// Ends the log and releases what it holds. Safe to repeat. A closed log stays closed.
VEK_API void VEK_CLOSE_SERVICE_LOG();

// The lines that this process has lost so far for want of room, on the way to the files or on the
// disk, of which a Warning line tells when there is room again. Any thread may ask.
VEK_API unsigned long VEK_GET_LOST_LOG_LINES();

// Log one line, as printf does, behind the prefix "[file:function:line]": the base name of the
// source file right-aligned in 24 columns, the function in 16, the line in 4 digits.
//   VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) refused", name);
// A line that would not fit the log's buffer (32 KiB) is cut. errno is left as it was.
#define VEK_SERVICE_LOG(level, ...) \
    VEK_WRITE_SERVICE_LOG(level, __FILE__, __func__, __LINE__, __VA_ARGS__)

// Log a failed system call at level Info, with "[%d-%s]" (errno and its text) before the message:
//   VEK_SYSTEM_CALL_LOG("bind() failed!..");
// The level is meant: a caller that can go on decides for itself how bad the failure is.
#define VEK_SYSTEM_CALL_LOG(...) \
    VEK_WRITE_SYSTEM_CALL_LOG(__FILE__, __func__, __LINE__, __VA_ARGS__)

// What the two macros call. Both return 1.
VEK_API int VEK_WRITE_SERVICE_LOG(int level, const char* file, const char* function, int line,
                                  const char* format, ...) __attribute__((format(printf, 5, 6)));
VEK_API int VEK_WRITE_SYSTEM_CALL_LOG(const char* file, const char* function, int line,
                                      const char* format, ...)
    __attribute__((format(printf, 4, 5)));

#endif
