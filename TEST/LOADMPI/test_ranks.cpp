// The reduction over the ranks of a job, whose number mpirun gives.
#include "CVEKLoadRanks.h"
#include "LoadTest.h"

namespace {

CVEKLoadRanks* ranks;

// The runs of all ranks, in their order, one after the other, as they come out of files.
TEST(Ranks, AddUpInTheOrderOfRanks) {
    const auto make = [](int64_t rank) {
        VEK_ST_LOAD_SUMMARY run;
        std::string error;
        EXPECT_TRUE(VEK_LOAD_READ_JSON(VEK_LOAD_WRITE_JSON(MakeRun(static_cast<unsigned>(rank + 1))), run, error));
        return run;
    };
    VEK_ST_LOAD_SUMMARY sum = make(ranks->GetRank()), wanted = make(0);
    const std::string own = VEK_LOAD_WRITE_JSON(sum);
    ranks->Reduce(sum);
    for (int64_t rank = 1; rank < ranks->GetSize(); ++rank) { wanted.Add(make(rank)); }
    EXPECT_EQ(ranks->GetRank() == 0 ? VEK_LOAD_WRITE_JSON(wanted) : own, VEK_LOAD_WRITE_JSON(sum));
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
