#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <utime.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <string>

#include "BASE/TempDir.h"
#include "CVEKWriteFile.h"

namespace {

constexpr time_t DAY = 86400;
constexpr time_t START = 1794744000;  // 2026-11-15 12:00:00 UTC

time_t G_CLOCK = 0;  // what time() answers, 0 for the true time

}  // namespace

// Takes the place of the C library's, so that days pass without waiting.
extern "C" time_t time(time_t* out) {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const time_t result = G_CLOCK == 0 ? now.tv_sec : G_CLOCK;
    if (out != nullptr) {
        *out = result;
    }
    return result;
}

namespace {

class WriteFile : public testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        G_CLOCK = START;
    }
    void TearDown() override { G_CLOCK = 0; }

    static int Put(CVEKWriteFile& file, const std::string& text) {
        const auto* data = reinterpret_cast<const unsigned char*>(text.data());
        return file.Write(data, text.size()) == 1 && file.FFlush() == 1 ? 1 : 0;
    }
    // A file last modified some days before the start.
    void Age(const std::string& name, int days) const {
        dir_.Write(name, "old");
        SetAge(name, days);
    }
    void SetAge(const std::string& name, int days) const {
        const utimbuf times = {START - days * DAY, START - days * DAY};
        utime(dir_.Path(name).c_str(), &times);
    }

    TempDir dir_;
};

TEST_F(WriteFile, StartsANewFilePerDay) {
    CVEKWriteFile file(dir_.Path().c_str(), "app", "LOG");
    file.SetChange(CVEKWriteFile::VEK_WF_DAILY_CHANGE, 1);
    EXPECT_EQ(Put(file, "one\n"), 1);
    G_CLOCK = START + DAY / 2 - 1;
    EXPECT_EQ(Put(file, "two\n"), 1);
    G_CLOCK = START + DAY / 2;
    EXPECT_EQ(Put(file, "three\n"), 1);
    EXPECT_EQ(dir_.Read("app.LOG.20261115.1"), "one\ntwo\n");
    EXPECT_EQ(dir_.Read("app.LOG.20261116"), "three\n");
    EXPECT_FALSE(dir_.Has("app.LOG.20261115"));
    file.Close();
    EXPECT_EQ(file.GetFileInfo().size, 6U);
    EXPECT_EQ(file.GetFileInfo().recCount, 1U);
}

TEST_F(WriteFile, CutsPiecesBySizeAndNumbersThemPerDay) {
    CVEKWriteFile file(dir_.Path().c_str(), "app", nullptr);
    file.SetChange(CVEKWriteFile::VEK_WF_DAILY_DIR_CHANGE, 1);
    file.SetSize(1000);
    const std::string record(600, 'x');
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(Put(file, record), 1);
    }
    EXPECT_EQ(dir_.Read("20261115/app.20261115.1").size(), 1200U);
    EXPECT_EQ(dir_.Read("20261115/app.20261115.2").size(), 1200U);
    EXPECT_EQ(dir_.Read("20261115/app.20261115").size(), 600U);
    EXPECT_EQ(file.GetFileSeq(), 2);
    dir_.Write("20261115/app.20261115.10", "");
    EXPECT_EQ(file.GetFileSeq(), 2);
    G_CLOCK += DAY;
    EXPECT_EQ(Put(file, "next"), 1);
    EXPECT_TRUE(dir_.Has("20261115/app.20261115.3"));
    EXPECT_EQ(file.GetFileSeq(), 0);
    CVEKWriteFile later(dir_.Path().c_str(), "app", nullptr);
    later.SetChange(CVEKWriteFile::VEK_WF_DAILY_DIR_CHANGE, 1);
    dir_.Write("20261116/app.20261116.7", "");
    later.SetSize(3);
    EXPECT_EQ(Put(later, "more") + Put(later, "than"), 2);
    EXPECT_EQ(dir_.Read("20261116/app.20261116.8"), "nextmore");
}

TEST_F(WriteFile, NumbersFilesBySizeAndRecords) {
    CVEKWriteFile bySize(dir_.Path().c_str(), "s", "");
    bySize.SetChange(CVEKWriteFile::VEK_WF_SIZE_CHANGE, 3);
    CVEKWriteFile byCount(dir_.Path().c_str(), "c", "X");
    byCount.SetChange(CVEKWriteFile::VEK_WF_RECORD_COUNT_CHANGE, 2);
    for (const char* text : {"123", "456", "789"}) {
        EXPECT_EQ(Put(bySize, text) + Put(byCount, text), 2);
    }
    EXPECT_EQ(dir_.Read("s..00000001.1"), "123456");
    EXPECT_EQ(dir_.Read("s..00000002"), "789");
    EXPECT_EQ(dir_.Read("c.X.00000001.1"), "123456");
    EXPECT_EQ(dir_.Read("c.X.00000002"), "789");
}

