#include "VEKLoadHdr.h"

#include <openssl/evp.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>

#include "VEKLoadUnit.h"

namespace {

constexpr uint32_t COOKIE_COUNTS = 0x1c849303 | 0x10;
constexpr uint32_t COOKIE_COMPRESSED = 0x1c849304 | 0x10;
constexpr int32_t SIGNIFICANT_DIGITS = 3;
constexpr size_t HEAD_BYTES = 40;
constexpr size_t COMPRESSED_HEAD_BYTES = 8;
constexpr unsigned SEPTET_BITS = 7;
constexpr unsigned LAST_SHIFT = 56;  // the ninth byte of a count carries eight bits
constexpr uint8_t CONTINUES = 0x80;
// Counts of a day's buckets, nine bytes each, and the head.
constexpr size_t MAX_PAYLOAD = 1 << 20;

template <class NUMBER>
void Put(std::string& out, NUMBER number) {
    for (size_t i = sizeof number; i-- > 0;) {
        out += static_cast<char>(static_cast<uint64_t>(number) >> (8 * i));
    }
}

uint64_t GetUint(const std::string& in, size_t at, size_t bytes) {
    uint64_t number = 0;
    for (size_t i = 0; i < bytes; ++i) {
        number = number << 8 | static_cast<uint8_t>(in[at + i]);
    }
    return number;
}

void PutZigZag(std::string& out, int64_t number) {
    const uint64_t sign = number < 0 ? UINT64_MAX : 0;
    uint64_t value = static_cast<uint64_t>(number) << 1 ^ sign;
    for (unsigned shift = 0; shift < LAST_SHIFT && value >= CONTINUES; shift += SEPTET_BITS) {
        out += static_cast<char>(value | CONTINUES);
        value >>= SEPTET_BITS;
    }
    out += static_cast<char>(value);
}

bool GetZigZag(const std::string& in, size_t& at, int64_t& number) {
    uint64_t value = 0;
    for (unsigned shift = 0; at < in.size(); shift += SEPTET_BITS) {
        const auto byte = static_cast<uint8_t>(in[at++]);
        const bool isLast = shift == LAST_SHIFT || byte < CONTINUES;
        const uint64_t bits = shift == LAST_SHIFT ? byte : byte & (CONTINUES - 1);
        value |= bits << shift;
        if (isLast) {
            number = static_cast<int64_t>(value >> 1) ^ -static_cast<int64_t>(value & 1);
            return true;
        }
    }
    return false;
}

std::string MakeCounts(const std::vector<uint64_t>& buckets) {
    std::string counts;
    size_t end = buckets.size();
    while (end > 0 && buckets[end - 1] == 0) {
        --end;
    }
    for (size_t i = 0; i < end;) {
        size_t zeros = 0;
        while (buckets[i + zeros] == 0) {
            ++zeros;
        }
        PutZigZag(counts,
                  zeros > 0 ? -static_cast<int64_t>(zeros) : static_cast<int64_t>(buckets[i]));
        i += std::max<size_t>(zeros, 1);
    }
    return counts;
}

std::string EncodeBase64(const std::string& bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int size = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                     reinterpret_cast<const unsigned char*>(bytes.data()),
                                     static_cast<int>(bytes.size()));
    text.resize(static_cast<size_t>(size));
    return text;
}

bool DecodeBase64(std::string_view text, std::string& bytes) {
    if (text.size() % 4 != 0 || text.size() > 2 * MAX_PAYLOAD) {
        return false;
    }
    bytes.resize(text.size() / 4 * 3);
    return EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                           reinterpret_cast<const unsigned char*>(text.data()),
                           static_cast<int>(text.size())) >= 0;
}

