// vekload as its user sees it, with real peers and with ones that misbehave.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <thread>

#include "CVEKHttpServer.h"
#include "CVEKLoadSchedule.h"
#include "CVEKLoadTurn.h"
#include "CVEKSocketNew.h"
#include "LoadTest.h"
#include "RawPeer.h"
#include "TlsSupport.h"
#include "VEKLoadFlow.h"
#include "VEKVersion.h"

namespace {

using std::chrono::milliseconds;

const std::string PROGRAM = VEK_BIN_DIR "/vekload";
const std::string SERVER = VEK_BIN_DIR "/test_http2_server";

tls::Words Command(const std::string& url, const tls::Words& more) { return tls::Join({PROGRAM, url}, more); }
std::string Url(int port, bool isTls = false) {
    return (isTls ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(port) + "/test/test";
}

// Checks what holds for every run, and returns what it tells.
json ReadRun(const Result& result) {
    VEK_ST_LOAD_SUMMARY run;
    std::string error;
    const bool isRun = VEK_LOAD_READ_JSON(result.output, run, error);
    EXPECT_TRUE(isRun) << error << result.output << result.error;
    if (!isRun) { return json::object(); }
    EXPECT_EQ("", FindMisfit(result.output));
    // The steps and the connections add up to the total, and the seconds have its latencies.
    VEK_ST_LOAD_SUMMARY sum = run;
    sum.total_.Clear();
    for (const VEK_ST_LOAD_STEP& step : run.steps_) { sum.total_.Add(step.counts_); }
    EXPECT_EQ(result.output, VEK_LOAD_WRITE_JSON(sum));
    VEK_ST_LOAD_SECOND all;
    for (const VEK_ST_LOAD_SECOND& second : run.seconds_) { all.Add(second); }
    EXPECT_EQ(VEK_ST_LOAD_PACKED::Pack(run.total_.latency_).hdr_, all.latency_.hdr_);
    EXPECT_EQ(run.total_.CountErrors(), all.errors_);
    VEK_ST_LOAD_SLOT slots;
    for (const VEK_ST_LOAD_SLOT& slot : run.connections_.slots_) { slots.Add(slot); }
    const VEK_ST_LOAD_COUNTS& total = run.total_;
    EXPECT_EQ(json({run.connections_.opened_, total.failed_ + total.timedOut_, total.answered_, slots.sum_}),
              json({slots.opened_, slots.failed_, slots.answered_, std::stoull(total.latency_.GetSumText())}));
    EXPECT_EQ(json({total.latency_.GetMin(), total.latency_.GetMax()}), json({slots.min_, slots.max_}));
    EXPECT_EQ(0U, Count(result.error, "\033")) << "a screen, and no terminal";
    return json::parse(result.output);
}

json RunLoad(const std::string& url, const tls::Words& more, int status = 0) {
    const Result result = RunProgram(tls::Join(Command(url, more), {"--json", "-"}));
    EXPECT_EQ(status, result.status) << result.error;
    return ReadRun(result);
}

TEST(Vekload, RefusesWrongUse) {
    const struct {
        tls::Words arguments;
        const char* error;
        int status;
    } cases[] = {
        {{}, "a URL is needed, or --scenario\n", 2},
        {{"ftp://a/"}, "is no URL: it begins with neither", 2},
        {{"http://a", "-n", "0"}, "--count: Value 0 not in range", 2},
        {{"http://a", "-D", "5x"}, "\"5x\" is no time up to a day", 2},
        {{"http://a", "--rate", "fast"}, "\"fast\" is no rate", 2},
        {{"http://a", "--ramp", "nan:5:1s"}, "\"nan\" is no rate", 2},
        {{"http://a", "--ramp", "-1:5:1s"}, "\"-1\" is no rate", 2},
        {{"http://a", "--rate", "1", "--ramp", "1:2:3s"}, "excludes", 2},
        {{"http://a", "--rate-steps", "1:2:3"}, "is no list of rate:time", 2},
        {{"http://a", "--ramp", "0:0:1s"}, "has a rate below 0.001", 2},
        {{"http://a", "--fail-if", "p99 > 5"}, "a time with its unit", 2},
        {{"http://a", "--abort-if", "p99"}, "compares nothing", 2},
        {{"http://a", "-H", "no thing: a"}, "-H: \"no thing: a\" is no header field", 2},
        {{"http://a", "-d", "@/gone"}, "-d: /gone: No such file", 2},
        {{"http://a", "--weights", "1,2"}, "--weights needs one number for each URL", 2},
        {{"http://a", "--scenario", "/gone"}, "/gone: No such file", 2},
        {{"https://a", "--tls-min", "1.3", "--tls-max", "1.2"}, "--tls-min is above", 2},
        {{"https://a", "--tls12", "--cert", "a", "--key", "/gone"}, "cannot use key /gone with certificate a", 2},
        {{"https://a", "--cacert", "/gone"}, "vekload: CA file /gone: No such file", 2},
        {{"http://a", "--resolve", "a:b"}, "is not host:port:address", 2},
        {{"http://a", "--connect-to", "a"}, "--connect-to: \"a\" is no host with a port", 2},
        {{"http://a", "--json", "/gone/x"}, "/gone/x: No such file", 2},
        {{"http://a..b"}, "cannot connect: a..b: ", 3},
        {{"merge", ""}, "has nothing for its value", 2},
        {{"merge", "/gone"}, "/gone: No such file", 2},
        {{"merge", SERVER}, ": line 1, column 1: ", 2},
        {{Url(FreePort())}, "cannot connect: ", 3},
        {{Url(FreePort()), "-c", "100000"}, "100000 connections need ", 3},
    };
    for (const auto& test : cases) {
        const Result result =
            RunProgram(tls::Join({"sh", "-c", "ulimit -n 1000; exec \"$@\"", "sh", PROGRAM}, test.arguments));
        EXPECT_EQ(test.status, result.status) << test.error;
        EXPECT_EQ("", result.output);
        EXPECT_LE(1U, Count(result.error, test.error)) << test.error << " is not: " << result.error;
    }
    EXPECT_EQ("vekload " VEK_VERSION "\n", RunProgram({PROGRAM, "--version"}).output);
    const Result help = RunProgram({PROGRAM, "--help"});
    EXPECT_EQ(0, help.status);
    for (const char* part : {"What to ask:", "How hard:", "examples:", "Exit status:"}) {
        EXPECT_EQ(1U, Count(help.output, part));
    }
}

TEST(Vekload, CountsEveryAnswerOfRealServers) {
    tls::Folder().Write("files/test/test", std::string(4096, 'x'));
    const int nginxPort = FreePort();
    tls::Folder().Write("nginx.conf",
                        "daemon off; master_process off; error_log stderr; pid pid; events {} http { access_log off; "
                        "client_body_temp_path b; proxy_temp_path p; fastcgi_temp_path f; uwsgi_temp_path u; "
                        "scgi_temp_path s; server { listen 127.0.0.1:" +
                            std::to_string(nginxPort) + " http2; root files; } }");
    const tls::Service nginx("/usr/sbin/nginx -e stderr -p % -c %/nginx.conf", nginxPort);
    const auto& [key, certificate] = GetIdentity();
    const tls::Service nghttpd("/usr/sbin/nghttpd -d %/files PORT " + key + " " + certificate);
    const tls::Service clear("/usr/sbin/nghttpd --no-tls -d %/files PORT");
    const tls::Service proxy("/usr/sbin/nghttpx --conf=/dev/null --workers=1 --log-level=FATAL " +
                             ("-f127.0.0.1,PORT;no-tls -b127.0.0.1," + std::to_string(clear.port) + ";;proto=h2"));
    const std::string start = SERVER + " -p PORT -m 101 -k " + key + " -r " + certificate;
    const tls::Service sample(start), demanding(start + " --demand-client " + certificate);
    const std::string at = std::to_string(nghttpd.port), clearAt = std::to_string(clear.port);
    const std::pair<std::string, int> cases[] = {
        {Url(nghttpd.port, true) + " --churn 100 --cacert " + certificate, 4096},
        {"https://localhost:" + at + "/test/test -4 --tls-max 1.2 --ciphers ECDHE+AESGCM --cacert " + certificate,
         4096},
        {"https://example.test/test/test --insecure --sni localhost --connect-to 127.0.0.1:" + at, 4096},
        {"http://a.test:" + clearAt + "/test/test --resolve a.test:" + clearAt + ":127.0.0.1", 4096},
        {Url(clear.port) + " -d body -H x-a:b -H :authority:c --window 70000", 4096},
        {Url(proxy.port) + " --upgrade --users 7", 4096},
        {Url(sample.port, true) + " --insecure -X PUT --body-size 1000", 1000},
        {Url(demanding.port, true) + " --insecure -d @%/files/test/test --cert " + certificate + " --key " + key, 4096},
        // One thread: ThreadSanitizer does not see how OpenSSL guards what threads share of authorities.
        {Url(sample.port, true) + " --tls12 -t 1", 0},
        {"https://[::1]:" + at + "/test/test -6 --insecure", 4096},
        {Url(nginxPort) + " -m 50", 4096},
    };
    for (const auto& [text, bytes] : cases) {
        SCOPED_TRACE(text);
        const tls::Words words = tls::Split(text + " -n 1000 -c 3");
        const json run = RunLoad(words[0], {words.begin() + 1, words.end()});
        EXPECT_EQ(1000, run["total"]["status"]["200"]);
        EXPECT_EQ(1000 * bytes, run["total"]["body_bytes_received"]);
        EXPECT_LE(1000 * bytes, run["connections"]["wire_bytes_received"]);
        EXPECT_EQ(3U, run["connections"]["slots"].size());
        EXPECT_EQ(run["connections"]["opened"], run["connections"]["tcp"]["count"]);
        EXPECT_LE(words[0][4] == 's' ? 200000 : 0, run["connections"]["tls"]["max_ns"]);  // nobody signs in less
        EXPECT_LE(text.find("--churn") != std::string::npos ? 10 : 3, run["connections"]["opened"]);
        EXPECT_LE(text.find("--churn") != std::string::npos ? 1 : 0, run["connections"]["resumed"]);
        EXPECT_EQ("requests", run["ended_by"]);
    }
    const Result piped = RunProgram(
        {"sh", "-c", "printf text | " + PROGRAM + " --insecure -n 5 -d @- --json - " + Url(sample.port, true)});
    EXPECT_EQ(20, ReadRun(piped)["total"]["body_bytes_received"]);
    EXPECT_EQ(1U, Count(piped.error, "--insecure: not verified: certificate [")) << piped.error;
    // Several hosts, weights, and a status that is none of success.
    const json run =
        RunLoad(Url(clear.port),
                {Url(clear.port) + "?gone", "http://localhost:" + std::to_string(clear.port) + "/no", "--weights",
                 "2,1,1", "-n", "400", "-c", "3", "--fail-if", "status 404 > 99", "--fail-if", "errors > 25%"},
                1);
    EXPECT_EQ(json({{"200", 300}, {"404", 100}}), run["total"]["status"]);
    EXPECT_EQ(4U, run["connections"]["slots"].size()) << "as many for each of two hosts";
    EXPECT_EQ(200, run["steps"][0]["answered"]);
    EXPECT_EQ(100, run["steps"][2]["errors"]);
    EXPECT_EQ(false, run["thresholds"][0]["passed"]);
    EXPECT_EQ(true, run["thresholds"][1]["passed"]);
}

// What becomes of ten requests when a peer has answered three.
TEST(Vekload, AccountsForMisbehavingPeers) {
    using Script = std::function<void(RawPeer&)>;
    const Script die = [](RawPeer&) {}, stall = [](RawPeer&peer) { peer.ReadUntil(-1); };
    const Script goAway = [](RawPeer& peer) {
        for (int i = 0; i < 7; ++i) { peer.ReadRequest(); }
        peer.Send(MakeGoaway(5, NGHTTP2_NO_ERROR)), peer.ReadUntil(-1);
    };
    const Script reset = [](RawPeer& peer) {
        for (int i = 0; i < 7; ++i) { peer.Send(MakeReset(peer.ReadRequest(), NGHTTP2_REFUSED_STREAM)); }
        peer.ReadUntil(-1);
    };
    const struct {
        const char* options;
        Script script;
        int sent, timedOut, unsent;
        json causes;
    } cases[] = {
        {"--timeout 1000", die, 10, 0, 0, {{"connection lost", 7}}},
        {"--timeout 1000", goAway, 10, 0, 0, {{"connection closed by peer (GOAWAY)", 7}}},
        {"--timeout 1000", reset, 10, 0, 0, {{"stream reset by peer: REFUSED_STREAM", 7}}},
        {"--timeout 1000 -D 60s", stall, 10, 7, 0, json::object()},
        {"--timeout 1500 -m 1 --rate 100 -D 1s", stall, 4, 1, 6, json::object()},  // one stream: the others wait for it
    };
    for (const auto& test : cases) {
        const RawPeer peer([&](RawPeer& self) {
            for (int i = 0; i < 3; ++i) { self.Answer(self.ReadRequest(), "body"); }
            test.script(self);
        });
        const json run = RunLoad(Url(peer.Port()), tls::Join({"-n", "10", "-d", "some"}, tls::Split(test.options))),
                   total = run["total"];
        EXPECT_EQ(test.unsent > 0 ? "duration" : "requests", run["ended_by"]);
        const json told = {total["sent"], total["answered"], total["timed_out"], total["not_sent"], total["causes"]};
        EXPECT_EQ(json({test.sent, 3, test.timedOut, test.unsent, test.causes}), told);
        EXPECT_EQ(json({test.sent * 4, 12}), json({total["body_bytes_sent"], total["body_bytes_received"]}));
    }
}

TEST(Vekload, InterruptOrLagEndsTheRunWithItsResults) {
    for (const std::string cause : {"signal", "two signals", "lag"}) {
        std::promise<void> isFull;
        const RawPeer peer([&](RawPeer& self) {
            if (cause == "lag") { self.Answer(self.ReadRequest(), ""); }
            for (int i = 0; i < 3; ++i) { self.ReadRequest(); }
            isFull.set_value();
            self.ReadUntil(-1);
        });
        Process client(Command(Url(peer.Port()), {"-d", "x", "-D", "60s", "-m", "3", "--json", "-", "--max-lag",
                                                  cause == "lag" ? "100ms" : "60s"}));
        isFull.get_future().wait();
        client.Signal(SIGSTOP);  // and so it is late for what it has to do
        std::this_thread::sleep_for(milliseconds(300));
        client.Signal(SIGCONT);
        std::this_thread::sleep_for(milliseconds(100));
        if (cause != "lag") { client.Signal(SIGINT); }
        if (cause == "two signals") {
            std::this_thread::sleep_for(milliseconds(100));
            client.Signal(SIGINT);
            EXPECT_EQ(-SIGINT, client.Wait());
            continue;
        }
        const int status = client.Wait();
        const json run = ReadRun({status, client.Output(), client.Error()});
        EXPECT_EQ(1, status);  // late, or not one answer
        EXPECT_EQ(cause, run["ended_by"]);
        const char* told = cause == "lag" ? ", ended early by --max-lag\n" : ", ended by a signal\n";
        EXPECT_EQ(1U, Count(client.Error(), told)) << client.Error();
        EXPECT_EQ(cause == "lag" ? 1U : 0U, Count(client.Error(), "vekload: a thread was late by "));
        EXPECT_EQ(true, run["bottleneck"]);
        EXPECT_EQ(json::object({{"not answered before the end", 3}}), run["total"]["causes"]);
    }
}

// A server that is so busy that nobody gets through to it any more, not even at the run's end.
TEST(Vekload, EndsInTheMidstOfAReconnect) {
    for (const bool isInterrupted : {false, true}) {
        const int listener = CVEKSocketNew::LISTEN(AF_INET, 0, nullptr);
        sockaddr_in address{};
        socklen_t size = sizeof address;
        ASSERT_EQ(0, listen(listener, 0));
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
        Process client(Command(Url(ntohs(address.sin_port)),
                               {"-D", isInterrupted ? "3600s" : "1.5s", "-m", "3", "--json", "-", "-d", "x"}));
        RawSocket peer(accept(listener, nullptr, nullptr));
        peer.ReadText(NGHTTP2_CLIENT_MAGIC_LEN);
        peer.Send(MakeSettings());
        const int stream = peer.ReadUntil(NGHTTP2_HEADERS).stream;
        std::vector<std::unique_ptr<RawSocket>> crowd;
        for (int i = 0; i < 4; ++i) {  // the backlog is full, whatever the system makes of 0
            crowd.push_back(std::make_unique<RawSocket>(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)));
            connect(crowd.back()->GetFD(), reinterpret_cast<sockaddr*>(&address), size);
        }
        peer.Send(MakeHeaders(stream, STATUS_200, true));
        peer.ReadUntil(NGHTTP2_HEADERS, stream + 6);  // the fourth: it has the answer
        peer.Close();
        if (isInterrupted) {
            std::this_thread::sleep_for(milliseconds(200));
            client.Signal(SIGINT);
        }
        const int status = client.Wait();
        const json run = ReadRun({status, client.Output(), client.Error()});
        EXPECT_EQ(4, run["total"]["sent"]);
        EXPECT_EQ(json::object({{"connection lost", 3}}), run["total"]["causes"]) << "and none has timed out";
        EXPECT_EQ(1U, run["connections"]["causes"].size()) << "and nor has the reconnect";
        close(listener);
    }
}

// A capture of a TLS connection, opened with the secrets that the program has left in a file.
TEST(Vekload, KeyLogOpensACapture) {
    const Identity& identity = GetIdentity();
    const TempDir folder;
    const tls::Service server(SERVER + " -p PORT -k " + identity.key + " -r " + identity.certificate);
    const std::string port = std::to_string(server.port);
    const std::string file = folder.Path("capture"), keys = folder.Path("keys");
    Process capture({"sh", "-c", "exec dumpcap -q -i lo -a duration:60 -f 'port " + port + "' -w " + file + " 2>&1"});
    ASSERT_EQ(1U, Count(capture.ReadUntil("File: "), "File: ")) << capture.Output();  // it is under way
    const Result run = RunProgram({PROGRAM, "https://localhost:" + port + "/test/test", "--keylog", keys, "-n", "5",
                                   "-X", "POST", "--cacert", identity.certificate});
    EXPECT_EQ(0, run.status) << run.output << run.error;
    // A datagram behind it all: with it, all of it is in the file.
    RunProgram({"bash", "-c", "echo end-of-capture > /dev/udp/127.0.0.1/" + port});
    EXPECT_TRUE(Eventually([&] { return Count(folder.Read("capture"), "end-of-capture") == 1; }));
    capture.Signal(SIGINT);
    EXPECT_EQ(0, capture.Wait()) << capture.Output();
    // Without the settings of whoever runs the test.
    const auto read = [&](const std::string& with, const std::string& wanted) {
        return RunProgram({"env", "HOME=" + folder.Path(), "tshark", "-r", file, "-d", "tcp.port==" + port + ",tls",
                           "-o", "tls.keylog_file:" + with, "-Y", wanted, "-T", "fields", "-e", "http2.headers.path"})
            .output;
    };
    EXPECT_EQ(5U, Count(read(keys, "http2.headers.method == POST"), "/test/test"));
    EXPECT_EQ(0U, Count(read("/dev/null", "http2"), "/test/test"));
}

// A server that stalls at first must not hide how long the requests behind have waited.
TEST(Vekload, LatencyCountsFromTheSchedule) {
    static constexpr int STALL_MS = 400;
    const RawPeer peer([](RawPeer& self) {
        const int first = self.ReadRequest();
        std::this_thread::sleep_for(milliseconds(STALL_MS));
        self.Answer(first, "late");
        self.AnswerAll([](int) { return ""; });
    });
    const json total = RunLoad(Url(peer.Port()), {"-m", "1", "--rate", "100", "-n", "20", "-d", "some"})["total"];
    EXPECT_EQ(20, total["answered"]);
    EXPECT_GE(total["latency"]["min_ns"].get<double>(), (STALL_MS - 200) * 1e6);  // the last was due after 190 ms
    EXPECT_LT(total["service"]["p50_ns"].get<double>(), total["latency"]["min_ns"].get<double>());
}

TEST(Vekload, WritesAllFilesAndMergesThem) {
    tls::Folder().Write("files/test/test", "x");
    const tls::Service clear("/usr/sbin/nghttpd --no-tls -d %/files PORT");
    const TempDir folder;
    const auto path = [&](const char* name) { return folder.Path(name); };
    const Result first = RunProgram(Command(
        Url(clear.port), {"-D", "1200ms", "--warm-up", "300ms", "--ramp", "100:300:2s", "--json", path("1"), "--csv",
                          path("csv"), "--hdr", path("hdr"), "--report", path("html"), "--requests", path("lines")}));
    EXPECT_EQ(0, first.status) << first.output << first.error;
    const json one = ReadRun({0, ReadAll(path("1")), ""});
    const size_t answered = one["total"]["answered"];
    EXPECT_EQ(192U, answered);  // 100/s and 50/s more each half a second, for 1.2 s
    EXPECT_EQ("duration", one["ended_by"]);
    EXPECT_EQ(answered + 1, Count(ReadAll(path("lines")), "\n"));
    EXPECT_EQ(answered, Count(ReadAll(path("lines")), ",200,1,1,\n"));
    EXPECT_EQ(one["series"].size() + 1, Count(ReadAll(path("csv")), "\n"));
    EXPECT_EQ(one["series"].size(), Count(ReadAll(path("hdr")), ",HISTF"));
    const std::string base = std::to_string(one["started_ms"].get<int64_t>() / 1000);
    EXPECT_EQ(1U, Count(ReadAll(path("hdr")), "[BaseTime: " + base + "."));
    EXPECT_EQ(1U, Count(ReadAll(path("html")), "const run = {"));
    EXPECT_EQ(1U, Count(first.output, std::to_string(answered) + " answered"));

    EXPECT_EQ(0, RunProgram(Command(Url(clear.port), {"-n", "300", "--rate-steps", "1000:100ms,2000:1s", "--json",
                                                      path("2"), "--abort-if", "p99 > 60s"}))
                     .status);
    const Result merged = RunProgram({PROGRAM, "merge", path("1"), path("2"), "--json", "-", "--report", path("both"),
                                      "--fail-if", "rate < 1000000/s"});
    EXPECT_EQ(1, merged.status);
    const json both = ReadRun(merged);
    EXPECT_EQ(answered + 300, both["total"]["answered"]);
    EXPECT_EQ(2, both["runs"]);
    EXPECT_EQ(PROGRAM + " " + Url(clear.port) + " -n 300 --rate-steps 1000:100ms,2000:1s --json " + path("2") +
                  " --abort-if 'p99 > 60s'",
              both["commands"][1]);
    EXPECT_EQ(1U, Count(merged.error, "FAILED  rate < 1000000/s"));
    EXPECT_EQ(1U, Count(ReadAll(path("both")), "const run = {"));
}

TEST(Vekload, AbortsAsSoonAsATermHolds) {
    const tls::Service clear("/usr/sbin/nghttpd --no-tls -d / PORT");
    const Result result =
        RunProgram(Command(Url(clear.port), {"-D", "60s", "--rate", "100", "--abort-if", "status 4xx > 5"}));
    EXPECT_EQ(1, result.status);
    EXPECT_EQ(1U, Count(result.error, "ended by --abort-if 'status 4xx > 5': status 4xx = "));
    EXPECT_EQ(1U, Count(result.output, "ended early by --abort-if"));
    // The rate is that of full seconds, at any time.
    const Result kept =
        RunProgram(Command(Url(clear.port), {"-D", "2900ms", "--rate", "100", "--abort-if", "rate < 60/s"}));
    EXPECT_EQ(0, kept.status) << kept.error;
}

#ifdef VEK_PROMETHEUS
TEST(Vekload, ServesLiveFigures) {
    const tls::Service clear("/usr/sbin/nghttpd --no-tls -d / PORT");
    const std::string port = std::to_string(FreePort());
    Process client(Command(Url(clear.port), {"-D", "60s", "--rate", "50", "--prometheus", port}));
    std::string text;
    EXPECT_TRUE(Eventually([&] {
        text = RunProgram({"curl", "-s", "http://127.0.0.1:" + port + "/metrics"}).output;
        return Count(text, "vekload_answers_total{status=\"404\"} ") == 1;
    })) << text;
    const auto tell = [&](const std::string& name) {
        const auto found = FindAll(text, "^vekload_" + name + " (.*)$");
        return found.size() == 1 ? std::stod(found[0]) : -1;
    };
    const double answered = tell(R"(answers_total\{status="404"\})"), sum = tell("latency_seconds_sum");
    EXPECT_EQ(answered, tell(R"(requests_total\{end="answered"\})"));
    EXPECT_EQ(answered, tell("latency_seconds_count"));
    EXPECT_EQ(0, tell(R"(requests_total\{end="timed_out"\})") + tell(R"(requests_total\{end="failed"\})"));
    EXPECT_LE(0, tell("in_flight"));
    EXPECT_LT(0, sum);
    EXPECT_GT(60, sum / answered) << "seconds";
    EXPECT_LE(tell(R"(latency_seconds\{quantile="0.5"\})"), tell(R"(latency_seconds\{quantile="0.99"\})"));
    const Result second = RunProgram(Command(Url(clear.port), {"--prometheus", port}));
    EXPECT_EQ(2, second.status);
    EXPECT_EQ(1U, Count(second.error, "vekload: --prometheus: " + port + ": ")) << second.error;
    client.Signal(SIGINT);
    EXPECT_EQ(0, client.Wait());
    EXPECT_EQ(2, RunProgram(Command(Url(clear.port), {"--prometheus", "none"})).status);
}
#endif

// Flows whose steps depend on what the answers of the former ones held.
TEST(Vekload, WalksScenarios) {
    const RawPeer peer([](RawPeer& self) { self.AnswerAll([](int) { return R"({"id": 7, "list": ["a"]})"; }); });
    const TempDir folder;
    folder.Write("users.csv", "name\nann\nbob\ncid\n");
    const std::string file =
        folder.Write("s.json", R"({"variables": {"u": {"csv": "users.csv"}}, "flows": [{"name": "f",
      "steps": [{"name": "one", "path": "/{{u.name}}", "method": "POST", "body": "x", "extract": {"id": {"json": "/id"}},
                 "expect": {"status": 200, "json": {"/list/0": "a"}}, "think": {"min": "1ms", "max": "5ms"}},
                {"name": "two", "path": "/{{id}}", "method": "POST", "body": "y", "expect": {"contains": "nothing", "json": {"/id": 7}}},
                {"name": "three", "path": "/", "method": "POST", "body": "z", "extract": {"no": {"header": "x-no"}}},
                {"name": "four", "path": "/{{no}}"}]}]})");
    const Result result =
        RunProgram(Command(Url(peer.Port()), {"--scenario", file, "-n", "10", "--seed", "5", "--json", "-"}));
    EXPECT_EQ(1, result.status);
    EXPECT_EQ(1U, Count(result.error, "seed 5\n"));
    const json run = ReadRun(result);
    // There are three rows; who has no value for the fourth step does not take it.
    for (size_t step = 0; step < 4; ++step) { EXPECT_EQ(step < 3 ? 3 : 0, run["steps"][step]["sent"]) << step; }
    EXPECT_EQ("f: two", run["steps"][1]["name"]);
    EXPECT_EQ(json({{"body contains nothing", 3}, {"no header x-no", 3}}), run["total"]["expectations"]);
    EXPECT_EQ(0, run["total"]["not_sent"]);
}

