// CVEKWriteFile: an append-only file that names itself by date or by number, starts a new file by
// size, number of records or day, and deletes its old files.
//
// The names, for a path /var/log, a name app and an extension LOG on 15 November 2026:
//   by day, or never changing     /var/log/app.LOG.20261115
//   by day, a directory per day   /var/log/20261115/app.LOG.20261115
//   by size or number of records  /var/log/app.LOG.00000001
// Without an extension ".LOG" is left out, except in names by number, which keep an empty one.
// A file that is replaced is renamed: ".1", ".2" and so on is put behind its name.
//
// Several processes may write to files of one name, which any of them replaces; whoever replaces
// one has its lock (flock) meanwhile.
//
// An object opens its file at the first Write and is used by one thread at a time, except for
// SetKeepDays, which any thread may call. Failures of system calls, and memory that has run out,
// are Info lines of the service log, said once until a flush succeeds again: the log's own file
// must not feed itself.
#ifndef CVEK_WRITE_FILE_H
#define CVEK_WRITE_FILE_H

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <ctime>

#include "CVEKDate.h"
#include "CVEKTime.h"
#include "VEKExport.h"

// The current file, and what the last closed one held.
struct ST_VEK_WF_INFO {
    char fileNm[4096];      // full path of the current file, empty before the first Open
    size_t size;            // bytes of the last closed file
    unsigned int recCount;  // records of the last closed file
    CVEKTime closeTm;       // when it was closed; 0 while a file is open
};

// What differs on request from the usual way, for which the record stands as constructed.
struct VEK_ST_WF_OPTIONS {
    // The size that starts a new file is that of the file: with what it held before it was opened,
    // what other processes have written, and without what the disk refused. Otherwise it is what
    // this object has handed to it since it was opened.
    bool isSizeOfFile_ = false;
    // The permission bits are 0666 less the process's umask. Otherwise 0666 whatever that is.
    bool isUmaskHeeded_ = false;
    // So many replaced files of this name and extension are kept in the directory of the current
    // file: when one more is replaced, the first by day (or number) and the number behind is
    // deleted. 0 keeps all.
    unsigned int maxPieces_ = 0;
};

class VEK_API CVEKWriteFile {
  public:
    // When a new file is started; the unit is the second argument of SetChange.
    enum e4changeType {
        VEK_WF_SIZE_CHANGE = 0,          // the file has more than `unit` bytes
        VEK_WF_RECORD_COUNT_CHANGE = 1,  // the file has `unit` records
        VEK_WF_DAILY_CHANGE = 2,         // the file is `unit` days old
        VEK_WF_DAILY_DIR_CHANGE = 3,     // the same, with a directory for each day
        VEK_WF_CHANGE_NONE = 4,          // never
    };

    // Never changing, nothing deleted, until the operations below say otherwise. path: the
    // directory, up to 3967 characters; name: up to 63; extension: up to 15, empty or null for
    // none. All are copied, and cut when they are longer.
    CVEKWriteFile(const char* path, const char* name, const char* extension);
    // Calls Close.
    ~CVEKWriteFile();

    CVEKWriteFile(const CVEKWriteFile&) = delete;
    CVEKWriteFile& operator=(const CVEKWriteFile&) = delete;

    // True when the constructor takes these texts uncut.
    static bool Fits(const char* path, const char* name, const char* extension);

    void SetChange(e4changeType type, unsigned long unit);
    // A limit in bytes besides, 0 for none: the file is also replaced once it is larger, but not by
    // size twice. To be called after SetChange, as the numbering of today's files is continued.
    void SetSize(unsigned long size);
    // Files last modified more than this many days ago are deleted at each Open; less than 1 keeps
    // all. Deleted are regular files of the directory whose name begins with this one's: also those
    // of others whose name does. With a directory per day it is the files of directories whose name
    // begins with the current year, and then the directories: earlier years stay. Symbolic links
    // are neither followed nor deleted.
    void SetKeepDays(int days) { keepDays_ = days; }
    // To be called before the file is opened.
    void SetOptions(const VEK_ST_WF_OPTIONS& options) { options_ = options; }

    // Deletes old files, makes the name and opens the file for appending. Returns 1 or 0.
    int Open();
    // Closes the file, if one is open, and keeps its figures.
    void Close();
    // Drops the open file without that, and calls Open. For a file that is gone from the disk.
    int ReOpen();
    // True when the current file is on the disk, and is the one that is open, if one is.
    bool CheckFile() const;
    // Starts a new file if one is due, and appends one record. The test comes first: a file may be
    // one record larger than its limit.
    // length: 1 or more. Returns 1, or 0 when the record is lost.
    int Write(const unsigned char* data, unsigned long length);
    // Returns 1, or 0 when no file is open or the flush failed.
    int FFlush();
    // Deletes old files.
    void Remove();
    // The number behind the last of today's replaced files, in byte order of their names; 0 if
    // there is none.
    int GetFileSeq() const;

    const ST_VEK_WF_INFO& GetFileInfo() const { return stCurr_; }

  private:
    bool MakeName();
    bool MakeDayName();
    void MakeNumberName();
    bool IsChangeDue();
    const CVEKDate& GetToday();
    void PutAside();
    void Rename();
    void MeasureFile();
    void DropPieces() const;
    void DropTorn();
    int Append(const unsigned char* data, unsigned long length);
    bool RemoveFiles();
    bool RemoveDirectories();
    bool IsFirstFailure();

    ST_VEK_WF_INFO stCurr_;
    char path_[3968];  // leaves room in fileNm
    char name_[64];
    char extension_[16];
    unsigned int seq_;
    e4changeType changeType_;
    size_t changeUnit_;
    size_t curFileSize_;
    size_t maxFileSize_;
    int fileSeq_;
    unsigned int curRecCnt_;
    char curDate_[9];
    std::atomic<int> keepDays_;  // the file belongs to one thread, the setting to all
    VEK_ST_WF_OPTIONS options_;
    FILE* fp_;
    dev_t device_;  // of the open file
    ino_t inode_;
    bool isFailing_;
    bool hasLost_;     // the last record
    CVEKDate curDay_;  // curDate_
    CVEKDate today_;   // when todayAt_ was the time
    time_t todayAt_;
    bool isTorn_;                 // a failure may have cut the last line
    bool hasRenameFailed_;        // the last one
    CVEKDate retentionFailedOn_;  // not tried again on that day
};

#endif
