// CVEKDirectory: lists the files or the directories inside one directory whose names match a shell
// pattern. Symbolic links count as what they lead to.
//
// One thread at a time uses an object. The scans may be repeated; each reads the directory anew.
#ifndef CVEK_DIRECTORY_H
#define CVEK_DIRECTORY_H

#include <string>
#include <utility>
#include <vector>

#include "VEKExport.h"

class VEK_API CVEKDirectory {
  public:
    // Everything in no directory yet: call Set first.
    CVEKDirectory();

    // path: the directory, without a slash at its end. filter: a shell pattern for the names inside
    // it; empty or "*" lets everything through. A null argument leaves the value as it is. Both are
    // copied, up to 4095 characters.
    void Set(const char* path, const char* filter);
    // True when the filter lets this name through; a faulty pattern does.
    bool Filtering(const char* name) const;

    // The scans below clear `out` and fill it with full paths (the directory, a slash, the name),
    // on demand sorted by them in ascending byte order. They return false, after an Info line, when
    // the directory cannot be opened, an entry cannot be examined or memory runs out; what was
    // found before stays in `out`, unsorted.

    // Regular files.
    bool Scan(std::vector<std::string>& out, bool sort) const;
    // Regular files with their sizes in bytes.
    bool Scan(std::vector<std::pair<std::string, unsigned long>>& out, bool sort) const;
    // Directories, "." and ".." among them. sort: 0 or not.
    bool DirScan(std::vector<std::string>& out, int sort) const;

  private:
    char path_[4096];
    char filter_[4096];
};

#endif
