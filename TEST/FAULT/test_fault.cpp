// The programs under calls that fail: each ends by itself with what it did or with what it could not
// do, uses no descriptor that is shut and keeps none more than it does otherwise.
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "HttpTest.h"
#include "TlsSupport.h"

namespace {

constexpr int MAX_CALLS = 2000;  // that are counted

enum Verdict { WRONG, TOLD, DONE };  // TOLD: that it could not be done, and why
struct Outcome {
    Verdict verdict = WRONG;
    std::string text;
    int faults = 1;  // where it did not live to tell
    int descriptors = 0;
};

struct Case {
    const char* name;
    const char* command;  // "CLEAR" and "TLS" stand for the ports of servers
    const char* done;     // what it prints then
};
const Case CASES[] = {
    {"Client", "test_http2_client -h 127.0.0.1 -c 10 -v -u -p CLEAR", "^9 response status:200,value.4096:"},
    {"ClientTls", "test_http2_client -h 127.0.0.1 -c 10 -v -p TLS", "^9 response status:200,value.4096:"},
    {"Async", "test_http2_client_async -h 127.0.0.1 -s -c 20 -n 2 -d -p CLEAR", "^20 answered, 0 failed"},
    {"AsyncTls", "test_http2_client_async -h 127.0.0.1 -s -c 20 -n 2 -p TLS", "^20 answered, 0 failed"},
    {"Load", "vekload -n 20 -c 2 --keylog keys --csv csv --json json https://127.0.0.1:TLS", " 20 sent, 20 answered"},
    {"Log", "test_service_log -d . -t 2 -n 100 -s 4000", " files in "},
    {"Server", "test_http2_server -p 0 -u", ""},
    {"ServerTls", "test_http2_server -p 0 -k KEY -r CERTIFICATE", ""},
};
// What programs say of what went wrong.
const char TOLD_BY[] =
    "error!|Error *\\]|[1-9][0-9]* (failed|timed out|not sent)|failed!|cannot|mismatch|lost|memory|"
    "TLS context: .|cipher .|(async|client|load|log|server): .";

// The calls of a row are counted together.
struct Row {
    const char* calls;
    std::vector<int> errors;  // 0: come short
    bool isHarmless;          // the programs must not mind
};
const Row ROWS[] = {
    {"recv,__recv_chk", {0, EINTR, EAGAIN}, true},
    {"read,__read_chk", {0, EINTR}, true},
    {"send", {0, EINTR, EAGAIN}, true},
    {"write", {EINTR, EAGAIN}, true},  // never short: to pipes and terminals lines go whole
    {"poll,ppoll,epoll_wait", {EINTR}, true},
    {"accept4", {EMFILE, ECONNRESET, EINTR, EAGAIN, ENOMEM}, true},
    {"recv,__recv_chk", {ECONNRESET, ETIMEDOUT, ENOMEM}, false},
    {"write,writev,send", {EPIPE, ECONNRESET, ENOSPC, ENOMEM}, false},
    {"connect", {ECONNRESET, ETIMEDOUT, EINTR, ENOMEM}, false},
    {"socket,bind,listen,getsockopt,setsockopt,shutdown", {EMFILE, ENOMEM}, false},
    {"ppoll,epoll_wait,epoll_create,epoll_ctl,timerfd_create,pthread_create", {EMFILE, ENOMEM}, false},
    {"open,fopen,fdopen,opendir,stat,lstat,fstat,flock", {EMFILE, ENOMEM}, false},
    {"mkdir,mkfifo,rename,unlink,ftruncate,fwrite", {ENOSPC, EINTR, ENOMEM}, false},
    {"fcntl,ioctl", {EINTR, ENOMEM}, false},
    {"malloc,calloc,realloc", {ENOMEM}, false},
    {"_Znwm,_Znam", {ENOMEM}, false},
};

void Replace(std::string& text, const std::string& name, const std::string& value) {
    const size_t at = text.find(name);
    if (at != std::string::npos) { text.replace(at, name.size(), value); }
}

tls::Words Faulty(const std::string& rule, const std::string& folder, std::string command) {
    Replace(command, "KEY", GetIdentity().key);
    Replace(command, "CERTIFICATE", GetIdentity().certificate);
    return tls::Split("timeout --foreground -k 9 40 env -C " + folder + " SSL_CERT_DIR=/ SSL_CERT_FILE=" +
                      GetIdentity().certificate + " LD_PRELOAD=" VEK_FAULT_SHIM " VEK_FAULT=" + rule +
                      " ASAN_OPTIONS=verify_asan_link_order=0 " VEK_BIN_DIR "/" + command);
}

Outcome Judge(const Result& run, bool isDone) {
    Outcome outcome;
    for (const std::string& line : FindAll(run.error, "^\\[[0-9]+ faults, [0-9]+ descriptors\\]$")) {
        sscanf(line.c_str(), "[%d faults, %d descriptors]", &outcome.faults, &outcome.descriptors);
    }
    outcome.text = "status " + std::to_string(run.status) + "\n" + run.output + run.error;
    if (isDone && run.status == 0) {
        outcome.verdict = DONE;
    } else if (run.status >= 0 && run.status <= 3 && !FindAll(run.output + run.error, TOLD_BY).empty()) {
        outcome.verdict = TOLD;
    }
    return outcome;
}

// Open when made, thus gone before what OpenSSL keeps is.
struct Servers {
    TestServer clear, encrypted{{}, true};
    const int clearPort = clear.Open(), encryptedPort = encrypted.Open();
};

Outcome RunClient(const Case& test, const std::string& rule, bool /*isStorm*/) {
    static Servers servers;
    const TempDir folder;
    std::string command = test.command;
    Replace(command, "CLEAR", std::to_string(servers.clearPort));
    Replace(command, "TLS", std::to_string(servers.encryptedPort));
    Result run = RunProgram(Faulty(rule, folder.Path(), command), "\n");
    bool isWritten = !folder.Has("json") || nlohmann::json::accept(folder.Read("json"));
    if (strcmp(test.name, "Log") == 0) {
        run.error += RunProgram({"grep", "-rhE", "lost|line [0-9]+ of 100", folder.Path()}).output;
        isWritten = Count(run.error, "of 100") == 200;
    }
    return Judge(run, isWritten && !FindAll(run.output, test.done).empty());
}

// Whether each of some requests is answered; one that is not has a reason.
bool AreAnswered(const std::string& port, bool isTls) {
    VEK_ST_HTTP_TARGET target = Target("127.0.0.1", std::stoi(port));
    target.tls_ = isTls ? MakeTls(false) : nullptr;
    VEK_ST_HTTP_CLIENT_OPTIONS options = Options(2);
    options.connections_ = 2;
    options.responseTime_ = seconds(5);
    TestClient client(0, options);
    EXPECT_FALSE(client.client.AddTarget(target));
    std::vector<std::future<VEK_ST_HTTP_RESPONSE>> answers;
    for (int i = 0; i < 10; ++i) { answers.push_back(client.client.Send(Asking("/", "POST", std::string(4096, 'x')))); }
    size_t good = 0;
    for (auto& answer : answers) {
        const VEK_ST_HTTP_RESPONSE response = answer.get();
        EXPECT_NE(response.failure_.text_.empty(), static_cast<bool>(response.failure_));
        good += !response.failure_ && response.status_ == 200 && response.bodyBytes_ == 4096 ? 1 : 0;
    }
    return good == answers.size();
}

// Who meets a fault is told, and when it is over all is well.
Outcome RunServer(const Case& test, const std::string& rule, bool isStorm) {
    Process server(Faulty(rule, "/", test.command));
    const auto port = FindAll(server.ReadUntil("listening on port"), "on port ([0-9]+)");
    bool isDone = !port.empty(), isWell = isDone;
    for (int i = 0; !port.empty() && (i < 2 || (i < 4 && !isWell)); ++i) {
        isWell = AreAnswered(port[0], strstr(test.command, "-u") == nullptr);
        isDone = isDone && isWell;
    }
    server.Signal(SIGTERM);
    const int status = server.Wait();
    Outcome outcome = Judge({status, server.Output(), server.Error()}, isDone);
    if (!port.empty() && status == 0) { outcome.verdict = isDone ? DONE : isWell || isStorm ? TOLD : WRONG; }
    return outcome;
}

class Fault : public testing::TestWithParam<Case> {};

// The n-th call fails in a run of its own, for n that grow for as long as there are so many calls; then each
// third one fails. VEK_FAULT_ALL leaves out few numbers and no error; otherwise the runs share the errors out.
TEST_P(Fault, IsToldOrMended) {
    const Case& test = GetParam();
    const auto run = strncmp(test.name, "Server", 6) == 0 ? RunServer : RunClient;
    const bool isAll = getenv("VEK_FAULT_ALL") != nullptr;
    const int descriptors = run(test, "", false).descriptors;
    for (const Row& row : ROWS) {
        int faults = 0, outcomes[3] = {};
        const auto inject = [&](int error, int first, int step) {
            const std::string rule = "," + std::string(row.calls) + ",:" + std::to_string(error) + ":" +
                                     std::to_string(first) + ":" + std::to_string(step);
            const Outcome outcome = run(test, rule, step > 0);
            faults += outcome.faults;
            ++outcomes[outcome.faults > 0 ? outcome.verdict : WRONG];
            EXPECT_GE(outcome.verdict, row.isHarmless ? DONE : TOLD) << rule << " " << outcome.text;
            EXPECT_LE(outcome.descriptors, descriptors) << rule;
            return outcome.faults > 0;
        };
        bool isCalled = true;
        size_t runs = 0;
        for (int number = 1; isCalled && number < MAX_CALLS; number += isAll ? 1 + number / 20 : number) {
            for (size_t i = 0; isCalled && i < (isAll ? row.errors.size() : 1); ++i, ++runs) {
                isCalled = inject(row.errors[runs % row.errors.size()], number, 0);
            }
        }
        if (faults == 0) { continue; }
        for (const int error : row.errors) { inject(error, 2, 3); }
        fprintf(stderr, "| %s | %s | %d | %d done, %d told |\n", test.name, row.calls, faults, outcomes[DONE],
                outcomes[TOLD]);
    }
}

INSTANTIATE_TEST_SUITE_P(Programs, Fault, testing::ValuesIn(CASES), [](const auto& info) { return info.param.name; });

}  // namespace
