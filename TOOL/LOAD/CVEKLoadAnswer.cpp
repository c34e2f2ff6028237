#include "CVEKLoadAnswer.h"

#include "CVEKLoadJsonNode.h"

const std::string* CVEKLoadAnswer::GetBody(std::string& error) const {
    const auto coding = response_.fields_.Find("content-encoding");
    if (coding.has_value() && *coding != "identity") {
        error = "the body has a content-encoding";
        return nullptr;
    }
    return &response_.body_.GetText();
}

const nlohmann::json* CVEKLoadAnswer::GetJson(std::string& error) {
    const std::string* body = GetBody(error);
    if (body == nullptr) {
        return nullptr;
    }
    if (!isParsed_) {
        isParsed_ = true;
        json_ = nlohmann::json::parse(*body, VEK_LOAD_LIMIT_DEPTH(isTooDeep_), false);
    }
    if (isTooDeep_ || json_.is_discarded()) {
        error = isTooDeep_ ? "the body's JSON is nested too deeply" : "the body is no JSON";
        return nullptr;
    }
    return &json_;
}

const nlohmann::json* CVEKLoadAnswer::Find(const nlohmann::json& json,
                                           const nlohmann::json::json_pointer& pointer) {
    try {
        return json.contains(pointer) ? &json[pointer] : nullptr;
    } catch (const nlohmann::json::exception&) {  // a number that no array can have
        return nullptr;
    }
}

std::string CVEKLoadAnswer::Write(const nlohmann::json& value) {
    return value.is_string() ? value.get<std::string>()
                             : value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}
