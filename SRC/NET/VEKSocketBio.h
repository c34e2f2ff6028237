// The write side of a TLS session's socket, without SIGPIPE.
#ifndef VEK_SOCKET_BIO_H
#define VEK_SOCKET_BIO_H

#include <openssl/bio.h>

// A BIO that writes to the descriptor, which stays the caller's, as the library's own socket BIO
// does except that a peer that has gone away raises no signal. Null when memory ran out; else the
// caller owns it.
BIO* VEK_NEW_SOCKET_BIO(int fd);

#endif
