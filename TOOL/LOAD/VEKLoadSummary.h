// What came of a run: what the summary, the files and the report tell, and what merging adds up.
// All counts and sums are integers, so that adding up several runs is exact. Times are nanoseconds.
#ifndef VEK_LOAD_SUMMARY_H
#define VEK_LOAD_SUMMARY_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "CVEKLoadHistogram.h"

// What became of requests. One that was sent ends as exactly one of these: answered, timed out or
// failed.
struct VEK_ST_LOAD_COUNTS {
    uint64_t sent_ = 0;
    uint64_t answered_ = 0;
    uint64_t timedOut_ = 0;
    uint64_t failed_ = 0;
    uint64_t unsent_ = 0;                         // asked for, or due, and not sent
    std::map<std::string, uint64_t> causes_;      // of failed_
    std::map<int, uint64_t> statuses_;            // of answered_
    uint64_t informational_ = 0;                  // 1xx responses that came before them
    std::map<std::string, uint64_t> unexpected_;  // expectations that failed, by their texts
    uint64_t bytesSent_ = 0;                      // of bodies
    uint64_t bytesReceived_ = 0;
    CVEKLoadHistogram latency_;    // of answered_: from the scheduled moment, to the end
    CVEKLoadHistogram service_;    // from sending
    CVEKLoadHistogram firstByte_;  // from sending to the header fields

    void Add(const VEK_ST_LOAD_COUNTS& other);
    // Empties it; the memory of histograms stays.
    void Clear();
    // Answers of 100 * statusClass and above, or of exactly that status when it has three digits.
    uint64_t CountStatus(int status) const;
    // Timed out, failed, or answered with neither 2xx nor 3xx.
    uint64_t CountErrors() const;
    uint64_t CountUnexpected() const;
};

// One URL, or one step of a scenario.
struct VEK_ST_LOAD_STEP {
    std::string name_;
    VEK_ST_LOAD_COUNTS counts_;
};

// One of the run's connections, with all those that replaced it.
struct VEK_ST_LOAD_SLOT {
    uint64_t opened_ = 0;
    uint64_t answered_ = 0;
    uint64_t failed_ = 0;  // those that timed out among them
    // Of the latencies of what was answered; 0 where nothing was.
    uint64_t min_ = 0;
    uint64_t max_ = 0;
    uint64_t sum_ = 0;

    void Record(uint64_t ns);
    void Add(const VEK_ST_LOAD_SLOT& other);
};

// A histogram in few bytes.
struct VEK_ST_LOAD_PACKED {
    uint64_t min_ = 0;
    uint64_t max_ = 0;
    std::string sum_ = "0";
    std::string squares_ = "0";
    std::string hdr_;

    static VEK_ST_LOAD_PACKED Pack(const CVEKLoadHistogram& histogram);
    // False when it is none.
    bool Unpack(CVEKLoadHistogram& histogram) const;
};

// One second of a run. Requests that have ended count in the second in which they were sent,
// answers and errors in that in which they ended.
struct VEK_ST_LOAD_SECOND {
    uint64_t sent_ = 0;
    uint64_t answered_ = 0;
    uint64_t errors_ = 0;
    uint64_t inFlight_ = 0;  // at its end
    VEK_ST_LOAD_PACKED latency_;

    void Add(const VEK_ST_LOAD_SECOND& other);
};

struct VEK_ST_LOAD_CONNECTIONS {
    uint64_t opened_ = 0;
    uint64_t failed_ = 0;                     // never came up
    uint64_t resumed_ = 0;                    // with a TLS session of an earlier one
    std::map<std::string, uint64_t> causes_;  // of those that failed or were lost
    CVEKLoadHistogram tcp_;                   // from the attempt to the transport
    CVEKLoadHistogram tls_;                   // from there until requests can be exchanged
    uint64_t wireBytesSent_ = 0;
    uint64_t wireBytesReceived_ = 0;
    std::vector<VEK_ST_LOAD_SLOT> slots_;

    // Slots are put behind those that are there.
    void Add(const VEK_ST_LOAD_CONNECTIONS& other);
};

// One of the programs that have carried out a run together.
struct VEK_ST_LOAD_RANK {
    std::string host_;
    int64_t startNs_ = 0;  // when it began, by the clock of the first one
    uint64_t lengthNs_ = 0;
    uint64_t sent_ = 0;
    uint64_t answered_ = 0;
    uint64_t errors_ = 0;
    uint64_t p99Ns_ = 0;
    uint64_t lagNs_ = 0;

    double GetRate() const;
};

struct VEK_ST_LOAD_RANKS {
    uint64_t count_ = 0;         // 0: a program by itself
    uint64_t skewNs_ = 0;        // the last one has begun so long after the first
    uint64_t clockErrorNs_ = 0;  // how far that may be wrong
    // What it took them: to join, to compare their clocks, to meet, to add up.
    uint64_t joinNs_ = 0;
    uint64_t clocksNs_ = 0;
    uint64_t barrierNs_ = 0;
    uint64_t reductionNs_ = 0;
    std::vector<VEK_ST_LOAD_RANK> rows_;  // empty where nobody wants them

    // Rows are put behind those that are there, and of times the longest is kept.
    void Add(const VEK_ST_LOAD_RANKS& other);
};

// A threshold and what came of it.
struct VEK_ST_LOAD_VERDICT {
    std::string term_;
    std::string figure_;
    bool isPassed_ = true;
};

struct VEK_ST_LOAD_SUMMARY {
    uint64_t runs_ = 1;
    std::vector<std::string> commands_;
    int64_t startMs_ = 0;    // since the epoch; the first of them
    uint64_t lengthNs_ = 0;  // without the warm-up; the longest of them
    std::string endedBy_;    // "requests", "duration", "signal", "abort" or "lag"
    uint64_t seed_ = 0;
    uint64_t threads_ = 0;
    uint64_t lagNs_ = 0;  // the most by which a loop of the run was late for something
    VEK_ST_LOAD_COUNTS total_;
    std::vector<VEK_ST_LOAD_STEP> steps_;
    VEK_ST_LOAD_CONNECTIONS connections_;
    std::vector<VEK_ST_LOAD_SECOND> seconds_;
    VEK_ST_LOAD_RANKS ranks_;
    uint64_t unwritten_ = 0;  // lines that the requests file has lost
    std::vector<VEK_ST_LOAD_VERDICT> verdicts_;

    // Adds a run that went on beside this one. Verdicts go: they are to be found anew.
    void Add(const VEK_ST_LOAD_SUMMARY& other);
    double GetSeconds() const;
    // Answers in a second.
    double GetRate() const;
    // A loop was so late that latencies may be this program's more than the server's.
    bool IsBottleneck() const { return lagNs_ > LAG_LIMIT_NS; }

    static constexpr uint64_t LAG_LIMIT_NS = 10'000'000;

  private:
    void AddStep(size_t index, const VEK_ST_LOAD_STEP& step);
};

// The percentiles that are told, with their names: {50, "p50"}.
const std::vector<std::pair<double, const char*>>& VEK_LOAD_PERCENTILES();

#endif
