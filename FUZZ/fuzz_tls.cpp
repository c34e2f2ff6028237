// Both ends' set-up with TLS, and between them somebody who hands on what they say in pieces of any
// size: it succeeds then. Where a byte was changed on the way, it ends somehow.
#include "../TEST/TlsSupport.h"
#include "CVEKHttp2Setup.h"
#include "FuzzPeer.h"

namespace {

// A connection's end, and the descriptor from which its bytes are handed on.
struct End {
    End() { Require(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds) == 0); }
    ~End() { close(fds[1]); }
    void Advance() { result = result == VEK_HTTP2_STEP_WAIT ? setup.AdvanceTransport() : result; }
    // Returns whether there was something.
    bool HandOn(const End& to, size_t room, bool isChanged) const {
        char bytes[4096];
        const ssize_t size = recv(fds[1], bytes, std::min(room, sizeof bytes), 0);
        if (size <= 0) { return false; }
        bytes[size - 1] ^= isChanged ? 1 : 0;
        return send(to.fds[1], bytes, static_cast<size_t>(size), MSG_NOSIGNAL) > 0;
    }
    int fds[2];
    CVEKSocketNew transport;
    CVEKHttp2Setup setup{transport, "fuzz"};
    int result = VEK_HTTP2_STEP_WAIT;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const CVEKTlsContext CLIENT = tls::Client();
    static const CVEKTlsContext SERVERS[] = {tls::Server("id=ec max=771"), tls::Server("id=ec")};
    FuzzPeer script(data, size);
    End client, server;
    Require(client.setup.SetPeer("localhost", "localhost", 443));
    Require(client.setup.StartConnected(client.fds[0], CLIENT.GetContext()));
    Require(server.setup.StartAccepted(server.fds[0], SERVERS[script.Take() & 1].GetContext()));
    bool hasChanged = false;
    // A step says whose bytes go on, how many, and (the largest number) that the last one changes.
    while (!script.IsAtEnd()) {
        client.Advance(), server.Advance();
        const uint8_t step = script.Take(), count = step & 0x7f;
        const End& from = step == count ? client : server;
        hasChanged |= from.HandOn(step == count ? server : client, count + 1, count == 0x7f) && count == 0x7f;
    }
    for (bool isBusy = true; isBusy;) {
        client.Advance(), server.Advance();
        isBusy = client.HandOn(server, SIZE_MAX, false);
        isBusy |= server.HandOn(client, SIZE_MAX, false);
    }
    Require(hasChanged || (client.result == VEK_HTTP2_STEP_DONE && server.result == VEK_HTTP2_STEP_DONE));
    return 0;
}
