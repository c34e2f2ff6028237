#include "CVEKHttpResponder.h"

#include <new>
#include <utility>

#include "CVEKHttpServerConnection.h"
#include "CVEKHttpServerShard.h"

namespace {

CVEKHttpServerConnection& ConnectionOf(CVEKHttpServerStream& stream) {
    return static_cast<CVEKHttpServerConnection&>(*stream.GetConnection());
}

// Calls action(stream) on the loop's thread, where the stream is still there.
template <class ACTION>
void OnStream(const std::shared_ptr<CVEKHttpServerShard>& shard, uint32_t slot, uint32_t generation,
              ACTION action) {
    if (shard == nullptr) {
        return;
    }
    const auto run = [slot, generation](CVEKHttpServerShard& there, ACTION& work) {
        CVEKHttpServerStream* stream = there.FindStream(slot, generation);
        if (stream != nullptr && stream->GetConnection() != nullptr) {
            work(*stream);
        }
    };
    if (shard->GetLoop()->IsCurrent()) {
        run(*shard, action);
    } else {
        shard->GetLoop()->Post(
            [shard, run, action = std::move(action)]() mutable { run(*shard, action); });
    }
}

}  // namespace

VEK_ST_HTTP_ORIGIN CVEKHttpResponder::GetOrigin() const {
    VEK_ST_HTTP_ORIGIN origin;
    const CVEKHttpServerStream* stream =
        IsEmpty() ? nullptr : shard_->FindStream(slot_, generation_);
    if (stream != nullptr && stream->GetConnection() != nullptr) {
        const CVEKHttpConnection& connection = *stream->GetConnection();
        origin.connection_ = connection.GetNumber();
        origin.stream_ = stream->GetId();
        origin.streams_ = connection.GetStreams();
        origin.peer_ = connection.GetPeer();
    }
    return origin;
}

void CVEKHttpResponder::OnGone(std::function<void()> work) {
    OnStream(shard_, slot_, generation_,
             [work = std::move(work)](CVEKHttpServerStream& stream) mutable {
                 if (!stream.isAnswered_) {
                     stream.onGone_ = std::move(work);
                 }
             });
}

bool CVEKHttpResponder::Send(VEK_ST_HTTP_RESPONSE response) {
    if (IsEmpty() || isSent_) {
        return false;
    }
    OnStream(shard_, slot_, generation_,
             [response = std::move(response)](CVEKHttpServerStream& stream) mutable {
                 ConnectionOf(stream).Answer(stream, std::move(response));
             });
    isSent_ = true;
    return true;
}

void CVEKHttpResponder::SendInformational(int status, CVEKHttpFields fields) {
    OnStream(shard_, slot_, generation_,
             [status, fields = std::move(fields)](CVEKHttpServerStream& stream) {
                 ConnectionOf(stream).Inform(stream, status, fields);
             });
}

void CVEKHttpResponder::Resume() {
    OnStream(shard_, slot_, generation_, [](CVEKHttpServerStream& stream) { stream.Resume(); });
}

void CVEKHttpResponder::Consume(size_t bytes) {
    OnStream(shard_, slot_, generation_, [bytes](CVEKHttpServerStream& stream) {
        stream.GetConnection()->Consume(stream, bytes);
    });
}

void CVEKHttpResponder::Reset(uint32_t code) {
    isSent_ = true;
    OnStream(shard_, slot_, generation_,
             [code](CVEKHttpServerStream& stream) { ConnectionOf(stream).Reset(stream, code); });
}

void CVEKHttpResponder::Drop() {
    if (!IsEmpty() && !isSent_) {
        try {
            VEK_ST_HTTP_RESPONSE response;
            response.status_ = VEK_HTTP_STATUS_ERROR;
            Send(std::move(response));
        } catch (const std::bad_alloc&) {
            shard_->NoteLost();
        }
    }
    shard_.reset();
}
