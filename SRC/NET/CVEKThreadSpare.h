#pragma once

// A value of the calling thread's that its objects lend one another, say a buffer that each needs
// for a moment only. On the heap: thread_local bytes would come off the stack of every thread.
template <typename T>
class CVEKThreadSpare {
  public:
    // Null once the thread is ending: an object of static storage may outlive the value.
    static T* Get() {
        static thread_local Holder holder;
        return isGone_ ? nullptr : &holder.value;
    }

  private:
    struct Holder {
        ~Holder() { isGone_ = true; }
        T value;
    };

    static inline thread_local bool isGone_ = false;
};
