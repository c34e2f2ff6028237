#include "CVEKLoadScenarioReader.h"

#include <algorithm>
#include <memory>
#include <utility>

#include "VEKLoadField.h"
#include "VEKLoadInput.h"
#include "VEKLoadUnit.h"
#include "VEKLoadUrl.h"

namespace {

constexpr int64_t MAX_WEIGHT = 1000000;
constexpr int MIN_STATUS = 100;

CVEKLoadTemplate ReadTemplate(const CVEKLoadJsonNode& node, const CVEKLoadNames& names) {
    CVEKLoadTemplate made;
    std::string error;
    if (!made.Parse(node.GetText(), names, error)) {
        node.Refuse("other text: " + error);
    }
    return made;
}

std::chrono::microseconds ReadTime(const CVEKLoadJsonNode& node) {
    std::chrono::microseconds time{0};
    if (node.IsThere() && (!node.IsText() || !VEK_LOAD_READ_TIME(node.GetText(), time))) {
        node.Refuse("a time with its unit, \"250ms\"");
    }
    return time;
}

// 201, or "2xx" as 2.
int ReadStatus(const CVEKLoadJsonNode& node) {
    if (node.IsText()) {
        const std::string text = node.GetText();
        if (text.size() == 3 && text[0] >= '1' && text[0] <= '9' && text.substr(1) == "xx") {
            return text[0] - '0';
        }
        node.Refuse("a status, 200 or \"2xx\"");
        return MIN_STATUS;
    }
    return static_cast<int>(node.GetInteger(MIN_STATUS, VEK_LOAD_MAX_STATUS, MIN_STATUS));
}

}  // namespace

bool CVEKLoadScenarioReader::Read(const std::string& path, VEK_ST_LOAD_SCENARIO& scenario,
                                  std::string& error) {
    scenario = VEK_ST_LOAD_SCENARIO();
    scenario_ = &scenario;
    folder_ = path.substr(0, path.rfind('/') + 1);
    std::string text;
    if (!VEK_LOAD_READ_FILE(path, text, error)) {
        return false;
    }
    CVEKLoadJsonNode::Json json;
    if (CVEKLoadJsonNode::Parse(text, json, error)) {
        ReadAll(CVEKLoadJsonNode(json, error));
    }
    if (!error.empty()) {
        error = path + ": " + error;
    }
    return error.empty();
}

void CVEKLoadScenarioReader::ReadAll(const CVEKLoadJsonNode& node) {
    node.AllowOnly({"url", "variables", "flows"});
    const CVEKLoadJsonNode url = node.Find("url");
    scenario_->url_ = url.GetText();
    VEK_ST_LOAD_URL parsed;
    std::string error;
    if (url.IsThere() && !VEK_LOAD_READ_URL(scenario_->url_, parsed, error)) {
        url.Refuse("a URL: " + error);
    }
    for (const auto& [name, variable] : node.Find("variables").GetMembers()) {
        ReadVariable(name, variable);
    }
    highest_ = names_.GetSize();
    const auto flows = node.Need("flows").GetItems();
    for (size_t i = 0; i < flows.size(); ++i) {
        ReadFlow(flows[i], i);
    }
    if (flows.empty()) {
        node.Find("flows").Refuse("at least one flow");
    }
    scenario_->valueCount_ = highest_;
}

void CVEKLoadScenarioReader::AddVariable(const std::string& name, const CVEKLoadJsonNode& node,
                                         CVEKLoadVariable variable) {
    const size_t before = names_.GetSize();
    const size_t number = names_.Add(name);
    if (number < before || name.empty() || name.find_first_of("{}") != std::string::npos) {
        node.Refuse("a name of its own without braces, not \"" + name + "\"");
    }
    scenario_->variables_.emplace_back(number, std::move(variable));
}

void CVEKLoadScenarioReader::ReadVariable(const std::string& name, const CVEKLoadJsonNode& node) {
    const auto range = [](const CVEKLoadJsonNode& parent, int64_t& from, int64_t& to) {
        parent.AllowOnly({"from", "to"});
        from = parent.Need("from").GetInteger(INT64_MIN, INT64_MAX);
        to = parent.Need("to").GetInteger(from, INT64_MAX, from);
    };
    int64_t from = 0;
    int64_t to = 0;
    if (const CVEKLoadJsonNode counter = node.Find("counter"); counter.IsThere()) {
        node.AllowOnly({"counter"});
        counter.AllowOnly({"start", "step"});
        from = counter.Find("start").GetInteger(INT64_MIN, INT64_MAX, 1);
        AddVariable(name, node,
                    CVEKLoadVariable::MakeCounter(
                        from, counter.Find("step").GetInteger(INT64_MIN, INT64_MAX, 1)));
    } else if (const CVEKLoadJsonNode inTurn = node.Find("range"); inTurn.IsThere()) {
        node.AllowOnly({"range"});
        range(inTurn, from, to);
        AddVariable(name, node, CVEKLoadVariable::MakeRange(from, to));
    } else if (const CVEKLoadJsonNode random = node.Find("random"); random.IsObject()) {
        node.AllowOnly({"random"});
        range(random, from, to);
        AddVariable(name, node, CVEKLoadVariable::MakeRandom(from, to));
    } else if (random.IsArray() && !random.GetItems().empty()) {
        node.AllowOnly({"random"});
        std::vector<std::string> texts;
        for (const CVEKLoadJsonNode& text : random.GetItems()) {
            texts.push_back(text.GetText());
        }
        AddVariable(name, node, CVEKLoadVariable::MakeChoice(std::move(texts)));
    } else if (node.Find("csv").IsThere()) {
        ReadCsv(name, node);
    } else {
        node.Refuse(
            "{\"counter\": {\"start\", \"step\"}}, {\"range\": {\"from\", \"to\"}}, {\"random\": "
            "{\"from\", \"to\"}}, {\"random\": [texts]} or {\"csv\": file, \"repeat\"}");
    }
}

