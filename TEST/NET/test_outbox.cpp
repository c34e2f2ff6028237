// The records of a connection: their life, and the one place that several threads enter.
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "CVEKHttp2Outbox.h"
#include "CVEKHttp2Pool.h"
#include "Stress.h"

namespace {

using Box = CVEKHttp2Outbox<VEK_ST_HTTP2_RESPONSE>;
using Pool = CVEKHttp2Pool<VEK_ST_HTTP2_RESPONSE>;

const auto OPEN = [] { return true; };
const auto CLOSED = [] { return false; };

VEK_HTTP2_TAKE TakeAndPost(Box& box, int stream) {
    Box::Lease lease;
    const VEK_HTTP2_TAKE result = box.Take(false, OPEN, lease);
    if (result == VEK_HTTP2_TAKE_DONE) {
        lease->streamId_ = stream;
        EXPECT_TRUE(box.Post(lease));
    }
    return result;
}

TEST(Outbox, RecordsGoRoundInOrder) {
    Box box;
    box.SetLimits(3, 10);
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 3; ++i) { EXPECT_EQ(VEK_HTTP2_TAKE_DONE, TakeAndPost(box, i)); }
        EXPECT_EQ(VEK_HTTP2_TAKE_NONE, TakeAndPost(box, 3));
        EXPECT_EQ(3U, box.GetUsed());
        EXPECT_EQ(3U, box.GetCounts().queued);
        for (int i = 0; i < 3; ++i) {
            Box::Slot* slot = box.Next();
            ASSERT_NE(nullptr, slot);
            EXPECT_EQ(i, slot->streamId_);
            EXPECT_EQ(i < 2, box.HasQueued());
            box.Return(slot);
        }
        EXPECT_EQ(nullptr, box.Next());
        EXPECT_EQ(3U, box.GetCounts().free);
    }
    {  // a lease that is dropped gives its record back
        Box::Lease lease;
        EXPECT_EQ(VEK_HTTP2_TAKE_DONE, box.Take(false, OPEN, lease));
        EXPECT_EQ(1U, box.GetUsed());
    }
    EXPECT_EQ(0U, box.GetUsed());
}

TEST(Outbox, ResetFreesAllButTheLeasesAndMakesThemStale) {
    Box box;
    box.SetLimits(3, 10);
    TakeAndPost(box, 1);
    TakeAndPost(box, 2);
    EXPECT_NE(nullptr, box.Next());  // one out, one queued, one leased
    Box::Lease stale;
    EXPECT_EQ(VEK_HTTP2_TAKE_DONE, box.Take(false, OPEN, stale));
    box.Reset();
    EXPECT_EQ(1U, box.GetUsed());
    EXPECT_FALSE(box.HasQueued());
    stale->streamId_ = 7;  // the record is still the lease's to write to
    EXPECT_FALSE(box.Post(stale));
    EXPECT_EQ(0U, box.GetUsed());
    EXPECT_EQ(nullptr, box.Next());
    for (int i = 0; i < 3; ++i) { EXPECT_EQ(VEK_HTTP2_TAKE_DONE, TakeAndPost(box, i)); }
}

TEST(Outbox, WaitsForARecordUntilClosed) {
    Box box;
    box.SetLimits(1, 10);
    TakeAndPost(box, 1);
    std::atomic<bool> isOpen{true};
    const auto take = [&](VEK_HTTP2_TAKE expected) {
        return std::thread([&, expected] {
            Box::Lease lease;
            EXPECT_EQ(expected, box.Take(
                                    true, [&] { return isOpen.load(); }, lease));
        });
    };
    std::thread served = take(VEK_HTTP2_TAKE_DONE);
    box.Return(box.Next());
    served.join();
    TakeAndPost(box, 2);
    take(VEK_HTTP2_TAKE_LATE).join();
    for (const bool isReset : {false, true}) {  // closed, or open again for somebody else
        std::thread closed = take(VEK_HTTP2_TAKE_CLOSED);
        while (box.GetCounts().waiting == 0) { std::this_thread::yield(); }
        isOpen = isReset;
        isReset ? box.Reset() : box.Wake();
        closed.join();
        isOpen = true;
    }
    Box::Lease lease;
    EXPECT_EQ(VEK_HTTP2_TAKE_CLOSED, box.Take(true, CLOSED, lease));
    EXPECT_EQ(VEK_HTTP2_TAKE_CLOSED, box.Take(false, CLOSED, lease));
}

// Several threads post, one drives and resets now and then: every record that comes out was posted
// since the last reset, whole, and none is lost.
TEST(Outbox, ManyThreadsPostWhileOneDrives) {
    const Stress stress;
    Box box;
    box.SetLimits(5, 16);
    std::atomic<int> asked{0}, posted{0}, refused{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([&] {
            while (stress.IsLeft()) {
                Box::Lease lease;
                const int i = ++asked;
                if (box.Take(true, OPEN, lease) != VEK_HTTP2_TAKE_DONE) {  // reset while it waited
                    ++refused;
                    continue;
                }
                lease->streamId_ = i;
                lease->payload_.data_[15] = static_cast<char>(i);
                ++(box.Post(lease) ? posted : refused);
            }
        });
    }
    int driven = 0;
    std::atomic<bool> isOver{false};
    std::thread waiter([&] {
        for (auto& thread : threads) { thread.join(); }
        isOver = true;
    });
    for (int pass = 0; !isOver || box.HasQueued(); ++pass) {
        Box::Slot* slot = box.Next();
        if (slot != nullptr) {
            EXPECT_EQ(static_cast<char>(slot->streamId_), slot->payload_.data_[15]);
            ++driven;
            if (pass % 100 == 99) {
                driven += static_cast<int>(box.GetCounts().queued);  // at least these go with the reset
                box.Reset();
            } else {
                box.Return(slot);
            }
        }
    }
    waiter.join();
    EXPECT_EQ(asked, posted + refused);
    EXPECT_LE(driven, posted);
    printf("%d asked for, %d posted, %d driven\n", asked.load(), posted.load(), driven);
    EXPECT_EQ(0U, box.GetUsed());
}

// Records come by need, the warmest first, and go when a whole period had no use for them.
TEST(Pool, KeepsWhatIsUsedAndTrimsTheRest) {
    Pool pool;
    pool.SetLimits(4, 8);
    std::vector<Pool::Slot*> taken;
    for (int i = 0; i < 4; ++i) { taken.push_back(pool.Take(1)); }
    EXPECT_EQ(nullptr, pool.Take(1));
    EXPECT_NE(nullptr, pool.TakeBeyond(1));
    EXPECT_EQ(0U, pool.GetFree());
    pool.Clear(1);
    EXPECT_EQ(5U, pool.GetUsed());
    for (Pool::Slot* slot : taken) { pool.Return(slot); }
    EXPECT_EQ(taken.back(), pool.Take(1));  // last in, first out
    pool.Return(taken.back());
    pool.Trim();                // begins a period
    pool.Return(pool.Take(1));  // one of the four was needed in it
    pool.Trim();
    EXPECT_EQ(taken.back(), pool.Take(1));
    std::set<Pool::Slot*> fresh;
    for (int i = 0; i < 2; ++i) { fresh.insert(pool.Take(1)); }
    EXPECT_EQ(2U, fresh.size());
    EXPECT_EQ(nullptr, pool.Take(1));  // the one beyond the limit counts
    pool.Clear();
    EXPECT_EQ(0U, pool.GetUsed());
}

}  // namespace
