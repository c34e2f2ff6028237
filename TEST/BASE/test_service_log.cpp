#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "CVEKConv.h"
#include "CVEKDate.h"
#include "CVEKServiceLog.h"
#include "TestSupport.h"
#include "VEKServiceLog.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;
namespace fs = std::filesystem;

// A child process, which must end by itself.
class Child {
  public:
    explicit Child(const std::function<void()>& body) : pid_(fork()) {
        if (pid_ == 0) {
            body();
            exit(0);
        }
    }
    // Its status as of waitpid, or -1, and its death, when it stands still.
    int Wait() const {
        int status = 0;
        if (Eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; })) { return status; }
        kill(pid_, SIGKILL);
        waitpid(pid_, &status, 0);
        return -1;
    }

  private:
    pid_t pid_;
};

class ServiceLog : public testing::Test {
  protected:
    void SetUp() override { setenv("VEK_RES_HOME", dir_.Path().c_str(), 1); }

    int Open(CVEKServiceLog& log, unsigned long maxSize = 0) const {
        return log.Initialize(dir_.Path().c_str(), "app", "LOG", 0, maxSize);
    }
    std::string File(const std::string& name = "app") const { return name + ".LOG." + CVEKDate()(); }
    std::string Fifo() const { return dir_.Path("APP." + std::to_string(getpid()) + ".PIPE"); }

    static VEK_ST_SERVICE_LOG_OPTIONS Waiting() {
        VEK_ST_SERVICE_LOG_OPTIONS options;
        options.isWaiting_ = true;
        return options;
    }

    TempDir dir_;
};

TEST_F(ServiceLog, WritesEachLineToItsFile) {
    CVEKServiceLog log;
    setenv("VEK_LOG_FORMAT", "long", 1);
    ASSERT_EQ(Open(log), 1);
    unsetenv("VEK_LOG_FORMAT");
    CaptureStdout();
    EXPECT_EQ(Open(log), 0);
    EXPECT_EQ(log.InitThreadLog("T1") + log.InitThreadLog("T2"), 2);
    EXPECT_EQ(log.InitThreadLog("T1") + log.InitThreadLog(std::string(32, 'n').c_str()), 0);
    log.MessageLog(VEK_LOG_ERROR, "%s", "to main");
    log.MessageLog("T1", VEK_LOG_ERROR, "to T1");
    log.MessageLog("T9%s", VEK_LOG_ERROR, "to nobody");
    log.MessageLog(std::string(99, 'n').c_str(), VEK_LOG_ERROR, "to nobody");
    log.MessageLog(VEK_LOG_INFO, "%s", std::string(40000, 'x').c_str());
    const std::vector<unsigned char> data(4096, 'x');
    EXPECT_EQ(log.HexaLog("title", data.data(), 4097), 0);
    log.HexaLog(std::string(40000, 't').c_str(), data.data(), 4096);
    EXPECT_TRUE(dir_.Has(fs::path(Fifo()).filename()));
    log.Finalize();
    log.Finalize();
    const std::string output = GetCapturedStdout();
    EXPECT_EQ(FindAll(output, "ThreadLog\\((T9%s|n{31})\\) not found!\n").size(), 2U);
    const std::string text = dir_.Read(File());
    EXPECT_EQ(FindAll(text, "[0-9/]{10}-[0-9:.]{15} +[0-9]+ to main\n[0-9]").size(), 1U);
    std::string dump;
    const std::string end = CVEKConv::HexaDump(dump, data.data(), 4096) + std::string("\n");
    EXPECT_EQ(text.find("ttt\n" + end) + end.size() + 4, text.size());
    EXPECT_EQ(text.find('\n', text.find("xxx")) - text.find("main\n") - 5, 32727U);
    EXPECT_EQ(FindAll(dir_.Read(File("app.T1")), "\\[Error  \\]to T1\n$").size(), 1U);
    EXPECT_FALSE(dir_.Has(File("app.T2")) || dir_.Has(fs::path(Fifo()).filename()));
    EXPECT_EQ(Open(log), 0);
}

