// test_http2_client_async as its user sees it, with real peers and with ones that misbehave, and the
// histogram that it counts latencies in.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <functional>
#include <future>
#include <nlohmann/json.hpp>
#include <random>
#include <thread>

#include "CVEKLoadHistogram.h"
#include "RawPeer.h"
#include "TestSupport.h"
#include "TlsSupport.h"

namespace {

using nlohmann::json;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

const std::string PROGRAM = VEK_BIN_DIR "/test_http2_client_async";
const std::string SERVER = VEK_BIN_DIR "/test_http2_server";

tls::Words Command(int port, const tls::Words& more) {
    return tls::Join({PROGRAM, "-h", "127.0.0.1", "-p", std::to_string(port), "-s"}, more);
}

// Of a sample server.
std::string PortOf(Process& server) { return FindAll(server.ReadUntil("listening on port"), "on port ([0-9]+)").at(0); }

// Checks what holds for every run, and returns the summary.
json ReadSummary(const Result& result) {
    json summary = json::parse(result.output, nullptr, false);
    EXPECT_TRUE(summary.is_object()) << result.output << result.error;
    if (!summary.is_object()) { return json::object({{"answered", -1}}); }
    EXPECT_EQ(summary["sent"].get<int>(),
              summary["answered"].get<int>() + summary["timed_out"].get<int>() + summary["failed"].get<int>())
        << summary;
    int failed = 0;
    for (const auto& cause : summary["failures"]) { failed += cause.get<int>(); }
    EXPECT_EQ(summary["failed"], failed) << summary;
    EXPECT_EQ(summary["answered"], summary["latency_ms"]["count"]) << summary;
    const bool isWhole = summary["answered"] == summary["sent"] && summary["not_sent"] == 0;
    EXPECT_EQ(isWhole ? 0 : 1, result.status) << summary;
    EXPECT_EQ(0U, Count(result.error, "\r")) << "a progress line, and no terminal";
    return summary;
}

json RunLoad(int port, const tls::Words& more) {
    return ReadSummary(RunProgram(tls::Join(Command(port, more), {"-j"})));
}

TEST(AsyncProgram, RejectsBadArguments) {
    const struct {
        tls::Words arguments;
        const char* error;
    } cases[] = {
        {{"-h", "127.0.0.1"}, "-h and -p are needed\n"},
        {{"-p", "0", "-h", "a"}, "-p: \"0\" is not a number from 1 to 65535\n"},
        {{"-h", "a", "-p", "1", "-u", "-d"}, "either -u or -d\n"},
        {{"-h", "a", "-p", "1", "-m", "10x"}, "-m: \"10x\" is not a number from 1 to 10000\n"},
        {{"-h", "a", "-p", "1", "-r", "nan"}, "-r: \"nan\" is not a number"},
        {{"-h", "a", "-p", "1", "-t", "0"}, "-t: \"0\" is not a number"},
        {{"-h", "a", "-p", "1", "-a", "test"}, "begins with a slash"},
        {{"-h", "a", "-p", "1", "-a", "/" + std::string(511, 'x')}, "up to 511 characters"},
        {{"-h", "a", "-p", "1", "-m", "10000", "-n", "1000"}, "too much memory\n"},
        {{"-h", "a", "-p", "1", "stray"}, "an argument belongs to no option\n"},
        {{"-h", "a", "-p", "1", "--insecure", "--tls12"}, "either --cacert, --insecure or --tls12\n"},
        {{"-h", "a", "-p", "1", "--cacert", "file", "-d"}, "--cacert, --insecure and --tls12 are for TLS\n"},
    };
    for (const auto& test : cases) {
        const Result result = RunProgram(tls::Join({PROGRAM}, test.arguments));
        EXPECT_EQ(2, result.status);
        EXPECT_EQ("", result.output);
        EXPECT_EQ(1U, Count(result.error, test.error)) << result.error;
    }
    const Result result = RunProgram(Command(FreePort(), {}));
    EXPECT_EQ(1, result.status);
    EXPECT_EQ(1U, Count(result.error, "cannot connect to 127.0.0.1 port "));
}

TEST(AsyncProgram, CountsEveryAnswerOfRealServers) {
    tls::Folder().Write("files/test/test", std::string(4096, 'x'));
    const auto& [key, certificate] = GetIdentity();
    const tls::Service nghttpd("/usr/sbin/nghttpd -d %/files PORT " + key + " " + certificate);
    const tls::Service clear("/usr/sbin/nghttpd --no-tls -d %/files PORT");
    const tls::Service proxy("/usr/sbin/nghttpx --conf=/dev/null --workers=1 --log-level=FATAL " +
                             ("-f127.0.0.1,PORT;no-tls -b127.0.0.1," + std::to_string(clear.port) + ";;proto=h2"));
    Process sampleTls({SERVER, "-p", "0", "-m", "101", "-k", key, "-r", certificate});
    Process sampleClear({SERVER, "-p", "0", "-m", "101", "-u"});
    const struct {
        int port;
        tls::Words arguments;
    } cases[] = {
        {nghttpd.port, {"--cacert", certificate}},
        {clear.port, {"-d"}},
        {proxy.port, {"-u"}},
        {stoi(PortOf(sampleTls)), {"--insecure"}},
        {stoi(PortOf(sampleClear)), {"-u"}},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.port);
        const json summary = RunLoad(test.port, tls::Join(test.arguments, {"-c", "1000", "-n", "3"}));
        EXPECT_EQ(1000, summary["answered"]);
        EXPECT_EQ(1000, summary["status"]["2xx"]);
        EXPECT_EQ(1000 * 4096, summary["body_bytes_received"]);
    }
    // The chart's rows hold every response.
    const Result text = RunProgram(Command(nghttpd.port, {"-c", "500", "--tls12"}));
    int charted = 0;
    for (const std::string& row : FindAll(text.output, " ms +[0-9.]+ % +([0-9]+) \\|")) { charted += std::stoi(row); }
    EXPECT_EQ(500, charted) << text.output;
    const std::string inTerminal = PROGRAM + " -h 127.0.0.1 -s -t 0.7 --insecure -p " + std::to_string(nghttpd.port);
    const Result terminal = RunProgram({"script", "-qec", inTerminal, "/dev/null"});
    EXPECT_LE(1U, Count(terminal.output, " requests/s, 0 errors, ")) << terminal.output;
}

