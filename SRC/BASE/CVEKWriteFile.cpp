#include "CVEKWriteFile.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "CVEKDirectory.h"
#include "VEKRegularFile.h"
#include "VEKServiceLog.h"
#include "VEKText.h"

namespace {

constexpr size_t DEFAULT_UNIT = 1000;
constexpr unsigned int LAST_SEQ = 99999999;
constexpr mode_t DIRECTORY_MODE = 0777;
constexpr mode_t FILE_RIGHTS = 0666;

std::string GetText(const CVEKDate& date) {
    char text[32];
    date.GetDate(text);
    return text;
}

bool BeginsWith(const std::string& text, const std::string& beginning) {
    return text.compare(0, beginning.size(), beginning) == 0;
}

// What retention does with an entry.
enum e4verdict { KEEP, EXPIRED, UNKNOWN };

// Judges an entry of the wanted type (S_IFREG or S_IFDIR), the last link of its path not followed.
e4verdict Judge(const std::string& path, mode_t type, int keepDays) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) {
        VEK_SYSTEM_CALL_LOG("stat(%s) failed...", path.c_str());
        return UNKNOWN;
    }
    const bool isExpired = CVEKDate(info.st_mtime) + keepDays < CVEKDate();
    return (info.st_mode & S_IFMT) == type && isExpired ? EXPIRED : KEEP;
}

// A pattern that matches just this text: what means something in a pattern stands in brackets.
std::string MakePattern(const std::string& text) {
    std::string pattern;
    for (const char c : text) {
        if (c == '*' || c == '?' || c == '[') {
            pattern += {'[', c, ']'};
        } else {
            pattern += c;
        }
    }
    return pattern;
}

bool Delete(const std::string& path) {
    if (remove(path.c_str()) != 0) {
        VEK_SYSTEM_CALL_LOG("remove(%s) failed...", path.c_str());
        return false;
    }
    return true;
}

bool DeleteDirectory(const std::string& path) {
    CVEKDirectory directory;
    directory.Set(path.c_str(), "*");
    std::vector<std::string> files;
    if (!directory.Scan(files, false)) {
        return false;
    }
    bool isEmpty = true;
    for (const std::string& file : files) {  // symbolic links to files among them
        isEmpty = Delete(file) && isEmpty;
    }
    return isEmpty && Delete(path);
}

// Waits for another process that replaces the file. Not for long: the lock may be anybody's.
void LockForRename(int fd) {
    constexpr int TRIES = 100;
    constexpr useconds_t NAP_US = 1000;
    for (int i = 0; i < TRIES && flock(fd, LOCK_EX | LOCK_NB) != 0; ++i) {
        usleep(NAP_US);
    }
}

// Deletes the expired ones of the paths of a type by remove(path). Returns false when something
// went wrong, which has been logged; a path that cannot be judged ends the pass.
template <class REMOVE>
bool DeleteExpired(const std::vector<std::string>& paths, mode_t type, int keepDays,
                   REMOVE remove) {
    bool isDone = true;
    for (const std::string& path : paths) {
        switch (Judge(path, type, keepDays)) {
            case EXPIRED:
                isDone = remove(path) && isDone;
                break;
            case KEEP:
                break;
            case UNKNOWN:
                return false;
        }
    }
    return isDone;
}

// A replaced file: the day or number in its name, the number behind that, and its path.
using Piece = std::tuple<unsigned long, unsigned long, std::string>;

// The replaced ones among the files that differ from `file` in these two only.
std::vector<Piece> ListPieces(const std::string& file) {
    const size_t slash = file.rfind('/');
    const std::string beginning = file.substr(0, file.rfind('.') + 1);
    CVEKDirectory directory;
    directory.Set(file.substr(0, slash).c_str(),
                  (MakePattern(beginning.substr(slash + 1)) + "*").c_str());
    std::vector<std::string> paths;
    directory.Scan(paths, false);
    std::vector<Piece> pieces;
    for (const std::string& path : paths) {
        unsigned long day = 0;
        unsigned long number = 0;
        int length = 0;
        const std::string rest = path.substr(beginning.size());
        if (sscanf(rest.c_str(), "%10lu.%10lu%n", &day, &number, &length) == 2 &&
            static_cast<size_t>(length) == rest.size()) {
            pieces.emplace_back(day, number, path);
        }
    }
    return pieces;
}

