// The standard streams of a program that may have been started without them.
#ifndef VEK_STANDARD_STREAM_H
#define VEK_STANDARD_STREAM_H

// Opens /dev/null in place of each of standard input, output and error that is closed. Otherwise
// the next socket would take its number, and what is printed would go to the peer. Call it first in
// main.
void VEK_OPEN_STANDARD_STREAMS();

#endif
