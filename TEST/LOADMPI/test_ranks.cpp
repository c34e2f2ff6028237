// The reduction over the ranks of a job, whose number mpirun gives.
#include "CVEKLoadRanks.h"
#include "LoadTest.h"
#include "VEKLoadShare.h"

namespace {

CVEKLoadRanks* ranks;

// A run in which each of these values was measured, in steps and seconds by turns.
VEK_ST_LOAD_SUMMARY Feed(const std::vector<int64_t>& values, VEK_ST_LOAD_SHARE share) {
    VEK_ST_LOAD_SUMMARY run;
    run.endedBy_ = "requests";
    run.steps_ = {{"GET /", {}}, {"GET /", {}}, {"POST /", {}}};
    std::vector<CVEKLoadHistogram> latencies(4);
    run.seconds_.resize(4);
    const auto count = share.CountBelow(static_cast<int64_t>(values.size()));
    for (int64_t own = 0; own < count; ++own) {
        const auto number = static_cast<size_t>(share.GetNumber(own));
        VEK_ST_LOAD_COUNTS& counts = run.steps_[number % 3].counts_;
        VEK_ST_LOAD_SECOND& second = run.seconds_[number / 3 % 4];
        ++counts.sent_;
        ++second.sent_;
        if (number % 50 == 7) {
            ++counts.failed_;
            ++second.errors_;
            ++counts.causes_[number % 100 == 7 ? "lost" : "no text: \xff"];
            continue;
        }
        ++counts.answered_;
        ++second.answered_;
        ++counts.statuses_[number % 7 == 0 ? 404 : 200];
        counts.latency_.Record(values[number]);
        counts.service_.Record(values[number] / 3);
        counts.firstByte_.Record(values[number] / 4);
        latencies[number / 3 % 4].Record(values[number]);
    }
    for (const VEK_ST_LOAD_STEP& step : run.steps_) { run.total_.Add(step.counts_); }
    for (size_t number = 0; number < latencies.size(); ++number) {
        run.seconds_[number].latency_ = VEK_ST_LOAD_PACKED::Pack(latencies[number]);
    }
    run.runs_ = share.index_ == 0 ? 1 : 0;
    return run;
}

TEST(Ranks, AddUpToWhatOneProgramHasMeasured) {
    std::mt19937_64 random(17);
    std::vector<int64_t> values(20011);
    for (int64_t& value : values) { value = static_cast<int64_t>(random() >> (20 + random() % 40)); }
    const VEK_ST_LOAD_SUMMARY one = Feed(values, {});
    VEK_ST_LOAD_SUMMARY sum = Feed(values, {ranks->GetRank(), ranks->GetSize()});
    const uint64_t own = sum.total_.sent_;
    ranks->Reduce(sum);
    if (ranks->GetRank() != 0) {
        EXPECT_EQ(own, sum.total_.sent_);
        return;
    }
    EXPECT_TRUE(one.total_.latency_ == sum.total_.latency_);
    EXPECT_TRUE(one.steps_[1].counts_.service_ == sum.steps_[1].counts_.service_);
    EXPECT_EQ(VEK_LOAD_WRITE_JSON(one), VEK_LOAD_WRITE_JSON(sum));
    EXPECT_EQ(20011U, sum.total_.sent_);
}

TEST(Ranks, BeginTogether) {
    ranks->CompareClocks();
    const auto here = CVEKLoadRanks::Clock::now(), start = ranks->Meet();
    EXPECT_LT(here, start);
    // On one machine there is one clock: all hear of the same moment, up to what the comparison errs.
    std::string moment = std::to_string(start.time_since_epoch().count());
    ranks->Spread(moment);
    const int64_t apart = start.time_since_epoch().count() - std::stoll(moment);
    EXPECT_GE(static_cast<int64_t>(ranks->GetTimes().clockErrorNs_), std::abs(apart));
}

TEST(Ranks, TellEachOther) {
    EXPECT_EQ(3, ranks->Agree(ranks->GetRank() == ranks->GetSize() - 1 ? 3 : 0, "the last one's"));
    std::string text(100'000, static_cast<char>('a' + ranks->GetRank()));
    ranks->Spread(text);
    EXPECT_EQ(std::string(100'000, 'a'), text);
    if (ranks->GetRank() == ranks->GetSize() - 1) { ranks->Tell("abort", "for the last one"); }
    EXPECT_TRUE(Eventually([] { return ranks->Poll() == "abort"; }));
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    CVEKLoadRanks all(argc, argv);
    ranks = &all;  // cppcheck-suppress danglingLifetime ; nobody reads it after main
    return RUN_ALL_TESTS();
}
