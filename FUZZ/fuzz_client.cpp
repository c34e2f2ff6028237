// The client connection with any bytes of a server, with prior knowledge or the upgrade: a request
// is answered at most once, and its answer is no larger than was agreed.
#include <set>

#include "CVEKHttp2Request.h"
#include "FuzzPeer.h"

namespace {

class Client {
  public:
    explicit Client(FuzzPeer& peer) : peer_(peer), mode_(peer.Take()) {
        VEK_ST_HTTP2_OPTIONS options = FuzzPeer::MakeOptions();
        options.nPushEnable_ = mode_ & 0x04;
        conn_.Initialize("fuzz", &options);
        conn_.SetPolicy(peer.GetPolicy());
        const addrinfo address = FuzzPeer::GetAddress();
        Require(mode_ & 0x01 ? conn_.StartConnect(&address, "host", 80, isEvent_)
                             : conn_.StartConnect(&address, "host", 80, nullptr, isEvent_));
        Require(peer.Accept());
        for (int action = 0; action != FuzzPeer::END;) {
            const bool isUp = conn_.Advance() == VEK_HTTP2_STEP_DONE;
            if (isUp && asked_ == 1) { Greet(); }
            action = peer_.Step();
            if (isUp) { Act(action), Drive(action < 0); }
        }
        conn_.Disconnect();
        Collect();
    }

  private:
    // The server that begins as it must, and requests that are under way.
    void Greet() {
        if ((mode_ & 0x10) != 0) { conn_.SetStreamID(INT32_MAX - 4); }
        Ask("GET", ""), Ask("POST", "body");
        Drive((mode_ & 0x08) != 0 && peer_.Send(FuzzPeer::SETTINGS) == FuzzPeer::SENT);
    }
    void Ask(const char* method, const std::string& body) {
        const VEK_HTTP2_HEADER fields = {{"a", body}};
        const char* path = body.size() == 3 ? "bad" : "/";
        asked_ += conn_.Request(asked_, nullptr, method, path, fields, body.size(), body.data(), false) == 1 ? 1 : 0;
    }
    void Act(int action) {
        switch (action < 0 ? 0 : action & 7) {
            case 1: return Ask("GET", "");
            case 2: return Ask("PUT", std::string(action, 'a'));
            case 3: return void(conn_.Cancel(action >> 3));
            case 4: return void(conn_.SendPing());
            case 5: return void(conn_.IsValid());
            case 6: return void(conn_.SendRequestAsync());
        }
    }
    // By itself the connection waits for its socket: only where there is something.
    void Drive(bool hasCome) {
        if (isEvent_ && conn_.ProcEvent()) {
            while (conn_.ProcEventPre() == 1) {}
        }
        if (isEvent_ || hasCome) { Collect(); }
    }
    void Collect() {
        VEK_ST_HTTP2_RESPONSE response;
        const auto body = Buffer(BODY_SIZE);
        response.payload_.data_ = body.get();
        while (response.messageId_ = 0, conn_.Response(&response) == 1) {
            Require(response.messageId_ == 0 ? response.streamId_ == 1 : response.messageId_ < asked_);
            Require(answered_.insert(response.messageId_).second && response.payload_.size_ <= BODY_SIZE);
            TouchFields(response.hdr_), TouchFields(response.trailers_), Touch(response.rs_);
            if (!isEvent_) { return; }
        }
    }

    FuzzPeer& peer_;
    const uint8_t mode_;
    const bool isEvent_ = (mode_ & 0x02) != 0;
    CVEKHttp2Request conn_;
    int asked_ = 1;  // 0 is left to the request of the upgrade
    std::set<int> answered_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzPeer peer(data, size);
    return Client(peer), 0;
}
