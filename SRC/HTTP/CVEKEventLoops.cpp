#include "CVEKEventLoops.h"

#include <sched.h>

#include <algorithm>
#include <condition_variable>
#include <csignal>
#include <mutex>

namespace {

unsigned CountCores() {
    cpu_set_t cores;
    if (sched_getaffinity(0, sizeof cores, &cores) == 0) {
        return static_cast<unsigned>(CPU_COUNT(&cores));
    }
    return std::max(std::thread::hardware_concurrency(), 1U);
}

}  // namespace

CVEKEventLoops::CVEKEventLoops(unsigned threads) {
    const unsigned count = threads == 0 ? CountCores() : threads;
    for (unsigned i = 0; i < count; ++i) {
        loops_.push_back(std::make_unique<CVEKEventLoop>());
    }
    try {
        for (const auto& loop : loops_) {
            threads_.emplace_back([&loop = *loop] { loop.Run(); });
        }
    } catch (...) {
        Stop();
        throw;
    }
}

CVEKEventLoops::~CVEKEventLoops() {
    Stop();
}

void CVEKEventLoops::Stop() {
    for (size_t i = 0; i < threads_.size(); ++i) {
        loops_[i]->Stop();
    }
    for (std::thread& thread : threads_) {
        thread.join();
    }
    threads_.clear();
}

int CVEKEventLoops::WaitForSignal(std::vector<int> signals) {
    struct Wait {
        std::mutex mutex;
        std::condition_variable came;
        int signal = 0;
    };
    const auto wait = std::make_shared<Wait>();  // the loop keeps it when the wait is over
    if (signals.empty()) {
        signals.push_back(SIGINT);
        signals.push_back(SIGTERM);
    }
    bool isWatched = false;
    for (const int signal : signals) {
        const bool isCaught = loops_.front()->OnSignal(signal, [wait, signal] {
            const std::lock_guard<std::mutex> guard(wait->mutex);
            wait->signal = wait->signal == 0 ? signal : wait->signal;
            wait->came.notify_one();
        });
        isWatched = isWatched || isCaught;
    }
    if (!isWatched) {
        return 0;
    }
    // Not a future: ThreadSanitizer would hold signals back from a thread that waits for one.
    std::unique_lock<std::mutex> lock(wait->mutex);
    wait->came.wait(lock, [&wait] { return wait->signal != 0; });
    return wait->signal;
}
