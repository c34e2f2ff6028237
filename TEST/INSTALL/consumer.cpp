// A program of the three libraries as another project has it: a server and a client of vekhttp, a
// connection of veknet and a date of vekbase.
#include <vek/CVEKDate.h>
#include <vek/CVEKHttp2Request.h>
#include <vek/CVEKHttpClient.h>
#include <vek/CVEKHttpServer.h>
#include <vek/VEKServiceLog.h>
#include <vek/VEKVersion.h>

#include <cstdio>
#include <future>
#include <string>

int main() {
    VEK_OPEN_SERVICE_LOG(VEK_LOG_ALL);
    CVEKEventLoops loops(1);
    CVEKHttpServer server(loops);
    server.SetHandler([](VEK_ST_HTTP_REQUEST&, CVEKHttpResponder responder) { responder.Send({}); });
    VEK_ST_HTTP_LISTENER listener;
    listener.address_ = "127.0.0.1";
    if (server.Listen(listener)) { return 1; }
    CVEKHttpClient client(loops);
    if (client.AddTarget("http://127.0.0.1:" + std::to_string(server.GetPort()))) { return 2; }
    const int status = client.Send({}).get().status_;
    const VEK_ST_HTTP2_OPTIONS options{};
    CVEKHttp2Request connection;
    const bool isMade = connection.Initialize("consumer", &options);
    printf("%s: %d, %s\n", VEK_VERSION, status, CVEKDate()());
    return isMade && status == 200 ? 0 : 3;
}
