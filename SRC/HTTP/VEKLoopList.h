// The loops that a server or a client is made on, and how its parts get to them.
#ifndef VEK_LOOP_LIST_H
#define VEK_LOOP_LIST_H

#include <memory>
#include <vector>

#include "CVEKEventLoops.h"
#include "CVEKLoopCore.h"

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

// Has what lives on the loops enter them. Where memory ends in the midst, `end` makes those loops
// forget it that know it already, and the exception goes on.
template <class SHARD, class END>
void VEK_ENTER_LOOPS(const std::vector<std::shared_ptr<SHARD>>& shards, END end) {
    try {
        for (const auto& shard : shards) {
            shard->GetLoop()->Invoke([&shard = *shard] { shard.Enter(); });
        }
    } catch (...) {
        end();
        throw;
    }
}

#endif
