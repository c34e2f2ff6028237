#include "CVEKEventLoops.h"

#include <sched.h>

#include <algorithm>
#include <csignal>
#include <future>

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
        std::promise<int> signal;
        bool isDone = false;
    };
    const auto wait = std::make_shared<Wait>();  // the loop keeps it when the wait is over
    if (signals.empty()) {
        signals.push_back(SIGINT);
        signals.push_back(SIGTERM);
    }
    for (const int signal : signals) {
        loops_.front()->OnSignal(signal, [wait, signal] {
            if (!wait->isDone) {
                wait->isDone = true;
                wait->signal.set_value(signal);
            }
        });
    }
    return wait->signal.get_future().get();
}
