// CVEKHttpResponder: the right to answer one request of a CVEKHttpServer, at once or later, from
// any thread, one thread at a time. It reaches that request and no other: when the stream, its
// connection or the server has gone meanwhile, what it does has no effect.
//
// On the thread of the connection's loop an operation works at once, from other threads as soon as
// the loop comes by.
#ifndef CVEK_HTTP_RESPONDER_H
#define CVEK_HTTP_RESPONDER_H

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>

#include "VEKExport.h"
#include "VEKHttpMessage.h"

class CVEKHttpServerShard;

// Takes a request's body piece by piece; see CVEKHttpServer::SetHeadHandler.
struct VEK_ST_HTTP_RECEIVER {
    // The next piece. Returns true when it has been dealt with; false keeps the peer's window
    // closed by so many bytes until Consume of the responder.
    std::function<bool(std::string_view piece)> onPiece_;
    // The request has ended, or failed before; with its trailers. Once; may be null.
    std::function<void(const CVEKHttpFields& trailers, const VEK_ST_HTTP_FAILURE& failure)> onEnd_;
};

// Where a request comes from; see CVEKHttpResponder::GetOrigin.
struct VEK_ST_HTTP_ORIGIN {
    uint64_t connection_ = 0;  // its number; 0: the request has gone
    int32_t stream_ = 0;
    size_t streams_ = 0;     // requests of the connection that are not over, this one included
    std::string_view peer_;  // as in VEK_ST_HTTP_CONNECTION; good while the connection is
};

class VEK_API CVEKHttpResponder {
  public:
    // For no request.
    CVEKHttpResponder() = default;
    // Answers 500 where nothing has been sent.
    ~CVEKHttpResponder() { Drop(); }
    CVEKHttpResponder(CVEKHttpResponder&& other) noexcept { Take(other); }
    CVEKHttpResponder& operator=(CVEKHttpResponder&& other) noexcept {
        if (this != &other) {
            Drop();
            Take(other);
        }
        return *this;
    }
    CVEKHttpResponder(const CVEKHttpResponder&) = delete;
    CVEKHttpResponder& operator=(const CVEKHttpResponder&) = delete;

    // It stands for no request, or has been moved from.
    bool IsEmpty() const { return shard_ == nullptr; }

    // On the thread of the connection's loop, as in a handler.
    VEK_ST_HTTP_ORIGIN GetOrigin() const;
    // Has `work` called, on the loop's thread, when the request goes before it was answered: the
    // peer has reset it, or the connection is lost. In place of an earlier one. It is dropped,
    // called or not, as soon as the request has its answer or has gone, so that it may come too
    // late on another thread than the loop's.
    void OnGone(std::function<void()> work);

    // Answers. Returns false when that was done before. The handle stays good for the other
    // operations. A status below 200 or over 999, fields that HTTP/2 does not allow (RFC 9113,
    // section 8.2) or that are over the server's own limits make it a 500 without a body.
    bool Send(VEK_ST_HTTP_RESPONSE response);
    // Sends a 1xx response, 103 say, before the answer. Status 101 and fields that HTTP/2 does not
    // allow have no effect.
    void SendInformational(int status, CVEKHttpFields fields);
    // A producer that has said LATER has more.
    void Resume();
    // Bytes that a receiver has not dealt with at once are.
    void Consume(size_t bytes);
    // Gives the request up: resets the stream with this code (RFC 9113, section 7).
    void Reset(uint32_t code);

  private:
    friend class CVEKHttpServerShard;
    friend class CVEKHttpServerConnection;

    CVEKHttpResponder(std::shared_ptr<CVEKHttpServerShard> shard, uint32_t slot,
                      uint32_t generation)
        : shard_(std::move(shard)), slot_(slot), generation_(generation) {}

    void Take(CVEKHttpResponder& other) {
        shard_ = std::move(other.shard_);
        other.shard_ = nullptr;
        slot_ = other.slot_;
        generation_ = other.generation_;
        isSent_ = other.isSent_;
    }
    void Drop();
    // Lets go without an answer.
    void Release() { shard_.reset(); }

    std::shared_ptr<CVEKHttpServerShard> shard_;
    uint32_t slot_ = 0;
    uint32_t generation_ = 0;
    bool isSent_ = false;
};

#endif
