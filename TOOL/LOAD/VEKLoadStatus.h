// How the program ends.
#ifndef VEK_LOAD_STATUS_H
#define VEK_LOAD_STATUS_H

#include <cstdio>
#include <string>

enum VEK_LOAD_STATUS {
    VEK_LOAD_WELL = 0,
    VEK_LOAD_FAILED = 1,        // a threshold or an expectation, or the run was ended early
    VEK_LOAD_WRONG_USE = 2,     // of the command line or of what it names
    VEK_LOAD_NOTHING_SENT = 3,  // nothing could be
};

// Says so on standard error, and returns the status.
inline int VEK_LOAD_COMPLAIN(int status, const std::string& text) {
    fprintf(stderr, "vekload: %s\n", text.c_str());
    return status;
}

#endif
