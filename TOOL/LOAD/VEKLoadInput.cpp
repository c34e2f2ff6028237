#include "VEKLoadInput.h"

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

// More than that is no file that was meant: a device without end, perhaps.
constexpr size_t MAX_BYTES = size_t{1} << 30;

}  // namespace

bool VEK_LOAD_READ_FILE(const std::string& path, std::string& text, std::string& error) {
    const bool isInput = path == "-";
    const std::unique_ptr<FILE, int (*)(FILE*)> file(isInput ? stdin : fopen(path.c_str(), "re"),
                                                     isInput ? fflush : fclose);
    text.clear();
    if (file != nullptr) {
        char piece[BUFSIZ];
        for (size_t size = 0; (size = fread(piece, 1, sizeof piece, file.get())) > 0;) {
            text.append(piece, size);
            if (text.size() > MAX_BYTES) {
                error = path + ": more than " + std::to_string(MAX_BYTES) + " bytes";
                return false;
            }
        }
    }
    if (file == nullptr || ferror(file.get()) != 0) {
        error = path + ": " + strerror(errno);
        return false;
    }
    return true;
}

bool VEK_LOAD_READ_TIME(std::string_view text, std::chrono::microseconds& time) {
    constexpr double MAX_SECONDS = 1e7;
    const struct {
        const char* name;
        double seconds;
    } units[] = {{"us", 1e-6}, {"ms", 1e-3}, {"s", 1},   {"", 1},
                 {"m", 60},    {"min", 60},  {"h", 3600}};
    double number = 0;
    const auto [end, code] =
        std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
    const std::string_view unit = text.substr(static_cast<size_t>(end - text.data()));
    for (const auto& known : units) {
        const double seconds = number * known.seconds;
        if (code == std::errc() && unit == known.name && seconds >= 0 && seconds <= MAX_SECONDS) {
            time = std::chrono::microseconds(std::llround(seconds * 1e6));
            return true;
        }
    }
    return false;
}

std::string VEK_LOAD_LOWER(std::string text) {
    for (char& c : text) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return text;
}
