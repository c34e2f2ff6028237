// CVEKHttp2Pool: all records of one kind that a connection has, and those of them that are free. A
// record and its payload buffer come into being when they are first taken, are reused last in first
// out (the last is still in the processor's cache), and go back to the system when a whole period
// between two calls of Trim had no use for them.
//
// Not for several threads at once; CVEKHttp2Outbox puts a lock around it.
#ifndef CVEK_HTTP2_POOL_H
#define CVEK_HTTP2_POOL_H

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "CVEKHttp2StreamData.h"

// Gives a new record its buffer of `size` bytes; false when memory ran out.
template <class RECORD>
bool VEK_HTTP2_OPEN_RECORD(RECORD& record, size_t size) {
    record.payload_.data_ = static_cast<char*>(malloc(std::max<size_t>(size, 1)));
    return record.payload_.data_ != nullptr;
}
inline bool VEK_HTTP2_OPEN_RECORD(CVEKHttp2StreamData& record, size_t size) {
    return record.Initialize(size);
}
template <class RECORD>
void VEK_HTTP2_CLOSE_RECORD(RECORD& record) {
    free(record.payload_.data_);
}
inline void VEK_HTTP2_CLOSE_RECORD(CVEKHttp2StreamData& /*record*/) {}

template <class RECORD>
class CVEKHttp2Pool {
  public:
    // A record of the pool. What it is used for, and which row it stands in, is the taker's.
    struct Slot : RECORD {
        Slot() = default;
        ~Slot() { VEK_HTTP2_CLOSE_RECORD(static_cast<RECORD&>(*this)); }
        Slot(const Slot&) = delete;
        Slot& operator=(const Slot&) = delete;

        Slot* next = nullptr;
        Slot* previous = nullptr;
        const void* row = nullptr;  // the queue that it stands in
        size_t index = 0;           // in slots_
        int stage = 0;              // 0 while free, else above
    };

    // limit: the most records that Take hands out at once; payloadSize: bytes of their buffers.
    void SetLimits(size_t limit, size_t payloadSize) {
        limit_ = limit;
        payloadSize_ = payloadSize;
    }

    // No record is free, and the limit has been reached.
    bool IsExhausted() const { return free_ == nullptr && slots_.size() >= limit_; }

    // A free record, or a new one below the limit; null when there is none or no memory. stage:
    // above 0.
    Slot* Take(int stage) { return IsExhausted() ? nullptr : TakeBeyond(stage); }

    // The same without a limit.
    Slot* TakeBeyond(int stage) {
        Slot* slot = free_ != nullptr ? PopFree() : MakeSlot();
        if (slot != nullptr) {
            slot->stage = stage;
            slot->row = nullptr;
        }
        return slot;
    }

    void Return(Slot* slot) {
        slot->stage = 0;
        slot->next = free_;
        free_ = slot;
        ++freeCount_;
    }

    // Records taken and not returned.
    size_t GetUsed() const { return slots_.size() - freeCount_; }
    size_t GetFree() const { return limit_ - std::min(limit_, GetUsed()); }

    // Frees the records that were free all the time since the last call.
    void Trim() {
        Slot** rest = &free_;
        for (size_t kept = freeCount_ - idleCount_; kept > 0; --kept) {
            rest = &(*rest)->next;
        }
        while (*rest != nullptr) {
            Slot* slot = *rest;
            *rest = slot->next;
            --freeCount_;
            Delete(slot);
        }
        idleCount_ = freeCount_;
        if (slots_.empty()) {
            slots_.shrink_to_fit();
        }
    }

    // Frees every record but those in the stage `keep`.
    void Clear(int keep = 0) {
        for (size_t i = slots_.size(); i > 0; --i) {
            Slot* slot = slots_[i - 1].get();
            if (keep == 0 || slot->stage != keep) {
                Delete(slot);
            }
        }
        free_ = nullptr;
        freeCount_ = 0;
        idleCount_ = 0;
        slots_.shrink_to_fit();
    }

    // Records in a row, linked by `next` and `previous`; each in one row at a time.
    class Queue {
      public:
        bool IsEmpty() const { return first_ == nullptr; }
        Slot* GetFirst() const { return first_; }
        void Push(Slot* slot) {
            slot->row = this;
            slot->next = nullptr;
            slot->previous = last_;
            (last_ != nullptr ? last_->next : first_) = slot;
            last_ = slot;
        }
        // Pushes the record, and then past those at the end that it is to stand before.
        template <class IS_BEFORE>
        void PushInOrder(Slot* slot, IS_BEFORE isBefore) {
            Slot* behind = last_;
            while (behind != nullptr && isBefore(*slot, *behind)) {
                behind = behind->previous;
            }
            if (behind == last_) {
                Push(slot);
                return;
            }
            slot->row = this;
            slot->previous = behind;
            slot->next = behind != nullptr ? behind->next : first_;
            slot->next->previous = slot;
            (behind != nullptr ? behind->next : first_) = slot;
        }
        // Null when it is empty.
        Slot* Pop() {
            Slot* slot = first_;
            if (slot != nullptr) {
                Remove(slot);
            }
            return slot;
        }
        // False when it does not stand in this row.
        bool Remove(Slot* slot) {
            if (slot->row != this) {
                return false;
            }
            slot->row = nullptr;
            (slot->previous != nullptr ? slot->previous->next : first_) = slot->next;
            (slot->next != nullptr ? slot->next->previous : last_) = slot->previous;
            return true;
        }
        // The record, where it stands in this row, else null.
        Slot* Find(const RECORD* record) const {
            Slot* slot = first_;
            while (slot != nullptr && slot != record) {
                slot = slot->next;
            }
            return slot;
        }
        void Clear() { first_ = last_ = nullptr; }

      private:
        Slot* first_ = nullptr;
        Slot* last_ = nullptr;
    };

  private:
    Slot* PopFree() {
        Slot* slot = free_;
        free_ = slot->next;
        --freeCount_;
        idleCount_ = std::min(idleCount_, freeCount_);
        return slot;
    }

    Slot* MakeSlot() {
        try {
            auto slot = std::make_unique<Slot>();
            if (!VEK_HTTP2_OPEN_RECORD(static_cast<RECORD&>(*slot), payloadSize_)) {
                return nullptr;
            }
            slot->index = slots_.size();
            slots_.push_back(std::move(slot));
            return slots_.back().get();
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }

    void Delete(Slot* slot) {
        const size_t index = slot->index;
        slots_[index].swap(slots_.back());
        slots_[index]->index = index;
        slots_.pop_back();
    }

    std::vector<std::unique_ptr<Slot>> slots_;  // all there are
    Slot* free_ = nullptr;                      // the last one returned first
    size_t freeCount_ = 0;
    size_t idleCount_ = 0;  // fewest that were free since the last Trim
    size_t limit_ = 0;
    size_t payloadSize_ = 0;
};

#endif