// The worked examples: a server that keeps items, over a Unix socket, and the population on the sample server.
TEST(Vekload, RunsItsExamples) {
    const TempDir folder;
    CVEKEventLoops loops(1);
    CVEKHttpServer server(loops);
    int last = 0;
    std::map<std::string, json> items;
    server.SetHandler([&](VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder responder) {
        VEK_ST_HTTP_RESPONSE response;
        response.fields_.Add("etag", "v1");
        json item = json::parse(request.body_.GetText(), nullptr, false);
        const std::string id = request.method_ == "POST" ? std::to_string(++last) : request.path_.substr(7);
        if (request.method_ == "DELETE") { response.status_ = items.erase(id) == 1 ? 204 : 404; }
        if (!item.is_discarded()) {
            const bool isMatch = request.method_ == "POST" || request.fields_.Get("if-match") == "v1";
            response.status_ = !isMatch ? 412 : request.method_ == "POST" ? 201 : 200;
            item["id"] = id;
            items[id] = item;
        }
        if (items.count(id) > 0) { response.body_ = items[id].dump(); }
        responder.Send(std::move(response));
    });
    VEK_ST_HTTP_LISTENER listener;
    listener.unixPath_ = folder.Path("socket");
    ASSERT_FALSE(server.Listen(listener));
    const std::string examples = VEK_SOURCE_DIR "/EXAMPLE/";
    const json run = RunLoad("http://any", {"--scenario", examples + "resource.json", "--unix", folder.Path("socket"),
                                            "-n", "200", "--users", "1", "-c", "2", "-t", "2", "--window", "20"});
    for (const json& step : run["steps"]) { EXPECT_EQ(200, step["answered"]) << step["name"]; }
    EXPECT_EQ(json({{"200", 400}, {"201", 200}, {"204", 200}}), run["total"]["status"]);
    EXPECT_TRUE(server.Stop(milliseconds(10000)));
    EXPECT_TRUE(items.empty());

    const auto& [key, certificate] = GetIdentity();
    const tls::Service sample(SERVER + " -p PORT -k " + key + " -r " + certificate);
    const json users = RunLoad(Url(sample.port, true),
                               {"--scenario", examples + "users.json", "-n", "100", "--users", "20", "--insecure"});
    EXPECT_EQ(20, users["steps"][1]["answered"]);
    EXPECT_EQ(80, users["steps"][3]["answered"]);
    const std::string slow =
        folder.Write("t.json", R"({"flows": [{"steps": [{"path": "/", "think": "1h"}, {"path": "/"}]}]})");
    const json end = RunLoad(Url(sample.port, true), {"--scenario", slow, "-D", "200ms", "--users", "2", "--insecure"});
    EXPECT_EQ(2, end["total"]["answered"]) << "whoever thinks is not waited for";
    const tls::Service full(SERVER + " -p PORT -u -m 3 -w 500");
    EXPECT_EQ(json({{"200", 2}, {"429", 1}}), RunLoad(Url(full.port), {"-n", "3", "-m", "3"})["total"]["status"]);
}

