#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "CVEKConv.h"

namespace {

std::string Pack(int (*pack)(char*, const char*), const char* text) {
    std::string out((strlen(text) + 1) / 2 + 1, 'U');
    const int n = pack(out.data(), text);
    EXPECT_EQ(out[static_cast<size_t>(n)], '\0');
    return out.substr(0, static_cast<size_t>(n));
}

TEST(Conv, PacksDigits) {
    EXPECT_EQ(Pack(CVEKConv::Str2BCD, "12345"), "\x01\x23\x45");
    EXPECT_EQ(Pack(CVEKConv::Str2Hex, "1"), "\x01");
    EXPECT_EQ(Pack(CVEKConv::Str2Hex, "123"), "\x12\x30");
    EXPECT_EQ(Pack(CVEKConv::Str2TBCD, "*#aBCf5"), "\xab\xcd\xef\x5f");
    EXPECT_EQ(Pack(CVEKConv::Str2TBCD, "1d2"), "\x1f\x2f");
}

TEST(Conv, UnpacksDigits) {
    char out[32];
    CVEKConv::BCD2Str(out, "\xab\x0c", 2);
    EXPECT_STREQ(out, "AB0C");
    memset(out, '~', sizeof out);
    CVEKConv::Hex2Str(out, "\xab\x0c", 2, 5);
    EXPECT_EQ(std::string(out, 9), "ab0c   ~~");
    EXPECT_EQ(CVEKConv::TBCD2Str(out, "\xf2\x3f\x45", 3), 3);
    EXPECT_STREQ(out, "f23");
    memset(out, '~', sizeof out);
    EXPECT_EQ(CVEKConv::TBCD2Str(out, "\x12\x3f", 2, 5), 5);
    EXPECT_EQ(std::string(out, 6), "123  ~");
    EXPECT_EQ(CVEKConv::GetTBCDChar(16), 255);
}

// What a shift of 12 34 56 makes of the bytes that were there before, both as hex digits.
std::string Shift(void (*shift)(char*, const char*, int), const char* before) {
    char out[5];
    CVEKConv::Str2Hex(out, before);
    shift(out, "\x12\x34\x56", 3);
    char text[9];
    CVEKConv::Hex2Str(text, out, 4);
    return text;
}

TEST(Conv, ShiftsNibbles) {
    EXPECT_EQ(Shift(CVEKConv::MiddleNibbleToStr, "00000055"), "23450055");
    EXPECT_EQ(Shift(CVEKConv::LastNibbleToStr, "55555555"), "02345600");
    EXPECT_EQ(Shift(CVEKConv::FirstNibbleToStr, "55555555"), "12345000");
    EXPECT_EQ(Shift(CVEKConv::FirstNibbleToNum, "00000000"), "01234500");
    EXPECT_EQ(Shift(CVEKConv::ResultForFirstNibble, "55555555"), "23456000");
    EXPECT_EQ(Shift(CVEKConv::ResultForLastNibble, "a0000055"), "a2345600");
    EXPECT_EQ(Shift(CVEKConv::ResultForMiddleNibble, "a0550755"), "a1234700");
}

TEST(Conv, WritesAndReadsNumbersAndAddresses) {
    char out[32];
    EXPECT_STREQ(CVEKConv::NumToStrWithComma(out, 1234567), "1,234,567");
    EXPECT_STREQ(CVEKConv::NumToStrWithComma(out, -100), "-100");
    EXPECT_STREQ(CVEKConv::NumToStrWithComma(out, INT64_MIN), "-9,223,372,036,854,775,808");
    EXPECT_EQ(CVEKConv::Str2Int("12345", 3), 123);
    EXPECT_STREQ(CVEKConv::Int2Str(-1234567890), "-1234567890");
    EXPECT_EQ(CVEKConv::Str2Ipv4(out, "10.1.2.3"), 1);
    EXPECT_STREQ(out, "\x0a\x01\x02\x03");
    CVEKConv::Ipv42Str(out, 0x0302010a);
    EXPECT_STREQ(out, "10.1.2.3");
    EXPECT_EQ(CVEKConv::Str2Ipv4(out, "255.255.255.255"), 0);
    unsigned char number[] = {1, 2, 3};
    CVEKConv::ChangeByteOrder(number, 3);
    EXPECT_EQ(number[0] * 100 + number[1] * 10 + number[2], 321);
}

TEST(Conv, ReadsAndWritesLocalTime) {
    setenv("TZ", "XYZ-9", 1);
    tzset();
    char out[22];
    EXPECT_EQ(CVEKConv::Str2Time("20261115123456"), 1794713696);
    CVEKConv::Time2Str(out, 1794713696);
    EXPECT_STREQ(out, "20261115123456");
    EXPECT_EQ(CVEKConv::Str2Time("2026111512000"), 0);
}

TEST(Conv, ReplacesFromTheBeginningEachTime) {
    char out[32];
    EXPECT_STREQ(CVEKConv::StrReplace("a.b.c", ".", "::", out), "a::b::c");
    EXPECT_STREQ(CVEKConv::StrReplace("aabbx", "ab", "", out), "x");
    EXPECT_STREQ(CVEKConv::StrReplace("abc", "", "x", out), "abc");
    EXPECT_STREQ(CVEKConv::StrReplace("abc", "b", "bb", out), "abc");
    EXPECT_EQ(CVEKConv::StrReplace(std::string("aabb.x"), std::string("ab"), "-"), "a-b.x");
    char padded[] = " \tx y\t ";
    EXPECT_STREQ(CVEKConv::Trim(padded), "x y");
    EXPECT_STREQ(CVEKConv::RTrim(strcpy(out, "  \t ")), "");
}

TEST(Conv, ReplacesAllReferencesOrNone) {
    const std::string longest = "A234567890123456789012345678901";
    setenv("VEK_TEST_A", "/one", 1);
    setenv(longest.c_str(), "long", 1);
    setenv((longest + "2").c_str(), "longer", 1);
    char out[64];
    EXPECT_STREQ(CVEKConv::EnvReplace(out, "$(VEK_TEST_A)/x/$(VEK_TEST_A)"), "/one/x//one");
    EXPECT_EQ(CVEKConv::EnvReplace(out, 4, "$(VEK_TEST_A)"), nullptr);
    EXPECT_STREQ(CVEKConv::EnvReplace(out, ("$(" + longest + ")").c_str()), "long");
    for (const std::string& rest : {std::string("$(VEK_TEST_UNSET)"), std::string("$x"), std::string("$()"),
                                    std::string("$(VEK_TEST(A)"), std::string("$(VEK_TEST_A"), "$(" + longest + "2)"}) {
        const std::string text = "$(VEK_TEST_A)" + rest;
        EXPECT_EQ(CVEKConv::EnvReplace(out, text.c_str()), text);
    }
}

std::string Dump(const std::string& data) {
    std::string out;
    return CVEKConv::HexaDump(out, reinterpret_cast<const unsigned char*>(data.data()), data.size());
}

TEST(Conv, DumpsInLinesOfSixteen) {
    EXPECT_EQ(Dump("ABC"), "00000000: 41  42  43  " + std::string(52, ' ') + "ABC.............\n");
    const std::string empty = std::string(64, ' ') + std::string(16, '.') + "\n";
    EXPECT_EQ(Dump(""), "00000000: " + empty);
    const std::string hex = "1d  1e  1f  7f  80  67  68  69  6a  6b  6c  6d  6e  6f  70  71  ";
    EXPECT_EQ(Dump("\x1d\x1e\x1f\x7f\x80ghijklmnopq"),
              "00000000: " + hex + ".\x1e\x1f\x7f.ghijklmnopq\n0000000f: " + empty);
}

}  // namespace
