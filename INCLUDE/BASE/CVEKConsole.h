// CVEKConsole: writes lines to standard output or standard error of a program that must not stand
// still because nobody reads them.
//
// A line goes out at once, behind what the program itself has put into the stream, so that the two
// keep their order; only what goes to a file stays in the stream's buffer as usual. Where there is
// no room (a pipe that nobody reads, a stopped terminal, another thread that waits inside the
// stream) a line waits up to a second; from then on lines are dropped without waiting, until one
// finds room again. No mode of the descriptor is changed: it may be shared with other processes.
// Lines of up to PIPE_BUF bytes go into a pipe in one piece; a longer one may be cut when the room
// ends, and the next line then begins with a line end.
//
// One thread at a time uses an object. The program's own output through the stream is its own
// business: it waits as ever.
#ifndef CVEK_CONSOLE_H
#define CVEK_CONSOLE_H

#include <chrono>
#include <cstddef>
#include <cstdio>

#include "VEKExport.h"

class VEK_API CVEKConsole {
  public:
    CVEKConsole();

    // Writes `length` bytes of text, which end in a line end. Returns false when the line was
    // dropped, or cut.
    bool Write(FILE* stream, const char* text, size_t length);

    // Writes out what the program and Write have put into the stream, with up to a second for room.
    // Returns false when it is still there.
    static bool Flush(FILE* stream);

  private:
    using Clock = std::chrono::steady_clock;

    bool WriteLocked(FILE* stream, const char* text, size_t length, Clock::time_point deadline);
    bool WriteAll(int fd, const char* text, size_t length, Clock::time_point deadline);

    bool isStuck_;  // the last line found no room: the next one does not wait
    bool isTorn_;   // the last text that went out was cut
};

#endif
