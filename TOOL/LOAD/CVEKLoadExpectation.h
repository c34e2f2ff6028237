// CVEKLoadExpectation: what an answer of a scenario must be.
#ifndef CVEK_LOAD_EXPECTATION_H
#define CVEK_LOAD_EXPECTATION_H

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "CVEKLoadAnswer.h"
#include "CVEKLoadTemplate.h"

class CVEKLoadExpectation {
  public:
    // Any of the statuses; one digit stands for its class.
    static CVEKLoadExpectation MakeStatus(std::vector<int> statuses);
    static CVEKLoadExpectation MakeHeader(const std::string& name, CVEKLoadTemplate value);
    // A text is compared with what a JSON pointer leads to, or something else as it is.
    static CVEKLoadExpectation MakeJson(const std::string& pointer, CVEKLoadTemplate value);
    static CVEKLoadExpectation MakeJson(const std::string& pointer, const nlohmann::json& value);
    static CVEKLoadExpectation MakeContains(CVEKLoadTemplate text);

    bool WantsBody() const { return kind_ == Kind::JSON || kind_ == Kind::CONTAINS; }
    // False: `error` says what was not as expected, in words that do not depend on the answer.
    bool Check(CVEKLoadAnswer& answer, const std::vector<std::string>& values,
               std::string& error) const;

  private:
    enum class Kind { STATUS, HEADER, JSON, CONTAINS };
    CVEKLoadExpectation(Kind kind, std::string text) : kind_(kind), text_(std::move(text)) {}
    bool CheckStatus(int status) const;
    bool CheckJson(const nlohmann::json& json, const std::vector<std::string>& values) const;

    Kind kind_;
    std::string text_;
    std::vector<int> statuses_;
    std::string name_;
    CVEKLoadTemplate value_;
    nlohmann::json::json_pointer pointer_;
    nlohmann::json wanted_;  // discarded: value_ instead
};

#endif
