#include "CVEKLoadVariable.h"

#include <utility>

uint64_t VEK_LOAD_MIX(uint64_t value) {
    // The constants are those of a well-tried finaliser of 64-bit hashes.
    constexpr uint64_t GOLDEN = 0x9e3779b97f4a7c15;
    constexpr uint64_t FIRST = 0xbf58476d1ce4e5b9;
    constexpr uint64_t SECOND = 0x94d049bb133111eb;
    value += GOLDEN;
    value = (value ^ value >> 30) * FIRST;
    value = (value ^ value >> 27) * SECOND;
    return value ^ value >> 31;
}

CVEKLoadVariable CVEKLoadVariable::MakeCounter(int64_t start, int64_t step) {
    CVEKLoadVariable made(Kind::COUNTER);
    made.from_ = static_cast<uint64_t>(start);
    made.step_ = static_cast<uint64_t>(step);
    return made;
}

CVEKLoadVariable CVEKLoadVariable::MakeRange(int64_t from, int64_t to) {
    CVEKLoadVariable made(Kind::RANGE);
    made.from_ = static_cast<uint64_t>(from);
    made.size_ = static_cast<uint64_t>(to) - made.from_ + 1;
    return made;
}

CVEKLoadVariable CVEKLoadVariable::MakeRandom(int64_t from, int64_t to) {
    CVEKLoadVariable made = MakeRange(from, to);
    made.kind_ = Kind::RANDOM;
    return made;
}

CVEKLoadVariable CVEKLoadVariable::MakeChoice(std::vector<std::string> texts) {
    CVEKLoadVariable made(Kind::CHOICE);
    made.size_ = texts.size();
    made.texts_ = std::move(texts);
    return made;
}

CVEKLoadVariable CVEKLoadVariable::MakeColumn(std::shared_ptr<const CVEKLoadCsv> csv, size_t column,
                                              bool isRepeated) {
    CVEKLoadVariable made(Kind::COLUMN);
    made.csv_ = std::move(csv);
    made.column_ = column;
    made.isRepeated_ = isRepeated;
    return made;
}

uint64_t CVEKLoadVariable::GetLimit() const {
    return isRepeated_ ? UINT64_MAX : csv_->GetRows().size();
}

std::string CVEKLoadVariable::GetValue(uint64_t flow, uint64_t seed, uint64_t salt) const {
    const auto write = [this](uint64_t offset) {
        return std::to_string(static_cast<int64_t>(from_ + offset));
    };
    const auto limit = [this](uint64_t value) { return size_ == 0 ? value : value % size_; };
    const auto random = [&] { return limit(VEK_LOAD_MIX(VEK_LOAD_MIX(seed + salt) ^ flow)); };
    switch (kind_) {
        case Kind::COUNTER:
            return write(flow * step_);
        case Kind::RANGE:
            return write(limit(flow));
        case Kind::RANDOM:
            return write(random());
        case Kind::CHOICE:
            return texts_[random()];
        default:
            return csv_->GetRows()[flow % csv_->GetRows().size()][column_];
    }
}
