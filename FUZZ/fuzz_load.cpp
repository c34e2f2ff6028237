// What vekload reads: scenarios, which are then gone through with any answer, runs to be merged, and
// texts. What was taken is the same again when it is written and read once more.
#include <sys/mman.h>
#include <unistd.h>
#include <zlib.h>

#include "CVEKLoadScenarioReader.h"
#include "CVEKLoadTerm.h"
#include "Fuzz.h"
#include "VEKHttp2UpgradeText.h"
#include "VEKLoadInput.h"
#include "VEKLoadJson.h"
#include "VEKLoadText.h"
#include "VEKLoadUrl.h"

namespace {

using nlohmann::json;

constexpr char SCENARIO[] = R"json({"url": "http://a", "variables": {"c": {"counter": {"start": 1, "step": 2}},
"r": {"range": {"from": 1, "to": 9}}, "n": {"random": {"from": 1, "to": 9}}, "t": {"random": ["x", "y"]}},
"flows": [{"name": "f", "weight": 1, "steps": [{"name": "s", "method": "PUT", "path": "/{{c}}", "headers": {"a": "{{t}}"},
"body": {"n": "{{n}}"}, "think": {"min": "1ms", "max": "2s"}, "extract": {"e": {"json": "/a"}, "h": {"header": "a"},
"k": {"cookie": "b"}, "x": {"regex": "a(.)"}}, "expect": {"status": ["2xx", 404], "headers": {"a": "b"}, "json":
{"/a": "{{r}}", "/b": [1]}, "contains": ["a"]}}]}, {"weight": 3, "steps": [{"path": "/{{r}}", "think": "1s"}]}]})json";

VEK_ST_LOAD_SUMMARY MakeRun() {
    VEK_ST_LOAD_SUMMARY run;
    VEK_ST_LOAD_COUNTS& counts = run.total_;
    counts.sent_ = counts.answered_ = counts.statuses_[503] = counts.unexpected_["a"] = 1;
    counts.latency_.Record(5000000), counts.service_.Record(4000000), counts.firstByte_.Record(3000000);
    run.lengthNs_ = 1000000000;
    run.commands_ = {"vekload"};
    run.steps_ = {{"a", counts}};
    run.connections_.tcp_ = counts.latency_;
    run.seconds_.push_back({1, 1, 0, 0, VEK_ST_LOAD_PACKED::Pack(counts.latency_)});
    run.connections_.slots_.resize(1), run.verdicts_.resize(1), run.ranks_.rows_.resize(run.ranks_.count_ = 1);
    return run;
}

// The document with values put in the place of others, or any text.
std::string TakeDocument(FuzzedDataProvider& input, const std::string& base) {
    if (input.ConsumeBool()) { return input.ConsumeRandomLengthString(); }
    json document = json::parse(base);
    const json flat = document.flatten();
    for (int i = input.ConsumeIntegralInRange(0, 5); i > 0; --i) {
        const auto place = std::next(flat.begin(), input.ConsumeIntegralInRange<long>(0, long(flat.size()) - 1));
        json::json_pointer pointer(place.key());
        for (int up = input.ConsumeIntegralInRange(0, 3); up > 0; --up) { pointer = pointer.parent_pointer(); }
        const std::string text = input.ConsumeRandomLengthString();
        const json value = json::parse(text, nullptr, false);
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
    std::vector<std::string> values = scenario.MakeValues(number, number);
    VEK_ST_HTTP_RESPONSE response;
    response.fields_ = {{"a", "b"}, {"set-cookie", "b=c; d"}};
    response.body_ = input.ConsumeRemainingBytesAsString();
    for (const VEK_ST_LOAD_STAGE& stage : scenario.flows_[scenario.Choose(number)].stages_) {
        CVEKLoadAnswer answer(response);
        stage.Render(values);
        for (const auto& expectation : stage.expectations_) { expectation.Check(answer, values, error); }
        for (const auto& extractor : stage.extractors_) {
            if (extractor.Extract(answer, value, error)) { values[extractor.GetVariable()] = value; }
        }
    }
}

void CheckTable(const std::string& text) {
    CVEKLoadCsv table, again;
    std::string error, written;
    if (!table.Parse(text, error)) { return Require(!error.empty()); }
    auto rows = table.GetRows();
    rows.insert(rows.begin(), table.GetColumns());
    for (const CVEKLoadCsv::Row& row : rows) {
        Require(row.size() == rows[0].size());
        for (const std::string& field : row) { written += VEK_LOAD_CSV_TEXT(field) + ","; }
        written.back() = '\n';
    }
    Require(again.Parse(written, error) && again.GetColumns() == rows[0] && again.GetRows() == table.GetRows());
}

void CheckText(const std::string& text) {
    std::chrono::microseconds time{0};
    VEK_LOAD_READ_TIME(text, time);
    std::string error, host;
    VEK_ST_LOAD_URL url, again;
    VEK_LOAD_READ_HOST(text, host, url.port_, 443, error);
    if (VEK_LOAD_READ_URL(text, url, error)) {
        Require(VEK_LOAD_READ_URL((url.isTls_ ? "https://" : "http://") + url.authority_ + url.path_, again, error));
        Require(again.host_ == url.host_ && again.port_ == url.port_ && again.path_ == url.path_);
    }
    CVEKLoadTerm term;
    if (term.Parse(text, error = "")) { term.Judge(MakeRun()); }
}

// The counts within their frame, which no change of the packed text would come upon.
void CheckHistogram(const std::string& counts, uint64_t min, uint64_t max) {
    const auto number = [](size_t n) { return std::string{char(n >> 24), char(n >> 16), char(n >> 8), char(n)}; };
    const std::string payload = number(0x1c849313) + number(counts.size()) + number(0) + number(3) + number(0) +
                                number(1) + std::string(16, '\0') + counts;
    std::string packed(compressBound(payload.size()), '\0');
    uLongf size = packed.size();
    compress(reinterpret_cast<Bytef*>(packed.data()), &size, reinterpret_cast<const Bytef*>(payload.data()),
             payload.size());
    packed = number(0x1c849314) + number(size) + packed.substr(0, size);
    const std::string text = VEK_BASE64_ENCODE(packed.data(), packed.size());
    CVEKLoadHistogram histogram, again;
    if (!VEK_ST_LOAD_PACKED{min, max, std::to_string(min), std::to_string(max), text}.Unpack(histogram)) { return; }
    histogram.GetDeviation(), histogram.GetPercentile(99), histogram.GetCountUpTo(max);
    Require(VEK_ST_LOAD_PACKED::Pack(histogram).Unpack(again) && again == histogram);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    VEK_ST_LOAD_SUMMARY run;
    std::string error;
    Require(VEK_LOAD_READ_JSON(VEK_LOAD_WRITE_JSON(MakeRun()), run, error));
    return freopen("/dev/null", "r", stdin) == nullptr;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string RUN = VEK_LOAD_WRITE_JSON(MakeRun());
    FuzzedDataProvider input(data, size);
    const auto kind = input.ConsumeIntegral<uint8_t>();
    if (kind % 3 == 0) { return CheckRun(TakeDocument(input, RUN)), 0; }
    if (kind % 3 == 1) { return CheckScenario(TakeDocument(input, SCENARIO), input), 0; }
    const auto min = input.ConsumeIntegral<uint16_t>(), max = input.ConsumeIntegral<uint16_t>();
    const std::string text = input.ConsumeRemainingBytesAsString();
    CheckText(text), CheckTable(text), CheckHistogram(text, min, max);
    return 0;
}
