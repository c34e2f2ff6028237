// CVEKHttpClientExchange: a client's request, from Send to its handler: waiting for a connection,
// or flying on one, more than once maybe. It belongs to a shard, which keeps it for reuse and never
// frees it before its own end: a call that is older than its present use has another generation.
#ifndef CVEK_HTTP_CLIENT_EXCHANGE_H
#define CVEK_HTTP_CLIENT_EXCHANGE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "CVEKHttpClient.h"
#include "CVEKHttpList.h"
#include "CVEKHttpPrepared.h"
#include "CVEKHttpStream.h"
#include "CVEKLoopCore.h"

class CVEKHttpClientExchange : public CVEKHttpStream, public CVEKLoopTask {
  public:
    // ENDING: its end is certain, and maybe a failure already noted, though the handler has not
    // heard of it and it may be on its connection still.
    enum State { FREE, WAITING, FLYING, ENDING };

    // As a task it goes to its shard.
    void Run() override;
    void Drop() override;

    bool IsFlying() const { return state_ == FLYING; }
    // The request may be repeated by its method (RFC 9110, section 9.2.2).
    bool IsIdempotent() const;
    // Why it fails; without the text where memory has run out.
    void NoteFailure(VEK_HTTP_REASON reason, std::string_view text, bool isRepeatable);
    // Empties it for the next use.
    void Reuse();

    // Its own, or those of what was prepared.
    const VEK_ST_HTTP_REQUEST& GetRequest() const {
        return prepared_ != nullptr ? prepared_->GetRequest() : request_;
    }
    const VEK_ST_HTTP_CALL_OPTIONS& GetOptions() const {
        return prepared_ != nullptr ? prepared_->GetOptions() : options_;
    }

    VEK_ST_HTTP_REQUEST request_;
    VEK_ST_HTTP_RESPONSE response_;
    VEK_ST_HTTP_CALL_OPTIONS options_;
    CVEKHttpClient::Handler handler_;
    VEK_HTTP_PREPARED prepared_;
    CVEKHttpSink* sink_ = nullptr;  // with prepared_, instead of the handler
    uint64_t tag_ = 0;
    std::shared_ptr<CVEKHttpClientShard> shard_;  // while it is on its way there
    CVEKHttpFields informational_;
    State state_ = FREE;
    uint32_t generation_ = 0;
    int informationalStatus_ = 0;
    unsigned connectFailures_ = 0;
    uint64_t deadline_ = 0;      // in milliseconds of the loop
    bool isComplete_ = false;    // the response is
    bool isHandedOver_ = false;  // a piece of it was
    bool isCancelled_ = false;
    CVEKHttpClientExchange* next_ = nullptr;  // among those that wait, fail or are free
    CVEKHttpClientExchange* previous_ = nullptr;
};

using CVEKHttpClientQueue = CVEKHttpList<CVEKHttpClientExchange, &CVEKHttpClientExchange::next_,
                                         &CVEKHttpClientExchange::previous_>;

#endif
