#include "CVEKLoadJsonNode.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <iterator>
#include <set>

namespace {

// As a part of a JSON pointer.
std::string Escape(std::string_view name) {
    std::string text;
    for (const char c : name) {
        text += c == '~' ? "~0" : c == '/' ? "~1" : std::string(1, c);
    }
    return text;
}

// Where a byte of a text is.
std::string Locate(std::string_view text, size_t at) {
    const std::string_view before = text.substr(0, at);
    const auto line = 1 + std::count(before.begin(), before.end(), '\n');
    const size_t column = before.size() - (before.rfind('\n') + 1) + 1;
    return "line " + std::to_string(line) + ", column " + std::to_string(column) + ": ";
}

// For the parser: goes through a text, and tells how many bytes of it have been taken.
class Cursor {
  public:
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    Cursor(const char* at, size_t& taken) : at_(at), taken_(&taken) {}
    reference operator*() const { return *at_; }
    Cursor& operator++() {
        ++at_;
        ++*taken_;
        return *this;
    }
    bool operator==(const Cursor& other) const { return at_ == other.at_; }
    bool operator!=(const Cursor& other) const { return at_ != other.at_; }

  private:
    const char* at_;
    size_t* taken_;
};

// For the parser: finds a name that an object has twice. The value of one of them would be lost
// without a word.
class TwinFinder {
  public:
    // Whether this is such a name.
    bool Take(size_t depth, nlohmann::detail::parse_event_t event,
              const CVEKLoadJsonNode::Json& value) {
        using Event = nlohmann::detail::parse_event_t;
        if (event == Event::object_start) {  // its members are one deeper
            names_.resize(depth + 1);
            names_.emplace_back();
        }
        return event == Event::key && depth < names_.size() &&
               !names_[depth].insert(value.get<std::string>()).second;
    }

  private:
    std::vector<std::set<std::string>> names_;  // by depth, of the object that is read
};

}  // namespace

bool CVEKLoadJsonNode::Parse(std::string_view text, Json& json, std::string& error) {
    size_t taken = 0;
    error.clear();
    const auto refuse = [&](const std::string& why) {  // the first cause wins
        error = error.empty() ? Locate(text, taken - 1) + why : error;
    };
    try {
        bool isTooDeep = false;
        TwinFinder twins;
        const auto limit = VEK_LOAD_LIMIT_DEPTH(isTooDeep);
        const char* end = text.data() + text.size();
        const auto look = [&](int depth, auto event, Json& value) {
            const bool isKept = limit(depth, event, value);
            if (!isKept) {
                refuse("values are nested too deeply");
            } else if (twins.Take(static_cast<size_t>(depth), event, value)) {
                refuse("an object has the member " + value.dump() + " twice");
            }
            return isKept;
        };
        json = Json::parse(Cursor(text.data(), taken), Cursor(end, taken), look);
    } catch (const Json::parse_error& failure) {
        // The position counts from 1, and is of the last byte that was read.
        const std::string what = failure.what();
        const size_t colon = what.find(": ");
        error = Locate(text, failure.byte == 0 ? 0 : failure.byte - 1) +
                (colon == std::string::npos ? what : what.substr(colon + 2));
    } catch (const Json::exception& failure) {  // a number that none can hold
        const std::string_view what = failure.what();
        refuse(std::string(what.substr(what.find(' ') + 1)));
    }
    return error.empty();
}

void CVEKLoadJsonNode::Refuse(const std::string& expected) const {
    if (error_->empty()) {
        *error_ = (pointer_.empty() ? "the document" : pointer_) + ": expected " + expected;
    }
}

CVEKLoadJsonNode CVEKLoadJsonNode::Find(const char* name) const {
    const std::string pointer = pointer_ + "/" + Escape(name);
    if (!IsThere()) {
        return {nullptr, pointer, error_};
    }
    if (!json_->is_object()) {
        Refuse("an object");
        return {nullptr, pointer, error_};
    }
    const auto found = json_->find(name);
    return {found == json_->end() ? nullptr : &*found, pointer, error_};
}

CVEKLoadJsonNode CVEKLoadJsonNode::Need(const char* name) const {
    CVEKLoadJsonNode node = Find(name);
    if (!node.IsThere()) {
        Refuse("a member \"" + std::string(name) + "\"");
    }
    return node;
}

void CVEKLoadJsonNode::AllowOnly(std::initializer_list<const char*> names) const {
    for (const auto& [name, node] : GetMembers()) {
        if (std::find(names.begin(), names.end(), name) == names.end()) {
            std::string list;
            for (const char* known : names) {
                list += (list.empty() ? "" : ", ") + std::string(known);
            }
            node.Refuse("no such member; known are " + list);
        }
    }
}

std::vector<std::pair<std::string, CVEKLoadJsonNode>> CVEKLoadJsonNode::GetMembers() const {
    std::vector<std::pair<std::string, CVEKLoadJsonNode>> members;
    if (IsThere() && !json_->is_object()) {
        Refuse("an object");
    } else if (IsThere()) {
        for (const auto& [name, value] : json_->items()) {
            members.emplace_back(name,
                                 CVEKLoadJsonNode(&value, pointer_ + "/" + Escape(name), error_));
        }
    }
    return members;
}

std::vector<CVEKLoadJsonNode> CVEKLoadJsonNode::GetItems() const {
    std::vector<CVEKLoadJsonNode> items;
    if (IsThere() && !json_->is_array()) {
        Refuse("an array");
    } else if (IsThere()) {
        for (size_t i = 0; i < json_->size(); ++i) {
            items.push_back({&(*json_)[i], pointer_ + "/" + std::to_string(i), error_});
        }
    }
    return items;
}

std::string CVEKLoadJsonNode::GetText(std::string_view instead) const {
    if (!IsThere()) {
        return std::string(instead);
    }
    if (!json_->is_string()) {
        Refuse("a text");
        return std::string(instead);
    }
    return json_->get<std::string>();
}

int64_t CVEKLoadJsonNode::GetInteger(int64_t min, int64_t max, int64_t instead) const {
    if (!IsThere()) {
        return instead;
    }
    const bool isTooLarge =
        json_->is_number_unsigned() && json_->get<uint64_t>() > static_cast<uint64_t>(INT64_MAX);
    if (json_->is_number_integer() && !isTooLarge) {
        const auto value = json_->get<int64_t>();
        if (value >= min && value <= max) {
            return value;
        }
    }
    Refuse("an integer from " + std::to_string(min) + " to " + std::to_string(max));
    return instead;
}

uint64_t CVEKLoadJsonNode::GetCount() const {
    return static_cast<uint64_t>(GetInteger(0, MAX_COUNT));
}

double CVEKLoadJsonNode::GetNumber(double min, double max, double instead) const {
    if (!IsThere()) {
        return instead;
    }
    if (json_->is_number()) {
        const auto value = json_->get<double>();
        if (value >= min && value <= max) {
            return value;
        }
    }
    char text[96];
    snprintf(text, sizeof text, "a number from %g to %g", min, max);
    Refuse(text);
    return instead;
}

bool CVEKLoadJsonNode::GetBool(bool instead) const {
    if (IsThere() && !json_->is_boolean()) {
        Refuse("true or false");
    }
    return IsThere() && json_->is_boolean() ? json_->get<bool>() : instead;
}