// What the compressed form holds; empty when it holds nothing of ours.
std::string Inflate(const std::string& bytes) {
    if (bytes.size() < COMPRESSED_HEAD_BYTES || GetUint(bytes, 0, 4) != COOKIE_COMPRESSED) {
        return {};
    }
    const uint64_t size = GetUint(bytes, 4, 4);
    if (size > bytes.size() - COMPRESSED_HEAD_BYTES) {
        return {};
    }
    // Of what is not used nothing is touched.
    const std::unique_ptr<Bytef[]> payload(new Bytef[MAX_PAYLOAD]);
    uLongf made = MAX_PAYLOAD;
    const auto* begin = reinterpret_cast<const Bytef*>(bytes.data()) + COMPRESSED_HEAD_BYTES;
    if (uncompress(payload.get(), &made, begin, size) != Z_OK) {
        return {};
    }
    return {payload.get(), payload.get() + made};
}

}  // namespace

std::string VEK_LOAD_ENCODE_HDR(const CVEKLoadHistogram& histogram) {
    const std::string counts = MakeCounts(histogram.GetBuckets());
    std::string payload;
    Put(payload, COOKIE_COUNTS);
    Put(payload, static_cast<uint32_t>(counts.size()));
    Put(payload, int32_t{0});  // no normalising offset
    Put(payload, SIGNIFICANT_DIGITS);
    Put(payload, int64_t{1});  // unit
    Put(payload, CVEKLoadHistogram::LIMIT_NS);
    const double ratio = 1;
    uint64_t ratioBits = 0;
    memcpy(&ratioBits, &ratio, sizeof ratioBits);
    Put(payload, ratioBits);
    payload += counts;

    uLongf size = compressBound(payload.size());
    std::string packed(size, '\0');
    compress2(reinterpret_cast<Bytef*>(packed.data()), &size,
              reinterpret_cast<const Bytef*>(payload.data()), payload.size(), Z_BEST_SPEED);
    std::string bytes;
    Put(bytes, COOKIE_COMPRESSED);
    Put(bytes, static_cast<uint32_t>(size));
    return EncodeBase64(bytes.append(packed, 0, size));
}

bool VEK_LOAD_DECODE_HDR(std::string_view text, std::vector<uint64_t>& buckets) {
    constexpr size_t MAX_BUCKETS = 64 * CVEKLoadHistogram::HALF;
    buckets.clear();
    std::string bytes;
    if (!DecodeBase64(text, bytes)) {
        return false;
    }
    const std::string payload = Inflate(bytes);
    if (payload.size() < HEAD_BYTES || GetUint(payload, 0, 4) != COOKIE_COUNTS ||
        GetUint(payload, 4, 4) != payload.size() - HEAD_BYTES || GetUint(payload, 8, 4) != 0 ||
        GetUint(payload, 12, 4) != SIGNIFICANT_DIGITS || GetUint(payload, 16, 8) != 1) {
        return false;
    }
    for (size_t at = HEAD_BYTES; at < payload.size();) {
        int64_t number = 0;
        if (!GetZigZag(payload, at, number) || number < -static_cast<int64_t>(MAX_BUCKETS) ||
            buckets.size() > MAX_BUCKETS) {
            buckets.clear();
            return false;
        }
        buckets.insert(buckets.end(), static_cast<size_t>(number < 0 ? -number : 1),
                       static_cast<uint64_t>(std::max<int64_t>(number, 0)));
    }
    return true;
}

std::string VEK_LOAD_HDR_LOG_HEAD(double start) {
    const auto seconds = static_cast<time_t>(start);
    tm parts{};
    gmtime_r(&seconds, &parts);
    char date[64];
    strftime(date, sizeof date, "%a %b %d %H:%M:%S UTC %Y", &parts);
    char text[512];
    snprintf(text, sizeof text,
             "#[Histogram log format version 1.3]\n"
             "#[BaseTime: %.3f (seconds since epoch)]\n"
             "#[StartTime: %.3f (seconds since epoch), %s]\n"
             "\"StartTimestamp\",\"Interval_Length\",\"Interval_Max\","
             "\"Interval_Compressed_Histogram\"\n",
             start, start, date);
    return text;
}

std::string VEK_LOAD_HDR_LOG_LINE(double begin, double length, uint64_t maxNs,
                                  std::string_view encoded) {
    char text[128];
    snprintf(text, sizeof text, "%.3f,%.3f,%.3f,", begin, length,
             static_cast<double>(maxNs) / VEK_LOAD_NS_PER_MS);
    return std::string(text).append(encoded).append("\n");
}
