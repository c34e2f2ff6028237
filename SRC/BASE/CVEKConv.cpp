#include "CVEKConv.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

#include "VEKTimeZone.h"

namespace {

constexpr int NIBBLE = 4;
constexpr unsigned LOW_MASK = 0x0F;
constexpr unsigned HIGH_MASK = 0xF0;

constexpr unsigned char TBCD_FILLER = 15;
constexpr unsigned char TBCD_NONE = 255;
constexpr char TBCD_CHARS[] = "0123456789*#abcf";

constexpr size_t MAX_FIELD = 32;     // scratch of Str2Int, with the NUL
constexpr size_t MAX_ENV_NAME = 32;  // name of a variable, with the NUL

constexpr int DUMP_COLUMNS = 16;
constexpr unsigned char DUMP_FIRST_SHOWN = 30;  // not 32, the blank: meant
constexpr unsigned char DUMP_END_SHOWN = 128;

unsigned Byte(char c) {
    return static_cast<unsigned char>(c);
}

unsigned High(char c) {
    return Byte(c) >> NIBBLE;
}

unsigned Low(char c) {
    return Byte(c) & LOW_MASK;
}

// Only the lowest eight bits of the parts count.
char Join(unsigned high, unsigned low) {
    return static_cast<char>(static_cast<unsigned char>((high << NIBBLE) | low));
}

unsigned HexValue(char c) {
    return static_cast<unsigned char>(CVEKConv::GetBCDHex(c));
}

void PutBlanks(char* out, int count) {
    if (count > 0) {
        memset(out, ' ', static_cast<size_t>(count));
    }
}

// Decodes without a NUL and returns the length.
int DecodeTBCD(char* out, const char* in, int n) {
    char* end = out;
    for (int i = 0; i < n; ++i) {
        *end++ = TBCD_CHARS[High(in[i])];
        if (Low(in[i]) == TBCD_FILLER) {
            break;
        }
        *end++ = TBCD_CHARS[Low(in[i])];
    }
    return static_cast<int>(end - out);
}

// A replacement that brings back what it replaces would never end.
bool IsReplaceable(std::string_view from, std::string_view to) {
    return !from.empty() && to.find(from) == std::string_view::npos;
}

// Text under construction in a buffer of known size.
class TextSink {
  public:
    TextSink(char* out, size_t size) : out_(out), size_(size), length_(0), isFull_(false) {}

    void Add(const char* text, size_t length) {
        if (isFull_ || length >= size_ - length_) {
            isFull_ = true;
            return;
        }
        memcpy(out_ + length_, text, length);
        length_ += length;
    }
    // Returns the text, or null when it did not fit.
    char* End() {
        if (isFull_ || size_ == 0) {
            return nullptr;
        }
        out_[length_] = '\0';
        return out_;
    }

  private:
    char* out_;
    size_t size_;
    size_t length_;
    bool isFull_;
};

// The value that the reference "$(NAME)" at `text` stands for, or null when it is none; `end` is
// then left alone, else set behind the ")".
const char* ResolveReference(const char* text, const char** end) {
    if (text[1] != '(') {
        return nullptr;
    }
    const char* name = text + 2;
    const size_t length = strcspn(name, "()");
    if (name[length] != ')' || length == 0 || length >= MAX_ENV_NAME) {
        return nullptr;
    }
    char variable[MAX_ENV_NAME];
    memcpy(variable, name, length);
    variable[length] = '\0';
    const char* value = getenv(variable);
    if (value != nullptr) {
        *end = name + length + 1;
    }
    return value;
}

char DumpChar(unsigned char c) {
    return c >= DUMP_FIRST_SHOWN && c < DUMP_END_SHOWN ? static_cast<char>(c) : '.';
}

char* DumpLabel(char* out, unsigned long index) {
    return out + sprintf(out, "%08lx: ", index);
}

// Writes a dump and returns its end.
char* Dump(char* out, const unsigned char* data, unsigned long n) {
    constexpr char DIGITS[] = "0123456789abcdef";
    char side[DUMP_COLUMNS];
    unsigned long column = 0;
    out = DumpLabel(out, 0);
    for (unsigned long i = 0; i < n; ++i) {
        const char group[] = {DIGITS[data[i] >> NIBBLE], DIGITS[data[i] & LOW_MASK], ' ', ' '};
        out = std::copy(std::begin(group), std::end(group), out);
        side[column++] = DumpChar(data[i]);
        if (column == DUMP_COLUMNS) {
            out = std::copy(std::begin(side), std::end(side), out);
            *out++ = '\n';
            out = DumpLabel(out, i);  // the byte before, not the one to come: meant
            column = 0;
        }
    }
    // When the bytes end with a line, an empty one follows: meant.
    for (; column < DUMP_COLUMNS; ++column) {
        out = std::fill_n(out, 4, ' ');
        side[column] = '.';
    }
    out = std::copy(std::begin(side), std::end(side), out);
    *out++ = '\n';
    *out = '\0';
    return out;
}

}  // namespace

