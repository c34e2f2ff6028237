#include "CVEKServiceLog.h"

#include <cxxabi.h>
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "CVEKConv.h"
#include "CVEKWriteFile.h"
#include "VEKPipeRoom.h"
#include "VEKStandardStream.h"
#include "VEKText.h"
#include "VEKTimeZone.h"

namespace {

constexpr size_t WORK_BUFFER_SIZE = CVEKServiceLogWriter::BUFFER_SIZE;
constexpr size_t NAME_SIZE = CVEKServiceLogWriter::NAME_SIZE;
constexpr size_t HEADER_SIZE = CVEKServiceLogWriter::HEADER_SIZE;
constexpr size_t TEXT_SIZE = CVEKServiceLogWriter::MAX_TEXT_SIZE;
// All logs of the process, and what is done once for them.
std::mutex G_LOGS_MUTEX;
CVEKServiceLog* G_LOGS = nullptr;
bool G_HAS_FORK_HANDLERS = false;
bool G_IS_FORK_IN_LOG = false;  // by a thread that is inside a log: it has the locks, or needs none

// Of the calling thread.
thread_local std::atomic<bool> G_IS_LOGGING{false};
thread_local std::atomic<bool> G_IS_CLOSING{false};

constexpr const char* MAIN_NAME = CVEKServiceLogWriter::MAIN_NAME;

constexpr char NO_MEMORY_LINE[] = "memory allocate failed...";
constexpr int FILE_MODE = 1;
constexpr int CONSOLE_MODE = 2;

constexpr unsigned long MAX_DUMPED = 4096;
static_assert(CVEKConv::GetHexaDumpSize(MAX_DUMPED) < TEXT_SIZE / 4 * 3,
              "a dump must leave room for its title");

constexpr int FORMAT_STANDARD = 1;
constexpr int FORMAT_LONG = 2;

const char* GetLevelLabel(int level) {
    switch (level) {
        case VEK_LOG_DEBUG:
            return "Debug";
        case VEK_LOG_INFO:
            return "Info";
        case VEK_LOG_WARNING:
            return "Warning";
        case VEK_LOG_ERROR:
            return "Error";
        default:
            return "Unknown";
    }
}

int ChooseFormat() {
    const char* format = getenv("VEK_LOG_FORMAT");
    return format == nullptr || strcasecmp(format, "STANDARD") == 0 ? FORMAT_STANDARD : FORMAT_LONG;
}

// Collects text at the end of a buffer; what does not fit is cut.
class LineBuffer {
  public:
    LineBuffer(char* buffer, size_t size) : buffer_(buffer), size_(size), length_(0) {}

    __attribute__((format(printf, 2, 3))) void Append(const char* format, ...) {
        va_list args;
        va_start(args, format);
        AppendList(format, args);
        va_end(args);
    }

    __attribute__((format(printf, 2, 0))) void AppendList(const char* format, va_list args) {
        if (vsnprintf(buffer_ + length_, size_ - length_, format, args) > 0) {
            length_ += strlen(buffer_ + length_);  // a NUL that was printed ends the line
        }
    }

    size_t GetLength() const { return length_; }

