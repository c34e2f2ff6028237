#include "CVEKHttpServerCore.h"

#include <unistd.h>

#include <algorithm>
#include <future>
#include <new>
#include <utility>

#include "VEKHttpBounds.h"
#include "VEKLoopList.h"

namespace {

constexpr std::chrono::hours MAX_STOP(24 * 365);
constexpr std::chrono::seconds STOP_SLACK(1);  // beside the time that a drain may take

VEK_ST_HTTP_SERVER_OPTIONS Bound(VEK_ST_HTTP_SERVER_OPTIONS options, size_t loops) {
    options.settings_ = VEK_HTTP_BOUND_SETTINGS(options.settings_);
    options.streams_ = std::clamp(options.streams_, 1U, VEK_HTTP_MAX_STREAMS);
    const size_t share = std::max<size_t>(options.handshakes_ / loops, 1);
    options.handshakes_ = options.handshakes_ == 0 ? SIZE_MAX : share;  // on each loop
    return options;
}

// A connection on its way to its loop.
class AcceptTask : public CVEKLoopTask {
  public:
    AcceptTask(CVEKHttpServerShard& shard, int fd, SSL_CTX* ctx, uint64_t number, std::string peer,
               std::string address)
        : shard_(shard.shared_from_this()),
          fd_(fd),
          ctx_(ctx),
          number_(number),
          peer_(std::move(peer)),
          address_(std::move(address)) {
        if (ctx != nullptr) {
            SSL_CTX_up_ref(ctx);
        }
    }
    ~AcceptTask() override { SSL_CTX_free(ctx_); }
    AcceptTask(const AcceptTask&) = delete;
    AcceptTask& operator=(const AcceptTask&) = delete;
    void Run() override {
        const std::unique_ptr<AcceptTask> owner(this);
        shard_->Accept(fd_, ctx_, number_, std::move(peer_), address_);
    }
    void Drop() override {
        const std::unique_ptr<AcceptTask> owner(this);
        shard_->Refuse(fd_, address_);
    }

  private:
    std::shared_ptr<CVEKHttpServerShard> shard_;
    const int fd_;
    SSL_CTX* const ctx_;
    const uint64_t number_;
    std::string peer_;
    const std::string address_;
};

}  // namespace

CVEKHttpServerCore::CVEKHttpServerCore(std::vector<std::shared_ptr<CVEKLoopCore>> loops,
                                       VEK_ST_HTTP_SERVER_OPTIONS options)
    : options_(Bound(std::move(options), loops.size())) {
    for (auto& loop : loops) {
        shards_.push_back(std::make_shared<CVEKHttpServerShard>(*this, std::move(loop)));
    }
    VEK_ENTER_LOOPS(shards_, [this] { End(); });
}

CVEKHttpServerCore::~CVEKHttpServerCore() {
    End();
}

VEK_ST_HTTP_FAILURE CVEKHttpServerCore::Listen(const VEK_ST_HTTP_LISTENER& options) {
    auto listener = std::make_unique<CVEKHttpListener>(*this, shards_.front()->GetLoop());
    VEK_ST_HTTP_FAILURE failure = listener->Open(options);
    if (failure) {
        return failure;
    }
    const uint16_t port = listener->GetPort();
    listener->GetLoop().Invoke([&] {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (isDraining_) {
            failure.reason_ = VEK_HTTP_REASON::CLOSED;
            failure.text_ = "the server is about to end";
        } else if (!listener->Start()) {
            failure.reason_ = VEK_HTTP_REASON::SYSTEM;
            failure.text_ = "listener cannot be watched";
        } else {
            listeners_.push_back(std::move(listener));
            ports_.push_back(port);
        }
        listener.reset();
    });
    return failure;
}

uint16_t CVEKHttpServerCore::GetPort(size_t listener) const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return listener < ports_.size() ? ports_[listener] : uint16_t{0};
}

// Counts a connection, unless the limits leave no room for it.
bool CVEKHttpServerCore::Admit(const std::string& address) {
    if (++connections_ > options_.connections_ && options_.connections_ > 0) {
        --connections_;  // the peer's own were not counted yet
        return false;
    }
    if (CountOfPeer(address)) {
        return true;
    }
    NoteGone(address);
    return false;
}