TEST_F(ServiceLog, RefusesWhatItCannotWriteTo) {
    CVEKServiceLog log;
    CaptureStdout();
    const std::string longText(200, 'n');
    EXPECT_EQ(log.Initialize(dir_.Path("%s").c_str(), "app", "LOG", 0, 0), 0);
    EXPECT_EQ(log.Initialize(dir_.Path().c_str(), longText.c_str(), "LOG", 0, 0), 0);
    setenv("VEK_TEST_LONG", std::string(5000, 'p').c_str(), 1);
    EXPECT_EQ(VEK_OPEN_SERVICE_LOG("$(VEK_TEST_LONG)", "app", 0, VEK_LOG_ALL, 0, 0), 0);
    setenv("VEK_RES_HOME", dir_.Path("none").c_str(), 1);
    EXPECT_EQ(Open(log), 0);
    const std::string output = GetCapturedStdout();
    EXPECT_NE(output.find("logger invalid path(" + dir_.Path("%s") + ")...\n"), std::string::npos);
    EXPECT_EQ(FindAll(output, "^logger (invalid path|pipe failed)").size(), 4U);
    EXPECT_TRUE(fs::is_empty(dir_.Path()));
    EXPECT_EQ(log.InitThreadLog("T1"), 0);
}

TEST_F(ServiceLog, DropsConsoleLinesWhileNobodyReadsThem) {
    int console[2];
    ASSERT_EQ(pipe(console), 0);
    const Child child([&] {
        dup2(console[1], STDOUT_FILENO);
        setvbuf(stdout, nullptr, _IOFBF, 16384);
        VEK_OPEN_SERVICE_LOG(VEK_LOG_ALL);
        for (int i = 0; i < 1000; ++i) {
            printf("%s", i < 100 ? "own\n" : "");
            G_SERVICE_LOGGER.MessageLog(VEK_LOG_INFO, "line %s", std::string(i == 200 ? 30000 : 200, 'x').c_str());
        }
        dir_.Write("full", "");
        Eventually([&] { return dir_.Has("read"); });
        printf("more\n");
        G_SERVICE_LOGGER.MessageLog(VEK_LOG_INFO, "behind");
        printf("end\n");
    });
    std::string text;
    const auto take = [&](int flags) {
        char buffer[4096];
        fcntl(console[0], F_SETFL, flags);
        for (ssize_t count = 0; (count = read(console[0], buffer, sizeof buffer)) > 0;) {
            text.append(buffer, static_cast<size_t>(count));
        }
    };
    ASSERT_TRUE(Eventually([&] { return dir_.Has("full"); })) << child.Wait();
    EXPECT_EQ(fcntl(console[1], F_GETFL) & O_NONBLOCK, 0);
    take(O_NONBLOCK);  // what is there
    dir_.Write("read", "");
    close(console[1]);
    take(0);  // up to the end
    close(console[0]);
    EXPECT_EQ(child.Wait(), 0);
    EXPECT_EQ(FindAll(text, "own\n\\[.*\\]line x{200}\n").size(), 100U);
    const size_t whole = FindAll(text, "^\\[[0-9:]*\\]\\[Info   \\]line x{200}$").size();
    EXPECT_EQ(FindAll(text, "line x").size(), whole + 1);  // the cut one
    EXPECT_EQ(FindAll(text, "x\nmore\n\\[.*\\[Warning\\]log lines lost\\((.*)\\).*\n\\[.*\\]behind\nend\n$"),
              std::vector<std::string>({std::to_string(1000 - whole)}));
}

