// CVEKHttp2Output: gathers the frames that one flush of a session produces, so that they leave in
// as few system calls and TLS records as they fit in, and keeps what the socket did not take.
//
// The buffer is the thread's: an output borrows it while it holds bytes, and keeps it only when the
// socket refuses some. A connection that is idle so has none.
#ifndef CVEK_HTTP2_OUTPUT_H
#define CVEK_HTTP2_OUTPUT_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <memory>

class CVEKSocketNew;

class CVEKHttp2Output {
  public:
    // A piece of a frame.
    struct Part {
        const void* data;
        size_t length;
    };

    CVEKHttp2Output() = default;
    ~CVEKHttp2Output() { Clear(); }
    CVEKHttp2Output(const CVEKHttp2Output&) = delete;
    CVEKHttp2Output& operator=(const CVEKHttp2Output&) = delete;

    // Makes room for so many bytes; a full buffer goes out through the transport. False, with
    // GetResult below 0, when the socket has refused bytes.
    bool MakeRoom(size_t length, CVEKSocketNew& transport);
    // Takes all of the parts. Returns true, or false as MakeRoom does: nothing of them was taken.
    // Throws std::bad_alloc.
    bool Add(std::initializer_list<Part> parts, CVEKSocketNew& transport);
    // Writes what is held. Returns true when all of it has left.
    bool Flush(CVEKSocketNew& transport);

    // Result of the last write that did not go through.
    int GetResult() const { return result_; }
    // True when the socket has refused bytes that are still held.
    bool IsBlocked() const { return result_ < 0; }
    // Bytes that are held.
    size_t GetSize() const { return end_ - sent_; }
    // Bytes that the socket has taken, from the beginning.
    uint64_t GetTaken() const { return taken_; }

    void Clear();

    // Memory for bytes, and how much of it there is.
    struct Buffer {
        std::unique_ptr<uint8_t[]> bytes;
        size_t capacity = 0;
    };

  private:
    void Reserve(size_t capacity);

    Buffer buffer_;
    size_t sent_ = 0;  // the bytes held lie between these two
    size_t end_ = 0;
    int result_ = 0;
    uint64_t taken_ = 0;
};

#endif
