// What test_http2_client_async prints: the progress line, the summary as text or as JSON, and the
// distribution of the latencies as a bar chart.
#ifndef LOAD_REPORT_H
#define LOAD_REPORT_H

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>

#include "LoadOptions.h"
#include "LoadResult.h"

constexpr double LOAD_PERCENTILES[] = {50, 90, 99, 99.9};
constexpr size_t LOAD_BAR_LENGTH = 50;

inline double Seconds(LoadClock::duration time) {
    return std::chrono::duration<double>(time).count();
}

inline double Milliseconds(LatencyHistogram::Duration time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

inline double Rate(int64_t count, double seconds) {
    return seconds > 0 ? static_cast<double>(count) / seconds : 0;
}

// Rewrites the progress line on standard error. `done` of the requests have ended, `errors` of
// these without an answer.
inline void PrintProgress(const LoadOptions& options, int64_t done, int64_t errors,
                          double seconds) {
    const double rate = Rate(done, seconds);
    double left = options.seconds > 0 ? options.seconds - seconds : 0;
    if (options.count >= 0 || options.seconds == 0) {
        const double byCount = Rate(options.Count() - done, rate);
        left = options.seconds > 0 ? std::min(left, byCount) : byCount;
    }
    fprintf(stderr, "\r%lld done, %.0f requests/s, %lld errors, %.0f s left\033[K",
            static_cast<long long>(done), rate, static_cast<long long>(errors),
            std::max(left, 0.0));
    fflush(stderr);
}

inline void EraseProgress() {
    fputs("\r\033[K", stderr);
}

// The next limit of the chart's rows: 1, 2, 5, 10, 20, 50, ...
inline LatencyHistogram::Duration NextLimit(LatencyHistogram::Duration limit) {
    int64_t leading = limit.count();
    while (leading >= 10) {
        leading /= 10;
    }
    return leading == 2 ? limit * 5 / 2 : limit * 2;
}

inline void PrintChart(const LatencyHistogram& latency) {
    using Duration = LatencyHistogram::Duration;
    constexpr Duration FIRST = std::chrono::microseconds(1);
    Duration low = latency.CountBelow(FIRST) > 0 ? Duration::zero() : FIRST;
    while (low >= FIRST && latency.CountBelow(NextLimit(low)) == 0) {
        low = NextLimit(low);
    }
    while (latency.CountBelow(low) < latency.Count()) {
        const Duration high = low < FIRST ? FIRST : NextLimit(low);
        const uint64_t count = latency.CountBelow(high) - latency.CountBelow(low);
        const double share = static_cast<double>(count) / static_cast<double>(latency.Count());
        const auto length = static_cast<size_t>(share * LOAD_BAR_LENGTH + 0.5);
        printf("  %9.3f - %9.3f ms %6.2f %% %10llu |%s\n", Milliseconds(low), Milliseconds(high),
               share * 100, static_cast<unsigned long long>(count),
               std::string(length, '#').c_str());
        low = high;
    }
}

inline void PrintText(const LoadResult& result, double seconds) {
    const auto number = [](int64_t value) { return static_cast<long long>(value); };
    printf("requests    %lld sent, %lld answered, %lld timed out, %lld failed, %lld not sent\n",
           number(result.sent), number(result.answered), number(result.timedOut),
           number(result.failed), number(result.unsent));
    printf("time        %.3f s, %.1f requests/s\n", seconds, Rate(result.answered, seconds));
    printf("bodies      %lld bytes sent, %lld received\n", number(result.bytesSent),
           number(result.bytesReceived));
    printf("status     ");
    for (size_t i = 1; i < LoadResult::STATUS_CLASSES; ++i) {
        printf(" %zuxx %lld", i, number(result.statusClasses[i]));
    }
    printf(" other %lld\n", number(result.statusClasses[0]));
    for (const auto& [cause, count] : result.causes) {
        printf("failed      %lld %s\n", number(count), cause.c_str());
    }
    if (result.reconnects > 0) {
        printf("reconnects  %lld\n", number(result.reconnects));
    }
    const LatencyHistogram& latency = result.latency;
    if (latency.Count() == 0) {
        return;
    }
    printf("latency     min %.3f ms, mean %.3f ms", Milliseconds(latency.Min()),
           Milliseconds(latency.Mean()));
    for (const double percent : LOAD_PERCENTILES) {
        printf(", %g %% %.3f ms", percent, Milliseconds(latency.Percentile(percent)));
    }
    printf(", max %.3f ms\n", Milliseconds(latency.Max()));
    PrintChart(latency);
}

inline void PrintJson(FILE* stream, const LoadResult& result, double seconds) {
    nlohmann::ordered_json latency;
    latency["count"] = result.latency.Count();
    latency["min"] = Milliseconds(result.latency.Min());
    latency["mean"] = Milliseconds(result.latency.Mean());
    for (const double percent : LOAD_PERCENTILES) {
        char name[16];
        snprintf(name, sizeof name, "p%g", percent);
        latency[name] = Milliseconds(result.latency.Percentile(percent));
    }
    latency["max"] = Milliseconds(result.latency.Max());

    nlohmann::ordered_json status;
    for (size_t i = 1; i < LoadResult::STATUS_CLASSES; ++i) {
        status[std::to_string(i) + "xx"] = result.statusClasses[i];
    }
    status["other"] = result.statusClasses[0];

    const nlohmann::ordered_json summary = {
        {"sent", result.sent},
        {"answered", result.answered},
        {"timed_out", result.timedOut},
        {"failed", result.failed},
        {"not_sent", result.unsent},
        {"seconds", seconds},
        {"requests_per_second", Rate(result.answered, seconds)},
        {"body_bytes_sent", result.bytesSent},
        {"body_bytes_received", result.bytesReceived},
        {"reconnects", result.reconnects},
        {"status", status},
        {"failures", result.causes},
        {"latency_ms", latency},
    };
    fprintf(stream, "%s\n", summary.dump().c_str());
}

#endif
