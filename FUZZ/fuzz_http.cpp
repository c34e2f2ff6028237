// A client or a server on a loop with any bytes of its peer, in clear text or by the upgrade: each
// request ends once, whatever comes and whatever is done with it meanwhile, and nothing is left over.
#include "CVEKHttpClient.h"
#include "CVEKHttpServerCore.h"
#include "FuzzPeer.h"

namespace {

class End {
  protected:
    explicit End(FuzzPeer& peer) : peer_(peer), mode_(peer.Take()) {}
    ~End() = default;

    static constexpr VEK_ST_HTTP_SETTINGS SETTINGS{500, 8, 64, 100, 100000, 16384, 4096};

    // A few turns for what is there, then one with each action until the peer has closed, and a few more.
    template <class ACT>
    void Drive(const ACT& act) {
        int turns = 0, rest = 4;
        const std::function<void()> turn = [&] {
            const int action = ++turns < 4 ? 0 : peer_.Step();
            action == FuzzPeer::END ? void(--rest) : act(action < 0 ? 0 : action & 7);
            rest == 0 ? loop_.Stop() : loop_.Post(turn);
        };
        loop_.Post(turn);
        loop_.Run();
    }
    // A body that goes on, ends, waits and fails in turn.
    VEK_HTTP_PRODUCER MakeProducer() {
        return [this](std::string& piece, size_t, CVEKHttpFields& trailers) {
            const auto result = static_cast<VEK_HTTP_PRODUCED>(++produced_ % 4);
            piece = result == VEK_HTTP_PRODUCED::LATER ? "" : "piece";
            if (result == VEK_HTTP_PRODUCED::END) { trailers.Add("a", "b"); }
            return result;
        };
    }

    FuzzPeer& peer_;
    const uint8_t mode_;
    CVEKEventLoop loop_;
    int produced_ = 0;
};

class Client : End {
  public:
    explicit Client(FuzzPeer& peer) : End(peer) {
        VEK_ST_HTTP_CLIENT_OPTIONS options;
        options.settings_ = SETTINGS;
        options.streams_ = 4;
        options.requests_ = (mode_ & 0x04) != 0 ? 5 : 0;
        options.attempts_ = (mode_ & 0x08) != 0 ? 1 : 3;
        options.waiting_ = 6;
        // cppcheck-suppress useInitializationList ; it wants the options above
        client_ = std::make_unique<CVEKHttpClient>(loop_, options);
        VEK_ST_HTTP_TARGET target;
        target.unixPath_ = FuzzPeer::GetPath();
        target.authority_ = "host";
        target.isUpgrade_ = (mode_ & 0x01) != 0;
        Require(!client_->AddTarget(target));
        loop_.Post([this] { Act(1), Act(2), Act(3); });
        Drive([this](int action) {
            if (peer_.Accept() && (mode_ & 0x02) != 0) { peer_.Send(FuzzPeer::SETTINGS); }
            Act(action);
        });
        client_.reset();
        Require(std::count(ends_.begin(), ends_.end(), 1) == static_cast<long>(calls_.size()));
    }

  private:
    void Act(int action) {
        VEK_ST_HTTP_REQUEST request;
        VEK_ST_HTTP_CALL_OPTIONS options;
        switch (action) {
            case 1: break;
            case 2: request.method_ = "POST", request.body_ = std::string(200, 'a'); break;
            case 3:
                options.onPiece_ = [this](std::string_view piece) { return Touch(piece), ++produced_ % 2 == 0; };
                request.body_ = MakeProducer();
                break;
            case 4: options.isContentDropped_ = true; break;
            case 5: return calls_[peer_.Take() % calls_.size()].Cancel();
            case 6: return calls_.back().Resume(), calls_.back().Consume(50);
            case 7: return calls_.front().Resume(), calls_.front().Consume(9);
            default: return;
        }
        options.isRepeatable_ = (mode_ & 0x10) != 0;
        options.onInformational_ = [](int, const CVEKHttpFields& fields) { TouchFields(fields); };
        options.onHead_ = [](const VEK_ST_HTTP_RESPONSE& head) { TouchFields(head.fields_); };
        ends_.push_back(0);
        const auto end = [this, index = calls_.size()](VEK_ST_HTTP_RESPONSE& response) {
            ++ends_[index];
            TouchFields(response.fields_), TouchFields(response.trailers_), Touch(response.body_.GetText());
        };
        calls_.push_back(client_->Send(std::move(request), end, std::move(options)));
    }

    std::unique_ptr<CVEKHttpClient> client_;
    std::vector<CVEKHttpCall> calls_;
    std::vector<int> ends_;
};

class Server : End {
  public:
    explicit Server(FuzzPeer& peer) : End(peer) {
        VEK_ST_HTTP_SERVER_OPTIONS options;
        options.settings_ = SETTINGS;
        options.streams_ = 4;
        options.unreadBytes_ = 400;
        options.resets_ = 10;
        options.controls_ = 20;
        options.isUpgradeRequestTaken_ = (mode_ & 0x04) != 0;
        options.observer_.onBegin_ = [this](const auto&) { ++live_; };
        options.observer_.onEnd_ = [this](const auto&) { --live_; };
        CVEKHttpServerCore core({loop_.GetCore()}, options);
        core.handler_ = [this](VEK_ST_HTTP_REQUEST& request, CVEKHttpResponder responder) {
            TouchFields(request.fields_), Touch(request.body_.GetText());
            responders_.push_back(std::move(responder));
            Act(mode_ & 0x01);
        };
        if ((mode_ & 0x02) != 0) {
            core.headHandler_ = [this](const auto& head, auto& responder) { return TakeHead(head, responder); };
        }
        core.Take(peer_.MakePair(), nullptr, "peer", "address");
        if ((mode_ & 0x08) != 0) { peer_.Send(FuzzPeer::PREFACE); }
        Drive([&](int action) { action == 7 ? core.Drain(std::chrono::seconds(1), {}) : Act(action); });
        responders_.clear();
        Require(core.GetCounters().connections_ == 0 && core.GetCounters().streams_ == 0 && live_ == 0);
    }

  private:
    // Bodies are collected, discarded, or taken in pieces, at once or later.
    std::optional<VEK_ST_HTTP_RECEIVER> TakeHead(const VEK_ST_HTTP_REQUEST& head, CVEKHttpResponder& responder) {
        Touch(head.method_), Touch(head.authority_), TouchFields(head.fields_);
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
        response.body_ = action == 1 ? CVEKHttpBody(std::string(300, 'a')) : MakeProducer();
        switch (action) {
            case 1:
            case 2: return void(responder.Send(std::move(response)));
            case 3: return responder.Resume(), responder.Consume(held_);
            case 4: return responder.SendInformational(103, {});
            case 5: return responder.Reset(8);
            case 6: return responders_.pop_back();
        }
    }

    int live_ = 0;
    size_t held_ = 0;
    std::vector<CVEKHttpResponder> responders_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzPeer peer(data, size);
    return peer.Take() % 2 == 0 ? void(Client(peer)) : void(Server(peer)), 0;
}
