// The set-up in clear text, both sides of the upgrade and the choice by the first bytes, with any
// bytes in any pieces: what comes of them does not depend on the pieces.
#include <tuple>

#include "CVEKHttp2Setup.h"
#include "FuzzPeer.h"
#include "VEKHttp2Field.h"

namespace {

enum { CLIENT, SERVER, DETECT };

// Whether it was set up, a request came with the upgrade, its settings, fields and body, and what is
// left for the session.
using Outcome = std::tuple<bool, bool, std::string, VEK_HTTP2_HEADER, std::string, std::string>;

int Advance(CVEKHttp2Setup& setup, int mode) {
    if (setup.GetServerUpgrade() == nullptr && setup.GetClientUpgrade() == nullptr) {
        VEK_ST_HTTP2_OPTIONS options;
        VEK_HTTP2_SET_DEFAULTS(options);
        const int result = setup.AdvanceTransport();
        if (result != VEK_HTTP2_STEP_DONE || (mode == DETECT && !setup.IsUpgradeExpected())) { return result; }
        mode == CLIENT ? Require(setup.StartClientUpgrade("host", options)) : setup.StartServerUpgrade();
    }
    return setup.AdvanceUpgrade();
}

Outcome SetUp(FuzzPeer& peer, int mode, const std::vector<std::string>& pieces) {
    CVEKSocketNew transport;
    CVEKHttp2Setup setup(transport, "fuzz");
    const int fd = peer.MakePair();
    Require(mode == DETECT   ? setup.StartDetect(fd)
            : mode == SERVER ? setup.StartAccepted(fd, nullptr)
                             : setup.StartConnected(fd, nullptr));
    int result = Advance(setup, mode);
    for (const std::string& piece : pieces) {
        peer.Send(piece);
        result = result == VEK_HTTP2_STEP_WAIT ? Advance(setup, mode) : result;
    }
    Require(peer.Step() == FuzzPeer::END);
    result = result == VEK_HTTP2_STEP_WAIT ? Advance(setup, mode) : result;
    Require(result != VEK_HTTP2_STEP_WAIT);
    if (result == VEK_HTTP2_STEP_FAILED) { return {}; }
    std::string rest(1 << 16, '\0');
    rest.resize(static_cast<size_t>(std::max<ssize_t>(recv(fd, rest.data(), rest.size(), 0), 0)));
    const CVEKHttp2ServerUpgrade* upgrade = setup.GetServerUpgrade();
    if (upgrade == nullptr) { return {true, false, "", {}, "", rest}; }
    return {true, upgrade->IsRequest(), upgrade->GetSettings(), upgrade->GetHeaders(), upgrade->GetBody(), rest};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzPeer peer(data, size);
    const int mode = peer.Take() % 3;
    std::vector<std::string> pieces;
    std::string whole;
    while (!peer.IsAtEnd()) { whole += pieces.emplace_back(peer.TakeText()); }
    const Outcome outcome = SetUp(peer, mode, pieces);
    // A head that begins with an empty line depends on what has come behind it.
    Require(outcome == SetUp(peer, mode, {whole}) || whole.compare(0, 4, "\r\n\r\n") == 0);
    return 0;
}
