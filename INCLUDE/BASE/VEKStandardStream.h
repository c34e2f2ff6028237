// The standard streams of a program that may have been started without them.
#ifndef VEK_STANDARD_STREAM_H
#define VEK_STANDARD_STREAM_H

#include "VEKExport.h"

// Opens /dev/null in place of each of standard input, output and error that is closed. Otherwise
// the next socket would take its number, and what is printed would go to the peer. Call it first in
// main.
VEK_API void VEK_OPEN_STANDARD_STREAMS();

// Moves a descriptor that has the number of a standard stream, closed when it was opened, to a
// higher one, as what is printed must not get into a file of the library. Returns its number, also
// where there was nothing to do, or -1 (also for -1), when it is closed.
VEK_API int VEK_LEAVE_STANDARD_STREAMS(int fd);

#endif
