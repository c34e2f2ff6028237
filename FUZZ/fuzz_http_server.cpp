// A server on a loop with any bytes of a client: whatever its handlers do with requests and bodies,
// each that was begun has an end, and nothing is left of the connection.
#include "CVEKHttpServerCore.h"
#include "FuzzLoop.h"

namespace {

class Server {
  public:
    explicit Server(FuzzPeer& peer) : mode_(peer.Take()), core_({loop_.GetCore()}, MakeOptions()) {
        core_.handler_ = [this](VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder responder) {
            TouchHead(request), Touch(request.body_.GetText());
            responders_.push_back(std::move(responder));
            Act(mode_ & 0x01);
        };
        if ((mode_ & 0x02) != 0) {
            core_.headHandler_ = [this](const auto& head, auto& responder) { return TakeHead(head, responder); };
        }
        core_.Take(peer.MakePair(), nullptr, "peer", "address");
        if ((mode_ & 0x08) != 0) { peer.Send(FuzzPeer::PREFACE); }
        Drive(loop_, peer, [this](int action) { Act(action); });
        responders_.clear();
        const VEK_ST_HTTP_SERVER_COUNTERS counters = core_.GetCounters();
        Require(counters.connections_ == 0 && counters.streams_ == 0 && live_ == 0);
    }

  private:
    VEK_ST_HTTP_SERVER_OPTIONS MakeOptions() {
        VEK_ST_HTTP_SERVER_OPTIONS options;
        options.settings_ = MakeSettings();
        options.streams_ = 4;
        options.unreadBytes_ = 400;
        options.resets_ = 10;
        options.controls_ = 20;
        options.isUpgradeRequestTaken_ = (mode_ & 0x04) != 0;
        options.observer_.onBegin_ = [this](const auto&) { ++live_; };
        options.observer_.onEnd_ = [this](const auto&) { --live_; };
        return options;
    }
    static void TouchHead(const VEK_ST_HTTP_REQUEST& request) {
        Touch(request.method_), Touch(request.path_), Touch(request.authority_), TouchFields(request.fields_);
    }
    // Bodies are collected, discarded, or taken in pieces, at once or later.
    std::optional<VEK_ST_HTTP_RECEIVER> TakeHead(const VEK_ST_HTTP_REQUEST& head, CVEKHttpResponder& responder) {
        TouchHead(head);
        const size_t way = head.path_.size() & 3;
        if (way == 1) { return {}; }
        responders_.push_back(std::move(responder));
        if (way == 2) { return {}; }
        const auto take = [this, way](std::string_view piece) { return Touch(piece), held_ += piece.size(), way == 0; };
        return VEK_ST_HTTP_RECEIVER{take, [this](const auto&, const auto&) { Act(2); }};
    }
    void Act(int action) {
        if (responders_.empty()) { return; }
        CVEKHttpResponder& responder = responders_.back();
        VEK_ST_HTTP_RESPONSE response;
        response.body_ = action == 1 ? CVEKHttpBody(std::string(300, 'a')) : MakeProducer(produced_);
        switch (action) {
            case 1:
            case 2: return void(responder.Send(std::move(response)));
            case 3: return responder.Resume(), responder.Consume(held_);
            case 4: return responder.SendInformational(103, {});
            case 5: return responder.Reset(8);
            case 6: return responders_.pop_back();
            case 7: return core_.Drain(std::chrono::seconds(1), {});
        }
    }

    const uint8_t mode_;
    CVEKEventLoop loop_;
    int live_ = 0, produced_ = 0;
    size_t held_ = 0;
    std::vector<CVEKHttpResponder> responders_;
    CVEKHttpServerCore core_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzPeer peer(data, size);
    return Server(peer), 0;
}
