#include "CVEKHttpClientExchange.h"

#include <utility>

#include "CVEKHttpClientShard.h"

namespace {

constexpr size_t MAX_KEPT_SIZE = 8192;  // of a text, for the next use

void ReuseText(std::string& text) {
    if (text.capacity() > MAX_KEPT_SIZE) {
        std::string().swap(text);
    }
    text.clear();
}

}  // namespace

void CVEKHttpClientExchange::Run() {
    const std::shared_ptr<CVEKHttpClientShard> shard = std::move(shard_);
    shard->Submit(*this);
    shard->FinishWhenEnded();
}

void CVEKHttpClientExchange::Drop() {
    const std::shared_ptr<CVEKHttpClientShard> shard = std::move(shard_);
    response_.failure_.reason_ = VEK_HTTP_REASON::CLOSED;
    response_.failure_.text_ = "the loop has ended";
    shard->Complete(*this);
}

bool CVEKHttpClientExchange::IsIdempotent() const {
    for (const char* name : {"GET", "HEAD", "PUT", "DELETE", "OPTIONS", "TRACE"}) {
        if (GetRequest().method_ == name) {
            return true;
        }
    }
    return false;
}

void CVEKHttpClientExchange::Reuse() {
    ++generation_;
    state_ = FREE;
    ReuseText(response_.body_.EditText());
    response_.fields_.Clear();
    response_.trailers_.Clear();
    if (response_.failure_) {
        response_.failure_ = VEK_ST_HTTP_FAILURE();
    }
    response_.times_ = VEK_ST_HTTP_TIMES();
    response_.status_ = 0;
    response_.bodyBytes_ = response_.informational_ = 0;
    response_.attempts_ = 0;
    response_.connection_ = 0;
    response_.slot_ = 0;
    request_.body_.Clear();
    request_.trailers_.Clear();
    if (prepared_ == nullptr) {
        options_ = VEK_ST_HTTP_CALL_OPTIONS();
        handler_ = nullptr;
    }
    prepared_.reset();
    sink_ = nullptr;
    connectFailures_ = 0;
    isComplete_ = isHandedOver_ = isCancelled_ = false;
}

void CVEKHttpClientQueue::PushBack(CVEKHttpClientExchange& exchange) {
    exchange.next_ = nullptr;
    exchange.previous_ = last_;
    (last_ != nullptr ? last_->next_ : first_) = &exchange;
    last_ = &exchange;
    ++size_;
}

void CVEKHttpClientQueue::PushFront(CVEKHttpClientExchange& exchange) {
    exchange.previous_ = nullptr;
    exchange.next_ = first_;
    (first_ != nullptr ? first_->previous_ : last_) = &exchange;
    first_ = &exchange;
    ++size_;
}

void CVEKHttpClientQueue::Remove(CVEKHttpClientExchange& exchange) {
    (exchange.previous_ != nullptr ? exchange.previous_->next_ : first_) = exchange.next_;
    (exchange.next_ != nullptr ? exchange.next_->previous_ : last_) = exchange.previous_;
    --size_;
}
