// The service log in file mode beside an asynchronous logger of the spdlog library, under the same
// load in alternating runs: lines per second, and lines lost.
//   bench_service_log [rounds [lines]]
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CVEKServiceLog.h"
#include "VEKServiceLog.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr int QUEUE_SIZE = 8192;  // the library's default
constexpr auto TICK = std::chrono::milliseconds(1);

struct Load {
    const char* name;
    int threads;
    int linesPerTick;  // of each thread, 0 for as fast as it can
};

constexpr Load LOADS[] = {
    {"1 thread, as fast as it can", 1, 0},
    {"4 threads, as fast as they can", 4, 0},
    {"1 thread, 20,000 lines/s", 1, 20},
};

// A logger that is open as long as the object lives.
class Logger {
  public:
    virtual ~Logger() = default;
    virtual void Log(int thread, int line) = 0;
};

class ServiceLogger : public Logger {
  public:
    explicit ServiceLogger(const fs::path& directory) {
        if (log_.Initialize(directory.c_str(), "bench", "LOG", 0, 0) == 0) {
            exit(1);
        }
    }
    void Log(int thread, int line) override {
        log_.MessageLog(VEK_LOG_INFO, "[%24.24s:%16.16s:%04d]thread(%d) line(%d) of the load",
                        "bench_service_log.cpp", __func__, __LINE__, thread, line);
    }

  private:
    CVEKServiceLog log_;
};

class SpdLogger : public Logger {
  public:
    SpdLogger(const fs::path& directory, bool isFlushed)
        : pool_(std::make_shared<spdlog::details::thread_pool>(QUEUE_SIZE, 1)),
          log_(std::make_shared<spdlog::async_logger>(
              "bench", std::make_shared<spdlog::sinks::basic_file_sink_mt>(directory / "bench.LOG"),
              pool_, spdlog::async_overflow_policy::block)) {
        log_->set_pattern("[%H:%M:%S:%f][%-7l][%24!s:%16!!:%04#]%v");
        if (isFlushed) {
            log_->flush_on(spdlog::level::trace);
        }
    }
    void Log(int thread, int line) override {
        log_->log(spdlog::source_loc{__FILE__, __LINE__, __func__}, spdlog::level::info,
                  "thread({}) line({}) of the load", thread, line);
    }

  private:
    std::shared_ptr<spdlog::details::thread_pool> pool_;
    std::shared_ptr<spdlog::async_logger> log_;
};

using Maker = std::function<std::unique_ptr<Logger>(const fs::path&)>;

struct Subject {
    const char* name;
    Maker make;
};

struct Figures {
    double linesPerSecond;  // from the first call until the log is closed
    long lost;
};

void RunThread(Logger& logger, const Load& load, int thread, int lines) {
    auto due = Clock::now();
    for (int i = 0; i < lines; ++i) {
        if (load.linesPerTick > 0 && i % load.linesPerTick == 0) {
            std::this_thread::sleep_until(due += TICK);
        }
        logger.Log(thread, i);
    }
}

long CountLines(const fs::path& directory) {
    long count = 0;
    for (const auto& entry : fs::directory_iterator(directory)) {
        std::ifstream file(entry.path());
        for (std::string line; std::getline(file, line);) {
            count += line.find("of the load") != std::string::npos ? 1 : 0;
        }
    }
    return count;
}

Figures Run(const Subject& subject, const Load& load, int lines) {
    std::string directory = (fs::temp_directory_path() / "bench-log-XXXXXX").string();
    if (mkdtemp(directory.data()) == nullptr) {
        exit(1);
    }
    auto logger = subject.make(directory);
    const auto start = Clock::now();
    std::vector<std::thread> threads;
    threads.reserve(static_cast<size_t>(load.threads));
    for (int i = 0; i < load.threads; ++i) {
        threads.emplace_back([&, i] { RunThread(*logger, load, i, lines / load.threads); });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    logger.reset();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const long written = CountLines(directory);
    fs::remove_all(directory);
    return {static_cast<double>(written) / seconds, lines - written};
}

double GetMedianRate(std::vector<Figures> runs) {
    const auto middle = runs.begin() + static_cast<long>(runs.size() / 2);
    std::nth_element(runs.begin(), middle, runs.end(), [](const Figures& a, const Figures& b) {
        return a.linesPerSecond < b.linesPerSecond;
    });
    return middle->linesPerSecond;
}

void Print(const Subject& subject, const std::vector<Figures>& runs, double ownRate) {
    const auto [least, most] =
        std::minmax_element(runs.begin(), runs.end(),
                            [](const Figures& a, const Figures& b) { return a.lost < b.lost; });
    const double rate = GetMedianRate(runs);
    printf("  %-32s %10.0f lines/s, lost %ld to %ld, service log at %.2f of it\n", subject.name,
           rate, least->lost, most->lost, ownRate / rate);
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::max(1, atoi(argv[1])) : 5;
    const int lines = argc > 2 ? std::max(4, atoi(argv[2]) / 4 * 4) : 100000;
    setenv("VEK_RES_HOME", fs::temp_directory_path().c_str(), 1);
    const std::vector<Subject> subjects = {
        {"service log", [](const fs::path& path) { return std::make_unique<ServiceLogger>(path); }},
        {"asynchronous, flush per line",
         [](const fs::path& path) { return std::make_unique<SpdLogger>(path, true); }},
        {"asynchronous, default flushing",
         [](const fs::path& path) { return std::make_unique<SpdLogger>(path, false); }},
    };
    for (const Load& load : LOADS) {
        std::vector<std::vector<Figures>> runs(subjects.size());
        for (int round = 0; round < rounds; ++round) {
            for (size_t i = 0; i < subjects.size(); ++i) {
                runs[i].push_back(Run(subjects[i], load, lines));
            }
        }
        printf("%d lines, %s, median of %d:\n", lines, load.name, rounds);
        for (size_t i = 0; i < subjects.size(); ++i) {
            Print(subjects[i], runs[i], GetMedianRate(runs[0]));
        }
    }
    return 0;
}
