// CVEKHttp2Memory: memory for the engine, which takes and returns a dozen small blocks for each
// request. Each thread keeps some of those that were returned to it, for whichever of its sessions
// wants one next; what is more goes back to the system's allocator, as all does when the thread
// ends. A block may be returned on another thread than it was taken on.
#ifndef CVEK_HTTP2_MEMORY_H
#define CVEK_HTTP2_MEMORY_H

#include <nghttp2/nghttp2.h>

#include <cstddef>

class CVEKHttp2Memory {
  public:
    // For sessions of any thread.
    static nghttp2_mem* Get();

  private:
    static void* Take(size_t size, void*);
    static void* TakeZeroed(size_t count, size_t size, void*);
    static void* Resize(void* block, size_t size, void*);
    static void Return(void* block, void*);
};

#endif
