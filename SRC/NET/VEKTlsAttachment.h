// Objects of ours that live and die with a TLS context.
#ifndef VEK_TLS_ATTACHMENT_H
#define VEK_TLS_ATTACHMENT_H

#include <openssl/ssl.h>

#include <memory>

// The library's slot for objects of class T, one in each context.
template <class T>
int VEK_TLS_SLOT() {
    static const int INDEX = SSL_CTX_get_ex_new_index(
        0, nullptr, nullptr, nullptr, [](void*, void* object, CRYPTO_EX_DATA*, int, long, void*) {
            delete static_cast<T*>(object);
        });
    return INDEX;
}

// Hands the object to the context. False, without the object, when memory ran out.
template <class T>
bool VEK_TLS_ATTACH(SSL_CTX* context, std::unique_ptr<T> object) {
    if (SSL_CTX_set_ex_data(context, VEK_TLS_SLOT<T>(), object.get()) != 1) {
        return false;
    }
    static_cast<void>(object.release());
    return true;
}

// The context's object, or null.
template <class T>
T* VEK_TLS_ATTACHED(const SSL_CTX* context) {
    return static_cast<T*>(SSL_CTX_get_ex_data(context, VEK_TLS_SLOT<T>()));
}

#endif
