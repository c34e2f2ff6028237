// CVEKTlsIdentities: the certificates of a server, one of which is chosen by the name that a client
// asks for.
#ifndef CVEK_TLS_IDENTITIES_H
#define CVEK_TLS_IDENTITIES_H

#include <openssl/ssl.h>

#include <memory>
#include <string>
#include <vector>

#include "VEKTlsOption.h"

class CVEKTlsIdentities {
  public:
    // Reads a certificate, its chain and its key into the context. Returns false with the reason
    // in `error`: a file cannot be read, or the two do not belong together.
    static bool Load(SSL_CTX* context, const VEK_ST_TLS_IDENTITY& identity, std::string& error);

    // Has a server's context, which holds the first identity, choose among all of them. Returns
    // false with the reason in `error`.
    static bool Start(SSL_CTX* context, const std::vector<VEK_ST_TLS_IDENTITY>& identities,
                      std::string& error);

  private:
    // The library's question in the midst of a handshake: which certificate for this name?
    static int Choose(SSL* ssl, int* alert, void* object);
    std::vector<SSL_CTX*> Find(SSL_CTX* context, const char* name) const;

    // A context for each identity but the first, only to hold it.
    std::vector<std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>> others_;
};

#endif
