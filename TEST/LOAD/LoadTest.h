// What the tests of vekload share.
#ifndef LOAD_TEST_H
#define LOAD_TEST_H

#include <algorithm>
#include <nlohmann/json.hpp>
#include <string>

#include "TestSupport.h"
#include "VEKLoadJson.h"

using nlohmann::json;

// The part of JSON Schema that the schema of the runs uses. Returns the pointer of what does not fit, or "".
inline std::string FindMisfit(const json& root, const json& schema, const json& value, const std::string& at = "") {
    if (schema.contains("$ref")) { return FindMisfit(root, root["definitions"]["histogram"], value, at); }
    if (schema.contains("allOf")) { return FindMisfit(root, schema["allOf"][0], value, at); }
    const std::string type = schema.value("type", ""),
                      actual = value.is_number_integer() ? "integer" : value.type_name();
    const json known = schema.value("enum", json::array({value}));
    if ((type != actual && !(type == "number" && value.is_number())) || value < schema.value("minimum", value) ||
        std::find(known.begin(), known.end(), value) == known.end()) {
        return at + " is " + value.dump();
    }
    for (const auto& name : schema.value("required", json::array())) {
        if (!value.contains(name.get<std::string>())) { return at + " lacks " + name.dump(); }
    }
    if (value.is_structured()) {
        for (const auto& [name, member] : value.items()) {
            const json& inner = value.is_array() ? schema["items"]
                                : schema.value("properties", json::object()).contains(name)
                                    ? schema["properties"][name]
                                    : schema["additionalProperties"];
            if (inner == false) { return at + "/" + name + " is unknown"; }
            const std::string misfit = FindMisfit(root, inner, member, at + "/" + name);
            if (!misfit.empty()) { return misfit; }
        }
    }
    return "";
}

inline std::string FindMisfit(const std::string& text) {
    const json schema = json::parse(ReadAll(VEK_SOURCE_DIR "/TOOL/LOAD/vekload-1.schema.json"));
    return FindMisfit(schema, schema, json::parse(text));
}

// A run with something in every field, each in proportion to `scale`. Latencies go evenly from 20.2 ms to 120 ms.
inline VEK_ST_LOAD_SUMMARY MakeRun(unsigned scale) {
    VEK_ST_LOAD_SUMMARY run;
    run.commands_ = {"vekload -n " + std::to_string(scale)};
    run.startMs_ = 1700000000000 + scale;
    run.lengthNs_ = 2'000'000'000ULL * scale;
    run.endedBy_ = "requests";
    run.threads_ = run.seed_ = scale;
    run.lagNs_ = 6'000'000 * scale;
    run.unwritten_ = 7 * scale;
    for (const char* name : {"GET /a", "POST \033[2J/b"}) {
        VEK_ST_LOAD_COUNTS counts;
        for (int64_t i = 1; i <= 500; ++i) {
            const int64_t ns = (20'000'000 + i * 200'000) * scale;
            counts.latency_.Record(ns);
            counts.service_.Record(ns / 4);
            counts.firstByte_.Record(ns / 5);
        }
        counts.answered_ = 500;
        counts.statuses_ = {{200, 450}, {302, 40}, {429, 6}, {503, 4}};
        counts.informational_ = scale;
        counts.timedOut_ = 3;
        counts.failed_ = 2;
        counts.causes_ = {{"reset \xff by peer", 1}, {"connection lost", 1}};
        counts.unexpected_ = {{"status is 200", 50}};
        counts.sent_ = 505;
        counts.unsent_ = scale;
        counts.bytesSent_ = 1000 + scale;
        counts.bytesReceived_ = 2000;
        run.steps_.push_back({name, counts});
        run.total_.Add(counts);
        run.seconds_.push_back({505, 500, 10, scale, VEK_ST_LOAD_PACKED::Pack(counts.latency_)});
    }
    run.connections_ = {2, 3, 1, {{"connection lost", 1}}, run.total_.service_, run.total_.firstByte_, 9000, 8000, {}};
    run.connections_.slots_.resize(2);
    run.connections_.slots_[1].failed_ = run.connections_.slots_[1].opened_ = scale;
    for (uint64_t ns : {5, 1, 9}) { run.connections_.slots_[1].Record(ns); }
    run.ranks_ = {2, 3000ULL * scale, 4000ULL * scale, scale, 2 * scale, 3 * scale, 4 * scale, {}};
    run.ranks_.rows_ = {{"one", -5, 2'000'000'000, 600, 500, 5, 70'000'000, 1000}, {"tw\033o", 0, 0, 1, 2, 3, 4, 5}};
    return run;
}

#endif
