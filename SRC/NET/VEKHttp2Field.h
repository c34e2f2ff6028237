// Header fields as the engine wants them, and options with their defaults.
#ifndef VEK_HTTP2_FIELD_H
#define VEK_HTTP2_FIELD_H

#include <nghttp2/nghttp2.h>

#include <cstddef>
#include <string_view>

#include "VEKExport.h"
#include "defHttp2.h"

// A field for the engine, which refers to the texts and does not copy them: they must stay as they
// are until the frame has been serialised.
VEK_API nghttp2_nv VEK_HTTP2_FIELD(std::string_view name, std::string_view value);

// Fills fields[count] and on with the header's, as long as `count` is below VEK_HTTP2_MAX_HEADERS.
// Returns the number of fields; `rest` gets the index of the first one left out, or the header's
// size.
int VEK_HTTP2_FILL_FIELDS(nghttp2_nv* fields, int count, const VEK_HTTP2_HEADER& header,
                          size_t& rest);

// Puts the field into header[count], over an old one that is kept there for its memory, or behind
// the last. Returns count + 1.
size_t VEK_HTTP2_PUT_FIELD(VEK_HTTP2_HEADER& header, size_t count, std::string_view name,
                           std::string_view value);

// Empties a list of fields whose memory is more than is worth keeping for the next ones.
void VEK_HTTP2_BOUND_FIELDS(VEK_HTTP2_HEADER& header);

// Replaces the zeros of the first five options and the response timeout by their defaults.
void VEK_HTTP2_SET_DEFAULTS(VEK_ST_HTTP2_OPTIONS& options);

#endif
