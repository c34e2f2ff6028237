// What HTTP/2 does not let a message say (RFC 9113, sections 8.2 and 8.3), for messages to send:
// the engine sends whatever it is given, and the peer would reset the stream.
#ifndef VEK_HTTP_FIELD_CHECK_H
#define VEK_HTTP_FIELD_CHECK_H

#include <string_view>

#include "VEKHttpMessage.h"

// The field is about a connection of HTTP/1.1 (RFC 9113, section 8.2.2). In lower case.
bool VEK_HTTP_IS_OF_CONNECTION(std::string_view name);

// What is wrong with header fields or trailers, or a request. Null: nothing.
const char* VEK_HTTP_FIND_FAULT(const CVEKHttpFields& fields);
const char* VEK_HTTP_FIND_FAULT(const VEK_ST_HTTP_REQUEST& request);

#endif
