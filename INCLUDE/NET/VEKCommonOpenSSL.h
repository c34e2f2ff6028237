// TLS for the socket class: one fixed policy (TLS 1.0 to 1.2, ECDHE ciphers with AES or ChaCha20,
// HTTP/2 as the only application protocol) for clients and servers, and a few helpers.
//
// Call VEK_SSL_INIT once at start-up, before any context is made, from one thread; a program with
// several TLS threads calls VEK_SSL_THREAD_SETUP as well. At exit: VEK_SSL_THREAD_CLEANUP, then
// VEK_SSL_CLEANUP.
#ifndef VEK_COMMON_OPENSSL_H
#define VEK_COMMON_OPENSSL_H

#include <openssl/ssl.h>

#include <cstddef>
#include <string>

#include "VEKExport.h"

// The application protocol, "h2" (RFC 9113, section 3.2).
VEK_API extern const char* G_VEK_OPENSSL_ALPN_INDICATOR;
// The same in ALPN's wire form: a length byte and the two characters.
VEK_API extern unsigned char ALPN_PROTOS[3];
// The ciphers offered and accepted, best first.
VEK_API extern const char* VEK_DEFAULT_CIPHER_LIST;

VEK_API extern int G_VEK_OPENSSL_INIT;                  // 1: VEK_SSL_INIT has run
VEK_API extern int G_VEK_OPEESSL_THREAD_INIT;           // 1: VEK_SSL_THREAD_SETUP has run
VEK_API extern SSL_CTX* G_VEK_OPENSSL_DEFAULT_SSL_CTX;  // the last server context made, until freed

// Initialises the TLS library and logs its version. Safe to repeat; not locked.
VEK_API void VEK_SSL_INIT();
// Counterpart of VEK_SSL_INIT at exit. The library releases its own memory when the process ends.
VEK_API void VEK_SSL_CLEANUP();

// The library locks itself; these keep the places where a threaded program sets up and clears.
VEK_API void VEK_SSL_THREAD_SETUP();
VEK_API void VEK_SSL_THREAD_CLEANUP();
// For a thread that used TLS, before it ends.
VEK_API void VEK_SSL_THREAD_CLEAR();

// Limits a context to the protocol versions min to max (wire numbers: 769 is TLS 1.0, 770 1.1,
// 771 1.2, 772 1.3). Always returns 0.
VEK_API int VEK_SSL_CTX_set_proto_versions(SSL_CTX* ctx, int min, int max);

// Makes a client context. keyFile (PEM private key) and certFile (PEM chain) may be null. The peer
// is verified against the system's authorities; a self-signed certificate is accepted, and every
// certificate when the environment variable VEK_CERT_VERIFY_IGNORE is "TRUE" or "true".
// caFile and caPath must both be null: any value of theirs is refused.
// Returns the context, which the caller frees with SSL_CTX_free, or null after an Error line.
VEK_API SSL_CTX* VEK_SSL_CREATE_CLIENT_CTX(const char* keyFile, const char* certFile,
                                           const char* caFile);
VEK_API SSL_CTX* VEK_SSL_CREATE_CLIENT_CTX(const char* keyFile, const char* certFile,
                                           const char* caFile, const char* caPath);

// Makes a server context from keyFile and certFile (PEM, both required) and verifies clients that
// show a certificate against caFile, or the system's authorities when it is null. The newest
// context also serves clients that name a server (SNI), so make contexts before serving; once it is
// freed, each context serves its own. Do not free it while another thread shakes hands with such a
// client.
// Returns the context, which the caller frees with SSL_CTX_free, or null after an Error line.
VEK_API SSL_CTX* VEK_SSL_CREATE_SERVER_CTX(const char* keyFile, const char* certFile,
                                           const char* caFile);

// After a handshake: returns 1 when both ends agreed on "h2", else 0 after an Error line, which
// names the connection when `name` is not null.
VEK_API int VEK_SSL_SELECT_ALPN(SSL* ssl, const char* name);

// Text of the calling thread's first queued TLS error, which stays in the queue.
VEK_API std::string VEK_SSL_ERROR_TEXT();

// Reads the expiry date of the first certificate in a PEM file into `out` as CCYYMMDDhhmmss and a
// NUL (15 bytes). Returns 1, or 0 after a line on standard error or an Error line. A day of the
// month below 10 shifts the fields behind it: meant.
VEK_API int VEK_SSL_GET_CERT_EXPIRE_DATE(const char* certFile, char* out);
// Its two steps: the printed form of `time` into `buf` of `len` bytes (1, or 0 after an Error
// line), and the conversion of that form into `out` (15 bytes).
VEK_API int CONV_ASN1TIME(const ASN1_TIME* time, char* buf, size_t len);
VEK_API void CONV_STRTIME(const char* in, char* out);

#endif
