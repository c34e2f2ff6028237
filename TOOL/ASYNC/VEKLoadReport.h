// What test_http2_client_async prints: the progress line, the summary as text or as JSON, and the
// distribution of the latencies as a bar chart.
#ifndef VEK_LOAD_REPORT_H
#define VEK_LOAD_REPORT_H

#include <cstdint>
#include <cstdio>

#include "VEKLoadArguments.h"
#include "VEKLoadResult.h"

// A loop that was later than this was busy with more than it can carry: what it measured is its own
// work too.
constexpr std::chrono::milliseconds VEK_LOAD_LAG_LIMIT{100};

// Rewrites the progress line on standard error. `done` of the requests have ended, `errors` of
// these without an answer.
void VEK_LOAD_PRINT_PROGRESS(const VEK_ST_LOAD_ARGUMENTS& arguments, int64_t done, int64_t errors,
                             double seconds);
void VEK_LOAD_ERASE_PROGRESS();
void VEK_LOAD_PRINT_TEXT(const VEK_ST_LOAD_RESULT& result, double seconds);
void VEK_LOAD_PRINT_JSON(FILE* stream, const VEK_ST_LOAD_RESULT& result, double seconds);

#endif
