// Runs as texts: the summary for people, and one line of CSV for each second.
#ifndef VEK_LOAD_TEXT_H
#define VEK_LOAD_TEXT_H

#include <cstddef>
#include <string>

#include "VEKLoadSummary.h"

// isColour: with the escape sequences of terminals.
std::string VEK_LOAD_WRITE_TEXT(const VEK_ST_LOAD_SUMMARY& summary, bool isColour);

std::string VEK_LOAD_CSV_HEAD();
// `second` counts from 0. Latencies are milliseconds; they are empty where nothing was answered.
std::string VEK_LOAD_CSV_LINE(size_t second, const VEK_ST_LOAD_SECOND& row);

// A text in double quotes for CSV (RFC 4180), where it needs them.
std::string VEK_LOAD_CSV_TEXT(const std::string& text);

// "12.3 ms", "4.56 s": three digits with the unit that suits.
std::string VEK_LOAD_FORMAT_NS(double ns);

#endif
