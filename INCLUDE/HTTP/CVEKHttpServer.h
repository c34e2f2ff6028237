// CVEKHttpServer: an HTTP/2 server on event loops. It accepts connections and spreads them over all
// loops; each request goes to the handler, on the thread of its connection's loop, together with a
// responder that answers it at once or later.
//
// Make it, set the handler, Listen as often as wanted. Operations are for any thread, but for
// SetHandler and SetHeadHandler, which come before the first Listen. The loops must live longer.
//
// Making a server, Listen and its end wait until each of the loops has come by; see CVEKEventLoop.h
// for what that means on a loop's own thread.
#ifndef CVEK_HTTP_SERVER_H
#define CVEK_HTTP_SERVER_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "CVEKEventLoop.h"
#include "CVEKEventLoops.h"
#include "CVEKHttpResponder.h"
#include "VEKExport.h"
#include "VEKHttpServerOption.h"

class CVEKHttpServerCore;

class VEK_API CVEKHttpServer {
  public:
    // Gets a request that is complete: its body collected, and no larger than the limit. The
    // request may be moved from; what is left of it is gone when the handler returns. A handler
    // that throws has its request answered with 500; where it throws std::bad_alloc, the connection
    // ends, alone.
    using Handler = std::function<void(VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder responder)>;
    // Gets each request when its header fields have come, and says what becomes of the body:
    //   a receiver takes it piece by piece. Move the responder out and answer by it at any time;
    //   nothing, with the responder left alone: it is collected for the handler above;
    //   nothing, with the responder moved out: it is discarded.
    using HeadHandler = std::function<std::optional<VEK_ST_HTTP_RECEIVER>(
        const VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder& responder)>;

    explicit CVEKHttpServer(CVEKEventLoops& loops, VEK_ST_HTTP_SERVER_OPTIONS options = {});
    explicit CVEKHttpServer(CVEKEventLoop& loop, VEK_ST_HTTP_SERVER_OPTIONS options = {});
    // Stops at once. Not from a handler or hook of its own.
    ~CVEKHttpServer();
    CVEKHttpServer(const CVEKHttpServer&) = delete;
    CVEKHttpServer& operator=(const CVEKHttpServer&) = delete;

    // Without one, every request is answered with 404.
    void SetHandler(Handler handler);
    void SetHeadHandler(HeadHandler handler);

    // Opens a listener. Returns what has failed: INVALID (an address or option), SYSTEM (the port
    // is taken, say), TLS, or CLOSED behind Drain or Stop.
    VEK_ST_HTTP_FAILURE Listen(const VEK_ST_HTTP_LISTENER& listener);
    // The port of a listener, in the order of the calls of Listen that did not fail; 0 for a Unix
    // socket, and where there is none.
    uint16_t GetPort(size_t listener = 0) const;

    // Ends in good order: listeners are closed, every peer is told (GOAWAY), requests that have
    // come are still answered, and connections end when theirs are; after `limit` the rest ends as
    // it is. Returns at once; `done` runs on a loop's thread when the last connection has gone. A
    // further call changes no limit; its `done` runs then too, or at once when all is over.
    void Drain(std::chrono::milliseconds limit, std::function<void()> done = {});
    // The same, and waits for it. Not on a thread of the server's loops. Returns whether all
    // requests that had come were answered within the limit, but for those that their peers have
    // left.
    bool Stop(std::chrono::milliseconds limit);

    VEK_ST_HTTP_SERVER_COUNTERS GetCounters() const;

  private:
    std::shared_ptr<CVEKHttpServerCore> core_;
};

#endif
