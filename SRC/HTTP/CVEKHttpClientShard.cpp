#include "CVEKHttpClientShard.h"

#include <sys/un.h>

#include <algorithm>
#include <cctype>
#include <new>
#include <utility>

#include "VEKHttpBounds.h"
#include "VEKHttpFieldCheck.h"
#include "VEKLoopList.h"
#include "VEKTlsOption.h"

namespace {

constexpr size_t MAX_FREE = 256;  // exchanges that the loop's thread keeps to itself
constexpr int MAX_PORT = 65535;
constexpr int HTTP_PORT = 80;
constexpr int HTTPS_PORT = 443;

VEK_ST_HTTP_FAILURE MakeFailure(VEK_HTTP_REASON reason, std::string text) {
    VEK_ST_HTTP_FAILURE failure;
    failure.reason_ = reason;
    failure.text_ = std::move(text);
    return failure;
}

VEK_ST_HTTP_CLIENT_OPTIONS Bound(VEK_ST_HTTP_CLIENT_OPTIONS options) {
    options.settings_ = VEK_HTTP_BOUND_SETTINGS(options.settings_);
    options.connections_ = std::max<size_t>(options.connections_, 1);
    options.streams_ = std::clamp(options.streams_, 1U, VEK_HTTP_MAX_STREAMS);
    options.attempts_ = std::max(options.attempts_, 1U);
    return options;
}

std::string JoinHost(const std::string& host, int port) {
    const bool isV6 = host.find(':') != std::string::npos;
    return (isV6 ? "[" + host + "]" : host) + ":" + std::to_string(port);
}

bool IsTargetUsable(const VEK_ST_HTTP_TARGET& target) {
    if (!target.unixPath_.empty()) {
        return target.unixPath_.size() < sizeof(sockaddr_un::sun_path);
    }
    const int family = target.family_;
    return !target.host_.empty() && target.port_ != 0 &&
           (family == 0 || family == 4 || family == 6);
}

// Takes "host", "host:port" or "[v6]:port" apart. False where it is none.
bool SplitAuthority(std::string text, std::string& host, int& port) {
    const size_t end = text.find_last_of("]:");
    if (end != std::string::npos && text[end] == ':') {
        const std::string digits = text.substr(end + 1);
        if (digits.empty() || digits.size() > 5 ||
            !std::all_of(digits.begin(), digits.end(),
                         [](unsigned char c) { return isdigit(c); })) {
            return false;
        }
        port = std::stoi(digits);
        text.resize(end);
    }
    if (text.size() > 2 && text.front() == '[' && text.back() == ']') {
        text = text.substr(1, text.size() - 2);
    } else if (text.find_first_of(":[]@") != std::string::npos) {
        return false;
    }
    host = text;
    return !host.empty() && port > 0 && port <= MAX_PORT;
}

}  // namespace

CVEKHttpClientShard::CVEKHttpClientShard(std::shared_ptr<CVEKLoopCore> loop,
                                         std::shared_ptr<const VEK_ST_HTTP_CLIENT_OPTIONS> options)
    : loop_(std::move(loop)), options_(std::move(options)) {}

CVEKHttpClientShard::~CVEKHttpClientShard() = default;

CVEKHttpClientExchange& CVEKHttpClientShard::Acquire() {
    if (loop_->IsCurrent() && !free_.IsEmpty()) {
        return free_.PopFront();
    }
    const std::lock_guard<std::mutex> guard(mutex_);
    if (!returned_.IsEmpty()) {
        return returned_.PopFront();
    }
    all_.push_back(std::make_unique<CVEKHttpClientExchange>());
    all_.back()->response_.status_ = 0;
    return *all_.back();
}

void CVEKHttpClientShard::Release(CVEKHttpClientExchange& exchange) {
    exchange.Reuse();
    if (loop_->IsCurrent() && free_.GetSize() < MAX_FREE) {
        free_.PushFront(exchange);
        return;
    }
    const std::lock_guard<std::mutex> guard(mutex_);
    returned_.PushFront(exchange);
}

void CVEKHttpClientShard::Post(CVEKHttpClientExchange& exchange) {
    if (loop_->IsCurrent()) {
        Submit(exchange);
        return;
    }
    exchange.shard_ = shared_from_this();
    loop_->Post(static_cast<CVEKLoopTask*>(&exchange));
}

