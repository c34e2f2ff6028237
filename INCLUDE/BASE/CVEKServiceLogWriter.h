// CVEKServiceLogWriter: the thread of the service log's file mode. It reads records from the log's
// FIFO and appends each to the main log file or to the thread log that it names.
//
// A record is a name of 32 bytes (NUL-terminated; "MAIN" is the main file), the length of the text
// as an unsigned 64-bit number in host byte order, and the text with its newline.
//
// The owner calls Initialize, SetPipe and Execute, and at the end SetExit; it then polls GetStatus
// until the thread no longer runs. The thread writes what the FIFO holds before it ends. AddWriter,
// SetKeepDays and SetExit may be called by any thread while it runs. What goes wrong with records
// is printed on standard output, as logging it would only add records.
#ifndef CVEK_SERVICE_LOG_WRITER_H
#define CVEK_SERVICE_LOG_WRITER_H

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "CVEKConsole.h"
#include "CVEKMutex.h"
#include "CVEKThread.h"
#include "CVEKWriteFile.h"
#include "VEKExport.h"

using VEK_THD_LOG_MAP = std::unordered_map<std::string, std::unique_ptr<CVEKWriteFile>>;

class VEK_API CVEKServiceLogWriter : public CVEKThread {
  public:
    static constexpr char MAIN_NAME[] = "MAIN";
    static constexpr size_t BUFFER_SIZE = 32768;  // the largest record
    static constexpr size_t NAME_SIZE = 32;       // with its NUL
    static constexpr size_t HEADER_SIZE = 40;
    static constexpr size_t MAX_TEXT_SIZE = BUFFER_SIZE - HEADER_SIZE;

    CVEKServiceLogWriter();
    // Calls Finalize. The thread must have ended.
    ~CVEKServiceLogWriter() override;

    // Opens the main file. path, name and extension as CVEKWriteFile takes them; dailyDir: 1 for a
    // directory per day; maxSize: limit of a file in bytes, 0 for none. Returns 1, or 0 when memory
    // ran out or the file could not be opened.
    int Initialize(const char* path, const char* name, const char* extension, int dailyDir,
                   unsigned long maxSize);
    // Adds the thread log `name`, of up to 31 characters; its file is named "NAME.name", where NAME
    // is the main file's, and is made by its first record. Returns 1; 0 when the name is there
    // already; 0 when the name or that of the file is too long or memory has run out, after saying
    // so.
    int AddWriter(const char* name);
    // Days to keep the files of the main log and of the thread logs added so far; those added later
    // keep all.
    void SetKeepDays(int days);
    // Of all files; to be called before Initialize.
    void SetFileOptions(const VEK_ST_WF_OPTIONS& options) { fileOptions_ = options; }
    // The FIFO to read, which must not block. It stays its owner's.
    void SetPipe(int pipe) { pipe_ = pipe; }
    // Around fork: Hold waits until the files hold all that was read from the FIFO, and stops the
    // thread there until Release, so that neither a lock nor half a line gets into the child, where
    // Renew takes the place of Release and no thread runs.
    void Hold();
    void Release();
    void Renew();
    // True while something that was read from the FIFO may not be in its file yet. Any thread may
    // ask.
    bool IsBusy() const { return isBusy_; }
    // Lines that the files have refused so far, on a full disk say; those that came out of one
    // buffer with them may be among them. Any thread may ask.
    unsigned long GetRefusedCount() const { return refused_; }
    // True from a line that the main file has refused to the next one that it has taken. Any thread
    // may ask.
    bool IsRefusing() const { return isRefusing_; }
    // How many have been refused since it was asked last; 0 while the main file, which is to tell
    // of them, refuses lines itself. For one thread at a time.
    unsigned long TakeRefused();
    // Asks Run to return.
    void SetExit() { doExit_ = 1; }
    // Closes and releases the files.
    void Finalize();

    void Initial() override {}
    void Run() override;
    void Final() override {}
    // Writes one record of the FIFO, which must be readable; for the thread of Run.
    void WriteLog();

  private:
    // A file with lines since its last flush.
    struct Written {
        CVEKWriteFile* file;
        unsigned long lines;  // not refused so far
        bool hasRefused;      // the last one
    };

    bool HasWriter(const char* name);
    bool Await(long waitUs);
    bool IsReadable(long waitUs);
    bool Fill(size_t wanted);
    Written& PrepareFile(CVEKWriteFile* file);
    void FlushFiles();
    void DropInput(const char* message);
    void DropPipe();
    CVEKWriteFile* FindFile(const char* name);
    std::unique_ptr<CVEKWriteFile> MakeFile(const char* name) const;

    VEK_THD_LOG_MAP thdMap_;
    CVEKMutex thdMutex_;
    std::unique_ptr<CVEKWriteFile> file_;
    char path_[4096];
    char name_[128];
    char extension_[32];
    int dailyCreatePath_;
    size_t maxFileSize_;
    std::unique_ptr<char[]> buffer_;
    int pipe_;
    std::atomic<int> doExit_;
    CVEKMutex workMutex_;  // the thread has it while it reads and writes
    std::atomic<bool> isHeld_;
    std::atomic<bool> isBusy_;
    VEK_ST_WF_OPTIONS fileOptions_;
    // What was read and not yet written: buffer_[start_ .. end_).
    size_t start_;
    size_t end_;
    CVEKConsole console_;
    std::vector<Written> written_;  // to be flushed before the FIFO is read again
    std::atomic<unsigned long> refused_;
    std::atomic<bool> isRefusing_;
    unsigned long taken_;  // of refused_
};

#endif
