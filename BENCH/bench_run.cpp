// Runs a command and writes into a file, in one line, what it took: seconds by the clock, processor
// seconds (with those of its children that it has waited for), and its largest resident memory in
// KiB. Ends with the command's exit status.
//   bench_run file command [argument...]
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

namespace {

constexpr int CANNOT_RUN = 127;  // as a shell has it
constexpr int SIGNALLED = 128;   // and the signal's number

double GetSeconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: %s file command [argument...]\n", argv[0]);
        return CANNOT_RUN;
    }
    const auto start = std::chrono::steady_clock::now();
    const pid_t child = fork();
    if (child == 0) {
        execvp(argv[2], argv + 2);
        perror(argv[2]);
        _exit(CANNOT_RUN);
    }
    int status = 0;
    rusage usage{};
    if (child < 0 || wait4(child, &status, 0, &usage) != child) {
        perror(argv[0]);
        return CANNOT_RUN;
    }
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    FILE* file = fopen(argv[1], "w");
    if (file == nullptr) {
        perror(argv[1]);
        return CANNOT_RUN;
    }
    fprintf(file, "%.6f %.6f %ld\n", elapsed.count(),
            GetSeconds(usage.ru_utime) + GetSeconds(usage.ru_stime), usage.ru_maxrss);
    fclose(file);
    return WIFEXITED(status) ? WEXITSTATUS(status) : SIGNALLED + WTERMSIG(status);
}
