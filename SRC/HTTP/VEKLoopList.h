// The loops that a server or a client is made on.
#ifndef VEK_LOOP_LIST_H
#define VEK_LOOP_LIST_H

#include <memory>
#include <vector>

#include "CVEKEventLoops.h"

inline std::vector<std::shared_ptr<CVEKLoopCore>> VEK_LIST_LOOPS(CVEKEventLoop& loop) {
    return {loop.GetCore()};
}

inline std::vector<std::shared_ptr<CVEKLoopCore>> VEK_LIST_LOOPS(CVEKEventLoops& loops) {
    std::vector<std::shared_ptr<CVEKLoopCore>> list;
    for (size_t i = 0; i < loops.GetSize(); ++i) {
        list.push_back(loops.GetLoop(i).GetCore());
    }
    return list;
}

#endif
