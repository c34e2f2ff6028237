// CVEKTlsSessions: what a client's TLS context remembers for resumption, the last session of each
// target. Beyond MAX_TARGETS the one goes that was kept longest ago. Any thread may call.
#ifndef CVEK_TLS_SESSIONS_H
#define CVEK_TLS_SESSIONS_H

#include <openssl/ssl.h>

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

class CVEKTlsSessions {
  public:
    // Has the context keep its sessions. False when memory ran out.
    static bool Start(SSL_CTX* context);

    // Offers the session kept under `key` to the connection, and keeps there those that it will
    // get. Does nothing where the context keeps none. False when memory ran out.
    static bool Join(SSL* ssl, const std::string& key);
    // Drops the session kept under the connection's key, if any.
    static void Forget(const SSL* ssl);

  private:
    static constexpr size_t MAX_TARGETS = 1024;
    using Session = std::unique_ptr<SSL_SESSION, decltype(&SSL_SESSION_free)>;
    struct Kept {
        Session session;    // a copy that no connection works on
        uint64_t turn = 0;  // of all that were ever kept
    };

    // The library's news of a session. Returns 0: the session stays the library's.
    static int Keep(SSL* ssl, SSL_SESSION* session);
    Session Find(const std::string& key);

    std::mutex mutex_;
    std::map<std::string, Kept> sessions_;
    uint64_t turns_ = 0;
};

#endif
