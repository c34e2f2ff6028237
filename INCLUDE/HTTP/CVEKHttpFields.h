// CVEKHttpFields: header fields or trailers of a message, in the order in which they are sent or
// were received. Duplicates are kept. A name compares without regard to case and is held in lower
// case (RFC 9113, section 8.2). All of them lie in one piece of memory, which Clear keeps.
//
// Views that are handed out stay good until the list is changed.
#ifndef CVEK_HTTP_FIELDS_H
#define CVEK_HTTP_FIELDS_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "VEKExport.h"

class VEK_API CVEKHttpFields {
  public:
    using Field = std::pair<std::string_view, std::string_view>;  // name, value

    class Iterator {
      public:
        Iterator(const CVEKHttpFields* fields, size_t index) : fields_(fields), index_(index) {}
        Field operator*() const { return (*fields_)[index_]; }
        Iterator& operator++() {
            ++index_;
            return *this;
        }
        bool operator==(const Iterator& other) const { return index_ == other.index_; }
        bool operator!=(const Iterator& other) const { return index_ != other.index_; }

      private:
        const CVEKHttpFields* fields_;
        size_t index_;
    };

    CVEKHttpFields() = default;
    CVEKHttpFields(std::initializer_list<Field> fields) {
        for (const Field& field : fields) {
            Add(field.first, field.second);
        }
    }

    // Adds a field behind the others. The texts must not lie in this list.
    void Add(std::string_view name, std::string_view value);
    // Removes all fields of that name. Returns how many there were.
    size_t Remove(std::string_view name);
    void Clear() {
        text_.clear();
        entries_.clear();
    }

    // The value of the first field of that name; nothing when there is none.
    std::optional<std::string_view> Find(std::string_view name) const;
    // The same as a text of its own; empty when there is none.
    std::string Get(std::string_view name) const { return std::string(Find(name).value_or("")); }

    size_t GetSize() const { return entries_.size(); }
    bool IsEmpty() const { return entries_.empty(); }
    // Bytes of all names and values.
    size_t GetBytes() const { return text_.size(); }
    Field operator[](size_t index) const {
        const Entry& entry = entries_[index];
        const std::string_view text(text_);
        return {text.substr(entry.begin, entry.nameSize),
                text.substr(size_t{entry.begin} + entry.nameSize, entry.valueSize)};
    }
    Iterator begin() const { return {this, 0}; }
    Iterator end() const { return {this, entries_.size()}; }

  private:
    struct Entry {
        uint32_t begin;
        uint32_t nameSize;
        uint32_t valueSize;
    };

    std::string text_;
    std::vector<Entry> entries_;
};

#endif
