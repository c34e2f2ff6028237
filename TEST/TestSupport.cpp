#include "TestSupport.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <regex.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "CVEKServiceLog.h"
#include "CVEKSocketNew.h"
#include "VEKServiceLog.h"

TempDir::TempDir() : path_("/tmp/vektestXXXXXX") { path_ = mkdtemp(path_.data()); }

TempDir::~TempDir() { std::filesystem::remove_all(path_); }

std::string TempDir::Write(const std::string& name, const std::string& text) const {
    std::filesystem::create_directories(std::filesystem::path(Path(name)).parent_path());
    std::ofstream(Path(name)) << text;
    return Path(name);
}

std::string ReadAll(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

bool TempDir::Has(const std::string& name) const {
    return std::filesystem::exists(std::filesystem::symlink_status(Path(name)));
}

FullDisk::FullDisk(unsigned long size) {
    signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_);
    const rlimit full = {size, before_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &full);
}

FullDisk::~FullDisk() { setrlimit(RLIMIT_FSIZE, &before_); }

const Identity& GetIdentity() {
    static const TempDir FOLDER;
    static const Identity IDENTITY = [] {
        Identity identity{FOLDER.Path("key.pem"), FOLDER.Path("cert.pem")};
        Process openssl({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2", "-subj",
                         "/CN=localhost", "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1", "-keyout",
                         identity.key, "-out", identity.certificate});
        EXPECT_EQ(0, openssl.Wait()) << openssl.Error();
        return identity;
    }();
    return IDENTITY;
}

Process::Process(const std::vector<std::string>& command) {
    int in[2], out[2], err[2];
    EXPECT_TRUE(pipe2(in, O_CLOEXEC) == 0 && pipe2(out, O_CLOEXEC) == 0 && pipe2(err, O_CLOEXEC) == 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_adddup2(&actions, err[1], 2);
    std::vector<char*> argv;
    for (const auto& word : command) { argv.push_back(const_cast<char*>(word.c_str())); }
    argv.push_back(nullptr);
    EXPECT_EQ(0, posix_spawnp(&pid_, argv[0], &actions, nullptr, argv.data(), environ)) << command[0] << " is missing";
    posix_spawn_file_actions_destroy(&actions);
    close(in[0]);
    close(out[1]);
    close(err[1]);
    in_ = in[1];
    out_ = out[0];
    err_ = err[0];
}

Process::~Process() {
    CloseInput();
    if (pid_ > 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    close(out_);
    close(err_);
}

void Process::Feed(const std::string& input) const {
    const auto handler = signal(SIGPIPE, SIG_IGN);  // the program may have ended already
    EXPECT_TRUE(::write(in_, input.data(), input.size()) == static_cast<ssize_t>(input.size()) || errno == EPIPE);
    signal(SIGPIPE, handler);
}

void Process::CloseInput() {
    if (in_ != -1) {
        close(in_);
        in_ = -1;
    }
}

void Process::Signal(int sig) const { kill(pid_, sig); }

// Waits for output and takes it. Returns false when both streams have ended.
bool Process::ReadSome() {
    pollfd streams[] = {{out_, POLLIN, 0}, {err_, POLLIN, 0}};
    bool isOpen = false;
    if (out_ == -1 && err_ == -1) { return isOpen; }
    poll(streams, 2, -1);
    for (int i = 0; i < 2; ++i) {
        char buffer[65536];
        const ssize_t count = streams[i].revents != 0 ? read(streams[i].fd, buffer, sizeof buffer) : -1;
        if (count > 0) { (i == 0 ? output_ : error_).append(buffer, static_cast<size_t>(count)); }
        if (count == 0) {
            int& stream = i == 0 ? out_ : err_;
            close(stream);
            stream = -1;
        }
        isOpen = isOpen || (i == 0 ? out_ : err_) != -1;
    }
    return isOpen;
}

const std::string& Process::ReadUntil(const std::string& text) {
    while (output_.find(text) == std::string::npos && ReadSome()) {}
    return output_;
}

int Process::Wait() {
    while (ReadSome()) {}
    int status = 0;
    waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

Result RunProgram(const std::vector<std::string>& command, const std::string& input) {
    Process process(command);
    process.Feed(input);
    process.CloseInput();
    const int status = process.Wait();
    return {status, process.Output(), process.Error()};
}

int PortOf(int fd) {
    sockaddr_in6 address{};
    socklen_t length = sizeof address;
    EXPECT_EQ(0, getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length));
    return ntohs(address.sin6_port);  // at the same place for IPv4
}

int FreePort() {
    const int fd = CVEKSocketNew::LISTEN(AF_INET, 0, nullptr);
    const int port = PortOf(fd);
    close(fd);
    return port;
}

bool Eventually(const std::function<bool()>& condition) {
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) { return false; }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

bool IsListening(int port) {
    const int fd = CVEKSocketNew::CONNECT("127.0.0.1", port, 1);
    close(fd);
    return fd >= 0;
}

std::string Capture(const std::function<void()>& action) {
    VEK_OPEN_SERVICE_LOG(VEK_LOG_ALL);
    testing::internal::CaptureStdout();
    action();
    G_SERVICE_LOGGER.SetMask(0);
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

std::vector<std::string> FindAll(const std::string& text, const std::string& pattern) {
    regex_t regex;
    EXPECT_EQ(regcomp(&regex, pattern.c_str(), REG_EXTENDED | REG_NEWLINE), 0);
    std::vector<std::string> found;
    regmatch_t match[2];
    for (const char* at = text.c_str(); regexec(&regex, at, 2, match, 0) == 0;) {
        const regmatch_t& wanted = match[regex.re_nsub > 0 ? 1 : 0];
        found.emplace_back(at + wanted.rm_so, at + wanted.rm_eo);
        at += match[0].rm_eo;
    }
    regfree(&regex);
    return found;
}

size_t Count(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) { ++count; }
    return count;
}
