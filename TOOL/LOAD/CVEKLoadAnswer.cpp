#include "CVEKLoadAnswer.h"

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
        json_ = nlohmann::json::parse(*body, nullptr, false);
    }
    if (json_.is_discarded()) {
        error = "the body is no JSON";
        return nullptr;
    }
    return &json_;
}

std::string CVEKLoadAnswer::Write(const nlohmann::json& value) {
    return value.is_string() ? value.get<std::string>()
                             : value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}
