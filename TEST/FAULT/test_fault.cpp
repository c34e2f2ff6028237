// The programs under calls that fail: each ends by itself with what it did or with what it could not
// do, closes nothing twice and keeps no descriptor more than it does otherwise.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>

#include "TestSupport.h"
#include "TlsSupport.h"

namespace {

const std::string BIN = VEK_BIN_DIR "/";

constexpr int MAX_CALLS = 1000;  // that are made to fail, of one kind

enum Verdict { WRONG, TOLD, DONE };  // TOLD: that it could not be done, and why
struct Outcome {
    Verdict verdict = WRONG;
    std::string text;
    int faults = 1;  // where it did not live to tell
    int descriptors = 0;
};

tls::Words Faulty(const std::string& rules, const tls::Words& command) {
    return tls::Join(
        {"env", "LD_PRELOAD=" VEK_FAULT_SHIM, "VEK_FAULT=" + rules, "ASAN_OPTIONS=verify_asan_link_order=0"}, command);
}
Result RunFaulty(const std::string& rules, const tls::Words& command) {
    return RunProgram(tls::Join({"timeout", "-k", "1", "30"}, Faulty(rules, command)), "\n");
}

Outcome Judge(const Result& run, bool isDone, const std::string& told) {
    Outcome outcome;
    for (const std::string& line : FindAll(run.error, "^\\[[0-9]+ faults, [0-9]+ descriptors\\]$")) {
        sscanf(line.c_str(), "[%d faults, %d descriptors]", &outcome.faults, &outcome.descriptors);
    }
    outcome.text = "status " + std::to_string(run.status) + "\n" + run.output + run.error;
    if (isDone && run.status == 0) {
        outcome.verdict = DONE;
    } else if (run.status >= 0 && run.status <= 1 && !FindAll(run.output + run.error, told).empty()) {
        outcome.verdict = TOLD;
    }
    return outcome;
}

// The sample server on a free port.
class Server : public Process {
  public:
    explicit Server(bool isTls, const std::string& rules = "")
        : Process(Faulty(rules, tls::Join({BIN + "test_http2_server", "-p", "0"},
                                          isTls ? tls::Words{"-k", GetIdentity().key, "-r", GetIdentity().certificate}
                                                : tls::Words{"-u"}))) {
        const auto found = FindAll(ReadUntil("listening on port"), "on port ([0-9]+)");
        port = found.empty() ? "" : found[0];
    }
    std::string port;
};

// With its summary as a text: the JSON library ends the process where its destructor gets no memory.
tls::Words Load(const std::string& port, bool isTls) {
    return {BIN + "test_http2_client_async", "-h", "127.0.0.1", "-p", port, "-s", "-c", "20", "-n", "2",
            isTls ? "--insecure" : "-d"};
}
const char LOAD_FAILED[] = "cannot .*: .|[1-9][0-9]* (timed out|failed|not sent)|async: .";
bool IsLoadDone(const Result& run) { return Count(run.output, " 20 sent, 20 answered, 0 timed out") == 1; }

Outcome RunSync(bool isTls, const std::string& rules) {
    static Server servers[] = {Server(false), Server(true)};
    const tls::Words client = {BIN + "test_http2_client", "-h", "127.0.0.1", "-c", "10", "-v", "-p",
                               servers[isTls].port};
    const Result run = RunFaulty(rules, tls::Join(client, tls::Words(isTls ? 0 : 1, "-u")));
    const bool isDone = Count(run.output, " response status:200,value[4096:") == 10 && Count(run.output, "error!") == 0;
    Outcome outcome = Judge(run, isDone, "error!|Error *\\]|\\[[0-9]+-[A-Z][a-z ]+\\]|client: .|memory");
    return outcome;
}

Outcome RunAsync(bool isTls, const std::string& rules) {
    static Server servers[] = {Server(false), Server(true)};
    const Result run = RunFaulty(rules, Load(servers[isTls].port, isTls));
    return Judge(run, IsLoadDone(run), LOAD_FAILED);
}

// Loads, one after another: who meets the fault is told, and once it is over all is well.
Outcome RunServer(bool isTls, const std::string& rules) {
    Server server(isTls, rules);
    bool isDone = !server.port.empty(), isTold = true, isLastDone = isDone;
    std::string text;
    for (int i = 0; !server.port.empty() && (i < 2 || (i < 4 && !isLastDone)); ++i) {
        const Result load = RunProgram(Load(server.port, isTls));
        isLastDone = IsLoadDone(load);
        isDone = isDone && isLastDone;
        isTold = isTold && (isLastDone || !FindAll(load.output + load.error, LOAD_FAILED).empty());
        text += load.output + load.error;
    }
    server.Signal(SIGTERM);
    const int status = server.Wait();
    Outcome outcome = Judge({status, server.Output(), text + server.Error()}, isDone, "cannot .*: .| requests, ");
    if (!isTold || (!isLastDone && status == 0 && outcome.faults < 3)) { outcome.verdict = WRONG; }
    return outcome;
}

Outcome RunLog(bool, const std::string& rules) {
    const TempDir folder;
    const Result run =
        RunFaulty(rules, {BIN + "test_service_log", "-d", folder.Path(), "-t", "2", "-n", "100", "-s", "4000"});
    return Judge(run, Count(run.output, " files in ") == 1, "failed|cannot|log: .");
}

struct Case {
    const char* name;
    Outcome (*run)(bool isTls, const std::string& rules);
    bool isTls;
};
const Case CASES[] = {
    {"client", RunSync, false},   {"client over TLS", RunSync, true},
    {"load", RunAsync, false},    {"load over TLS", RunAsync, true},
    {"server", RunServer, false}, {"server over TLS", RunServer, true},
    {"log", RunLog, false},
};

// Calls, the errors that they are given, and whether the programs must not mind.
const struct {
    const char* calls;
    const char* errors;
    bool isHarmless;
} ROWS[] = {
    {"read recv", "SHORT EINTR EAGAIN", true},
    {"send write writev", "SHORT EINTR EAGAIN", true},
    {"poll ppoll epoll_wait epoll_pwait", "EINTR", true},
    {"read recv", "ECONNRESET ETIMEDOUT ENOMEM", false},
    {"send write writev", "EPIPE ECONNRESET ENOSPC ENOMEM", false},
    {"connect", "ECONNRESET ETIMEDOUT EINTR ENOMEM", false},
    {"accept4", "EMFILE ECONNRESET EINTR EAGAIN ENOMEM", true},
    {"socket bind listen getsockname getsockopt setsockopt shutdown", "EMFILE ENOMEM", false},
    {"ppoll epoll_wait", "ENOMEM", false},
    {"epoll_create epoll_create1 epoll_ctl eventfd timerfd_create pthread_create", "EMFILE ENOMEM", false},
    {"open fopen fdopen opendir stat lstat fstat mkdir mkfifo rename unlink flock ftruncate", "EMFILE ENOSPC ENOMEM",
     false},
    {"fwrite fflush fcntl ioctl dup close", "ENOSPC EINTR", false},
    {"malloc new", "ENOMEM", false},
};

class Fault : public testing::TestWithParam<Case> {};

// Every n-th call fails in a run of its own, for as long as there are such calls, then many of them in
// one. With VEK_FAULT_ALL no number is passed over, and no error; otherwise calls share them out.
TEST_P(Fault, IsToldOrMended) {
    const Case& test = GetParam();
    const bool isAll = getenv("VEK_FAULT_ALL") != nullptr;
    const int descriptors = test.run(test.isTls, "").descriptors;
    size_t calls = 0;
    for (const auto& row : ROWS) {
        for (const std::string& call : tls::Split(row.calls)) {
            tls::Words errors = tls::Split(row.errors);
            if (!isAll && !row.isHarmless) { errors = {errors[calls++ % errors.size()]}; }
            size_t faults = 1;
            for (size_t i = 0; i < errors.size() && faults > 0; ++i) {  // none: it makes no such calls
                faults = 0;
                size_t done = 0, told = 0;
                const auto run = [&](const std::string& when) {
                    const std::string rule = call + ":" + errors[i] + ":" + when;
                    const Outcome outcome = test.run(test.isTls, rule);
                    faults += static_cast<size_t>(outcome.faults);
                    ++(outcome.verdict == DONE ? done : told);
                    EXPECT_TRUE(outcome.verdict == DONE || (outcome.verdict == TOLD && !row.isHarmless))
                        << rule << " " << outcome.text;
                    EXPECT_LE(outcome.descriptors, descriptors) << rule;
                    return outcome.faults > 0;
                };
                int number = 1;
                while (number < MAX_CALLS && run(std::to_string(number))) { number += isAll ? 1 : number; }
                if (number > 2) { run("30%"); }
                if (faults > 0) {
                    printf("| %s | %s | %s | %zu | %zu done, %zu told |\n", test.name, call.c_str(), errors[i].c_str(),
                           faults, done, told);
                }
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Programs, Fault, testing::ValuesIn(CASES), [](const auto& info) {
    std::string name = info.param.name;
    name.erase(std::remove(name.begin(), name.end(), ' '), name.end());
    return name;
});

}  // namespace
