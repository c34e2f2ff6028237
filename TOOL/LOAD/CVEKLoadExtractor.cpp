#include "CVEKLoadExtractor.h"

#include <re2/re2.h>

#include "VEKLoadInput.h"

bool CVEKLoadExtractor::FromHeader(const std::string& name, std::string& error) {
    kind_ = Kind::HEADER;
    name_ = VEK_LOAD_LOWER(name);
    error = "the name of a header field";
    return !name.empty();
}

bool CVEKLoadExtractor::FromCookie(const std::string& name, std::string& error) {
    kind_ = Kind::COOKIE;
    name_ = name;
    error = "the name of a cookie";
    return !name.empty();
}

bool CVEKLoadExtractor::FromJson(const std::string& pointer, std::string& error) {
    kind_ = Kind::JSON;
    name_ = pointer;
    try {
        pointer_ = nlohmann::json::json_pointer(pointer);
        return true;
    } catch (const nlohmann::json::exception&) {
        error = "a JSON pointer, \"/items/0/id\"";
        return false;
    }
}

bool CVEKLoadExtractor::FromRegex(const std::string& expression, std::string& error) {
    kind_ = Kind::REGEX;
    name_ = expression;
    re2::RE2::Options options;
    options.set_log_errors(false);
    const auto regex = std::make_shared<re2::RE2>(expression, options);
    error = "a regular expression of RE2: " + regex->error();
    regex_ = regex;
    return regex->ok();
}

bool CVEKLoadExtractor::ExtractCookie(const CVEKHttpFields& fields, std::string& value) const {
    for (const auto& [name, text] : fields) {
        const std::string start = name_ + "=";
        if (name == "set-cookie" && text.substr(0, start.size()) == start) {
            value = text.substr(start.size(), text.find(';') - start.size());
            return true;
        }
    }
    return false;
}

bool CVEKLoadExtractor::ExtractMatch(const std::string& body, std::string& value) const {
    const int groups = regex_->NumberOfCapturingGroups() > 0 ? 2 : 1;
    re2::StringPiece found[2];
    if (!regex_->Match(body, 0, body.size(), re2::RE2::UNANCHORED, found, groups)) {
        return false;
    }
    value = std::string(found[groups - 1]);
    return true;
}

bool CVEKLoadExtractor::Extract(CVEKLoadAnswer& answer, std::string& value,
                                std::string& error) const {
    const CVEKHttpFields& fields = answer.GetResponse().fields_;
    switch (kind_) {
        case Kind::HEADER: {
            const auto found = fields.Find(name_);
            error = "no header " + name_;
            value = found.value_or("");
            return found.has_value();
        }
        case Kind::COOKIE:
            error = "no cookie " + name_;
            return ExtractCookie(fields, value);
        case Kind::JSON: {
            const nlohmann::json* json = answer.GetJson(error);
            if (json == nullptr) {
                return false;
            }
            error = "nothing at " + name_;
            const nlohmann::json* found = CVEKLoadAnswer::Find(*json, pointer_);
            value = found == nullptr ? "" : CVEKLoadAnswer::Write(*found);
            return found != nullptr;
        }
        default: {
            const std::string* body = answer.GetBody(error);
            if (body == nullptr) {
                return false;
            }
            error = "no match of " + name_;
            return ExtractMatch(*body, value);
        }
    }
}
