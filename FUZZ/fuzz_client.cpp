// The client connection with any bytes of a server, with prior knowledge or the upgrade: a request
// is answered at most once, and its answer is no larger than was agreed.
#include <memory>
#include <set>

#include "CVEKHttp2Request.h"
#include "FuzzPeer.h"

namespace {

constexpr size_t BODY_SIZE = 64;
constexpr int LAST_STREAM = INT32_MAX;

class Client {
  public:
    explicit Client(FuzzPeer& peer) : peer_(peer), mode_(peer.Take()) {
        VEK_ST_HTTP2_OPTIONS options;
        options.nMaxConcurrentStream_ = 4;
        options.nMaxPayloadSize_ = BODY_SIZE;
        options.nMaxHeaderTableSize_ = 4096;  // a smaller one is to be acknowledged in the next block
        options.nPushEnable_ = mode_ & 0x04;
        conn_.Initialize("fuzz", &options);
        conn_.SetPolicy(peer.GetPolicy());
        const addrinfo address = FuzzPeer::GetAddress();
        Require(mode_ & 0x01 ? conn_.StartConnect(&address, "host", 80, IsEvent())
                             : conn_.StartConnect(&address, "host", 80, nullptr, IsEvent()));
        Require(peer.Accept());
    }
    void Run() {
        for (int action = 0; action != FuzzPeer::END;) {
            const bool wasUp = isUp_;
            isUp_ = conn_.Advance() == VEK_HTTP2_STEP_DONE;
            if (isUp_ && !wasUp) { Greet(); }
            action = peer_.Step();
            if (isUp_) { Act(action), Drive(action < 0); }
        }
        conn_.Disconnect();
        Collect();
    }

  private:
    bool IsEvent() const { return (mode_ & 0x02) != 0; }
    // The server that begins as it must, and requests that are under way.
    void Greet() {
        if ((mode_ & 0x10) != 0) { conn_.SetStreamID(LAST_STREAM - 4); }
        if ((mode_ & 0x08) != 0) { peer_.Send(FuzzPeer::SETTINGS); }
        Ask("GET", ""), Ask("POST", "body");
        Drive((mode_ & 0x08) != 0);
    }
    void Ask(const char* method, const std::string& body) {
        const VEK_HTTP2_HEADER fields = {{"a", body}};
        const char* path = body.size() == 3 ? "bad" : "/";
        if (conn_.Request(asked_, nullptr, method, path, fields, body.size(), body.data(), false) == 1) { ++asked_; }
    }
    void Act(int action) {
        switch (action & (action < 0 ? 0 : 7)) {
            case 1: return Ask("GET", "");
            case 2: return Ask("PUT", std::string(action, 'a'));
            case 3: conn_.Cancel(action >> 3); return;
            case 4: conn_.SendPing(); return;
            case 5: conn_.IsValid(); return;
            case 6: conn_.SendRequestAsync(); return;
            default: return;
        }
    }
    // By itself the connection waits for its socket: only where there is something.
    void Drive(bool hasCome) {
        if (!IsEvent() && !hasCome) { return; }
        if (IsEvent()) {
            conn_.ProcEvent();
            while (conn_.ProcEventPre() == 1) {}
        }
        Collect();
    }
    void Collect() {
        VEK_ST_HTTP2_RESPONSE response;
        const auto body = std::make_unique<char[]>(BODY_SIZE);
        response.payload_.data_ = body.get();
        while (response.messageId_ = 0, conn_.Response(&response) == 1) {
            Require(response.messageId_ == 0 ? response.streamId_ == 1 : response.messageId_ < asked_);
            Require(answered_.insert(response.messageId_).second && response.payload_.size_ <= BODY_SIZE);
            TouchFields(response.hdr_), TouchFields(response.trailers_), Touch(std::string(response.rs_));
            if (!IsEvent()) { return; }
        }
    }

    FuzzPeer& peer_;
    const uint8_t mode_;
    CVEKHttp2Request conn_;
    bool isUp_ = false;
    int asked_ = 1;  // 0 is left to the request of the upgrade
    std::set<int> answered_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzPeer peer(data, size);
    Client(peer).Run();
    return 0;
}
