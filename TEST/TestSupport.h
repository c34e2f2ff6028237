// What several test programs need: child processes, temporary folders, captured log lines and a
// throw-away key and certificate.
#ifndef TEST_SUPPORT_H
#define TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

// The sanitizers' own locks are not taken before a fork, and may hold back the exit of a child, or
// of a signal handler; what a thread locks that was cancelled in its sleep they do not see.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool IS_SANITIZED = true;
#else
constexpr bool IS_SANITIZED = false;
#endif

std::string ReadAll(const std::string& path);  // of a file

// A directory for one test, removed with what is in it.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string Path(const std::string& name = "") const { return name.empty() ? path_ : path_ + "/" + name; }
    std::string Write(const std::string& name, const std::string& text) const;  // returns the path
    std::string Read(const std::string& name) const { return ReadAll(Path(name)); }
    bool Has(const std::string& name) const;

  private:
    std::string path_;
};

// For a scope no file of this process grows beyond so many bytes, as on a full disk.
class FullDisk {
  public:
    explicit FullDisk(unsigned long size);
    ~FullDisk();
    FullDisk(const FullDisk&) = delete;
    FullDisk& operator=(const FullDisk&) = delete;

  private:
    rlimit before_{};
};

// A self-signed key and certificate for localhost and 127.0.0.1, made once for each test program.
struct Identity {
    std::string key, certificate;
};
const Identity& GetIdentity();

// A child process with its standard streams on pipes, killed at the end of the scope.
class Process {
  public:
    explicit Process(const std::vector<std::string>& command);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    void Feed(const std::string& input) const;  // to standard input
    void CloseInput();
    void Signal(int sig) const;
    // Reads standard output until `text` has come or it ends; returns all of it so far.
    const std::string& ReadUntil(const std::string& text);
    // Reads both streams to their end and waits. Returns the exit status, or -signal.
    int Wait();
    const std::string& Output() const { return output_; }
    const std::string& Error() const { return error_; }

  private:
    bool ReadSome();

    pid_t pid_ = -1;
    int in_ = -1, out_ = -1, err_ = -1;
    std::string output_, error_;
};

// What a program left behind.
struct Result {
    int status;  // exit status, or -signal
    std::string output, error;
};
// Runs a program to its end with this on its standard input.
Result RunProgram(const std::vector<std::string>& command, const std::string& input = "");

// The port that a socket of either family is bound to.
int PortOf(int fd);
// A port of 127.0.0.1 that was free a moment ago.
int FreePort();
// Polls until `condition` holds, for up to a generous limit. Returns whether it came to hold.
bool Eventually(const std::function<bool()>& condition);
// True once something accepts connections on the port.
bool IsListening(int port);

// Runs `action` and returns what it wrote to standard output, the service log's lines included.
std::string Capture(const std::function<void()>& action);

// Every match of an extended regular expression, or of the first group in it, line by line.
std::vector<std::string> FindAll(const std::string& text, const std::string& pattern);
// How often `part` occurs in `text`.
size_t Count(const std::string& text, const std::string& part);

#endif