  private:
    char* buffer_;
    size_t size_;
    size_t length_;
};

void AppendPrefix(LineBuffer& line, int format, int level) {
    timeval now{};
    gettimeofday(&now, nullptr);
    const tm local = VEK_GET_LOCAL_TIME(now.tv_sec);
    const int micros = static_cast<int>(now.tv_usec);
    if (format == FORMAT_STANDARD) {
        line.Append("[%02d:%02d:%02d:%06d][%-7s]", local.tm_hour, local.tm_min, local.tm_sec,
                    micros, GetLevelLabel(level));
        return;
    }
    // No level label here: meant.
    line.Append("%04d/%02d/%02d-%02d:%02d:%02d.%06d %5d ", local.tm_year + 1900, local.tm_mon + 1,
                local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, micros,
                static_cast<int>(getpid()));
}

// Where the path leads now, though the program may change its directory later.
std::string MakeAbsolute(const char* path) {
    const std::unique_ptr<char, void (*)(void*)> directory(getcwd(nullptr, 0), free);
    return *path == '/' || !directory ? path : std::string(directory.get()) + "/" + path;
}

const char* GetPipeDirectory() {
    for (const char* variable : {"VEK_RES_HOME", "TMPDIR"}) {
        const char* directory = getenv(variable);
        if (directory != nullptr) {
            return directory;
        }
    }
    return ".";
}

// Makes a pipe as large as the system allows, so that the writer may fall behind for a while.
void EnlargePipe(int pipe) {
    constexpr int USUAL_LIMIT = 1048576;
    int size = 0;
    std::ifstream("/proc/sys/fs/pipe-max-size") >> size;
    if (size <= 0) {
        size = USUAL_LIMIT;
    }
    // A user who has many pipes is allowed less than the limit.
    while (size > 0 && size > fcntl(pipe, F_GETPIPE_SZ) && fcntl(pipe, F_SETPIPE_SZ, size) < 0) {
        size /= 2;
    }
}

bool IsWritten(int pipe, const CVEKServiceLogWriter& writer) {
    return VEK_GET_PIPE_QUEUE(pipe) == 0 && !writer.IsBusy();
}

}  // namespace

CVEKServiceLog::CVEKServiceLog()
    : writeMode_(CONSOLE_MODE),
      pipeName_(),
      pipe_(-1),
      logMask_(0),
      buffer_(nullptr),
      isClose_(0),
      format_(FORMAT_STANDARD),
      owner_(0),
      options_(),
      waiting_(0),
      lost_(0),
      untold_(0),
      next_(nullptr) {
    const std::lock_guard guard(G_LOGS_MUTEX);
    if (!G_HAS_FORK_HANDLERS) {
        pthread_atfork(BeforeFork, AfterForkInParent, AfterForkInChild);
        G_HAS_FORK_HANDLERS = true;
    }
    next_ = std::exchange(G_LOGS, this);
}

CVEKServiceLog::~CVEKServiceLog() {
    Finalize();
    const std::lock_guard guard(G_LOGS_MUTEX);
    CVEKServiceLog** place = &G_LOGS;
    while (*place != this) {
        place = &(*place)->next_;
    }
    *place = next_;
}

// A child has the forking thread only: what another one held or was about to complete would stay so
// for ever. Each lock is therefore taken first, in the order in which the log itself takes them.
void CVEKServiceLog::BeforeFork() {
    const bool isInLog = G_IS_LOGGING.exchange(true);
    G_LOGS_MUTEX.lock();
    G_IS_FORK_IN_LOG = isInLog;
    if (isInLog) {
        return;
    }
    for (CVEKServiceLog* log = G_LOGS; log != nullptr; log = log->next_) {
        log->logWriter_.Hold();
    }
    for (CVEKServiceLog* log = G_LOGS; log != nullptr; log = log->next_) {
        log->mutex_.Lock();
    }
    VEKTimeZoneGuard::Lock();
}

void CVEKServiceLog::AfterForkInParent() {
    const bool isInLog = G_IS_FORK_IN_LOG;
    if (!isInLog) {
        VEKTimeZoneGuard::Unlock();
        for (CVEKServiceLog* log = G_LOGS; log != nullptr; log = log->next_) {
            log->mutex_.Unlock();
            log->logWriter_.Release();
        }
    }
    G_LOGS_MUTEX.unlock();
    G_IS_LOGGING = isInLog;
}

void CVEKServiceLog::AfterForkInChild() {
    if (!G_IS_FORK_IN_LOG) {
        VEKTimeZoneGuard::Unlock();
    }
    for (CVEKServiceLog* log = G_LOGS; log != nullptr; log = log->next_) {
        log->lost_ = 0;
        log->untold_ = 0;  // the parent tells
        log->waiting_ = 0;
        if (!G_IS_FORK_IN_LOG) {
            log->logWriter_.Release();
            log->mutex_.Unlock();
        }
        log->mutex_.Renew();
        log->closing_.Renew();
        log->logWriter_.Renew();
    }
    G_LOGS_MUTEX.unlock();
    G_IS_LOGGING = G_IS_FORK_IN_LOG;
}

