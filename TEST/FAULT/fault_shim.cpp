// Preloaded into a program (LD_PRELOAD), it makes calls of a kind fail or come short, as VEK_FAULT
// says, "call:error:when":
//
//   call   one of those at the end of this file. "malloc" is calloc and realloc too; operator new is
//          "new", and where AddressSanitizer does not replace it "malloc" besides
//   error  a name of errno; SHORT: one byte instead of all
//   when   n: the n-th call since main began; p%: so many of a hundred, drawn by VEK_FAULT_SEED
//
// What libcrypto and libuv call does not fail: they do not all cope. A close of what is not open
// aborts. At the exit a line on standard error tells what was done and how many descriptors are open.
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>

namespace {

struct Rule {
    char call[24], error[16];
    int code;  // 0: short
    long number, percent;
};
Rule G_RULE;
std::atomic<long> G_CALLS{0};
std::atomic<long> G_FAULTS{0};

// Code whose calls do not fail. The C library's registration of a destructor is of it because it ends
// the process where it gets no memory.
struct Range {
    const char* name;
    uintptr_t first, size;
} G_FOREIGN[] = {{"/libcrypto.so", 0, 0}, {"/libuv.so", 0, 0}, {"__cxa_thread_atexit_impl", 0, 512}};

bool IsForeign(void* caller) {
    return std::any_of(std::begin(G_FOREIGN), std::end(G_FOREIGN), [caller](const Range& range) {
        return reinterpret_cast<uintptr_t>(caller) - range.first < range.size;
    });
}

// Beforehand: who asks for memory may have the dynamic linker's locks.
int FindForeign(dl_phdr_info* info, size_t, void*) {
    for (Range& range : G_FOREIGN) {
        for (int i = 0; strstr(info->dlpi_name, range.name) != nullptr && i < info->dlpi_phnum; ++i) {
            const auto& part = info->dlpi_phdr[i];
            if ((part.p_flags & PF_X) != 0) { range = {range.name, info->dlpi_addr + part.p_vaddr, part.p_memsz}; }
        }
    }
    return 0;
}

bool IsHit(long number) {
    static const char* seed = getenv("VEK_FAULT_SEED");
    unsigned long drawn =
        (strtoul(seed != nullptr ? seed : "1", nullptr, 10) << 32) + static_cast<unsigned long>(number);
    drawn *= 0x9E3779B97F4A7C15;
    drawn = (drawn ^ drawn >> 29) * 0xBF58476D1CE4E5B9;
    return G_RULE.percent > 0 ? static_cast<long>((drawn >> 32) % 100) < G_RULE.percent : number == G_RULE.number;
}

// The rule where it hits this call of `call`, else null.
const Rule* Find(const char* call, void* caller) {
    if (strcmp(G_RULE.call, call) != 0 || IsForeign(caller) || !IsHit(++G_CALLS)) { return nullptr; }
    ++G_FAULTS;
    errno = G_RULE.code;
    return &G_RULE;
}

template <class FUNCTION>
FUNCTION Next(const char* call) {
    return reinterpret_cast<FUNCTION>(dlsym(RTLD_NEXT, call));
}

int CountOpen() {
    int open = 0;
    for (int fd = 0; fd < 1024; ++fd) { open += syscall(SYS_fcntl, fd, F_GETFD) >= 0 ? 1 : 0; }
    return open;
}

// The calls begin to count when all of the rule is there.
void ReadRule(const char* text) {
    dl_iterate_phdr(FindForeign, nullptr);
    G_FOREIGN[2].first = reinterpret_cast<uintptr_t>(dlsym(RTLD_DEFAULT, G_FOREIGN[2].name));
    Rule rule{};
    char unit = ' ';
    if (sscanf(text, "%23[^:]:%15[^:]:%ld%c", rule.call, rule.error, &rule.number, &unit) < 3) { return; }
    for (int code = 1; code < 134; ++code) {
        const char* name = strerrorname_np(code);
        rule.code = name != nullptr && strcmp(name, rule.error) == 0 ? code : rule.code;
    }
    if (rule.code == 0 && strcmp(rule.error, "SHORT") != 0) { abort(); }
    rule.percent = unit == '%' ? rule.number : 0;
    G_RULE = rule;
}

using Main = int (*)(int, char**, char**);
Main G_MAIN = nullptr;
int RunMain(int count, char** arguments, char** environment) {
    const char* text = getenv("VEK_FAULT");
    ReadRule(text != nullptr ? text : "");
    return G_MAIN(count, arguments, environment);
}

__attribute__((destructor)) void End() {
    char line[80];
    const int size = snprintf(line, sizeof line, "\n[%ld faults, %d descriptors]\n", G_FAULTS.load(), CountOpen());
    syscall(SYS_write, STDERR_FILENO, line, size);
}

}  // namespace

