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

size_t VEK_ST_LOAD_SCENARIO::Choose(uint64_t flow) const {
    uint64_t sum = 0;
    for (const VEK_ST_LOAD_FLOW& one : flows_) {
        sum += one.weight_;
    }
    uint64_t rest = flow % sum;
    size_t index = 0;
    while (rest >= flows_[index].weight_) {
        rest -= flows_[index++].weight_;
    }
    return index;
}
