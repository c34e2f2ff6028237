// The command line of test_http2_client_async.
#ifndef VEK_LOAD_ARGUMENTS_H
#define VEK_LOAD_ARGUMENTS_H

#include <cstdint>
#include <string>

struct VEK_ST_LOAD_ARGUMENTS {
    std::string host_;
    int port_ = 0;
    int64_t count_ = -1;  // -1: not given
    bool isUpgrade_ = false;
    bool isVerbose_ = false;
    int streams_ = 100;
    int connections_ = 1;
    int threads_ = 0;     // 0: not given
    double seconds_ = 0;  // 0: no limit
    double rate_ = 0;     // requests per second, 0: as fast as they go
    int bodySize_ = 4096;
    std::string path_ = "/test/test";
    bool isPriorKnowledge_ = false;
    bool isJson_ = false;
    bool isStartedAtOnce_ = false;
    std::string caFile_;  // empty: the system's authorities
    bool isInsecure_ = false;
    bool isTls12_ = false;

    // Requests to send at most; a run for a time ends with the time.
    int64_t GetCount() const;
    bool IsTls() const { return !isUpgrade_ && !isPriorKnowledge_; }
};

// Returns false after saying on standard error what is wrong.
bool VEK_LOAD_PARSE(int argc, char** argv, VEK_ST_LOAD_ARGUMENTS& arguments);
void VEK_LOAD_HELP(const char* program);

#endif
