// Asks a server for / on one connection: first_request HOST PORT [CA_FILE]
// With a file of authorities over TLS, else in clear text with prior knowledge.
#include <vek/CVEKHttp2Request.h>
#include <vek/CVEKTlsContext.h>
#include <vek/VEKServiceLog.h>
#include <vek/VEKText.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: %s HOST PORT [CA_FILE]\n", argv[0]);
        return 2;
    }
    VEK_OPEN_SERVICE_LOG(VEK_LOG_ERROR);  // to standard output
    VEK_HTTP2_INIT();

    CVEKTlsContext context;  // owns none yet: clear text
    if (argc > 3) {
        VEK_ST_TLS_OPTIONS tls;
        tls.caFile_ = argv[3];
        std::string error;
        if (!context.CreateClient(tls, error)) {
            fprintf(stderr, "%s\n", error.c_str());
            return 1;
        }
    }

    VEK_ST_HTTP2_OPTIONS options;  // zeros stand for defaults
    options.nMaxPayloadSize_ = 65536;
    options.nTimeout_ = 5;
    CVEKHttp2Request connection;
    if (!connection.Initialize("first", &options) || !connection.SetPeerName(argv[1]) ||
        !connection.Connect(argv[1], atoi(argv[2]), context.GetContext(), false)) {
        fprintf(stderr, "%s\n", connection.GetError().text_);
        return 1;
    }

    VEK_ST_HTTP2_REQUEST request;
    VEK_COPY_TEXT(request.method_, "GET");
    VEK_COPY_TEXT(request.path_, "/");
    request.hdr_.emplace_back("accept", "text/plain");
    std::vector<char> body(options.nMaxPayloadSize_);  // the caller's, as large as any response
    VEK_ST_HTTP2_RESPONSE response;
    response.payload_.data_ = body.data();
    if (!connection.Request(&request, &response)) {
        fprintf(stderr, "%s\n", connection.GetError().text_);
        return 1;
    }
    printf("%s, %zu bytes\n", response.rs_, response.payload_.size_);
    fwrite(body.data(), 1, response.payload_.size_, stdout);
    return 0;  // the connection says GOAWAY and closes
}
