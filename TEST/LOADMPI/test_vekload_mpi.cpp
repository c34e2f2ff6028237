// vekload-mpi under mpirun, on this machine.
#include <csignal>
#include <mutex>
#include <set>

#include "CVEKHttpServer.h"
#include "LoadTest.h"
#include "TlsSupport.h"

namespace {

// Three ranks, as tests may run as root and on few cores; sanitizers leave MPI's own code alone.
tls::Words Ranks(const tls::Words& more) {
    return tls::Join({"env", "ASAN_OPTIONS=detect_leaks=0", "TSAN_OPTIONS=ignore_noninstrumented_modules=1", "mpirun",
                      "--allow-run-as-root", "--oversubscribe", "-np", "3"},
                     more);
}
tls::Words Load(const tls::Words& more) { return Ranks(tls::Join({VEK_BIN_DIR "/vekload-mpi"}, more)); }

// Counts what is asked for.
class RanksTest : public testing::Test {
  protected:
    RanksTest() {
        server_.SetHandler([this](VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder responder) {
            VEK_ST_HTTP_RESPONSE response;
            response.status_ = request.path_ == "/no" ? 404 : 200;
            responder.Send(std::move(response));
            const std::lock_guard<std::mutex> guard(mutex_);
            asked_.insert(request.path_ + request.body_.GetText());
        });
        VEK_ST_HTTP_LISTENER listener;
        listener.unixPath_ = folder_.Path("socket");
        EXPECT_FALSE(server_.Listen(listener));
    }
    ~RanksTest() override { server_.Stop(std::chrono::seconds(1)); }
    size_t CountAsked() {
        const std::lock_guard<std::mutex> guard(mutex_);
        return asked_.size();
    }
    tls::Words At(const tls::Words& more) { return tls::Join({"--unix", folder_.Path("socket"), "http://any/"}, more); }

    const TempDir folder_;
    std::mutex mutex_;
    std::multiset<std::string> asked_;
    CVEKEventLoops loops_{1};
    CVEKHttpServer server_{loops_};
};

json ReadRun(const Result& result) {
    EXPECT_EQ("", FindMisfit(result.output)) << result.error;
    return json::parse(result.output, nullptr, false);
}

TEST_F(RanksTest, SplitARunWithoutGapOrOverlap) {
    folder_.Write("rows.csv", "row\n0\n1\n2\n3\n4\n5\n6\n7\n8\n9\n");
    const std::string file = folder_.Write("s.json", R"({"variables": {"n": {"counter": {"start": 5}},
      "u": {"csv": "rows.csv"}}, "flows": [{"name": "f", "steps": [{"name": "one", "path": "/{{n}}-{{u.row}}"}]}]})");
    const Result scenario = RunProgram(Load(At({"--scenario", file, "-n", "100", "-c", "4", "--json", "-"})));
    EXPECT_EQ(0, scenario.status) << scenario.error;
    std::multiset<std::string> wanted;
    for (int i = 0; i < 10; ++i) { wanted.insert("/" + std::to_string(5 + i) + "-" + std::to_string(i)); }
    EXPECT_EQ(wanted, asked_);
    EXPECT_EQ(4U, ReadRun(scenario)["connections"]["slots"].size());

    asked_.clear();
    const Result urls = RunProgram(Load(At({"http://any/no", "--weights", "2,1", "--rate", "1000", "-n", "1000", "-d",
                                            "@-", "--per-rank", "--json", "-", "--requests", folder_.Path("lines"),
                                            "--warm-up", "100ms", "--fail-if", "errors > 40%"})),
                                   "text");
    EXPECT_EQ(0, urls.status) << urls.error;
    const json run = ReadRun(urls);
    EXPECT_EQ(1000, run["total"]["sent"]);
    EXPECT_NEAR(666, run["total"]["status"]["200"].get<int>(), 1);
    EXPECT_EQ(1100U, asked_.size());
    EXPECT_NEAR(366, static_cast<double>(asked_.count("/notext")), 1);
    EXPECT_EQ(run["runs"], 1);
    int rows = 0;
    size_t lines = 0;
    for (const json& row : run["ranks"]["rows"]) { rows += row["answered"].get<int>(); }
    for (const char* rank : {".0", ".1", ".2"}) { lines += Count(ReadAll(folder_.Path("lines") + rank), "\n") - 1; }
    EXPECT_EQ(1000, rows);
    EXPECT_EQ(1000U, lines);
    EXPECT_EQ(3, run["ranks"]["count"]);
    EXPECT_EQ(1U, Count(urls.error, "answers/s       p99       lag  host\n")) << urls.error;

    // The same by hand: parts that are merged.
    asked_.clear();
    tls::Words merge{VEK_BIN_DIR "/vekload", "merge", "--json", "-"};
    for (const char* part : {"0/3", "1/3", "2/3"}) {
        merge.push_back(folder_.Path(std::string("part") + part[0]));
        EXPECT_EQ(0, RunProgram(tls::Join({VEK_BIN_DIR "/vekload", "--part", part, "--json", merge.back()},
                                          At({"--users", "4", "-n", "100", "-c", "4"})))
                         .status);
    }
    EXPECT_EQ(100, ReadRun(RunProgram(merge))["total"]["answered"]);
    EXPECT_EQ(100U, asked_.size());
}

