#include "VEKLoadJson.h"

#include <algorithm>
#include <cmath>
#include <ctime>

#include "CVEKLoadJsonNode.h"
#include "VEKLoadUnit.h"
#include "VEKVersion.h"

namespace {

using Json = CVEKLoadJsonNode::Json;

constexpr int64_t MS_PER_SECOND = 1000;

std::string FormatTime(int64_t ms) {
    const auto seconds = static_cast<time_t>(ms / MS_PER_SECOND);
    tm parts{};
    gmtime_r(&seconds, &parts);
    char text[64];
    strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts);
    return text;
}

Json WriteHistogram(const CVEKLoadHistogram& histogram, const VEK_ST_LOAD_PACKED& packed) {
    Json json = {{"count", histogram.GetCount()},
                 {"min_ns", packed.min_},
                 {"mean_ns", std::round(histogram.GetMean())},
                 {"sd_ns", std::round(histogram.GetDeviation())}};
    for (const auto& [percent, name] : VEK_LOAD_PERCENTILES()) {
        json[std::string(name) + "_ns"] = histogram.GetPercentile(percent);
    }
    json["max_ns"] = packed.max_;
    json["sum_ns"] = packed.sum_;
    json["squares_ns2"] = packed.squares_;
    json["hdr"] = packed.hdr_;
    return json;
}

Json WriteHistogram(const CVEKLoadHistogram& histogram) {
    return WriteHistogram(histogram, VEK_ST_LOAD_PACKED::Pack(histogram));
}

void ReadPacked(const CVEKLoadJsonNode& node, VEK_ST_LOAD_PACKED& packed,
                CVEKLoadHistogram& histogram) {
    packed.min_ = node.Need("min_ns").GetCount();
    packed.max_ = node.Need("max_ns").GetCount();
    packed.sum_ = node.Need("sum_ns").GetText("0");
    packed.squares_ = node.Need("squares_ns2").GetText("0");
    packed.hdr_ = node.Need("hdr").GetText();
    if (!packed.Unpack(histogram) || histogram.GetCount() != node.Need("count").GetCount()) {
        node.Refuse("a histogram whose parts fit together");
    }
}

CVEKLoadHistogram ReadHistogram(const CVEKLoadJsonNode& node) {
    VEK_ST_LOAD_PACKED packed;
    CVEKLoadHistogram histogram;
    ReadPacked(node, packed, histogram);
    return histogram;
}

Json WriteStatuses(const std::map<int, uint64_t>& statuses) {
    Json json = Json::object();
    for (const auto& [status, count] : statuses) {
        json[std::to_string(status)] = count;
    }
    return json;
}

std::map<int, uint64_t> ReadStatuses(const CVEKLoadJsonNode& node) {
    std::map<int, uint64_t> statuses;
    for (const auto& [name, count] : node.GetMembers()) {
        const long status = strtol(name.c_str(), nullptr, 10);
        if (status < 0 || status > VEK_LOAD_MAX_STATUS || std::to_string(status) != name) {
            count.Refuse("a status for its name");
        } else {
            statuses[static_cast<int>(status)] = count.GetCount();
        }
    }
    return statuses;
}

std::map<std::string, uint64_t> ReadCauses(const CVEKLoadJsonNode& node) {
    std::map<std::string, uint64_t> causes;
    for (const auto& [name, count] : node.GetMembers()) {
        causes[name] = count.GetCount();
    }
    return causes;
}

Json WriteCounts(const VEK_ST_LOAD_COUNTS& counts) {
    return {{"sent", counts.sent_},
            {"answered", counts.answered_},
            {"timed_out", counts.timedOut_},
            {"failed", counts.failed_},
            {"not_sent", counts.unsent_},
            {"errors", counts.CountErrors()},
            {"causes", counts.causes_},
            {"status", WriteStatuses(counts.statuses_)},
            {"informational", counts.informational_},
            {"expectations_failed", counts.CountUnexpected()},
            {"expectations", counts.unexpected_},
            {"body_bytes_sent", counts.bytesSent_},
            {"body_bytes_received", counts.bytesReceived_},
            {"latency", WriteHistogram(counts.latency_)},
            {"service", WriteHistogram(counts.service_)},
            {"first_byte", WriteHistogram(counts.firstByte_)}};
}

