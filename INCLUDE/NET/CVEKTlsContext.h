// CVEKTlsContext: owner of a TLS context for HTTP/2 of today, with TLS 1.2 and 1.3. (The contexts
// of VEKCommonOpenSSL.h keep to their own policy, TLS 1.0 to 1.2.)
//
// Besides what the options choose, every context follows RFC 9113, section 9.2: neither
// compression nor renegotiation, and "h2" as the only application protocol. A client offers it. A
// server selects it; a client that offers only others gets the alert "no application protocol", and
// one that offers none is refused by the check after the handshake (VEK_SSL_SELECT_ALPN): both are
// VEK_TLS_CAUSE_NO_H2. Buffers of idle connections are released.
//
// Nothing is weaker than asked for: what cannot be done as the options say is refused, with one
// line that names the value or the file, escaped as in a log (VEKLogText.h), and gives the reason
// in the words of the TLS library or of the system.
//
// Making a context, moving and destroying the owner are for one thread at a time. The context
// itself serves any number of connections and threads at once. Connections made from it keep it
// alive, with all that belongs to it: the owner may go first.
#ifndef CVEK_TLS_CONTEXT_H
#define CVEK_TLS_CONTEXT_H

#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "VEKExport.h"
#include "VEKTlsOption.h"

class VEK_API CVEKTlsContext {
  public:
    // Owns no context.
    CVEKTlsContext();
    ~CVEKTlsContext();

    CVEKTlsContext(CVEKTlsContext&& other) noexcept;
    CVEKTlsContext& operator=(CVEKTlsContext&& other) noexcept;
    CVEKTlsContext(const CVEKTlsContext&) = delete;
    CVEKTlsContext& operator=(const CVEKTlsContext&) = delete;

    // Make a context for clients or for servers, in place of one that the object may own. Files
    // are read now and not again, but for those in a CA directory. Return true, or false with the
    // reason in `error`; the object then owns what it owned before.
    bool CreateClient(const VEK_ST_TLS_OPTIONS& options, std::string& error);
    bool CreateServer(const VEK_ST_TLS_OPTIONS& options, std::string& error);

    // The context, which stays the object's own; null when it has none.
    SSL_CTX* GetContext() const { return context_.get(); }

  private:
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_;
};

#endif
