#include "VEKLoadText.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "VEKLoadUnit.h"

namespace {

constexpr size_t BAR_LENGTH = 40;
constexpr int LABEL_WIDTH = 13;

// Adds formatted lines to a text, in colour or not.
class Writer {
  public:
    explicit Writer(bool isColour) : isColour_(isColour) {}

    __attribute__((format(printf, 2, 3))) void Print(const char* format, ...) {
        char line[512];
        va_list arguments;
        va_start(arguments, format);
        vsnprintf(line, sizeof line, format, arguments);
        va_end(arguments);
        text_ += line;
    }
    void Add(const std::string& text) { text_ += text; }
    void Label(const char* label) {
        text_ += Paint("1", label) +
                 std::string(LABEL_WIDTH - std::min<size_t>(strlen(label), LABEL_WIDTH - 1), ' ');
    }
    std::string Paint(const char* code, const std::string& text) const {
        return isColour_ ? std::string("\033[") + code + "m" + text + "\033[0m" : text;
    }
    std::string Red(const std::string& text) const { return Paint("31", text); }
    std::string Green(const std::string& text) const { return Paint("32", text); }
    const std::string& GetText() const { return text_; }

  private:
    bool isColour_;
    std::string text_;
};

unsigned long long Long(uint64_t value) {
    return value;
}

// What others have named must not steer the terminal.
std::string Printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(),
        [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; }, '?');
    return text;
}

template <class MAP>
void PrintStatuses(Writer& out, const char* label, const MAP& statuses) {
    if (statuses.empty()) {
        return;
    }
    out.Label(label);
    const char* separator = "";
    for (const auto& [status, count] : statuses) {
        out.Print("%s%d: %llu", separator, status, Long(count));
        separator = ", ";
    }
    out.Add("\n");
}

void PrintCauses(Writer& out, const char* label, const std::map<std::string, uint64_t>& causes) {
    for (const auto& [cause, count] : causes) {
        out.Label(label);
        out.Add(out.Red(std::to_string(count) + " " + Printable(cause)) + "\n");
    }
}

void PrintCounts(Writer& out, const VEK_ST_LOAD_SUMMARY& run) {
    const VEK_ST_LOAD_COUNTS& total = run.total_;
    out.Label("requests");
    out.Print("%llu sent, %llu answered, %llu timed out, %llu failed, %llu not sent\n",
              Long(total.sent_), Long(total.answered_), Long(total.timedOut_), Long(total.failed_),
              Long(total.unsent_));
    out.Label("time");
    out.Print("%.3f s, %.1f answers/s%s\n", run.GetSeconds(), run.GetRate(),
              run.endedBy_ == "signal"  ? ", ended by a signal"
              : run.endedBy_ == "abort" ? ", ended early by --abort-if"
              : run.endedBy_ == "lag"   ? ", ended early by --max-lag"
                                        : "");
    PrintStatuses(out, "status", total.statuses_);
    if (total.informational_ > 0) {
        out.Label("1xx");
        out.Print("%llu before the answers\n", Long(total.informational_));
    }
    PrintCauses(out, "failed", total.causes_);
    PrintCauses(out, "unexpected", total.unexpected_);
    out.Label("bodies");
    out.Print("%llu bytes sent, %llu received\n", Long(total.bytesSent_),
              Long(total.bytesReceived_));
    out.Label("on the wire");
    out.Print("%llu bytes sent, %llu received\n", Long(run.connections_.wireBytesSent_),
              Long(run.connections_.wireBytesReceived_));
}

void PrintSetUp(Writer& out, const char* name, const CVEKLoadHistogram& times) {
    if (times.GetCount() > 0) {
        out.Label("");
        out.Print("%s %s, at most %s\n", name, VEK_LOAD_FORMAT_NS(times.GetMean()).c_str(),
                  VEK_LOAD_FORMAT_NS(static_cast<double>(times.GetMax())).c_str());
    }
}

