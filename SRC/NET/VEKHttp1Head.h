// What both sides of the HTTP/1.1 upgrade read and write over a socket that does not block.
#ifndef VEK_HTTP1_HEAD_H
#define VEK_HTTP1_HEAD_H

#include <cstddef>
#include <string>

#include "CVEKSocketNew.h"

// The longest head, its empty line included.
constexpr size_t VEK_HTTP1_HEAD_SIZE = 4096;

enum VEK_HTTP1_HEAD {
    VEK_HTTP1_HEAD_DONE,      // the empty line has come
    VEK_HTTP1_HEAD_WAIT,      // more is to come
    VEK_HTTP1_HEAD_CLOSED,    // the peer has closed before the end
    VEK_HTTP1_HEAD_BROKEN,    // the socket has failed, after a line
    VEK_HTTP1_HEAD_OVERFLOW,  // the head is too long, after a line
};

// Appends what has come of a head, which may come in pieces, up to and including its empty line;
// what follows stays in the socket. A head that begins with an empty line goes on behind it when
// more has come: meant.
VEK_HTTP1_HEAD VEK_READ_HTTP1_HEAD(CVEKSocketNew& transport, std::string& head);

// The head for a log line, which has it on lines of its own: none of them passes for another log
// line, as a backslash goes before those that do not begin with a letter.
std::string VEK_HTTP1_HEAD_TEXT(const std::string& head);

// Sends on from `sent`, which it moves. Returns a VEK_HTTP2_STEP_... value: WAIT for writability.
int VEK_SEND_HTTP1_TEXT(CVEKSocketNew& transport, const char* text, size_t size, size_t& sent);

#endif
