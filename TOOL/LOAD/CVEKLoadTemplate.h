// CVEKLoadTemplate: a text in which {{name}} stands for the value of a variable.
// CVEKLoadNames numbers the variables, so that a user's values are a plain list.
#ifndef CVEK_LOAD_TEMPLATE_H
#define CVEK_LOAD_TEMPLATE_H

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

class CVEKLoadNames {
  public:
    // The number of a variable, which may be new.
    size_t Add(const std::string& name) {
        return numbers_.emplace(name, numbers_.size()).first->second;
    }
    // Null: there is none of that name.
    const size_t* Find(const std::string& name) const {
        const auto found = numbers_.find(name);
        return found == numbers_.end() ? nullptr : &found->second;
    }
    size_t GetSize() const { return numbers_.size(); }
    // "a, b, c"
    std::string List() const;

  private:
    std::map<std::string, size_t> numbers_;
};

class CVEKLoadTemplate {
  public:
    CVEKLoadTemplate() = default;
    // A text without variables, whatever it holds.
    explicit CVEKLoadTemplate(std::string text) : text_(text) {
        parts_.emplace_back(std::move(text), NO_VARIABLE);
    }

    // False: `error` says which name is unknown, or where braces do not close.
    bool Parse(std::string_view text, const CVEKLoadNames& names, std::string& error);
    // The same for a JSON document, whose texts hold the braces: whatever the values are, it stays
    // one.
    bool ParseJson(std::string_view json, const CVEKLoadNames& names, std::string& error);

    bool HasVariables() const;
    std::string Render(const std::vector<std::string>& values) const;
    // As it was parsed.
    const std::string& GetText() const { return text_; }

  private:
    static constexpr size_t NO_VARIABLE = static_cast<size_t>(-1);

    std::string text_;
    std::vector<std::pair<std::string, size_t>> parts_;  // a text, and the variable behind it
    bool isJson_ = false;
};

#endif
