// A client on a loop with any bytes of a server, with prior knowledge or the upgrade: each request
// ends once, whatever comes and whatever is done with it meanwhile.
#include "CVEKHttpClient.h"
#include "FuzzLoop.h"

namespace {

class Client {
  public:
    explicit Client(FuzzPeer& peer) : peer_(peer), mode_(peer.Take()) {
        VEK_ST_HTTP_TARGET target;
        target.unixPath_ = FuzzPeer::GetPath();
        target.authority_ = "host";
        target.isUpgrade_ = (mode_ & 0x01) != 0;
        Require(!client_->AddTarget(target));
        loop_.Post([this] { Act(1), Act(2), Act(3); });
        Drive(loop_, peer_, [this](int action) {
            if (peer_.Accept() && (mode_ & 0x02) != 0) { peer_.Send(FuzzPeer::SETTINGS); }
            Act(action);
        });
        client_.reset();
        Require(std::count(ends_.begin(), ends_.end(), 1) == static_cast<long>(calls_.size()));
    }

  private:
    VEK_ST_HTTP_CLIENT_OPTIONS MakeOptions() const {
        VEK_ST_HTTP_CLIENT_OPTIONS options;
        options.settings_ = MakeSettings();
        options.streams_ = 4;
        options.requests_ = (mode_ & 0x04) != 0 ? 5 : 0;
        options.attempts_ = (mode_ & 0x08) != 0 ? 1 : 3;
        options.waiting_ = 6;
        return options;
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

    FuzzPeer& peer_;
    const uint8_t mode_;
    CVEKEventLoop loop_;
    std::unique_ptr<CVEKHttpClient> client_ = std::make_unique<CVEKHttpClient>(loop_, MakeOptions());
    std::vector<CVEKHttpCall> calls_;
    std::vector<int> ends_;
    int produced_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzPeer peer(data, size);
    return Client(peer), 0;
}