// The highest number behind the name of the file.
int GetLastNumber(const std::string& file) {
    unsigned long last = 0;
    for (const auto& [day, number, path] : ListPieces(file)) {
        if (BeginsWith(path, file + ".")) {
            last = std::max(last, number);
        }
    }
    return static_cast<int>(last);
}

}  // namespace

CVEKWriteFile::CVEKWriteFile(const char* path, const char* name, const char* extension)
    : stCurr_(),
      path_(),
      name_(),
      extension_(),
      seq_(0),
      changeType_(VEK_WF_CHANGE_NONE),
      changeUnit_(DEFAULT_UNIT),
      curFileSize_(0),
      maxFileSize_(0),
      fileSeq_(0),
      curRecCnt_(0),
      curDate_(),
      keepDays_(0),
      fp_(nullptr),
      device_(0),
      inode_(0),
      isFailing_(false),
      hasLost_(false),
      curDay_(0L),
      today_(0L),
      todayAt_(0),
      isTorn_(false),
      hasRenameFailed_(false),
      retentionFailedOn_(0L) {
    stCurr_.closeTm = 0L;
    VEK_COPY_TEXT(path_, path);
    VEK_COPY_TEXT(name_, name);
    VEK_COPY_TEXT(extension_, extension);
}

CVEKWriteFile::~CVEKWriteFile() {
    Close();
}

bool CVEKWriteFile::Fits(const char* path, const char* name, const char* extension) {
    const auto fits = [](const char* text, size_t size) {
        return text == nullptr || strlen(text) < size;
    };
    return fits(path, sizeof path_) && fits(name, sizeof name_) &&
           fits(extension, sizeof extension_);
}

void CVEKWriteFile::SetChange(e4changeType type, unsigned long unit) {
    changeType_ = type;
    changeUnit_ = unit;
}

void CVEKWriteFile::SetSize(unsigned long size) {
    maxFileSize_ = size;
    fileSeq_ = GetFileSeq();
}

int CVEKWriteFile::Open() try {
    curDay_ = CVEKDate();
    // Not while the file fails, nor again on a day on which it failed itself: what goes wrong here
    // would be logged, come back as a record, fail again, and so on for ever.
    if (!isFailing_ && retentionFailedOn_ != curDay_) {
        Remove();
    }
    VEK_COPY_TEXT(curDate_, GetText(curDay_).c_str());
    if (!MakeName()) {
        return 0;
    }
    fp_ = VEK_OPEN_REGULAR_FILE(stCurr_.fileNm, O_APPEND);
    stCurr_.size = 0;
    stCurr_.recCount = 0;
    stCurr_.closeTm = 0L;
    if (fp_ == nullptr) {
        if (IsFirstFailure()) {
            VEK_SYSTEM_CALL_LOG("fopen(%s) failed...", stCurr_.fileNm);
        }
        return 0;
    }
    if (!options_.isUmaskHeeded_) {
        fchmod(fileno(fp_), FILE_RIGHTS);
    }
    MeasureFile();
    struct stat info {};
    fstat(fileno(fp_), &info);
    device_ = info.st_dev;
    inode_ = info.st_ino;
    return 1;
} catch (const std::bad_alloc&) {  // on the way to the name
    errno = ENOMEM;
    if (IsFirstFailure()) {
        VEK_SYSTEM_CALL_LOG("fopen(%s) failed...", name_);
    }
    return 0;
}

void CVEKWriteFile::Close() {
    if (fp_ == nullptr) {
        return;
    }
    fclose(std::exchange(fp_, nullptr));
    stCurr_.size = std::exchange(curFileSize_, 0);
    stCurr_.recCount = std::exchange(curRecCnt_, 0);
    stCurr_.closeTm.Now();
}

int CVEKWriteFile::ReOpen() {
    if (fp_ != nullptr) {
        fclose(std::exchange(fp_, nullptr));
    }
    return Open();
}

bool CVEKWriteFile::CheckFile() const {
    struct stat info {};
    return stat(stCurr_.fileNm, &info) == 0 &&
           (fp_ == nullptr || (info.st_dev == device_ && info.st_ino == inode_));
}

int CVEKWriteFile::Write(const unsigned char* data, unsigned long length) {
    if (fp_ == nullptr && Open() == 0) {
        return 0;
    }
    if (IsChangeDue()) {
        PutAside();
        fileSeq_ = 0;
        return Open() == 1 ? Append(data, length) : 0;
    }
    if (maxFileSize_ != 0 && curFileSize_ > maxFileSize_ && changeType_ != VEK_WF_SIZE_CHANGE) {
        PutAside();
        return Open() == 1 ? Append(data, length) : 0;
    }
    return Append(data, length);
}

