// What a run has counted: one for each connection, added up at the end.
#ifndef LOAD_RESULT_H
#define LOAD_RESULT_H

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>

#include "LatencyHistogram.h"

using LoadClock = std::chrono::steady_clock;

// A request that was sent ends as exactly one of these.
struct LoadResult {
    // 0 for a status outside 100 to 599.
    static constexpr size_t STATUS_CLASSES = 6;

    int64_t sent = 0;
    int64_t answered = 0;
    int64_t timedOut = 0;
    int64_t failed = 0;
    int64_t unsent = 0;  // what was asked for, or due, and could not be sent
    int64_t bytesSent = 0;
    int64_t bytesReceived = 0;
    int64_t reconnects = 0;
    std::array<int64_t, STATUS_CLASSES> statusClasses{};
    std::map<std::string, int64_t> causes;  // of `failed`
    std::string tlsReason;                  // why TLS has ended a connection, the last of them
    LatencyHistogram latency;               // of `answered`
    LoadClock::time_point end;              // of the last of them all

    void Fail(const std::string& cause, int64_t count) {
        if (count > 0) {
            failed += count;
            causes[cause] += count;
        }
    }

    void Add(const LoadResult& other) {
        sent += other.sent;
        answered += other.answered;
        timedOut += other.timedOut;
        failed += other.failed;
        unsent += other.unsent;
        bytesSent += other.bytesSent;
        bytesReceived += other.bytesReceived;
        reconnects += other.reconnects;
        for (size_t i = 0; i < STATUS_CLASSES; ++i) {
            statusClasses[i] += other.statusClasses[i];
        }
        for (const auto& [cause, count] : other.causes) {
            causes[cause] += count;
        }
        if (!other.tlsReason.empty()) {
            tlsReason = other.tlsReason;
        }
        latency.Add(other.latency);
        end = std::max(end, other.end);
    }
};

#endif
