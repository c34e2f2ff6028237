// CVEKHttp2Output: gathers the frames that one flush of a session produces, so that they leave in
// as few system calls and TLS records as they fit in, and keeps what the socket did not take.
#ifndef CVEK_HTTP2_OUTPUT_H
#define CVEK_HTTP2_OUTPUT_H

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

#include "CVEKSocketNew.h"

class CVEKHttp2Output {
  public:
    // A piece of a frame.
    struct Part {
        const void* data;
        size_t length;
    };

    // Takes all of the parts; full buffers go out through write(data, length). Returns true, or
    // false with GetResult below 0: nothing of these parts was taken.
    template <class WRITE>
    bool Add(std::initializer_list<Part> parts, WRITE write) {
        size_t length = 0;
        for (const Part& part : parts) {
            length += part.length;
        }
        if (IsBlocked() || (Size() + length > CAPACITY && !Flush(write))) {
            return false;
        }
        for (const Part& part : parts) {
            const auto* bytes = static_cast<const uint8_t*>(part.data);
            bytes_.insert(bytes_.end(), bytes, bytes + part.length);
        }
        return true;
    }

    // Writes what is held. Returns true when all of it has left.
    template <class WRITE>
    bool Flush(WRITE write) {
        while (sent_ < bytes_.size()) {
            // While blocked, the bytes stay where they are: TLS wants to see the same ones again.
            result_ = write(reinterpret_cast<const char*>(bytes_.data()) + sent_, Size());
            if (result_ <= 0) {
                result_ = result_ == 0 ? VEK_SOCKET_AGAIN : result_;
                return false;
            }
            sent_ += static_cast<size_t>(result_);
        }
        Clear();
        return true;
    }

    // Result of the last write that did not go through.
    int GetResult() const { return result_; }
    // True when the socket has refused bytes that are still held.
    bool IsBlocked() const { return result_ < 0; }

    void Clear() {
        bytes_.clear();
        sent_ = 0;
        result_ = 0;
    }

  private:
    static constexpr size_t CAPACITY = 32768;  // two TLS records

    size_t Size() const { return bytes_.size() - sent_; }

    std::vector<uint8_t> bytes_;
    size_t sent_ = 0;
    int result_ = 0;
};

#endif