int CVEKWriteFile::FFlush() {
    if (fp_ == nullptr) {
        return 0;
    }
    if (fflush(fp_) != 0) {
        if (IsFirstFailure()) {
            VEK_SYSTEM_CALL_LOG("fflush() failed...");
        }
        DropTorn();
        return 0;
    }
    MeasureFile();
    isFailing_ = isFailing_ && hasLost_;
    return 1;
}

void CVEKWriteFile::Remove() {
    bool isDone = keepDays_ < 1;
    try {
        isDone = isDone ||
                 (changeType_ == VEK_WF_DAILY_DIR_CHANGE ? RemoveDirectories() : RemoveFiles());
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        VEK_SYSTEM_CALL_LOG("remove(%s) failed...", path_);
    }
    if (!isDone) {
        retentionFailedOn_ = CVEKDate();
    }
}

int CVEKWriteFile::GetFileSeq() const {
    try {
        const std::string today = GetText(CVEKDate());
        std::string path = path_;
        if (changeType_ == VEK_WF_DAILY_DIR_CHANGE) {
            path += "/" + today;
            if (access(path.c_str(), F_OK) != 0) {
                return 0;
            }
        }
        const std::string extension = extension_[0] == '\0' ? "" : std::string(".") + extension_;
        CVEKDirectory directory;
        directory.Set(path.c_str(), (MakePattern(name_ + extension + "." + today) + ".*").c_str());
        std::vector<std::string> files;
        directory.Scan(files, false);
        std::sort(files.begin(), files.end());  // also what a scan that failed on its way has found
        if (files.empty()) {
            return 0;
        }
        // The last in byte order, where 9 comes behind 10: meant.
        const std::string& last = files.back();
        return static_cast<int>(strtol(last.c_str() + last.rfind('.') + 1, nullptr, 10));
    } catch (const std::bad_alloc&) {  // a name that is taken is passed over later
        return 0;
    }
}

// Sets the name of the file to open, and makes its directory. Returns false on failure.
bool CVEKWriteFile::MakeName() {
    switch (changeType_) {
        case VEK_WF_SIZE_CHANGE:
        case VEK_WF_RECORD_COUNT_CHANGE:
            MakeNumberName();
            return true;
        case VEK_WF_DAILY_CHANGE:
        case VEK_WF_DAILY_DIR_CHANGE:
        case VEK_WF_CHANGE_NONE:
        default:
            return MakeDayName();
    }
}

bool CVEKWriteFile::MakeDayName() {
    std::string directory = path_;
    if (changeType_ == VEK_WF_DAILY_DIR_CHANGE) {
        directory += std::string("/") + curDate_;
        const char* day = directory.c_str();
        if (mkdir(day, DIRECTORY_MODE) != 0 && errno != EEXIST) {
            if (IsFirstFailure()) {
                VEK_SYSTEM_CALL_LOG("mkdir(%s) failed...", day);
            }
            return false;
        }
    }
    const char* dot = extension_[0] == '\0' ? "" : ".";
    snprintf(stCurr_.fileNm, sizeof stCurr_.fileNm, "%s/%s%s%s.%s", directory.c_str(), name_, dot,
             extension_, curDate_);
    return true;
}

void CVEKWriteFile::MakeNumberName() {
    snprintf(stCurr_.fileNm, sizeof stCurr_.fileNm, "%s/%s.%s.%08u", path_, name_, extension_,
             seq_ + 1);
    // The name behind ...99999999 is ...100000000, and only then ...00000001: meant.
    seq_ = seq_ == LAST_SEQ ? 0 : seq_ + 1;
}

bool CVEKWriteFile::IsChangeDue() {
    switch (changeType_) {
        case VEK_WF_SIZE_CHANGE:
            return curFileSize_ > changeUnit_;
        case VEK_WF_RECORD_COUNT_CHANGE:
            return curRecCnt_ >= changeUnit_;
        case VEK_WF_DAILY_CHANGE:
        case VEK_WF_DAILY_DIR_CHANGE:
            return GetToday() - static_cast<long>(changeUnit_) >= curDay_;
        case VEK_WF_CHANGE_NONE:
        default:
            return false;
    }
}

// Each record asks for the day; it is worked out once a second.
const CVEKDate& CVEKWriteFile::GetToday() {
    const time_t now = time(nullptr);
    if (now != todayAt_) {
        todayAt_ = now;
        today_.SetDate(now);
    }
    return today_;
}

