// What the command line and scenarios name alike: files, times, header fields.
#ifndef VEK_LOAD_INPUT_H
#define VEK_LOAD_INPUT_H

#include <chrono>
#include <string>
#include <string_view>

// All of a file, or of standard input for "-". False: `error` says why not.
bool VEK_LOAD_READ_FILE(const std::string& path, std::string& text, std::string& error);
// "250ms", "1.5s", "2m"; without a unit seconds. False: it is none.
bool VEK_LOAD_READ_TIME(std::string_view text, std::chrono::microseconds& time);
// The text in lower case, as HTTP/2 has the names of fields.
std::string VEK_LOAD_LOWER(std::string text);

#endif
