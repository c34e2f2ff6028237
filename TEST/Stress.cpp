#include "Stress.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <random>

namespace {

std::atomic<bool> G_IS_ON{false};

void Pause() {
    if (!G_IS_ON) { return; }
    const unsigned drawn = Stress::Draw(256);
    if (drawn == 0) { usleep(Stress::Draw(200)); }
    if (drawn < 32) { sched_yield(); }
}

}  // namespace

Stress::Stress() : end_(std::chrono::steady_clock::now()) {
    const char* text = getenv("VEK_STRESS_SECONDS");
    end_ += std::chrono::seconds(text != nullptr ? atoi(text) : 1);
    G_IS_ON = true;
}

Stress::~Stress() { G_IS_ON = false; }

unsigned Stress::Draw(unsigned limit) {
    static std::atomic<unsigned> threads{0};
    static thread_local std::minstd_rand generator(++threads);
    return static_cast<unsigned>(generator()) % limit;
}

// The linker puts these in the place of the calls.
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
