// Detail-log lines that both ends of a connection write.
#ifndef VEK_HTTP2_LOG_H
#define VEK_HTTP2_LOG_H

#include <nghttp2/nghttp2.h>

#include "CVEKSocketNew.h"
#include "VEKTlsConnection.h"
#include "defHttp2.h"

// Logs a connection's effective options. `defaultWord` stands in two of the lines: each end spells
// it in its own way.
void VEK_HTTP2_LOG_OPTIONS(const char* name, const VEK_ST_HTTP2_OPTIONS& options,
                           const char* defaultWord);

// Logs what TLS has agreed, and how long the set-up took; in clear text nothing.
void VEK_HTTP2_LOG_TLS(const char* name, const VEK_ST_TLS_INFO& info);

// Logs a received SETTINGS frame, each entry behind `lead`.
void VEK_HTTP2_LOG_SETTINGS(const char* name, const nghttp2_settings& settings, const char* lead);

// Logs header fields.
void VEK_HTTP2_LOG_HEADERS(const VEK_HTTP2_HEADER& fields);

#endif
