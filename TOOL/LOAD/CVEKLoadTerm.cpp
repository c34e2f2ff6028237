#include "CVEKLoadTerm.h"

#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "VEKLoadUnit.h"

namespace {

std::string_view Trim(std::string_view text) {
    const size_t begin = text.find_first_not_of(" \t");
    const size_t end = text.find_last_not_of(" \t");
    return begin == std::string_view::npos ? "" : text.substr(begin, end - begin + 1);
}

// Takes a number from the front of the text.
bool TakeNumber(std::string_view& text, double& number) {
    if (text.empty() || (isdigit(static_cast<unsigned char>(text[0])) == 0)) {
        return false;
    }
    const auto [end, code] =
        std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return code == std::errc() && std::isfinite(number);
}

}  // namespace

bool CVEKLoadTerm::Parse(std::string_view text, std::string& error) {
    text_ = Trim(text);
    const std::string_view all = text_;
    const size_t at = all.find_first_of("<>");
    if (at == std::string_view::npos) {
        error = "\"" + text_ + "\" compares nothing; wanted: " + FORMS;
        return false;
    }
    const bool isEqual = at + 1 < all.size() && all[at + 1] == '=';
    if (all[at] == '<') {
        compare_ = isEqual ? Compare::LESS_EQUAL : Compare::LESS;
    } else {
        compare_ = isEqual ? Compare::MORE_EQUAL : Compare::MORE;
    }
    return ParseName(Trim(all.substr(0, at)), error) &&
           ParseLimit(Trim(all.substr(at + (isEqual ? 2 : 1))), error);
}

bool CVEKLoadTerm::ParseName(std::string_view name, std::string& error) {
    static const struct {
        const char* name;
        Kind kind;
    } names[] = {{"min", Kind::MIN},       {"mean", Kind::MEAN},
                 {"sd", Kind::DEVIATION},  {"max", Kind::MAX},
                 {"errors", Kind::ERRORS}, {"timeouts", Kind::TIMEOUTS},
                 {"failed", Kind::FAILED}, {"not-sent", Kind::UNSENT},
                 {"rate", Kind::RATE},     {"expectations", Kind::UNEXPECTED}};
    constexpr std::string_view STATUS = "status ";
    name_ = name;
    for (const auto& known : names) {
        if (name == known.name) {
            kind_ = known.kind;
            return true;
        }
    }
    if (name.substr(0, 1) == "p") {
        std::string_view rest = name.substr(1);
        kind_ = Kind::PERCENTILE;
        if (TakeNumber(rest, percent_) && rest.empty() && percent_ <= VEK_LOAD_PERCENT) {
            return true;
        }
    }
    if (name.substr(0, STATUS.size()) == STATUS) {
        const std::string_view code = Trim(name.substr(STATUS.size()));
        const bool isClass = code.size() == 3 && code.substr(1) == "xx";
        const std::string_view digits = isClass ? code.substr(0, 1) : code;
        const auto [end, result] =
            std::from_chars(digits.data(), digits.data() + digits.size(), status_);
        kind_ = Kind::STATUS;
        const bool isStatus = code.size() == 3 && code[0] != '0';
        if (result == std::errc() && end == digits.data() + digits.size() && isStatus) {
            return true;
        }
    }
    error = "\"" + text_ + "\" asks for \"" + name_ + "\", which is no figure; wanted: " + FORMS;
    return false;
}

bool CVEKLoadTerm::ParseLimit(std::string_view limit, std::string& error) {
    const struct {
        const char* name;
        double ns;
    } units[] = {{"ns", 1}, {"us", 1e3}, {"ms", VEK_LOAD_NS_PER_MS}, {"s", 1e9}};
    std::string_view rest = limit;
    bool isGood = TakeNumber(rest, limit_);
    rest = Trim(rest);
    const char* wanted = "a count, or a share in %";
    if (IsDuration()) {
        wanted = "a time with its unit: ns, us, ms or s";
        const double number = limit_;
        bool hasUnit = false;
        for (const auto& unit : units) {
            if (rest == unit.name) {
                limit_ = number * unit.ns;
                hasUnit = true;
            }
        }
        isGood = isGood && hasUnit;
    } else if (kind_ == Kind::RATE) {
        wanted = "requests in a second, \"900/s\"";
        isGood = isGood && (rest.empty() || rest == "/s");
    } else {
        isShare_ = rest == "%";
        isGood = isGood && (rest.empty() || isShare_);
    }
    if (!isGood) {
        error = "\"" + text_ + "\" compares with \"" + std::string(limit) + "\"; wanted: " + wanted;
    }
    return isGood;
}

