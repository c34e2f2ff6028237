// Answers every request with its own body, in clear text on port 8080.
#include <cstdio>
#include "CVEKHttpServer.h"

int main() {
    CVEKEventLoops loops;
    CVEKHttpServer server(loops);
    server.SetHandler([](VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder responder) {
        VEK_ST_HTTP_RESPONSE response;
        response.body_ = std::move(request.body_);
        responder.Send(std::move(response));
    });
    VEK_ST_HTTP_LISTENER listener;
    listener.port_ = 8080;
    const VEK_ST_HTTP_FAILURE failure = server.Listen(listener);
    puts(failure ? failure.text_.c_str() : "Ctrl-C ends it");
    return failure || loops.WaitForSignal() == 0 ? 1 : 0;
}
