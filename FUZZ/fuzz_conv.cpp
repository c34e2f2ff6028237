// Conversions there and back, into buffers of the documented sizes.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "CVEKConv.h"
#include "FuzzInput.h"

namespace {

void CheckDigits(const std::string& bytes) {
    const int n = static_cast<int>(bytes.size());
    const auto text = MakeBuffer(bytes.size() * 2 + 1);
    const auto back = MakeBuffer(bytes.size() + 1);
    CVEKConv::BCD2Str(text.get(), bytes.data(), n);
    Require(CVEKConv::Str2BCD(back.get(), text.get()) == n);
    Require(memcmp(back.get(), bytes.data(), bytes.size()) == 0);
    CVEKConv::Hex2Str(text.get(), bytes.data(), n);
    Require(CVEKConv::Str2Hex(back.get(), text.get()) == n);
    Require(memcmp(back.get(), bytes.data(), bytes.size()) == 0);
    CVEKConv::TBCD2Str(text.get(), bytes.data(), n);
}

void CheckTBCD(std::string text) {
    for (auto pack : {CVEKConv::Str2BCD, CVEKConv::Str2Hex, CVEKConv::Str2TBCD}) {
        pack(MakeBuffer((text.size() + 1) / 2 + 1).get(), text.c_str());
    }
    std::replace_if(
        text.begin(), text.end(), [](char c) { return CVEKConv::GetTBCDHex(c) > 14; }, '7');
    const auto bytes = MakeBuffer((text.size() + 1) / 2 + 1);
    const int n = CVEKConv::Str2TBCD(bytes.get(), text.c_str());
    const auto back = MakeBuffer(static_cast<size_t>(n) * 2 + 1);
    CVEKConv::TBCD2Str(back.get(), bytes.get(), n);
    Require(strcasecmp(back.get(), text.c_str()) == 0);
}

void CheckNumbers(FuzzedDataProvider& input) {
    const long number = input.ConsumeIntegral<long>();
    const auto text = MakeBuffer(27);
    std::string digits = CVEKConv::NumToStrWithComma(text.get(), number);
    digits.erase(std::remove(digits.begin(), digits.end(), ','), digits.end());
    Require(digits == std::to_string(number));
    CVEKConv::Time2Str(MakeBuffer(22).get(), number);
    const long year0To9999 = number % 157784760000 + 94670856000;
    const auto time = MakeBuffer(15);
    CVEKConv::Time2Str(time.get(), year0To9999);
    Require(CVEKConv::Str2Time(time.get()) == year0To9999);
}

void CheckText(const std::string& text, const std::string& from) {
    const auto out = MakeBuffer(text.size() + 1);
    CVEKConv::StrReplace(text.c_str(), from.c_str(), "", out.get());
    Require(CVEKConv::StrReplace(text, from, "") == out.get());
    Require(from.empty() || strstr(out.get(), from.c_str()) == nullptr);
    const auto expanded = MakeBuffer(text.size() * 64 + 1);
    const size_t size = strlen(CVEKConv::EnvReplace(expanded.get(), text.c_str())) + 1;
    const auto exact = MakeBuffer(size);
    Require(strcmp(CVEKConv::EnvReplace(exact.get(), size, text.c_str()), expanded.get()) == 0);
    Require(CVEKConv::EnvReplace(exact.get(), size - 1, text.c_str()) == nullptr);
    const auto* data = reinterpret_cast<const unsigned char*>(text.data());
    const auto dump = MakeBuffer(CVEKConv::GetHexaDumpSize(text.size()));
    CVEKConv::HexaDump(dump.get(), data, static_cast<int>(text.size()));
    std::string other;
    Require(strcmp(CVEKConv::HexaDump(other, data, text.size()), dump.get()) == 0);
    CVEKConv::Str2Int(text.c_str(), static_cast<int>(from.size()));
    CVEKConv::Str2Time(text.c_str());
    memcpy(out.get(), text.c_str(), text.size() + 1);
    CVEKConv::Trim(out.get());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    setenv("TZ", "UTC", 1);
    setenv("A", "the value of a variable", 1);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    CheckNumbers(input);
    CheckDigits(input.ConsumeRandomLengthString(600));
    CheckTBCD(TakeText(input));
    const std::string from = TakeText(input);
    CheckText(TakeText(input), from);
    return 0;
}
