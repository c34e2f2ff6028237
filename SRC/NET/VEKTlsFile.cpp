#include "VEKTlsFile.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "VEKLogText.h"

namespace {

constexpr off_t MAX_FILE_SIZE = 16 << 20;  // many times the authorities of a whole system

bool HoldsNul(const std::string& path) {
    return path.find('\0') != std::string::npos;
}

// What is wrong with a file, or null.
const char* FindFault(const std::string& path) {
    struct stat status {};
    if (HoldsNul(path)) {
        return strerror(EINVAL);
    }
    if (stat(path.c_str(), &status) != 0) {
        return strerror(errno);
    }
    if (S_ISDIR(status.st_mode)) {
        return strerror(EISDIR);
    }
    if (!S_ISREG(status.st_mode)) {
        return "not a regular file";
    }
    return status.st_size > MAX_FILE_SIZE ? strerror(EFBIG) : nullptr;
}

bool Fail(const char* kind, const std::string& path, const char* fault, std::string& error) {
    error = VEK_TLS_FILE_TEXT(kind, path) + ": " + fault;
    return false;
}

}  // namespace

std::string VEK_TLS_FILE_TEXT(const char* kind, const std::string& path) {
    return std::string(kind) + " " + VEK_ESCAPE_TEXT(path, PATH_MAX);
}

bool VEK_TLS_CHECK_FILE(const char* kind, const std::string& path, std::string& error) {
    const char* fault = FindFault(path);
    return fault == nullptr || Fail(kind, path, fault, error);
}

bool VEK_TLS_CHECK_DIRECTORY(const char* kind, const std::string& path, std::string& error) {
    DIR* directory = HoldsNul(path) ? nullptr : opendir(path.c_str());
    if (directory == nullptr) {
        return Fail(kind, path, strerror(HoldsNul(path) ? EINVAL : errno), error);
    }
    closedir(directory);
    return true;
}