TEST_F(ServiceLog, HandsLinesToAFunctionOrToStandardErrorOnRequest) {
    struct Sink {
        CVEKServiceLog log;
        std::string text;
    } sink;
    VEK_ST_SERVICE_LOG_OPTIONS options;
    options.sinkArgument_ = &sink;
    options.sink_ = [](void* argument, int level, const char* name, const char* line, unsigned long length) {
        auto* to = static_cast<Sink*>(argument);
        to->log.MessageLog(VEK_LOG_ERROR, "from within");  // lost
        to->text += std::to_string(level) + name + std::string(line, length);
    };
    EXPECT_EQ(sink.log.SetOptions(options) + sink.log.Initialize(), 2);
    CaptureStdout();
    testing::internal::CaptureStderr();
    sink.log.MessageLog("T1", VEK_LOG_ERROR, "line");
    EXPECT_EQ(sink.log.GetLostCount(), 1U);
    sink.log.MessageLog(VEK_LOG_INFO, "next");
    EXPECT_EQ(FindAll(sink.text, "^8T1.*\\]line\n4MAIN.*lines lost\\(1\\).*\n2MAIN.*\\]next\n$").size(), 1U)
        << sink.text;
    options.sink_ = [](void*, int, const char*, const char*, unsigned long) { throw 1; };
    EXPECT_EQ(sink.log.SetOptions(options), 1);
    sink.log.MessageLog(VEK_LOG_INFO, "lost");
    EXPECT_EQ(sink.log.GetLostCount(), 4U);
    options.sink_ = nullptr;
    options.isStandardError_ = true;
    EXPECT_EQ(sink.log.SetOptions(options), 1);
    sink.log.MessageLog(VEK_LOG_INFO, "to standard error");
    EXPECT_EQ(FindAll(testing::internal::GetCapturedStderr(), "\\]to standard error\n").size(), 1U);
    EXPECT_EQ(GetCapturedStdout(), "");
}

TEST_F(ServiceLog, HasEveryLineAfterAnAbortWhoseHandlerFlushes) {
    for (const bool isFile : {true, false}) {
        const std::string output = dir_.Path("output");
        const Child program([&] {
            signal(SIGABRT, [](int) { VEK_FLUSH_SERVICE_LOG(); });
            dup2(open(output.c_str(), O_WRONLY | O_CREAT, 0600), STDOUT_FILENO);
            VEK_ST_SERVICE_LOG_OPTIONS options = Waiting();
            options.maxPieces_ = 3;
            VEK_SET_SERVICE_LOG_OPTIONS(options);
            isFile ? VEK_OPEN_SERVICE_LOG(dir_.Path().c_str(), "app", 0, VEK_LOG_ALL, 0, 10000)
                   : VEK_OPEN_SERVICE_LOG(VEK_LOG_ALL);
            for (int i = 0; i < 5000; ++i) { G_SERVICE_LOGGER.MessageLog(VEK_LOG_INFO, "line %d", i); }
            abort();
        });
        EXPECT_EQ(WTERMSIG(program.Wait()), SIGABRT);
        EXPECT_EQ(FindAll(dir_.Read(isFile ? File() : "output"), "line 4999\n$").size(), 1U) << isFile;
    }
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_.Path()), {}), 6);  // the FIFO stays
}

TEST_F(ServiceLog, FindsTheNextRecordBehindATornOne) {
    CVEKServiceLog log;
    Open(log);
    const int fifo = open(Fifo().c_str(), O_WRONLY | O_NONBLOCK);
    CaptureStdout();
    const std::string name = std::string("MAIN") + std::string(28, '\0');
    for (const std::string& torn :
         {std::string("MAIN"), name + "12345", name + std::string("\x09\0\0\0\0\0\0\0text", 12), std::string(100, 'n'),
          name + std::string(8, '\xff')}) {
        ASSERT_EQ(write(fifo, torn.data(), torn.size()), static_cast<ssize_t>(torn.size()));
        usleep(100000);  // for the writer to miss the rest
        log.MessageLog(VEK_LOG_INFO, "behind %zu", torn.size());
    }
    close(fifo);
    log.Finalize();
    EXPECT_EQ(FindAll(GetCapturedStdout(), "service-logger (.*) length mismatch!\n"),
              std::vector<std::string>({"tag", "log size", "log data", "log data", "log data"}));
    EXPECT_EQ(FindAll(dir_.Read(File()), "behind ([0-9]+)\n"),
              std::vector<std::string>({"4", "37", "44", "100", "40"}));
}

