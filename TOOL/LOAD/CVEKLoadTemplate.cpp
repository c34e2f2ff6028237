#include "CVEKLoadTemplate.h"

#include <algorithm>
#include <nlohmann/json.hpp>

namespace {

// As a part of a JSON text.
std::string Escape(const std::string& value) {
    using Json = nlohmann::json;
    const std::string quoted = Json(value).dump(-1, ' ', false, Json::error_handler_t::replace);
    return quoted.substr(1, quoted.size() - 2);
}

}  // namespace

std::string CVEKLoadNames::List() const {
    std::string list;
    for (const auto& [name, number] : numbers_) {
        list += (list.empty() ? "" : ", ") + name;
    }
    return list.empty() ? "none" : list;
}

bool CVEKLoadTemplate::Parse(std::string_view text, const CVEKLoadNames& names,
                             std::string& error) {
    text_ = text;
    parts_.clear();
    size_t at = 0;
    for (size_t begin = 0; (begin = text.find("{{", at)) != std::string_view::npos;) {
        const size_t end = text.find("}}", begin);
        if (end == std::string_view::npos) {
            error = "\"{{\" without \"}}\" behind it";
            return false;
        }
        const std::string name(text.substr(begin + 2, end - begin - 2));
        const size_t* number = names.Find(name);
        if (number == nullptr) {
            error = "no variable \"" + name + "\"; known here are: " + names.List();
            return false;
        }
        parts_.emplace_back(text.substr(at, begin - at), *number);
        at = end + 2;
    }
    parts_.emplace_back(text.substr(at), NO_VARIABLE);
    return true;
}

bool CVEKLoadTemplate::ParseJson(std::string_view json, const CVEKLoadNames& names,
                                 std::string& error) {
    isJson_ = true;
    return Parse(json, names, error);
}

bool CVEKLoadTemplate::HasVariables() const {
    return std::any_of(parts_.begin(), parts_.end(),
                       [](const auto& part) { return part.second != NO_VARIABLE; });
}

std::string CVEKLoadTemplate::Render(const std::vector<std::string>& values) const {
    std::string text;
    for (const auto& [literal, number] : parts_) {
        text += literal;
        if (number != NO_VARIABLE) {
            text += isJson_ ? Escape(values[number]) : values[number];
        }
    }
    return text;
}
