#include "CVEKServiceLogWriter.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <new>
#include <utility>

#include "VEKText.h"

namespace {

constexpr size_t MAP_BUCKETS = 10;
constexpr long WAIT_US = 10000;
constexpr long DRAIN_WAIT_US = 100;
constexpr char NO_MEMORY[] = "service-logger memory allocate failed!\n";

// Whoever cannot be told, the files must be written.
void Say(CVEKConsole& console, const std::string& message) {
    const std::string line = message + "\n";
    console.Write(stdout, line.data(), line.size());
}

}  // namespace

CVEKServiceLogWriter::CVEKServiceLogWriter()
    : thdMap_(MAP_BUCKETS),
      path_(),
      name_(),
      extension_(),
      dailyCreatePath_(0),
      maxFileSize_(0),
      pipe_(-1),
      doExit_(0),
      isHeld_(false),
      isBusy_(false),
      start_(0),
      end_(0),
      refused_(0),
      isRefusing_(false),
      taken_(0) {}

CVEKServiceLogWriter::~CVEKServiceLogWriter() {
    Finalize();
}

// The flag is not reset here: SetExit may have been called before the thread came this far.
void CVEKServiceLogWriter::Run() {
    const CVEKMutexGuard guard(workMutex_);
    while (doExit_ == 0) {
        if (IsReadable(WAIT_US)) {
            WriteLog();
        }
    }
    while (IsReadable(DRAIN_WAIT_US)) {
        WriteLog();
    }
}

int CVEKServiceLogWriter::Initialize(const char* path, const char* name, const char* extension,
                                     int dailyDir, unsigned long maxSize) try {
    buffer_.reset(new (std::nothrow) char[BUFFER_SIZE]);
    if (!buffer_) {
        return 0;
    }
    VEK_COPY_TEXT(path_, path);
    VEK_COPY_TEXT(name_, name);
    VEK_COPY_TEXT(extension_, extension);
    dailyCreatePath_ = dailyDir;
    maxFileSize_ = maxSize;
    file_ = MakeFile(name_);
    return file_->Open();
} catch (const std::bad_alloc&) {
    return 0;
}

void CVEKServiceLogWriter::Finalize() {
    {
        CVEKMutexGuard guard(thdMutex_);
        thdMap_.clear();
    }
    buffer_.reset();
    file_.reset();
}

int CVEKServiceLogWriter::AddWriter(const char* name) try {
    CVEKConsole console;  // console_ is the thread's
    if (HasWriter(name)) {
        return 0;
    }
    const std::string fileName = std::string(name_) + "." + name;
    if (strlen(name) >= NAME_SIZE || !CVEKWriteFile::Fits(path_, fileName.c_str(), extension_)) {
        Say(console, std::string("ThreadLog(") + name + ") name too long!");
        return 0;
    }
    // Without the lock, for which the thread may wait: what fails here is logged, and a line may
    // have to wait for the thread.
    auto file = MakeFile(fileName.c_str());
    const CVEKMutexGuard guard(thdMutex_);
    return thdMap_.emplace(name, std::move(file)).second ? 1 : 0;
} catch (const std::bad_alloc&) {
    CVEKConsole().Write(stdout, NO_MEMORY, strlen(NO_MEMORY));
    return 0;
}

bool CVEKServiceLogWriter::HasWriter(const char* name) {
    const CVEKMutexGuard guard(thdMutex_);
    return thdMap_.count(name) > 0;
}

void CVEKServiceLogWriter::SetKeepDays(int days) {
    CVEKMutexGuard guard(thdMutex_);
    for (auto& entry : thdMap_) {
        entry.second->SetKeepDays(days);
    }
    if (file_) {
        file_->SetKeepDays(days);
    }
}

void CVEKServiceLogWriter::Hold() {
    isHeld_ = true;
    workMutex_.Lock();
    thdMutex_.Lock();
}

void CVEKServiceLogWriter::Release() {
    thdMutex_.Unlock();
    workMutex_.Unlock();
    isHeld_ = false;
}

void CVEKServiceLogWriter::Renew() {
    thdMutex_.Renew();
    workMutex_.Renew();
    isHeld_ = false;
    refused_ = taken_ = 0;
    isRefusing_ = false;
}

unsigned long CVEKServiceLogWriter::TakeRefused() {
    if (isRefusing_) {
        return 0;
    }
    const unsigned long refused = refused_;
    return refused - std::exchange(taken_, refused);
}

