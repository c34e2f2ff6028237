#include "VEKLoadLimit.h"

#include <sys/resource.h>

namespace {

constexpr size_t OF_PROCESS = 32;  // standard streams, the log, files that name the host
constexpr size_t OF_THREAD = 8;    // what an event loop has for itself

}  // namespace

size_t VEK_LOAD_RAISE_DESCRIPTORS() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        return 0;
    }
    const rlim_t before = limit.rlim_cur;
    limit.rlim_cur = limit.rlim_max;
    return setrlimit(RLIMIT_NOFILE, &limit) == 0 ? limit.rlim_cur : before;
}

size_t VEK_LOAD_COUNT_DESCRIPTORS(size_t connections, size_t threads) {
    return connections + threads * OF_THREAD + OF_PROCESS;
}