// More than any count, once they are more than that.
template <class MAP>
uint64_t AddUp(const MAP& counts) {
    uint64_t sum = 0;
    for (const auto& [key, count] : counts) {
        sum = std::min<uint64_t>(sum + count, INT64_MAX);
    }
    return sum;
}

void CheckCounts(const CVEKLoadJsonNode& node, const VEK_ST_LOAD_COUNTS& counts) {
    const uint64_t unexpected = node.Need("expectations_failed").GetCount();
    const std::initializer_list<uint64_t> answered = {
        AddUp(counts.statuses_), counts.latency_.GetCount(), counts.service_.GetCount(),
        counts.firstByte_.GetCount()};
    if (counts.sent_ != counts.answered_ + counts.timedOut_ + counts.failed_) {
        node.Refuse("sent to be the sum of answered, timed_out and failed");
    } else if (std::any_of(answered.begin(), answered.end(),
                           [&](uint64_t count) { return count != counts.answered_; })) {
        node.Refuse("as many statuses and times as answered");
    } else if (AddUp(counts.causes_) != counts.failed_ || AddUp(counts.unexpected_) != unexpected) {
        node.Refuse("causes and expectations to be the parts of their sums");
    }
}

VEK_ST_LOAD_COUNTS ReadCounts(const CVEKLoadJsonNode& node) {
    VEK_ST_LOAD_COUNTS counts;
    counts.sent_ = node.Need("sent").GetCount();
    counts.answered_ = node.Need("answered").GetCount();
    counts.timedOut_ = node.Need("timed_out").GetCount();
    counts.failed_ = node.Need("failed").GetCount();
    counts.unsent_ = node.Need("not_sent").GetCount();
    counts.causes_ = ReadCauses(node.Need("causes"));
    counts.statuses_ = ReadStatuses(node.Need("status"));
    counts.informational_ = node.Need("informational").GetCount();
    counts.unexpected_ = ReadCauses(node.Need("expectations"));
    counts.bytesSent_ = node.Need("body_bytes_sent").GetCount();
    counts.bytesReceived_ = node.Need("body_bytes_received").GetCount();
    counts.latency_ = ReadHistogram(node.Need("latency"));
    counts.service_ = ReadHistogram(node.Need("service"));
    counts.firstByte_ = ReadHistogram(node.Need("first_byte"));
    CheckCounts(node, counts);
    return counts;
}

Json WriteConnections(const VEK_ST_LOAD_CONNECTIONS& connections) {
    Json slots = Json::array();
    for (const VEK_ST_LOAD_SLOT& slot : connections.slots_) {
        slots.push_back({{"opened", slot.opened_},
                         {"answered", slot.answered_},
                         {"failed", slot.failed_},
                         {"min_ns", slot.min_},
                         {"mean_ns", slot.answered_ == 0 ? 0 : slot.sum_ / slot.answered_},
                         {"max_ns", slot.max_},
                         {"sum_ns", slot.sum_}});
    }
    return {{"opened", connections.opened_},
            {"failed", connections.failed_},
            {"resumed", connections.resumed_},
            {"causes", connections.causes_},
            {"tcp", WriteHistogram(connections.tcp_)},
            {"tls", WriteHistogram(connections.tls_)},
            {"wire_bytes_sent", connections.wireBytesSent_},
            {"wire_bytes_received", connections.wireBytesReceived_},
            {"slots", slots}};
}

VEK_ST_LOAD_CONNECTIONS ReadConnections(const CVEKLoadJsonNode& node) {
    VEK_ST_LOAD_CONNECTIONS connections;
    connections.opened_ = node.Need("opened").GetCount();
    connections.failed_ = node.Need("failed").GetCount();
    connections.resumed_ = node.Need("resumed").GetCount();
    connections.causes_ = ReadCauses(node.Need("causes"));
    connections.tcp_ = ReadHistogram(node.Need("tcp"));
    connections.tls_ = ReadHistogram(node.Need("tls"));
    connections.wireBytesSent_ = node.Need("wire_bytes_sent").GetCount();
    connections.wireBytesReceived_ = node.Need("wire_bytes_received").GetCount();
    for (const CVEKLoadJsonNode& slot : node.Need("slots").GetItems()) {
        connections.slots_.push_back(
            {slot.Need("opened").GetCount(), slot.Need("answered").GetCount(),
             slot.Need("failed").GetCount(), slot.Need("min_ns").GetCount(),
             slot.Need("max_ns").GetCount(),
             static_cast<uint64_t>(slot.Need("sum_ns").GetInteger(0, INT64_MAX))});
    }
    return connections;
}

