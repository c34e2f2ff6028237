// Answers every request with a greeting, one connection after another: first_answer PORT
#include <vek/CVEKHttp2Response.h>
#include <vek/CVEKSocketNew.h>
#include <vek/VEKServiceLog.h>
#include <vek/VEKText.h>

#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>
#include <string>

// Serves until the peer has gone.
void Serve(CVEKHttp2Response& connection) {
    std::string text = "hello\n";
    VEK_ST_HTTP2_REQUEST_RECV request;
    int result = 0;
    while ((result = connection.Request(&request)) != VEK_HTTP2_RECEIVE_CLOSED) {
        if (result == VEK_HTTP2_RECEIVE_NONE) {
            continue;  // it has waited, 10 ms at most
        }
        VEK_ST_HTTP2_RESPONSE response;
        response.streamId_ = request.streamId_;
        VEK_COPY_TEXT(response.rs_, "200");
        response.hdr_.emplace_back("content-type", "text/plain");
        response.payload_.data_ = text.data();
        response.payload_.size_ = text.size();
        connection.Response(&response, true);  // copies all of it
    }
}

int main(int argc, char** argv) {
    const int listener = argc > 1 ? CVEKSocketNew::LISTEN(AF_INET, atoi(argv[1]), nullptr) : -1;
    if (listener < 0) {
        fprintf(stderr, "usage: %s PORT (a free one)\n", argv[0]);
        return 2;
    }
    VEK_OPEN_SERVICE_LOG(VEK_LOG_ERROR);
    VEK_HTTP2_INIT();
    for (;;) {
        char peer[VEK_SOCKET_IP_TEXT_SIZE] = "";
        const int fd = CVEKSocketNew::ACCEPT(listener, -1, peer, nullptr);
        if (fd <= 0) {
            return 1;
        }
        const VEK_ST_HTTP2_OPTIONS options;
        CVEKHttp2Response connection;
        if (connection.Initialize(peer, &options) &&
            connection.Accept(fd, peer, 0, nullptr, false)) {  // no TLS context: clear text
            Serve(connection);
        }
        printf("%s: %s\n", peer, connection.GetError().text_);
        fflush(stdout);
    }
}
