// CVEKLoadRequestLog: a file with one line of CSV for each request that has ended. A thread of its
// own writes; whoever adds a line never waits for the disk. Lines that find no room are counted.
#ifndef CVEK_LOAD_REQUEST_LOG_H
#define CVEK_LOAD_REQUEST_LOG_H

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// Times are nanoseconds; begin_ since the start of the run: when it was scheduled.
struct VEK_ST_LOAD_LINE {
    size_t step_ = 0;
    int64_t begin_ = 0;
    int64_t latency_ = 0;
    int64_t service_ = 0;
    int status_ = 0;  // 0: no answer
    uint64_t bytes_ = 0;
    uint64_t connection_ = 0;
    const char* failure_ = "";  // a constant
};

class CVEKLoadRequestLog {
  public:
    // steps: names for step_. room: lines that may wait to be written.
    explicit CVEKLoadRequestLog(std::vector<std::string> steps, size_t room = 100000);
    ~CVEKLoadRequestLog();
    CVEKLoadRequestLog(const CVEKLoadRequestLog&) = delete;
    CVEKLoadRequestLog& operator=(const CVEKLoadRequestLog&) = delete;

    // Replaces the file. False: `error` says why not.
    bool Open(const std::string& path, std::string& error);
    // Any thread.
    void Add(const VEK_ST_LOAD_LINE& line);
    // Writes what waits, and ends the thread. Returns how many lines are not in the file.
    uint64_t Close();

  private:
    void Run();
    void Write(const std::vector<VEK_ST_LOAD_LINE>& lines);
    std::string Format(const VEK_ST_LOAD_LINE& line) const;
    bool WriteText(const std::string& text);

    const std::vector<std::string> steps_;
    const size_t room_;
    std::unique_ptr<FILE, int (*)(FILE*)> file_;
    std::thread thread_;
    uint64_t written_ = 0;  // the thread's

    std::mutex mutex_;  // of the rest
    std::condition_variable changed_;
    std::vector<VEK_ST_LOAD_LINE> lines_;
    uint64_t added_ = 0;
    bool isClosing_ = false;
};

#endif