// Writes one record. They are read in numbers, as many as the buffer takes; one is put into the
// FIFO at once or not at all, so that the missing end of one will not come. Where memory runs out a
// record is lost, and not the thread.
void CVEKServiceLogWriter::WriteLog() try {
    if (!Fill(NAME_SIZE)) {
        DropInput("service-logger tag length mismatch!");
        return;
    }
    if (!Fill(HEADER_SIZE)) {
        DropInput("service-logger log size length mismatch!");
        return;
    }
    uint64_t length = 0;
    memcpy(&length, &buffer_[start_ + NAME_SIZE], sizeof length);
    if (length > MAX_TEXT_SIZE || memchr(&buffer_[start_], '\0', NAME_SIZE) == nullptr) {
        DropInput("service-logger log data length mismatch!");
        DropPipe();
        return;
    }
    if (!Fill(HEADER_SIZE + length)) {
        DropInput("service-logger log data length mismatch!");
        return;
    }
    const char* name = &buffer_[start_];
    const char* text = name + HEADER_SIZE;
    start_ += HEADER_SIZE + length;
    CVEKWriteFile* file = FindFile(name);
    if (file == nullptr) {
        Say(console_, std::string("ThreadLog(") + name + ") not found!");
        return;
    }
    Written& written = PrepareFile(file);
    ++written.lines;
    written.hasRefused = file->Write(reinterpret_cast<const unsigned char*>(text), length) == 0;
    if (written.hasRefused) {  // with what the stream has given up
        refused_ += std::exchange(written.lines, 0);
    }
} catch (const std::bad_alloc&) {
    ++refused_;
    console_.Write(stdout, NO_MEMORY, strlen(NO_MEMORY));
}

// All records at hand were logged before they were read: to look for the file once is enough.
CVEKServiceLogWriter::Written& CVEKServiceLogWriter::PrepareFile(CVEKWriteFile* file) {
    const auto known =
        std::find_if(written_.begin(), written_.end(),
                     [file](const Written& written) { return written.file == file; });
    if (known != written_.end()) {
        return *known;
    }
    written_.push_back({file, 0, false});
    if (!file->CheckFile()) {
        file->ReOpen();
    }
    return written_.back();
}

// The FIFO is not read on, nor waited for, before the records read from it are in their files.
void CVEKServiceLogWriter::FlushFiles() {
    for (const Written& written : written_) {
        const bool isFlushed = written.file->FFlush() == 1;
        refused_ += isFlushed ? 0 : written.lines;
        if (written.file == file_.get()) {
            isRefusing_ = !isFlushed || written.hasRefused;
        }
    }
    written_.clear();
}

// Waits until there is something to write.
bool CVEKServiceLogWriter::IsReadable(long waitUs) {
    if (start_ < end_) {
        return true;
    }
    FlushFiles();
    isBusy_ = false;
    workMutex_.Unlock();
    const bool isReadable = Await(waitUs);
    workMutex_.Lock();
    isBusy_ = isReadable;
    return isReadable;
}

bool CVEKServiceLogWriter::Await(long waitUs) {
    constexpr long NANOS_PER_MICRO = 1000;
    while (isHeld_) {  // whoever waits for the lock would not get it from one who takes it at once
        usleep(DRAIN_WAIT_US);
    }
    pollfd poll{};
    poll.fd = pipe_;
    poll.events = POLLIN;
    const timespec wait = {0, waitUs * NANOS_PER_MICRO};
    return ppoll(&poll, 1, &wait, nullptr) > 0 && (poll.revents & POLLIN) != 0;
}

// Reads until `wanted` bytes, no more than the buffer takes, are there. Returns false when the FIFO
// does not hold them.
bool CVEKServiceLogWriter::Fill(size_t wanted) {
    if (start_ == end_ || start_ + wanted > BUFFER_SIZE) {
        memmove(&buffer_[0], &buffer_[start_], end_ - start_);
        end_ -= start_;
        start_ = 0;
    }
    while (end_ - start_ < wanted) {
        FlushFiles();
        const ssize_t count = read(pipe_, &buffer_[end_], BUFFER_SIZE - end_);
        if (count > 0) {
            end_ += static_cast<size_t>(count);
        } else if (count == 0 || errno != EINTR) {
            return false;
        }
    }
    return true;
}

// Gives up what was read; what follows in the FIFO begins with a new record.
void CVEKServiceLogWriter::DropInput(const char* message) {
    start_ = end_ = 0;
    Say(console_, message);
}

// Gives up what the FIFO holds, where it cannot be told any more where a record begins.
void CVEKServiceLogWriter::DropPipe() {
    while (Fill(1)) {
        start_ = end_ = 0;
    }
}

CVEKWriteFile* CVEKServiceLogWriter::FindFile(const char* name) {
    if (strcmp(name, MAIN_NAME) == 0) {
        return file_.get();
    }
    CVEKMutexGuard guard(thdMutex_);
    const auto found = thdMap_.find(name);
    return found == thdMap_.end() ? nullptr : found->second.get();
}

std::unique_ptr<CVEKWriteFile> CVEKServiceLogWriter::MakeFile(const char* name) const {
    auto file = std::make_unique<CVEKWriteFile>(path_, name, extension_);
    file->SetOptions(fileOptions_);
    file->SetChange(dailyCreatePath_ == 1 ? CVEKWriteFile::VEK_WF_DAILY_DIR_CHANGE
                                          : CVEKWriteFile::VEK_WF_DAILY_CHANGE,
                    1);
    if (maxFileSize_ != 0) {
        file->SetSize(maxFileSize_);
    }
    return file;
}
