// The text functions with any text, into buffers of the documented sizes, and there and back.
#include <cstring>

#include "CVEKConv.h"
#include "CVEKUtil.h"
#include "Fuzz.h"

namespace {

void CheckDigits(const std::string& bytes) {
    const int n = static_cast<int>(bytes.size());
    const auto text = Buffer(bytes.size() * 2 + 1), back = Buffer(bytes.size() + 1);
    CVEKConv::BCD2Str(text.get(), bytes.data(), n);
    Require(CVEKConv::Str2BCD(back.get(), text.get()) == n && bytes.compare(back.get()) == 0);
    CVEKConv::Hex2Str(text.get(), bytes.data(), n);
    Require(CVEKConv::Str2Hex(back.get(), text.get()) == n && bytes.compare(back.get()) == 0);
    for (auto pack : {CVEKConv::Str2BCD, CVEKConv::Str2Hex, CVEKConv::Str2TBCD}) {
        const auto packed = Buffer((bytes.size() + 1) / 2 + 1);
        CVEKConv::TBCD2Str(text.get(), packed.get(), pack(packed.get(), bytes.c_str()));
    }
    Require(bytes.find_first_not_of("0123456789*#abc") < bytes.size() || bytes == text.get());
}

void CheckText(const std::string& text, const std::string& from) {
    const auto out = Buffer(text.size() + 1);
    CVEKConv::StrReplace(text.c_str(), from.c_str(), "", out.get());
    Require(CVEKConv::StrReplace(text, from, "") == out.get());
    Require(from.empty() || strstr(out.get(), from.c_str()) == nullptr);
    const auto expanded = Buffer(text.size() * 8 + 1);
    const size_t size = strlen(CVEKConv::EnvReplace(expanded.get(), text.c_str())) + 1;
    const auto exact = Buffer(size);
    Require(strcmp(CVEKConv::EnvReplace(exact.get(), size, text.c_str()), expanded.get()) == 0);
    const auto dump = Buffer(CVEKConv::GetHexaDumpSize(text.size()));
    CVEKConv::HexaDump(dump.get(), reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
}

void CheckFields(const std::string& text, char sep) {
    std::vector<std::string> fields;
    std::vector<std::unique_ptr<char[]>> buffers(text.size() + 1);
    std::vector<char*> out(buffers.size());
    for (size_t i = 0; i < buffers.size(); ++i) {
        buffers[i] = Buffer(CVEKUtil::FIELD_SIZE);
        out[i] = buffers[i].get();
    }
    const int count = CVEKUtil::ParseCSV(text.c_str(), sep, &fields);
    Require(CVEKUtil::ParseCSV(text.c_str(), sep, out.data()) == count);
    std::string once;
    CVEKUtil::JSONPrettyFormatting(text.c_str(), once);
    std::string twice;
    CVEKUtil::JSONPrettyFormatting(once.c_str(), twice);
    Require(once == twice);  // what is formatted stays as it is
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const auto sep = input.ConsumeIntegral<char>();
    const std::string from = TakeText(input, 40), text = TakeText(input, 600);
    setenv("A", "the value of a variable", 1);
    CheckDigits(text);
    CheckText(text, from);
    CheckFields(text, sep);
    return 0;
}
