// CVEKHttpStream: one exchange on a connection, as far as both ends have it in common: where it
// belongs, and the body that it sends. What it sends is its owner's message, which stays as it is
// until the stream has gone.
#ifndef CVEK_HTTP_STREAM_H
#define CVEK_HTTP_STREAM_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "CVEKHttp2Source.h"
#include "CVEKHttpBody.h"
#include "CVEKHttpFields.h"
#include "VEKHttpReuse.h"

class CVEKHttpConnection;

class CVEKHttpStream : public CVEKHttp2Source {
  public:
    CVEKHttpStream() = default;
    CVEKHttpStream(const CVEKHttpStream&) = delete;
    CVEKHttpStream& operator=(const CVEKHttpStream&) = delete;

    int32_t GetId() const { return id_; }
    // Null while it is on none.
    CVEKHttpConnection* GetConnection() const { return connection_; }

    // The next body to send. Both must stay.
    void SetBody(const CVEKHttpBody& body, CVEKHttpFields& trailers);
    // It waits for Resume.
    bool IsWaiting() const { return isWaiting_; }
    bool HasProducerFailed() const { return hasFailed_; }
    // Its producer has been called since SetBody.
    bool HasProduced() const { return hasProduced_; }
    // No more of it is asked for.
    void StopBody() { isStopped_ = true; }
    // The stream has gone, and with it what the producer made last.
    void DropPiece() { VEK_HTTP_REUSE(piece_); }
    // Has the link ask again, where the producer had nothing.
    void Resume();

    ssize_t Offer(size_t max, End& end) override;
    const char* Take(size_t length) override;

  protected:
    ~CVEKHttpStream() override = default;

  private:
    friend class CVEKHttpConnection;

    bool Produce(size_t max);
    bool SubmitTrailers();

    int32_t id_ = 0;
    CVEKHttpConnection* connection_ = nullptr;
    CVEKHttpStream* next_ = nullptr;  // among the connection's
    CVEKHttpStream* previous_ = nullptr;
    size_t unconsumed_ = 0;      // bytes received that hold the window
    uint64_t progressTime_ = 0;  // when it last went on, in milliseconds of the loop

    const CVEKHttpBody* body_ = nullptr;
    CVEKHttpFields* trailers_ = nullptr;
    std::string piece_;  // of a produced body
    size_t sent_ = 0;    // of the text or the piece
    bool isProduced_ = false;
    bool isEnd_ = false;  // the producer has said so
    bool isWaiting_ = false;
    bool hasFailed_ = false;
    bool hasProduced_ = false;
    bool areTrailersSubmitted_ = false;
    bool isStopped_ = false;
};

#endif
