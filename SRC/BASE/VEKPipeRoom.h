// How much a pipe takes.
#ifndef VEK_PIPE_ROOM_H
#define VEK_PIPE_ROOM_H

#include <cstddef>

// Whether a pipe that is ready for writing takes `size` bytes in one piece. Up to PIPE_BUF bytes
// the system itself sees to that; beyond them it is true only where it is certain: from about its
// middle a pipe counts as full. False for what is no pipe.
bool VEK_HAS_PIPE_ROOM(int pipe, size_t size);

// The bytes in a pipe, 0 for what is no pipe.
size_t VEK_GET_PIPE_QUEUE(int pipe);

// Whether a pipe holds no more than half of what it can. False for what is no pipe.
bool VEK_IS_PIPE_HALF_EMPTY(int pipe);

#endif
