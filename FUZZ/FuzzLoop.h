// A loop that is driven by a peer's script: between two of its steps it does what is at hand.
#ifndef FUZZ_LOOP_H
#define FUZZ_LOOP_H

#include "CVEKEventLoop.h"
#include "CVEKHttpBody.h"
#include "CVEKHttpFields.h"
#include "FuzzPeer.h"
#include "VEKHttpSettings.h"

// A few turns for what is there, then `act` with each action until the peer has closed, and a few
// turns more; then ends the loop.
inline void Drive(CVEKEventLoop& loop, FuzzPeer& peer, const std::function<void(int)>& act) {
    int turns = 0, rest = 4;
    const std::function<void()> turn = [&] {
        const int action = ++turns < 4 ? 0 : peer.Step();
        action == FuzzPeer::END ? void(--rest) : act(action < 0 ? 0 : action & 7);
        rest == 0 ? loop.Stop() : loop.Post(turn);
    };
    loop.Post(turn);
    loop.Run();
}

// A body that goes on, ends, waits and fails as the count has it.
inline VEK_HTTP_PRODUCER MakeProducer(int& count) {
    return [&count](std::string& piece, size_t, CVEKHttpFields& trailers) {
        const auto result = static_cast<VEK_HTTP_PRODUCED>(++count % 4);
        piece = result == VEK_HTTP_PRODUCED::LATER ? "" : "piece";
        if (result == VEK_HTTP_PRODUCED::END) { trailers.Add("a", "b"); }
        return result;
    };
}

inline VEK_ST_HTTP_SETTINGS MakeSettings() { return {500, 8, 64, 100, 100000, 16384, 4096}; }

#endif
