// CVEKLoadTerm: a condition on the figures of a run, "p99 > 50ms": one under which it has failed,
// or is to be ended. FORMS lists what can be asked.
#ifndef CVEK_LOAD_TERM_H
#define CVEK_LOAD_TERM_H

#include <string>
#include <string_view>

#include "VEKLoadSummary.h"

class CVEKLoadTerm {
  public:
    static constexpr char FORMS[] =
        "pN, min, mean, sd or max with ns, us, ms or s (\"p99 > 50ms\"); errors, timeouts, failed, "
        "not-sent or expectations, and status 503 or 5xx, as a count or in % of what was sent "
        "(\"errors > 0.1%\"); rate (\"rate < 900/s\"); compared by <, <=, > or >=";

    // False: `error` says what is wrong with the text.
    bool Parse(std::string_view text, std::string& error);

    // Whether the condition holds, and of which figure, "p99 = 61.2 ms". Of latencies that nobody
    // has, and of shares and rates of nothing, none holds.
    bool Holds(const VEK_ST_LOAD_SUMMARY& summary, std::string& figure) const;
    // The condition as a threshold that a finished run shall not meet. It has failed too where
    // there is no such figure: nothing was shown.
    VEK_ST_LOAD_VERDICT Judge(const VEK_ST_LOAD_SUMMARY& summary) const;
    const std::string& GetText() const { return text_; }

  private:
    enum class Kind {
        PERCENTILE,
        MIN,
        MEAN,
        DEVIATION,
        MAX,  // the last one of a duration
        ERRORS,
        TIMEOUTS,
        FAILED,
        UNSENT,
        UNEXPECTED,
        STATUS,
        RATE
    };
    enum class Compare { LESS, LESS_EQUAL, MORE, MORE_EQUAL };

    bool ParseName(std::string_view name, std::string& error);
    bool ParseLimit(std::string_view limit, std::string& error);
    bool IsDuration() const { return kind_ <= Kind::MAX; }
    double GetDuration(const CVEKLoadHistogram& latency) const;
    double GetCount(const VEK_ST_LOAD_COUNTS& counts) const;
    bool IsBeyond(double value) const;
    bool HasFigure(const VEK_ST_LOAD_SUMMARY& summary) const;
    std::string WriteFigure(double value) const;
    double GetFigure(const VEK_ST_LOAD_SUMMARY& summary) const;
    // What shares are of: for what was not sent, all that should have been.
    uint64_t GetWhole(const VEK_ST_LOAD_COUNTS& counts) const;

    std::string text_;
    std::string name_;
    Kind kind_ = Kind::RATE;
    Compare compare_ = Compare::MORE;
    double percent_ = 0;
    int status_ = 0;    // three digits, or one for a class
    double limit_ = 0;  // ns for durations
    bool isShare_ = false;
};

#endif
