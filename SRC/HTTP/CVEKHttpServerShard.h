// CVEKHttpServerShard: a server's part on one loop: its connections there, and their streams.
//
// Streams are kept for reuse. A slot with a generation stands for each, so that a handle which is
// older than the stream's present use finds nothing.
#ifndef CVEK_HTTP_SERVER_SHARD_H
#define CVEK_HTTP_SERVER_SHARD_H

#include <nghttp2/nghttp2.h>
#include <openssl/ssl.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "CVEKHttpResponder.h"
#include "CVEKHttpStream.h"
#include "CVEKLoopCore.h"
#include "CVEKLoopCounter.h"
#include "VEKHttpServerOption.h"

class CVEKHttpServerConnection;
class CVEKHttpServerCore;

class CVEKHttpServerStream : public CVEKHttpStream {
  public:
    VEK_ST_HTTP_REQUEST request_;
    VEK_ST_HTTP_RESPONSE response_;
    VEK_ST_HTTP_RECEIVER receiver_;
    std::function<void()> onGone_;  // until the answer
    VEK_ST_HTTP_TIMES times_;
    char status_[4] = "";
    uint32_t slot_ = 0;
    size_t heldBytes_ = 0;        // of its answer, counted by the connection
    bool isAnswered_ = false;     // the answer was submitted, or none follows
    bool isGivenUp_ = false;      // none follows
    bool isSent_ = false;         // as a whole
    bool isBegun_ = false;        // its header fields have come
    bool isComplete_ = false;     // the request is
    bool isTooLarge_ = false;     // its header fields are
    bool isDiscarded_ = false;    // its body is
    bool isAnswerAsked_ = false;  // a responder is or was out
};

class CVEKHttpServerShard : public CVEKLoopResident,
                            public std::enable_shared_from_this<CVEKHttpServerShard> {
  public:
    struct Counters {
        CVEKLoopCounter connections;
        CVEKLoopCounter streams;
        CVEKLoopCounter accepted;
        CVEKLoopCounter up;
        CVEKLoopCounter evicted;
        CVEKLoopCounter abused;
        CVEKLoopCounter requests;
        CVEKLoopCounter answered;
        CVEKLoopCounter refused;
        CVEKLoopCounter failed;
        CVEKLoopCounter reset;
    };

    CVEKHttpServerShard(CVEKHttpServerCore& server, std::shared_ptr<CVEKLoopCore> loop);
    ~CVEKHttpServerShard() override;
    CVEKHttpServerShard(const CVEKHttpServerShard&) = delete;
    CVEKHttpServerShard& operator=(const CVEKHttpServerShard&) = delete;

    const std::shared_ptr<CVEKLoopCore>& GetLoop() const { return loop_; }

    // Any thread: connections that are or will be on this loop.
    size_t GetLoad() const { return load_.load(std::memory_order_relaxed); }
    void AddLoad() { ++load_; }
    // Has it drain; once.
    void PostDrain(std::chrono::milliseconds limit);
    // A request has lost its responder, and there was no memory to tell which.
    void NoteLost();

    // The rest is the loop's thread's.
    void Enter() { loop_->Enter(*this); }
    void Accept(int fd, SSL_CTX* ctx, uint64_t number, std::string peer,
                const std::string& address);
    // Closes a descriptor that was to be accepted.
    void Refuse(int fd, const std::string& address);
    // Ends all connections and leaves the loop: nothing follows.
    void End();
    void OnLoopEnd() override;

    CVEKHttpServerCore& GetServer() { return *server_; }
    CVEKHttpServerStream& AcquireStream();
    void ReleaseStream(CVEKHttpServerStream& stream);
    CVEKHttpResponder MakeResponder(const CVEKHttpServerStream& stream);
    // Null when the stream is another one by now, or none.
    CVEKHttpServerStream* FindStream(uint32_t slot, uint32_t generation) const;

    using SetupPlace = std::list<CVEKHttpServerConnection*>::iterator;
    void EndSetup(SetupPlace place);
    void NoteDown(CVEKHttpServerConnection& connection, const std::string& address);

    // Room for the fields of a message while it is submitted.
    std::vector<nghttp2_nv>& GetFields() { return fields_; }
    Counters& GetCounters() { return counters_; }
    const Counters& GetCounters() const { return counters_; }

  private:
    struct Slot {
        CVEKHttpServerStream* stream;
        uint32_t generation;
    };
    class Draining;
    class Loss;

    void Drain(std::chrono::milliseconds limit);
    CVEKHttpServerConnection* AddConnection(uint64_t number, std::string peer,
                                            const std::string& address);
    void EndConnections(VEK_HTTP_REASON reason, const char* text);
    void NoteDrained();

    CVEKHttpServerCore* server_;
    std::shared_ptr<CVEKLoopCore> loop_;
    std::atomic<size_t> load_{0};
    Counters counters_;
    std::vector<std::unique_ptr<CVEKHttpServerConnection>> connections_;
    std::list<CVEKHttpServerConnection*> setups_;  // the oldest first
    std::vector<Slot> slots_;
    std::vector<uint32_t> freeSlots_;
    std::vector<std::unique_ptr<CVEKHttpServerStream>> spare_;
    std::vector<nghttp2_nv> fields_;
    std::unique_ptr<Draining> draining_;
    std::unique_ptr<Loss> loss_;
    bool isDraining_ = false;
    bool hasDrained_ = false;
    bool wasWhole_ = true;
    bool hasEnded_ = false;
};

#endif
