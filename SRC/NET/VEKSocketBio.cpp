#include "VEKSocketBio.h"

#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <memory>

namespace {

int WriteSocket(BIO* bio, const char* data, int length) {
    int fd = -1;
    BIO_get_fd(bio, &fd);
    errno = 0;
    const ssize_t sent = send(fd, data, static_cast<size_t>(length), MSG_NOSIGNAL);
    BIO_clear_retry_flags(bio);
    if (sent <= 0 && BIO_sock_should_retry(static_cast<int>(sent)) != 0) {
        BIO_set_retry_write(bio);
    }
    return static_cast<int>(sent);
}

int ReadSocket(BIO* bio, char* data, int length) {
    int fd = -1;
    BIO_get_fd(bio, &fd);
    errno = 0;
    const ssize_t received = recv(fd, data, static_cast<size_t>(length), 0);
    *static_cast<bool*>(BIO_get_app_data(bio)) = received < length;
    BIO_clear_retry_flags(bio);
    if (received < 0 && BIO_sock_should_retry(static_cast<int>(received)) != 0) {
        BIO_set_retry_read(bio);
    }
    if (received == 0) {
        BIO_set_flags(bio, BIO_FLAGS_IN_EOF);
    }
    return static_cast<int>(received);
}

using MethodOwner = std::unique_ptr<BIO_METHOD, decltype(&BIO_meth_free)>;

MethodOwner NewMethod() {
    MethodOwner method(BIO_meth_new(BIO_TYPE_SOCKET, "socket without SIGPIPE"), BIO_meth_free);
    if (method != nullptr) {
        const BIO_METHOD* socket = BIO_s_socket();
        BIO_meth_set_write(method.get(), WriteSocket);
        BIO_meth_set_read(method.get(), ReadSocket);
        BIO_meth_set_ctrl(method.get(), BIO_meth_get_ctrl(socket));
        BIO_meth_set_create(method.get(), BIO_meth_get_create(socket));
        BIO_meth_set_destroy(method.get(), BIO_meth_get_destroy(socket));
    }
    return method;
}

// Made once, by the first call that has the memory for it, and never freed: a connection may
// outlive whatever is destroyed at exit.
const BIO_METHOD* GetMethod() {
    static std::atomic<BIO_METHOD*> made{nullptr};
    BIO_METHOD* method = made;
    if (method == nullptr) {
        MethodOwner fresh = NewMethod();
        if (fresh != nullptr && made.compare_exchange_strong(method, fresh.get())) {
            method = fresh.release();
        }
    }
    return method;
}

}  // namespace

BIO* VEK_NEW_SOCKET_BIO(int fd, bool* isDrained) {
    const BIO_METHOD* method = GetMethod();
    std::unique_ptr<BIO, decltype(&BIO_free)> bio(method == nullptr ? nullptr : BIO_new(method),
                                                  BIO_free);
    if (bio == nullptr || BIO_set_app_data(bio.get(), isDrained) != 1) {
        return nullptr;
    }
    BIO_set_fd(bio.get(), fd, BIO_NOCLOSE);
    return bio.release();
}
