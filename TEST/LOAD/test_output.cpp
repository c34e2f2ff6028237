// What people and their programs read of a run: summary, CSV, requests file, report.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <thread>

#include "CVEKLoadRequestLog.h"
#include "CVEKLoadScreen.h"
#include "LoadTest.h"
#include "VEKLoadPage.h"
#include "VEKLoadText.h"

namespace {

TEST(LoadText, TellsEverything) {
    VEK_ST_LOAD_SUMMARY run = MakeRun(1);
    run.lagNs_ = 50'000'000;
    run.endedBy_ = "abort";
    run.verdicts_ = {{"p99 > 50ms", "p99 = 119.013 ms", false}, {"errors > 90%", "errors = 3%", true}};
    const std::string plain = VEK_LOAD_WRITE_TEXT(run, false);
    EXPECT_EQ(plain, ReadAll(VEK_SOURCE_DIR "/TEST/LOAD/summary.txt"));
    const std::string coloured = VEK_LOAD_WRITE_TEXT(run, true);
    std::string stripped = coloured;
    for (size_t at = 0; (at = stripped.find('\033')) != std::string::npos;) {
        stripped.erase(at, stripped.find('m', at) + 1 - at);
    }
    EXPECT_EQ(plain, stripped);
    for (const char* part : {"\033[1mtime\033[0m ", "\033[31mFAILED\033[0m ", "\033[32mpassed\033[0m "}) {
        EXPECT_EQ(1U, Count(coloured, part)) << part;
    }
    // Nothing was answered, and nobody has more to tell.
    run = {};
    run.steps_.resize(1);
    run.connections_.slots_.resize(1);
    EXPECT_EQ(VEK_LOAD_WRITE_TEXT(run, false), R"(requests     0 sent, 0 answered, 0 timed out, 0 failed, 0 not sent
time         0.000 s, 0.0 answers/s
bodies       0 bytes sent, 0 received
on the wire  0 bytes sent, 0 received
connections  1, opened 0 times, 0 with an old TLS session, 0 attempts failed
)");
    const std::pair<double, const char*> times[] = {{0, "0 ns"},         {999, "999 ns"},      {999.6, "1.00 us"},
                                                    {1e6, "1.00 ms"},    {99.94e6, "99.9 ms"}, {99.96e6, "100 ms"},
                                                    {999.6e6, "1.00 s"}, {36e11, "3600 s"}};
    for (const auto& [ns, wanted] : times) { EXPECT_EQ(wanted, VEK_LOAD_FORMAT_NS(ns)); }
}

TEST(LoadText, WritesSecondsAsCsv) {
    EXPECT_EQ(
        "second,sent,answered,errors,in_flight,min_ms,p50_ms,p75_ms,p90_ms,p95_ms,p99_ms,p99.9_ms,p99.99_ms,max_ms\n",
        VEK_LOAD_CSV_HEAD());
    EXPECT_EQ("3,505,500,10,1,20.200,70.058,95.027,110.035,115.016,119.013,120.000,120.000,120.000\n",
              VEK_LOAD_CSV_LINE(3, MakeRun(1).seconds_[0]));
    EXPECT_EQ("0,0,0,0,0,,,,,,,,,\n", VEK_LOAD_CSV_LINE(0, {}));
    EXPECT_EQ("\"a,\"\"b\"\"\"", VEK_LOAD_CSV_TEXT("a,\"b\""));
}

TEST(LoadScreen, FitsItsTerminal) {
    const VEK_ST_LOAD_SUMMARY run = MakeRun(1);
    using Lines = std::vector<std::string>;
    EXPECT_EQ((Lines{"[##############################..............................]  50 %  2:05 left",
                     "1000 answered, 500/s now, 500/s in all, 30 errors",
                     "latency  p50 70.1 ms  p75 95.0 ms  p90 110 ms  p95 115 ms  p99 119 ms  p99.9 120 ms"}),
              CVEKLoadScreen::MakeLines(run, 0.5, 125, 90));
    EXPECT_EQ(Lines{" 50% 500/s p99 119 ms err 30 1:00 left"}, CVEKLoadScreen::MakeLines(run, 0.5, 60, 79));
    EXPECT_EQ("###] 200 %  ? left", CVEKLoadScreen::MakeLines({}, 2, 1.1e6, 80)[0].substr(48));
    for (const size_t width : {2U, 60U, 80U}) {
        const Lines lines = CVEKLoadScreen::MakeLines(run, 0.5, 125, width);
        EXPECT_EQ(width < 80 ? 1U : 3U, lines.size());
        for (const std::string& line : lines) { EXPECT_GT(width, line.size()) << line; }
    }
}

TEST(LoadRequestLog, WritesFromAllThreadsAndCountsWhatItCannot) {
    const TempDir folder;
    std::string error;
    CVEKLoadRequestLog none({"a"});
    EXPECT_FALSE(none.Open(folder.Path("no/file"), error));
    EXPECT_EQ(folder.Path("no/file") + ": No such file or directory", error);
    CVEKLoadRequestLog log({"GET /", "a,b"}, 1000);
    ASSERT_TRUE(log.Open(folder.Path("lines"), error));
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&log] {
            for (uint64_t i = 0; i < 20000; ++i) { log.Add({1, 2500000, 1000, 500, 200, 7, 9, ""}); }
        });
    }
    for (std::thread& thread : threads) { thread.join(); }
    const uint64_t lost = log.Close();
    const std::string text = ReadAll(folder.Path("lines"));
    EXPECT_EQ(80000 - lost, Count(text, "\"a,b\",2.500,0.001,0.001,200,7,9,\n") +
                                Count(text, "\"a,b\",2.500,0.001,0.000,200,7,9,\n"));
    EXPECT_EQ(80001 - lost, Count(text, "\n"));
    CVEKLoadRequestLog full({"a"});
    const FullDisk disk(100);
    ASSERT_TRUE(full.Open(folder.Path("full"), error));
    full.Add({});
    for (int i = 0; i < 10; ++i) { full.Add({}); }
    const uint64_t missing = full.Close();
    EXPECT_LE(1U, missing);
    const std::string rest = ReadAll(folder.Path("full"));
    EXPECT_EQ(12 - missing, Count(rest, "\n")) << "a head and lines, and no torn one: " << rest;
    EXPECT_EQ('\n', rest.back());
}

