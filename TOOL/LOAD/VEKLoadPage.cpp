#include "VEKLoadPage.h"

#include <algorithm>
#include <cmath>
#include <nlohmann/json.hpp>

#include "VEKLoadAssets.h"
#include "VEKLoadJson.h"
#include "VEKLoadText.h"
#include "VEKLoadUnit.h"

namespace {

void Replace(std::string& text, const std::string& mark, const std::string& with) {
    const size_t at = text.find(mark);
    if (at != std::string::npos) {
        text.replace(at, mark.size(), with);
    }
}

// No tag can begin within it.
std::string ForScript(std::string json) {
    for (size_t at = 0; (at = json.find('<', at)) != std::string::npos;) {
        json.replace(at, 1, "\\u003c");
    }
    return json;
}

std::string ForHtml(const std::string& text) {
    std::string html;
    for (const char c : text) {
        html += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '>' ? "&gt;" : std::string(1, c);
    }
    return html;
}

// [nines, ms]: one nine is 90 %, two are 99 %.
nlohmann::json MakeCurve(const CVEKLoadHistogram& latency) {
    constexpr double STEP = 0.05;
    nlohmann::json points = nlohmann::json::array();
    const auto count = static_cast<double>(latency.GetCount());
    for (double nines = 0; count > 0 && std::pow(10, -nines) * count >= 1; nines += STEP) {
        const double percent = 100 * (1 - std::pow(10, -nines));
        points.push_back(
            {nines, static_cast<double>(latency.GetPercentile(percent)) / VEK_LOAD_NS_PER_MS});
    }
    return points;
}

// [label, count]: bars of one width on a logarithmic axis.
nlohmann::json MakeBars(const CVEKLoadHistogram& latency) {
    constexpr double WIDTH = 1.1220184543019633;  // 20 of them are a power of ten
    nlohmann::json bars = nlohmann::json::array();
    auto high = static_cast<double>(std::max<uint64_t>(latency.GetMin(), 1));
    for (uint64_t seen = 0; seen < latency.GetCount(); high *= WIDTH) {
        const uint64_t upTo = latency.GetCountUpTo(static_cast<uint64_t>(high));
        bars.push_back({VEK_LOAD_FORMAT_NS(high), upTo - seen});
        seen = upTo;
    }
    return bars;
}

}  // namespace

std::string VEK_LOAD_WRITE_PAGE(const VEK_ST_LOAD_SUMMARY& summary) {
    std::string page = VEK_LOAD_PAGE_TEXT;
    const nlohmann::json curves = {{"curve", MakeCurve(summary.total_.latency_)},
                                   {"service", MakeCurve(summary.total_.service_)},
                                   {"bars", MakeBars(summary.total_.latency_)}};
    // From behind, so that nothing that was put in is taken for a mark.
    Replace(page, "@CURVES@", curves.dump());
    Replace(page, "@RUN@", ForScript(VEK_LOAD_WRITE_JSON(summary)));
    Replace(page, "@SCRIPT@", VEK_LOAD_CHART_SCRIPT);
    Replace(page, "@LICENCE@", VEK_LOAD_CHART_LICENCE);
    Replace(page, "@SUMMARY@", ForHtml(VEK_LOAD_WRITE_TEXT(summary, false)));
    return page;
}