void PrintConnections(Writer& out, const VEK_ST_LOAD_CONNECTIONS& connections) {
    out.Label("connections");
    out.Print("%zu, opened %llu times, %llu with an old TLS session, %llu attempts failed\n",
              connections.slots_.size(), Long(connections.opened_), Long(connections.resumed_),
              Long(connections.failed_));
    PrintSetUp(out, "TCP", connections.tcp_);
    PrintSetUp(out, "TLS and HTTP/2", connections.tls_);
    PrintCauses(out, "lost", connections.causes_);
    const auto& slots = connections.slots_;
    if (slots.size() > 1) {
        const auto [least, most] = std::minmax_element(
            slots.begin(), slots.end(),
            [](const auto& one, const auto& two) { return one.answered_ < two.answered_; });
        out.Label("");
        out.Print("answers on each: %llu to %llu\n", Long(least->answered_), Long(most->answered_));
    }
}

void PrintLatencies(Writer& out, const VEK_ST_LOAD_COUNTS& counts) {
    if (counts.latency_.GetCount() == 0) {
        return;
    }
    out.Label("");
    out.Print("%12s %12s %12s\n", "latency", "from sending", "first byte");
    const auto print = [&](const char* name, auto figure) {
        out.Label(name);
        for (const auto* times : {&counts.latency_, &counts.service_, &counts.firstByte_}) {
            const char* end = times == &counts.firstByte_ ? "\n" : " ";
            out.Print("%12s%s", VEK_LOAD_FORMAT_NS(static_cast<double>(figure(*times))).c_str(),
                      end);
        }
    };
    print("min", [](const auto& times) { return times.GetMin(); });
    print("mean", [](const auto& times) { return times.GetMean(); });
    print("sd", [](const auto& times) { return times.GetDeviation(); });
    for (const auto& [percent, name] : VEK_LOAD_PERCENTILES()) {
        print(name, [share = percent](const auto& times) { return times.GetPercentile(share); });
    }
    print("max", [](const auto& times) { return times.GetMax(); });
}

// The next limit of the chart's rows: 1, 2, 5, 10, 20, 50, ...
uint64_t NextLimit(uint64_t limit) {
    uint64_t leading = limit;
    while (leading >= 10) {
        leading /= 10;
    }
    return leading == 2 ? limit / 2 * 5 : limit * 2;
}

void PrintChart(Writer& out, const CVEKLoadHistogram& latency) {
    constexpr uint64_t FIRST_NS = 1000;
    uint64_t high = FIRST_NS;
    while (high < latency.GetMin()) {
        high = NextLimit(high);
    }
    for (uint64_t seen = 0; seen < latency.GetCount(); high = NextLimit(high)) {
        const uint64_t upTo = latency.GetCountUpTo(high);
        const double share =
            static_cast<double>(upTo - seen) / static_cast<double>(latency.GetCount());
        out.Label("");
        out.Print("up to %8s %6.2f %% %s\n", VEK_LOAD_FORMAT_NS(static_cast<double>(high)).c_str(),
                  share * 100,
                  std::string(static_cast<size_t>(std::lround(share * BAR_LENGTH)), '#').c_str());
        seen = upTo;
    }
}

void PrintSteps(Writer& out, const VEK_ST_LOAD_SUMMARY& run) {
    if (run.steps_.size() < 2) {
        return;
    }
    out.Label("");
    out.Print("%9s %9s %9s %9s %9s %9s\n", "sent", "answered", "errors", "p50", "p99", "max");
    for (const VEK_ST_LOAD_STEP& step : run.steps_) {
        const VEK_ST_LOAD_COUNTS& counts = step.counts_;
        const auto format = [&counts](double percent) {
            return VEK_LOAD_FORMAT_NS(static_cast<double>(counts.latency_.GetPercentile(percent)));
        };
        out.Label("");
        out.Print("%9llu %9llu %9llu %9s %9s %9s  ", Long(counts.sent_), Long(counts.answered_),
                  Long(counts.CountErrors()), format(50).c_str(), format(99).c_str(),
                  format(100).c_str());
        out.Add(Printable(step.name_) + "\n");
    }
}