Json WriteSecond(const VEK_ST_LOAD_SECOND& second) {
    CVEKLoadHistogram latency;
    second.latency_.Unpack(latency);
    const bool isPacked = !second.latency_.hdr_.empty();  // else nobody handed in that second
    const VEK_ST_LOAD_PACKED packed =
        isPacked ? second.latency_ : VEK_ST_LOAD_PACKED::Pack(latency);
    return {{"sent", second.sent_},
            {"answered", second.answered_},
            {"errors", second.errors_},
            {"in_flight", second.inFlight_},
            {"latency", WriteHistogram(latency, packed)}};
}

VEK_ST_LOAD_SECOND ReadSecond(const CVEKLoadJsonNode& node) {
    VEK_ST_LOAD_SECOND second;
    second.sent_ = node.Need("sent").GetCount();
    second.answered_ = node.Need("answered").GetCount();
    second.errors_ = node.Need("errors").GetCount();
    second.inFlight_ = node.Need("in_flight").GetCount();
    CVEKLoadHistogram checked;
    ReadPacked(node.Need("latency"), second.latency_, checked);
    return second;
}

Json WriteRanks(const VEK_ST_LOAD_RANKS& ranks) {
    Json rows = Json::array();
    for (const VEK_ST_LOAD_RANK& row : ranks.rows_) {
        rows.push_back({{"host", row.host_},
                        {"start_ns", row.startNs_},
                        {"length_ns", row.lengthNs_},
                        {"sent", row.sent_},
                        {"answered", row.answered_},
                        {"errors", row.errors_},
                        {"rate", row.GetRate()},
                        {"p99_ns", row.p99Ns_},
                        {"lag_ns", row.lagNs_}});
    }
    return {{"count", ranks.count_},
            {"start_skew_ns", ranks.skewNs_},
            {"clock_error_ns", ranks.clockErrorNs_},
            {"join_ns", ranks.joinNs_},
            {"clocks_ns", ranks.clocksNs_},
            {"barrier_ns", ranks.barrierNs_},
            {"reduction_ns", ranks.reductionNs_},
            {"rows", rows}};
}

VEK_ST_LOAD_RANKS ReadRanks(const CVEKLoadJsonNode& node) {
    VEK_ST_LOAD_RANKS ranks;
    ranks.count_ = node.Need("count").GetCount();
    ranks.skewNs_ = node.Need("start_skew_ns").GetCount();
    ranks.clockErrorNs_ = node.Need("clock_error_ns").GetCount();
    ranks.joinNs_ = node.Need("join_ns").GetCount();
    ranks.clocksNs_ = node.Need("clocks_ns").GetCount();
    ranks.barrierNs_ = node.Need("barrier_ns").GetCount();
    ranks.reductionNs_ = node.Need("reduction_ns").GetCount();
    for (const CVEKLoadJsonNode& row : node.Need("rows").GetItems()) {
        ranks.rows_.push_back({row.Need("host").GetText(),
                               row.Need("start_ns").GetInteger(INT64_MIN, INT64_MAX),
                               row.Need("length_ns").GetCount(), row.Need("sent").GetCount(),
                               row.Need("answered").GetCount(), row.Need("errors").GetCount(),
                               row.Need("p99_ns").GetCount(), row.Need("lag_ns").GetCount()});
    }
    return ranks;
}

void CheckParts(const CVEKLoadJsonNode& node, const VEK_ST_LOAD_SUMMARY& summary) {
    const auto check = [&](const char* name, const auto& parts, const auto& counts) {
        uint64_t sent = 0;
        uint64_t answered = 0;
        for (const auto& part : parts) {
            sent = std::min<uint64_t>(sent + counts(part).sent_, INT64_MAX);
            answered = std::min<uint64_t>(answered + counts(part).answered_, INT64_MAX);
        }
        if (sent != summary.total_.sent_ || answered != summary.total_.answered_) {
            node.Find(name).Refuse("parts that add up to the total");
        }
    };
    check(
        "steps", summary.steps_, [](const auto& step) -> const auto& { return step.counts_; });
    check(
        "series", summary.seconds_, [](const auto& second) -> const auto& { return second; });
}

