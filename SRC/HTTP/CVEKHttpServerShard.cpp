#include "CVEKHttpServerShard.h"

#include <unistd.h>

#include <algorithm>
#include <new>
#include <utility>

#include "CVEKHttpServerConnection.h"
#include "CVEKHttpServerCore.h"
#include "VEKHttpBounds.h"
#include "VEKHttpReuse.h"

namespace {

constexpr size_t MAX_SPARE = 1024;  // streams that are kept for reuse on a loop

void Reuse(CVEKHttpServerStream& stream) {
    VEK_ST_HTTP_REQUEST& request = stream.request_;
    VEK_ST_HTTP_RESPONSE& response = stream.response_;
    std::string& body = request.body_.EditText();
    std::string& answer = response.body_.EditText();
    if (body.capacity() < answer.capacity()) {
        body.swap(answer);  // an echo has carried the memory over
    }
    for (std::string* text : {&body, &answer, &request.path_, &request.authority_}) {
        VEK_HTTP_REUSE(*text);
    }
    request.method_.clear();
    request.scheme_.clear();
    for (CVEKHttpFields* fields :
         {&request.fields_, &request.trailers_, &response.fields_, &response.trailers_}) {
        VEK_HTTP_REUSE(*fields);
    }
    stream.DropPiece();
    stream.times_ = VEK_ST_HTTP_TIMES();
    stream.heldBytes_ = 0;
    stream.isAnswered_ = stream.isSent_ = stream.isBegun_ = stream.isComplete_ = false;
    stream.isTooLarge_ = stream.isDiscarded_ = stream.isAnswerAsked_ = stream.isGivenUp_ = false;
}

}  // namespace

// Begins a drain, for which it needs no memory, and ends one that takes too long.
class CVEKHttpServerShard::Draining : public CVEKLoopTask, public CVEKLoopTimer {
  public:
    explicit Draining(CVEKHttpServerShard& shard) : shard_(shard) {}
    void SetLimit(std::chrono::milliseconds limit) { limit_ = limit; }
    void Run() override { shard_.Drain(limit_); }
    void Drop() override {}
    void OnTimer() override {
        shard_.wasWhole_ = shard_.counters_.streams.Get() == 0;
        shard_.EndConnections(VEK_HTTP_REASON::CLOSED, "the server has ended");
    }

  private:
    CVEKHttpServerShard& shard_;
    std::chrono::milliseconds limit_{0};
};

// Ends the connections whose requests wait for an answer, of which one will never come.
class CVEKHttpServerShard::Loss : public CVEKLoopTask {
  public:
    explicit Loss(CVEKHttpServerShard& shard) : shard_(shard) {}
    void Post(std::shared_ptr<CVEKHttpServerShard> keeper) {
        if (!isPosted_.exchange(true)) {
            keeper_ = std::move(keeper);
            shard_.loop_->Post(this);
        }
    }
    void Run() override {
        const std::shared_ptr<CVEKHttpServerShard> keeper = std::move(keeper_);
        isPosted_ = false;
        for (const auto& connection : shard_.connections_) {
            if (connection->IsAnswering()) {
                connection->FailMemory();
            }
        }
    }
    void Drop() override { keeper_.reset(); }

  private:
    CVEKHttpServerShard& shard_;
    std::shared_ptr<CVEKHttpServerShard> keeper_;
    std::atomic<bool> isPosted_{false};
};

CVEKHttpServerShard::CVEKHttpServerShard(CVEKHttpServerCore& server,
                                         std::shared_ptr<CVEKLoopCore> loop)
    : server_(&server),
      loop_(std::move(loop)),
      draining_(std::make_unique<Draining>(*this)),
      loss_(std::make_unique<Loss>(*this)) {}

CVEKHttpServerShard::~CVEKHttpServerShard() = default;

void CVEKHttpServerShard::Accept(int fd, SSL_CTX* ctx, uint64_t number, std::string peer,
                                 const std::string& address) {
    ++counters_.accepted;
    CVEKHttpServerConnection* connection = nullptr;
    if (!hasEnded_ && !isDraining_) {
        connection = AddConnection(number, std::move(peer), address);
    }
    if (connection == nullptr) {
        Refuse(fd, address);
        return;
    }
    ++counters_.connections;
    if (setups_.size() > server_->GetOptions().handshakes_) {
        ++counters_.evicted;
        setups_.front()->End(VEK_HTTP_REASON::FULL, "given up for a newer connection");
    }
    connection->Accept(fd, ctx);
}