char CVEKConv::GetBCDHex(char c) {
    constexpr int LOWER_OFFSET = 'a' - 10;
    if (c >= '0' && c <= '9') {
        return static_cast<char>(c - '0');
    }
    if (c >= 'A' && c <= 'F') {
        return static_cast<char>(c - 'A' + 10);
    }
    return static_cast<char>(c - LOWER_OFFSET);
}

char CVEKConv::GetBCDChar(char v) {
    return static_cast<char>(v >= 0 && v <= 9 ? '0' + v : 'a' - 10 + v);
}

int CVEKConv::Str2BCD(char* out, const char* text) {
    char* end = out;
    if (strlen(text) % 2 == 1) {
        *end++ = GetBCDHex(*text++);
    }
    for (; *text != '\0'; text += 2) {
        *end++ = Join(HexValue(text[0]), HexValue(text[1]));
    }
    *end = '\0';
    return static_cast<int>(end - out);
}

void CVEKConv::BCD2Str(char* out, const char* in, int n) {
    constexpr char DIGITS[] = "0123456789ABCDEF";  // upper case, unlike Hex2Str: meant
    for (int i = 0; i < n; ++i) {
        *out++ = DIGITS[High(in[i])];
        *out++ = DIGITS[Low(in[i])];
    }
    *out = '\0';
}

int CVEKConv::Str2Hex(char* out, const char* text) {
    const size_t length = strlen(text);
    char* end = out;
    for (size_t i = 0; i + 1 < length; i += 2) {
        *end++ = Join(HexValue(text[i]), HexValue(text[i + 1]));
    }
    if (length == 1) {
        *end++ = GetBCDHex(text[0]);  // not shifted when it stands alone: meant
    } else if (length % 2 == 1) {
        *end++ = Join(HexValue(text[length - 1]), 0);
    }
    *end = '\0';
    return static_cast<int>(end - out);
}

void CVEKConv::Hex2Str(char* out, const char* in, int n) {
    Hex2Str(out, in, n, 0);
    out[static_cast<size_t>(n) * 2] = '\0';
}

void CVEKConv::Hex2Str(char* out, const char* in, int n, int width) {
    for (int i = 0; i < n; ++i) {
        *out++ = GetBCDChar(static_cast<char>(High(in[i])));
        *out++ = GetBCDChar(static_cast<char>(Low(in[i])));
    }
    PutBlanks(out, width - n);  // n counts bytes, not characters: meant
}

unsigned char CVEKConv::GetTBCDHex(char c) {
    const char lower = c >= 'A' && c <= 'F' ? static_cast<char>(c - 'A' + 'a') : c;
    const char* found = lower == '\0' ? nullptr : strchr(TBCD_CHARS, lower);
    return found == nullptr ? TBCD_NONE : static_cast<unsigned char>(found - TBCD_CHARS);
}

unsigned char CVEKConv::GetTBCDChar(unsigned char v) {
    return v > LOW_MASK ? TBCD_NONE : static_cast<unsigned char>(TBCD_CHARS[v]);
}

