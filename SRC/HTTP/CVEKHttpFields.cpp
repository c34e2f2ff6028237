#include "CVEKHttpFields.h"

#include <algorithm>

namespace {

char Lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// `held` is in lower case.
bool IsName(std::string_view held, std::string_view name) {
    return held.size() == name.size() && std::equal(held.begin(), held.end(), name.begin(),
                                                    [](char a, char b) { return a == Lower(b); });
}

}  // namespace

void CVEKHttpFields::Add(std::string_view name, std::string_view value) {
    const size_t begin = text_.size();
    text_.append(name);
    std::transform(text_.begin() + static_cast<std::ptrdiff_t>(begin), text_.end(),
                   text_.begin() + static_cast<std::ptrdiff_t>(begin), Lower);
    text_.append(value);
    // Last: where memory ends before, the list is as it was.
    entries_.push_back({static_cast<uint32_t>(begin), static_cast<uint32_t>(name.size()),
                        static_cast<uint32_t>(value.size())});
}

size_t CVEKHttpFields::Remove(std::string_view name) {
    CVEKHttpFields rest;
    for (const Field& field : *this) {
        if (!IsName(field.first, name)) {
            rest.Add(field.first, field.second);
        }
    }
    const size_t removed = GetSize() - rest.GetSize();
    if (removed > 0) {
        *this = std::move(rest);
    }
    return removed;
}

std::optional<std::string_view> CVEKHttpFields::Find(std::string_view name) const {
    for (const Field& field : *this) {
        if (IsName(field.first, name)) {
            return field.second;
        }
    }
    return std::nullopt;
}
