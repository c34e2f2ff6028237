// CVEKLoadScenarioReader: reads a scenario file. What is wrong is told with line and column, or
// with the JSON pointer of what was expected to be otherwise.
#ifndef CVEK_LOAD_SCENARIO_READER_H
#define CVEK_LOAD_SCENARIO_READER_H

#include <cstddef>
#include <string>

#include "CVEKLoadJsonNode.h"
#include "CVEKLoadTemplate.h"
#include "VEKLoadFlow.h"

class CVEKLoadScenarioReader {
  public:
    // Files that it names are looked for in its folder. False: `error` says why not.
    bool Read(const std::string& path, VEK_ST_LOAD_SCENARIO& scenario, std::string& error);

  private:
    void ReadAll(const CVEKLoadJsonNode& node);
    void ReadVariable(const std::string& name, const CVEKLoadJsonNode& node);
    void ReadCsv(const std::string& name, const CVEKLoadJsonNode& node);
    void AddVariable(const std::string& name, const CVEKLoadJsonNode& node,
                     CVEKLoadVariable variable);
    bool ReadFile(const CVEKLoadJsonNode& node, std::string& text, std::string& error) const;
    void ReadFlow(const CVEKLoadJsonNode& node, size_t index);
    VEK_ST_LOAD_STAGE ReadStage(const CVEKLoadJsonNode& node, size_t index, CVEKLoadNames& names);
    static void ReadHead(const CVEKLoadJsonNode& node, const CVEKLoadNames& names,
                         VEK_ST_LOAD_STAGE& stage);
    void ReadBody(const CVEKLoadJsonNode& node, const CVEKLoadNames& names,
                  VEK_ST_LOAD_STAGE& stage);
    void ReadExtractor(const std::string& name, const CVEKLoadJsonNode& node, CVEKLoadNames& names,
                       VEK_ST_LOAD_STAGE& stage);
    void ReadExpectations(const CVEKLoadJsonNode& node, const CVEKLoadNames& names,
                          VEK_ST_LOAD_STAGE& stage);
    void ReadJsonExpectations(const CVEKLoadJsonNode& node, const CVEKLoadNames& names,
                              VEK_ST_LOAD_STAGE& stage);

    std::string folder_;
    CVEKLoadNames names_;  // those that every flow begins with
    size_t highest_ = 0;   // values of the flow that has most
    VEK_ST_LOAD_SCENARIO* scenario_ = nullptr;
};

#endif