// True in a child process, when writer and FIFO are the parent's.
bool CVEKServiceLog::IsInherited() const {
    return owner_ != 0 && owner_ != getpid();
}

int CVEKServiceLog::SetOptions(const VEK_ST_SERVICE_LOG_OPTIONS& options) {
    const CVEKReentryGuard guard(mutex_, G_IS_LOGGING);
    if (isClose_ == 1 || logWriter_.GetStatus() != CVEKThread::VEK_THREAD_INIT) {
        return 0;
    }
    options_ = options;
    return 1;
}

int CVEKServiceLog::Initialize() {
    const CVEKReentryGuard guard(mutex_, G_IS_LOGGING);
    writeMode_ = CONSOLE_MODE;
    if (AllocateBuffer() == 0) {
        return 0;
    }
    format_ = ChooseFormat();
    logMask_ = VEK_LOG_ALL;
    return 1;
}

int CVEKServiceLog::Initialize(const char* path, const char* name, const char* extension,
                               int dailyDir, unsigned long maxSize) try {
    if (isClose_ == 1 || logWriter_.GetStatus() != CVEKThread::VEK_THREAD_INIT) {
        puts("logger was opened before...");
        return 0;
    }
    {
        const CVEKReentryGuard guard(mutex_, G_IS_LOGGING);
        if (AllocateBuffer() == 0) {
            return 0;
        }
    }
    const std::string full = MakeAbsolute(path);
    if (access(path, W_OK) != 0 || !CVEKWriteFile::Fits(full.c_str(), name, extension)) {
        printf("logger invalid path(%s)...\n", path);
        return 0;
    }
    owner_ = getpid();  // first: a child that is forked from here on has its parent's FIFO
    if (CreatePipe() == 0) {
        owner_ = 0;
        return 0;
    }
    // Without the lock: what goes wrong in these is logged, as long as that is to the console.
    logWriter_.SetPipe(pipe_);
    logWriter_.SetFileOptions(
        {options_.isSizeOfFile_, options_.isUmaskHeeded_, options_.maxPieces_});
    if (logWriter_.Initialize(full.c_str(), name, extension, dailyDir, maxSize) == 1 &&
        StartWriter()) {
        const CVEKReentryGuard guard(mutex_, G_IS_LOGGING);
        writeMode_ = FILE_MODE;
        format_ = ChooseFormat();
        logMask_ = VEK_LOG_ALL;
        return 1;
    }
    ClosePipe();
    owner_ = 0;
    return 0;
} catch (const std::bad_alloc&) {  // before the thread was started
    puts(NO_MEMORY_LINE);
    ClosePipe();
    owner_ = 0;
    return 0;
}

// The program's signals are for its own threads.
bool CVEKServiceLog::StartWriter() {
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    const bool isStarted = logWriter_.Execute() == 1;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return isStarted;
}

void CVEKServiceLog::Finalize() {
    isClose_ = 1;
    if (IsInherited()) {
        return;
    }
    if (G_IS_LOGGING) {
        FinalizeInterrupting();
        return;
    }
    const CVEKReentryGuard closing(closing_, G_IS_CLOSING);
    EndLogging();
    logWriter_.SetExit();
    AwaitWriter(false);
    ClosePipe();
}

// In a signal handler that has interrupted a line: the line may yet go on, and a thread that
// closes, too, may wait for the lock that it has.
void CVEKServiceLog::FinalizeInterrupting() {
    logWriter_.SetExit();
    AwaitWriter(true);
    ClosePipe();
}