TEST(AsyncProgram, VerifiesItsServer) {
    const Identity& identity = GetIdentity();
    Process server({SERVER, "-p", "0", "-m", "101", "-k", identity.key, "-r", identity.certificate});
    Process strict(
        {SERVER, "-p", "0", "-k", identity.key, "-r", identity.certificate, "--demand-client", identity.certificate});
    const std::string port = PortOf(server), strictPort = PortOf(strict);
    const std::string notVerified =
        "--insecure: not verified: certificate [CN=localhost] of [CN=localhost], valid until [";
    const struct {
        tls::Words arguments;
        bool isAnswered;
        std::string error;
    } cases[] = {
        {{port, "-h", "127.0.0.1"}, false, "port " + port + ": peer certificate refused: self-signed certificate\n"},
        {{port, "-h", "localhost", "--cacert", identity.certificate}, true, ""},
        {{port, "-h", "127.0.0.2", "--cacert", identity.certificate}, false, "mismatch (wanted 127.0.0.2)\n"},
        {{port, "-h", "127.0.0.2", "--insecure", "-n", "3"}, true, notVerified},
        {{port, "-h", "127.0.0.2", "--tls12"}, true, ""},
        {{port, "-h", "127.0.0.1", "--cacert", "/none"}, false, "CA file /none: No such file or directory\n"},
        {{strictPort, "-h", "127.0.0.1", "--insecure"}, false, "lost: peer refused: alert \"certificate required\""},
    };
    for (const auto& test : cases) {
        const Result result = RunProgram(tls::Join({PROGRAM, "-s", "-c", "9", "-p"}, test.arguments));
        EXPECT_EQ(test.isAnswered ? 0 : 1, result.status);
        EXPECT_EQ(test.isAnswered, Count(result.output, " 9 answered, ") == 1) << result.output << result.error;
        EXPECT_EQ(test.error.empty() ? 0U : 1U, Count(result.error, test.error.empty() ? "\n" : test.error))
            << result.error;
    }
}