// A million flows in a second for an hour on 10,000 connections: each of these has one in each tick of the clock.
TEST(LoadSchedule, RunsThroughAnHourOnASimulatedClock) {
    constexpr int64_t CONNECTIONS = 10000, TICKS = 360000;
    const CVEKLoadSchedule schedule(INT64_MAX, {{1e6, 1e6, {}}}, std::chrono::hours(1), {});
    int64_t wrong = 0;
    for (int64_t tick = 0; tick < TICKS; ++tick) {
        const int64_t number = tick * CONNECTIONS + tick * 7919 % CONNECTIONS;  // of one that is looked at closely
        const auto due = schedule.GetDue(number), end = (tick + 1) * CVEKLoadSchedule::Duration(milliseconds(10));
        wrong += due.count() == number * 1000 && schedule.CountDue(end) == (tick + 1) * CONNECTIONS ? 0 : 1;
    }
    EXPECT_EQ(0, wrong);
    EXPECT_EQ(TICKS * CONNECTIONS, schedule.CountDue(schedule.GetLength()));
    // Each flow is one worker's, the one that has its connection, and it has them in order.
    for (const int64_t workers : {1, 2, 3, 16}) {
        for (int64_t index = 0; index < workers; ++index) {
            CVEKLoadTurn turn(CONNECTIONS, static_cast<size_t>(workers), static_cast<size_t>(index));
            for (int64_t number = 0; number < 3 * CONNECTIONS; ++number) {
                if (number % CONNECTIONS % workers != index) { continue; }
                ASSERT_EQ(number, turn.GetNumber());
                turn.Advance();
            }
        }
    }
}

