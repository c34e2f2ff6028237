// CVEKLoadMetrics: serves the figures of a run to Prometheus while it goes on.
#ifndef CVEK_LOAD_METRICS_H
#define CVEK_LOAD_METRICS_H

#include <memory>
#include <string>

#include "CVEKLoadEngine.h"

class CVEKLoadMetrics {
  public:
    CVEKLoadMetrics();
    ~CVEKLoadMetrics();
    CVEKLoadMetrics(const CVEKLoadMetrics&) = delete;
    CVEKLoadMetrics& operator=(const CVEKLoadMetrics&) = delete;

    // place: "port" or "host:port". The engine must stay longer than this, and run. False: `error`
    // says why not.
    bool Open(const std::string& place, CVEKLoadEngine& engine, std::string& error);

  private:
    class Source;
    std::shared_ptr<Source> source_;
    struct Server;
    std::unique_ptr<Server> server_;
};

#endif
