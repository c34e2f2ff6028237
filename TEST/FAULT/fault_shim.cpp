// Preloaded into a program (LD_PRELOAD), it makes calls fail or come short as VEK_FAULT says:
//
//   call:error:when[:after][,...]
//     call   one of those at the end of this file, as the program makes it; behind a "*" also as
//            libcrypto and libuv do, which do not all cope. "malloc" is calloc and realloc too;
//            operator new is "new", and where AddressSanitizer does not replace it "malloc" besides
//     error  a name of errno; SHORT: one byte instead of all
//     when   n: the n-th call; n-m: all of those; p%: so many of a hundred, drawn by VEK_FAULT_SEED
//     after  counting begins behind the first call of this name
//
// A close of what is not open aborts. At the exit a line on standard error tells what was done and
// how many descriptors are open.
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
    char call[24], error[16], when[16], after[24];
    int code;  // 0: short
    long first, last;
    int percent;
    std::atomic<bool> isOn;
    std::atomic<long> calls;
};
Rule G_RULES[4];
size_t G_COUNT = 0;
std::atomic<bool> G_IS_RUNNING{false};  // main has begun
std::atomic<long> G_FAULTS{0};
std::atomic<unsigned long> G_DRAWN{1};
struct Range {
    const char* name;
    uintptr_t first, last;
    bool Has(void* at) const { return reinterpret_cast<uintptr_t>(at) - first < last - first; }
};
// And the C library's registration of a destructor, which ends the process without memory.
Range G_FOREIGN[] = {{"/libcrypto.so", 0, 0}, {"/libuv.so", 0, 0}, {"__cxa_thread_atexit_impl", 0, 0}};

bool IsHit(Rule& rule) {
    const long number = ++rule.calls;
    // A draw of xorshift's: the same seed draws the same.
    unsigned long drawn = G_DRAWN++ * 0x9E3779B97F4A7C15;
    drawn = (drawn ^ drawn >> 29) * 0xBF58476D1CE4E5B9;
    return rule.percent > 0 ? (drawn >> 32) % 100 < static_cast<unsigned>(rule.percent)
                            : number >= rule.first && number <= rule.last;
}

// The rule that hits this call of `call`, or null.
Rule* Find(const char* call, void* caller) {
    for (Rule* rule = G_RULES; G_IS_RUNNING && rule != G_RULES + G_COUNT; ++rule) {
        const bool isAny = rule->call[0] == '*';
        const bool isForeign = std::any_of(std::begin(G_FOREIGN), std::end(G_FOREIGN),
                                           [caller](const Range& range) { return range.Has(caller); });
        const bool isMeant = isAny || !isForeign;
        if (rule->isOn && isMeant && strcmp(rule->call + (isAny ? 1 : 0), call) == 0 && IsHit(*rule)) {
            ++G_FAULTS;
            errno = rule->code;
            return rule;
        }
        if (!rule->isOn && strcmp(rule->after, call) == 0) { rule->isOn = true; }
    }
    return nullptr;
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

void Begin() {
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void*) {
            for (Range& range : G_FOREIGN) {
                for (int i = 0; strstr(info->dlpi_name, range.name) != nullptr && i < info->dlpi_phnum; ++i) {
                    const auto& part = info->dlpi_phdr[i];
                    if (part.p_type == PT_LOAD && (part.p_flags & PF_X) != 0) {
                        range.first = info->dlpi_addr + part.p_vaddr;
                        range.last = range.first + part.p_memsz;
                    }
                }
            }
            return 0;
        },
        nullptr);
    constexpr uintptr_t FUNCTION_SIZE = 512;
    Range& fatal = G_FOREIGN[2];
    fatal.first = reinterpret_cast<uintptr_t>(dlsym(RTLD_DEFAULT, fatal.name));
    fatal.last = fatal.first + FUNCTION_SIZE;
    const char* seed = getenv("VEK_FAULT_SEED");
    G_DRAWN = seed != nullptr ? strtoul(seed, nullptr, 10) << 20 : 1;
    const char* text = getenv("VEK_FAULT");
    for (; text != nullptr && *text != '\0' && G_COUNT < std::size(G_RULES); ++G_COUNT) {
        Rule& rule = G_RULES[G_COUNT];
        int length = 0;
        const int words = sscanf(text, "%23[^:,]:%15[^:,]:%15[^:,]%n:%23[^:,]%n", rule.call, rule.error, rule.when,
                                 &length, rule.after, &length);
        for (int code = 1; code < 134; ++code) {
            const char* name = strerrorname_np(code);
            rule.code = name != nullptr && strcmp(name, rule.error) == 0 ? code : rule.code;
        }
        if (words < 3 || (rule.code == 0 && strcmp(rule.error, "SHORT") != 0)) { abort(); }
        char* end = nullptr;
        rule.first = rule.last = strtol(rule.when, &end, 10);
        rule.percent = *end == '%' ? static_cast<int>(rule.first) : 0;
        rule.last = *end == '-' ? strtol(end + 1, nullptr, 10) : rule.last;
        rule.isOn = words == 3;
        text += length + (text[length] == ',' ? 1 : 0);
    }
}

using Main = int (*)(int, char**, char**);
Main G_MAIN = nullptr;
int RunMain(int count, char** arguments, char** environment) {
    Begin();
    G_IS_RUNNING = true;
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
FAILING(epoll_create1, (int flags), (flags))
FAILING(epoll_ctl, (int epoll, int what, int fd, void* event), (epoll, what, fd, event))
FAILING(epoll_wait, (int epoll, void* events, int room, int timeout), (epoll, events, room, timeout))
FAILING(epoll_pwait, (int epoll, void* events, int room, int timeout, const void* mask),
        (epoll, events, room, timeout, mask))
FAILING(eventfd, (unsigned count, int flags), (count, flags))
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
