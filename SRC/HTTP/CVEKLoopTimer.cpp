#include "CVEKLoopTimer.h"

#include <utility>

void CVEKLoopTimers::Add(CVEKLoopTimer& timer, uint64_t due) {
    timer.due_ = due;
    timer.place_ = this;
    first_ = Merge(first_, &timer);
}

void CVEKLoopTimers::Remove(CVEKLoopTimer& timer) {
    CVEKLoopTimers* place = std::exchange(timer.place_, nullptr);
    if (place == nullptr) {
        return;
    }
    CVEKLoopTimer* rest = MergeAll(std::exchange(timer.child_, nullptr));
    if (place->first_ == &timer) {
        place->first_ = rest;
    } else {
        Cut(timer);
        place->first_ = Merge(place->first_, rest);
    }
}

// The earlier one becomes the other's parent. Either may be null.
CVEKLoopTimer* CVEKLoopTimers::Merge(CVEKLoopTimer* one, CVEKLoopTimer* other) {
    if (one == nullptr || other == nullptr) {
        return one == nullptr ? other : one;
    }
    if (other->due_ < one->due_) {
        std::swap(one, other);
    }
    other->previous_ = one;
    other->next_ = one->child_;
    if (one->child_ != nullptr) {
        one->child_->previous_ = other;
    }
    one->child_ = other;
    return one;
}

// Two by two, and then one pair after the other into the last: that keeps the heap flat.
CVEKLoopTimer* CVEKLoopTimers::MergeAll(CVEKLoopTimer* list) {
    CVEKLoopTimer* pairs = nullptr;  // the last one first
    while (list != nullptr) {
        CVEKLoopTimer* one = list;
        CVEKLoopTimer* other = one->next_;
        list = other != nullptr ? other->next_ : nullptr;
        CVEKLoopTimer* pair = Merge(one, other);
        pair->next_ = std::exchange(pairs, pair);
    }
    CVEKLoopTimer* first = nullptr;
    while (pairs != nullptr) {
        CVEKLoopTimer* pair = std::exchange(pairs, pairs->next_);
        first = Merge(first, pair);
    }
    if (first != nullptr) {
        first->next_ = first->previous_ = nullptr;
    }
    return first;
}

void CVEKLoopTimers::Cut(CVEKLoopTimer& timer) {
    if (timer.next_ != nullptr) {
        timer.next_->previous_ = timer.previous_;
    }
    CVEKLoopTimer& previous = *timer.previous_;
    (previous.child_ == &timer ? previous.child_ : previous.next_) = timer.next_;
    timer.next_ = timer.previous_ = nullptr;
}
