// The command line of vekload.
#ifndef VEK_LOAD_OPTIONS_H
#define VEK_LOAD_OPTIONS_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "CVEKLoadSchedule.h"
#include "CVEKLoadTerm.h"
#include "VEKLoadShare.h"

struct VEK_ST_LOAD_OPTIONS {
    std::string command_;  // as it was typed

    // What to ask.
    std::vector<std::string> urls_;
    std::vector<uint64_t> weights_;
    std::string method_;  // empty: GET, or POST with a body
    std::vector<std::string> headers_;
    std::string data_;
    bool hasData_ = false;
    size_t bodySize_ = 0;
    std::string scenario_;
    uint64_t seed_ = 0;

    // Where.
    std::string connectTo_;
    std::vector<std::string> resolve_;
    bool isV4_ = false;
    bool isV6_ = false;
    bool isUpgrade_ = false;
    bool isInsecure_ = false;
    bool isTls12_ = false;
    std::string unixPath_;
    std::string caFile_;
    std::string certificate_;
    std::string key_;
    std::string tlsMin_ = "1.2";
    std::string tlsMax_ = "1.3";
    std::string ciphers_;
    std::string sni_;
    std::string keyLog_;
    uint32_t window_ = 1U << 30;
    uint32_t headerTable_ = 4096;
    uint32_t maxFrame_ = 16384;

    // How hard.
    int64_t count_ = 0;  // 0: not given
    std::chrono::microseconds length_{0};
    size_t connections_ = 1;
    uint32_t streams_ = 100;
    unsigned threads_ = 0;
    size_t users_ = 0;
    std::vector<VEK_ST_LOAD_PHASE> phases_;
    std::chrono::microseconds warmUp_{0};
    int64_t timeoutMs_ = 5000;
    uint64_t churn_ = 0;
    bool isResuming_ = true;
    bool isRank_ = false;  // set before the options are read: a part whose others are known
    bool isPerRank_ = false;
    std::vector<CVEKLoadTerm> abortIf_;
    std::chrono::microseconds maxLag_{0};  // 0: no limit

    // Of a run that several programs carry out: whose part this is. Counts, rates, users and
    // connections are those of all.
    VEK_ST_LOAD_SHARE share_;

    // Where it goes.
    std::string json_;
    std::string csv_;
    std::string requests_;
    std::string hdr_;
    std::string report_;
    std::string prometheus_;  // "host:port"
    std::vector<CVEKLoadTerm> failIf_;

    // vekload merge: the files. Only what is in the last block counts then.
    std::vector<std::string> merged_;

    // Requests to send at most; a run for a time, or with phases that end, ends with these.
    int64_t GetCount() const;
};

// Returns the exit status with which the program is to end at once, or VEK_LOAD_GO_ON. What is to
// be said has been.
constexpr int VEK_LOAD_GO_ON = -1;
int VEK_LOAD_READ_OPTIONS(int argc, char** argv, VEK_ST_LOAD_OPTIONS& options);

#endif
