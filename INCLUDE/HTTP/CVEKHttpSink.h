// CVEKHttpSink: takes what becomes of requests, for programs that send very many: one object serves
// any number of them, where a handler is an object of each.
//
// Called on the thread of a request's loop, as handlers are: it must not wait, throw or end the
// client. It must stay until the last of its requests has ended.
#ifndef CVEK_HTTP_SINK_H
#define CVEK_HTTP_SINK_H

#include <cstdint>

#include "VEKExport.h"

struct VEK_ST_HTTP_RESPONSE;  // VEKHttpMessage.h

class VEK_API CVEKHttpSink {
  public:
    virtual ~CVEKHttpSink() = default;
    // The request that was sent with this tag has ended, with a response or without; once for each,
    // as CVEKHttpClient::Handler has it.
    virtual void OnResponse(uint64_t tag, VEK_ST_HTTP_RESPONSE& response) = 0;
};

#endif
