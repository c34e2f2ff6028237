#include "CVEKHttp2Output.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "CVEKSocketNew.h"
#include "CVEKThreadSpare.h"

namespace {

using Buffer = CVEKHttp2Output::Buffer;

constexpr size_t CAPACITY = 32768;  // two TLS records

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
    if (end_ + length > buffer_.capacity) {
        Reserve(std::max(end_ + length, CAPACITY));
    }
    for (const Part& part : parts) {
        if (part.length > 0) {
            memcpy(buffer_.bytes.get() + end_, part.data, part.length);
            end_ += part.length;
        }
    }
    return true;
}

void CVEKHttp2Output::Reserve(size_t capacity) {
    Buffer* spare = buffer_.capacity == 0 ? CVEKThreadSpare<Buffer>::Get() : nullptr;
    if (spare != nullptr && spare->capacity >= capacity) {
        std::swap(buffer_, *spare);
        return;
    }
    Buffer larger{std::unique_ptr<uint8_t[]>(new uint8_t[capacity]), capacity};
    if (end_ > 0) {
        memcpy(larger.bytes.get(), buffer_.bytes.get(), end_);
    }
    std::swap(buffer_, larger);
}

bool CVEKHttp2Output::Flush(CVEKSocketNew& transport) {
    while (sent_ < end_) {
        result_ =
            transport.Send(reinterpret_cast<const char*>(buffer_.bytes.get()) + sent_, GetSize());
        if (result_ <= 0) {
            result_ = result_ == 0 ? VEK_SOCKET_AGAIN : result_;
            return false;
        }
        sent_ += static_cast<size_t>(result_);
        taken_ += static_cast<uint64_t>(result_);
    }
    Clear();
    return true;
}

void CVEKHttp2Output::Clear() {
    sent_ = 0;
    end_ = 0;
    result_ = 0;
    Buffer* spare = buffer_.capacity > 0 ? CVEKThreadSpare<Buffer>::Get() : nullptr;
    if (spare != nullptr && spare->capacity == 0) {
        std::swap(buffer_, *spare);
    }
    buffer_ = Buffer();
}
