// The server connection with any bytes of a client, with prior knowledge, the upgrade or either: what
// it hands out holds until the connection is driven on, and may be answered in any way.
#include "CVEKHttp2Response.h"
#include "FuzzPeer.h"

namespace {

class Server {
  public:
    explicit Server(FuzzPeer& peer) : mode_(peer.Take()) {
        const VEK_ST_HTTP2_OPTIONS options = FuzzPeer::MakeOptions();
        conn_.Initialize("fuzz", &options);
        conn_.SetPolicy(peer.GetPolicy());
        const int fd = peer.MakePair();
        Require((mode_ & 3) == 0   ? conn_.StartAccept(fd, "peer", 1, isEvent_)
                : (mode_ & 3) == 1 ? conn_.StartAcceptAny(fd, "peer", 1, isEvent_)
                                   : conn_.StartAccept(fd, "peer", 1, nullptr, isEvent_));
        conn_.SetUserCallback([](int, int, int, void*, void* told) { ++*static_cast<int*>(told); }, &told_);
        int action = (mode_ & 8) != 0 ? peer.Send(FuzzPeer::PREFACE) : 0;
        for (; action != FuzzPeer::END; action = peer.Step()) {
            if (conn_.Advance() == VEK_HTTP2_STEP_DONE) { Act(action), Drive(action < 0); }
        }
        Drive(true);
    }

  private:
    void Answer(const char* status, size_t size, size_t fields) {
        VEK_ST_HTTP2_RESPONSE response;
        std::string body(size, 'b');
        std::copy(status, status + 4, response.rs_);
        response.payload_.data_ = body.data();
        response.payload_.size_ = size;
        response.hdr_.assign(fields, {"a", body});
        const VEK_ST_HTTP2_REQUEST_RECV request = requests_.empty() ? VEK_ST_HTTP2_REQUEST_RECV() : requests_.back();
        response.streamId_ = request.streamId_;
        conn_.Response(&response, request.ticket_, false);
        requests_.resize(requests_.size() - (requests_.empty() ? 0 : 1));
    }
    void Act(int action) {
        switch (action < 0 ? 0 : action & 7) {
            case 1: return Answer("200", 4, 1);
            case 2: return Answer("000", 0, 0);
            case 3: return Answer("404", static_cast<size_t>(action), static_cast<size_t>(action));
            case 4: return void(conn_.SendPing());
            case 5: return void(conn_.IsValid());
            case 6: return void(conn_.SendResponse());
        }
    }
    // By itself the connection waits for its socket: only where there is something.
    void Drive(bool hasCome) {
        if (isEvent_) { conn_.ProcEvent(); }
        VEK_ST_HTTP2_REQUEST_RECV request;
        while ((isEvent_ || hasCome) && conn_.Request(&request) == 1) {
            Require(request.size_ <= BODY_SIZE);
            TouchFields(*request.hdr_), Touch({request.data_, request.size_});
            requests_.push_back(request);
            hasCome = false;
        }
        while (isEvent_ && conn_.ProcEventPre() == 1) {}
    }

    const uint8_t mode_;
    const bool isEvent_ = (mode_ & 4) != 0;
    int told_ = 0;
    CVEKHttp2Response conn_;
    std::vector<VEK_ST_HTTP2_REQUEST_RECV> requests_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzPeer peer(data, size);
    return Server(peer), 0;
}
