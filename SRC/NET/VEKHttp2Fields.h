// Header fields that keep their memory: a list that is cleared and filled again and again hands its
// fields to a list of spare ones and takes them from there.
#ifndef VEK_HTTP2_FIELDS_H
#define VEK_HTTP2_FIELDS_H

#include "defHttp2.h"

// Empties `header`.
void VEK_HTTP2_CLEAR_FIELDS(VEK_HTTP2_HEADER& header, VEK_HTTP2_HEADER& spare);

// Appends a copy of the field to `header`.
void VEK_HTTP2_ADD_FIELD(VEK_HTTP2_HEADER& header, VEK_HTTP2_HEADER& spare, const char* name,
                         const char* value);

#endif