TEST_F(ServiceLog, LosesWholeRecordsAndCountsThemOrWaits) {
    for (const bool isWaiting : {false, true}) {
        const TempDir dir;
        CVEKServiceLog log;
        EXPECT_EQ(log.SetOptions(isWaiting ? Waiting() : VEK_ST_SERVICE_LOG_OPTIONS()), 1);
        ASSERT_EQ(log.Initialize(dir.Path().c_str(), "app", "LOG", 0, 0), 1);
        EXPECT_EQ(log.SetOptions({}), 0);
        const int fifo = open(Fifo().c_str(), O_WRONLY | O_NONBLOCK);
        EXPECT_GT(fcntl(fifo, F_SETPIPE_SZ, 65536), 0);  // soon full
        close(fifo);
        CaptureStdout();
        std::vector<std::thread> threads(3);
        for (std::thread& thread : threads) {
            thread = std::thread([&log] {
                const std::vector<unsigned char> data(4096, 'x');
                for (unsigned i = 0; i < 200; ++i) {
                    log.HexaLog("title", data.data(), i * 187 % 4096);
                    log.MessageLog(VEK_LOG_INFO, "%s", "a line");
                }
            });
        }
        for (std::thread& thread : threads) { thread.join(); }
        log.Finalize();
        EXPECT_EQ(GetCapturedStdout(), "");
        const std::string text = dir.Read(File());
        EXPECT_EQ(FindAll(text, "^[^[0]").size(), 0U);
        EXPECT_EQ(FindAll(text, " title\n0|\\]a line\n").size() + log.GetLostCount(), 1200U);
        unsigned long told = 0;
        for (const std::string& count : FindAll(text, "\\[Warning\\].* lost\\((.*)\\)")) { told += std::stoul(count); }
        EXPECT_EQ(told, log.GetLostCount());
        EXPECT_EQ(told == 0, isWaiting);
    }
}

// What cannot be done is logged, and waits for room that only the writer makes. Some that wait are cancelled.
TEST_F(ServiceLog, AddsThreadLogsWhileItWaitsForRoom) {
    const Child program([&] {
        VEK_SET_SERVICE_LOG_OPTIONS(Waiting());
        const std::string logs = dir_.Path("logs");
        fs::create_directory(logs);
        VEK_OPEN_SERVICE_LOG(logs.c_str(), "app", 0, VEK_LOG_ALL, 0, 100000);
        G_SERVICE_LOGGER.InitThreadLog("T");
        std::atomic<int> logged{0};
        std::vector<std::thread> threads(6);
        for (std::thread& thread : threads) {
            thread = std::thread([&logged] {
                for (int i = 0;; ++i, ++logged) {
                    G_SERVICE_LOGGER.MessageLog("T", VEK_LOG_INFO, "%02000d", 0);
                    G_SERVICE_LOGGER.SetKeepDays(i % 2);
                }
            });
        }
        while (logged < 2000) {}
        for (int i = IS_SANITIZED ? 3 : 0; i < 3; ++i) {
            pthread_cancel(threads[i].native_handle());
            threads[i].join();
        }
        fs::rename(logs, dir_.Path("gone"));
        for (int i = 0; i < 200; ++i) { G_SERVICE_LOGGER.InitThreadLog(std::to_string(i).c_str()); }
        VEK_CLOSE_SERVICE_LOG();
        _exit(0);
    });
    EXPECT_EQ(program.Wait(), 0);
}

