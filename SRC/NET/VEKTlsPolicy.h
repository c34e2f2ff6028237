// Versions, ciphers, suites and groups of a TLS context.
#ifndef VEK_TLS_POLICY_H
#define VEK_TLS_POLICY_H

#include <openssl/ssl.h>

#include <string>

#include "VEKTlsOption.h"

// Sets the four as the options say. Returns false, with the reason in `error`, where one of them
// is not known or empty: the library itself passes over unknown names among known ones.
bool VEK_TLS_SET_POLICY(SSL_CTX* context, const VEK_ST_TLS_OPTIONS& options, std::string& error);

#endif