void CVEKHttpClientShard::AddTarget(std::shared_ptr<const CVEKHttpClientTarget> target,
                                    const std::vector<size_t>& slots) {
    if (slots.empty()) {
        groups_.push_back(nullptr);
    } else {
        groups_.push_back(
            std::make_unique<CVEKHttpClientGroup>(*this, *target, groups_.size(), slots));
    }
    targets_.push_back(std::move(target));
}

void CVEKHttpClientShard::Connect() {
    for (const auto& group : groups_) {
        if (group != nullptr) {
            group->Connect();
        }
    }
}

void CVEKHttpClientShard::Submit(CVEKHttpClientExchange& exchange) {
    const VEK_ST_HTTP_CALL_OPTIONS& options = exchange.GetOptions();
    const size_t target = options.target_;
    const std::chrono::milliseconds own = options.timeout_;
    const std::chrono::milliseconds time = own.count() > 0 ? own : options_->responseTime_;
    exchange.deadline_ =
        time.count() > 0 ? loop_->GetNow() + static_cast<uint64_t>(time.count()) : UINT64_MAX;
    const char* fault = exchange.prepared_ != nullptr ? exchange.prepared_->GetFault()
                                                      : VEK_HTTP_FIND_FAULT(exchange.request_);
    if (hasEnded_) {
        Fail(exchange, VEK_HTTP_REASON::CLOSED, "the client has ended", true);
    } else if (exchange.isCancelled_) {  // on its way here
        Fail(exchange, VEK_HTTP_REASON::CANCELLED, "cancelled", true);
    } else if (target >= groups_.size() || groups_[target] == nullptr) {
        Fail(exchange, VEK_HTTP_REASON::INVALID, "there is no such target", false);
    } else if (fault != nullptr) {
        Fail(exchange, VEK_HTTP_REASON::INVALID, fault, false);
    } else {
        try {
            groups_[target]->Submit(exchange);
        } catch (const std::bad_alloc&) {
            GiveUp(exchange, VEK_HTTP_REASON::MEMORY, "memory has run out");
        }
    }
}

void CVEKHttpClientShard::Complete(CVEKHttpClientExchange& exchange) {
    exchange.state_ = CVEKHttpClientExchange::ENDING;
    VEK_ST_HTTP_RESPONSE& response = exchange.response_;
    ++(response.failure_ ? counters_.failed : counters_.succeeded);
    if (response.times_.ended_ == VEK_ST_HTTP_TIMES::Time()) {
        response.times_.ended_ = std::chrono::steady_clock::now();
    }
    const CVEKHttpClient::Handler handler = std::move(exchange.handler_);
    try {
        if (exchange.sink_ != nullptr) {
            exchange.sink_->OnResponse(exchange.tag_, response);
        } else if (handler) {
            handler(response);
        }
    } catch (const std::bad_alloc&) {
        // It was told; what it had no memory for is its own matter.
    }
    Release(exchange);
}

void CVEKHttpClientShard::Fail(CVEKHttpClientExchange& exchange, VEK_HTTP_REASON reason,
                               std::string_view text, bool isRepeatable) {
    exchange.state_ = CVEKHttpClientExchange::ENDING;
    exchange.NoteFailure(reason, text, isRepeatable);
    failing_.PushBack(exchange);
    loop_->Mark(*this);
}

void CVEKHttpClientShard::OnSettle() {
    for (size_t count = failing_.GetSize(); count > 0; --count) {
        CVEKHttpClientExchange& exchange = failing_.PopFront();
        if (exchange.GetConnection() != nullptr) {
            static_cast<CVEKHttpClientConnection*>(exchange.GetConnection())->Abort(exchange);
        }
        Complete(exchange);
    }
}

void CVEKHttpClientShard::GiveUp(CVEKHttpClientExchange& exchange, VEK_HTTP_REASON reason,
                                 const char* text) {
    switch (exchange.state_) {
        case CVEKHttpClientExchange::WAITING:
            groups_[exchange.GetOptions().target_]->Remove(exchange);
            break;
        case CVEKHttpClientExchange::FLYING:
            exchange.StopBody();
            break;
        default:
            return;
    }
    Fail(exchange, reason, text, exchange.response_.attempts_ == 0 || exchange.IsIdempotent());
}

