// CVEKLoadOutputs: the files that a run's results go to. They are opened before the run, so that it
// does not end in vain.
#ifndef CVEK_LOAD_OUTPUTS_H
#define CVEK_LOAD_OUTPUTS_H

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "VEKLoadOptions.h"
#include "VEKLoadSummary.h"

class CVEKLoadOutputs {
  public:
    // False: `error` says which cannot be opened.
    bool Open(const VEK_ST_LOAD_OPTIONS& options, std::string& error);
    // Writes all files and prints the summary: on standard output, or on standard error where that
    // has the JSON. False: `error` says what could not be written.
    bool Write(const VEK_ST_LOAD_SUMMARY& summary, std::string& error);

  private:
    using File = std::unique_ptr<FILE, int (*)(FILE*)>;
    struct Output {
        std::string path_;
        File file_;
        std::string (*make_)(const VEK_ST_LOAD_SUMMARY& summary);
    };

    std::vector<Output> outputs_;
    bool isJsonPrinted_ = false;
    bool isForPeople_ = true;
};

#endif
