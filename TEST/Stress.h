// For tests of what many threads enter.
#ifndef STRESS_H
#define STRESS_H

#include <chrono>

// While it lives, threads pause at random where they take locks and give them back.
class Stress {
  public:
    Stress();
    ~Stress();
    // True for a second, or for VEK_STRESS_SECONDS.
    bool IsLeft() const { return std::chrono::steady_clock::now() < end_; }
    // A number below `limit`; each thread draws its own.
    static unsigned Draw(unsigned limit);

  private:
    std::chrono::steady_clock::time_point end_;
};

#endif
