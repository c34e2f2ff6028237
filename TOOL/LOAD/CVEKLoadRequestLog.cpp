#include "CVEKLoadRequestLog.h"

#include <cerrno>
#include <cstring>
#include <utility>

#include "VEKLoadText.h"

CVEKLoadRequestLog::CVEKLoadRequestLog(std::vector<std::string> steps, size_t room)
    : steps_(std::move(steps)), room_(room), file_(nullptr, fclose) {}

CVEKLoadRequestLog::~CVEKLoadRequestLog() {
    Close();
}

bool CVEKLoadRequestLog::Open(const std::string& path, std::string& error) {
    file_.reset(fopen(path.c_str(), "we"));
    if (file_ == nullptr) {
        error = path + ": " + strerror(errno);
        return false;
    }
    fputs("step,begin_ms,latency_ms,service_ms,status,body_bytes,connection,failure\n",
          file_.get());
    lines_.reserve(room_);
    thread_ = std::thread([this] { Run(); });
    return true;
}

void CVEKLoadRequestLog::Add(const VEK_ST_LOAD_LINE& line) {
    // The writer is woken when it is worth its while, else it comes by itself.
    const size_t many = room_ / 4;
    const std::lock_guard<std::mutex> guard(mutex_);
    ++added_;
    if (lines_.size() < room_) {
        lines_.push_back(line);
        if (lines_.size() == many) {
            changed_.notify_one();
        }
    }
}

void CVEKLoadRequestLog::Run() {
    constexpr std::chrono::milliseconds PAUSE{100};
    std::vector<VEK_ST_LOAD_LINE> taken;
    taken.reserve(room_);
    for (bool isLast = false; !isLast;) {
        {
            std::unique_lock<std::mutex> guard(mutex_);
            changed_.wait_for(guard, PAUSE,
                              [this] { return isClosing_ || lines_.size() >= room_ / 4; });
            taken.swap(lines_);
            isLast = isClosing_;
        }
        Write(taken);
        taken.clear();
    }
}

void CVEKLoadRequestLog::Write(const std::vector<VEK_ST_LOAD_LINE>& lines) {
    constexpr double NS_PER_MS = 1e6;
    uint64_t count = 0;
    for (const VEK_ST_LOAD_LINE& line : lines) {
        const auto number = [](uint64_t value) { return static_cast<unsigned long long>(value); };
        const int printed = fprintf(file_.get(), "%s,%.3f,%.3f,%.3f,%d,%llu,%llu,%s\n",
                                    VEK_LOAD_CSV_TEXT(steps_.at(line.step_)).c_str(),
                                    static_cast<double>(line.begin_) / NS_PER_MS,
                                    static_cast<double>(line.latency_) / NS_PER_MS,
                                    static_cast<double>(line.service_) / NS_PER_MS, line.status_,
                                    number(line.bytes_), number(line.connection_), line.failure_);
        count += printed > 0 ? 1 : 0;
    }
    // What was buffered is lost as a whole when the disk is full.
    const bool isGood = fflush(file_.get()) == 0 && ferror(file_.get()) == 0;
    clearerr(file_.get());
    written_ += isGood ? count : 0;
}

uint64_t CVEKLoadRequestLog::Close() {
    if (thread_.joinable()) {
        {
            const std::lock_guard<std::mutex> guard(mutex_);
            isClosing_ = true;
        }
        changed_.notify_one();
        thread_.join();
        file_.reset();
    }
    return added_ - written_;
}