TEST_F(ServiceLog, IsOfUseToChildrenForkedWhileThreadsLog) {
    for (const bool isFile : {true, false}) {
        const auto open = [&] {
            return isFile ? VEK_OPEN_SERVICE_LOG(dir_.Path().c_str(), "app", 0, VEK_LOG_ALL, 0, 0)
                          : VEK_OPEN_SERVICE_LOG(VEK_LOG_ALL) + dup2(::open("/dev/null", O_WRONLY), STDOUT_FILENO) - 1;
        };
        const Child program([&] {
            if (open() != 1) { exit(2); }
            std::atomic<bool> isDone{false};
            std::vector<std::thread> threads(3);
            for (std::thread& thread : threads) {
                thread = std::thread([&isDone, id = &thread - threads.data()] {
                    for (int i = 0; !isDone; ++i) {
                        G_SERVICE_LOGGER.MessageLog(VEK_LOG_INFO, "thread %td %d", id, i);
                        if (i % 25 == 0) { usleep(1000); }
                    }
                });
            }
            for (int i = 0; i < 20; ++i) {
                const Child child([i] {
                    if (G_SERVICE_LOGGER.InitThreadLog("T") == 1) { exit(3); }
                    G_SERVICE_LOGGER.MessageLog(VEK_LOG_INFO, "child %d", i);
                    if (IS_SANITIZED) { _exit(0); }
                });
                if (child.Wait() != 0) { _exit(1); }
            }
            isDone = true;
            for (std::thread& thread : threads) { thread.join(); }
        });
        EXPECT_EQ(program.Wait(), 0);
    }
    std::istringstream text(dir_.Read(File()));
    std::set<std::string> messages;
    size_t count = 0;
    for (std::string line; std::getline(text, line); ++count) {
        messages.insert(line.substr(std::min(line.rfind(']'), line.size())));
    }
    EXPECT_EQ(messages.size(), count);
    const auto after = messages.lower_bound("]child :");
    EXPECT_EQ(std::distance(messages.lower_bound("]child "), after), 20);
    EXPECT_EQ(after == messages.end() ? "" : after->substr(0, 8), "]thread ");
}

TEST_F(ServiceLog, EndsWithAProcessThatClosesItOrIsInterrupted) {
    for (int i = 0; i < 20; ++i) {
        const Child program([&] {
            VEK_OPEN_SERVICE_LOG(dir_.Path().c_str(), "app", 0, VEK_LOG_ALL, 0, 0);
            signal(SIGALRM, [](int) {
                VEK_SERVICE_LOG(VEK_LOG_INFO, "from the handler");
                exit(0);
            });
            sigset_t alarm;
            sigemptyset(&alarm);
            sigaddset(&alarm, SIGALRM);
            pthread_sigmask(SIG_BLOCK, &alarm, nullptr);  // it is the main thread that is to be interrupted
            for (const bool isClosing : {true, false}) {
                std::thread([isClosing, i] {
                    for (int k = 0; !isClosing || k < i * 20; ++k) {
                        G_SERVICE_LOGGER.MessageLog(VEK_LOG_INFO, "a line");
                    }
                    VEK_CLOSE_SERVICE_LOG();
                }).detach();
            }
            pthread_sigmask(SIG_UNBLOCK, &alarm, nullptr);
            const bool isInterrupted = i % 3 > 0 && !IS_SANITIZED;
            ualarm(isInterrupted ? static_cast<useconds_t>(1 + i * 300) : 0, 0);
            for (int k = 0; isInterrupted || k < i * 20; ++k) { G_SERVICE_LOGGER.MessageLog(VEK_LOG_INFO, "a line"); }
        });
        ASSERT_EQ(program.Wait(), 0) << i;
    }
    EXPECT_EQ(FindAll(dir_.Read(File()), "\\](a line|.*from the handler|.*lost\\([0-9]*\\).*)$").size(),
              FindAll(dir_.Read(File()), "\n").size());
}

