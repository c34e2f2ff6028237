// What the virtual users of a run do: flows of steps, and where their values come from.
#ifndef VEK_LOAD_FLOW_H
#define VEK_LOAD_FLOW_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "CVEKLoadExpectation.h"
#include "CVEKLoadExtractor.h"
#include "CVEKLoadTemplate.h"
#include "CVEKLoadVariable.h"
#include "VEKHttpMessage.h"
#include "VEKLoadShare.h"

// One request of a flow.
struct VEK_ST_LOAD_STAGE {
    std::string name_;
    size_t target_ = 0;
    std::string method_ = "GET";
    CVEKLoadTemplate authority_;  // empty: the target's
    CVEKLoadTemplate path_;
    std::vector<std::pair<std::string, CVEKLoadTemplate>> fields_;
    CVEKLoadTemplate body_;
    std::vector<CVEKLoadExtractor> extractors_;
    std::vector<CVEKLoadExpectation> expectations_;
    // What the user waits for behind it, before the next one: between these two.
    std::chrono::microseconds minThink_{0};
    std::chrono::microseconds maxThink_{0};

    // Every request of it is the same, and its answer is only counted.
    bool IsPlain() const;
    VEK_ST_HTTP_REQUEST Render(const std::vector<std::string>& values) const;
    bool WantsBody() const;
};

struct VEK_ST_LOAD_FLOW {
    std::string name_;
    uint64_t weight_ = 1;
    std::vector<VEK_ST_LOAD_STAGE> stages_;
};

struct VEK_ST_LOAD_SCENARIO {
    std::string url_;  // empty: the command line's
    std::vector<VEK_ST_LOAD_FLOW> flows_;
    size_t valueCount_ = 0;
    // With the number of the value that each gives.
    std::vector<std::pair<size_t, CVEKLoadVariable>> variables_;

    // The steps of all flows, by their numbers.
    std::vector<const VEK_ST_LOAD_STAGE*> GetStages() const;
    // Of all flows together.
    uint64_t GetWeight() const;
    // Flows in all that the variables have values for.
    uint64_t GetLimit() const;
    // The values with which a flow begins.
    std::vector<std::string> MakeValues(uint64_t flow, uint64_t seed) const;
    // How many of the first `count` flows of a share are of that kind.
    uint64_t CountOf(size_t kind, VEK_ST_LOAD_SHARE share, uint64_t count) const;
    // Which of flows_ the flow of a number is: in turn, as the weights say.
    size_t Choose(uint64_t flow) const;
};

#endif