TEST_F(RanksTest, EndAsOne) {
    const struct {
        tls::Words arguments;
        int status;
        const char* error;
    } cases[] = {
        {At({"-D", "60s", "--rate", "300", "--abort-if", "status 4xx > 5", "-H", ":authority: a", "http://any/no"}), 1,
         "): ended by --abort-if 'status 4xx > 5': status 4xx = "},
        {{"http://any/", "--unix", "/gone"}, 3, "vekload: rank 0 ("},
        {At({"--users", "2"}), 2, " and 2 more: --users has to be 3 at least"},
        {{"--nonsense"}, 2, "vekload-mpi --help tells more\n"},
        {At({"--part", "0/2"}), 2, "--part"},
    };
    for (const auto& test : cases) {
        const Result result = RunProgram(Load(test.arguments));
        EXPECT_EQ(test.status, result.status) << result.error;
        EXPECT_EQ(1U, Count(result.error, test.error)) << test.error << " is not once in: " << result.error;
    }
}

// What ends the job from outside, rank 2 or all of it.
TEST_F(RanksTest, SurviveNoDeathAndTellOfIt) {
    const struct {
        int signal;
        bool isRank;
        const char *warmUp, *output, *error;
    } cases[] = {{SIGKILL, true, "1ms", "", "vekload: no sign of life from rank 2 ("},
                 {SIGSTOP, true, "1ms", "", "vekload: rank 2 ("},
                 {SIGTERM, false, "600s", " 0 not sent", ""},
                 {SIGUSR1, false, "1ms", "ended by a signal", ""}};
    for (const auto& test : cases) {
        asked_.clear();
        const std::string file = folder_.Path("process");
        const std::string start = "[ $OMPI_COMM_WORLD_RANK -ne 2 ] || echo $$ >" + file + "; exec \"$@\"";
        Process job(Ranks(tls::Join({"sh", "-c", start, "sh", VEK_BIN_DIR "/vekload-mpi"},
                                    At({"-D", "600s", "--rate", "100", "-c", "3", "--warm-up", test.warmUp}))));
        EXPECT_TRUE(Eventually([&] { return CountAsked() > 20; }));
        if (test.isRank) {
            kill(stoi(ReadAll(file)), test.signal);
        } else {
            job.Signal(test.signal);
        }
        EXPECT_EQ(test.signal == SIGUSR1, job.Wait() == 0);
        EXPECT_LE(1U, Count(job.Output(), test.output)) << job.Output();
        EXPECT_LE(1U, Count(job.Error(), test.error)) << job.Error();
    }
}

}  // namespace