void CVEKHttpClientShard::Cancel(CVEKHttpClientExchange& exchange) {
    exchange.isCancelled_ = true;
    GiveUp(exchange, VEK_HTTP_REASON::CANCELLED, "cancelled");
}

void CVEKHttpClientShard::OnLoopEnd() {
    for (const auto& group : groups_) {
        if (group != nullptr) {
            group->End();
        }
    }
    OnSettle();
}

void CVEKHttpClientShard::CountBytes(uint64_t& sent, uint64_t& received) {
    for (const auto& group : groups_) {
        if (group != nullptr) {
            group->CountBytes(sent, received);
        }
    }
}

void CVEKHttpClientShard::End() {
    hasEnded_ = true;
    const std::shared_ptr<CVEKHttpClientShard> guard = shared_from_this();
    OnLoopEnd();
    FinishWhenEnded();
    groups_.clear();
    loop_->Leave(*this);
}

void CVEKHttpClientShard::FinishWhenEnded() {
    if (hasEnded_) {
        while (!failing_.IsEmpty()) {  // handlers may have sent more
            OnSettle();
        }
        loop_->Unmark(*this);
    }
}

CVEKHttpClientCore::CVEKHttpClientCore(std::vector<std::shared_ptr<CVEKLoopCore>> loops,
                                       VEK_ST_HTTP_CLIENT_OPTIONS options)
    : options_(std::make_shared<const VEK_ST_HTTP_CLIENT_OPTIONS>(Bound(std::move(options)))) {
    const auto numbers = std::make_shared<std::atomic<uint64_t>>(0);
    for (auto& loop : loops) {
        shards_.push_back(std::make_shared<CVEKHttpClientShard>(std::move(loop), options_));
        shards_.back()->SetNumbers(numbers);
    }
    VEK_ENTER_LOOPS(shards_, [this] { End(); });
}

VEK_ST_HTTP_FAILURE CVEKHttpClientCore::AddTarget(const VEK_ST_HTTP_TARGET& options) {
    if (!IsTargetUsable(options)) {
        return MakeFailure(VEK_HTTP_REASON::INVALID,
                           "a target needs a host and a port, or the path of a Unix socket");
    }
    const auto target = std::make_shared<CVEKHttpClientTarget>();
    target->options_ = options;
    std::string error;
    if (options.tls_ != nullptr && !target->tls_.CreateClient(*options.tls_, error)) {
        return MakeFailure(VEK_HTTP_REASON::TLS, error);
    }
    const std::string host = options.host_.empty() ? "localhost" : options.host_;
    target->name_ = options.name_.empty() && options.context_ == nullptr ? host : options.name_;
    target->text_ = options.unixPath_.empty() ? JoinHost(host, options.port_) : options.unixPath_;
    target->authority_ = !options.authority_.empty() ? options.authority_
                         : options.unixPath_.empty() ? target->text_
                                                     : host;
    const size_t count = options_->connections_;
    for (size_t i = 0; i < shards_.size(); ++i) {
        std::vector<size_t> slots;
        for (size_t slot = 0; slot < count; ++slot) {
            if ((slot + targets_.size()) % shards_.size() == i) {
                slots.push_back(slot);
            }
        }
        CVEKHttpClientShard& shard = *shards_[i];
        shard.GetLoop()->Invoke([&] { shard.AddTarget(target, slots); });
    }
    targets_.push_back(target);
    return {};
}

VEK_ST_HTTP_FAILURE CVEKHttpClientCore::AddTarget(const std::string& url) {
    const bool isTls = url.rfind("https://", 0) == 0;
    VEK_ST_HTTP_TARGET target;
    int port = isTls ? HTTPS_PORT : HTTP_PORT;
    if (!isTls && url.rfind("http://", 0) != 0) {
        return MakeFailure(VEK_HTTP_REASON::INVALID, "\"" + url + "\" is no http or https URL");
    }
    std::string authority = url.substr(url.find("//") + 2);
    authority.resize(std::min(authority.find_first_of("/?#"), authority.size()));
    if (!SplitAuthority(authority, target.host_, port)) {
        return MakeFailure(VEK_HTTP_REASON::INVALID, "\"" + url + "\" has no usable host and port");
    }
    target.port_ = static_cast<uint16_t>(port);
    target.authority_ = authority;
    if (isTls) {
        target.tls_ = std::make_shared<VEK_ST_TLS_OPTIONS>();
    }
    return AddTarget(target);
}

