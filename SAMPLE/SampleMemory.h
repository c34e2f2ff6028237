// How the samples that are measured use memory.
#ifndef SAMPLE_MEMORY_H
#define SAMPLE_MEMORY_H

#include <malloc.h>

// Keeps what is freed for the next use instead of returning it to the system at once. A TLS session
// takes a buffer for each read and gives it back behind it, which would else cost two system calls
// and the clearing of its pages every time. Call it before the first thread starts.
inline void KeepFreedMemory() {
    constexpr int KEPT_BYTES = 64 << 20;
    mallopt(M_TRIM_THRESHOLD, KEPT_BYTES);
}

#endif
