// CVEKHttpClient: an HTTP/2 client on event loops: a group of connections to one or more targets.
// Connections are made as requests need them, on all loops in turn, and replaced when they end: by
// a GOAWAY, for want of stream numbers, or broken. Requests that the peer has not worked on, or
// that may be repeated, are then sent again by themselves.
//
// Make it, add targets, Send. Operations are for any thread, but for AddTarget, which comes before
// the first Send. The loops must live longer.
//
// Making a client, AddTarget and its end wait until each of the loops has come by; see
// CVEKEventLoop.h for what that means on a loop's own thread.
#ifndef CVEK_HTTP_CLIENT_H
#define CVEK_HTTP_CLIENT_H

#include <functional>
#include <future>
#include <memory>
#include <string>

#include "CVEKEventLoop.h"
#include "CVEKEventLoops.h"
#include "CVEKHttpCall.h"
#include "CVEKHttpSink.h"
#include "VEKExport.h"
#include "VEKHttpClientOption.h"

class CVEKHttpClientCore;
class CVEKHttpPrepared;

// A request that was prepared; any number of threads may share it.
using VEK_HTTP_PREPARED = std::shared_ptr<const CVEKHttpPrepared>;

class VEK_API CVEKHttpClient {
  public:
    // Gets the response, or why there is none (failure_), once for each request, on the thread of
    // its loop. The response may be moved from; what is left of it is gone afterwards. Handlers
    // must not wait, throw, or end the client, nor send again for ever where the reason is CLOSED.
    using Handler = std::function<void(VEK_ST_HTTP_RESPONSE& response)>;

    explicit CVEKHttpClient(CVEKEventLoops& loops, VEK_ST_HTTP_CLIENT_OPTIONS options = {});
    explicit CVEKHttpClient(CVEKEventLoop& loop, VEK_ST_HTTP_CLIENT_OPTIONS options = {});
    // Ends all requests that are not over with CLOSED, and the connections. Not from a handler or
    // hook of its own.
    ~CVEKHttpClient();
    CVEKHttpClient(const CVEKHttpClient&) = delete;
    CVEKHttpClient& operator=(const CVEKHttpClient&) = delete;

    // Adds a target; the first one has index 0. Returns what is wrong with it: INVALID or TLS.
    VEK_ST_HTTP_FAILURE AddTarget(const VEK_ST_HTTP_TARGET& target);
    // The same from "http://host:port" or "https://host:port"; ports 80 and 443 may be left out.
    // TLS is as VEK_ST_TLS_OPTIONS has it.
    VEK_ST_HTTP_FAILURE AddTarget(const std::string& url);

    // Makes all connections to all targets now, rather than as requests need them.
    void Connect();

    // Sends a request. From a thread of the client's loops it goes to a connection of that loop,
    // where the target has any there (connections_ may be fewer than loops).
    CVEKHttpCall Send(VEK_ST_HTTP_REQUEST request, Handler handler,
                      VEK_ST_HTTP_CALL_OPTIONS options = {});
    // The same for one who waits, not on a thread of the client's loops.
    std::future<VEK_ST_HTTP_RESPONSE> Send(VEK_ST_HTTP_REQUEST request,
                                           VEK_ST_HTTP_CALL_OPTIONS options = {});

    // For requests that are sent again and again: what is the same for all of them is done once,
    // behind AddTarget, and nothing is copied when they are sent. Its body must not be produced.
    // The client may go first.
    VEK_HTTP_PREPARED Prepare(VEK_ST_HTTP_REQUEST request, VEK_ST_HTTP_CALL_OPTIONS options = {});
    // Sends a request that this client has prepared. The sink is told of its end, with the tag.
    CVEKHttpCall Send(const VEK_HTTP_PREPARED& request, CVEKHttpSink& sink, uint64_t tag);

    VEK_ST_HTTP_CLIENT_COUNTERS GetCounters() const;
    // What TCP has carried so far for the connections that there are now on this thread's loop, as
    // VEK_ST_HTTP_CONNECTION has it. Zeros on a thread that is none of the client's loops.
    void CountBytes(uint64_t& sent, uint64_t& received) const;

  private:
    std::shared_ptr<CVEKHttpClientCore> core_;
};

#endif
