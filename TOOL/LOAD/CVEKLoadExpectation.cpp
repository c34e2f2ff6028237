#include "CVEKLoadExpectation.h"

#include <algorithm>
#include <utility>

#include "VEKLoadInput.h"
#include "VEKLoadUnit.h"

namespace {

constexpr int CLASS_END = 10;  // a single digit stands for a class

}  // namespace

CVEKLoadExpectation CVEKLoadExpectation::MakeStatus(std::vector<int> statuses) {
    std::string text;
    for (const int status : statuses) {
        text += (text.empty() ? "status is " : " or ") + std::to_string(status) +
                (status < CLASS_END ? "xx" : "");
    }
    CVEKLoadExpectation made(Kind::STATUS, text);
    made.statuses_ = std::move(statuses);
    return made;
}

CVEKLoadExpectation CVEKLoadExpectation::MakeHeader(const std::string& name,
                                                    CVEKLoadTemplate value) {
    const std::string lower = VEK_LOAD_LOWER(name);
    CVEKLoadExpectation made(Kind::HEADER, "header " + lower + " is " + value.GetText());
    made.name_ = lower;
    made.value_ = std::move(value);
    return made;
}

CVEKLoadExpectation CVEKLoadExpectation::MakeJson(const std::string& pointer,
                                                  CVEKLoadTemplate value) {
    CVEKLoadExpectation made(Kind::JSON, "JSON " + pointer + " is " + value.GetText());
    made.pointer_ = nlohmann::json::json_pointer(pointer);
    made.value_ = std::move(value);
    made.wanted_ = nlohmann::json(nlohmann::json::value_t::discarded);
    return made;
}

CVEKLoadExpectation CVEKLoadExpectation::MakeJson(const std::string& pointer,
                                                  const nlohmann::json& value) {
    CVEKLoadExpectation made(Kind::JSON, "JSON " + pointer + " is " + value.dump());
    made.pointer_ = nlohmann::json::json_pointer(pointer);
    made.wanted_ = value;
    return made;
}

CVEKLoadExpectation CVEKLoadExpectation::MakeContains(CVEKLoadTemplate text) {
    CVEKLoadExpectation made(Kind::CONTAINS, "body contains " + text.GetText());
    made.value_ = std::move(text);
    return made;
}

bool CVEKLoadExpectation::CheckStatus(int status) const {
    return std::any_of(statuses_.begin(), statuses_.end(), [status](int wanted) {
        return wanted == status || (wanted < CLASS_END && wanted == status / VEK_LOAD_STATUS_CLASS);
    });
}

bool CVEKLoadExpectation::CheckJson(const nlohmann::json& json,
                                    const std::vector<std::string>& values) const {
    const nlohmann::json* value = CVEKLoadAnswer::Find(json, pointer_);
    if (value == nullptr) {
        return false;
    }
    return wanted_.is_discarded() ? CVEKLoadAnswer::Write(*value) == value_.Render(values)
                                  : *value == wanted_;
}

bool CVEKLoadExpectation::Check(CVEKLoadAnswer& answer, const std::vector<std::string>& values,
                                std::string& error) const {
    bool isGood = false;
    std::string obstacle;
    switch (kind_) {
        case Kind::STATUS:
            isGood = CheckStatus(answer.GetResponse().status_);
            break;
        case Kind::HEADER: {
            const auto found = answer.GetResponse().fields_.Find(name_);
            isGood = found.has_value() && *found == value_.Render(values);
            break;
        }
        case Kind::JSON: {
            const nlohmann::json* json = answer.GetJson(obstacle);
            isGood = json != nullptr && CheckJson(*json, values);
            break;
        }
        default: {
            const std::string* body = answer.GetBody(obstacle);
            isGood = body != nullptr && body->find(value_.Render(values)) != std::string::npos;
        }
    }
    error = text_ + (obstacle.empty() ? "" : " (" + obstacle + ")");
    return isGood;
}