// Without the buffer no thread puts another line into the FIFO: the writer sees them all. What the
// files refuse of them can be told of only before.
void CVEKServiceLog::EndLogging() {
    const CVEKReentryGuard guard(mutex_, G_IS_LOGGING);
    bool isOver = false;
    while (!isOver) {
        const bool isWritten = IsWritten(pipe_, logWriter_);  // before all of that is told of
        TellLost();
        isOver = writeMode_ == CONSOLE_MODE || !logWriter_.IsActive() ||  // nobody makes room
                 (isWritten && waiting_ == 0 && untold_ == 0);
        if (!isOver) {
            Nap();
        }
    }
    free(std::exchange(buffer_, nullptr));
}

// Waits for the end of the writer. It may want a lock of the line that a signal handler has
// interrupted: then it is given up when it does not get on.
void CVEKServiceLog::AwaitWriter(bool isInterrupting) {
    const auto hasEnded = [this] { return !logWriter_.IsActive(); };
    while (!AwaitProgress(hasEnded) && !isInterrupting) {
    }
}

// Waits until the condition holds. Returns false when the FIFO has not changed for a second.
template <class CONDITION>
bool CVEKServiceLog::AwaitProgress(CONDITION isDone) const {
    constexpr int PATIENCE = 1000;
    constexpr useconds_t NAP_US = 1000;
    size_t queued = 0;
    for (int naps = 0; naps < PATIENCE; ++naps) {
        if (isDone()) {
            return true;
        }
        usleep(NAP_US);
        const size_t left = VEK_GET_PIPE_QUEUE(pipe_);
        if (left != std::exchange(queued, left)) {
            naps = 0;
        }
    }
    return isDone();
}

// Without a lock: a signal may have interrupted whoever has it.
int CVEKServiceLog::Flush() {
    if (writeMode_ == CONSOLE_MODE) {
        return options_.sink_ != nullptr || console_.Flush(GetStream()) ? 1 : 0;
    }
    if (logWriter_.IsSelf()) {
        return 0;
    }
    const unsigned long refused = logWriter_.GetRefusedCount();
    const auto isWritten = [this] { return IsWritten(pipe_, logWriter_); };
    return AwaitProgress(isWritten) && !logWriter_.IsRefusing() &&
                   logWriter_.GetRefusedCount() == refused
               ? 1
               : 0;
}

int CVEKServiceLog::MessageLog(int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    LeadMessageLog(level, "", format, args);
    va_end(args);
    return 1;
}

int CVEKServiceLog::MessageLog(const char* name, int level, const char* format, ...) {
    if (IsEnabled(level)) {
        va_list args;
        va_start(args, format);
        WriteLine(name, FORMAT_STANDARD, level, "", format, args);
        va_end(args);
    }
    return 1;
}

int CVEKServiceLog::LeadMessageLog(int level, const char* lead, const char* format, va_list args) {
    if (IsEnabled(level)) {
        WriteLine(MAIN_NAME, format_, level, lead, format, args);
    }
    return 1;
}

int CVEKServiceLog::HexaLog(const char* title, const unsigned char* data, unsigned long length) {
    return _HexaLog(MAIN_NAME, title, data, length);
}

int CVEKServiceLog::HexaLog(const char* name, const char* title, const unsigned char* data,
                            unsigned long length) {
    return _HexaLog(name, title, data, length);
}

int CVEKServiceLog::InitThreadLog(const char* name) {
    {
        const CVEKReentryGuard guard(mutex_, G_IS_LOGGING);
        if (writeMode_ == CONSOLE_MODE || isClose_ == 1 || IsInherited()) {
            return 0;
        }
    }
    return logWriter_.AddWriter(name);
}

// The caller holds mutex_.
int CVEKServiceLog::AllocateBuffer() {
    if (buffer_ == nullptr) {
        buffer_ = static_cast<char*>(malloc(WORK_BUFFER_SIZE));
    }
    if (buffer_ == nullptr) {
        puts(NO_MEMORY_LINE);
        return 0;
    }
    return 1;
}

