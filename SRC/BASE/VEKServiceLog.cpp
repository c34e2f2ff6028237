#include "VEKServiceLog.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "CVEKConv.h"
#include "CVEKServiceLog.h"

namespace {

// Closes the log at exit, but does not destroy what other threads may still be in.
union Keeper {
    Keeper() : log() {}
    ~Keeper() { log.Finalize(); }

    CVEKServiceLog log;
};

// Before any other static object, which may log or open the log, and closed behind them.
Keeper G_KEEPER __attribute__((init_priority(101)));

}  // namespace

CVEKServiceLog& G_SERVICE_LOGGER = G_KEEPER.log;

namespace {

constexpr size_t PATH_SIZE = 4096;
constexpr size_t LEAD_SIZE = 256;  // the source prefix and the text of an errno

// Logging must not disturb the error that its caller is about to look at.
class ErrnoKeeper {
  public:
    ErrnoKeeper() : value_(errno) {}
    ~ErrnoKeeper() { errno = value_; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
    int Value() const { return value_; }

  private:
    int value_;
};

int FormatSource(char (&lead)[LEAD_SIZE], const char* file, const char* function, int line) {
    const char* slash = strrchr(file, '/');
    return snprintf(lead, LEAD_SIZE, "[%24.24s:%16.16s:%04d]", slash == nullptr ? file : slash + 1,
                    function, line);
}

}  // namespace

int VEK_SET_SERVICE_LOG_OPTIONS(const VEK_ST_SERVICE_LOG_OPTIONS& options) {
    return G_SERVICE_LOGGER.SetOptions(options);
}

int VEK_OPEN_SERVICE_LOG(int mask) {
    if (G_SERVICE_LOGGER.Initialize() == 0) {
        return 0;
    }
    G_SERVICE_LOGGER.SetMask(mask);
    return 1;
}

int VEK_OPEN_SERVICE_LOG(const char* path, const char* name, int keepDays, int mask, int dailyDir,
                         unsigned long maxSize) {
    char expanded[PATH_SIZE];
    if (CVEKConv::EnvReplace(expanded, sizeof expanded, path) == nullptr) {
        printf("logger invalid path(%s)...\n", path);
        return 0;
    }
    if (G_SERVICE_LOGGER.Initialize(expanded, name, "LOG", dailyDir, maxSize) == 0) {
        return 0;
    }
    G_SERVICE_LOGGER.SetKeepDays(keepDays);
    G_SERVICE_LOGGER.SetMask(mask);
    return 1;
}

int VEK_FLUSH_SERVICE_LOG() {
    const ErrnoKeeper keeper;
    return G_SERVICE_LOGGER.Flush();
}

void VEK_CLOSE_SERVICE_LOG() {
    G_SERVICE_LOGGER.Finalize();
}

unsigned long VEK_GET_LOST_LOG_LINES() {
    return G_SERVICE_LOGGER.GetLostCount();
}

int VEK_WRITE_SERVICE_LOG(int level, const char* file, const char* function, int line,
                          const char* format, ...) {
    if (!G_SERVICE_LOGGER.IsEnabled(level)) {
        return 1;
    }
    const ErrnoKeeper keeper;
    char lead[LEAD_SIZE];
    FormatSource(lead, file, function, line);
    va_list args;
    va_start(args, format);
    G_SERVICE_LOGGER.LeadMessageLog(level, lead, format, args);
    va_end(args);
    return 1;
}

int VEK_WRITE_SYSTEM_CALL_LOG(const char* file, const char* function, int line, const char* format,
                              ...) {
    if (!G_SERVICE_LOGGER.IsEnabled(VEK_LOG_INFO)) {
        return 1;
    }
    const ErrnoKeeper keeper;
    char lead[LEAD_SIZE];
    const int used = FormatSource(lead, file, function, line);
    char text[128];
    snprintf(lead + used, LEAD_SIZE - static_cast<size_t>(used), "[%d-%s]", keeper.Value(),
             strerror_r(keeper.Value(), text, sizeof text));
    va_list args;
    va_start(args, format);
    G_SERVICE_LOGGER.LeadMessageLog(VEK_LOG_INFO, lead, format, args);
    va_end(args);
    return 1;
}
