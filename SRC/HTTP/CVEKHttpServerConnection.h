// CVEKHttpServerConnection: a connection of a server.
#ifndef CVEK_HTTP_SERVER_CONNECTION_H
#define CVEK_HTTP_SERVER_CONNECTION_H

#include <string>

#include "CVEKHttpConnection.h"
#include "CVEKHttpServerShard.h"

// What is answered in the place of an answer that failed.
constexpr int VEK_HTTP_STATUS_ERROR = 500;

class CVEKHttpServerConnection : public CVEKHttpConnection {
  public:
    CVEKHttpServerConnection(CVEKHttpServerShard& shard, uint64_t number, std::string peer,
                             std::string address);
    ~CVEKHttpServerConnection() override = default;

    CVEKHttpServerShard::SetupPlace setupPlace_;

    void Accept(int fd, SSL_CTX* ctx);
    void BeginDrain();
    // A request waits for its answer.
    bool IsAnswering() const { return GetStreams() > 0; }
    bool IsInSetup() const { return isInSetup_; }

    // Of responders. Answer returns false when the stream has its answer.
    bool Answer(CVEKHttpServerStream& stream, VEK_ST_HTTP_RESPONSE&& response);
    void Inform(CVEKHttpServerStream& stream, int status, const CVEKHttpFields& fields);
    void Reset(CVEKHttpServerStream& stream, uint32_t code);

  private:
    // Counts what happens within a second.
    struct Rate {
        uint64_t since = 0;
        unsigned count = 0;
        bool IsOver(uint64_t now, unsigned limit);
    };

    bool OnTransport(CVEKHttp2Setup& setup) override;
    void OnUp(const CVEKHttp2Setup& setup) override;
    void OnStreamEnd(CVEKHttpStream& stream, uint32_t code,
                     const VEK_ST_HTTP_FAILURE* failure) override;
    void OnDown(const VEK_ST_HTTP_FAILURE& failure) override;
    uint64_t CheckDeadlines(uint64_t now) override;
    int OnHead(const nghttp2_frame* frame) override;
    int OnField(CVEKHttpStream& stream, std::string_view name, std::string_view value) override;
    int OnFieldOverflow(CVEKHttpStream& stream) override;
    int OnData(CVEKHttpStream& stream, std::string_view data) override;
    int OnFrame(const nghttp2_frame* frame) override;
    int OnSent(const nghttp2_frame* frame) override;

    CVEKHttpServerStream& BeginStream(int32_t id);
    void TakeUpgrade(const CVEKHttp2ServerUpgrade& upgrade);
    void PutField(CVEKHttpServerStream& stream, std::string_view name, std::string_view value,
                  bool isTrailer);
    void EndHead(CVEKHttpServerStream& stream);
    void OfferHead(CVEKHttpServerStream& stream);
    void EndRequest(CVEKHttpServerStream& stream);
    void EndReceiver(CVEKHttpServerStream& stream, const VEK_ST_HTTP_FAILURE& failure);
    void RefuseSize(CVEKHttpServerStream& stream, int status);
    int SubmitAnswer(CVEKHttpServerStream& stream);
    void NoteReset(int32_t id);
    int SubmitInformational(const CVEKHttpServerStream& stream, int status,
                            const CVEKHttpFields& list);
    int CheckRate(Rate& rate, unsigned limit, const char* text);
    bool IsPeersTurn(const CVEKHttpServerStream& stream) const;
    void BeginAccept(int fd, SSL_CTX* ctx);
    void NoteSetupOver();
    void NoteIdle();
    void ArmForProgress();

    CVEKHttpServerShard& shard_;
    const VEK_ST_HTTP_SERVER_OPTIONS& options_;
    const std::string address_;
    Rate resets_;
    Rate controls_;
    size_t heldBytes_ = 0;
    uint64_t idleSince_ = 0;
    uint64_t drainTime_ = 0;  // when the notice was submitted; 0: not
    bool isInSetup_ = false;
};

#endif
