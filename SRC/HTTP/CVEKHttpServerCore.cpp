#include "CVEKHttpServerCore.h"

#include <unistd.h>

#include <algorithm>
#include <future>
#include <utility>

CVEKHttpServerCore::CVEKHttpServerCore(std::vector<std::shared_ptr<CVEKLoopCore>> loops,
                                       VEK_ST_HTTP_SERVER_OPTIONS options)
    : options_(std::move(options)) {
    for (auto& loop : loops) {
        shards_.push_back(std::make_shared<CVEKHttpServerShard>(*this, std::move(loop)));
        CVEKHttpServerShard& shard = *shards_.back();
        shard.GetLoop()->Invoke([&shard] { shard.Enter(); });
    }
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
    bool isStarted = false;
    listener->GetLoop().Invoke([&] {
        isStarted = listener->Start();
        if (isStarted) {
            const std::lock_guard<std::mutex> guard(mutex_);
            listeners_.push_back(std::move(listener));
            ports_.push_back(port);
        }
    });
    if (!isStarted) {
        failure.reason_ = VEK_HTTP_REASON::SYSTEM;
        failure.text_ = "listener cannot be watched";
    }
    return failure;
}

uint16_t CVEKHttpServerCore::GetPort(size_t listener) const {
    const std::lock_guard<std::mutex> guard(mutex_);
    return listener < ports_.size() ? ports_[listener] : uint16_t{0};
}

bool CVEKHttpServerCore::Admit(const std::string& address) {
    if (++connections_ > options_.connections_ && options_.connections_ > 0) {
        return false;
    }
    if (options_.connectionsPerPeer_ == 0 || address.empty()) {
        return true;
    }
    const std::lock_guard<std::mutex> guard(mutex_);
    return ++peers_[address] <= options_.connectionsPerPeer_;
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
        NoteGone(address);
        close(fd);
        return;
    }
    CVEKHttpServerShard& shard = **std::min_element(
        shards_.begin(), shards_.end(),
        [](const auto& a, const auto& b) { return a->GetLoad() < b->GetLoad(); });
    shard.AddLoad();
    const uint64_t number = ++numbers_;
    if (shard.GetLoop()->IsCurrent()) {
        shard.Accept(fd, ctx, number, std::move(peer), std::move(address));
        return;
    }
    if (ctx != nullptr) {
        SSL_CTX_up_ref(ctx);
    }
    shard.GetLoop()->Post([shard = shard.shared_from_this(), fd, ctx, number,
                           peer = std::move(peer), address = std::move(address)] {
        shard->Accept(fd, ctx, number, peer, address);
        SSL_CTX_free(ctx);
    });
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
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        if (isDraining_) {
            return;
        }
        isDraining_ = true;
        draining_ = shards_.size();
        done_ = std::move(done);
    }
    CVEKHttpServerShard& first = *shards_.front();
    // Behind what the listeners have handed over.
    first.GetLoop()->Post([this, limit, guard = first.shared_from_this()] {
        CloseListeners();
        for (const auto& shard : shards_) {
            shard->GetLoop()->Post([shard, limit] { shard->Drain(limit); });
        }
    });
}

void CVEKHttpServerCore::NoteDrained(bool wasWhole) {
    std::function<void()> done;
    {
        const std::lock_guard<std::mutex> guard(mutex_);
        wasWhole_ = wasWhole_ && wasWhole;
        if (draining_ == 0 || --draining_ > 0) {
            return;
        }
        done = std::move(done_);
    }
    if (done) {
        done();
    }
}

bool CVEKHttpServerCore::Stop(std::chrono::milliseconds limit) {
    auto over = std::make_shared<std::promise<void>>();
    std::future<void> future = over->get_future();
    Drain(limit, [over] { over->set_value(); });
    over.reset();
    // Broken where a drain was under way before, or a loop has ended: then so has its work.
    future.wait_for(limit + std::chrono::seconds(1));
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
        sum.connections_ += part.connections;
        sum.streams_ += part.streams;
        sum.accepted_ += part.accepted;
        sum.up_ += part.up;
        sum.evicted_ += part.evicted;
        sum.abused_ += part.abused;
        sum.requests_ += part.requests;
        sum.answered_ += part.answered;
        sum.refused_ += part.refused;
        sum.failed_ += part.failed;
        sum.reset_ += part.reset;
    }
    sum.accepted_ += tooMany_;
    sum.tooMany_ = tooMany_;
    sum.pauses_ = pauses_;
    return sum;
}
