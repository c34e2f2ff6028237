// Opening files that are regular ones: a FIFO that nobody reads, say, could keep its writer waiting
// for ever.
#ifndef VEK_REGULAR_FILE_H
#define VEK_REGULAR_FILE_H

#include <sys/types.h>

#include <cstdio>

// Opens the file for writing, or makes it with the permissions `mode`, less the process's umask.
// flag: O_APPEND or O_TRUNC. Null on failure, with errno:
// EINVAL or ENXIO when it is something else than a regular file.
FILE* VEK_OPEN_REGULAR_FILE(const char* path, int flag, mode_t mode = 0666);

#endif
