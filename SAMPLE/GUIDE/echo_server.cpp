// Answers every request with its own body, in clear text: echo_server [PORT]
#include <vek/CVEKHttpServer.h>

#include <cstdio>
#include <cstdlib>

int main(int argc, char** argv) {
    CVEKEventLoops loops;
    CVEKHttpServer server(loops);
    server.SetHandler([](VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder responder) {
        VEK_ST_HTTP_RESPONSE response;
        response.body_ = std::move(request.body_);
        responder.Send(std::move(response));
    });
    VEK_ST_HTTP_LISTENER listener;
    listener.port_ = static_cast<uint16_t>(argc > 1 ? atoi(argv[1]) : 8080);
    const VEK_ST_HTTP_FAILURE failure = server.Listen(listener);
    puts(failure ? failure.text_.c_str() : "Ctrl-C ends it");
    return failure || loops.WaitForSignal() == 0 ? 1 : 0;
}
