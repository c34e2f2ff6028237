// What many threads enter, with pauses at random where locks are taken and released: the linker puts
// those below in the place of the calls. Each test takes a second, or VEK_STRESS_SECONDS.
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "CVEKHttp2Outbox.h"
#include "HttpTest.h"

namespace {

// A number below `limit`; each thread draws its own.
unsigned Draw(unsigned limit) {
    static std::atomic<unsigned> threads{0};
    static thread_local std::minstd_rand generator(++threads);
    return static_cast<unsigned>(generator()) % limit;
}

void Pause() {
    const unsigned drawn = Draw(256);
    if (drawn == 0) { usleep(Draw(200)); }
    if (drawn < 32) { sched_yield(); }
}

// The time of a test.
struct Time {
    bool IsLeft() const { return std::chrono::steady_clock::now() < end; }
    const char* text = getenv("VEK_STRESS_SECONDS");
    std::chrono::steady_clock::time_point end =
        std::chrono::steady_clock::now() + seconds(text != nullptr ? atoi(text) : 1);
};

}  // namespace

extern "C" {
int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    Pause();
    return __real_pthread_mutex_lock(mutex);
}
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    const int result = __real_pthread_mutex_unlock(mutex);
    Pause();
    return result;
}
}

namespace {

// Several threads post and withdraw, one drives and resets now and then: every record that comes out
// was posted since the last reset, whole, once, and the limit of bytes holds.
TEST(Interleave, Outbox) {
    using Box = CVEKHttp2Outbox<VEK_ST_HTTP2_RESPONSE>;
    constexpr size_t SIZE = 16, MAX_BYTES = 3 * SIZE;
    const Time time;
    Box box;
    box.SetLimits(5, SIZE);
    std::atomic<unsigned> posted{0}, withdrawn{0}, next{1};
    std::atomic<int> active{3};
    std::vector<std::thread> threads;
    for (int i = 0; i < 3; ++i) {
        threads.emplace_back([&] {
            while (time.IsLeft()) {
                Box::Lease lease;
                if (box.Take(
                        Draw(2) == 0, [] { return true; }, lease) != VEK_HTTP2_TAKE_DONE) {
                    continue;
                }
                const unsigned number = next++;
                lease->streamId_ = static_cast<int>(number);
                lease->payload_.size_ = SIZE;
                memset(lease->payload_.data_, static_cast<int>(number & 127), SIZE);
                if (Draw(8) == 0) { continue; }  // dropped
                posted += box.Post(lease, MAX_BYTES) == VEK_HTTP2_POST_DONE ? 1 : 0;
                const auto isIt = [number](const auto& slot) { return slot.streamId_ == static_cast<int>(number); };
                if (Draw(8) == 0) { withdrawn += box.Withdraw(isIt) ? 1 : 0; }
            }
            --active;
        });
    }
    unsigned driven = 0, resets = 0;
    while (active > 0 || box.HasQueued()) {
        Box::Slot* slot = box.Next();
        if (slot == nullptr) {
            std::this_thread::yield();
            continue;
        }
        ++driven;
        EXPECT_EQ(std::string(SIZE, static_cast<char>(slot->streamId_ & 127)), std::string(slot->payload_.data_, SIZE));
        EXPECT_LE(box.GetCounts().queued, MAX_BYTES / SIZE);
        if (Draw(100) == 0) {
            box.Reset();
            ++resets;
        } else {
            box.Return(slot);
        }
        if (Draw(50) == 0) { box.Trim(); }
    }
    for (auto& thread : threads) { thread.join(); }
    EXPECT_LE(driven + withdrawn, posted);
    EXPECT_LE(posted, driven + withdrawn + resets * MAX_BYTES / SIZE);
    EXPECT_EQ(0U, box.GetUsed());
    printf("%u posted, %u driven, %u withdrawn, %u resets\n", posted.load(), driven, withdrawn.load(), resets);
}

// Handles that are answered, told apart, reset or dropped by threads of their own, while clients give
// requests up, connections come and go and the server ends before the last of them.
TEST(Interleave, Responders) {
    const Time time;
    std::mutex mutex;
    std::condition_variable came;
    std::deque<CVEKHttpResponder> handles;
    bool isOver = false;
    std::atomic<unsigned> sent{0}, answered{0}, failed{0}, refused{0}, gone{0};
    std::vector<std::thread> threads;
    {
        TestServer server;
        server.handler = [&](VEK_ST_HTTP_REQUEST&, CVEKHttpResponder responder) {
            if (Draw(2) == 0) {
                responder.OnGone([&gone] { ++gone; });
            }
            const std::lock_guard<std::mutex> guard(mutex);
            handles.push_back(std::move(responder));
            came.notify_one();
        };
        const int port = server.Open();
        for (int i = 0; i < 3; ++i) {
            threads.emplace_back([&] {
                std::unique_lock<std::mutex> lock(mutex);
                while (!isOver || !handles.empty()) {
                    came.wait(lock, [&] { return isOver || !handles.empty(); });
                    if (handles.empty()) { continue; }
                    const size_t at = Draw(static_cast<unsigned>(handles.size()));
                    CVEKHttpResponder handle = std::move(handles[at]);
                    handles.erase(handles.begin() + static_cast<long>(at));
                    lock.unlock();
                    switch (Draw(8)) {
                        case 0:
                            handle.Reset(NGHTTP2_CANCEL);
                            break;
                        case 1:
                            break;  // dropped: 500
                        case 2:
                            handle.SendInformational(103, {});
                            [[fallthrough]];
                        case 3:
                            handle.OnGone([&gone] { ++gone; });
                            [[fallthrough]];
                        default: {
                            VEK_ST_HTTP_RESPONSE response;
                            response.body_ = std::string(Draw(5000), 'x');
                            EXPECT_TRUE(handle.Send(std::move(response)));
                            EXPECT_FALSE(handle.Send({}));
                        }
                    }
                    handle = {};
                    lock.lock();
                }
            });
        }
        while (time.IsLeft()) {  // each round is connections of their own
            VEK_ST_HTTP_CLIENT_OPTIONS options;
            options.connections_ = 2;
            TestClient client(port, options, 2);
            std::vector<CVEKHttpCall> calls;
            for (int i = 0; i < 300; ++i) {
                ++sent;
                calls.push_back(client.client.Send({}, [&](VEK_ST_HTTP_RESPONSE& response) {
                    ++(response.failure_ ? failed : answered);
                    refused += response.failure_ || response.status_ == 200 || response.status_ == 500 ? 0 : 1;
                }));
                if (Draw(10) == 0) { calls[Draw(static_cast<unsigned>(calls.size()))].Cancel(); }
            }
            const unsigned least = sent - Draw(150);
            EXPECT_TRUE(Eventually([&] { return answered + failed >= least; }));
        }
        EXPECT_TRUE(Eventually([&] { return answered + failed == sent; }));
        EXPECT_EQ(0U, refused);
        server.server.Stop(milliseconds(Draw(50)));
    }
    {
        const std::lock_guard<std::mutex> guard(mutex);
        isOver = true;
        came.notify_all();
    }
    for (auto& thread : threads) { thread.join(); }
    EXPECT_LE(gone, sent);
    printf("%u sent, %u answered, %u failed, %u gone\n", sent.load(), answered.load(), failed.load(), gone.load());
}

}  // namespace
