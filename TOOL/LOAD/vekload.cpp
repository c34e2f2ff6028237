// vekload: load for HTTP/2 servers, and what came of it.
#include <exception>
#include <optional>
#include <string>
#include <utility>

#include "CVEKLoadSession.h"
#include "CVEKLoadWatch.h"
#include "VEKLoadInput.h"
#include "VEKLoadJson.h"
#include "VEKStandardStream.h"

namespace {

int Merge(const VEK_ST_LOAD_OPTIONS& options) {
    std::optional<VEK_ST_LOAD_SUMMARY> all;
    for (const std::string& path : options.merged_) {
        std::string text;
        std::string error;
        VEK_ST_LOAD_SUMMARY run;
        if (!VEK_LOAD_READ_FILE(path, text, error)) {
            return VEK_LOAD_COMPLAIN(VEK_LOAD_WRONG_USE, error);
        }
        if (!VEK_LOAD_READ_JSON(text, run, error)) {
            return VEK_LOAD_COMPLAIN(VEK_LOAD_WRONG_USE, error.insert(0, path + ": "));
        }
        if (all.has_value()) {
            all->Add(run);
        } else {
            all = std::move(run);
        }
    }
    CVEKLoadOutputs outputs;
    std::string error;
    return outputs.Open(options, error) ? CVEKLoadSession::Conclude(options, outputs, *all)
                                        : VEK_LOAD_COMPLAIN(VEK_LOAD_WRONG_USE, error);
}

int Run(const VEK_ST_LOAD_OPTIONS& options) {
    CVEKLoadSession session(options);
    std::string error;
    int status = session.Prepare(error);
    if (status == VEK_LOAD_WELL) {
        status = session.Connect(error);
    }
    if (status != VEK_LOAD_WELL) {
        return VEK_LOAD_COMPLAIN(status, error);
    }
    CVEKLoadWatch watch(options, session.GetEngine(), [](const char*, const std::string& text) {
        if (!text.empty()) {
            VEK_LOAD_COMPLAIN(VEK_LOAD_FAILED, text);
        }
    });
    const std::string endedBy = watch.Run(std::chrono::steady_clock::now());
    VEK_ST_LOAD_SUMMARY summary = session.Finish(endedBy);
    return session.Conclude(summary);
}

}  // namespace

int main(int argc, char** argv) {
    VEK_OPEN_STANDARD_STREAMS();
    int status = VEK_LOAD_FAILED;
    try {
        VEK_LOAD_INITIALIZE();
        VEK_ST_LOAD_OPTIONS options;
        status = VEK_LOAD_READ_OPTIONS(argc, argv, options);
        if (status == VEK_LOAD_GO_ON) {
            status = options.merged_.empty() ? Run(options) : Merge(options);
        }
    } catch (const std::exception& failure) {  // no memory, for one
        status = VEK_LOAD_COMPLAIN(VEK_LOAD_NOTHING_SENT, failure.what());
    }
    return status;
}
