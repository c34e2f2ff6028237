#include "VEKLoadFlow.h"

#include <algorithm>
#include <utility>

namespace {

__extension__ using Wide = unsigned __int128;

// The sum of (first + i * step) / divisor, rounded down, for i from 0 to count - 1, by Euclid's
// algorithm: the counts are far too large to go through.
Wide SumOfQuotients(Wide count, Wide divisor, Wide step, Wide first) {
    Wide sum = 0;
    while (count > 0 && divisor > 0) {
        sum += count * (count - 1) / 2 * (step / divisor) + count * (first / divisor);
        step %= divisor;
        first %= divisor;
        const Wide last = step * count + first;
        // What is left is the same sum with the axes exchanged.
        count = last / divisor;
        first = last % divisor;
        std::swap(divisor, step);
    }
    return sum;
}

}  // namespace

bool VEK_ST_LOAD_STAGE::IsPlain() const {
    const bool isFixed = std::none_of(fields_.begin(), fields_.end(), [](const auto& field) {
        return field.second.HasVariables();
    });
    return isFixed && extractors_.empty() && expectations_.empty() && !authority_.HasVariables() &&
           !path_.HasVariables() && !body_.HasVariables();
}

VEK_ST_HTTP_REQUEST VEK_ST_LOAD_STAGE::Render(const std::vector<std::string>& values) const {
    VEK_ST_HTTP_REQUEST request;
    request.method_ = method_;
    request.path_ = path_.Render(values);
    request.authority_ = authority_.Render(values);
    for (const auto& [name, value] : fields_) {
        request.fields_.Add(name, value.Render(values));
    }
    request.body_ = body_.Render(values);
    return request;
}

bool VEK_ST_LOAD_STAGE::WantsBody() const {
    const auto wants = [](const auto& reader) { return reader.WantsBody(); };
    return std::any_of(extractors_.begin(), extractors_.end(), wants) ||
           std::any_of(expectations_.begin(), expectations_.end(), wants);
}

std::vector<const VEK_ST_LOAD_STAGE*> VEK_ST_LOAD_SCENARIO::GetStages() const {
    std::vector<const VEK_ST_LOAD_STAGE*> stages;
    for (const VEK_ST_LOAD_FLOW& flow : flows_) {
        for (const VEK_ST_LOAD_STAGE& stage : flow.stages_) {
            stages.push_back(&stage);
        }
    }
    return stages;
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

// A number is of this kind when its rest lies within the kind's part of the weights.
uint64_t VEK_ST_LOAD_SCENARIO::CountOf(size_t kind, VEK_ST_LOAD_SHARE share, uint64_t count) const {
    const uint64_t sum = GetWeight();
    uint64_t begin = 0;
    for (size_t i = 0; i < kind; ++i) {
        begin += flows_[i].weight_;
    }
    const auto step = static_cast<uint64_t>(share.of_);
    const uint64_t first = static_cast<uint64_t>(share.index_) + sum;
    const uint64_t end = begin + flows_[kind].weight_;
    return static_cast<uint64_t>(SumOfQuotients(count, sum, step, first - begin) -
                                 SumOfQuotients(count, sum, step, first - end));
}
