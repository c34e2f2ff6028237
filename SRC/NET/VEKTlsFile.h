// The files that a TLS context is made from, before the library opens them: it would wait for who
// writes into a pipe, find nothing in a directory, and end a name at its first NUL.
#ifndef VEK_TLS_FILE_H
#define VEK_TLS_FILE_H

#include <string>

// Names a file in an error text: `kind` ("CA file") and the whole path, escaped.
std::string VEK_TLS_FILE_TEXT(const char* kind, const std::string& path);

// Whether it is a regular file of up to 16 MiB, or a directory that can be listed. False with the
// reason in `error`.
bool VEK_TLS_CHECK_FILE(const char* kind, const std::string& path, std::string& error);
bool VEK_TLS_CHECK_DIRECTORY(const char* kind, const std::string& path, std::string& error);

#endif
