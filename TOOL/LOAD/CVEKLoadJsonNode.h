// CVEKLoadJsonNode: a value of a JSON document that somebody else has written, read with checks.
// The first thing that is wrong is noted with its JSON pointer (RFC 6901), and what was expected;
// everything that is read after that is a default.
#ifndef CVEK_LOAD_JSON_NODE_H
#define CVEK_LOAD_JSON_NODE_H

#include <cstdint>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// For the parser of a document: notes, and drops, what is nested so deeply that whatever goes
// through it, calling itself for each level, would come to the end of its stack.
inline auto VEK_LOAD_LIMIT_DEPTH(bool& isTooDeep) {
    constexpr int MAX_DEPTH = 200;
    return [&isTooDeep](int depth, auto /*event*/, auto& /*value*/) {
        isTooDeep = isTooDeep || depth > MAX_DEPTH;
        return !isTooDeep;
    };
}

class CVEKLoadJsonNode {
  public:
    using Json = nlohmann::ordered_json;

    // Parses a text. False: `error` says what is wrong, with line and column.
    static bool Parse(std::string_view text, Json& json, std::string& error);

    // The whole document. `error` is to be empty; both must outlive the node.
    CVEKLoadJsonNode(const Json& json, std::string& error) : json_(&json), error_(&error) {}

    bool IsThere() const { return json_ != nullptr; }
    bool IsObject() const { return IsThere() && json_->is_object(); }
    bool IsArray() const { return IsThere() && json_->is_array(); }
    bool IsText() const { return IsThere() && json_->is_string(); }
    bool IsNumber() const { return IsThere() && json_->is_number(); }
    const Json& GetJson() const { return *json_; }

    // A member that must be there, or may be; one that is not there gives defaults.
    CVEKLoadJsonNode Need(const char* name) const;
    CVEKLoadJsonNode Find(const char* name) const;
    // Notes members that have none of these names.
    void AllowOnly(std::initializer_list<const char*> names) const;
    std::vector<std::pair<std::string, CVEKLoadJsonNode>> GetMembers() const;
    std::vector<CVEKLoadJsonNode> GetItems() const;

    std::string GetText(std::string_view instead = "") const;
    // Within these bounds.
    int64_t GetInteger(int64_t min, int64_t max, int64_t instead = 0) const;
    // 0 to 2^53, which every reader of JSON has exactly, and many of which can be added up.
    static constexpr int64_t MAX_COUNT = int64_t{1} << 53;
    uint64_t GetCount() const;
    double GetNumber(double min, double max, double instead = 0) const;
    bool GetBool(bool instead = false) const;

    // Notes that the value is not what was expected. `expected` begins in lower case.
    void Refuse(const std::string& expected) const;

  private:
    CVEKLoadJsonNode(const Json* json, std::string pointer, std::string* error)
        : json_(json), pointer_(std::move(pointer)), error_(error) {}

    const Json* json_;  // null: not there
    std::string pointer_;
    std::string* error_;
};

#endif
