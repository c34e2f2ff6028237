// CVEKHttp2Outbox: what an application sends on a connection, from any thread, until the thread
// that drives the connection is done with it. It has all records of that direction and knows the
// stage of each:
//
//   free --Take--> leased --Post--> queued --Next--> out --Return--> free
//
// Any thread may take a lease, fill its record and post it; a lease that is dropped gives the
// record back. Next, Return, Reset and Trim are the driving thread's. Reset ends the connection:
// what is queued or out is freed, and leases taken before it are stale, so that none of their
// records reaches the connection to come.
//
// This is the one place of a connection that other threads enter beside its state.
#ifndef CVEK_HTTP2_OUTBOX_H
#define CVEK_HTTP2_OUTBOX_H

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "CVEKHttp2Pool.h"
#include "VEKThreadSafety.h"

// Results of Take.
enum VEK_HTTP2_TAKE {
    VEK_HTTP2_TAKE_CLOSED = -3,  // not open, or closed while waiting
    VEK_HTTP2_TAKE_LATE = -2,    // no record came free in time
    VEK_HTTP2_TAKE_NONE = 0,     // no record is free
    VEK_HTTP2_TAKE_DONE = 1,
};

// How many records are where, at one moment.
struct VEK_ST_HTTP2_OUTBOX_COUNTS {
    size_t free;    // can be taken
    size_t used;    // leased, queued or out
    size_t queued;  // of those
    int waiting;    // threads
};

// Results of Post.
enum VEK_HTTP2_POST {
    VEK_HTTP2_POST_HELD = -1,  // the limit of bytes leaves no room
    VEK_HTTP2_POST_STALE = 0,
    VEK_HTTP2_POST_DONE = 1,
};

template <class RECORD>
class CVEKHttp2Outbox {
  public:
    using Slot = typename CVEKHttp2Pool<RECORD>::Slot;

    // A record that one thread fills. Given back where it is not posted.
    class Lease {
      public:
        Lease() = default;
        ~Lease() {
            if (slot_ != nullptr) {
                outbox_->Return(slot_);
            }
        }
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;

        RECORD* operator->() const { return slot_; }
        RECORD& operator*() const { return *slot_; }

        // For the outbox: binds a new lease to its record; lets go of it.
        void Bind(CVEKHttp2Outbox* outbox, Slot* slot, uint64_t generation) {
            outbox_ = outbox;
            slot_ = slot;
            generation_ = generation;
        }
        Slot* Release() { return std::exchange(slot_, nullptr); }
        uint64_t GetGeneration() const { return generation_; }

      private:
        CVEKHttp2Outbox* outbox_ = nullptr;
        Slot* slot_ = nullptr;
        uint64_t generation_ = 0;
    };

    void SetLimits(size_t limit, size_t payloadSize) VEK_EXCLUDES(mutexQ_) {
        const CVEKLockGuard guard(mutexQ_);
        pool_.SetLimits(limit, payloadSize);
    }

    // Has those who wait look once more whether the connection is open. Any thread.
    void Wake() VEK_EXCLUDES(mutexQ_) {
        const CVEKLockGuard guard(mutexQ_);
        freed_.notify_all();
    }

    // Takes a free record into `lease`, which must be new. Memory that has run out counts as a full
    // pool. isOpen() must hold, and go on to while it waits: up to a second, where `wait` says so.
    template <class IS_OPEN>
    VEK_HTTP2_TAKE Take(bool wait, IS_OPEN isOpen, Lease& lease) VEK_EXCLUDES(mutexQ_) {
        const CVEKLockGuard guard(mutexQ_);
        std::chrono::steady_clock::time_point limit{};
        const uint64_t generation = generation_;
        for (bool isLate = false;;) {
            // Also where the next connection has opened meanwhile.
            if (generation != generation_ || !isOpen()) {
                return VEK_HTTP2_TAKE_CLOSED;
            }
            Slot* slot = pool_.Take(LEASED);
            if (slot != nullptr) {
                lease.Bind(this, slot, generation_);
                return VEK_HTTP2_TAKE_DONE;
            }
            if (!wait || isLate) {
                return wait ? VEK_HTTP2_TAKE_LATE : VEK_HTTP2_TAKE_NONE;
            }
            if (limit == std::chrono::steady_clock::time_point{}) {
                limit = std::chrono::steady_clock::now() + WAIT_LIMIT;
            }
            ++waiters_;
            isLate = !mutexQ_.WaitUntil(freed_, limit);
            --waiters_;
        }
    }

