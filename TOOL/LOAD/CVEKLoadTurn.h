// CVEKLoadTurn: which flows of a schedule are whose. They go to the connections in turn, and each
// worker begins, in their order, those that are its connections'.
#ifndef CVEK_LOAD_TURN_H
#define CVEK_LOAD_TURN_H

#include <cstddef>
#include <cstdint>

class CVEKLoadTurn {
  public:
    // Worker `index` has the connections index, index + workers, index + 2 * workers, ...
    CVEKLoadTurn(size_t connections, size_t workers, size_t index)
        : connections_(static_cast<int64_t>(connections)),
          workers_(static_cast<int64_t>(workers)),
          index_(static_cast<int64_t>(index)),
          number_(index_) {}

    // The worker's next flow.
    int64_t GetNumber() const { return number_; }
    void Advance() {
        const int64_t slot = number_ % connections_;
        const bool isRoundOver = slot + workers_ >= connections_;
        number_ += isRoundOver ? connections_ - slot + index_ : workers_;
    }

  private:
    int64_t connections_;
    int64_t workers_;
    int64_t index_;
    int64_t number_;
};

#endif
