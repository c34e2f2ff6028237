// The server connection with any bytes of a client, with prior knowledge, the upgrade or either: what
// it hands out holds until the connection is driven on, and may be answered in any way.
#include <vector>

#include "CVEKHttp2Response.h"
#include "FuzzPeer.h"

namespace {

constexpr size_t BODY_SIZE = 64;

class Server {
  public:
    explicit Server(FuzzPeer& peer) : peer_(peer), mode_(peer.Take()) {
        VEK_ST_HTTP2_OPTIONS options;
        options.nMaxConcurrentStream_ = 4;
        options.nMaxPayloadSize_ = BODY_SIZE;
        options.nMaxHeaderTableSize_ = 4096;  // a smaller one is to be acknowledged in the next block
        conn_.Initialize("fuzz", &options);
        conn_.SetPolicy(peer.GetPolicy());
        const int fd = peer.MakePair();
        const bool isEvent = IsEvent();
        switch (mode_ & 3) {
            case 0: Require(conn_.StartAccept(fd, "peer", 1, isEvent)); break;
            case 1: Require(conn_.StartAcceptAny(fd, "peer", 1, isEvent)); break;
            default: Require(conn_.StartAccept(fd, "peer", 1, nullptr, isEvent)); break;
        }
        conn_.SetUserCallback([](int, int, int, void*, void* args) { ++*static_cast<int*>(args); }, &told_);
        if ((mode_ & 8) != 0) { peer.Send(FuzzPeer::PREFACE); }
    }
    void Run() {
        for (int action = FuzzPeer::SENT; action != FuzzPeer::END;) {
            if (conn_.Advance() == VEK_HTTP2_STEP_DONE) { Act(action), Drive(action < 0); }
            action = peer_.Step();
        }
        Drive(true);
        conn_.Disconnect();
    }

  private:
    bool IsEvent() const { return (mode_ & 4) != 0; }
    void Answer(const char* status, size_t size, int fields) {
        VEK_ST_HTTP2_RESPONSE response;
        std::string body(size, 'b');
        std::copy(status, status + 4, response.rs_);
        response.payload_.data_ = body.data();
        response.payload_.size_ = size;
        response.hdr_.assign(static_cast<size_t>(fields), {"a", body});
        response.streamId_ = requests_.empty() ? 1 : requests_.back().streamId_;
        conn_.Response(&response, requests_.empty() ? 0 : requests_.back().ticket_, false);
        if (!requests_.empty()) { requests_.pop_back(); }
    }
    void Act(int action) {
        switch (action & (action < 0 ? 0 : 7)) {
            case 1: return Answer("200", 4, 1);
            case 2: return Answer("000", 0, 0);
            case 3: return Answer("404", static_cast<size_t>(action), action);
            case 4: conn_.SendPing(); return;
            case 5: conn_.IsValid(); return;
            case 6: conn_.SendResponse(); return;
            default: return;
        }
    }
    void Drive(bool hasCome) {
        if (!IsEvent() && !hasCome) { return; }
        VEK_ST_HTTP2_REQUEST_RECV request;
        if (IsEvent()) { conn_.ProcEvent(); }
        while (conn_.Request(&request) == 1) {
            Require(request.size_ <= BODY_SIZE);
            TouchFields(*request.hdr_), Touch(std::string(request.data_, request.size_));
            requests_.push_back(request);
            if (!IsEvent()) { return; }
        }
        while (IsEvent() && conn_.ProcEventPre() == 1) {}
    }

    FuzzPeer& peer_;
    const uint8_t mode_;
    CVEKHttp2Response conn_;
    std::vector<VEK_ST_HTTP2_REQUEST_RECV> requests_;
    int told_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzPeer peer(data, size);
    Server(peer).Run();
    return 0;
}
