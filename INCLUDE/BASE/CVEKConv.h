// CVEKConv: conversions between text and packed digits, numbers, times and addresses, and small
// string helpers. Static functions only.
//
// Every function writes into a buffer of the caller, who sizes it as said at each function; text
// arguments are NUL-terminated and never null, `out` and the input are distinct unless said
// otherwise, and byte counts are not negative. Only the two std::string forms allocate. Every
// function may be called by any thread, except Int2Str, whose result is one buffer of the process.
#ifndef CVEK_CONV_H
#define CVEK_CONV_H

#include <cstddef>
#include <string>

#include "VEKExport.h"

class VEK_API CVEKConv {
  public:
    // ---- Digits. The first character of a pair is always the high nibble.

    // The value of a hex digit. Any other character gives its code minus 87, which means nothing.
    static char GetBCDHex(char c);
    // The digit for 0 to 15, lower case from 10 on. A larger value gives its code plus 87.
    static char GetBCDChar(char v);

    // Packs hex digits two to a byte; the first digit of an odd number stands alone, so "12345"
    // gives 01 23 45. out: (length + 1) / 2 + 1 bytes, as a 0 byte follows. Returns the number of
    // bytes without it.
    static int Str2BCD(char* out, const char* text);
    // Unpacks n bytes into upper-case hex digits. out: 2n + 1 bytes.
    static void BCD2Str(char* out, const char* in, int n);
    // Packs pairs of hex digits. A digit left over is shifted into the high nibble, unless it is
    // the whole text, when the byte is its plain value. out: (length + 1) / 2 + 1 bytes, as a 0
    // byte follows. Returns the number of bytes without it.
    static int Str2Hex(char* out, const char* text);
    // Unpacks n bytes into lower-case hex digits. out: 2n + 1 bytes.
    static void Hex2Str(char* out, const char* in, int n);
    // The same without the NUL, followed by width - n blanks if that is positive.
    // out: 2n + max(0, width - n) bytes.
    static void Hex2Str(char* out, const char* in, int n, int width);

    // The nibble of a TBCD character: the digits, * 10, # 11, A 12, B 13, C 14, F (the filler) 15;
    // letters in either case. 255 for any other character.
    static unsigned char GetTBCDHex(char c);
    // The character of a nibble, letters in lower case; 255 when v is above 15.
    static unsigned char GetTBCDChar(unsigned char v);

    // Packs TBCD characters two to a byte, the first in the high nibble; the filler completes an
    // odd number. A character outside the table packs as the filler. out: (length + 1) / 2 + 1
    // bytes, as a 0 byte follows. Returns the number of bytes without it.
    static int Str2TBCD(char* out, const char* text);
    // Unpacks n bytes until a low nibble is the filler; a filler in a high nibble comes out as "f".
    // out: 2n + 1 bytes. Returns the length of the text.
    static int TBCD2Str(char* out, const char* in, int n);
    // The same without the NUL, filled up with blanks to `width` characters. out: max(2n, width)
    // bytes. Returns the length with the blanks.
    static int TBCD2Str(char* out, const char* in, int n, int width);

    // ---- Strings of n bytes (1 or more) shifted by a nibble. "Zeroed": the caller zeroes `out`
    // first, as bits are added to it.

    // Shifts left and drops the first nibble: n - 1 bytes. out: n bytes, zeroed; the last becomes
    // 0.
    static void MiddleNibbleToStr(char* out, const char* in, int n);
    // Copies with the first nibble cleared. out: n + 1 bytes; the last becomes 0.
    static void LastNibbleToStr(char* out, const char* in, int n);
    // Copies with the last nibble cleared. out: n + 1 bytes; the last becomes 0.
    static void FirstNibbleToStr(char* out, const char* in, int n);
    // Shifts right and drops the last nibble. out: n + 1 bytes, zeroed; the last becomes 0.
    static void FirstNibbleToNum(char* out, const char* in, int n);
    // Shifts left, a zero nibble moves in at the end. out: n + 1 bytes; the last becomes 0.
    static void ResultForFirstNibble(char* out, const char* in, int n);
    // Copies, but keeps the first nibble of `out`. out: n + 1 bytes, zeroed behind the first; the
    // last becomes 0.
    static void ResultForLastNibble(char* out, const char* in, int n);
    // Shifts right behind the first nibble of `out`, which is kept, as is the low nibble of
    // out[n - 1]. out: n + 1 bytes; the last becomes 0.
    static void ResultForMiddleNibble(char* out, const char* in, int n);

