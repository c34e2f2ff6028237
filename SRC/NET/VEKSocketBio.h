// The socket below a TLS session.
#ifndef VEK_SOCKET_BIO_H
#define VEK_SOCKET_BIO_H

#include <openssl/bio.h>

// A BIO over the descriptor, which stays the caller's. It works as the library's own socket BIO
// does, except that writing to a peer that has gone away raises no signal, and that *isDrained
// tells whether the last read has emptied the socket. Null when memory ran out; else the caller
// owns it.
BIO* VEK_NEW_SOCKET_BIO(int fd, bool* isDrained);

#endif
