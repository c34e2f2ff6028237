// CVEKLoadAnswer: a response as expectations and extractions see it. The body is parsed once, when
// somebody asks.
#ifndef CVEK_LOAD_ANSWER_H
#define CVEK_LOAD_ANSWER_H

#include <nlohmann/json.hpp>
#include <string>

#include "VEKHttpMessage.h"

class CVEKLoadAnswer {
  public:
    explicit CVEKLoadAnswer(const VEK_ST_HTTP_RESPONSE& response) : response_(response) {}

    const VEK_ST_HTTP_RESPONSE& GetResponse() const { return response_; }
    // Null: it has a content-encoding, which is not undone here, or is no JSON, or one that is
    // nested too deeply; `error` says so.
    const std::string* GetBody(std::string& error) const;
    const nlohmann::json* GetJson(std::string& error);

    // What a JSON pointer leads to; null: nothing.
    static const nlohmann::json* Find(const nlohmann::json& json,
                                      const nlohmann::json::json_pointer& pointer);
    // As a text: without quotes, if it is a text.
    static std::string Write(const nlohmann::json& value);

  private:
    const VEK_ST_HTTP_RESPONSE& response_;
    nlohmann::json json_;
    bool isParsed_ = false;
    bool isTooDeep_ = false;
};

#endif