void PrintRanks(Writer& out, const VEK_ST_LOAD_RANKS& ranks) {
    if (ranks.count_ == 0) {
        return;
    }
    const auto format = [](uint64_t ns) { return VEK_LOAD_FORMAT_NS(static_cast<double>(ns)); };
    out.Label("ranks");
    out.Print("%llu, begun within %s (known to %s)\n", Long(ranks.count_),
              format(ranks.skewNs_).c_str(), format(ranks.clockErrorNs_).c_str());
    if (ranks.rows_.empty()) {
        return;
    }
    out.Label("");
    out.Print("%9s %9s %9s %9s %9s %9s  %s\n", "rank", "answered", "errors", "answers/s", "p99",
              "lag", "host");
    for (size_t i = 0; i < ranks.rows_.size(); ++i) {
        const VEK_ST_LOAD_RANK& row = ranks.rows_[i];
        out.Label("");
        out.Print("%9zu %9llu %9llu %9.1f %9s %9s  ", i, Long(row.answered_), Long(row.errors_),
                  row.GetRate(), format(row.p99Ns_).c_str(), format(row.lagNs_).c_str());
        out.Add(Printable(row.host_) + "\n");
    }
}

void PrintNotes(Writer& out, const VEK_ST_LOAD_SUMMARY& run) {
    for (const VEK_ST_LOAD_VERDICT& verdict : run.verdicts_) {
        out.Label("threshold");
        out.Add((verdict.isPassed_ ? out.Green("passed") : out.Red("FAILED")) + "  " +
                verdict.term_ + ": " + verdict.figure_ + "\n");
    }
    if (run.unwritten_ > 0) {
        out.Label("warning");
        out.Add(out.Red(std::to_string(run.unwritten_) +
                        " lines are missing in the file of --requests") +
                "\n");
    }
    if (run.IsBottleneck()) {
        out.Label("warning");
        out.Add(out.Red("this program was late by up to " +
                        VEK_LOAD_FORMAT_NS(static_cast<double>(run.lagNs_)) +
                        ": latencies of that size may be its own") +
                "\n");
    }
}

}  // namespace

std::string VEK_LOAD_FORMAT_NS(double ns) {
    const struct {
        double size;
        const char* name;
    } units[] = {{1e9, "s"}, {VEK_LOAD_NS_PER_MS, "ms"}, {1e3, "us"}};
    constexpr double ROUNDS_UP = 0.9995;  // to the larger unit
    char text[32];
    for (const auto& unit : units) {
        const double value = ns / unit.size;
        if (value >= ROUNDS_UP) {
            const int digits = value < 9.995 ? 2 : value < 99.95 ? 1 : 0;
            snprintf(text, sizeof text, "%.*f %s", digits, value, unit.name);
            return text;
        }
    }
    snprintf(text, sizeof text, "%.0f ns", ns);
    return text;
}

std::string VEK_LOAD_WRITE_TEXT(const VEK_ST_LOAD_SUMMARY& summary, bool isColour) {
    Writer out(isColour);
    PrintCounts(out, summary);
    PrintConnections(out, summary.connections_);
    PrintLatencies(out, summary.total_);
    PrintChart(out, summary.total_.latency_);
    PrintSteps(out, summary);
    PrintRanks(out, summary.ranks_);
    PrintNotes(out, summary);
    return out.GetText();
}

std::string VEK_LOAD_CSV_HEAD() {
    std::string line = "second,sent,answered,errors,in_flight,min_ms";
    for (const auto& [percent, name] : VEK_LOAD_PERCENTILES()) {
        line += std::string(",") + name + "_ms";
    }
    return line + ",max_ms\n";
}

std::string VEK_LOAD_CSV_LINE(size_t second, const VEK_ST_LOAD_SECOND& row) {
    CVEKLoadHistogram latency;
    row.latency_.Unpack(latency);
    std::string line;
    for (const uint64_t count :
         {static_cast<uint64_t>(second), row.sent_, row.answered_, row.errors_, row.inFlight_}) {
        line += std::to_string(count) + ",";
    }
    const auto add = [&](uint64_t ns, const char* end) {
        char text[48] = "";
        if (latency.GetCount() > 0) {
            snprintf(text, sizeof text, "%.3f", static_cast<double>(ns) / VEK_LOAD_NS_PER_MS);
        }
        line += std::string(text) + end;
    };
    add(latency.GetMin(), ",");
    for (const auto& [percent, name] : VEK_LOAD_PERCENTILES()) {
        add(latency.GetPercentile(percent), ",");
    }
    add(latency.GetMax(), "\n");
    return line;
}

std::string VEK_LOAD_CSV_TEXT(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) {
        return text;
    }
    std::string quoted = "\"";
    for (const char c : text) {
        quoted += c == '"' ? "\"\"" : std::string(1, c);
    }
    return quoted + "\"";
}
