// Writes to a file log from several threads, each with a thread log of its own, under a size limit
// and with a directory per day, and says where the files are.

#include <unistd.h>

#include <cstdio>
#include <exception>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CVEKConv.h"
#include "CVEKDate.h"
#include "CVEKDirectory.h"
#include "CVEKServiceLog.h"
#include "SampleArguments.h"
#include "VEKServiceLog.h"

namespace {

constexpr int KEEP_DAYS = 7;
constexpr char NAME[] = "sample";
constexpr size_t PATH_SIZE = 4096;

struct Arguments {
    const char* path = nullptr;
    long threads = 4;
    long lines = 1000;
    long maxSize = 65536;
};

void PrintUsage(FILE* stream, const char* program) {
    fprintf(stream,
            "usage: %s -d directory [-t threads] [-n lines] [-s size]\n"
            "  -d  where the files go: an existing directory, $(NAME) for variables\n"
            "  -t  threads that log, 1 to 100 (4)\n"
            "  -n  lines of each thread, 1 or more (1000)\n"
            "  -s  bytes from which a file is replaced, 0 for no limit (65536)\n",
            program);
}

bool ParseOption(int option, const char* argument, Arguments& arguments) {
    constexpr long MANY = 1000000000;
    switch (option) {
        case 'd':
            arguments.path = argument;
            return true;
        case 't':
            return ParseNumber<long>('t', argument, 1, 100, arguments.threads);
        case 'n':
            return ParseNumber<long>('n', argument, 1, MANY, arguments.lines);
        case 's':
            return ParseNumber<long>('s', argument, 0, MANY, arguments.maxSize);
        default:
            return false;
    }
}

bool ReadArguments(int argc, char** argv, Arguments& arguments) {
    const bool isGood =
        ParseOptions(argc, argv, "d:t:n:s:", [&arguments](int option, const char* argument) {
            return ParseOption(option, argument, arguments);
        });
    return isGood && arguments.path != nullptr && optind == argc;
}

void RunThread(long id, long lines) {
    const std::string name = "T" + std::to_string(id);
    if (G_SERVICE_LOGGER.InitThreadLog(name.c_str()) == 0) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "thread log(%s) not added", name.c_str());
        return;
    }
    VEK_SERVICE_LOG(VEK_LOG_INFO, "thread(%ld) begins", id);
    for (long i = 1; i <= lines; ++i) {
        G_SERVICE_LOGGER.MessageLog(name.c_str(), VEK_LOG_DEBUG, "line %ld of %ld", i, lines);
        VEK_SERVICE_LOG(VEK_LOG_DEBUG, "thread(%ld) line %ld", id, i);
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(name.data());
    G_SERVICE_LOGGER.HexaLog(name.c_str(), "the name of this thread log", bytes, name.size());
    VEK_SERVICE_LOG(VEK_LOG_INFO, "thread(%ld) ends", id);
}

void PrintFiles(const std::string& path) {
    CVEKDirectory directory;
    directory.Set(path.c_str(), (std::string(NAME) + ".*").c_str());
    std::vector<std::pair<std::string, unsigned long>> files;
    directory.Scan(files, true);
    printf("%zu files in %s:\n", files.size(), path.c_str());
    for (const auto& [file, size] : files) {
        printf("%10lu  %s\n", size, file.c_str());
    }
}

// Returns whether all threads could be started, after a line on standard error where not.
bool RunThreads(const Arguments& arguments) {
    std::vector<std::thread> threads;
    threads.reserve(static_cast<size_t>(arguments.threads));
    bool isStarted = true;
    try {
        for (long id = 1; id <= arguments.threads; ++id) {
            threads.emplace_back(RunThread, id, arguments.lines);
        }
    } catch (const std::exception& failure) {
        fprintf(stderr, "cannot start thread %zu: %s\n", threads.size() + 1, failure.what());
        isStarted = false;
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    return isStarted;
}

int Run(const Arguments& arguments) {
    VEK_ST_SERVICE_LOG_OPTIONS options;
    options.isWaiting_ = true;  // no line is lost, however fast they come
    VEK_SET_SERVICE_LOG_OPTIONS(options);
    if (VEK_OPEN_SERVICE_LOG(arguments.path, NAME, KEEP_DAYS, VEK_LOG_ALL, 1,
                             static_cast<unsigned long>(arguments.maxSize)) == 0) {
        fprintf(stderr, "cannot open the log in %s\n", arguments.path);
        return 1;
    }
    const bool isWhole = RunThreads(arguments);
    VEK_CLOSE_SERVICE_LOG();
    char path[PATH_SIZE];  // the log has found that it fits
    CVEKConv::EnvReplace(path, sizeof path, arguments.path);
    PrintFiles(path + std::string("/") + CVEKDate()());
    return isWhole ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    Arguments arguments;
    if (AnswerQuestion(argc, argv, PrintUsage)) {
        return 0;
    }
    if (!ReadArguments(argc, argv, arguments)) {
        PrintUsage(stderr, argv[0]);
        return 2;
    }
    try {
        return Run(arguments);
    } catch (const std::exception& failure) {  // no memory, for one
        fprintf(stderr, "%s: %s\n", argv[0], failure.what());
        return 1;
    }
}