extern "C" int fault_start(Main main, int count, char** arguments, void (*init)(), void (*fini)(), void (*end)(),
                           void* stack) asm("__libc_start_main");
extern "C" int fault_start(Main main, int count, char** arguments, void (*init)(), void (*fini)(), void (*end)(),
                           void* stack) {
    G_MAIN = main;
    return Next<decltype(&fault_start)>("__libc_start_main")(RunMain, count, arguments, init, fini, end, stack);
}

// NOLINTBEGIN(bugprone-macro-parentheses): types, and lists of parameters, stand in none

// Defines `name` for the program; `failed` is what it returns where it fails, and `args` may have
// been made shorter by `shorten`.
#define FAULTY(type, name, failed, params, args, shorten)                                   \
    extern "C" type fault_##name params asm(#name);                                         \
    extern "C" type fault_##name params {                                                   \
        static const auto NEXT = Next<type(*) params>(#name);                               \
        if (const Rule* rule = Find(#name, __builtin_return_address(0)); rule != nullptr) { \
            if (rule->code != 0) { return failed; }                                         \
            shorten;                                                                        \
        }                                                                                   \
        return NEXT args;                                                                   \
    }
#define FAILING(name, params, args) FAULTY(int, name, -1, params, args, )

#define SHORTER size = std::min<size_t>(size, 1)
#define FIRST_BYTE                  \
    static thread_local iovec byte; \
    byte = {parts[0].iov_base, 1};  \
    parts = &byte;                  \
    count = 1
FAULTY(ssize_t, read, -1, (int fd, void* data, size_t size), (fd, data, size), SHORTER)
FAULTY(ssize_t, __read_chk, -1, (int fd, void* data, size_t size, size_t room), (fd, data, size, room), SHORTER)
FAULTY(ssize_t, write, -1, (int fd, const void* data, size_t size), (fd, data, size), SHORTER)
FAULTY(ssize_t, writev, -1, (int fd, const iovec* parts, int count), (fd, parts, count), FIRST_BYTE)
FAULTY(ssize_t, recv, -1, (int fd, void* data, size_t size, int flags), (fd, data, size, flags), SHORTER)
FAULTY(ssize_t, __recv_chk, -1, (int fd, void* data, size_t size, size_t room, int flags),
       (fd, data, size, room, flags), SHORTER)
FAULTY(ssize_t, send, -1, (int fd, const void* data, size_t size, int flags), (fd, data, size, flags), SHORTER)
FAULTY(size_t, fwrite, 0, (const void* data, size_t each, size_t size, FILE* file), (data, each, size, file), SHORTER)
FAULTY(FILE*, fopen, nullptr, (const char* path, const char* mode), (path, mode), )
FAULTY(FILE*, fdopen, nullptr, (int fd, const char* mode), (fd, mode), )
FAULTY(void*, opendir, nullptr, (const char* path), (path), )
FAILING(fflush, (FILE * file), (file))
FAILING(open, (const char* path, int flags, int mode), (path, flags, mode))
FAILING(stat, (const char* path, void* info), (path, info))
FAILING(lstat, (const char* path, void* info), (path, info))
FAILING(fstat, (int fd, void* info), (fd, info))
FAILING(mkdir, (const char* path, unsigned mode), (path, mode))
FAILING(mkfifo, (const char* path, unsigned mode), (path, mode))
FAILING(rename, (const char* from, const char* to), (from, to))
FAILING(unlink, (const char* path), (path))
FAILING(ftruncate, (int fd, long size), (fd, size))
FAILING(fcntl, (int fd, int command, long argument), (fd, command, argument))
FAILING(ioctl, (int fd, unsigned long command, void* argument), (fd, command, argument))
FAILING(flock, (int fd, int command), (fd, command))
FAILING(dup, (int fd), (fd))
FAILING(socket, (int family, int type, int protocol), (family, type, protocol))
FAILING(bind, (int fd, const void* address, unsigned size), (fd, address, size))
FAILING(listen, (int fd, int backlog), (fd, backlog))
FAILING(accept4, (int fd, void* address, void* size, int flags), (fd, address, size, flags))
FAILING(connect, (int fd, const void* address, unsigned size), (fd, address, size))
FAILING(shutdown, (int fd, int how), (fd, how))
FAILING(getsockname, (int fd, void* address, void* size), (fd, address, size))
FAILING(getsockopt, (int fd, int level, int name, void* value, void* size), (fd, level, name, value, size))
FAILING(setsockopt, (int fd, int level, int name, const void* value, unsigned size), (fd, level, name, value, size))
FAILING(poll, (void* entries, unsigned long count, int timeout), (entries, count, timeout))
FAILING(ppoll, (void* entries, unsigned long count, const void* timeout, const void* mask),
        (entries, count, timeout, mask))
FAILING(epoll_create, (int size), (size))
FAILING(epoll_ctl, (int epoll, int what, int fd, void* event), (epoll, what, fd, event))
FAILING(epoll_wait, (int epoll, void* events, int room, int timeout), (epoll, events, room, timeout))
FAILING(timerfd_create, (int clock, int flags), (clock, flags))
FAULTY(int, pthread_create, rule->code,
       (pthread_t * thread, const pthread_attr_t* attributes, void* (*run)(void*), void* argument),
       (thread, attributes, run, argument), )

extern "C" int fault_close(int fd) asm("close");
extern "C" int fault_close(int fd) {
    const Rule* rule = Find("close", __builtin_return_address(0));
    const long result = syscall(SYS_close, fd);
    if (result != 0 && errno == EBADF) {
        fprintf(stderr, "close(%d) of what is not open\n", fd);
        abort();
    }
    if (rule != nullptr) { errno = rule->code; }  // it is closed all the same
    return rule != nullptr ? -1 : static_cast<int>(result);
}

#define MEMORY(name, call, failed, params, args)                            \
    extern "C" void* fault_##name params asm(#name);                        \
    extern "C" void* fault_##name params {                                  \
        static const auto NEXT = Next<void*(*)params>(#name);               \
        if (Find(call, __builtin_return_address(0)) != nullptr) { failed; } \
        return NEXT args;                                                   \
    }
MEMORY(malloc, "malloc", return nullptr, (size_t size), (size))
MEMORY(calloc, "malloc", return nullptr, (size_t count, size_t size), (count, size))
MEMORY(realloc, "malloc", return nullptr, (void* memory, size_t size), (memory, size))
MEMORY(_Znwm, "new", throw std::bad_alloc(), (size_t size), (size))
MEMORY(_Znam, "new", throw std::bad_alloc(), (size_t size), (size))
MEMORY(_ZnwmRKSt9nothrow_t, "new", return nullptr, (size_t size, const void* tag), (size, tag))
// NOLINTEND(bugprone-macro-parentheses)
