#include <sys/stat.h>
#include <utime.h>
#include <filesystem>

#include <cstdlib>
#include <ctime>
#include <string>

#include "CVEKWriteFile.h"
#include "TestSupport.h"

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
    if (out != nullptr) { *out = result; }
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
    // Last modified some days before the start.
    static void SetAge(const std::string& path, int days) {
        const utimbuf times = {START - days * DAY, START - days * DAY};
        utime(path.c_str(), &times);
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
    for (int i = 0; i < 5; ++i) { EXPECT_EQ(Put(file, std::string(600, 'x')), 1); }
    EXPECT_EQ(dir_.Read("20261115/app.20261115.1").size(), 1200U);
    EXPECT_EQ(dir_.Read("20261115/app.20261115").size(), 600U);
    dir_.Write("20261115/app.20261115.10", "");
    EXPECT_EQ(file.GetFileSeq(), 2);
    G_CLOCK += DAY;
    EXPECT_EQ(Put(file, "next"), 1);
    EXPECT_TRUE(dir_.Has("20261115/app.20261115.3"));
    dir_.Write("20261116/app.20261116.7", "");
    file.SetSize(3);
    EXPECT_EQ(Put(file, "more"), 1);
    EXPECT_EQ(dir_.Read("20261116/app.20261116.8"), "next");
}

TEST_F(WriteFile, NumbersFilesBySizeAndRecords) {
    CVEKWriteFile bySize(dir_.Path().c_str(), "s", "");
    bySize.SetChange(CVEKWriteFile::VEK_WF_SIZE_CHANGE, 3);
    CVEKWriteFile byCount(dir_.Path().c_str(), "c", "X");
    byCount.SetChange(CVEKWriteFile::VEK_WF_RECORD_COUNT_CHANGE, 2);
    for (const char* text : {"123", "456", "789"}) { EXPECT_EQ(Put(bySize, text) + Put(byCount, text), 2); }
    EXPECT_EQ(dir_.Read("s..00000001.1") + dir_.Read("s..00000002"), "123456789");
    EXPECT_EQ(dir_.Read("c.X.00000001.1") + "+" + dir_.Read("c.X.00000002"), "123456+789");
}

TEST_F(WriteFile, DeletesExpiredFilesOfItsNameOnly) {
    for (const char* name : {"app.LOG.1", "app.T1.LOG.1", "other.LOG.1"}) { SetAge(dir_.Write(name, "old"), 4); }
    SetAge(dir_.Write("app.LOG.2", "old"), 3);
    std::filesystem::create_directory(dir_.Path("app.d"));
    SetAge(dir_.Path("app.d"), 4);
    std::filesystem::create_symlink(dir_.Path("other.LOG.1"), dir_.Path("app.link"));
    CVEKWriteFile pattern(dir_.Path().c_str(), "[a]pp", "LOG");
    pattern.SetKeepDays(3);
    CVEKWriteFile file(dir_.Path().c_str(), "app", "LOG");
    EXPECT_EQ(pattern.Open() + file.Open(), 2);
    EXPECT_TRUE(dir_.Has("app.LOG.1"));
    file.SetKeepDays(3);
    EXPECT_EQ(file.ReOpen(), 1);
    for (const char* name : {"app.LOG.2", "other.LOG.1", "app.d", "app.link"}) { EXPECT_TRUE(dir_.Has(name)) << name; }
    EXPECT_FALSE(dir_.Has("app.LOG.1") || dir_.Has("app.T1.LOG.1"));
}

TEST_F(WriteFile, DeletesExpiredDirectoriesOfThisYearOnly) {
    for (const char* day : {"20261101", "20251231"}) {
        std::filesystem::create_directory(dir_.Path(day));
        dir_.Write(day + std::string("/app.LOG"), "old");
        SetAge(dir_.Path(day), 14);
    }
    std::filesystem::create_directory(dir_.Path("20261114"));
    SetAge(dir_.Path("20261114"), 3);
    std::filesystem::create_directory_symlink(dir_.Path("20251231"), dir_.Path("2026link"));
    CVEKWriteFile file(dir_.Path().c_str(), "app", "LOG");
    file.SetChange(CVEKWriteFile::VEK_WF_DAILY_DIR_CHANGE, 1);
    file.SetKeepDays(3);
    EXPECT_EQ(file.Open(), 1);
    EXPECT_FALSE(dir_.Has("20261101"));
    for (const char* name : {"20261114", "20251231/app.LOG", "2026link", "20261115"}) {
        EXPECT_TRUE(dir_.Has(name)) << name;
    }
}

TEST_F(WriteFile, MeasuresTheFileKeepsFewPiecesAndHeedsTheUmaskOnRequest) {
    for (const char* name : {"app.LOG.20261115", "app.T1.LOG.20261115.1", "app.LOG.20261114.x", "app.LOG.20261114.7"}) {
        dir_.Write(name, std::string(99, 'b'));  // before a restart
    }
    CVEKWriteFile file(dir_.Path().c_str(), "app", "LOG"), other(dir_.Path().c_str(), "app", "LOG");
    for (CVEKWriteFile* each : {&file, &other}) {
        each->SetOptions({true, true, 2});
        each->SetSize(100);
    }
    const mode_t before = umask(027);
    EXPECT_EQ(Put(file, "12") + Put(file, "more"), 2);
    umask(before);
    EXPECT_EQ(dir_.Read("app.LOG.20261115.1").size(), 101U);
    EXPECT_EQ(std::filesystem::status(dir_.Path("app.LOG.20261115")).permissions(), std::filesystem::perms(0640));
    {
        const FullDisk full(10);
        for (int i = 0; i < 100; ++i) { EXPECT_EQ(Put(file, "too much\n"), 0); }
    }
    EXPECT_FALSE(dir_.Has("app.LOG.20261115.2"));
    for (int i = 0; i < 12; ++i) { EXPECT_EQ(Put(file, std::string(101, 'x')), 1); }
    std::filesystem::remove(dir_.Path("app.LOG.20261115.11"));
    EXPECT_EQ(Put(other, "y"), 1);
    EXPECT_EQ(dir_.Read("app.LOG.20261115.12").size() + dir_.Read("app.LOG.20261115.13").size(), 202U);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir_.Path()), {}), 5);
}

TEST_F(WriteFile, WritesAgainAfterTheDiskWasFull) {
    CVEKWriteFile file(dir_.Path().c_str(), "app", "LOG");
    EXPECT_EQ(Put(file, "before\n"), 1);
    {
        const FullDisk full(10);
        EXPECT_EQ(Put(file, "too much\n") + Put(file, std::string(100000, 'x')), 0);
    }
    EXPECT_EQ(Put(file, "after\n"), 1);
    const std::string text = dir_.Read("app.LOG.20261115");
    EXPECT_EQ(text.substr(0, 7) + text.substr(text.size() - 6), "before\nafter\n");
    EXPECT_EQ(Put(file, ""), 0);
    EXPECT_EQ(std::filesystem::status(dir_.Path("app.LOG.20261115")).permissions(), std::filesystem::perms(0666));
}

}  // namespace
