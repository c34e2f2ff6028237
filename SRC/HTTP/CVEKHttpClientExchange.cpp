#include "CVEKHttpClientExchange.h"

#include <new>
#include <utility>

#include "CVEKHttpClientShard.h"
#include "VEKHttpReuse.h"

void CVEKHttpClientExchange::Run() {
    const std::shared_ptr<CVEKHttpClientShard> shard = std::move(shard_);
    shard->Submit(*this);
    shard->FinishWhenEnded();
}

void CVEKHttpClientExchange::Drop() {
    const std::shared_ptr<CVEKHttpClientShard> shard = std::move(shard_);
    NoteFailure(VEK_HTTP_REASON::CLOSED, "the loop has ended", true);
    shard->Complete(*this);
}

void CVEKHttpClientExchange::NoteFailure(VEK_HTTP_REASON reason, std::string_view text,
                                         bool isRepeatable) {
    VEK_ST_HTTP_FAILURE& failure = response_.failure_;
    failure.reason_ = reason;
    failure.isRepeatable_ = isRepeatable;
    try {
        failure.text_ = text;
    } catch (const std::bad_alloc&) {
        failure.text_.clear();
    }
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
    VEK_HTTP_REUSE(response_.body_.EditText());
    for (CVEKHttpFields* fields : {&response_.fields_, &response_.trailers_, &informational_}) {
        VEK_HTTP_REUSE(*fields);
    }
    if (response_.failure_) {
        response_.failure_ = VEK_ST_HTTP_FAILURE();
    }
    response_.times_ = VEK_ST_HTTP_TIMES();
    response_.status_ = 0;
    response_.bodyBytes_ = response_.informational_ = 0;
    response_.attempts_ = 0;
    response_.connection_ = 0;
    response_.slot_ = 0;
    VEK_HTTP_REUSE(request_.body_.EditText());
    DropPiece();
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