TEST(LoadRequestLog, DoesNotWaitForAPipesReaderForGood) {
    const TempDir folder;
    std::string error, text(1 << 20, 0);
    ASSERT_EQ(0, mkfifo(folder.Path("pipe").c_str(), 0600));
    const int reader = open(folder.Path("pipe").c_str(), O_RDONLY | O_NONBLOCK);
    CVEKLoadRequestLog log({"a"});
    ASSERT_TRUE(log.Open(folder.Path("pipe"), error));
    for (int i = 0; i < 50000; ++i) { log.Add({}); }
    const uint64_t missing = log.Close();
    text.resize(static_cast<size_t>(std::max<ssize_t>(read(reader, text.data(), text.size()), 0)));
    EXPECT_EQ(50001 - missing, Count(text, "\n"));
    close(reader);
}

TEST(LoadReport, HoldsItsDataAndLibrary) {
    VEK_ST_LOAD_SUMMARY run = MakeRun(1);
    run.steps_[0].name_ = "</script><script>alert(1)</script>@RUN@&amp;";
    const std::string page = VEK_LOAD_WRITE_PAGE(run);
    EXPECT_EQ(3U, Count(page, "<script>"));
    EXPECT_EQ(3U, Count(page, "</script>"));
    EXPECT_EQ(1U, Count(page, "  &lt;/script&gt;&lt;script&gt;alert(1)&lt;/script&gt;@RUN@&amp;amp;\n"));
    EXPECT_EQ(0U, Count(page, "src="));
    EXPECT_LT(0U, Count(page, "Permission is hereby granted"));
    const auto part = [&page](const std::string& begin, const std::string& end) {
        const size_t at = page.find(begin) + begin.size();
        return page.substr(at, page.find(end, at) - at);
    };
    EXPECT_EQ("", FindMisfit(part("const run = ", ";\nconst curves")));
    const json curves = json::parse(part("const curves = ", ";\n</script>"));
    EXPECT_EQ(20.2, std::round(curves["curve"][0][1].get<double>() * 10) / 10);
    EXPECT_NEAR(1, curves["curve"][20][0], 1e-9);
    EXPECT_NEAR(110, curves["curve"][20][1], 0.11);
    EXPECT_NEAR(27.5, curves["service"][20][1], 0.03);
    EXPECT_NEAR(60, curves["curve"].size(), 1) << "up to the one in a thousand";
    size_t count = 0;
    for (const json& bar : curves["bars"]) { count += bar[1].get<size_t>(); }
    EXPECT_EQ(1000U, count);
    EXPECT_EQ(json({"20.2 ms", 2}), curves["bars"][0]);
    EXPECT_EQ(json({"22.7 ms", 24}), curves["bars"][1]);  // a twentieth of a power of ten further
    EXPECT_NE(std::string::npos, VEK_LOAD_WRITE_PAGE({}).find("\"bars\":[]"));
}

}  // namespace
