// Runs as JSON: the form of vekload-1.schema.json, which other programs and merging read.
#ifndef VEK_LOAD_JSON_H
#define VEK_LOAD_JSON_H

#include <string>
#include <string_view>

#include "VEKLoadSummary.h"

constexpr char VEK_LOAD_SCHEMA[] = "vekload/1";

// One object, with a line end.
std::string VEK_LOAD_WRITE_JSON(const VEK_ST_LOAD_SUMMARY& summary);
// False: `error` says where the text is not what VEK_LOAD_WRITE_JSON makes.
bool VEK_LOAD_READ_JSON(std::string_view text, VEK_ST_LOAD_SUMMARY& summary, std::string& error);

#endif
