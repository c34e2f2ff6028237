// A client on a loop with any bytes of a server, with prior knowledge or the upgrade: each request
// ends once, whatever comes and whatever is done with it meanwhile.
#include <vector>

#include "CVEKHttpClient.h"
#include "FuzzLoop.h"

namespace {

class Client {
  public:
    explicit Client(FuzzPeer& peer)
        : peer_(peer), mode_(peer.Take()), client_(std::make_unique<CVEKHttpClient>(loop_, Options())) {
        VEK_ST_HTTP_TARGET target;
        target.unixPath_ = FuzzPeer::GetPath();
        target.authority_ = "host";
        target.isUpgrade_ = (mode_ & 0x01) != 0;
        Require(!client_->AddTarget(target));
    }
    void Run() {
        loop_.Post([this] { Act(1), Act(2), Act(3); });
        Drive(loop_, peer_, [this](int action) {
            if (peer_.Accept() && (mode_ & 0x02) != 0) { peer_.Send(FuzzPeer::SETTINGS); }
            Act(action < 0 ? 0 : action & 7);
        });
        client_.reset();
        Require(ended_ == calls_.size());
    }

  private:
    VEK_ST_HTTP_CLIENT_OPTIONS Options() const {
        VEK_ST_HTTP_CLIENT_OPTIONS options;
        options.streams_ = 4;
        options.requests_ = (mode_ & 0x04) != 0 ? 5 : 0;
        options.attempts_ = (mode_ & 0x08) != 0 ? 1 : 3;
        options.waiting_ = 6;
        options.settings_.bodyBytes_ = 64;
        options.settings_.headerBytes_ = 500;
        options.settings_.headerFields_ = 8;
        options.settings_.streamWindow_ = 100;
        return options;
    }
    void Send(VEK_ST_HTTP_REQUEST request, VEK_ST_HTTP_CALL_OPTIONS options) {
        options.isRepeatable_ = (mode_ & 0x10) != 0;
        options.onInformational_ = [](int, const CVEKHttpFields& fields) { TouchFields(fields); };
        options.onHead_ = [](const VEK_ST_HTTP_RESPONSE& head) { TouchFields(head.fields_); };
        const size_t index = calls_.size();
        over_.push_back(false);
        calls_.emplace_back();
        CVEKHttpCall call = client_->Send(
            std::move(request),
            [this, index](VEK_ST_HTTP_RESPONSE& response) {
                Require(!over_[index]);
                over_[index] = true, ++ended_;
                TouchFields(response.fields_), TouchFields(response.trailers_), Touch(response.body_.GetText());
            },
            std::move(options));
        calls_[index] = std::move(call);
    }
    void Act(int action) {
        VEK_ST_HTTP_REQUEST request;
        VEK_ST_HTTP_CALL_OPTIONS options;
        switch (action) {
            case 1: break;
            case 2: request.method_ = "POST", request.body_ = std::string(200, 'a'); break;
            case 3:
                options.onPiece_ = [this](std::string_view piece) { return Touch(piece), ++produced_ % 2 == 0; };
                request.body_ = MakeProducer(produced_);
                break;
            case 4: options.isContentDropped_ = true; break;
            case 5: calls_[static_cast<size_t>(peer_.Take()) % calls_.size()].Cancel(); return;
            case 6: calls_.back().Resume(), calls_.back().Consume(50); return;
            case 7: calls_.front().Resume(), calls_.front().Consume(9); return;
            default: return;
        }
        Send(std::move(request), std::move(options));
    }

    FuzzPeer& peer_;
    const uint8_t mode_;
    CVEKEventLoop loop_;
    std::unique_ptr<CVEKHttpClient> client_;
    std::vector<CVEKHttpCall> calls_;
    std::vector<bool> over_;
    size_t ended_ = 0;
    int produced_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzPeer peer(data, size);
    Client(peer).Run();
    return 0;
}
