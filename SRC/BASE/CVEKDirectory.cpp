#include "CVEKDirectory.h"

#include <dirent.h>
#include <fnmatch.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "VEKServiceLog.h"
#include "VEKText.h"

namespace {

const std::string& GetPath(const std::string& entry) {
    return entry;
}

const std::string& GetPath(const std::pair<std::string, unsigned long>& entry) {
    return entry.first;
}

// False for equal paths, as a sort asks of its comparison: entries of one path, which a directory
// that changes under the scan can show twice, stay in the order in which they were read.
template <typename ENTRY>
bool IsLess(const ENTRY& a, const ENTRY& b) {
    return GetPath(a) < GetPath(b);
}

// Hands each entry of the wanted type (S_IFREG or S_IFDIR) to `keep`. Returns false on failure.
template <typename KEEP>
bool ScanEntries(const CVEKDirectory& directory, const char* path, mode_t type, KEEP keep) try {
    const std::string base = path + std::string("/");
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(opendir((base + ".").c_str()), closedir);
    if (!stream) {
        VEK_SYSTEM_CALL_LOG("opendir(%s) failed...", path);
        return false;
    }
    while (const dirent* entry = readdir(stream.get())) {
        if (!directory.Filtering(entry->d_name)) {
            continue;
        }
        const std::string full = base + entry->d_name;
        struct stat info {};
        if (stat(full.c_str(), &info) != 0) {
            VEK_SYSTEM_CALL_LOG("stat(%s) failed...", full.c_str());
            return false;
        }
        if ((info.st_mode & S_IFMT) == type) {
            keep(full, info);
        }
    }
    return true;
} catch (const std::bad_alloc&) {
    errno = ENOMEM;
    VEK_SYSTEM_CALL_LOG("scan(%s) failed...", path);
    return false;
}

template <typename ENTRY>
bool Sort(std::vector<ENTRY>& entries, bool isWanted) {
    if (isWanted) {
        std::stable_sort(entries.begin(), entries.end(), IsLess<ENTRY>);
    }
    return true;
}

}  // namespace

CVEKDirectory::CVEKDirectory() : path_(), filter_() {}

void CVEKDirectory::Set(const char* path, const char* filter) {
    if (path != nullptr) {
        VEK_COPY_TEXT(path_, path);
    }
    if (filter != nullptr) {
        VEK_COPY_TEXT(filter_, filter);
    }
}

bool CVEKDirectory::Filtering(const char* name) const {
    if (filter_[0] == '\0' || strcmp(filter_, "*") == 0) {
        return true;
    }
    return fnmatch(filter_, name, FNM_NOESCAPE) != FNM_NOMATCH;
}

bool CVEKDirectory::Scan(std::vector<std::string>& out, bool sort) const {
    out.clear();
    return ScanEntries(*this, path_, S_IFREG,
                       [&out](const std::string& path, const struct stat& /*info*/) {
                           out.push_back(path);
                       }) &&
           Sort(out, sort);
}

bool CVEKDirectory::Scan(std::vector<std::pair<std::string, unsigned long>>& out, bool sort) const {
    out.clear();
    return ScanEntries(*this, path_, S_IFREG,
                       [&out](const std::string& path, const struct stat& info) {
                           out.emplace_back(path, static_cast<unsigned long>(info.st_size));
                       }) &&
           Sort(out, sort);
}

bool CVEKDirectory::DirScan(std::vector<std::string>& out, int sort) const {
    out.clear();
    return ScanEntries(*this, path_, S_IFDIR,
                       [&out](const std::string& path, const struct stat& /*info*/) {
                           out.push_back(path);
                       }) &&
           Sort(out, sort != 0);
}