void CVEKHttpClientCore::Connect() {
    for (const auto& shard : shards_) {
        shard->GetLoop()->Post([shard] { shard->Connect(); });
    }
}

// The shard of the calling thread's loop, where it has connections to the target; else each in
// turn.
CVEKHttpClientShard& CVEKHttpClientCore::Choose(size_t target) {
    const size_t count = shards_.size();
    const size_t used = std::min(options_->connections_, count);
    for (size_t i = 0; i < used; ++i) {
        CVEKHttpClientShard& shard = *shards_[(i + target) % count];
        if (shard.GetLoop()->IsCurrent()) {
            return shard;
        }
    }
    return *shards_[(turn_.fetch_add(1, std::memory_order_relaxed) % used + target) % count];
}

CVEKHttpCall CVEKHttpClientCore::Send(VEK_ST_HTTP_REQUEST&& request,
                                      CVEKHttpClient::Handler&& handler,
                                      VEK_ST_HTTP_CALL_OPTIONS&& options) {
    CVEKHttpClientShard& shard = Choose(options.target_);
    CVEKHttpClientExchange& exchange = shard.Acquire();
    exchange.request_ = std::move(request);
    exchange.handler_ = std::move(handler);
    exchange.options_ = std::move(options);
    return Begin(shard, exchange);
}

VEK_HTTP_PREPARED CVEKHttpClientCore::Prepare(VEK_ST_HTTP_REQUEST&& request,
                                              VEK_ST_HTTP_CALL_OPTIONS&& options) const {
    const bool isKnown = options.target_ < targets_.size();  // else it fails when it is sent
    std::shared_ptr<const CVEKHttpClientTarget> target =
        isKnown ? targets_[options.target_] : nullptr;
    return std::make_shared<const CVEKHttpPrepared>(std::move(request), std::move(options),
                                                    std::move(target));
}

CVEKHttpCall CVEKHttpClientCore::Send(const VEK_HTTP_PREPARED& request, CVEKHttpSink& sink,
                                      uint64_t tag) {
    CVEKHttpClientShard& shard = Choose(request->GetOptions().target_);
    CVEKHttpClientExchange& exchange = shard.Acquire();
    exchange.prepared_ = request;
    exchange.sink_ = &sink;
    exchange.tag_ = tag;
    if (!request->GetRequest().trailers_.IsEmpty()) {
        exchange.request_.trailers_ = request->GetRequest().trailers_;
    }
    return Begin(shard, exchange);
}

CVEKHttpCall CVEKHttpClientCore::Begin(CVEKHttpClientShard& shard,
                                       CVEKHttpClientExchange& exchange) {
    exchange.response_.times_.begun_ = std::chrono::steady_clock::now();
    CVEKHttpCall call(shard.shared_from_this(), &exchange, exchange.generation_);
    shard.Post(exchange);
    return call;
}

void CVEKHttpClientCore::End() {
    for (const auto& shard : shards_) {
        shard->GetLoop()->Invoke([&shard = *shard] { shard.End(); });
    }
}

VEK_ST_HTTP_CLIENT_COUNTERS CVEKHttpClientCore::GetCounters() const {
    VEK_ST_HTTP_CLIENT_COUNTERS sum;
    for (const auto& shard : shards_) {
        const CVEKHttpClientShard::Counters& part = shard->GetCounters();
        sum.connections_ += part.connections.Get();
        sum.opened_ += part.opened.Get();
        sum.connectFailed_ += part.connectFailed.Get();
        sum.waiting_ += part.waiting.Get();
        sum.flying_ += part.flying.Get();
        sum.sent_ += part.sent.Get();
        sum.repeated_ += part.repeated.Get();
        sum.succeeded_ += part.succeeded.Get();
        sum.failed_ += part.failed.Get();
    }
    return sum;
}

void CVEKHttpClientCore::CountBytes(uint64_t& sent, uint64_t& received) const {
    sent = received = 0;
    for (const auto& shard : shards_) {
        if (shard->GetLoop()->IsCurrent()) {
            shard->CountBytes(sent, received);
        }
    }
}
