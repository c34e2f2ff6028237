#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

#include "CVEKConv.h"

namespace {

// A buffer of n bytes on the heap, so that a sanitizer sees one byte too many.
std::string Fill(size_t n, const std::function<size_t(char*)>& write) {
    std::string out(n, '\x55');
    out.shrink_to_fit();
    out.resize(write(out.data()));
    return out;
}

TEST(Conv, PacksDigits) {
    const struct {
        int (*pack)(char*, const char*);
        const char* text;
        const char* bytes;
    } cases[] = {
        {CVEKConv::Str2BCD, "12345", "\x01\x23\x45"},
        {CVEKConv::Str2BCD, "aBcD", "\xab\xcd"},
        {CVEKConv::Str2Hex, "1", "\x01"},
        {CVEKConv::Str2Hex, "123", "\x12\x30"},
        {CVEKConv::Str2TBCD, "1234", "\x12\x34"},
        {CVEKConv::Str2TBCD, "12345", "\x12\x34\x5f"},
        {CVEKConv::Str2TBCD, "*#aBCf", "\xab\xcd\xef"},
        {CVEKConv::Str2TBCD, "1d2", "\x1f\x2f"},
        {CVEKConv::Str2TBCD, "", ""},
    };
    for (const auto& c : cases) {
        const std::string bytes = Fill((strlen(c.text) + 1) / 2 + 1, [&](char* out) {
            const int n = c.pack(out, c.text);
            EXPECT_EQ(out[n], '\0') << c.text;
            return static_cast<size_t>(n);
        });
        EXPECT_EQ(bytes, c.bytes) << c.text;
    }
}

TEST(Conv, UnpacksDigits) {
    char out[32];
    CVEKConv::BCD2Str(out, "\xab\x0c", 2);
    EXPECT_STREQ(out, "AB0C");
    CVEKConv::Hex2Str(out, "\xab\x0c", 2);
    EXPECT_STREQ(out, "ab0c");
    memset(out, '~', sizeof out);
    CVEKConv::Hex2Str(out, "\xab\x0c", 2, 5);
    EXPECT_EQ(std::string(out, 9), "ab0c   ~~");
    EXPECT_EQ(CVEKConv::TBCD2Str(out, "\x12\x3f\x45", 3), 3);
    EXPECT_STREQ(out, "123");
    EXPECT_EQ(CVEKConv::TBCD2Str(out, "\xf1", 1), 2);
    EXPECT_STREQ(out, "f1");
    memset(out, '~', sizeof out);
    EXPECT_EQ(CVEKConv::TBCD2Str(out, "\x12\x3f", 2, 5), 5);
    EXPECT_EQ(std::string(out, 6), "123  ~");
    EXPECT_EQ(CVEKConv::GetTBCDHex('x'), 255);
    EXPECT_EQ(CVEKConv::GetTBCDChar(16), 255);
}

TEST(Conv, ShiftsNibbles) {
    const struct {
        const char* what;
        void (*shift)(char*, const char*, int);
        const char* before;
        const char* after;
    } cases[] = {
        {"middle to str", CVEKConv::MiddleNibbleToStr, "\0\0\0U", "\x23\x45\0U"},
        {"last to str", CVEKConv::LastNibbleToStr, "UUUU", "\x02\x34\x56\0"},
        {"first to str", CVEKConv::FirstNibbleToStr, "UUUU", "\x12\x34\x50\0"},
        {"first to num", CVEKConv::FirstNibbleToNum, "\0\0\0\0", "\x01\x23\x45\0"},
        {"result first", CVEKConv::ResultForFirstNibble, "UUUU", "\x23\x45\x60\0"},
        {"result last", CVEKConv::ResultForLastNibble, "\xa0\0\0U", "\xa2\x34\x56\0"},
        {"result middle", CVEKConv::ResultForMiddleNibble, "\xa0U\x07U", "\xa1\x23\x47\0"},
    };
    for (const auto& c : cases) {
        std::string out(c.before, 4);
        c.shift(out.data(), "\x12\x34\x56", 3);
        EXPECT_EQ(out, std::string(c.after, 4)) << c.what;
    }
}

TEST(Conv, WritesAndReadsNumbersAndAddresses) {
    char out[32];
    const struct {
        long value;
        const char* text;
    } numbers[] = {{1234567, "1,234,567"},
                   {-1234, "-1,234"},
                   {999, "999"},
                   {-100, "-100"},
                   {INT64_MIN, "-9,223,372,036,854,775,808"}};
    for (const auto& c : numbers) {
        EXPECT_STREQ(CVEKConv::NumToStrWithComma(out, c.value), c.text);
    }
    EXPECT_EQ(CVEKConv::Str2Int("12345", 3), 123);
    EXPECT_EQ(CVEKConv::Str2Ipv4(out, "10.1.2.3"), 1);
    EXPECT_STREQ(out, "\x0a\x01\x02\x03");
    uint32_t addr = 0;
    memcpy(&addr, out, sizeof addr);
    CVEKConv::Ipv42Str(out, addr);
    EXPECT_STREQ(out, "10.1.2.3");
    EXPECT_EQ(CVEKConv::Str2Ipv4(out, "255.255.255.255"), 0);
    unsigned char number[] = {1, 2, 3};
    CVEKConv::ChangeByteOrder(number, 3);
    EXPECT_EQ(number[0] * 100 + number[1] * 10 + number[2], 321);
}

TEST(Conv, RoundTripsLocalTime) {
    setenv("TZ", "XYZ-9", 1);
    tzset();
    char out[22];
    constexpr long NOON = 1794711600;
    EXPECT_EQ(CVEKConv::Str2Time("20261115120000"), NOON);
    CVEKConv::Time2Str(out, NOON);
    EXPECT_STREQ(out, "20261115120000");
    EXPECT_EQ(CVEKConv::Str2Time("2026111512000"), 0);
    setenv("TZ", "UTC", 1);
    tzset();
}

TEST(Conv, ReplacesFromTheBeginningEachTime) {
    const struct {
        const char *src, *from, *to, *result;
    } cases[] = {
        {"a.b.c", ".", "::", "a::b::c"},
        {"aabbx", "ab", "", "x"},
        {"abc", "", "x", "abc"},
        {"abc", "b", "bb", "abc"},
    };
    for (const auto& c : cases) {
        char out[32];
        EXPECT_STREQ(CVEKConv::StrReplace(c.src, c.from, c.to, out), c.result);
        EXPECT_EQ(CVEKConv::StrReplace(std::string(c.src), std::string(c.from), c.to), c.result);
    }
    char blanks[] = "  \t ";
    EXPECT_STREQ(CVEKConv::Trim(blanks), "");
    char padded[] = " \tx y\t ";
    EXPECT_STREQ(CVEKConv::Trim(padded), "x y");
}

TEST(Conv, ReplacesAllReferencesOrNone) {
    setenv("VEK_TEST_A", "/one", 1);
    setenv("A234567890123456789012345678901", "long", 1);
    setenv("A2345678901234567890123456789012", "longer", 1);
    const struct {
        const char *in, *result;
    } cases[] = {
        {"$(VEK_TEST_A)/x/$(VEK_TEST_A)", "/one/x//one"},
        {"$(VEK_TEST_A)/$(VEK_TEST_UNSET)", "$(VEK_TEST_A)/$(VEK_TEST_UNSET)"},
        {"$(VEK_TEST_A)/$x", "$(VEK_TEST_A)/$x"},
        {"x$", "x$"},
        {"$()", "$()"},
        {"$(VEK(TEST_A)", "$(VEK(TEST_A)"},
        {"$(VEK_TEST_A", "$(VEK_TEST_A"},
        {"$(A234567890123456789012345678901)", "long"},
        {"$(A2345678901234567890123456789012)", "$(A2345678901234567890123456789012)"},
    };
    for (const auto& c : cases) {
        char out[64];
        EXPECT_STREQ(CVEKConv::EnvReplace(out, c.in), c.result);
        EXPECT_EQ(CVEKConv::EnvReplace(out, strlen(c.result), c.in), nullptr) << c.in;
        EXPECT_STREQ(CVEKConv::EnvReplace(out, strlen(c.result) + 1, c.in), c.result);
    }
}

std::string Dump(const std::string& data) {
    return Fill(CVEKConv::GetHexaDumpSize(data.size()), [&](char* out) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(data.data());
        return static_cast<size_t>(CVEKConv::HexaDump(out, bytes, static_cast<int>(data.size())));
    });
}

TEST(Conv, DumpsInLinesOfSixteen) {
    EXPECT_EQ(Dump("ABC"), "00000000: 41  42  43  " + std::string(52, ' ') + "ABC.............\n");
    const std::string empty = std::string(64, ' ') + std::string(16, '.') + "\n";
    EXPECT_EQ(Dump(""), "00000000: " + empty);
    const std::string hex = "1d  1e  1f  7f  80  61  62  63  64  65  66  67  68  69  6a  6b  ";
    EXPECT_EQ(Dump("\x1d\x1e\x1f\x7f\x80"
                   "abcdefghijk"),
              "00000000: " + hex + ".\x1e\x1f\x7f.abcdefghijk\n0000000f: " + empty);
    std::string out;
    EXPECT_STREQ(CVEKConv::HexaDump(out, reinterpret_cast<const unsigned char*>("ABC"), 3),
                 Dump("ABC").c_str());
}

}  // namespace