TEST(LoadSchedule, KeepsWhatPhasesSay) {
    using Duration = CVEKLoadSchedule::Duration;
    using std::chrono::seconds;
    const CVEKLoadSchedule steps(50, {{0, 200, seconds(1)}, {200, 0, seconds(2)}}, {}, seconds(1));
    EXPECT_EQ(seconds(4), steps.GetLength());
    EXPECT_EQ(250, steps.GetCountInAll());
    EXPECT_EQ(500, steps.CountDue(Duration::max()));
    EXPECT_EQ(milliseconds(1500), steps.GetDue(225));
    EXPECT_EQ(450, steps.CountDue(seconds(3)));
    EXPECT_EQ(Duration::max(), steps.GetDue(500));
    for (int64_t number = 0; number < 499; ++number) {
        EXPECT_LT(steps.GetDue(number), steps.GetDue(number + 1));
        EXPECT_EQ(number + 1, steps.CountDue(steps.GetDue(number) + Duration(1)));
    }
    EXPECT_FALSE(CVEKLoadSchedule(5, {}, {}, {}).IsPaced());
}

// Several programs have all flows of one, each of them once, and at the same moments.
TEST(LoadSchedule, IsSharedWithoutGapOrOverlap) {
    using std::chrono::seconds;
    VEK_ST_LOAD_SCENARIO scenario;
    scenario.flows_ = {{"a", 3, {}}, {"b", 1, {}}, {"c", 8, {}}};
    const auto make = [](VEK_ST_LOAD_SHARE share) {
        return CVEKLoadSchedule(500, {{100, 300, seconds(2)}, {70, 70, {}}}, {}, seconds(1), share);
    };
    const CVEKLoadSchedule whole = make({});
    for (const int64_t of : {1, 2, 3, 7, 12, 1000}) {
        int64_t count = 0, due = 0, unpaced = 0;
        for (int64_t index = 0; index < of; ++index) {
            const VEK_ST_LOAD_SHARE share{index, of};
            const CVEKLoadSchedule part = make(share);
            count += part.GetCountInAll();
            unpaced += part.GetCount();
            due += part.CountDue(seconds(2));
            std::vector<uint64_t> kinds(3);
            for (int64_t own = 0; own < part.GetCountInAll(); ++own) {
                EXPECT_EQ(whole.GetDue(share.GetNumber(own)), part.GetDue(own));
                for (size_t kind = 0; kind < 3 && index < 20; ++kind) {
                    EXPECT_EQ(kinds[kind], scenario.CountOf(kind, share, static_cast<uint64_t>(own)));
                }
                ++kinds[scenario.Choose(static_cast<uint64_t>(share.GetNumber(own)))];
            }
        }
        EXPECT_EQ(whole.GetCountInAll(), count);
        EXPECT_EQ(500, unpaced);
        EXPECT_EQ(whole.CountDue(seconds(2)), due);
    }
}

TEST(Vekload, DrawsOnATerminalAlone) {
    const tls::Service clear("/usr/sbin/nghttpd --no-tls -d / PORT");
    const auto run = [&](const std::string& words) {
        return RunProgram({"script", "-qec", words + Url(clear.port), "/dev/null"}).output;
    };
    const std::string shown = run(PROGRAM + " -D 1s ");
    for (const char* part : {" left", "\033[3A\r\033[J", "\033[1mrequests\033[0m"}) {
        EXPECT_LE(1U, Count(shown, part)) << part;
    }
    for (const std::string& left : FindAll(shown, "([0-9:?]+) left")) { EXPECT_LE(left, "0:01") << shown; }
    EXPECT_EQ(0U, Count(run("NO_COLOR=1 " + PROGRAM + " -n 5 "), "\033["));
}

}  // namespace