void ReadAll(const CVEKLoadJsonNode& node, VEK_ST_LOAD_SUMMARY& summary) {
    if (node.Need("schema").GetText() != VEK_LOAD_SCHEMA) {
        node.Find("schema").Refuse(std::string("\"") + VEK_LOAD_SCHEMA + "\"");
        return;
    }
    summary.runs_ = node.Need("runs").GetCount();
    for (const CVEKLoadJsonNode& command : node.Need("commands").GetItems()) {
        summary.commands_.push_back(command.GetText());
    }
    summary.startMs_ = node.Need("started_ms").GetInteger(0, INT64_MAX);
    summary.lengthNs_ = node.Need("length_ns").GetCount();
    summary.endedBy_ = node.Need("ended_by").GetText();
    summary.seed_ = static_cast<uint64_t>(node.Need("seed").GetInteger(0, INT64_MAX));
    summary.threads_ = node.Need("threads").GetCount();
    summary.lagNs_ = node.Need("lag_ns").GetCount();
    if (node.Find("ranks").IsThere()) {
        summary.ranks_ = ReadRanks(node.Find("ranks"));
    }
    summary.unwritten_ = node.Need("requests_not_written").GetCount();
    summary.total_ = ReadCounts(node.Need("total"));
    for (const CVEKLoadJsonNode& step : node.Need("steps").GetItems()) {
        summary.steps_.push_back({step.Need("name").GetText(), ReadCounts(step)});
    }
    summary.connections_ = ReadConnections(node.Need("connections"));
    for (const CVEKLoadJsonNode& second : node.Need("series").GetItems()) {
        summary.seconds_.push_back(ReadSecond(second));
    }
    for (const CVEKLoadJsonNode& verdict : node.Need("thresholds").GetItems()) {
        summary.verdicts_.push_back({verdict.Need("term").GetText(),
                                     verdict.Need("figure").GetText(),
                                     verdict.Need("passed").GetBool()});
    }
    CheckParts(node, summary);
}

}  // namespace

std::string VEK_LOAD_WRITE_JSON(const VEK_ST_LOAD_SUMMARY& summary) {
    Json steps = Json::array();
    for (const VEK_ST_LOAD_STEP& step : summary.steps_) {
        Json json = {{"name", step.name_}};
        json.update(WriteCounts(step.counts_));
        steps.push_back(std::move(json));
    }
    Json series = Json::array();
    for (const VEK_ST_LOAD_SECOND& second : summary.seconds_) {
        series.push_back(WriteSecond(second));
    }
    Json verdicts = Json::array();
    for (const VEK_ST_LOAD_VERDICT& verdict : summary.verdicts_) {
        verdicts.push_back(
            {{"term", verdict.term_}, {"figure", verdict.figure_}, {"passed", verdict.isPassed_}});
    }
    Json json = {{"schema", VEK_LOAD_SCHEMA},
                 {"version", VEK_VERSION},
                 {"runs", summary.runs_},
                 {"commands", summary.commands_},
                 {"started", FormatTime(summary.startMs_)},
                 {"started_ms", summary.startMs_},
                 {"length_ns", summary.lengthNs_},
                 {"rate", summary.GetRate()},
                 {"ended_by", summary.endedBy_},
                 {"seed", summary.seed_},
                 {"threads", summary.threads_},
                 {"lag_ns", summary.lagNs_},
                 {"bottleneck", summary.IsBottleneck()},
                 {"requests_not_written", summary.unwritten_},
                 {"thresholds", verdicts},
                 {"total", WriteCounts(summary.total_)},
                 {"steps", steps},
                 {"connections", WriteConnections(summary.connections_)},
                 {"series", series}};
    if (summary.ranks_.count_ > 0) {
        json["ranks"] = WriteRanks(summary.ranks_);
    }
    // What a peer or a command line has put into a text need not be UTF-8.
    return json.dump(1, ' ', false, Json::error_handler_t::replace) + "\n";
}

bool VEK_LOAD_READ_JSON(std::string_view text, VEK_ST_LOAD_SUMMARY& summary, std::string& error) {
    Json json;
    error.clear();
    summary = VEK_ST_LOAD_SUMMARY();
    if (!CVEKLoadJsonNode::Parse(text, json, error)) {
        return false;
    }
    ReadAll(CVEKLoadJsonNode(json, error), summary);
    return error.empty();
}
