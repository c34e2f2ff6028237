// Pictures of times and dates, field splitters and the JSON formatter.
#include <cstdint>
#include <cstring>
#include <vector>

#include "CVEKDate.h"
#include "CVEKDirectory.h"
#include "CVEKTime.h"
#include "CVEKUtil.h"
#include "FuzzInput.h"

namespace {

void CheckPictures(FuzzedDataProvider& input) {
    const long number = input.ConsumeIntegral<long>();
    const std::string picture = input.ConsumeRandomLengthString(40);
    const std::string value = input.ConsumeRandomLengthString(40);
    const auto out = MakeBuffer(33);
    CVEKTime t(number);
    t.AscTime(picture.c_str(), out.get());
    t.AscGMTime(out.get(), static_cast<int>(picture.size() % 33));
    CVEKTime::MakeTime(picture.c_str(), value.c_str());
    CVEKDate date(value.c_str());
    date = value.c_str();
    date.AscDate(picture.c_str());
    date = number;
    const auto text = MakeBuffer(32);
    date.GetDate(text.get());
    const auto digits = MakeBuffer(9);
    date = 1721426 + (number & 0x1FFFFF);  // from year 1 on
    date.GetDate(digits.get());
    Require(CVEKDate(digits.get()) == date && date.GetDayOfWeek() < 7);
}

void CheckFields(const std::string& line, char sep) {
    std::vector<std::string> fields;
    const int count = CVEKUtil::ParseCSV(line.c_str(), sep, &fields);
    std::vector<std::unique_ptr<char[]>> buffers;
    std::vector<char*> out;
    for (int i = 0; i < count; ++i) {
        buffers.push_back(MakeBuffer(CVEKUtil::FIELD_SIZE));
        out.push_back(buffers.back().get());
    }
    Require(CVEKUtil::ParseCSV(line.c_str(), sep, out.data()) == count);
    for (size_t i = 0; i < fields.size(); ++i) {
        Require(fields[i].substr(0, CVEKUtil::FIELD_SIZE - 1) == out[i]);
    }
}

void CheckTokens(const std::string& text, const std::string& delims) {
    std::vector<std::string> tokens;
    CVEKUtil::ParseCSV(text, delims.c_str(), tokens);
    for (const std::string& token : tokens) {
        Require(!token.empty() && token.find_first_of(delims) == std::string::npos);
    }
    CVEKDirectory directory;
    directory.Set(text.c_str(), delims.c_str());
    directory.Filtering(text.c_str());
}

// Formatting what is formatted changes nothing.
void CheckJSON(const std::string& json) {
    std::string once;
    CVEKUtil::JSONPrettyFormatting(json.c_str(), once);
    std::string twice;
    CVEKUtil::JSONPrettyFormatting(once.c_str(), twice);
    Require(once == twice);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    CheckPictures(input);
    const char sep = input.ConsumeIntegral<char>();
    const std::string text = TakeText(input);
    CheckFields(text, sep);
    CheckJSON(text);
    CheckTokens(text, TakeText(input));
    return 0;
}
