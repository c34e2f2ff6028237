#ifdef VEK_PROMETHEUS
#include "CVEKLoadMetrics.h"

#include <prometheus/client_metric.h>
#include <prometheus/collectable.h>
#include <prometheus/exposer.h>
#include <prometheus/metric_family.h>
#include <prometheus/metric_type.h>

#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "VEKLoadUnit.h"
#include "VEKLoadUrl.h"

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;

MetricFamily MakeFamily(const char* name, const char* help, MetricType type) {
    return MetricFamily{std::string("vekload_") + name, help, type, {}};
}

void AddCounter(MetricFamily& family, const char* label, const std::string& text, uint64_t count) {
    ClientMetric metric;
    metric.label.push_back({label, text});
    metric.counter.value = static_cast<double>(count);
    family.metric.push_back(std::move(metric));
}

MetricFamily MakeLatency(const CVEKLoadHistogram& latency) {
    MetricFamily family =
        MakeFamily("latency_seconds", "From the scheduled moment to the end.", MetricType::Summary);
    ClientMetric metric;
    metric.summary.sample_count = latency.GetCount();
    metric.summary.sample_sum =
        latency.GetMean() * static_cast<double>(latency.GetCount()) / VEK_LOAD_NS_PER_SECOND;
    for (const auto& [percent, name] : VEK_LOAD_PERCENTILES()) {
        metric.summary.quantile.push_back(
            {percent / VEK_LOAD_PERCENT,
             static_cast<double>(latency.GetPercentile(percent)) / VEK_LOAD_NS_PER_SECOND});
    }
    family.metric.push_back(std::move(metric));
    return family;
}

std::vector<MetricFamily> MakeFamilies(const VEK_ST_LOAD_SUMMARY& summary) {
    MetricFamily requests =
        MakeFamily("requests_total", "Requests by what became of them.", MetricType::Counter);
    MetricFamily statuses = MakeFamily("answers_total", "Answers by status.", MetricType::Counter);
    const VEK_ST_LOAD_COUNTS& total = summary.total_;
    AddCounter(requests, "end", "answered", total.answered_);
    AddCounter(requests, "end", "timed_out", total.timedOut_);
    AddCounter(requests, "end", "failed", total.failed_);
    for (const auto& [status, count] : total.statuses_) {
        AddCounter(statuses, "status", std::to_string(status), count);
    }
    MetricFamily flying =
        MakeFamily("in_flight", "At the end of the last second.", MetricType::Gauge);
    flying.metric.emplace_back();
    flying.metric.back().gauge.value =
        summary.seconds_.empty() ? 0 : static_cast<double>(summary.seconds_.back().inFlight_);
    return {requests, statuses, flying, MakeLatency(total.latency_)};
}

}  // namespace

class CVEKLoadMetrics::Source : public prometheus::Collectable {
  public:
    explicit Source(CVEKLoadEngine& engine) : engine_(engine) {}
    std::vector<MetricFamily> Collect() const override {
        std::vector<MetricFamily> families;
        engine_.Look(
            [&](const VEK_ST_LOAD_SUMMARY& summary, bool) { families = MakeFamilies(summary); });
        return families;
    }

  private:
    CVEKLoadEngine& engine_;
};

struct CVEKLoadMetrics::Server {
    // Clients that are slow must neither keep others out for long nor hold up the end.
    explicit Server(const std::string& address)
        : exposer(std::vector<std::string>{"listening_ports", address, "num_threads", "4",
                                           "request_timeout_ms", "500"}) {}
    prometheus::Exposer exposer;
};

CVEKLoadMetrics::CVEKLoadMetrics() = default;
CVEKLoadMetrics::~CVEKLoadMetrics() = default;

bool CVEKLoadMetrics::Open(const std::string& place, CVEKLoadEngine& engine, std::string& error) {
    const bool hasHost = place.find(':') != std::string::npos;
    const std::string address = hasHost ? place : "127.0.0.1:" + place;
    std::string host;
    uint16_t port = 0;
    // The server below would take lists, and letters behind a port.
    if (!VEK_LOAD_READ_HOST(address, host, port, 0, error)) {
        error = "--prometheus: " + error;
        return false;
    }
    try {
        source_ = std::make_shared<Source>(engine);
        server_ = std::make_unique<Server>(address);
        server_->exposer.RegisterCollectable(source_);
        return true;
    } catch (const std::exception& failure) {
        error = "--prometheus: " + place + ": cannot listen: " + failure.what();
        return false;
    }
}
#endif