    // ---- Numbers, times and addresses.

    // The decimal number in the first n characters (at most 31) of s, as atoi reads it.
    static int Str2Int(const char* s, int n);
    // The number in decimal, in one buffer of the process: the next call overwrites it.
    static const char* Int2Str(int v);
    // The number in decimal with a comma between groups of three digits. out: 27 bytes. Returns
    // `out`.
    static char* NumToStrWithComma(char* out, long v);
    // The epoch seconds of the local time CCYYMMDDhhmmss, read as standard time; 0 when s is not 14
    // characters long. Digits are not checked.
    static long Str2Time(const char* s);
    // The local time of t as CCYYMMDDhhmmss. out: 15 bytes for the years 0 to 9999, 22 for any.
    static void Time2Str(char* out, long t);
    // Stores the 4 bytes of a dotted address in network order and a 0 byte. out: 5 bytes. Returns
    // 1, or 0 when the text is no address or is 255.255.255.255, which cannot be told from none.
    static int Str2Ipv4(char* out, const char* text);
    // The dotted text of an address in network order. out: 16 bytes.
    static void Ipv42Str(char* out, unsigned int addr);
    // Reverses n bytes in place.
    static void ChangeByteOrder(unsigned char* buf, unsigned long n);

    // ---- Strings.

    // Cuts blanks and tabs at the end, in place. Returns s.
    static char* RTrim(char* s);
    // Returns the first character that is neither blank nor tab; nothing is moved.
    static char* LTrim(char* s);
    // LTrim(RTrim(s)).
    static char* Trim(char* s);

    // Replaces the first occurrence of `from` until there is none left; each search starts at the
    // beginning, so text that a replacement completes is replaced too. The caller makes sure that
    // this ends: an empty `from`, and a `to` that holds `from`, are refused and give the source as
    // it is, but longer cycles are not recognised. out: the result's length plus 1; it may be
    // `src`. Returns `out`.
    static char* StrReplace(const char* src, const char* from, const char* to, char* out);
    static std::string StrReplace(const std::string& src, const std::string& from, const char* to);

    // Copies `in` with every "$(NAME)" replaced by that environment variable. When any reference
    // cannot be replaced (no "(" behind the "$", no ")", an empty name, a "(" in it, more than 31
    // characters, a variable that is not set) the whole of `in` is copied unchanged. out: as large
    // as the result. Returns `out`.
    static char* EnvReplace(char* out, const char* in);
    // The same into `size` bytes. Returns null, with nothing of use in `out`, when they do not hold
    // the result and its NUL.
    static char* EnvReplace(char* out, size_t size, const char* in);

    // Dumps n bytes, 16 to a line:
    //   "00000000: 41  42  43  " and so on, then the bytes as characters, then a newline.
    // The last line is filled up, and is an empty one when n is a multiple of 16. The label of a
    // line is the index of the last byte of the line before. out: GetHexaDumpSize(n) bytes. Returns
    // the number of characters, without the NUL.
    static int HexaDump(char* out, const unsigned char* data, int n);
    // The same, assigned to `out`. Returns the characters of `out`.
    static const char* HexaDump(std::string& out, const unsigned char* data, unsigned long n);
    // The bytes that a dump of n bytes and its NUL take.
    static constexpr size_t GetHexaDumpSize(size_t n) {
        constexpr size_t LINE = 10 + 16 * 4 + 16 + 1;  // label, bytes, characters, newline
        return (n / 16 + 1) * LINE + 1;
    }
};

#endif
