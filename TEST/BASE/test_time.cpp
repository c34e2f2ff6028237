#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "CVEKDate.h"
#include "CVEKTime.h"

namespace {

CVEKTime At(long seconds, unsigned short subSecond) {
    timeb record{};
    record.time = seconds;
    record.millitm = subSecond;
    CVEKTime t(0L);
    t = record;
    return t;
}

class Calendar : public testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

// The C library's proleptic calendar is the judge, with its year 0 before year 1.
void CheckDay(long epochDay) {
    constexpr long SECONDS = 86400, JULIAN_OF_EPOCH = 2440588;
    const time_t t = epochDay * SECONDS;
    tm expected{};
    gmtime_r(&t, &expected);
    tm given = expected;
    const int year = expected.tm_year + 1900;
    given.tm_year -= year < 1 ? 1 : 0;  // the year before 1 is given as -1
    const CVEKDate date(&given);
    ASSERT_EQ(date.GetJulian(), epochDay + JULIAN_OF_EPOCH) << year;
    char want[32];
    snprintf(want, sizeof want, "%04d%02d%02d", year, expected.tm_mon + 1, expected.tm_mday);
    ASSERT_STREQ(date(), want);
    ASSERT_EQ(date.GetDayOfWeek(), expected.tm_wday) << want;
}

TEST_F(Calendar, AgreesWithTheCLibraryOnEveryDay) {
    constexpr long FIRST = -1084405;  // -0999-01-01
    constexpr long LAST = 2932896;    // 9999-12-31
    for (long day = FIRST; day <= LAST && !HasFatalFailure(); ++day) { CheckDay(day); }
}

TEST_F(Calendar, ReadsText) {
    EXPECT_EQ(CVEKDate("20000101").GetJulian(), 2451545);
    EXPECT_STREQ(CVEKDate("20260231")(), "20260303");
    for (const char* text : {"2026010", "2026o101", "20261301", "20260132", "00000101"}) {
        CVEKDate date(text);
        date.AddDate(1);
        EXPECT_EQ(date.GetJulian(), 0x7FFFFFFF) << text;
    }
    CVEKDate date(0L);
    date = "2026";
    EXPECT_EQ(date.GetYear() + date.GetMonth() + date.GetDay() + date.GetDayOfWeek(), -4);
    EXPECT_EQ(date.Get(), -1);
}

TEST_F(Calendar, CountsDaysWithItsOwnIdeaOfPostfixAndOrder) {
    CVEKDate date("20240228");
    EXPECT_STREQ((++date)(), "20240229");
    EXPECT_STREQ((date++)(), "20240301");
    EXPECT_STREQ((date--)(), "20240229");
    EXPECT_STREQ((--date)(), "20240228");
    EXPECT_STREQ((date++)(), "20240229");
    EXPECT_EQ(CVEKDate("20240301") - 1L, date);
    EXPECT_EQ(1L - CVEKDate("20240301"), date);
    EXPECT_EQ(1L + CVEKDate("20240228"), date);
    EXPECT_EQ(date.Get(), 1709164800);
    EXPECT_EQ(CVEKDate(1709164800L + 86399), date);
}

TEST_F(Calendar, WritesDatesByPicture) {
    CVEKDate date("20261115");
    EXPECT_STREQ(date.AscDate("CCYY-MM-DD"), "2026-11-15");
    EXPECT_STREQ(date.AscDate("DMYh"), "112h");
    EXPECT_EQ(date.AscDate("YYYYMMDD"), nullptr);
    EXPECT_EQ(date.AscDate("............."), nullptr);
}

TEST_F(Calendar, CarriesHundredths) {
    CVEKTime t = At(9, 50);
    t = 12L;
    ((t += 3L) -= 5L) += At(0, 50);
    t += At(1, 60);
    EXPECT_EQ(t, At(12, 10));
    t -= At(1, 20);
    EXPECT_EQ(t, At(10, 90));
    EXPECT_LT(At(10, 0), At(9, 2));
    EXPECT_TRUE(At(10, 0) >= At(9, 1) && At(10, 0) <= At(9, 1) && At(10, 1) > At(10, 0));
    EXPECT_FALSE(At(10, 0) < At(9, 1) || At(10, 0) > At(9, 1) || At(10, 0) == At(9, 1));
}

TEST_F(Calendar, WritesAndReadsTimesByPicture) {
    constexpr long MOMENT = 1794746096;
    CVEKTime t = At(MOMENT, 512);
    EXPECT_STREQ(t.AscTime("YYYY/MM/DD hh:mm:ss.XXX"), "2026/11/15 12:34:56.512");
    EXPECT_STREQ(t.AscTime("CCYYMDDhXc"), "2026115151");
    EXPECT_EQ(t.AscTime("XXXc"), nullptr);
    EXPECT_EQ(t.AscTime("YYYYYYYY"), nullptr);
    EXPECT_EQ(t.AscTime("................................."), nullptr);
    EXPECT_STREQ(t.AscTime(nullptr), "Sun Nov 15 12:34:56 2026\n");
    EXPECT_STREQ(t.AscGMTime(), "2026-11-15T12:34:56Z");
    char out[20] = "x";
    EXPECT_STREQ(t.AscGMTime(out, sizeof out), "");
    EXPECT_EQ(CVEKTime::MakeTime("YYYYMMDDhhmmss", "20261115123456"), MOMENT);
    EXPECT_EQ(CVEKTime::MakeTime("CCYYMMDD hh.X", "20261200 12.5"), MOMENT - 34 * 60 - 56 + 15 * 86400L);
    EXPECT_EQ(CVEKTime::MakeTime("MMM", "111"), 0);
}

}  // namespace
