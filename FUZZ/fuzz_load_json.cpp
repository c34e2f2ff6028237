// What vekload reads as JSON: scenarios, which are then gone through with any answer, and runs to be
// merged. An input is any text, or a document that is right with other values put into it.
#include <sys/mman.h>
#include <unistd.h>

#include "CVEKLoadScenarioReader.h"
#include "Fuzz.h"
#include "VEKLoadJson.h"
#include "VEKLoadText.h"

namespace {

using nlohmann::json;

constexpr char SCENARIO[] = R"json({"url": "http://a", "variables": {"c": {"counter": {"start": 1, "step": 2}},
"r": {"range": {"from": 1, "to": 9}}, "n": {"random": {"from": 1, "to": 9}}, "t": {"random": ["x", "y"]}},
"flows": [{"name": "f", "weight": 1, "steps": [{"name": "s", "method": "PUT", "path": "/{{c}}", "headers": {"a": "{{t}}"},
"body": {"n": "{{n}}"}, "think": {"min": "1ms", "max": "2s"}, "extract": {"e": {"json": "/a"}, "h": {"header": "a"},
"k": {"cookie": "b"}, "x": {"regex": "a(.)"}}, "expect": {"status": ["2xx", 404], "headers": {"a": "b"}, "json":
{"/a": "{{r}}", "/b": [1]}, "contains": ["a"]}}]}, {"weight": 3, "steps": [{"path": "/{{r}}", "think": "1s"}]}]})json";

std::string MakeRun() {
    VEK_ST_LOAD_SUMMARY summary;
    VEK_ST_LOAD_COUNTS& counts = summary.total_;
    counts.sent_ = counts.answered_ = counts.statuses_[200] = counts.causes_["reset"] = counts.unexpected_["a"] = 1;
    counts.latency_.Record(1000);
    summary.commands_ = {"vekload"};
    summary.steps_ = {{"a", counts}};
    summary.connections_.tcp_ = counts.latency_;
    summary.connections_.slots_.resize(1);
    summary.seconds_.resize(1);
    summary.verdicts_.resize(1);
    return VEK_LOAD_WRITE_JSON(summary);
}

// The document with values put in the place of others, or the text itself.
std::string TakeDocument(FuzzedDataProvider& input, const std::string& base) {
    if (input.ConsumeBool()) { return input.ConsumeRandomLengthString(); }
    json document = json::parse(base);
    const json flat = document.flatten();
    for (int i = input.ConsumeIntegralInRange(0, 5); i > 0; --i) {
        const auto place =
            std::next(flat.begin(), input.ConsumeIntegralInRange<int>(0, static_cast<int>(flat.size()) - 1));
        json::json_pointer pointer(place.key());
        for (int up = input.ConsumeIntegralInRange(0, 3); up > 0; --up) { pointer = pointer.parent_pointer(); }
        const std::string text = input.ConsumeRandomLengthString();
        json value = json::parse(text, nullptr, false);
        try {
            document[pointer] = value.is_discarded() ? json(text) : value;
        } catch (const json::exception&) {}  // one before has taken the place away
    }
    return document.dump(-1, ' ', false, json::error_handler_t::replace);
}

void CheckRun(const std::string& text) {
    VEK_ST_LOAD_SUMMARY summary, again;
    std::string error;
    if (!VEK_LOAD_READ_JSON(text, summary, error)) { return Require(!error.empty()); }
    const std::string written = VEK_LOAD_WRITE_JSON(summary);
    Require(VEK_LOAD_READ_JSON(written, again, error) && VEK_LOAD_WRITE_JSON(again) == written);
    again.Add(summary);
    VEK_LOAD_WRITE_TEXT(again, true), VEK_LOAD_WRITE_JSON(again);
    for (const VEK_ST_LOAD_SECOND& second : again.seconds_) { VEK_LOAD_CSV_LINE(0, second); }
}

void CheckScenario(const std::string& text, FuzzedDataProvider& input) {
    static const int FILE = memfd_create("scenario", 0);
    Require(ftruncate(FILE, 0) == 0 && pwrite(FILE, text.data(), text.size(), 0) >= 0);
    VEK_ST_LOAD_SCENARIO scenario;
    std::string error, value;
    if (!CVEKLoadScenarioReader().Read("/proc/self/fd/" + std::to_string(FILE), scenario, error)) {
        return Require(!error.empty());
    }
    const auto number = input.ConsumeIntegral<uint64_t>();
    const VEK_ST_LOAD_FLOW& flow = scenario.flows_[scenario.Choose(number)];
    std::vector<std::string> values = scenario.MakeValues(number, number);
    scenario.CountOf(scenario.flows_.size() - 1, number), scenario.GetLimit();
    VEK_ST_HTTP_RESPONSE response;
    response.fields_ = {{"a", "b"}, {"set-cookie", "b=c; d"}};
    response.body_ = input.ConsumeRemainingBytesAsString();
    for (const VEK_ST_LOAD_STAGE& stage : flow.stages_) {
        CVEKLoadAnswer answer(response);
        stage.path_.Render(values), stage.body_.Render(values), stage.authority_.Render(values);
        for (const auto& [name, field] : stage.fields_) { field.Render(values); }
        for (const auto& expectation : stage.expectations_) { expectation.Check(answer, values, error); }
        for (const auto& extractor : stage.extractors_) {
            if (extractor.Extract(answer, value, error)) { values[extractor.GetVariable()] = value; }
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return freopen("/dev/null", "r", stdin) == nullptr; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string RUN = MakeRun();
    FuzzedDataProvider input(data, size);
    if (input.ConsumeBool()) {
        CheckRun(TakeDocument(input, RUN));
    } else {
        CheckScenario(TakeDocument(input, SCENARIO), input);
    }
    return 0;
}
