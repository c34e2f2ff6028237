// What the tests of vekload share.
#ifndef LOAD_TEST_H
#define LOAD_TEST_H

#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>
#include <string>

#include "TestSupport.h"
#include "VEKLoadJson.h"

using nlohmann::json;

inline std::string ReadAll(const std::string& path) {
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

// The part of JSON Schema that the schema of the runs uses. Returns the pointer of what does not fit, or "".
inline std::string FindMisfit(const json& root, const json& schema, const json& value, const std::string& at = "") {
    if (schema.contains("$ref")) { return FindMisfit(root, root["definitions"]["histogram"], value, at); }
    if (schema.contains("allOf")) { return FindMisfit(root, schema["allOf"][0], value, at); }
    const std::string type = schema.value("type", "");
    const bool fits = type == "integer"   ? value.is_number_integer()
                      : type == "number"  ? value.is_number()
                      : type == "boolean" ? value.is_boolean()
                                          : value.type_name() == type;
    if (!fits) { return at + " is no " + type; }
    if (schema.contains("minimum") && value < schema["minimum"]) { return at + " too small"; }
    if (schema.contains("enum")) {
        bool isKnown = false;
        for (const json& known : schema["enum"]) { isKnown |= known == value; }
        if (!isKnown) { return at + " is " + value.dump(); }
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

// A run with something in every field.
inline VEK_ST_LOAD_SUMMARY MakeRun(unsigned seed) {
    std::mt19937 random(seed);
    VEK_ST_LOAD_SUMMARY run;
    run.commands_ = {"vekload -n " + std::to_string(seed)};
    run.startMs_ = 1700000000000 + seed;
    run.lengthNs_ = 2'000'000'000 + seed;
    run.endedBy_ = "requests";
    run.threads_ = seed;
    run.lagNs_ = seed;
    for (const char* name : {"GET /a", "POST /b"}) {
        VEK_ST_LOAD_COUNTS counts;
        for (int i = 0; i < 500; ++i) {
            const int64_t ns = random() % 100'000'000;
            counts.latency_.Record(ns);
            counts.service_.Record(ns / 2);
            counts.firstByte_.Record(ns / 3);
        }
        counts.answered_ = 500;
        counts.statuses_ = {{200, 450}, {302, 40}, {429, 6}, {503, 4}};
        counts.informational_ = seed;
        counts.timedOut_ = 3;
        counts.failed_ = 2;
        counts.causes_ = {{"reset \xff by peer", 1}, {"connection lost", 1}};
        counts.unexpected_ = {{"status is 200", 50}};
        counts.sent_ = 505;
        counts.unsent_ = seed;
        counts.bytesSent_ = 1000 + seed;
        counts.bytesReceived_ = 2000;
        run.steps_.push_back({name, counts});
        run.total_.Add(counts);
    }
    run.connections_ = {2, 1, 1, {{"connection lost", 1}}, run.total_.service_, {}, 9000, 8000, {}};
    run.connections_.slots_.resize(2);
    run.connections_.slots_[1].failed_ = seed;
    for (uint64_t ns : {5, 1, 9}) { run.connections_.slots_[1].Record(ns); }
    for (int i = 0; i < 2; ++i) {
        run.seconds_.push_back(
            {505, 500, 10, seed, VEK_ST_LOAD_PACKED::Pack(run.steps_[static_cast<size_t>(i)].counts_.latency_)});
    }
    return run;
}

#endif
