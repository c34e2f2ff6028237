// A server on a loop with any bytes of a client: whatever its handlers do with requests and bodies,
// each that was begun has an end, and nothing is left of the connection.
#include <vector>

#include "CVEKHttpServerCore.h"
#include "FuzzLoop.h"

namespace {

class Server {
  public:
    explicit Server(FuzzPeer& peer) : peer_(peer), mode_(peer.Take()), core_({loop_.GetCore()}, Options()) {
        core_.handler_ = [this](VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder responder) {
            Touch(request.body_.GetText()), TouchHead(request);
            responders_.push_back(std::move(responder));
            if ((mode_ & 0x01) != 0) { Act(1); }
        };
        if ((mode_ & 0x02) != 0) {
            core_.headHandler_ = [this](const auto& head, auto& responder) { return TakeHead(head, responder); };
        }
        core_.Take(peer.MakePair(), nullptr, "peer", "address");
        if ((mode_ & 0x08) != 0) { peer.Send(FuzzPeer::PREFACE); }
    }
    void Run() {
        Drive(loop_, peer_, [this](int action) { Act(action < 0 ? 0 : action & 7); });
        responders_.clear();
        const VEK_ST_HTTP_SERVER_COUNTERS counters = core_.GetCounters();
        Require(counters.connections_ == 0 && counters.streams_ == 0 && begun_ == ended_ && up_ == down_);
    }

  private:
    VEK_ST_HTTP_SERVER_OPTIONS Options() {
        VEK_ST_HTTP_SERVER_OPTIONS options;
        options.streams_ = 4;
        options.settings_.bodyBytes_ = 64;
        options.settings_.headerBytes_ = 500;
        options.settings_.headerFields_ = 8;
        options.settings_.streamWindow_ = 100;
        options.unreadBytes_ = 400;
        options.resets_ = 10;
        options.controls_ = 20;
        options.isUpgradeRequestTaken_ = (mode_ & 0x04) != 0;
        options.observer_.onUp_ = [this](const auto&) { ++up_; };
        options.observer_.onDown_ = [this](const auto& connection, const auto&) {
            down_ += connection.up_ == Time() ? 0 : 1;
        };
        options.observer_.onBegin_ = [this](const auto&) { ++begun_; };
        options.observer_.onEnd_ = [this](const auto&) { ++ended_; };
        return options;
    }
    static void TouchHead(const VEK_ST_HTTP_REQUEST& request) {
        Touch(request.method_), Touch(request.path_), Touch(request.authority_);
        TouchFields(request.fields_);
    }
    // Bodies are collected, discarded, or taken in pieces, at once or later.
    std::optional<VEK_ST_HTTP_RECEIVER> TakeHead(const VEK_ST_HTTP_REQUEST& head, CVEKHttpResponder& responder) {
        TouchHead(head);
        const size_t way = head.path_.size() & 3;
        if (way == 1) { return {}; }
        responders_.push_back(std::move(responder));
        if (way == 2) { return {}; }
        VEK_ST_HTTP_RECEIVER receiver;
        receiver.onPiece_ = [this, way](std::string_view piece) {
            return Touch(piece), held_ += piece.size(), way == 0;
        };
        receiver.onEnd_ = [this](const auto&, const auto&) { Act(2); };
        return receiver;
    }
    void Act(int action) {
        if (responders_.empty()) { return; }
        CVEKHttpResponder& responder = responders_.back();
        VEK_ST_HTTP_RESPONSE response;
        switch (action) {
            case 1: response.body_ = std::string(300, 'a'); break;
            case 2: response.body_ = MakeProducer(produced_); break;
            case 3: responder.Resume(), responder.Consume(held_); return;
            case 4: responder.SendInformational(103, {}); return;
            case 5: responder.Reset(8); return;
            case 6: responders_.pop_back(); return;
            case 7: core_.Drain(std::chrono::seconds(1), {}); return;
            default: return;
        }
        responder.Send(std::move(response));
    }

    using Time = std::chrono::steady_clock::time_point;
    FuzzPeer& peer_;
    const uint8_t mode_;
    CVEKEventLoop loop_;
    int up_ = 0, down_ = 0, begun_ = 0, ended_ = 0, produced_ = 0;
    size_t held_ = 0;
    std::vector<CVEKHttpResponder> responders_;
    CVEKHttpServerCore core_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzPeer peer(data, size);
    Server(peer).Run();
    return 0;
}