int CVEKConv::Str2TBCD(char* out, const char* text) {
    // High nibble first, not swapped as telephone networks do: meant.
    char* end = out;
    for (; *text != '\0'; ++text) {
        const unsigned high = GetTBCDHex(*text);
        if (text[1] == '\0') {
            *end++ = Join(high, TBCD_FILLER);
            break;
        }
        *end++ = Join(high, GetTBCDHex(*++text) & LOW_MASK);
    }
    *end = '\0';
    return static_cast<int>(end - out);
}

int CVEKConv::TBCD2Str(char* out, const char* in, int n) {
    const int length = DecodeTBCD(out, in, n);
    out[length] = '\0';
    return length;
}

int CVEKConv::TBCD2Str(char* out, const char* in, int n, int width) {
    const int length = DecodeTBCD(out, in, n);
    PutBlanks(out + length, width - length);
    return std::max(length, width);
}

void CVEKConv::MiddleNibbleToStr(char* out, const char* in, int n) {
    for (int i = 0; i + 1 < n; ++i) {
        out[i] = static_cast<char>(out[i] | Join(Low(in[i]), High(in[i + 1])));
    }
    out[n - 1] = '\0';
}

void CVEKConv::LastNibbleToStr(char* out, const char* in, int n) {
    memcpy(out, in, static_cast<size_t>(n));
    out[0] = static_cast<char>(Low(in[0]));
    out[n] = '\0';
}

void CVEKConv::FirstNibbleToStr(char* out, const char* in, int n) {
    memcpy(out, in, static_cast<size_t>(n));
    out[n - 1] = Join(High(in[n - 1]), 0);
    out[n] = '\0';
}

void CVEKConv::FirstNibbleToNum(char* out, const char* in, int n) {
    for (int i = 0; i < n; ++i) {
        out[i] = static_cast<char>(Byte(out[i]) | High(in[i]));
        out[i + 1] = static_cast<char>(out[i + 1] | Join(Low(in[i]), 0));
    }
    out[n] = '\0';  // drops the last low nibble: meant
}

void CVEKConv::ResultForFirstNibble(char* out, const char* in, int n) {
    for (int i = 0; i < n; ++i) {
        out[i] = Join(Low(in[i]), i + 1 < n ? High(in[i + 1]) : 0);
    }
    out[n] = '\0';
}

void CVEKConv::ResultForLastNibble(char* out, const char* in, int n) {
    for (int i = 0; i < n; ++i) {
        if (i > 0) {
            out[i] = static_cast<char>(Byte(out[i]) | (Byte(in[i]) & HIGH_MASK));
        }
        out[i] = Join(High(out[i]), Low(in[i]));
    }
    out[n] = '\0';
}

void CVEKConv::ResultForMiddleNibble(char* out, const char* in, int n) {
    for (int i = 0; i + 1 < n; ++i) {
        out[i] = Join(High(out[i]), High(in[i]));
        out[i + 1] = Join(Low(in[i]), Low(out[i + 1]));
    }
    out[n] = '\0';
}

int CVEKConv::Str2Int(const char* s, int n) {
    const size_t wanted = n > 0 ? static_cast<size_t>(n) : 0;
    const size_t length = strnlen(s, std::min(wanted, MAX_FIELD - 1));
    char field[MAX_FIELD];
    memcpy(field, s, length);
    field[length] = '\0';
    return static_cast<int>(strtol(field, nullptr, 10));
}

const char* CVEKConv::Int2Str(int v) {
    static char text[16];
    snprintf(text, sizeof text, "%d", v);
    return text;
}

char* CVEKConv::NumToStrWithComma(char* out, long v) {
    const unsigned long magnitude =
        v < 0 ? 0UL - static_cast<unsigned long>(v) : static_cast<unsigned long>(v);
    char digits[24];
    const int count = snprintf(digits, sizeof digits, "%lu", magnitude);
    char* end = out;
    if (v < 0) {
        *end++ = '-';
    }
    for (int i = 0; i < count; ++i) {
        if (i > 0 && (count - i) % 3 == 0) {
            *end++ = ',';
        }
        *end++ = digits[i];
    }
    *end = '\0';
    return out;
}

