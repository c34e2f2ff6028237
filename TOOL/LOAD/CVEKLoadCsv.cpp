#include "CVEKLoadCsv.h"

#include <algorithm>
#include <utility>

namespace {

// Takes rows from a text, one after another.
class Scanner {
  public:
    explicit Scanner(std::string_view text) : text_(text) {}

    bool IsAtEnd() const { return at_ >= text_.size(); }
    size_t GetLine() const { return line_; }
    // False when a quote does not close, or is followed by more.
    bool TakeRow(CVEKLoadCsv::Row& row) {
        row.clear();
        do {
            row.emplace_back();
            if (!(Peek() == '"' ? TakeQuoted(row.back()) : TakePlain(row.back()))) {
                return false;
            }
        } while (Skip(','));
        Skip('\r');
        const bool isWhole = IsAtEnd() || Skip('\n');
        ++line_;
        return isWhole;
    }

  private:
    char Peek() const { return IsAtEnd() ? '\0' : text_[at_]; }
    bool Skip(char c) {
        const bool isThere = !IsAtEnd() && text_[at_] == c;
        at_ += isThere ? 1 : 0;
        return isThere;
    }
    bool TakePlain(std::string& field) {
        const size_t end = std::min(text_.find_first_of(",\r\n", at_), text_.size());
        field = text_.substr(at_, end - at_);
        at_ = end;
        return true;
    }
    bool TakeQuoted(std::string& field) {
        for (++at_; !IsAtEnd(); ++at_) {
            if (Skip('"')) {
                if (Peek() != '"') {
                    return true;
                }
            } else if (text_[at_] == '\n') {
                ++line_;
            }
            field += text_[at_];
        }
        return false;
    }

    std::string_view text_;
    size_t at_ = 0;
    size_t line_ = 1;
};

}  // namespace

bool CVEKLoadCsv::Parse(std::string_view text, std::string& error) {
    constexpr std::string_view BYTE_ORDER_MARK = "\xef\xbb\xbf";  // of some editors and tables
    columns_.clear();
    rows_.clear();
    const bool hasMark = text.substr(0, BYTE_ORDER_MARK.size()) == BYTE_ORDER_MARK;
    Scanner scanner(text.substr(hasMark ? BYTE_ORDER_MARK.size() : 0));
    while (!scanner.IsAtEnd()) {
        const std::string line = "line " + std::to_string(scanner.GetLine());
        Row row;
        if (!scanner.TakeRow(row)) {
            error = line + ": expected a quote to close, and a comma or the line's end behind it";
            return false;
        }
        if (columns_.empty()) {
            columns_ = std::move(row);
        } else if (row.size() == columns_.size()) {
            rows_.push_back(std::move(row));
        } else if (row.size() > 1 || !row[0].empty()) {  // lines may be empty
            error = line + ": expected " + std::to_string(columns_.size()) + " fields, found " +
                    std::to_string(row.size());
            return false;
        }
    }
    if (rows_.empty()) {
        error = "expected a line with the names of the columns, and rows behind it";
        return false;
    }
    return true;
}