void CVEKLoadScenarioReader::ReadCsv(const std::string& name, const CVEKLoadJsonNode& node) {
    node.AllowOnly({"csv", "repeat"});
    const CVEKLoadJsonNode file = node.Find("csv");
    const bool isRepeated = node.Find("repeat").GetBool();
    std::string text;
    std::string error;
    const auto csv = std::make_shared<CVEKLoadCsv>();
    if (file.GetText().empty() || !ReadFile(file, text, error) || !csv->Parse(text, error)) {
        file.Refuse("a CSV file: " + error);
        return;
    }
    for (size_t i = 0; i < csv->GetColumns().size(); ++i) {
        AddVariable(name + "." + csv->GetColumns()[i], node,
                    CVEKLoadVariable::MakeColumn(csv, i, isRepeated));
    }
}

bool CVEKLoadScenarioReader::ReadFile(const CVEKLoadJsonNode& node, std::string& text,
                                      std::string& error) const {
    const std::string path = node.GetText();
    return VEK_LOAD_READ_FILE(path.substr(0, 1) == "/" ? path : folder_ + path, text, error);
}

void CVEKLoadScenarioReader::ReadFlow(const CVEKLoadJsonNode& node, size_t index) {
    node.AllowOnly({"name", "weight", "steps"});
    VEK_ST_LOAD_FLOW flow;
    flow.name_ = node.Find("name").GetText("flow " + std::to_string(index + 1));
    flow.weight_ = static_cast<uint64_t>(node.Find("weight").GetInteger(1, MAX_WEIGHT, 1));
    CVEKLoadNames names = names_;
    const auto steps = node.Need("steps").GetItems();
    for (size_t i = 0; i < steps.size(); ++i) {
        flow.stages_.push_back(ReadStage(steps[i], i, names));
        flow.stages_.back().name_ = flow.name_ + ": " + flow.stages_.back().name_;
    }
    if (steps.empty()) {
        node.Find("steps").Refuse("at least one step");
    }
    highest_ = std::max(highest_, names.GetSize());
    scenario_->flows_.push_back(std::move(flow));
}

VEK_ST_LOAD_STAGE CVEKLoadScenarioReader::ReadStage(const CVEKLoadJsonNode& node, size_t index,
                                                    CVEKLoadNames& names) {
    node.AllowOnly(
        {"name", "method", "path", "headers", "body", "body_file", "extract", "expect", "think"});
    VEK_ST_LOAD_STAGE stage;
    stage.name_ = node.Find("name").GetText("step " + std::to_string(index + 1));
    ReadHead(node, names, stage);
    ReadBody(node, names, stage);
    ReadExpectations(node.Find("expect"), names, stage);
    for (const auto& [name, extractor] : node.Find("extract").GetMembers()) {
        ReadExtractor(name, extractor, names, stage);
    }
    const CVEKLoadJsonNode think = node.Find("think");
    if (think.IsObject()) {
        think.AllowOnly({"min", "max"});
        stage.minThink_ = ReadTime(think.Need("min"));
        stage.maxThink_ = ReadTime(think.Need("max"));
        if (stage.maxThink_ < stage.minThink_) {
            think.Find("max").Refuse("a time that is not below \"min\"");
        }
    } else {
        stage.minThink_ = stage.maxThink_ = ReadTime(think);
    }
    return stage;
}

void CVEKLoadScenarioReader::ReadHead(const CVEKLoadJsonNode& node, const CVEKLoadNames& names,
                                      VEK_ST_LOAD_STAGE& stage) {
    stage.method_ = node.Find("method").GetText("GET");
    if (!VEK_LOAD_IS_METHOD(stage.method_)) {
        node.Find("method").Refuse("a method");
    }
    const std::vector<std::string> values(names.GetSize(), "0");  // they could be
    stage.path_ = ReadTemplate(node.Need("path"), names);
    if (!VEK_LOAD_IS_PATH(stage.path_.Render(values))) {
        node.Find("path").Refuse("a path that begins with a slash and holds no blank");
    }
    for (const auto& [name, value] : node.Find("headers").GetMembers()) {
        const CVEKLoadTemplate text = ReadTemplate(value, names);
        if (!VEK_LOAD_IS_VALUE(text.Render(values))) {
            value.Refuse("the value of a header field");
        } else if (name == ":authority") {
            stage.authority_ = text;
        } else if (!VEK_LOAD_IS_NAME(VEK_LOAD_LOWER(name))) {
            value.Refuse("the name of a header field, or :authority");
        } else {
            stage.fields_.emplace_back(VEK_LOAD_LOWER(name), text);
        }
    }
}