TEST_F(WriteFile, DeletesExpiredFilesOfItsNameOnly) {
    for (const char* name : {"app.LOG.1", "app.T1.LOG.1", "other.LOG.1", "[a]pp.LOG.1"}) {
        Age(name, 4);
    }
    Age("app.LOG.2", 3);
    std::filesystem::create_directory(dir_.Path("app.d"));
    SetAge("app.d", 4);
    std::filesystem::create_symlink(dir_.Path("other.LOG.1"), dir_.Path("app.link"));
    CVEKWriteFile pattern(dir_.Path().c_str(), "[a]pp", "LOG");
    pattern.SetKeepDays(3);
    EXPECT_EQ(pattern.Open(), 1);
    EXPECT_TRUE(dir_.Has("app.LOG.1"));
    CVEKWriteFile file(dir_.Path().c_str(), "app", "LOG");
    EXPECT_EQ(file.Open(), 1);
    EXPECT_TRUE(dir_.Has("app.LOG.1"));
    file.SetKeepDays(3);
    EXPECT_EQ(file.ReOpen(), 1);
    for (const char* name : {"app.LOG.2", "other.LOG.1", "app.d", "app.link"}) {
        EXPECT_TRUE(dir_.Has(name)) << name;
    }
    EXPECT_FALSE(dir_.Has("app.LOG.1"));
    EXPECT_FALSE(dir_.Has("app.T1.LOG.1"));
}

TEST_F(WriteFile, DeletesExpiredDirectoriesOfThisYearOnly) {
    for (const char* day : {"20261101", "20261114", "20251231"}) {
        std::filesystem::create_directory(dir_.Path(day));
        Age(day + std::string("/app.LOG"), 14);
    }
    std::filesystem::create_directory_symlink(dir_.Path("20251231"), dir_.Path("2026link"));
    SetAge("20261101", 14);
    SetAge("20261114", 1);
    SetAge("20251231", 300);
    CVEKWriteFile file(dir_.Path().c_str(), "app", "LOG");
    file.SetChange(CVEKWriteFile::VEK_WF_DAILY_DIR_CHANGE, 1);
    file.SetKeepDays(3);
    EXPECT_EQ(file.Open(), 1);
    EXPECT_FALSE(dir_.Has("20261101"));
    for (const char* name : {"20261114", "20251231/app.LOG", "2026link", "20261115"}) {
        EXPECT_TRUE(dir_.Has(name)) << name;
    }
}

TEST_F(WriteFile, WritesAgainAfterTheDiskWasFull) {
    CVEKWriteFile file(dir_.Path().c_str(), "app", "LOG");
    EXPECT_EQ(Put(file, "before\n"), 1);
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
    const rlim_t former = limit.rlim_cur;
    signal(SIGXFSZ, SIG_IGN);
    limit.rlim_cur = 10;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_EQ(Put(file, "too much\n"), 0);
    EXPECT_EQ(Put(file, std::string(100000, 'x')), 0);
    limit.rlim_cur = former;
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_EQ(Put(file, "after\n"), 1);
    const std::string text = dir_.Read("app.LOG.20261115");
    EXPECT_EQ(text.find("before\n"), 0U);
    EXPECT_NE(text.find("after\n"), std::string::npos);
    EXPECT_EQ(Put(file, ""), 0);
}

TEST_F(WriteFile, BoundsLongNames) {
    const std::string longName(200, 'n');
    EXPECT_TRUE(CVEKWriteFile::Fits("p", longName.substr(0, 63).c_str(), nullptr));
    EXPECT_FALSE(CVEKWriteFile::Fits("p", longName.substr(0, 64).c_str(), nullptr));
    EXPECT_FALSE(CVEKWriteFile::Fits(longName.substr(0, 128).c_str(), "n", ""));
    CVEKWriteFile file(dir_.Path().c_str(), longName.c_str(), longName.c_str());
    EXPECT_EQ(Put(file, "x"), 1);
    EXPECT_TRUE(dir_.Has(std::string(63, 'n') + "." + std::string(15, 'n') + ".20261115"));
    CVEKWriteFile nowhere(dir_.Path("none").c_str(), "app", "LOG");
    EXPECT_EQ(Put(nowhere, "x") + nowhere.FFlush(), 0);
}

}  // namespace
