// What is written of a run: JSON and its schema, merging, thresholds.
#include <algorithm>
#include <set>

#include "CVEKLoadTerm.h"
#include "LoadTest.h"

namespace {

TEST(LoadResult, ComesBackFromItsJson) {
    VEK_ST_LOAD_SUMMARY run = MakeRun(1);
    run.verdicts_ = {{"p99 > 50ms", "p99 = 119.013 ms", false}, {"errors > 90%", "errors = 3%", true}};
    const std::string text = VEK_LOAD_WRITE_JSON(run);
    EXPECT_EQ("", FindMisfit(text));
    VEK_ST_LOAD_SUMMARY back;
    std::string error;
    ASSERT_TRUE(VEK_LOAD_READ_JSON(text, back, error)) << error;
    EXPECT_EQ(text, VEK_LOAD_WRITE_JSON(back));
    EXPECT_TRUE(back.total_.latency_ == run.total_.latency_);
    // What is told though it follows from the rest.
    const json told = json::parse(text).flatten();
    for (const auto& [pointer, value] :
         std::vector<std::pair<const char*, json>>{{"/started", "2023-11-14T22:13:20Z"},
                                                   {"/rate", 500.0},
                                                   {"/bottleneck", false},
                                                   {"/total/errors", 30},
                                                   {"/total/expectations_failed", 100},
                                                   {"/total/latency/mean_ns", 70'100'000.0},
                                                   {"/total/latency/sd_ns", 28'867'456.0},
                                                   {"/total/latency/p50_ns", 70'057'983},
                                                   {"/total/latency/p99.9_ns", 120'000'000},
                                                   {"/connections/slots/0/mean_ns", 0},
                                                   {"/connections/slots/1/mean_ns", 5},
                                                   {"/ranks/rows/0/rate", 250.0}}) {
        EXPECT_EQ(value, told[pointer]) << pointer;
    }
    EXPECT_EQ(true, json::parse(VEK_LOAD_WRITE_JSON(MakeRun(2)))["bottleneck"]);
}

TEST(LoadResult, MergesExactly) {
    const auto write = [](const VEK_ST_LOAD_SUMMARY& run) { return json::parse(VEK_LOAD_WRITE_JSON(run)); };
    const VEK_ST_LOAD_SUMMARY runs[] = {MakeRun(1), MakeRun(2), MakeRun(3)};
    VEK_ST_LOAD_SUMMARY left = runs[0], right = runs[1], other = runs[0];
    left.Add(runs[1]);
    json one = write(runs[0]), two = write(runs[1]), both = write(left);
    for (const char* pointer : {"/commands", "/connections/slots", "/ranks/rows"}) {
        const json::json_pointer list(pointer);
        for (const json& item : two[list]) { one[list].push_back(item); }
        EXPECT_EQ(one[list], both[list]);
        one[list] = two[list] = both[list] = nullptr;
    }
    for (json* each : {&one, &two, &both}) { *each = each->flatten(); }
    // Of the sum every count is the sum of both, but for these; and ranks keep the longest of their times.
    const std::set<std::string> least{"started_ms", "min_ns"}, most{"length_ns", "lag_ns", "max_ns"};
    const char* derived = "/((p[0-9.]+|mean|sd)_ns|rate|seed)$";
    for (const auto& [pointer, value] : both.items()) {
        const std::string name = pointer.substr(pointer.rfind('/') + 1);
        if (!value.is_number() || !FindAll(pointer, derived).empty()) { continue; }
        const auto a = one[pointer].get<int64_t>(), b = two[pointer].get<int64_t>();
        const bool isMost = most.count(name) > 0 || (pointer.rfind("/ranks", 0) == 0 && name != "count");
        EXPECT_EQ(least.count(name) > 0 ? std::min(a, b) : isMost ? std::max(a, b) : a + b, value) << pointer;
    }
    left.Add(runs[2]);
    right.Add(runs[2]);
    other.Add(right);
    EXPECT_EQ(write(left), write(other));
    EXPECT_EQ("", FindMisfit(VEK_LOAD_WRITE_JSON(left)));
    CVEKLoadHistogram second;
    ASSERT_TRUE(left.seconds_[0].latency_.Unpack(second));
    EXPECT_TRUE(second == left.steps_[0].counts_.latency_);
    // Steps are found by their names, those of one name by their places, and a longer series goes on.
    left.steps_[1].name_ = left.steps_[0].name_;
    left.endedBy_ = "duration";
    left.seconds_.resize(5);
    other.steps_.erase(other.steps_.begin());
    other.Add(left);
    EXPECT_EQ(other.steps_.size(), 2U);
    EXPECT_EQ(other.steps_[0].counts_.sent_ * 2, other.steps_[1].counts_.sent_);
    EXPECT_EQ(std::to_string(other.seconds_.size()) + other.endedBy_, "5several");
}

TEST(LoadResult, RefusesJsonOfOthers) {
    const json good = json::parse(VEK_LOAD_WRITE_JSON(MakeRun(1)));
    const std::pair<const char*, const char*> cases[] = {
        {R"([{"op":"replace","path":"/schema","value":"vekload/2"}])", R"(/schema: expected "vekload/1")"},
        {R"([{"op":"remove","path":"/total"}])", R"(the document: expected a member "total")"},
        {R"([{"op":"replace","path":"/total/sent","value":-1}])", "/total/sent: expected an integer from 0 to 900"},
        {R"([{"op":"replace","path":"/total/sent","value":18446744073709551615}])", "/total/sent: expected an integer"},
        {R"([{"op":"replace","path":"/total/sent","value":1009}])", "/total: expected sent to be the sum of answered"},
        {R"([{"op":"replace","path":"/total/status/200","value":901}])", "/total: expected as many statuses and times"},
        {R"([{"op":"add","path":"/total/causes/x","value":1}])", "/total: expected causes and expectations to be"},
        {R"([{"op":"replace","path":"/total/expectations_failed","value":1}])", "/total: expected causes and expec"},
        {R"([{"op":"remove","path":"/steps/1"}])", "/steps: expected parts that add up to the total"},
        {R"([{"op":"replace","path":"/series/0/sent","value":1}])", "/series: expected parts that add up"},
        {R"([{"op":"replace","path":"/total/latency/squares_ns2","value":"1"}])", "/total/latency: expected a histog"},
        {R"([{"op":"replace","path":"/steps/1/latency/count","value":1}])", "/steps/1/latency: expected a histogram"},
        {R"([{"op":"replace","path":"/series","value":{}}])", "/series: expected an array"},
        {R"([{"op":"add","path":"/total/status/2~1x","value":1}])", "/total/status/2~1x: expected a status"},
        {R"([{"op":"replace","path":"/total/causes","value":[]}])", "/total/causes: expected an object"},
        {R"([{"op":"replace","path":"/commands/0","value":1}])", "/commands/0: expected a text"},
    };
    VEK_ST_LOAD_SUMMARY run;
    std::string error;
    for (const auto& [patch, wanted] : cases) {
        EXPECT_FALSE(VEK_LOAD_READ_JSON(good.patch(json::parse(patch)).dump(), run, error));
        EXPECT_EQ(0U, error.find(wanted)) << error;
    }
    EXPECT_FALSE(VEK_LOAD_READ_JSON("{\n \"schema\": x}", run, error));
    EXPECT_EQ(0U, error.find("line 2, column 12: syntax error")) << error;
    EXPECT_FALSE(VEK_LOAD_READ_JSON(R"({"a":{"b":1,"c":2},"b":[{"b":1},{"b":1}],"b":3})", run, error));
    EXPECT_EQ("line 1, column 44: an object has the member \"b\" twice", error);
    EXPECT_FALSE(VEK_LOAD_READ_JSON(std::string(100000, '['), run, error));
    EXPECT_FALSE(VEK_LOAD_READ_JSON("", run, error));
}

TEST(LoadTerm, ComparesFiguresOrSaysWhatIsWrong) {
    VEK_ST_LOAD_SUMMARY run;
    for (int i = 1; i <= 100; ++i) { run.total_.latency_.Record(i * 1'000'000); }
    run.total_.answered_ = 100;
    run.total_.sent_ = 1000;
    run.total_.statuses_ = {{200, 90}, {429, 7}, {503, 3}};
    run.total_.timedOut_ = 890;
    run.total_.failed_ = 10;
    run.total_.unsent_ = 1000;
    run.total_.unexpected_ = {{"status is 200", 10}};
    run.lengthNs_ = 500'000'000;
    const struct {
        const char *term, *figure;
        bool holds;
    } cases[] = {
        {" p50<=50.1ms ", "p50 = 50.", true},
        {"p99.9 > 0.2s", "p99.9 = 100.000 ms", false},
        {"min < 1000us", "min = 1.000 ms", false},
        {"min >= 1000000 ns", "min = 1.", true},
        {"max > 100ms", "max = 100.000 ms", false},
        {"mean > 50ms", "mean = 50.500 ms", true},
        {"sd > 29ms", "sd = 28.866 ms", false},
        {"errors > 0.1%", "errors = 91%", true},
        {"timeouts >= 890", "timeouts = 890", true},
        {"failed > 1%", "failed = 1%", false},
        {"not-sent > 49.9%", "not-sent = 50%", true},
        {"rate < 900/s", "rate = 200.0/s", true},
        {"rate > 200", "rate = 200.0/s", false},
        {"status 5xx > 0", "status 5xx = 3", true},
        {"status 429 > 0.7%", "status 429 = 0.7%", false},
        {"status 404 > 0", "status 404 = 0", false},
        {"expectations > 0", "expectations = 10", true},
    };
    for (const auto& test : cases) {
        CVEKLoadTerm term;
        std::string error, figure;
        ASSERT_TRUE(term.Parse(test.term, error)) << error;
        EXPECT_EQ(test.holds, term.Holds(run, figure)) << test.term << figure;
        EXPECT_EQ(0U, figure.find(test.figure)) << figure;
        EXPECT_EQ(!test.holds, term.Judge(run).isPassed_);
    }
    // Where nothing came, nothing holds, and no threshold but one on counts is passed.
    CVEKLoadTerm term;
    std::string text;
    for (const char* share : {"p99 > 1s", "errors > 1%", "rate > 1"}) {
        ASSERT_TRUE(term.Parse(share, text));
        EXPECT_FALSE(term.Holds({}, text));
        EXPECT_FALSE(term.Judge({}).isPassed_);
    }
    const std::pair<const char*, const char*> wrong[] = {
        {"p99", "\"p99\" compares nothing; wanted: pN, min"},
        {"", "\"\" compares nothing"},
        {"p101 > 1ms", "asks for \"p101\", which is no figure"},
        {"pmax > 1ms", "asks for \"pmax\""},
        {"speed > 1", "asks for \"speed\""},
        {"status 6 > 1", "asks for \"status 6\""},
        {"status 5x1 > 1", "asks for \"status 5x1\""},
        {"p99 > 50", "compares with \"50\"; wanted: a time with its unit"},
        {"p99 > ms", "compares with \"ms\""},
        {"p99 == 5ms", "compares nothing"},
        {"p99 > -5ms", "compares with \"-5ms\""},
        {"p99 > 1e400ms", "compares with"},
        {"errors > 1ms", "wanted: a count, or a share in %"},
        {"rate < 900/m", "wanted: requests in a second"},
        {"errors > 1 > 2", "compares with \"1 > 2\""},
    };
    for (const auto& [bad, error] : wrong) {
        EXPECT_FALSE(term.Parse(bad, text));
        EXPECT_EQ(1U, Count(text, error)) << text;
    }
}

}  // namespace
