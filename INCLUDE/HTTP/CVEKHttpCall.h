// CVEKHttpCall: a request that a CVEKHttpClient has taken. Dropping it lets the request go on.
// Any thread may use it, one at a time; when the request is over, nothing has an effect any more.
#ifndef CVEK_HTTP_CALL_H
#define CVEK_HTTP_CALL_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>

#include "VEKExport.h"

class CVEKHttpClientExchange;
class CVEKHttpClientShard;

class VEK_API CVEKHttpCall {
  public:
    // Of no request.
    CVEKHttpCall() = default;
    ~CVEKHttpCall() = default;
    CVEKHttpCall(CVEKHttpCall&& other) noexcept = default;
    CVEKHttpCall& operator=(CVEKHttpCall&& other) noexcept = default;
    CVEKHttpCall(const CVEKHttpCall&) = delete;
    CVEKHttpCall& operator=(const CVEKHttpCall&) = delete;

    // Gives the request up: its handler gets CANCELLED, later and not from within, unless it is
    // over by then; the request's other functions are not called any more.
    void Cancel();
    // A producer that has said LATER has more.
    void Resume();
    // Bytes of the response that onPiece_ has not dealt with at once are.
    void Consume(size_t bytes);

  private:
    friend class CVEKHttpClientCore;

    CVEKHttpCall(std::shared_ptr<CVEKHttpClientShard> shard, CVEKHttpClientExchange* exchange,
                 uint32_t generation)
        : shard_(std::move(shard)), exchange_(exchange), generation_(generation) {}

    std::shared_ptr<CVEKHttpClientShard> shard_;
    CVEKHttpClientExchange* exchange_ = nullptr;
    uint32_t generation_ = 0;
};

#endif
