#include "CVEKHttp2Core.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr uint32_t DEFAULT_MAX_CONCURRENT_STREAM = 100;
constexpr uint32_t DEFAULT_MAX_PAYLOAD_SIZE = 1024;
constexpr uint32_t DEFAULT_MAX_HEADER_TABLE_SIZE = 64;
constexpr uint32_t DEFAULT_WINDOW_SIZE = 65536;
constexpr uint32_t DEFAULT_FRAME_SIZE = 16384;
constexpr uint32_t DEFAULT_TIMEOUT = 1;

constexpr size_t MAX_KEPT_SIZE = 256;  // of the name or value of a field

void SetDefault(uint32_t& option, uint32_t value) {
    if (option == 0) {
        option = value;
    }
}

}  // namespace

ssize_t VEK_HTTP2_READ_PAYLOAD(nghttp2_session* /*session*/, int32_t /*stream*/, uint8_t* /*buf*/,
                               size_t length, uint32_t* flags, nghttp2_data_source* source,
                               void* /*userData*/) {
    auto* payload = static_cast<VEK_ST_HTTP2_CHUNK_DATA*>(source->ptr);
    const size_t remaining = payload->size_ - payload->rSize_;
    const size_t given = std::min(remaining, length);
    *flags |= NGHTTP2_DATA_FLAG_NO_COPY;
    if (remaining > length) {
        payload->rSize_ += given;
    } else {
        *flags |= NGHTTP2_DATA_FLAG_EOF;
    }
    return static_cast<ssize_t>(given);
}

nghttp2_nv VEK_HTTP2_FIELD(const char* name, size_t nameLength, const char* value,
                           size_t valueLength) {
    return {reinterpret_cast<uint8_t*>(const_cast<char*>(name)),
            reinterpret_cast<uint8_t*>(const_cast<char*>(value)), nameLength, valueLength,
            NGHTTP2_NV_FLAG_NO_COPY_NAME | NGHTTP2_NV_FLAG_NO_COPY_VALUE};
}

void VEK_HTTP2_BOUND_FIELDS(VEK_HTTP2_HEADER& header) {
    const bool isSmall = header.size() <= VEK_HTTP2_MAX_HEADERS &&
                         std::all_of(header.begin(), header.end(), [](const auto& field) {
                             return field.first.capacity() <= MAX_KEPT_SIZE &&
                                    field.second.capacity() <= MAX_KEPT_SIZE;
                         });
    if (!isSmall) {
        VEK_HTTP2_HEADER().swap(header);
    }
}

nghttp2_nv VEK_HTTP2_PSEUDO_FIELD(std::string_view name, const char* value) {
    return VEK_HTTP2_FIELD(name.data(), name.size(), value, strlen(value));
}

void VEK_HTTP2_SET_DEFAULTS(VEK_ST_HTTP2_OPTIONS& options) {
    SetDefault(options.nMaxConcurrentStream_, DEFAULT_MAX_CONCURRENT_STREAM);
    SetDefault(options.nMaxPayloadSize_, DEFAULT_MAX_PAYLOAD_SIZE);
    SetDefault(options.nMaxHeaderTableSize_, DEFAULT_MAX_HEADER_TABLE_SIZE);
    SetDefault(options.nDefaultWindowSize_, DEFAULT_WINDOW_SIZE);
    SetDefault(options.nDefaultFrameSize_, DEFAULT_FRAME_SIZE);
    SetDefault(options.nTimeout_, DEFAULT_TIMEOUT);
}

int VEK_HTTP2_OPEN_EVENT(int fd) {
    const int epfd = epoll_create(1);
    if (epfd < 0) {
        VEK_SYSTEM_CALL_LOG("epoll_create() system call error.");
        return -1;
    }
    epoll_event event{};
    event.events = EPOLLIN | EPOLLERR;
    event.data.fd = fd;
    if (epoll_ctl(epfd, EPOLL_CTL_ADD, fd, &event) != 0) {
        VEK_SYSTEM_CALL_LOG("epoll_ctl() system call error.");
        close(epfd);
        return -1;
    }
    return epfd;
}

VEK_HTTP2_EVENT VEK_HTTP2_WAIT_EVENT(int epfd, int fd, int timeoutMs) {
    epoll_event event{};
    const int count = epoll_wait(epfd, &event, 1, timeoutMs);
    if (count < 0) {
        return errno == EINTR ? VEK_HTTP2_EVENT_INTERRUPTED : VEK_HTTP2_EVENT_FAILED;
    }
    if (count == 0 || event.data.fd != fd) {
        return VEK_HTTP2_EVENT_NONE;
    }
    if ((event.events & EPOLLERR) != 0) {
        return VEK_HTTP2_EVENT_ERROR;
    }
    return (event.events & (EPOLLIN | EPOLLOUT)) != 0 ? VEK_HTTP2_EVENT_READY
                                                      : VEK_HTTP2_EVENT_NONE;
}