bool CVEKHttpServerCore::CountOfPeer(const std::string& address) {
    if (options_.connectionsPerPeer_ == 0 || address.empty()) {
        return true;
    }
    const std::lock_guard<std::mutex> guard(mutex_);
    try {
        return ++peers_[address] <= options_.connectionsPerPeer_;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

void CVEKHttpServerCore::NoteGone(const std::string& address) {
    --connections_;
    if (options_.connectionsPerPeer_ == 0 || address.empty()) {
        return;
    }
    const std::lock_guard<std::mutex> guard(mutex_);
    const auto found = peers_.find(address);
    if (found != peers_.end() && --found->second == 0) {
        peers_.erase(found);
    }
}

void CVEKHttpServerCore::Take(int fd, SSL_CTX* ctx, std::string peer, std::string address) {
    if (!Admit(address)) {
        ++tooMany_;
        close(fd);
        return;
    }
    CVEKHttpServerShard& shard = **std::min_element(
        shards_.begin(), shards_.end(),
        [](const auto& a, const auto& b) { return a->GetLoad() < b->GetLoad(); });
    shard.AddLoad();
    const uint64_t number = ++numbers_;
    if (shard.GetLoop()->IsCurrent()) {
        shard.Accept(fd, ctx, number, std::move(peer), address);
        return;
    }
    try {
        auto task = std::make_unique<AcceptTask>(shard, fd, ctx, number, std::move(peer),
                                                 std::move(address));
        shard.GetLoop()->Post(task.release());
    } catch (const std::bad_alloc&) {  // before the texts were moved
        // cppcheck-suppress accessMoved
        shard.Refuse(fd, address);
    }
}

void CVEKHttpServerCore::CloseListeners() {
    std::vector<std::unique_ptr<CVEKHttpListener>> listeners;
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        listeners.swap(listeners_);
    }
    if (!listeners.empty()) {
        listeners.front()->GetLoop().Invoke([&] { listeners.clear(); });
    }
}

void CVEKHttpServerCore::Drain(std::chrono::milliseconds limit, std::function<void()> done) {
    CVEKHttpServerShard& first = *shards_.front();
    bool isFirst = false;
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        isFirst = !isDraining_;
        if (done && (isFirst || draining_ > 0)) {
            done_.push_back(std::exchange(done, nullptr));
        }
        draining_ = isFirst ? shards_.size() : draining_;
        isDraining_ = true;
    }
    if (!isFirst) {
        if (done) {  // it is over
            first.GetLoop()->Post(std::move(done));
        }
        return;
    }
    // Behind what the listeners have handed over.
    first.GetLoop()->Post([this, limit, guard = first.shared_from_this()] {
        CloseListeners();
        for (const auto& shard : shards_) {
            shard->PostDrain(limit);
        }
    });
}

void CVEKHttpServerCore::NoteDrained(bool wasWhole) {
    std::vector<std::function<void()>> done;
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        wasWhole_ = wasWhole_ && wasWhole;
        if (draining_ == 0 || --draining_ > 0) {
            return;
        }
        done.swap(done_);
    }
    for (const std::function<void()>& work : done) {
        work();
    }
}

bool CVEKHttpServerCore::Stop(std::chrono::milliseconds limit) {
    auto over = std::make_shared<std::promise<void>>();
    std::future<void> future = over->get_future();
    Drain(limit, [over] { over->set_value(); });
    over.reset();
    // Broken where a loop has ended: then so has its work.
    future.wait_for(std::min<std::chrono::milliseconds>(limit, MAX_STOP) + STOP_SLACK);
    const std::lock_guard<std::mutex> guard(mutex_);
    return wasWhole_ && draining_ == 0;
}

void CVEKHttpServerCore::End() {
    CloseListeners();
    for (const auto& shard : shards_) {
        shard->GetLoop()->Invoke([&shard = *shard] { shard.End(); });
    }
}

VEK_ST_HTTP_SERVER_COUNTERS CVEKHttpServerCore::GetCounters() const {
    VEK_ST_HTTP_SERVER_COUNTERS sum;
    for (const auto& shard : shards_) {
        const CVEKHttpServerShard::Counters& part = shard->GetCounters();
        sum.connections_ += part.connections.Get();
        sum.streams_ += part.streams.Get();
        sum.accepted_ += part.accepted.Get();
        sum.up_ += part.up.Get();
        sum.evicted_ += part.evicted.Get();
        sum.abused_ += part.abused.Get();
        sum.requests_ += part.requests.Get();
        sum.answered_ += part.answered.Get();
        sum.refused_ += part.refused.Get();
        sum.failed_ += part.failed.Get();
        sum.reset_ += part.reset.Get();
    }
    sum.accepted_ += tooMany_;
    sum.tooMany_ = tooMany_;
    sum.pauses_ = pauses_;
    return sum;
}
