// What test_http2_server answers: 200 with the request's body, or one of a fixed size, and its
// "content-type"; at once or, with a delay, later.
#ifndef ECHO_SERVICE_H
#define ECHO_SERVICE_H

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "CVEKEventLoops.h"
#include "CVEKHttpResponder.h"
#include "ServerOptions.h"

class EchoService {
  public:
    // Both must stay.
    EchoService(const ServerOptions& options, CVEKEventLoops& loops);

    // Answers a request; on the thread of its connection's loop.
    void Serve(VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder responder);
    // How many were refused with 429.
    uint64_t GetRefusals() const { return refusals_; }

  private:
    VEK_ST_HTTP_RESPONSE MakeAnswer(VEK_ST_HTTP_REQUEST& request) const;
    void SendLater(CVEKHttpResponder responder, VEK_ST_HTTP_RESPONSE answer);
    CVEKEventLoop& GetCurrentLoop();

    const ServerOptions& options_;
    CVEKEventLoops& loops_;
    const std::shared_ptr<const std::string> fixedBody_;  // null: echo
    std::atomic<uint64_t> refusals_{0};
};

#endif
