#include "CVEKServiceLog.h"

#include <strings.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "CVEKConv.h"
#include "VEKServiceLog.h"

namespace {

constexpr size_t WORK_BUFFER_SIZE = 32768;

constexpr unsigned long MAX_DUMPED = 4096;
static_assert(CVEKConv::GetHexaDumpSize(MAX_DUMPED) < WORK_BUFFER_SIZE / 4 * 3,
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
        const int wanted = vsnprintf(buffer_ + length_, size_ - length_, format, args);
        if (wanted > 0) {
            length_ = std::min(length_ + static_cast<size_t>(wanted), size_ - 1);
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
    tm local{};
    localtime_r(&now.tv_sec, &local);
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

}  // namespace

CVEKServiceLog::CVEKServiceLog()
    : logMask_(0), buffer_(nullptr), isClose_(0), format_(FORMAT_STANDARD) {}

CVEKServiceLog::~CVEKServiceLog() {
    Finalize();
}

int CVEKServiceLog::Initialize() {
    CVEKMutexGuard guard(mutex_);
    if (buffer_ == nullptr) {
        buffer_ = static_cast<char*>(malloc(WORK_BUFFER_SIZE));
    }
    if (buffer_ == nullptr) {
        puts("memory allocate failed...");
        return 0;
    }
    format_ = ChooseFormat();
    logMask_ = VEK_LOG_ALL;
    return 1;
}

void CVEKServiceLog::Finalize() {
    isClose_ = 1;
    CVEKMutexGuard guard(mutex_);
    free(buffer_);
    buffer_ = nullptr;
}

int CVEKServiceLog::MessageLog(int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    LeadMessageLog(level, "", format, args);
    va_end(args);
    return 1;
}

int CVEKServiceLog::MessageLog(const char* /*name*/, int level, const char* format, ...) {
    if (IsEnabled(level)) {
        va_list args;
        va_start(args, format);
        CVEKMutexGuard guard(mutex_);
        WriteLine(FORMAT_STANDARD, level, "", format, args);
        va_end(args);
    }
    return 1;
}

int CVEKServiceLog::LeadMessageLog(int level, const char* lead, const char* format, va_list args) {
    if (IsEnabled(level)) {
        CVEKMutexGuard guard(mutex_);
        WriteLine(format_, level, lead, format, args);
    }
    return 1;
}

int CVEKServiceLog::HexaLog(const char* title, const unsigned char* data, unsigned long length) {
    return _HexaLog("MAIN", title, data, length);
}

int CVEKServiceLog::HexaLog(const char* name, const char* title, const unsigned char* data,
                            unsigned long length) {
    return _HexaLog(name, title, data, length);
}

int CVEKServiceLog::InitThreadLog(const char* /*name*/) {
    return 0;
}

// The caller holds mutex_.
void CVEKServiceLog::WriteLine(int format, int level, const char* lead, const char* text,
                               va_list args) {
    if (buffer_ == nullptr) {  // closed since the caller looked
        return;
    }
    LineBuffer line(buffer_, WORK_BUFFER_SIZE);
    AppendPrefix(line, format, level);
    line.Append("%s", lead);
    line.AppendList(text, args);
    puts(buffer_);
}

int CVEKServiceLog::_HexaLog(const char* /*name*/, const char* title, const unsigned char* data,
                             unsigned long length) {
    if (!IsEnabled(VEK_LOG_DEBUG)) {
        return 1;
    }
    CVEKMutexGuard guard(mutex_);
    if (buffer_ == nullptr || length > MAX_DUMPED) {
        return 0;
    }
    const size_t dumpSize = CVEKConv::GetHexaDumpSize(length) + strlen("\n\n");
    LineBuffer line(buffer_, WORK_BUFFER_SIZE - dumpSize);
    AppendPrefix(line, FORMAT_STANDARD, VEK_LOG_DEBUG);
    line.Append(" %s", title);
    char* end = buffer_ + line.GetLength();
    *end++ = '\n';
    end += CVEKConv::HexaDump(end, data, static_cast<int>(length));
    *end++ = '\n';
    *end = '\0';
    puts(buffer_);
    return 1;
}
