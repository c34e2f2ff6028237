#include "VEKLoadReport.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <string>

namespace {

using Duration = CVEKLoadHistogram::Duration;

constexpr double PERCENTILES[] = {50, 90, 99, 99.9};
constexpr size_t BAR_LENGTH = 50;

double ToMilliseconds(Duration time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

double GetRate(int64_t count, double seconds) {
    return seconds > 0 ? static_cast<double>(count) / seconds : 0;
}

long long ToNumber(int64_t value) {
    return static_cast<long long>(value);
}

// The next limit of the chart's rows: 1, 2, 5, 10, 20, 50, ...
Duration FindNextLimit(Duration limit) {
    int64_t leading = limit.count();
    while (leading >= 10) {
        leading /= 10;
    }
    return leading == 2 ? limit * 5 / 2 : limit * 2;
}

void PrintChart(const CVEKLoadHistogram& latency) {
    constexpr Duration FIRST = std::chrono::microseconds(1);
    Duration low = latency.CountBelow(FIRST) > 0 ? Duration::zero() : FIRST;
    while (low >= FIRST && latency.CountBelow(FindNextLimit(low)) == 0) {
        low = FindNextLimit(low);
    }
    while (latency.CountBelow(low) < latency.GetCount()) {
        const Duration high = low < FIRST ? FIRST : FindNextLimit(low);
        const uint64_t count = latency.CountBelow(high) - latency.CountBelow(low);
        const double share = static_cast<double>(count) / static_cast<double>(latency.GetCount());
        const auto length = static_cast<size_t>(share * BAR_LENGTH + 0.5);
        printf("  %9.3f - %9.3f ms %6.2f %% %10llu |%s\n", ToMilliseconds(low),
               ToMilliseconds(high), share * 100, static_cast<unsigned long long>(count),
               std::string(length, '#').c_str());
        low = high;
    }
}

void PrintStatus(const VEK_ST_LOAD_RESULT& result) {
    printf("status     ");
    for (size_t i = 1; i < VEK_ST_LOAD_RESULT::STATUS_CLASSES; ++i) {
        printf(" %zuxx %lld", i, ToNumber(result.statusClasses_[i]));
    }
    printf(" other %lld\n", ToNumber(result.statusClasses_[0]));
}

// How evenly the connections were served.
void PrintConnections(const VEK_ST_LOAD_RESULT& result) {
    const auto isLess = [](const VEK_ST_LOAD_SLOT& left, const VEK_ST_LOAD_SLOT& right) {
        return left.answered_ < right.answered_;
    };
    const auto [least, most] =
        std::minmax_element(result.slots_.begin(), result.slots_.end(), isLess);
    printf("connections %zu on %zu threads, %lld to %lld answers each\n", result.slots_.size(),
           result.threads_, ToNumber(least->answered_), ToNumber(most->answered_));
    if (result.reconnects_ > 0) {
        printf("reconnects  %lld\n", ToNumber(result.reconnects_));
    }
    if (result.lag_ > VEK_LOAD_LAG_LIMIT) {
        printf("lag         %.1f ms: a thread of the load generator had more to do than it could\n",
               ToMilliseconds(result.lag_));
    }
}

nlohmann::ordered_json ListLatency(const CVEKLoadHistogram& histogram) {
    nlohmann::ordered_json latency;
    latency["count"] = histogram.GetCount();
    latency["min"] = ToMilliseconds(histogram.GetMin());
    latency["mean"] = ToMilliseconds(histogram.GetMean());
    for (const double percent : PERCENTILES) {
        char name[16];
        snprintf(name, sizeof name, "p%g", percent);
        latency[name] = ToMilliseconds(histogram.GetPercentile(percent));
    }
    latency["max"] = ToMilliseconds(histogram.GetMax());
    return latency;
}

}  // namespace

void VEK_LOAD_PRINT_PROGRESS(const VEK_ST_LOAD_ARGUMENTS& arguments, int64_t done, int64_t errors,
                             double seconds) {
    const double rate = GetRate(done, seconds);
    double left = arguments.seconds_ > 0 ? arguments.seconds_ - seconds : 0;
    if (arguments.count_ >= 0 || arguments.seconds_ == 0) {
        const double byCount = GetRate(arguments.GetCount() - done, rate);
        left = arguments.seconds_ > 0 ? std::min(left, byCount) : byCount;
    }
    fprintf(stderr, "\r%lld done, %.0f requests/s, %lld errors, %.0f s left\033[K", ToNumber(done),
            rate, ToNumber(errors), std::max(left, 0.0));
    fflush(stderr);
}

void VEK_LOAD_ERASE_PROGRESS() {
    fputs("\r\033[K", stderr);
}

void VEK_LOAD_PRINT_TEXT(const VEK_ST_LOAD_RESULT& result, double seconds) {
    printf("requests    %lld sent, %lld answered, %lld timed out, %lld failed, %lld not sent\n",
           ToNumber(result.sent_), ToNumber(result.answered_), ToNumber(result.timedOut_),
           ToNumber(result.failed_), ToNumber(result.unsent_));
    printf("time        %.3f s, %.1f requests/s\n", seconds, GetRate(result.answered_, seconds));
    printf("bodies      %lld bytes sent, %lld received\n", ToNumber(result.bytesSent_),
           ToNumber(result.bytesReceived_));
    PrintStatus(result);
    for (const auto& [cause, count] : result.causes_) {
        printf("failed      %lld %s\n", ToNumber(count), cause.c_str());
    }
    PrintConnections(result);
    const CVEKLoadHistogram& latency = result.latency_;
    if (latency.GetCount() == 0) {
        return;
    }
    printf("latency     min %.3f ms, mean %.3f ms", ToMilliseconds(latency.GetMin()),
           ToMilliseconds(latency.GetMean()));
    for (const double percent : PERCENTILES) {
        printf(", %g %% %.3f ms", percent, ToMilliseconds(latency.GetPercentile(percent)));
    }
    printf(", max %.3f ms\n", ToMilliseconds(latency.GetMax()));
    PrintChart(latency);
}

void VEK_LOAD_PRINT_JSON(FILE* stream, const VEK_ST_LOAD_RESULT& result, double seconds) {
    nlohmann::ordered_json status;
    for (size_t i = 1; i < VEK_ST_LOAD_RESULT::STATUS_CLASSES; ++i) {
        status[std::to_string(i) + "xx"] = result.statusClasses_[i];
    }
    status["other"] = result.statusClasses_[0];
    const nlohmann::ordered_json summary = {
        {"sent", result.sent_},
        {"answered", result.answered_},
        {"timed_out", result.timedOut_},
        {"failed", result.failed_},
        {"not_sent", result.unsent_},
        {"seconds", seconds},
        {"requests_per_second", GetRate(result.answered_, seconds)},
        {"body_bytes_sent", result.bytesSent_},
        {"body_bytes_received", result.bytesReceived_},
        {"reconnects", result.reconnects_},
        {"threads", result.threads_},
        {"lag_ms", ToMilliseconds(result.lag_)},
        {"is_lagging", result.lag_ > VEK_LOAD_LAG_LIMIT},
        {"status", status},
        {"failures", result.causes_},
        {"latency_ms", ListLatency(result.latency_)},
    };
    fprintf(stream, "%s\n", summary.dump().c_str());
}