// Null when memory has run out.
CVEKHttpServerConnection* CVEKHttpServerShard::AddConnection(uint64_t number, std::string peer,
                                                             const std::string& address) {
    try {
        std::list<CVEKHttpServerConnection*> place(1);
        auto owner =
            std::make_unique<CVEKHttpServerConnection>(*this, number, std::move(peer), address);
        CVEKHttpServerConnection* connection = owner.get();
        connection->index_ = connections_.size();
        connections_.push_back(std::move(owner));
        place.front() = connection;
        connection->setupPlace_ = place.begin();
        setups_.splice(setups_.end(), place);
        return connection;
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

void CVEKHttpServerShard::Refuse(int fd, const std::string& address) {
    close(fd);
    --load_;
    server_->NoteGone(address);
}

void CVEKHttpServerShard::EndSetup(SetupPlace place) {
    setups_.erase(place);
}

void CVEKHttpServerShard::NoteDown(CVEKHttpServerConnection& connection,
                                   const std::string& address) {
    server_->NoteGone(address);
    const auto owner = VEK_TAKE_OUT(connections_, connection);
    --counters_.connections;
    --load_;
    loop_->NoteGone();
    if (connections_.empty()) {
        std::vector<std::unique_ptr<CVEKHttpServerStream>>().swap(spare_);
        std::vector<std::unique_ptr<CVEKHttpServerConnection>>().swap(connections_);
        NoteDrained();
    }
}

void CVEKHttpServerShard::PostDrain(std::chrono::milliseconds limit) {
    draining_->SetLimit(limit);
    loop_->Post(static_cast<CVEKLoopTask*>(draining_.get()));
}

void CVEKHttpServerShard::NoteLost() {
    loss_->Post(shared_from_this());
}

void CVEKHttpServerShard::Drain(std::chrono::milliseconds limit) {
    if (isDraining_ || hasEnded_) {
        return;
    }
    isDraining_ = true;
    loop_->Arm(*draining_, loop_->GetNow() + VEK_HTTP_MS(limit));  // the last to end disarms it
    while (!setups_.empty()) {
        setups_.front()->End(VEK_HTTP_REASON::CLOSED, "the server is about to end");
    }
    for (const auto& connection : connections_) {
        connection->BeginDrain();
    }
    if (connections_.empty()) {
        NoteDrained();
    }
}

void CVEKHttpServerShard::NoteDrained() {
    if (isDraining_ && !hasDrained_) {
        hasDrained_ = true;
        loop_->Disarm(*draining_);
        server_->NoteDrained(wasWhole_);
    }
}

void CVEKHttpServerShard::EndConnections(VEK_HTTP_REASON reason, const char* text) {
    const std::shared_ptr<CVEKHttpServerShard> guard = shared_from_this();
    while (!connections_.empty()) {
        connections_.back()->End(reason, text);
    }
}

void CVEKHttpServerShard::End() {
    if (hasEnded_) {
        return;
    }
    hasEnded_ = true;
    OnLoopEnd();
    loop_->Leave(*this);
}

void CVEKHttpServerShard::OnLoopEnd() {
    wasWhole_ = wasWhole_ && counters_.streams.Get() == 0;
    EndConnections(VEK_HTTP_REASON::CLOSED, "the server has ended");
    NoteDrained();
}

CVEKHttpServerStream& CVEKHttpServerShard::AcquireStream() {
    std::unique_ptr<CVEKHttpServerStream> stream;
    if (spare_.empty()) {
        stream = std::make_unique<CVEKHttpServerStream>();
        Reuse(*stream);  // a received message has nothing that was not received
    } else {
        stream = std::move(spare_.back());
        spare_.pop_back();
    }
    spare_.reserve(MAX_SPARE);  // so that releasing needs no memory
    if (freeSlots_.empty()) {
        if (freeSlots_.capacity() <= slots_.size()) {
            freeSlots_.reserve(2 * slots_.size() + 1);
        }
        slots_.push_back({nullptr, 0});
        freeSlots_.push_back(static_cast<uint32_t>(slots_.size() - 1));
    }
    stream->slot_ = freeSlots_.back();
    freeSlots_.pop_back();
    slots_[stream->slot_].stream = stream.get();
    return *stream.release();  // the slot's
}

void CVEKHttpServerShard::ReleaseStream(CVEKHttpServerStream& stream) {
    std::unique_ptr<CVEKHttpServerStream> owner(&stream);
    Slot& slot = slots_[stream.slot_];
    slot.stream = nullptr;
    ++slot.generation;
    freeSlots_.push_back(stream.slot_);
    if (spare_.size() < MAX_SPARE) {
        Reuse(stream);
        spare_.push_back(std::move(owner));
    }
}

CVEKHttpResponder CVEKHttpServerShard::MakeResponder(const CVEKHttpServerStream& stream) {
    return {shared_from_this(), stream.slot_, slots_[stream.slot_].generation};
}

CVEKHttpServerStream* CVEKHttpServerShard::FindStream(uint32_t slot, uint32_t generation) const {
    return slots_[slot].generation == generation ? slots_[slot].stream : nullptr;
}
