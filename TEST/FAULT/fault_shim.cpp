// Preloaded into a program (LD_PRELOAD), it makes calls fail or come short, as VEK_FAULT says,
// ",call,call,:error:first:step":
//
//   call   those of the table at the end of this file, all counted together
//   error  a number of errno; 0: one byte, or one part, instead of all
//   first  the number of the call that is hit, from when main began
//   step   how many calls later the next one is hit; 0: no more
//
// A call with a descriptor that is not open ends the program: something was closed twice, or used
// later. At the exit a line on standard error tells what was done and how many descriptors are open.
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace {

// What calls take and return, which are registers, whatever the types.
using Word = long;
using Function = Word (*)(Word, Word, Word, Word, Word, Word);

struct Rule {
    char calls[400];
    int error;
    long first, step;
} G_RULE;
std::atomic<long> G_CALLS{0}, G_FAULTS{0};

// Whose calls do not fail, because that may end the process: libuv's, and those of libcrypto and of
// the C library where they ask for memory.
bool IsForeign(void* caller, bool isMemory) {
    dl_find_object found{};
    if (_dl_find_object(caller, &found) != 0) { return false; }
    const char* name = found.dlfo_link_map->l_name;
    return strstr(name, "/libuv.so") != nullptr ||
           (isMemory && (strstr(name, "/libcrypto.so") != nullptr || strstr(name, "/libc.so") != nullptr));
}

bool IsHit(const char* call, void* caller, bool isMemory) {
    if (strstr(G_RULE.calls, call) == nullptr || IsForeign(caller, isMemory)) { return false; }
    const long late = ++G_CALLS - G_RULE.first;
    const bool isHit = late == 0 || (late > 0 && G_RULE.step > 0 && late % G_RULE.step == 0);
    G_FAULTS += isHit ? 1 : 0;
    return isHit;
}

// What has been found shut when it should be open. A descriptor may be asked for whether it is.
Word Check(const char* call, Word fd, Word result) {
    if (static_cast<int>(result) == -1 && errno == EBADF && strcmp(call, ",fcntl,") != 0) {
        dprintf(STDERR_FILENO, "%s of descriptor %ld, which is not open\n", call, fd);
        abort();
    }
    return result;
}

using Main = int (*)(int, char**, char**);
Main G_MAIN = nullptr;
int RunMain(int count, char** arguments, char** environment) {
    const char* text = getenv("VEK_FAULT");
    Rule rule{};
    sscanf(text, "%399[^:]:%d:%ld:%ld", rule.calls, &rule.error, &rule.first, &rule.step);
    G_RULE = rule;
    return G_MAIN(count, arguments, environment);
}

__attribute__((destructor)) void End() {
    char line[80];
    int open = 0;
    for (int fd = 0; fd < 1024; ++fd) { open += syscall(SYS_fcntl, fd, F_GETFD) >= 0 ? 1 : 0; }
    const int size = snprintf(line, sizeof line, "\n[%ld faults, %d descriptors]\n", G_FAULTS.load(), open);
    syscall(SYS_write, STDERR_FILENO, line, size);
}

}  // namespace

extern "C" int fault_start(Main main, int count, char** arguments, void (*init)(), void (*fini)(), void (*end)(),
                           void* stack) asm("__libc_start_main");
extern "C" int fault_start(Main main, int count, char** arguments, void (*init)(), void (*fini)(), void (*end)(),
                           void* stack) {
    G_MAIN = main;
    const auto next = reinterpret_cast<decltype(&fault_start)>(dlsym(RTLD_NEXT, "__libc_start_main"));
    return next(RunMain, count, arguments, init, fini, end, stack);
}

// Defines `call` for the program; `failed` is what it returns where it fails. What can come short has
// its size in the third argument.
#define FAULTY(call, failed, isMemory)                                                \
    extern "C" Word fault_##call(Word, Word, Word, Word, Word, Word) asm(#call);      \
    extern "C" Word fault_##call(Word a, Word b, Word c, Word d, Word e, Word f) {    \
        static const auto NEXT = reinterpret_cast<Function>(dlsym(RTLD_NEXT, #call)); \
        if (IsHit("," #call ",", __builtin_return_address(0), isMemory)) {            \
            if (G_RULE.error != 0) { return errno = G_RULE.error, failed; }           \
            c = c > 1 ? 1 : c;                                                        \
        }                                                                             \
        return Check("," #call ",", a, NEXT(a, b, c, d, e, f));                       \
    }
#define FAILING_5(a, b, c, d, e) \
    FAULTY(a, -1, false)         \
    FAULTY(b, -1, false)         \
    FAULTY(c, -1, false)         \
    FAULTY(d, -1, false)         \
    FAULTY(e, -1, false)
FAILING_5(read, __read_chk, recv, __recv_chk, write)
FAILING_5(writev, send, open, stat, lstat)
FAILING_5(fstat, mkdir, mkfifo, rename, unlink)
FAILING_5(ftruncate, fcntl, ioctl, flock, socket)
FAILING_5(bind, listen, accept4, connect, shutdown)
FAILING_5(getsockopt, setsockopt, poll, ppoll, epoll_create)
FAILING_5(epoll_ctl, epoll_wait, timerfd_create, close, getsockname)
FAULTY(fwrite, 0, false)
FAULTY(fopen, 0, false)
FAULTY(fdopen, 0, false)
FAULTY(opendir, 0, false)
FAULTY(pthread_create, G_RULE.error, false)
FAULTY(malloc, 0, true)
FAULTY(calloc, 0, true)
FAULTY(realloc, 0, true)
FAULTY(_Znwm, (throw std::bad_alloc(), 0), true)
FAULTY(_Znam, (throw std::bad_alloc(), 0), true)
