// Which flows of a run are this program's, where several programs carry it out together: of all
// numbers every of_-th, from index_ on. What is split that way has neither gap nor overlap.
#ifndef VEK_LOAD_SHARE_H
#define VEK_LOAD_SHARE_H

#include <cstdint>

struct VEK_ST_LOAD_SHARE {
    int64_t index_ = 0;
    int64_t of_ = 1;

    // The number, among all, of one that is counted among its own.
    int64_t GetNumber(int64_t own) const { return index_ + own * of_; }
    // How many of the numbers below `end` are its own.
    int64_t CountBelow(int64_t end) const {
        return end <= index_ ? 0 : (end - 1 - index_) / of_ + 1;
    }
};

#endif
