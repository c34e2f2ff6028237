#include "VEKLoadFlow.h"

#include <algorithm>

bool VEK_ST_LOAD_STAGE::IsPlain() const {
    const bool isFixed = std::none_of(fields_.begin(), fields_.end(), [](const auto& field) {
        return field.second.HasVariables();
    });
    return isFixed && extractors_.empty() && expectations_.empty() && !authority_.HasVariables() &&
           !path_.HasVariables() && !body_.HasVariables();
}

bool VEK_ST_LOAD_STAGE::WantsBody() const {
    const auto wants = [](const auto& reader) { return reader.WantsBody(); };
    return std::any_of(extractors_.begin(), extractors_.end(), wants) ||
           std::any_of(expectations_.begin(), expectations_.end(), wants);
}

uint64_t VEK_ST_LOAD_SCENARIO::GetLimit() const {
    uint64_t limit = UINT64_MAX;
    for (const auto& [number, variable] : variables_) {
        limit = std::min(limit, variable.GetLimit());
    }
    return limit;
}

std::vector<std::string> VEK_ST_LOAD_SCENARIO::MakeValues(uint64_t flow, uint64_t seed) const {
    std::vector<std::string> values(valueCount_);
    for (const auto& [number, variable] : variables_) {
        values[number] = variable.GetValue(flow, seed, number);
    }
    return values;
}

uint64_t VEK_ST_LOAD_SCENARIO::GetWeight() const {
    uint64_t sum = 0;
    for (const VEK_ST_LOAD_FLOW& flow : flows_) {
        sum += flow.weight_;
    }
    return sum;
}

size_t VEK_ST_LOAD_SCENARIO::Choose(uint64_t flow) const {
    if (flows_.size() == 1) {
        return 0;
    }
    uint64_t rest = flow % GetWeight();
    size_t kind = 0;
    while (rest >= flows_[kind].weight_) {
        rest -= flows_[kind++].weight_;
    }
    return kind;
}

uint64_t VEK_ST_LOAD_SCENARIO::CountOf(size_t kind, uint64_t end) const {
    const uint64_t sum = GetWeight();
    uint64_t before = 0;
    for (size_t i = 0; i < kind; ++i) {
        before += flows_[i].weight_;
    }
    const uint64_t rest = end % sum;
    const uint64_t weight = flows_[kind].weight_;
    return end / sum * weight + (rest > before ? std::min(rest - before, weight) : 0);
}
