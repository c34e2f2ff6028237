#include "CVEKLoadRequestLog.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstring>
#include <utility>

#include "VEKLoadText.h"
#include "VEKLoadUnit.h"

namespace {

constexpr size_t WRITE_BYTES = PIPE_BUF - 256;  // of lines that are written together

}  // namespace

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
    WriteText("step,begin_ms,latency_ms,service_ms,status,body_bytes,connection,failure\n");
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
    std::string text;
    uint64_t count = 0;
    bool isGood = true;
    const auto write = [&] {
        isGood = WriteText(text);
        written_ += isGood ? count : 0;
        text.clear();
        count = 0;
    };
    for (auto line = lines.begin(); isGood && line != lines.end(); ++line) {
        text += Format(*line);
        ++count;
        if (text.size() >= WRITE_BYTES) {
            write();
        }
    }
    if (isGood && count > 0) {
        write();
    }
}

std::string CVEKLoadRequestLog::Format(const VEK_ST_LOAD_LINE& line) const {
    const auto number = [](uint64_t value) { return static_cast<unsigned long long>(value); };
    char text[256];
    snprintf(text, sizeof text, ",%.3f,%.3f,%.3f,%d,%llu,%llu,%s\n",
             static_cast<double>(line.begin_) / VEK_LOAD_NS_PER_MS,
             static_cast<double>(line.latency_) / VEK_LOAD_NS_PER_MS,
             static_cast<double>(line.service_) / VEK_LOAD_NS_PER_MS, line.status_,
             number(line.bytes_), number(line.connection_), line.failure_);
    return VEK_LOAD_CSV_TEXT(steps_.at(line.step_)) + text;
}

// All or nothing, but for a pipe. Whoever reads a pipe must not keep the program from its end: the
// wait for room is bounded, and what is written at once never waits where there is some.
bool CVEKLoadRequestLog::WriteText(const std::string& text) {
    constexpr int PATIENCE_MS = 1000;
    const int file = fileno(file_.get());
    const off_t begin = lseek(file, 0, SEEK_CUR);
    for (size_t done = 0; done < text.size();) {
        pollfd ready{file, POLLOUT, 0};
        errno = 0;
        const ssize_t size =
            poll(&ready, 1, PATIENCE_MS) == 1
                ? write(file, text.data() + done, std::min<size_t>(text.size() - done, PIPE_BUF))
                : -1;
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size <= 0) {
            if (begin >= 0 && ftruncate(file, begin) == 0) {  // a torn line is none
                lseek(file, begin, SEEK_SET);
            }
            return false;
        }
        done += static_cast<size_t>(size);
    }
    return true;
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
