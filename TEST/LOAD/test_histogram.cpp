// The histogram of durations and its HdrHistogram texts.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <random>

#include "CVEKLoadHistogram.h"
#include "VEKLoadHdr.h"

namespace {

CVEKLoadHistogram Make(const std::vector<int64_t>& values) {
    CVEKLoadHistogram histogram;
    for (const int64_t value : values) { histogram.Record(value); }
    return histogram;
}

CVEKLoadHistogram Restored(const CVEKLoadHistogram& from) {
    std::vector<uint64_t> buckets;
    CVEKLoadHistogram made;
    EXPECT_TRUE(VEK_LOAD_DECODE_HDR(VEK_LOAD_ENCODE_HDR(from), buckets));
    EXPECT_TRUE(made.Restore(buckets, from.GetMin(), from.GetMax(), from.GetSumText(), from.GetSquaresText()));
    return made;
}

TEST(LoadHistogram, KeepsPercentilesSumsAndMerges) {
    std::mt19937_64 random(1);
    std::vector<int64_t> values;
    CVEKLoadHistogram all, left, right;
    for (int i = 0; i < 20000; ++i) {
        values.push_back(static_cast<int64_t>(std::exp(static_cast<double>(random() % 30000) / 1000)));
        all.Record(values.back());
        (i % 3 == 0 ? left : right).Record(values.back());
    }
    std::sort(values.begin(), values.end());
    for (const double percent : {0.0, 50.0, 75.0, 90.0, 95.0, 99.0, 99.9, 99.99, 100.0}) {
        const size_t rank = std::max<size_t>(1, static_cast<size_t>(std::ceil(std::round(percent * 100) * 2)));
        const auto exact = static_cast<double>(values[rank - 1]);
        EXPECT_GE(static_cast<double>(all.GetPercentile(percent)), exact) << percent;
        EXPECT_LE(static_cast<double>(all.GetPercentile(percent)), exact * 1.001 + 1) << percent;
    }
    double mean = 0, squares = 0;
    for (const int64_t value : values) { mean += static_cast<double>(value) / 20000; }
    for (const int64_t value : values) { squares += std::pow(static_cast<double>(value) - mean, 2) / 20000; }
    EXPECT_NEAR(1, all.GetMean() / mean, 1e-9);
    EXPECT_NEAR(1, all.GetDeviation() / std::sqrt(squares), 1e-9);
    EXPECT_EQ(values.front(), static_cast<int64_t>(all.GetMin()));
    EXPECT_EQ(values.back(), static_cast<int64_t>(all.GetMax()));
    left.Add(right);
    EXPECT_TRUE(left == all);
    EXPECT_TRUE(Restored(left) == all);
    right.Clear();
    EXPECT_TRUE(right == CVEKLoadHistogram());
}

TEST(LoadHistogram, HoldsTheEnds) {
    const int64_t limit = CVEKLoadHistogram::LIMIT_NS;
    const CVEKLoadHistogram ends = Make({-5, 0, 2047, 2048, 2049, 2050, limit, INT64_MAX});
    EXPECT_EQ(0U, ends.GetMin());
    EXPECT_EQ(static_cast<uint64_t>(limit), ends.GetMax());
    EXPECT_EQ(2U, ends.GetCountUpTo(0));
    EXPECT_EQ(5U, ends.GetCountUpTo(2048));
    EXPECT_EQ(8U, ends.GetCountUpTo(UINT64_MAX));
    EXPECT_TRUE(Restored(ends) == ends);
    for (size_t i = 0; i + 1 < ends.GetBuckets().size(); ++i) {
        ASSERT_EQ(CVEKLoadHistogram::EndOf(i) + 1, CVEKLoadHistogram::BeginOf(i + 1));
    }
    // Long and close together: all would be lost in floating-point squares.
    EXPECT_EQ(1, Make({limit - 4, limit - 2, limit - 4, limit - 2}).GetDeviation());
    EXPECT_EQ(0U, CVEKLoadHistogram().GetPercentile(99));
    std::vector<int64_t> thousand(1000);
    std::iota(thousand.begin(), thousand.end(), 1);
    EXPECT_EQ(999U, Make(thousand).GetPercentile(99.9));
}

TEST(LoadHistogram, RefusesTextsThatAreNone) {
    const CVEKLoadHistogram some = Make({1, 5, 5000});
    const std::string good = VEK_LOAD_ENCODE_HDR(some);
    std::vector<uint64_t> buckets;
    for (size_t i = 0; i < good.size(); ++i) {
        std::string bad = good;
        bad[i] = bad[i] == 'A' ? 'B' : 'A';
        CVEKLoadHistogram made;
        // No byte of it may change unnoticed, but for the limit and the ratio, which are not used.
        if (VEK_LOAD_DECODE_HDR(bad, buckets)) { made.Restore(buckets, 1, 5000, "5006", "25000026"); }
        EXPECT_TRUE(made.GetCount() == 0 || made == some) << i;
        VEK_LOAD_DECODE_HDR(good.substr(0, i), buckets);
    }
    ASSERT_TRUE(VEK_LOAD_DECODE_HDR(good, buckets));
    const struct {
        uint64_t min, max;
        const char *sum, *squares;
    } wrong[] = {{2, 5000, "5006", "0"},
                 {1, 9000, "5006", "0"},
                 {1, 5000, "x", "0"},
                 {1, 5000, "1", "0"},
                 {1, 5000, "5006", ""},
                 {1, 5000, "500600", "0"},
                 {1, 5000, "5006", "999999999999999999999999999999999999999999"}};
    for (const auto& test : wrong) {
        CVEKLoadHistogram made;
        EXPECT_FALSE(made.Restore(buckets, test.min, test.max, test.sum, test.squares)) << test.sum;
        EXPECT_EQ(0U, made.GetCount());
    }
}

// What readers look for first.
TEST(LoadHistogram, WritesTheFormatOfTheViewers) {
    EXPECT_EQ("1.500,1.000,2.500,HIST\n", VEK_LOAD_HDR_LOG_LINE(1.5, 1, 2500000, "HIST"));
    EXPECT_EQ(
        "#[Histogram log format version 1.3]\n#[BaseTime: 1700000000.250 (seconds since epoch)]\n"
        "#[StartTime: 1700000000.250 (seconds since epoch), Tue Nov 14 22:13:20 UTC 2023]\n"
        "\"StartTimestamp\",\"Interval_Length\",\"Interval_Max\",\"Interval_Compressed_Histogram\"\n",
        VEK_LOAD_HDR_LOG_HEAD(1700000000.25));
    EXPECT_EQ("HISTF", VEK_LOAD_ENCODE_HDR(CVEKLoadHistogram()).substr(0, 5));
}

}  // namespace
