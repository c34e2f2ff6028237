// Histograms in the HdrHistogram formats: compressed (V2: ZigZag LEB128 counts, zlib, base64) for
// JSON, and as lines of a histogram log (version 1.3) that its viewers read.
#ifndef VEK_LOAD_HDR_H
#define VEK_LOAD_HDR_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "CVEKLoadHistogram.h"

std::string VEK_LOAD_ENCODE_HDR(const CVEKLoadHistogram& histogram);
// The buckets of an encoded histogram of ours. False when it is none.
bool VEK_LOAD_DECODE_HDR(std::string_view text, std::vector<uint64_t>& buckets);

// The head of a log; `start` in seconds since the epoch.
std::string VEK_LOAD_HDR_LOG_HEAD(double start);
// One interval; begin and length in seconds, `encoded` as VEK_LOAD_ENCODE_HDR makes it.
std::string VEK_LOAD_HDR_LOG_LINE(double begin, double length, uint64_t maxNs,
                                  std::string_view encoded);

#endif
