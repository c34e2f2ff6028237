// The TLS library's reasons in words.
#ifndef VEK_TLS_REASON_H
#define VEK_TLS_REASON_H

#include <string>
#include <vector>

// Text of one error code, a system call's included, and of what was noted beside it (may be null).
std::string VEK_TLS_REASON_TEXT(unsigned long code, const char* note);

// Sets `error` to `what`, a colon and the first queued error of the calling thread, where the root
// of a failure stands; empties the queue. Returns false, for the caller to pass on.
bool VEK_TLS_FAIL(std::string& error, const std::string& what);

// CVEKTlsErrorCopy: the calling thread's queued errors, for who looks at them twice: looking
// empties the queue.
class CVEKTlsErrorCopy {
  public:
    // Copies the queue. Without memory the copy lacks the last ones.
    CVEKTlsErrorCopy();
    CVEKTlsErrorCopy(const CVEKTlsErrorCopy&) = delete;
    CVEKTlsErrorCopy& operator=(const CVEKTlsErrorCopy&) = delete;

    // Makes the queue what it was.
    void Restore() const;

  private:
    struct Error {
        unsigned long code;
        std::string file;
        int line;
        std::string function;
        std::string note;
    };
    std::vector<Error> errors_;
};

#endif
