#include "CVEKHttp2Output.h"

#include "CVEKSocketNew.h"

namespace {

constexpr size_t CAPACITY = 32768;  // two TLS records

using Bytes = std::vector<uint8_t>;

// The buffer of the thread, while nobody has it. A connection of static storage may outlive it.
thread_local bool isSpareGone = false;
struct Spare {
    ~Spare() { isSpareGone = true; }
    Bytes bytes;
};

// Null once the thread is ending.
Bytes* SpareBuffer() {
    static thread_local Spare spare;
    return isSpareGone ? nullptr : &spare.bytes;
}

}  // namespace

bool CVEKHttp2Output::MakeRoom(size_t length, CVEKSocketNew& transport) {
    return !IsBlocked() && (GetSize() + length <= CAPACITY || Flush(transport));
}

bool CVEKHttp2Output::Add(std::initializer_list<Part> parts, CVEKSocketNew& transport) {
    size_t length = 0;
    for (const Part& part : parts) {
        length += part.length;
    }
    if (!MakeRoom(length, transport)) {
        return false;
    }
    Bytes* spare = bytes_.capacity() == 0 ? SpareBuffer() : nullptr;
    if (spare != nullptr) {
        bytes_.swap(*spare);
    }
    if (bytes_.capacity() - bytes_.size() < length) {
        bytes_.reserve(bytes_.size() + length > CAPACITY ? bytes_.size() + length : CAPACITY);
    }
    for (const Part& part : parts) {
        const auto* bytes = static_cast<const uint8_t*>(part.data);
        bytes_.insert(bytes_.end(), bytes, bytes + part.length);
    }
    return true;
}

bool CVEKHttp2Output::Flush(CVEKSocketNew& transport) {
    while (sent_ < bytes_.size()) {
        result_ = transport.Send(reinterpret_cast<const char*>(bytes_.data()) + sent_, GetSize());
        if (result_ <= 0) {
            result_ = result_ == 0 ? VEK_SOCKET_AGAIN : result_;
            return false;
        }
        sent_ += static_cast<size_t>(result_);
    }
    Clear();
    return true;
}

void CVEKHttp2Output::Clear() {
    bytes_.clear();
    sent_ = 0;
    result_ = 0;
    Bytes* spare = bytes_.capacity() > 0 ? SpareBuffer() : nullptr;
    if (spare != nullptr && spare->capacity() == 0) {
        bytes_.swap(*spare);
    }
    Bytes().swap(bytes_);
}
