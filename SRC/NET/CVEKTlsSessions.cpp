#include "CVEKTlsSessions.h"

#include <algorithm>
#include <new>
#include <utility>

#include "VEKTlsAttachment.h"

namespace {

int KeySlot() {
    static const int INDEX = SSL_get_ex_new_index(
        0, nullptr, nullptr, nullptr, [](void*, void* key, CRYPTO_EX_DATA*, int, long, void*) {
            delete static_cast<std::string*>(key);
        });
    return INDEX;
}

const std::string* KeyOf(const SSL* ssl) {
    return static_cast<const std::string*>(SSL_get_ex_data(ssl, KeySlot()));
}

}  // namespace

bool CVEKTlsSessions::Start(SSL_CTX* context) {
    // The library's own store knows no targets.
    SSL_CTX_set_session_cache_mode(context, SSL_SESS_CACHE_CLIENT | SSL_SESS_CACHE_NO_INTERNAL);
    SSL_CTX_sess_set_new_cb(context, Keep);
    return VEK_TLS_ATTACH(context, std::make_unique<CVEKTlsSessions>());
}

bool CVEKTlsSessions::Join(SSL* ssl, const std::string& key) {
    auto* store = VEK_TLS_ATTACHED<CVEKTlsSessions>(SSL_get_SSL_CTX(ssl));
    if (store == nullptr) {
        return true;
    }
    auto owned = std::make_unique<std::string>(key);
    if (SSL_set_ex_data(ssl, KeySlot(), owned.get()) != 1) {
        return false;
    }
    static_cast<void>(owned.release());
    const Session session = store->Find(key);
    return session == nullptr || SSL_set_session(ssl, session.get()) == 1;
}

void CVEKTlsSessions::Forget(const SSL* ssl) {
    auto* store = VEK_TLS_ATTACHED<CVEKTlsSessions>(SSL_get_SSL_CTX(ssl));
    const std::string* key = KeyOf(ssl);
    if (store != nullptr && key != nullptr) {
        const std::lock_guard<std::mutex> lock(store->mutex_);
        store->sessions_.erase(*key);
    }
}

int CVEKTlsSessions::Keep(SSL* ssl, SSL_SESSION* session) {
    const std::string* key = KeyOf(ssl);
    Session copy(key == nullptr ? nullptr : SSL_SESSION_dup(session), SSL_SESSION_free);
    if (copy == nullptr) {
        return 0;
    }
    auto* store = VEK_TLS_ATTACHED<CVEKTlsSessions>(SSL_get_SSL_CTX(ssl));
    const std::lock_guard<std::mutex> lock(store->mutex_);
    auto& sessions = store->sessions_;
    if (sessions.size() >= MAX_TARGETS && sessions.count(*key) == 0) {
        // A look at all of them is little beside the handshake that it follows.
        sessions.erase(std::min_element(
            sessions.begin(), sessions.end(),
            [](const auto& a, const auto& b) { return a.second.turn < b.second.turn; }));
    }
    try {
        sessions.insert_or_assign(*key, Kept{std::move(copy), ++store->turns_});
    } catch (const std::bad_alloc&) {
        return 0;  // not kept: the next handshake there is a full one
    }
    return 0;
}

// A copy: the library writes into the session of a running handshake.
CVEKTlsSessions::Session CVEKTlsSessions::Find(const std::string& key) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = sessions_.find(key);
    return {found == sessions_.end() ? nullptr : SSL_SESSION_dup(found->second.session.get()),
            SSL_SESSION_free};
}
