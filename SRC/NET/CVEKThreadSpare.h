// CVEKThreadSpare: a value of the calling thread's that its objects lend one another, say a buffer
// that each needs for a moment only. What is large belongs on the heap: thread_local bytes come off
// every thread's stack.
#ifndef CVEK_THREAD_SPARE_H
#define CVEK_THREAD_SPARE_H

template <class VALUE>
class CVEKThreadSpare {
  public:
    // Null once the thread is ending: an object of static storage may outlive the value.
    static VALUE* Get() {
        static thread_local Holder holder;
        return isGone_ ? nullptr : &holder.value;
    }

  private:
    struct Holder {
        ~Holder() { isGone_ = true; }
        VALUE value;
    };

    static inline thread_local bool isGone_ = false;
};

#endif
