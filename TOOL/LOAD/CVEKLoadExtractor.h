// CVEKLoadExtractor: takes a value out of an answer for the later steps of a flow.
#ifndef CVEK_LOAD_EXTRACTOR_H
#define CVEK_LOAD_EXTRACTOR_H

#include <cstddef>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "CVEKLoadAnswer.h"

namespace re2 {
class RE2;
}

class CVEKLoadExtractor {
  public:
    // variable: number of the one that gets the value.
    explicit CVEKLoadExtractor(size_t variable) : variable_(variable) {}

    // From where. False: `error` says what is wrong with it.
    bool FromHeader(const std::string& name, std::string& error);
    bool FromCookie(const std::string& name, std::string& error);  // of Set-Cookie
    bool FromJson(const std::string& pointer, std::string& error);
    // The first group, or all of the match where there is none.
    bool FromRegex(const std::string& expression, std::string& error);

    bool WantsBody() const { return kind_ == Kind::JSON || kind_ == Kind::REGEX; }
    size_t GetVariable() const { return variable_; }
    // False: `error` says why there is no value, in words that do not depend on the answer.
    bool Extract(CVEKLoadAnswer& answer, std::string& value, std::string& error) const;

  private:
    enum class Kind { HEADER, COOKIE, JSON, REGEX };
    bool ExtractCookie(const CVEKHttpFields& fields, std::string& value) const;
    bool ExtractMatch(const std::string& body, std::string& value) const;

    size_t variable_;
    Kind kind_ = Kind::HEADER;
    std::string name_;
    nlohmann::json::json_pointer pointer_;
    std::shared_ptr<const re2::RE2> regex_;
};

#endif
