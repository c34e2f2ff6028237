// What people and their programs read of a run: summary, CSV, requests file, report.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "CVEKLoadRequestLog.h"
#include "LoadTest.h"
#include "VEKLoadPage.h"
#include "VEKLoadText.h"

namespace {

TEST(LoadText, TellsEverything) {
    VEK_ST_LOAD_SUMMARY run = MakeRun(1);
    run.lagNs_ = 50'000'000;
    run.unwritten_ = 7;
    run.endedBy_ = "abort";
    run.steps_[1].name_ = "POST \033[2J/b";
    run.verdicts_ = {{"p99 > 50ms", "p99 = 99.100 ms", false}, {"errors > 90%", "errors = 3%", true}};
    const std::string text = VEK_LOAD_WRITE_TEXT(run, false);
    for (const char* part :
         {"1010 sent, 1000 answered, 6 timed out, 4 failed, 2 not sent\n", "ended early by --abort-if\n",
          "200: 900, 302: 80, 429: 12, 503: 8\n", "1xx          2 before the answers\n",
          "failed       2 connection lost\n", "unexpected   100 status is 200\n", "2002 bytes sent, 4000 received\n",
          "9000 bytes sent, 8000 received\n",
          "2, opened 2 times, 1 with an old TLS session, 1 attempts failed\n             TCP ",
          "answers on each: 0 to 3\n", "505       500        15", "POST ?[2J/b\n",
          "FAILED  p99 > 50ms: p99 = 99.100 ms\n", "passed  errors > 90%", "7 lines are missing",
          "late by up to 50.0 ms"}) {
        EXPECT_EQ(1U, Count(text, part) > 0) << part << "\n" << text;
    }
    EXPECT_EQ(0U, Count(text, "\033"));
    EXPECT_LT(0U, Count(VEK_LOAD_WRITE_TEXT(run, true), "\033[31mFAILED\033[0m"));
    EXPECT_EQ(0U, Count(VEK_LOAD_WRITE_TEXT({}, false), "latency"));  // nothing was answered
    const std::pair<double, const char*> times[] = {{0, "0 ns"},         {999, "999 ns"},      {999.6, "1.00 us"},
                                                    {1e6, "1.00 ms"},    {99.94e6, "99.9 ms"}, {99.96e6, "100 ms"},
                                                    {999.6e6, "1.00 s"}, {36e11, "3600 s"}};
    for (const auto& [ns, wanted] : times) { EXPECT_EQ(wanted, VEK_LOAD_FORMAT_NS(ns)); }
}

TEST(LoadText, WritesSecondsAsCsv) {
    const size_t columns = Count(VEK_LOAD_CSV_HEAD(), ",");
    const std::string line = VEK_LOAD_CSV_LINE(3, MakeRun(5).seconds_[0]);
    EXPECT_EQ(0U, line.find("3,505,500,10,5,"));
    EXPECT_EQ(columns, Count(line, ","));
    EXPECT_EQ("0,0,0,0,0,,,,,,,,,\n", VEK_LOAD_CSV_LINE(0, {}));
    EXPECT_EQ("\"a,\"\"b\"\"\"", VEK_LOAD_CSV_TEXT("a,\"b\""));
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
    run.steps_[0].name_ = "</script><script>alert(1)</script>@RUN@";
    const std::string page = VEK_LOAD_WRITE_PAGE(run);
    EXPECT_EQ(3U, Count(page, "<script>"));
    EXPECT_EQ(3U, Count(page, "</script>"));
    EXPECT_EQ(0U, Count(page, "src="));
    EXPECT_LT(0U, Count(page, "Permission is hereby granted"));
    EXPECT_EQ(0U, Count(page, "@SUMMARY@"));
    const size_t begin = page.find("const run = ") + 12;
    EXPECT_EQ("", FindMisfit(page.substr(begin, page.find(";\nconst curves") - begin)));
    EXPECT_NE(std::string::npos, VEK_LOAD_WRITE_PAGE({}).find("\"bars\":[]"));
}

}  // namespace
