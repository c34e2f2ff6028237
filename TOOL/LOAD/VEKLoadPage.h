// A run as one HTML page that needs nothing else: its figures, the percentile curve, the histogram
// and the seconds, drawn by a chart library that the page holds.
#ifndef VEK_LOAD_PAGE_H
#define VEK_LOAD_PAGE_H

#include <string>

#include "VEKLoadSummary.h"

std::string VEK_LOAD_WRITE_PAGE(const VEK_ST_LOAD_SUMMARY& summary);

#endif
