// What vekload reads as texts, with any of them: URLs, hosts, times, terms, templates, tables and
// packed histograms. What was taken is the same again when it is written and read once more.
#include <zlib.h>

#include "CVEKLoadCsv.h"
#include "CVEKLoadScenarioReader.h"
#include "CVEKLoadTerm.h"
#include "Fuzz.h"
#include "VEKHttp2UpgradeText.h"
#include "VEKLoadHdr.h"
#include "VEKLoadText.h"
#include "VEKLoadUrl.h"

namespace {

void CheckUrl(const std::string& text) {
    VEK_ST_LOAD_URL url, again;
    std::string error, host;
    uint16_t port = 0;
    VEK_LOAD_READ_HOST(text, host, port, 443, error);
    if (!VEK_LOAD_READ_URL(text, url, error)) { return; }
    Require(VEK_LOAD_READ_URL((url.isTls_ ? "https://" : "http://") + url.authority_ + url.path_, again, error));
    Require(again.host_ == url.host_ && again.port_ == url.port_ && again.path_ == url.path_);
}

void CheckTable(const std::string& text) {
    CVEKLoadCsv table, again;
    std::string error, written;
    if (!table.Parse(text, error)) { return Require(!error.empty()); }
    const auto write = [&](const CVEKLoadCsv::Row& row) {
        Require(row.size() == table.GetColumns().size());
        for (size_t i = 0; i < row.size(); ++i) { written += (i == 0 ? "" : ",") + VEK_LOAD_CSV_TEXT(row[i]); }
        written += "\n";
    };
    write(table.GetColumns());
    for (const auto& row : table.GetRows()) { write(row); }
    Require(again.Parse(written, error) && again.GetColumns() == table.GetColumns() &&
            again.GetRows() == table.GetRows());
}

void CheckTerm(const std::string& text) {
    VEK_ST_LOAD_SUMMARY summary;
    summary.lengthNs_ = 1000000000;
    summary.total_.sent_ = summary.total_.answered_ = summary.total_.statuses_[503] = 1;
    summary.total_.latency_.Record(5000000);
    CVEKLoadTerm term;
    std::string error;
    term.Parse(text, error) ? void(term.Judge(summary)) : Require(!error.empty());
}

void CheckTemplate(const std::string& text) {
    CVEKLoadNames names;
    names.Add("a");
    CVEKLoadTemplate parsed;
    std::string error;
    const bool isGood = parsed.Parse(text, names, error);
    Require(!isGood || parsed.HasVariables() || parsed.Render({}) == text);
    Require(!isGood || parsed.Render({"{{a}}"}) == text);
}

// The counts within their frame, which no change of the packed text would come upon.
void CheckHistogram(const std::string& counts, uint64_t min, uint64_t max) {
    const auto number = [](uint32_t value) {
        const char bytes[] = {char(value >> 24), char(value >> 16), char(value >> 8), char(value)};
        return std::string(bytes, sizeof bytes);
    };
    const std::string payload = number(0x1c849313) + number(static_cast<uint32_t>(counts.size())) + number(0) +
                                number(3) + number(0) + number(1) + std::string(16, '\0') + counts;
    std::string packed(compressBound(payload.size()), '\0');
    uLongf size = packed.size();
    compress(reinterpret_cast<Bytef*>(packed.data()), &size, reinterpret_cast<const Bytef*>(payload.data()),
             payload.size());
    packed = number(0x1c849314) + number(static_cast<uint32_t>(size)) + packed.substr(0, size);
    const std::string text = VEK_BASE64_ENCODE(packed.data(), packed.size());
    CVEKLoadHistogram histogram, again;
    if (!VEK_ST_LOAD_PACKED{min, max, std::to_string(min), std::to_string(max), text}.Unpack(histogram)) { return; }
    histogram.GetDeviation(), histogram.GetPercentile(99), histogram.GetCountUpTo(max);
    Require(VEK_ST_LOAD_PACKED::Pack(histogram).Unpack(again) && again == histogram);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzedDataProvider input(data, size);
    const auto min = input.ConsumeIntegral<uint16_t>(), max = input.ConsumeIntegral<uint16_t>();
    const std::string text = input.ConsumeRemainingBytesAsString();
    std::chrono::microseconds time{0};
    std::vector<uint64_t> buckets;
    VEK_LOAD_READ_TIME(text, time), VEK_LOAD_DECODE_HDR(text, buckets);
    CheckUrl(text), CheckTable(text), CheckTerm(text), CheckTemplate(text), CheckHistogram(text, min, max);
    return 0;
}
