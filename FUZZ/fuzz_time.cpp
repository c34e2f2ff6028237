// The date and time functions with any number, picture and value, into buffers of the documented
// sizes, and there and back.
#include "CVEKConv.h"
#include "CVEKDate.h"
#include "CVEKTime.h"
#include "Fuzz.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const auto number = input.ConsumeIntegral<long>();
    const std::string picture = TakeText(input, 40), value = TakeText(input, 40);
    const auto out = Buffer(33);
    CVEKTime(number).AscTime(picture.c_str(), out.get());
    CVEKTime(number).AscGMTime(out.get(), static_cast<int>(picture.size() % 33));
    CVEKTime::MakeTime(picture.c_str(), value.c_str());
    CVEKConv::Time2Str(Buffer(22).get(), number);
    CVEKDate date(value.c_str());
    date.AscDate(picture.c_str());
    date = number;
    date.GetDate(Buffer(32).get());
    date = 1721426 + (number & 0x1FFFFF);  // from year 1 on
    Require(CVEKDate(date()) == date);
    return 0;
}
