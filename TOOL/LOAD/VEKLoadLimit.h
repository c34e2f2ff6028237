// How many descriptors a run may have.
#ifndef VEK_LOAD_LIMIT_H
#define VEK_LOAD_LIMIT_H

#include <cstddef>

// Raises the process's limit of descriptors to what the system lets it have, and returns that.
size_t VEK_LOAD_RAISE_DESCRIPTORS();
// How many a run takes: connections, what its threads wait on, and what every process has.
size_t VEK_LOAD_COUNT_DESCRIPTORS(size_t connections, size_t threads);

#endif