double CVEKLoadTerm::GetDuration(const CVEKLoadHistogram& latency) const {
    switch (kind_) {
        case Kind::PERCENTILE:
            return static_cast<double>(latency.GetPercentile(percent_));
        case Kind::MIN:
            return static_cast<double>(latency.GetMin());
        case Kind::MEAN:
            return latency.GetMean();
        case Kind::DEVIATION:
            return latency.GetDeviation();
        default:
            return static_cast<double>(latency.GetMax());
    }
}

double CVEKLoadTerm::GetCount(const VEK_ST_LOAD_COUNTS& counts) const {
    switch (kind_) {
        case Kind::ERRORS:
            return static_cast<double>(counts.CountErrors());
        case Kind::TIMEOUTS:
            return static_cast<double>(counts.timedOut_);
        case Kind::FAILED:
            return static_cast<double>(counts.failed_);
        case Kind::UNSENT:
            return static_cast<double>(counts.unsent_);
        case Kind::UNEXPECTED:
            return static_cast<double>(counts.CountUnexpected());
        default:
            return static_cast<double>(counts.CountStatus(status_));
    }
}

bool CVEKLoadTerm::IsBeyond(double value) const {
    switch (compare_) {
        case Compare::LESS:
            return value < limit_;
        case Compare::LESS_EQUAL:
            return value <= limit_;
        case Compare::MORE:
            return value > limit_;
        default:
            return value >= limit_;
    }
}

uint64_t CVEKLoadTerm::GetWhole(const VEK_ST_LOAD_COUNTS& counts) const {
    return counts.sent_ + (kind_ == Kind::UNSENT ? counts.unsent_ : 0);
}

bool CVEKLoadTerm::HasFigure(const VEK_ST_LOAD_SUMMARY& summary) const {
    if (IsDuration()) {
        return summary.total_.latency_.GetCount() > 0;
    }
    return kind_ == Kind::RATE ? summary.lengthNs_ > 0 : !isShare_ || GetWhole(summary.total_) > 0;
}

double CVEKLoadTerm::GetFigure(const VEK_ST_LOAD_SUMMARY& summary) const {
    if (IsDuration()) {
        return GetDuration(summary.total_.latency_);
    }
    if (kind_ == Kind::RATE) {
        return summary.GetRate();
    }
    const double count = GetCount(summary.total_);
    return isShare_ ? VEK_LOAD_PERCENT * count / static_cast<double>(GetWhole(summary.total_))
                    : count;
}

std::string CVEKLoadTerm::WriteFigure(double value) const {
    char text[64];
    if (IsDuration()) {
        snprintf(text, sizeof text, "%.3f ms", value / VEK_LOAD_NS_PER_MS);
    } else if (kind_ == Kind::RATE) {
        snprintf(text, sizeof text, "%.1f/s", value);
    } else {
        snprintf(text, sizeof text, isShare_ ? "%.4g%%" : "%.0f", value);
    }
    return text;
}

bool CVEKLoadTerm::Holds(const VEK_ST_LOAD_SUMMARY& summary, std::string& figure) const {
    if (!HasFigure(summary)) {
        figure = name_ + " = nothing";
        return false;
    }
    const double value = GetFigure(summary);
    figure = name_ + " = " + WriteFigure(value);
    return IsBeyond(value);
}

VEK_ST_LOAD_VERDICT CVEKLoadTerm::Judge(const VEK_ST_LOAD_SUMMARY& summary) const {
    VEK_ST_LOAD_VERDICT verdict;
    verdict.term_ = text_;
    verdict.isPassed_ = !Holds(summary, verdict.figure_) && HasFigure(summary);
    return verdict;
}