long CVEKConv::Str2Time(const char* s) {
    constexpr size_t LENGTH = 14;
    if (strlen(s) != LENGTH) {
        return 0;
    }
    tm local{};
    local.tm_year = Str2Int(s, 4) - 1900;
    local.tm_mon = Str2Int(s + 4, 2) - 1;
    local.tm_mday = Str2Int(s + 6, 2);
    local.tm_hour = Str2Int(s + 8, 2);
    local.tm_min = Str2Int(s + 10, 2);
    local.tm_sec = Str2Int(s + 12, 2);
    local.tm_isdst = 0;
    return VEK_MAKE_LOCAL_TIME(local);
}

void CVEKConv::Time2Str(char* out, long t) {
    constexpr size_t SIZE = 22;
    const tm local = VEK_GET_LOCAL_TIME(t);
    char text[64];
    snprintf(text, sizeof text, "%04ld%02d%02d%02d%02d%02d", local.tm_year + 1900L,
             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    memcpy(out, text, std::min(strlen(text) + 1, SIZE));
}

int CVEKConv::Str2Ipv4(char* out, const char* text) {
    const in_addr_t addr = inet_addr(text);
    if (addr == INADDR_NONE) {
        return 0;
    }
    memcpy(out, &addr, sizeof addr);
    out[sizeof addr] = '\0';
    return 1;
}

void CVEKConv::Ipv42Str(char* out, unsigned int addr) {
    inet_ntop(AF_INET, &addr, out, INET_ADDRSTRLEN);
}

void CVEKConv::ChangeByteOrder(unsigned char* buf, unsigned long n) {
    std::reverse(buf, buf + n);
}

char* CVEKConv::RTrim(char* s) {
    size_t length = strlen(s);
    while (length > 0 && (s[length - 1] == ' ' || s[length - 1] == '\t')) {
        --length;
    }
    s[length] = '\0';
    return s;
}

char* CVEKConv::LTrim(char* s) {
    return s + strspn(s, " \t");
}

char* CVEKConv::Trim(char* s) {
    return LTrim(RTrim(s));
}

char* CVEKConv::StrReplace(const char* src, const char* from, const char* to, char* out) {
    const std::string text = StrReplace(std::string(src), std::string(from), to);
    memcpy(out, text.c_str(), text.size() + 1);
    return out;
}

std::string CVEKConv::StrReplace(const std::string& src, const std::string& from, const char* to) {
    std::string text = src;
    if (!IsReplaceable(from, to)) {
        return text;
    }
    for (size_t at = text.find(from); at != std::string::npos; at = text.find(from)) {
        text.replace(at, from.size(), to);
    }
    return text;
}

char* CVEKConv::EnvReplace(char* out, const char* in) {
    return EnvReplace(out, SIZE_MAX, in);
}

char* CVEKConv::EnvReplace(char* out, size_t size, const char* in) {
    TextSink unchanged(out, size);
    TextSink replaced(out, size);
    for (const char* rest = in; *rest != '\0';) {
        if (*rest != '$') {
            replaced.Add(rest++, 1);
            continue;
        }
        const char* value = ResolveReference(rest, &rest);
        if (value == nullptr) {  // all references or none
            unchanged.Add(in, strlen(in));
            return unchanged.End();
        }
        replaced.Add(value, strlen(value));
    }
    return replaced.End();
}

int CVEKConv::HexaDump(char* out, const unsigned char* data, int n) {
    return static_cast<int>(Dump(out, data, static_cast<unsigned long>(n)) - out);
}

const char* CVEKConv::HexaDump(std::string& out, const unsigned char* data, unsigned long n) {
    out.resize(GetHexaDumpSize(n));
    out.resize(static_cast<size_t>(Dump(out.data(), data, n) - out.data()));
    return out.c_str();
}