// Renames the file and closes it. Another process that has come first has done the former.
void CVEKWriteFile::PutAside() {
    const int fd = fileno(fp_);
    LockForRename(fd);
    if (CheckFile()) {
        Rename();
    }
    flock(fd, LOCK_UN);  // children may have the descriptor, too
    Close();
    isTorn_ = false;  // the next file begins with a line of its own
}

// To its next number, or the first free one behind it. Where memory runs out it goes on as it is.
void CVEKWriteFile::Rename() try {
    if (options_.maxPieces_ > 0) {  // lower numbers are free again: they would seem to be the first
        fileSeq_ = std::max(fileSeq_, GetLastNumber(stCurr_.fileNm));
    }
    std::string aside;
    do {
        ++fileSeq_;
        aside = std::string(stCurr_.fileNm) + "." + std::to_string(fileSeq_);
    } while (access(aside.c_str(), F_OK) == 0);
    const bool hasFailed = rename(stCurr_.fileNm, aside.c_str()) != 0;
    if (hasFailed && !hasRenameFailed_) {
        VEK_SYSTEM_CALL_LOG("rename(%s) failed...", stCurr_.fileNm);
    }
    hasRenameFailed_ = hasFailed;
    if (options_.maxPieces_ > 0) {
        DropPieces();
    }
} catch (const std::bad_alloc&) {
    if (!hasRenameFailed_) {
        errno = ENOMEM;
        VEK_SYSTEM_CALL_LOG("rename(%s) failed...", stCurr_.fileNm);
    }
    hasRenameFailed_ = true;
}

// On request, to count on from the file's own size. Nothing may be left in the stream.
void CVEKWriteFile::MeasureFile() {
    struct stat info {};
    if (options_.isSizeOfFile_ && fstat(fileno(fp_), &info) == 0) {
        curFileSize_ = static_cast<size_t>(info.st_size);
    }
}

// Deletes the replaced files above their limit, the earliest first.
void CVEKWriteFile::DropPieces() const {
    std::vector<Piece> pieces = ListPieces(stCurr_.fileNm);
    std::sort(pieces.begin(), pieces.end());
    for (size_t i = 0; i + options_.maxPieces_ < pieces.size(); ++i) {
        Delete(std::get<std::string>(pieces[i]));
    }
}

int CVEKWriteFile::Append(const unsigned char* data, unsigned long length) {
    if (length == 0) {  // no item for the stream, which loses nothing
        VEK_SYSTEM_CALL_LOG("fwrite() failed...");
        return 0;
    }
    if (isTorn_) {  // ends the line that a failure has cut
        fputc('\n', fp_);
        isTorn_ = false;
    }
    hasLost_ = fwrite(data, length, 1, fp_) != 1;
    if (hasLost_) {
        if (IsFirstFailure()) {
            VEK_SYSTEM_CALL_LOG("fwrite() failed...");
        }
        DropTorn();
        return 0;
    }
    curFileSize_ += length;
    ++curRecCnt_;
    return 1;
}

// Gives up what the stream still holds after a failure; part of it may be in the file.
void CVEKWriteFile::DropTorn() {
    __fpurge(fp_);
    clearerr(fp_);
    isTorn_ = true;
    MeasureFile();
}

// Returns false when something went wrong, which has been logged.
bool CVEKWriteFile::RemoveFiles() {
    CVEKDirectory directory;
    directory.Set(path_, (MakePattern(name_) + "*").c_str());
    std::vector<std::string> files;
    const bool isListed = directory.Scan(files, false);
    return DeleteExpired(files, S_IFREG, keepDays_, Delete) && isListed;
}

bool CVEKWriteFile::RemoveDirectories() {
    CVEKDirectory directory;
    directory.Set(path_, "*");
    std::vector<std::string> days;
    const bool isListed = directory.DirScan(days, 0);
    // Only the current year's, earlier years stay: meant.
    const std::string beginning = std::string(path_) + "/" + std::to_string(CVEKDate().GetYear());
    days.erase(
        std::remove_if(days.begin(), days.end(),
                       [&beginning](const auto& day) { return !BeginsWith(day, beginning); }),
        days.end());
    return DeleteExpired(days, S_IFDIR, keepDays_, DeleteDirectory) && isListed;
}

// Whether to say a failure: the first since the file worked last.
bool CVEKWriteFile::IsFirstFailure() {
    return !std::exchange(isFailing_, true);
}