    // Queues the lease's record behind those posted before. Where it cannot be, the record is given
    // back. maxBytes: most bytes of bodies queued or out, 0 for no limit.
    VEK_HTTP2_POST Post(Lease& lease, size_t maxBytes = 0) VEK_EXCLUDES(mutexQ_) {
        Slot* slot = lease.Release();
        const CVEKLockGuard guard(mutexQ_);
        if (lease.GetGeneration() != generation_) {
            GiveBack(slot);
            return VEK_HTTP2_POST_STALE;
        }
        const size_t size = slot->payload_.size_;
        if (maxBytes != 0 && (heldBytes_ > maxBytes || size > maxBytes - heldBytes_)) {
            GiveBack(slot);
            return VEK_HTTP2_POST_HELD;
        }
        slot->stage = QUEUED;
        heldBytes_ += size;
        queue_.Push(slot);
        return VEK_HTTP2_POST_DONE;
    }

    // Takes the first queued record that fits out of the queue and back. False when there is none.
    template <class FITS>
    bool Withdraw(FITS fits) VEK_EXCLUDES(mutexQ_) {
        const CVEKLockGuard guard(mutexQ_);
        Slot* slot = queue_.GetFirst();
        while (slot != nullptr && !fits(*slot)) {
            slot = slot->next;
        }
        if (slot == nullptr) {
            return false;
        }
        queue_.Remove(slot);
        GiveBack(slot);
        return true;
    }

    // The record that was posted first, or null.
    Slot* Next() VEK_EXCLUDES(mutexQ_) {
        const CVEKLockGuard guard(mutexQ_);
        Slot* slot = queue_.Pop();
        if (slot != nullptr) {
            slot->stage = OUT;
        }
        return slot;
    }

    // Takes a record of Next, or of a lease, back.
    void Return(RECORD* record) VEK_EXCLUDES(mutexQ_) {
        const CVEKLockGuard guard(mutexQ_);
        GiveBack(static_cast<Slot*>(record));
    }

    // Frees every record but the leased ones, and makes the leases stale.
    void Reset() VEK_EXCLUDES(mutexQ_) {
        const CVEKLockGuard guard(mutexQ_);
        ++generation_;
        queue_.Clear();
        pool_.Clear(LEASED);
        heldBytes_ = 0;
        freed_.notify_all();
    }

    // Makes the leases stale, and nothing else: no more records come.
    void Expire() VEK_EXCLUDES(mutexQ_) {
        const CVEKLockGuard guard(mutexQ_);
        ++generation_;
    }
    // Of the connection, as leases have it: another one after each Reset.
    uint64_t GetGeneration() const VEK_EXCLUDES(mutexQ_) {
        const CVEKLockGuard guard(mutexQ_);
        return generation_;
    }

    // Lets go of records that were free since the last call.
    void Trim() VEK_EXCLUDES(mutexQ_) {
        const CVEKLockGuard guard(mutexQ_);
        pool_.Trim();
    }

    // A record is queued.
    bool HasQueued() const VEK_EXCLUDES(mutexQ_) {
        const CVEKLockGuard guard(mutexQ_);
        return !queue_.IsEmpty();
    }
    // Records leased, queued or out.
    size_t GetUsed() const VEK_EXCLUDES(mutexQ_) {
        const CVEKLockGuard guard(mutexQ_);
        return pool_.GetUsed();
    }
    VEK_ST_HTTP2_OUTBOX_COUNTS GetCounts() const VEK_EXCLUDES(mutexQ_) {
        const CVEKLockGuard guard(mutexQ_);
        VEK_ST_HTTP2_OUTBOX_COUNTS counts{pool_.GetFree(), pool_.GetUsed(), 0, waiters_};
        for (const Slot* slot = queue_.GetFirst(); slot != nullptr; slot = slot->next) {
            ++counts.queued;
        }
        return counts;
    }

  private:
    static constexpr std::chrono::seconds WAIT_LIMIT{1};
    enum Stage { FREE = 0, LEASED, QUEUED, OUT };

    void GiveBack(Slot* slot) VEK_REQUIRES(mutexQ_) {
        if (slot->stage != LEASED) {
            heldBytes_ -= slot->payload_.size_;
        }
        pool_.Return(slot);
        if (waiters_ > 0) {
            freed_.notify_one();
        }
    }

    mutable CVEKLock mutexQ_;
    std::condition_variable freed_;
    CVEKHttp2Pool<RECORD> pool_ VEK_GUARDED_BY(mutexQ_);
    typename CVEKHttp2Pool<RECORD>::Queue queue_ VEK_GUARDED_BY(mutexQ_);
    uint64_t generation_ VEK_GUARDED_BY(mutexQ_) = 0;
    int waiters_ VEK_GUARDED_BY(mutexQ_) = 0;
    size_t heldBytes_ VEK_GUARDED_BY(mutexQ_) = 0;  // bodies of what is queued or out
};

#endif
