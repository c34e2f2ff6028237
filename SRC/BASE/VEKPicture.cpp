#include "VEKPicture.h"

namespace {

struct Field {
    char letter;
    int place;
    int digits;
};

constexpr Field FIELDS[] = {{'C', 0, 2}, {'Y', 2, 2},  {'M', 4, 2},  {'D', 6, 2},
                            {'h', 8, 2}, {'m', 10, 2}, {'s', 12, 2}, {'X', 14, 3}};

}  // namespace

int VEKPicture::Next(char letter) {
    const char wanted = letter == 'c' ? 'X' : letter;
    for (size_t i = 0; i < scope_; ++i) {
        const Field& field = FIELDS[i];
        if (field.letter == wanted) {
            return uses_[i] < field.digits ? field.place + uses_[i]++ : USED_UP;
        }
    }
    return LITERAL;
}

std::string VEKPicture::WithCentury(const char* picture) {
    std::string text = picture;
    const size_t at = text.find("YYYY");
    if (at != std::string::npos) {
        text.replace(at, 2, "CC");
    }
    return text;
}
