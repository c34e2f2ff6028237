// CVEKHttpConnection: what client and server connections share: a link over a descriptor that the
// loop watches, its set-up, its streams, its deadlines and its end.
//
// Life: Begin..., set-up in steps, the session, its end. A connection ends at the end of a pass,
// never in the midst of the engine's work: Fail notes why, and it goes when it next settles. Its
// owner hears of that by OnDown, which deletes it, and which is the last that it does.
//
// All on the loop's thread.
#ifndef CVEK_HTTP_CONNECTION_H
#define CVEK_HTTP_CONNECTION_H

#include <chrono>
#include <cstdint>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "CVEKHttp2Link.h"
#include "CVEKHttp2LinkHandler.h"
#include "CVEKHttp2Setup.h"
#include "CVEKHttpList.h"
#include "CVEKHttpStream.h"
#include "CVEKLoopCore.h"
#include "VEKDumpOption.h"
#include "VEKHttpObserver.h"
#include "VEKHttpSettings.h"

class CVEKHttpConnection : private CVEKHttp2LinkHandler,
                           private CVEKLoopTimer,
                           private CVEKLoopSettler {
  public:
    CVEKHttpConnection(const CVEKHttpConnection&) = delete;
    CVEKHttpConnection& operator=(const CVEKHttpConnection&) = delete;

    uint64_t GetNumber() const { return number_; }
    const std::string& GetPeer() const { return name_; }
    // The session stands.
    bool IsUp() const { return isUp_; }
    // No new stream may be begun: one of the ends has said GOAWAY.
    bool IsDraining() const { return isGoawaySent_ || isGoawayReceived_; }
    size_t GetStreams() const { return streams_.GetSize(); }
    // Adds what the socket has carried.
    void CountBytes(uint64_t& sent, uint64_t& received);

    // The peer has said GOAWAY, and will not work on the stream.
    bool IsBeyondGoaway(int32_t stream) const { return stream > goawayLast_; }
    uint32_t GetGoawayCode() const { return goawayCode_; }

    // For streams.
    void ResumeBody(CVEKHttpStream& stream);
    bool SubmitTrailers(const CVEKHttpStream& stream, const CVEKHttpFields& trailers);
    void NoteProgress(CVEKHttpStream& stream) { stream.progressTime_ = core_.GetNow(); }
    // Bytes of the stream's body that were received hold the window until they have been dealt
    // with, or the stream has gone.
    static void Hold(CVEKHttpStream& stream, size_t bytes) { stream.unconsumed_ += bytes; }
    void Consume(CVEKHttpStream& stream, size_t bytes);

    // Ends the connection when it next settles; code: of its GOAWAY. The first reason stays.
    void FailMemory();
    void Fail(VEK_HTTP_REASON reason, std::string_view text, uint32_t code = NGHTTP2_NO_ERROR);
    // Ends it now, from outside of all its work.
    void End(VEK_HTTP_REASON reason, std::string_view text);

    VEK_ST_HTTP_CONNECTION Describe();

    size_t index_ = 0;  // the owner's: its place among all

  protected:
    CVEKHttpConnection(CVEKLoopCore& core, uint64_t number, std::string peer,
                       const VEK_ST_HTTP_SETTINGS& settings, size_t streamLimit, bool isServer);
    ~CVEKHttpConnection() override;

    // Where the ends differ. The transport stands: starts an upgrade, if any; false fails it.
    virtual bool OnTransport(CVEKHttp2Setup& setup) = 0;
    // The session stands, and may be used.
    virtual void OnUp(const CVEKHttp2Setup& setup) = 0;
    // A stream has closed, with the code of its RST_STREAM, or with the connection, for `failure`.
    virtual void OnStreamEnd(CVEKHttpStream& stream, uint32_t code,
                             const VEK_ST_HTTP_FAILURE* failure) = 0;
    // Nothing is left to be done: the connection has ended, and is to be deleted.
    virtual void OnDown(const VEK_ST_HTTP_FAILURE& failure) = 0;
    // Sees to deadlines. Returns when the next one comes, UINT64_MAX for none.
    virtual uint64_t CheckDeadlines(uint64_t now) = 0;
    // Of the engine: as the link's handler has them.
    virtual int OnHead(const nghttp2_frame* /*frame*/) { return 0; }
    virtual int OnField(CVEKHttpStream& stream, std::string_view name, std::string_view value) = 0;
    virtual int OnFieldOverflow(CVEKHttpStream& stream) = 0;
    virtual int OnData(CVEKHttpStream& stream, std::string_view data) = 0;
    virtual int OnFrame(const nghttp2_frame* frame) = 0;
    virtual int OnSent(const nghttp2_frame* /*frame*/) { return 0; }
    virtual int OnNotSent(const nghttp2_frame* /*frame*/, int /*error*/) { return 0; }

    // Begins a set-up, which the caller starts; then StepSetup goes on with it.
    CVEKHttp2Setup& BeginSetup(const VEK_ST_HTTP2_SETUP_LIMITS& limits);
    void StepSetup();
    // Captures what follows into files of the directory, where one is named and, for TLS, the
    // options ask for it.
    void StartCapture(const std::string& directory, const VEK_ST_DUMP_OPTIONS& options, bool isTls);
    // Does work of the connection from outside of it. Where memory ends, the connection does; after
    // that, or any other end, it is no more.
    template <class WORK>
    void Guard(WORK work) {
        try {
            work();
        } catch (const std::bad_alloc&) {
            FailMemory();
            GoDown();
        }
    }
    // Notes a result of the engine's, of which only the end of memory matters.
    void CheckMemory(int result) {
        if (result == NGHTTP2_ERR_NOMEM) {
            FailMemory();
        }
    }
    // Tells a program of an end, for which memory may be short.
    template <class CALL>
    static void Tell(CALL call) {
        try {
            call();
        } catch (const std::bad_alloc&) {
            return;  // it is not told
        }
    }
    bool IsSettingUp() const { return setup_ != nullptr; }

    // Ties a stream to the connection, and looks it up.
    void Attach(CVEKHttpStream& stream, int32_t id);
    void Detach(CVEKHttpStream& stream);
    CVEKHttpStream* Find(int32_t id) const;
    // Calls visit(stream) for each, which may detach it.
    template <class VISIT>
    void ForEach(VISIT visit) {
        streams_.ForEach(visit);
    }
    static bool IsHeld(const CVEKHttpStream& stream) { return stream.unconsumed_ > 0; }
    static uint64_t GetProgressTime(const CVEKHttpStream& stream) { return stream.progressTime_; }

    // Says GOAWAY and lets what is in flight end. isNotice: the last stream is named later.
    void Drain(bool isNotice);
    // Something was submitted: it leaves at the end of the pass.
    void Wake() {
        if (!isInPass_) {
            core_.Mark(*this);
        }
    }
    void ArmBy(uint64_t due) { core_.ArmBy(*this, due); }
    bool HasFailed() const { return failure_ != nullptr; }
    // Of the socket: since when it takes nothing; 0: it does.
    uint64_t GetBlockedSince() const { return blockedSince_; }
    // When the pass began that is under way; now, where none is.
    std::chrono::steady_clock::time_point GetPassTime() const {
        return isInPass_ ? passTime_ : std::chrono::steady_clock::now();
    }

    CVEKLoopCore& core_;
    CVEKHttp2Link link_;

  private:
    static void OnPoll(void* owner, int status, int events);
    void Handle(int status, int events);
    void HandleTimer();

    bool OnTransportReady(CVEKHttp2Setup&) override { return true; }
    bool OnSetupDone(const CVEKHttp2Setup&) override { return true; }
    void OnStateChange() override {}
    void OnTrim() override {}
    int OnFrameRecv(const nghttp2_frame* frame) override;
    int OnFrameSend(const nghttp2_frame* frame) override;
    int OnStreamClose(int32_t stream, uint32_t error) override;
    int OnBeginHeaders(const nghttp2_frame* frame) override;
    int OnHeader(const nghttp2_frame* frame, std::string_view name,
                 std::string_view value) override;
    int OnHeaderOverflow(const nghttp2_frame* frame, bool isFirst) override;
    int OnDataChunkRecv(int32_t stream, const char* data, size_t length) override;
    int OnInvalidFrameRecv(const nghttp2_frame* frame, int error) override;
    int OnError(int error, std::string_view text) override;
    int OnFrameNotSend(const nghttp2_frame* frame, int error) override {
        return OnNotSent(frame, error);
    }

    void OnTimer() override;
    void OnSettle() override;

    int AdvanceSetup();
    bool WatchSetup();
    void FailSetup();
    void OpenSession();
    int StartSession();
    int SubmitSettings();
    void BeginPass();
    void Pass();
    void SettlePass();
    bool WatchSocket(int events);
    void NoteBlocked();
    void ExplainEnd();
    void ExplainBreak();
    void GoDown();
    void BeginLinger();
    void DiscardInput();
    void Close();
    void NoteTraffic();

    const VEK_ST_HTTP_SETTINGS& settings_;
    const uint64_t number_;
    const std::string name_;
    std::unique_ptr<CVEKHttp2Setup> setup_;
    CVEKLoopPoll* poll_ = nullptr;
    std::shared_ptr<const VEK_ST_HTTP_FAILURE> failure_;
    std::unique_ptr<std::string> complaint_;  // the engine's last about the peer
    CVEKHttpList<CVEKHttpStream, &CVEKHttpStream::next_, &CVEKHttpStream::previous_> streams_;
    mutable CVEKHttpStream* found_ = nullptr;  // the one asked for last
    uint64_t blockedSince_ = 0;
    std::chrono::steady_clock::time_point begun_;
    std::chrono::steady_clock::time_point connected_;
    uint64_t bytesSent_ = 0;  // as far as the socket was asked
    uint64_t bytesReceived_ = 0;
    std::chrono::steady_clock::time_point up_;
    std::chrono::steady_clock::time_point passTime_;
    const bool isServer_;
    bool isTransportReady_ = false;
    bool isUp_ = false;
    bool isInPass_ = false;
    bool isGoawaySent_ = false;
    bool isGoawayReceived_ = false;
    int32_t goawayLast_ = INT32_MAX;  // the last stream that the peer's GOAWAY leaves, and its code
    uint32_t goawayCode_ = 0;
    bool isNoticeSent_ = false;
    bool isLingering_ = false;
};

// Takes one out of its owner's; the last one takes its place.
template <class CONNECTION>
std::unique_ptr<CONNECTION> VEK_TAKE_OUT(std::vector<std::unique_ptr<CONNECTION>>& connections,
                                         const CVEKHttpConnection& connection) {
    const size_t index = connection.index_;
    // A caller that looks later whether none is left has cppcheck think that none was there before.
    // cppcheck-suppress containerOutOfBounds
    std::unique_ptr<CONNECTION> taken = std::move(connections[index]);
    connections[index] = std::move(connections.back());
    connections.pop_back();
    if (index < connections.size()) {
        connections[index]->index_ = index;
    }
    return taken;
}

#endif