TEST_F(ServiceLog, KeepsToItsFilesWhereverTheProcessGoes) {
    const Child program([&] {
        for (const int fd : {STDIN_FILENO, STDERR_FILENO}) { close(fd); }
        fs::current_path(dir_.Path());
        fs::create_directory("logs");
        setenv("VEK_RES_HOME", ".", 1);
        VEK_OPEN_SERVICE_LOG("logs", "app", 0, VEK_LOG_ALL, 0, 50);
        dir_.Write("fifo", fs::exists(Fifo()) ? "seen" : "");
        fs::current_path("/");
        G_SERVICE_LOGGER.InitThreadLog("T1");
        for (const char* text : {"one", "two", "three"}) {
            G_SERVICE_LOGGER.MessageLog(VEK_LOG_INFO, "%s", text);
            G_SERVICE_LOGGER.MessageLog("T1", VEK_LOG_INFO, "%s", text);
        }
        // A file that is just being opened has the number for a moment.
        const auto isFree = [] { return fcntl(STDIN_FILENO, F_GETFD) < 0 && fcntl(STDERR_FILENO, F_GETFD) < 0; };
        exit(Eventually(isFree) ? 0 : 1);
    });
    EXPECT_EQ(program.Wait(), 0);
    EXPECT_EQ(dir_.Read("fifo"), "seen");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir_.Path()), {}), 2);
    for (const char* name : {"app", "app.T1"}) {
        const std::string path = std::string("logs/") + File(name);
        EXPECT_EQ(FindAll(dir_.Read(path + ".1") + dir_.Read(path), "\\](one|two|three)$").size(), 3U) << name;
    }
}

TEST_F(ServiceLog, SharesItsFilesWithAnotherProcess) {
    constexpr int LINES = 3000;
    const auto run = [this](int id) {
        CVEKServiceLog log;
        log.SetOptions(Waiting());
        Open(log, 100);
        for (int i = 0; i < LINES; ++i) { log.MessageLog(VEK_LOG_INFO, "process %d line %d", id, i); }
    };
    const Child one([&] { run(1); });
    const Child two([&] { run(2); });
    EXPECT_EQ(one.Wait() + two.Wait(), 0);
    std::set<std::string> lines;
    for (const auto& file : fs::directory_iterator(dir_.Path())) {
        for (const std::string& line : FindAll(dir_.Read(file.path().filename()), "^.*\\](process.*)$")) {
            lines.insert(line);
        }
    }
    EXPECT_EQ(lines.size(), 2U * LINES);
}

TEST_F(ServiceLog, SaysAFailureOnceUntilTheFileWorksAgain) {
    const auto say = [this](const char* name, const std::string& text) {
        G_SERVICE_LOGGER.MessageLog(name, VEK_LOG_INFO, "%s", text.c_str());
        G_SERVICE_LOGGER.MessageLog("MARK", VEK_LOG_INFO, "%s", text.c_str());
        while (dir_.Read("mark/" + File("app.MARK")).find(text + "\n") == std::string::npos) {}
    };
    // What the files report goes to the process-wide log, which is opened once only: in a child.
    EXPECT_EXIT(
        {
            setenv("VEK_TEST_LOGS", dir_.Path().c_str(), 1);
            VEK_OPEN_SERVICE_LOG("$(VEK_TEST_LOGS)", "app", 1, VEK_LOG_ALL, 0, 0);
            fs::create_directory(dir_.Path("mark"));
            fs::create_symlink("mark/" + File("app.MARK"), dir_.Path(File("app.MARK")));
            G_SERVICE_LOGGER.InitThreadLog("MARK");
            G_SERVICE_LOGGER.InitThreadLog("d/T1");
            for (const char* text : {"1", "2", "3", "works 4", "works 5", "6", "7"}) {
                fs::remove_all(dir_.Path("app.d"));
                fs::create_directory(dir_.Path(*text == 'w' ? "app.d" : "elsewhere"));
                say("d/T1", text);
            }
            // The main file, which the message about it cannot reach either.
            fs::rename(dir_.Path(File()), dir_.Path("before"));
            fs::create_symlink("none/none", dir_.Path(File()));
            say("MAIN", "lost");
            fs::remove(dir_.Path(File()));
            say("MAIN", "after");
            VEK_CLOSE_SERVICE_LOG();
            exit(0);
        },
        testing::ExitedWithCode(0), "");
    EXPECT_EQ(FindAll(dir_.Read("before"), "fopen\\(.*app.d/T1.LOG.*\\) failed...\n").size(), 2U);
    EXPECT_EQ(FindAll(dir_.Read(File()), "\\]after\n\\[.*\\[Warning\\]log lines lost\\([2-4]\\).*\n$").size(), 1U);
}

}  // namespace
