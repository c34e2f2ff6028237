#include "CVEKHttp2Memory.h"

#include <malloc.h>

#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t CLASS_SIZE = 32;
constexpr size_t MAX_BLOCK = 512;  // of blocks that are kept
constexpr size_t CLASSES = MAX_BLOCK / CLASS_SIZE + 1;
constexpr unsigned MAX_KEPT = 128;  // of a class

#ifdef __has_feature  // clang, which defines none of the names below
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VEK_IS_SANITIZED
#endif
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define VEK_IS_SANITIZED
#endif

#ifdef VEK_IS_SANITIZED
constexpr bool IS_KEPT = false;  // so that the sanitizers see each use
#else
constexpr bool IS_KEPT = true;
#endif

struct Block {
    Block* next;
};

// Blocks of at least CLASS_SIZE times the index.
struct Shelf {
    Block* first;
    unsigned count;
};

// Plain memory: it outlives the thread's other objects, which may end sessions.
thread_local Shelf T_SHELVES[CLASSES];
thread_local bool T_IS_OPEN = IS_KEPT;

// Ends the keeping with the thread.
class Closer {
  public:
    Closer() = default;
    ~Closer() {
        T_IS_OPEN = false;
        for (Shelf& shelf : T_SHELVES) {
            while (shelf.first != nullptr) {
                Block* block = shelf.first;
                shelf.first = block->next;
                free(block);
            }
        }
    }
    Closer(const Closer&) = delete;
    Closer& operator=(const Closer&) = delete;
    void Touch() {}
};
thread_local Closer T_CLOSER;

}  // namespace

nghttp2_mem* CVEKHttp2Memory::Get() {
    static nghttp2_mem memory = {nullptr, Take, Return, TakeZeroed, Resize};
    return &memory;
}

void* CVEKHttp2Memory::Take(size_t size, void*) {
    const size_t index = (size + CLASS_SIZE - 1) / CLASS_SIZE;
    if (index >= CLASSES) {
        return malloc(size);
    }
    Shelf& shelf = T_SHELVES[index];
    if (shelf.first == nullptr) {
        return malloc(index * CLASS_SIZE);
    }
    Block* block = shelf.first;
    shelf.first = block->next;
    --shelf.count;
    return block;
}

void* CVEKHttp2Memory::TakeZeroed(size_t count, size_t size, void* data) {
    size_t bytes = 0;
    if (__builtin_mul_overflow(count, size, &bytes)) {
        return nullptr;
    }
    if (bytes >= MAX_BLOCK) {
        return calloc(count, size);
    }
    void* block = Take(bytes, data);
    return block == nullptr ? nullptr : memset(block, 0, bytes);
}

void* CVEKHttp2Memory::Resize(void* block, size_t size, void*) {
    return realloc(block, size);
}

void CVEKHttp2Memory::Return(void* block, void*) {
    if (block == nullptr) {
        return;
    }
    const size_t index = malloc_usable_size(block) / CLASS_SIZE;
    Shelf* shelf = index < CLASSES ? &T_SHELVES[index] : nullptr;
    if (shelf == nullptr || !T_IS_OPEN || index == 0 || shelf->count >= MAX_KEPT) {
        free(block);
        return;
    }
    if (shelf->count == 0) {
        T_CLOSER.Touch();  // makes it, so that it runs when the thread ends
    }
    auto* kept = static_cast<Block*>(block);
    kept->next = shelf->first;
    shelf->first = kept;
    ++shelf->count;
}