void CVEKLoadScenarioReader::ReadBody(const CVEKLoadJsonNode& node, const CVEKLoadNames& names,
                                      VEK_ST_LOAD_STAGE& stage) {
    const CVEKLoadJsonNode body = node.Find("body");
    const CVEKLoadJsonNode file = node.Find("body_file");
    std::string text;
    std::string error;
    if (body.IsThere() && file.IsThere()) {
        file.Refuse("either body or body_file");
    } else if (body.IsObject() || body.IsArray()) {
        if (!stage.body_.ParseJson(body.GetJson().dump(), names, error)) {
            body.Refuse("other texts: " + error);
        }
    } else if (body.IsThere()) {
        stage.body_ = ReadTemplate(body, names);
    } else if (file.IsThere() &&
               !(ReadFile(file, text, error) && stage.body_.Parse(text, names, error))) {
        file.Refuse("a file with a body: " + error);
    }
}

void CVEKLoadScenarioReader::ReadExtractor(const std::string& name, const CVEKLoadJsonNode& node,
                                           CVEKLoadNames& names, VEK_ST_LOAD_STAGE& stage) {
    using From = bool (CVEKLoadExtractor::*)(const std::string&, std::string&);
    const std::pair<const char*, From> sources[] = {{"header", &CVEKLoadExtractor::FromHeader},
                                                    {"cookie", &CVEKLoadExtractor::FromCookie},
                                                    {"json", &CVEKLoadExtractor::FromJson},
                                                    {"regex", &CVEKLoadExtractor::FromRegex}};
    node.AllowOnly({"header", "cookie", "json", "regex"});
    if (!node.IsObject() || node.GetMembers().size() != 1) {
        node.Refuse("one of header, cookie, json and regex");
        return;
    }
    for (const auto& [source, from] : sources) {
        const CVEKLoadJsonNode where = node.Find(source);
        std::string error;
        if (where.IsThere()) {
            CVEKLoadExtractor extractor(names.Add(name));
            if (!(extractor.*from)(where.GetText(), error)) {
                where.Refuse(error);
            }
            stage.extractors_.push_back(std::move(extractor));
        }
    }
}

void CVEKLoadScenarioReader::ReadExpectations(const CVEKLoadJsonNode& node,
                                              const CVEKLoadNames& names,
                                              VEK_ST_LOAD_STAGE& stage) {
    if (!node.IsThere()) {
        return;
    }
    node.AllowOnly({"status", "headers", "json", "contains"});
    const CVEKLoadJsonNode status = node.Find("status");
    std::vector<int> statuses;
    if (status.IsArray()) {
        for (const CVEKLoadJsonNode& one : status.GetItems()) {
            statuses.push_back(ReadStatus(one));
        }
    } else if (status.IsThere()) {
        statuses.push_back(ReadStatus(status));
    }
    if (!statuses.empty()) {
        stage.expectations_.push_back(CVEKLoadExpectation::MakeStatus(std::move(statuses)));
    }
    for (const auto& [name, value] : node.Find("headers").GetMembers()) {
        stage.expectations_.push_back(
            CVEKLoadExpectation::MakeHeader(name, ReadTemplate(value, names)));
    }
    ReadJsonExpectations(node.Find("json"), names, stage);
    const CVEKLoadJsonNode contains = node.Find("contains");
    for (const CVEKLoadJsonNode& text :
         contains.IsText() ? std::vector<CVEKLoadJsonNode>{contains} : contains.GetItems()) {
        stage.expectations_.push_back(CVEKLoadExpectation::MakeContains(ReadTemplate(text, names)));
    }
}

void CVEKLoadScenarioReader::ReadJsonExpectations(const CVEKLoadJsonNode& node,
                                                  const CVEKLoadNames& names,
                                                  VEK_ST_LOAD_STAGE& stage) {
    for (const auto& [pointer, value] : node.GetMembers()) {
        std::string error;
        if (!CVEKLoadExtractor(0).FromJson(pointer, error)) {
            value.Refuse(error + " for its name");
        } else if (value.IsText()) {
            stage.expectations_.push_back(
                CVEKLoadExpectation::MakeJson(pointer, ReadTemplate(value, names)));
        } else {
            stage.expectations_.push_back(CVEKLoadExpectation::MakeJson(
                pointer, nlohmann::json::parse(value.GetJson().dump())));
        }
    }
}