int CVEKServiceLog::CreatePipe() {
    constexpr mode_t OWNER_ONLY = 0600;
    const int length = snprintf(pipeName_, sizeof pipeName_, "%s/APP.%d.PIPE", GetPipeDirectory(),
                                static_cast<int>(getpid()));
    if (length < static_cast<int>(sizeof pipeName_)) {
        unlink(pipeName_);
        if (mkfifo(pipeName_, OWNER_ONLY) == 0) {
            pipe_ = VEK_LEAVE_STANDARD_STREAMS(open(pipeName_, O_RDWR | O_NONBLOCK | O_CLOEXEC));
            if (pipe_ >= 0) {
                EnlargePipe(pipe_);
                VEK_COPY_TEXT(pipeName_, MakeAbsolute(pipeName_).c_str());
                return 1;
            }
            unlink(pipeName_);
        }
    }
    printf("logger pipe failed...(%s)\n", pipeName_);
    return 0;
}

void CVEKServiceLog::ClosePipe() {
    const CVEKReentryGuard guard(mutex_, G_IS_LOGGING);
    if (pipe_ < 0) {
        return;
    }
    struct stat own {};
    struct stat named {};
    // A process of another container may have taken the name since.
    if (fstat(pipe_, &own) == 0 && stat(pipeName_, &named) == 0 && own.st_ino == named.st_ino &&
        own.st_dev == named.st_dev) {
        unlink(pipeName_);
    }
    close(pipe_);
    pipe_ = -1;
}

void CVEKServiceLog::WriteLine(const char* name, int format, int level, const char* lead,
                               const char* text, va_list args) {
    const CVEKReentryGuard guard(mutex_, G_IS_LOGGING);
    if (!guard.IsEntered()) {  // a signal has interrupted the line in the buffer
        CountLost();
        return;
    }
    if (buffer_ == nullptr) {  // closed since the caller looked
        return;
    }
    LineBuffer line(buffer_ + HEADER_SIZE, TEXT_SIZE);
    AppendPrefix(line, format, level);
    line.Append("%s", lead);
    line.AppendList(text, args);
    buffer_[HEADER_SIZE + line.GetLength()] = '\n';
    Emit(name, level, line.GetLength() + 1);
}

// Emits the text in the buffer, which ends in a line end. The caller holds mutex_.
void CVEKServiceLog::Emit(const char* name, int level, size_t length) {
    TellLost();
    if (!WriteRecord(name, level, buffer_, length) &&
        !(CanWait() && AwaitRecord(name, level, length))) {
        CountLost();
    }
}

void CVEKServiceLog::CountLost() {
    ++lost_;
    ++untold_;
}

// The writer, which may log itself, must not wait for the room that it makes.
bool CVEKServiceLog::CanWait() const {
    return writeMode_ == FILE_MODE && options_.isWaiting_ && !IsInherited() && !logWriter_.IsSelf();
}

// Waits until the record in the buffer finds room. Returns false when it never will. The caller
// holds mutex_; others have it, and the buffer, meanwhile.
bool CVEKServiceLog::AwaitRecord(const char* name, int level, size_t length) {
    const std::unique_ptr<char[]> record(new (std::nothrow) char[HEADER_SIZE + length]);
    if (record == nullptr) {
        return false;
    }
    memcpy(record.get(), buffer_, HEADER_SIZE + length);
    // A thread that is cancelled waits no more either.
    const std::unique_ptr<int, void (*)(int*)> waiting(&++waiting_, [](int* count) { --*count; });
    bool isWritten = false;
    while (!isWritten && CanWait() && logWriter_.IsActive()) {
        Nap();
        isWritten = WriteRecord(name, level, record.get(), length);
    }
    return isWritten;
}

