// CVEKLoadVariable: where a value of a flow comes from. It depends on the flow's number and the
// seed alone: any thread may ask, and the same seed gives the same run.
#ifndef CVEK_LOAD_VARIABLE_H
#define CVEK_LOAD_VARIABLE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "CVEKLoadCsv.h"

class CVEKLoadVariable {
  public:
    // start, start + step, start + 2 * step, ...
    static CVEKLoadVariable MakeCounter(int64_t start, int64_t step);
    // from, from + 1, ... to, and from again.
    static CVEKLoadVariable MakeRange(int64_t from, int64_t to);
    // Any number of that range.
    static CVEKLoadVariable MakeRandom(int64_t from, int64_t to);
    // Any of the texts; at least one.
    static CVEKLoadVariable MakeChoice(std::vector<std::string> texts);
    // The column's field of each row, once or again and again.
    static CVEKLoadVariable MakeColumn(std::shared_ptr<const CVEKLoadCsv> csv, size_t column,
                                       bool isRepeated);

    // How many flows it has values for.
    uint64_t GetLimit() const;
    // salt: another one for each variable.
    std::string GetValue(uint64_t flow, uint64_t seed, uint64_t salt) const;

  private:
    enum class Kind { COUNTER, RANGE, RANDOM, CHOICE, COLUMN };
    explicit CVEKLoadVariable(Kind kind) : kind_(kind) {}

    Kind kind_;
    uint64_t from_ = 0;  // two's complement, as sums may wrap
    uint64_t step_ = 1;
    uint64_t size_ = 0;  // of the range; 0: all 2^64
    std::vector<std::string> texts_;
    std::shared_ptr<const CVEKLoadCsv> csv_;
    size_t column_ = 0;
    bool isRepeated_ = true;
};

// A number that looks random and depends on nothing else.
uint64_t VEK_LOAD_MIX(uint64_t value);

#endif
