// Pictures of times and dates, in which each letter stands for the next digit of its field.
#ifndef VEK_PICTURE_H
#define VEK_PICTURE_H

#include <cstddef>
#include <string>

class VEKPicture {
  public:
    // What the letters may stand for: fields of CCYYMMDDhhmmssXXX, from its beginning.
    enum e4scope { DATE = 4, SECONDS = 7, MILLISECONDS = 8 };
    static constexpr size_t DIGITS = 17;

    static constexpr int LITERAL = -1;  // the character stands for itself
    static constexpr int USED_UP = -2;  // its field has no more digits

    explicit VEKPicture(e4scope scope) : scope_(scope), uses_() {}

    // The place in CCYYMMDDhhmmssXXX of the digit that the next character of the picture stands
    // for, or one of the two values above.
    int Next(char letter);

    // The picture with its first "YYYY" as "CCYY".
    static std::string WithCentury(const char* picture);

  private:
    size_t scope_;
    int uses_[MILLISECONDS];
};

#endif
