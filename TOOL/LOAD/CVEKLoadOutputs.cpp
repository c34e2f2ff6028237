#include "CVEKLoadOutputs.h"

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "VEKLoadHdr.h"
#include "VEKLoadJson.h"
#include "VEKLoadPage.h"
#include "VEKLoadText.h"

namespace {

std::string MakeCsv(const VEK_ST_LOAD_SUMMARY& summary) {
    std::string text = VEK_LOAD_CSV_HEAD();
    for (size_t i = 0; i < summary.seconds_.size(); ++i) {
        text += VEK_LOAD_CSV_LINE(i, summary.seconds_[i]);
    }
    return text;
}

std::string MakeHdr(const VEK_ST_LOAD_SUMMARY& summary) {
    constexpr double MS_PER_SECOND = 1000;
    std::string text = VEK_LOAD_HDR_LOG_HEAD(static_cast<double>(summary.startMs_) / MS_PER_SECOND);
    for (size_t i = 0; i < summary.seconds_.size(); ++i) {
        const VEK_ST_LOAD_PACKED& latency = summary.seconds_[i].latency_;
        if (!latency.hdr_.empty()) {  // in a second that the program slept through
            text += VEK_LOAD_HDR_LOG_LINE(static_cast<double>(i), 1, latency.max_, latency.hdr_);
        }
    }
    return text;
}

// Colour is for people at a terminal who do not refuse it (no-color.org).
bool WantsColour(FILE* stream) {
    const char* refusal = getenv("NO_COLOR");
    return isatty(fileno(stream)) != 0 && (refusal == nullptr || *refusal == '\0');
}

}  // namespace

bool CVEKLoadOutputs::Open(const VEK_ST_LOAD_OPTIONS& options, std::string& error) {
    using Make = std::string (*)(const VEK_ST_LOAD_SUMMARY&);
    const std::pair<const std::string&, Make> wanted[] = {{options.json_, VEK_LOAD_WRITE_JSON},
                                                          {options.csv_, MakeCsv},
                                                          {options.hdr_, MakeHdr},
                                                          {options.report_, VEK_LOAD_WRITE_PAGE}};
    isJsonPrinted_ = options.json_ == "-";
    isForPeople_ = !options.isRank_;  // a launcher's terminal may go to a file
    for (const auto& [path, make] : wanted) {
        if (path.empty()) {
            continue;
        }
        const bool isPrinted = path == "-" && make == VEK_LOAD_WRITE_JSON;
        File file(isPrinted ? stdout : fopen(path.c_str(), "we"), isPrinted ? fflush : fclose);
        if (file == nullptr) {
            error = path + ": " + strerror(errno);
            return false;
        }
        outputs_.push_back({path, std::move(file), make});
    }
    return true;
}

bool CVEKLoadOutputs::Write(const VEK_ST_LOAD_SUMMARY& summary, std::string& error) {
    bool isGood = true;
    const auto write = [&](const std::string& path, FILE* file, const std::string& text) {
        if (fwrite(text.data(), 1, text.size(), file) != text.size() || fflush(file) != 0) {
            error = path + ": " + strerror(errno);
            isGood = false;
        }
    };
    for (const Output& output : outputs_) {
        write(output.path_, output.file_.get(), output.make_(summary));
    }
    FILE* stream = isJsonPrinted_ ? stderr : stdout;
    write("summary", stream, VEK_LOAD_WRITE_TEXT(summary, isForPeople_ && WantsColour(stream)));
    return isGood;
}