// A capture of a TLS connection, opened with the secrets that the program has left in a file.
TEST(AsyncProgram, KeyLogOpensACapture) {
    const Identity& identity = GetIdentity();
    const TempDir folder;
    Process server({SERVER, "-p", "0", "-k", identity.key, "-r", identity.certificate});
    const std::string port = PortOf(server);
    const std::string file = folder.Path("capture"), keys = folder.Path("keys");
    Process capture({"sh", "-c", "exec dumpcap -q -i lo -a duration:60 -f 'port " + port + "' -w " + file + " 2>&1"});
    ASSERT_EQ(1U, Count(capture.ReadUntil("File: "), "File: ")) << capture.Output();  // it is under way
    const Result run = RunProgram({"env", "SSLKEYLOGFILE=" + keys, PROGRAM, "-h", "localhost", "-p", port, "-s", "-c",
                                   "5", "--cacert", identity.certificate});
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

// What becomes of ten requests that are in flight at once.
TEST(AsyncProgram, AccountsForMisbehavingPeers) {
    const auto answerThree = [](RawPeer& peer) {
        for (int i = 0; i < 3; ++i) { peer.Answer(peer.ReadRequest(), "body"); }
    };
    const struct {
        const char* name;
        std::function<void(RawPeer&)> script;
        const char* cause;  // of the failures behind the three answers, null when there are timeouts
    } cases[] = {
        {"dies", answerThree, "connection lost"},
        {"GOAWAY",
         [&](RawPeer& peer) {
             answerThree(peer);
             std::this_thread::sleep_for(milliseconds(200));
             peer.Send(MakeGoaway(5, NGHTTP2_NO_ERROR));
             peer.ReadUntil(-1);
         },
         "connection closed by peer (GOAWAY)"},
        {"resets",
         [&](RawPeer& peer) {
             answerThree(peer);
             for (int i = 0; i < 7; ++i) { peer.Send(MakeReset(peer.ReadRequest(), NGHTTP2_REFUSED_STREAM)); }
             peer.ReadUntil(-1);
         },
         "stream reset by peer: REFUSED_STREAM"},
        {"stalls", [&](RawPeer& peer) { answerThree(peer), peer.ReadUntil(-1); }, nullptr},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.name);
        const RawPeer peer(test.script);
        const json summary = RunLoad(peer.Port(), {"-d", "-c", "10", "-b", "100"});
        EXPECT_EQ(10, summary["sent"]);
        EXPECT_EQ(3, summary["answered"]);
        EXPECT_EQ(test.cause == nullptr ? 7 : 0, summary["timed_out"]);
        EXPECT_EQ(test.cause == nullptr ? json::object() : json::object({{test.cause, 7}}), summary["failures"]);
    }
}

TEST(AsyncProgram, InterruptEndsTheRunWithItsSummary) {
    std::promise<void> isFull;
    const RawPeer peer([&](RawPeer& self) {
        for (int i = 0; i < 3; ++i) { self.ReadRequest(); }
        isFull.set_value();
        self.ReadUntil(-1);
    });
    Process client(Command(peer.Port(), {"-d", "-t", "60", "-m", "3", "-j"}));
    isFull.get_future().wait();
    client.Signal(SIGINT);
    const int status = client.Wait();
    const json summary = ReadSummary({status, client.Output(), client.Error()});
    EXPECT_EQ(json::object({{"not answered before the end", 3}}), summary["failures"]);
}

// A server that stalls at first must not hide how long the requests behind have waited.
TEST(AsyncProgram, LatencyCountsFromTheSchedule) {
    static constexpr int STALL_MS = 400;
    const RawPeer peer([](RawPeer& self) {
        const int first = self.ReadRequest();
        std::this_thread::sleep_for(milliseconds(STALL_MS));
        self.Answer(first, "late");
        for (int stream = self.ReadRequest(); stream != 0; stream = self.ReadRequest()) { self.Answer(stream, ""); }
    });
    const json summary = RunLoad(peer.Port(), {"-d", "-m", "1", "-r", "100", "-c", "20", "-b", "10"});
    EXPECT_EQ(20, summary["answered"]);
    EXPECT_GE(summary["latency_ms"]["min"].get<double>(), STALL_MS - 200);  // the last was due after 190 ms
}

TEST(LoadHistogram, AgreesWithSortedValuesWithinItsPrecision) {
    constexpr double PRECISION = 0.008;
    std::mt19937_64 random(1);
    std::uniform_real_distribution<double> exponent(0, 40);
    CVEKLoadHistogram halves[2];
    std::vector<double> values;
    double sum = 0;
    for (int i = 0; i < 20000; ++i) {
        const auto value = static_cast<int64_t>(std::exp2(exponent(random)));
        halves[i % 2].Record(nanoseconds(value));
        values.push_back(static_cast<double>(value));
        sum += static_cast<double>(value);
    }
    CVEKLoadHistogram& all = halves[0];
    all.Add(halves[1]);
    std::sort(values.begin(), values.end());
    EXPECT_EQ(values.size(), all.GetCount());
    EXPECT_EQ(values.front(), static_cast<double>(all.GetMin().count()));
    EXPECT_EQ(values.back(), static_cast<double>(all.GetMax().count()));
    EXPECT_NEAR(sum / 20000, static_cast<double>(all.GetMean().count()), 1);
    for (const double percent : {0.1, 1.0, 25.0, 50.0, 90.0, 99.0, 99.9, 100.0}) {
        const double exact = values[static_cast<size_t>(std::ceil(percent / 100 * 20000)) - 1];
        const auto found = static_cast<double>(all.GetPercentile(percent).count());
        EXPECT_GE(found, exact) << percent;
        EXPECT_LE(found, exact * (1 + PRECISION) + 1) << percent;
    }
    const auto below = std::lower_bound(values.begin(), values.end(), 1048576.0) - values.begin();
    EXPECT_EQ(below, static_cast<std::ptrdiff_t>(all.CountBelow(nanoseconds(1048576))));
}

}  // namespace