// The caller holds mutex_, and gives it away meanwhile. It has it again where its thread is
// cancelled.
void CVEKServiceLog::Nap() {
    constexpr useconds_t NAP_US = 200;
    mutex_.Unlock();
    const std::unique_ptr<CVEKMutex, void (*)(CVEKMutex*)> relock(
        &mutex_, [](CVEKMutex* mutex) { mutex->Lock(); });
    usleep(NAP_US);
}

// Says how many lines were lost since it was said last. The caller holds mutex_.
void CVEKServiceLog::TellLost() {
    constexpr size_t NOTE_SIZE = 256;
    untold_ += logWriter_.TakeRefused();
    // Not as soon as there is any room, or a line in two would be one of these.
    if (untold_ == 0 || (writeMode_ == FILE_MODE && !VEK_IS_PIPE_HALF_EMPTY(pipe_))) {
        return;
    }
    char record[HEADER_SIZE + NOTE_SIZE];
    LineBuffer line(record + HEADER_SIZE, NOTE_SIZE);
    AppendPrefix(line, format_, VEK_LOG_WARNING);
    const unsigned long count = untold_;
    line.Append("log lines lost(%lu): there was no room for them...\n", count);
    if (WriteRecord(MAIN_NAME, VEK_LOG_WARNING, record, line.GetLength())) {
        untold_ -= count;
    }
}

// Hands on the text behind the space for the header, which is filled in here where one is needed.
// Returns false when there was no room. The caller holds mutex_.
bool CVEKServiceLog::WriteRecord(const char* name, int level, char* record, size_t length) {
    if (writeMode_ == CONSOLE_MODE) {
        return WriteConsole(name, level, record + HEADER_SIZE, length);
    }
    const uint64_t textLength = length;
    const size_t nameLength = strnlen(name, NAME_SIZE - 1);
    memcpy(record, name, nameLength);
    record[nameLength] = '\0';
    memcpy(record + NAME_SIZE, &textLength, sizeof textLength);
    const size_t size = HEADER_SIZE + length;
    // One that was cut would take the records behind it along.
    return VEK_HAS_PIPE_ROOM(pipe_, size) && write(pipe_, record, size) >= 0;
}

bool CVEKServiceLog::WriteConsole(const char* name, int level, const char* text, size_t length) {
    return options_.sink_ != nullptr ? CallSink(name, level, text, length)
                                     : console_.Write(GetStream(), text, length);
}

// Whoever logs, a C library's callbacks too, must not see what the function throws.
bool CVEKServiceLog::CallSink(const char* name, int level, const char* text, size_t length) {
    try {
        options_.sink_(options_.sinkArgument_, level, name, text, length);
        return true;
    } catch (const abi::__forced_unwind&) {  // the end of a thread that is cancelled
        throw;
    } catch (...) {
        return false;
    }
}

FILE* CVEKServiceLog::GetStream() const {
    return options_.isStandardError_ ? stderr : stdout;
}

int CVEKServiceLog::_HexaLog(const char* name, const char* title, const unsigned char* data,
                             unsigned long length) {
    if (!IsEnabled(VEK_LOG_DEBUG)) {
        return 1;
    }
    const CVEKReentryGuard guard(mutex_, G_IS_LOGGING);
    if (!guard.IsEntered()) {
        CountLost();
        return 1;
    }
    if (buffer_ == nullptr || length > MAX_DUMPED) {
        return 0;
    }
    char* text = buffer_ + HEADER_SIZE;
    const size_t dumpSize = CVEKConv::GetHexaDumpSize(length) + strlen("\n\n");
    LineBuffer line(text, TEXT_SIZE - dumpSize);
    AppendPrefix(line, FORMAT_STANDARD, VEK_LOG_DEBUG);
    line.Append(" %s", title);
    char* end = text + line.GetLength();
    *end++ = '\n';
    end += CVEKConv::HexaDump(end, data, static_cast<int>(length));
    *end++ = '\n';
    if (writeMode_ == CONSOLE_MODE) {
        *end++ = '\n';
    }
    Emit(name, VEK_LOG_DEBUG, static_cast<size_t>(end - text));
    return 1;
}
