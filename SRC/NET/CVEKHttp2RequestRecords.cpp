#include "CVEKHttp2RequestRecords.h"

#include <cstring>

#include "CVEKHttp2Link.h"
#include "CVEKLogLimit.h"
#include "VEKHttp2Field.h"
#include "VEKServiceLog.h"
#include "VEKText.h"

namespace {

constexpr int RECEIVING = 1;  // stage of every response record that is not free

}  // namespace

void CVEKHttp2RequestRecords::SetLimits(const VEK_ST_HTTP2_OPTIONS& options) {
    maxPayloadSize_ = options.nMaxPayloadSize_;
    requests_.SetLimits(options.nMaxConcurrentStream_, maxPayloadSize_);
    responsePool_.SetLimits(options.nMaxConcurrentStream_, maxPayloadSize_);
}

void CVEKHttp2RequestRecords::Trim() {
    requests_.Trim();
    responsePool_.Trim();
    requestMap_.get_allocator().Trim();
    responseMap_.get_allocator().Trim();
}

void CVEKHttp2RequestRecords::Reset() {
    responseMap_.clear();
    lastResponse_ = responseMap_.end();
    responseList_.Clear();
    responsePool_.Clear();
    requestMap_.clear();
    timeoutMap_.Clear();
    requests_.Reset();
    Trim();
}

int CVEKHttp2RequestRecords::TakeRequest(bool wait, const CVEKHttp2Link& link,
                                         RequestBox::Lease& record) {
    // Without waiting, a request may be queued before the connection is open.
    const auto isTaken = [&link, wait] {
        return (wait ? link.IsOpen() : link.GetState() != VEK_HTTP2_CONN_STATE_CLOSE) &&
               !link.IsDraining();
    };
    const VEK_HTTP2_TAKE result = requests_.Take(wait, isTaken, record);
    if (result == VEK_HTTP2_TAKE_CLOSED && wait) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) invalid state!...", name_.c_str());
    } else if (result == VEK_HTTP2_TAKE_LATE) {
        const VEK_ST_HTTP2_OUTBOX_COUNTS counts = requests_.GetCounts();
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) request pool full timeout!..", name_.c_str());
        // The map belongs to the driving thread: what is used and not queued is in it.
        VEK_SERVICE_LOG(VEK_LOG_DEBUG, "Pool : %lu,%lu,%lu",
                        static_cast<unsigned long>(counts.free),
                        static_cast<unsigned long>(counts.used - counts.queued),
                        static_cast<unsigned long>(counts.queued));
    }
    return result;
}

void CVEKHttp2RequestRecords::FileRequest(RequestBox::Slot* record) {
    // Two threads that queue at the same moment may do so in the other order.
    timeoutMap_.PushInOrder(
        record, [](const VEK_ST_HTTP2_REQUEST& a, const auto& b) { return a.startT_ < b.startT_; });
    const size_t submitted = requestMap_.size();
    requestMap_.emplace_hint(requestMap_.end(), record->streamId_, record);  // the highest, mostly
    if (requestMap_.size() == submitted) {
        VEK_SERVICE_LOG(VEK_LOG_WARNING, "stream-i(%d) requedtMap duplicate!..", record->streamId_);
    }
}

bool CVEKHttp2RequestRecords::EndRequest(int stream, int32_t& messageId) {
    const auto found = requestMap_.find(stream);
    if (found == requestMap_.end()) {
        return false;
    }
    RequestBox::Slot* record = found->second;
    messageId = record->messageId_;
    if (!timeoutMap_.Remove(record)) {
        LogNoTimeout();
    }
    requestMap_.erase(found);
    requests_.Return(record);
    return true;
}

void CVEKHttp2RequestRecords::DropTimeout(const VEK_ST_HTTP2_REQUEST* record) {
    RequestBox::Slot* found = timeoutMap_.Find(record);
    if (found == nullptr) {
        LogNoTimeout();
        return;
    }
    timeoutMap_.Remove(found);
}

void CVEKHttp2RequestRecords::LogNoTimeout() const {
    VEK_SERVICE_LOG(VEK_LOG_WARNING, "conn(%s) time-out map search failed!...", name_.c_str());
}

void CVEKHttp2RequestRecords::ForgetRequest(RequestBox::Slot* record) {
    if (requestMap_.erase(record->streamId_) == 0) {
        VEK_SERVICE_LOG(VEK_LOG_WARNING, "conn(%s) stream(%d) not found!...", name_.c_str(),
                        record->streamId_);
    }
    DropResponse(record->streamId_);
}

bool CVEKHttp2RequestRecords::InsertResponse(int stream) {
    ResponsePool::Slot* record = TakeResponse(stream);
    if (record == nullptr) {
        return false;
    }
    const size_t begun = responseMap_.size();
    responseMap_.emplace_hint(responseMap_.end(), stream, Receiving{record, 0});
    if (responseMap_.size() == begun) {
        VEK_PEER_LOG(VEK_LOG_ERROR, "conn(%s) stream_id(%d) duplicate...", name_.c_str(), stream);
    }
    return true;
}

bool CVEKHttp2RequestRecords::PutField(int stream, std::string_view name, std::string_view value) {
    const auto found = FindResponse(stream);
    if (found == responseMap_.end()) {
        VEK_PEER_LOG(VEK_LOG_ERROR, "stream_id(%d) not found...", stream);
        return false;
    }
    auto& [record, fields] = found->second;
    if (name == ":status") {
        VEK_COPY_TEXT(record->rs_, value.data());
    } else {
        fields = VEK_HTTP2_PUT_FIELD(record->hdr_, fields, name, value);
    }
    return true;
}

bool CVEKHttp2RequestRecords::PutTrailer(int stream, std::string_view name,
                                         std::string_view value) {
    const auto found = FindResponse(stream);
    if (found != responseMap_.end()) {
        found->second.record->trailers_.emplace_back(name, value);
    }
    return true;
}

bool CVEKHttp2RequestRecords::PutPayload(int stream, const char* data, size_t length) {
    const auto found = FindResponse(stream);
    if (found == responseMap_.end()) {
        VEK_PEER_LOG(VEK_LOG_ERROR, "stream_id(%d) not found...", stream);
        return false;
    }
    VEK_ST_HTTP2_RESPONSE* record = found->second.record;
    VEK_ST_HTTP2_CHUNK_DATA& payload = record->payload_;
    if (length <= maxPayloadSize_ - payload.size_) {
        memcpy(payload.data_ + payload.size_, data, length);
        payload.size_ += length;
        return true;
    }
    if (record->error_ != VEK_HTTP2_ERROR_PAYLOAD_OVERFLOW) {  // once, however much comes
        VEK_PEER_LOG(VEK_LOG_ERROR, "conn(%s) payload buffer overflow!...", name_.c_str());
    }
    if (!isStatusKept_) {
        VEK_COPY_TEXT(record->rs_, NO_STATUS);
    }
    record->error_ = VEK_HTTP2_ERROR_PAYLOAD_OVERFLOW;
    return true;  // the stream goes on and is delivered as failed
}

bool CVEKHttp2RequestRecords::CompleteResponse(int stream) {
    const auto found = FindResponse(stream);
    if (found == responseMap_.end()) {
        VEK_PEER_LOG(VEK_LOG_ERROR, "stream_id(%d) not found...", stream);
        return false;
    }
    const auto [record, fields] = found->second;
    record->hdr_.resize(fields);
    responseList_.Push(record);
    EraseResponse(found);
    return true;
}

bool CVEKHttp2RequestRecords::CompleteReset(int stream, int error) {
    DropResponse(stream);
    ResponsePool::Slot* record = TakeResponse(stream);
    if (record == nullptr) {
        return false;
    }
    record->hdr_.clear();
    record->error_ = error;
    responseList_.Push(record);
    return true;
}

bool CVEKHttp2RequestRecords::IsComplete(int stream) const {
    return FindComplete(stream) != nullptr;
}

CVEKHttp2RequestRecords::ResponsePool::Slot* CVEKHttp2RequestRecords::FindComplete(
    int stream) const {
    ResponsePool::Slot* record = responseList_.GetFirst();
    while (record != nullptr && record->streamId_ != stream) {
        record = record->next;
    }
    return record;
}

void CVEKHttp2RequestRecords::DropComplete(int stream) {
    ResponsePool::Slot* record = FindComplete(stream);
    if (record != nullptr) {
        responseList_.Remove(record);
        responsePool_.Return(record);
    }
}

CVEKHttp2RequestRecords::RequestBox::Slot* CVEKHttp2RequestRecords::FindMessage(
    int32_t messageId) const {
    RequestBox::Slot* record = timeoutMap_.GetFirst();
    while (record != nullptr && record->messageId_ != messageId) {
        record = record->next;
    }
    return record;
}

bool CVEKHttp2RequestRecords::IsAllAnswered() const {
    const LastIds last = lastIds_;
    return last.last_send_stream_id_ == last.last_recv_stream_id_;
}

void CVEKHttp2RequestRecords::SetLastSent(int32_t stream) {
    lastIds_ = LastIds{stream, lastIds_.load().last_recv_stream_id_};
}

void CVEKHttp2RequestRecords::SetLastReceived(int32_t stream) {
    lastIds_ = LastIds{lastIds_.load().last_send_stream_id_, stream};
}

void CVEKHttp2RequestRecords::ClearLast() {
    lastIds_ = LastIds{0, 0};
}

// A free response record for `stream`, emptied but for the fields; null after an Error line when
// there is none.
CVEKHttp2RequestRecords::ResponsePool::Slot* CVEKHttp2RequestRecords::TakeResponse(int stream) {
    ResponsePool::Slot* record = responsePool_.Take(RECEIVING);
    if (record == nullptr) {
        VEK_PEER_LOG(VEK_LOG_ERROR, "conn(%s) response buffer full!...", name_.c_str());
        return nullptr;
    }
    VEK_COPY_TEXT(record->rs_, NO_STATUS);
    VEK_HTTP2_BOUND_FIELDS(record->hdr_);
    record->trailers_.clear();
    record->streamId_ = stream;
    record->payload_.size_ = 0;
    record->error_ = 0;
    return record;
}

// What arrives for a stream mostly comes in a row: the place found last is looked at first.
CVEKHttp2RequestRecords::ResponseMap::iterator CVEKHttp2RequestRecords::FindResponse(int stream) {
    if (lastResponse_ == responseMap_.end() || lastResponse_->first != stream) {
        lastResponse_ = responseMap_.find(stream);
    }
    return lastResponse_;
}

void CVEKHttp2RequestRecords::EraseResponse(ResponseMap::iterator response) {
    responseMap_.erase(response);
    lastResponse_ = responseMap_.end();
}

// Gives the half-received response of a stream back, if there is one.
void CVEKHttp2RequestRecords::DropResponse(int stream) {
    const auto found = FindResponse(stream);
    if (found != responseMap_.end()) {
        responsePool_.Return(found->second.record);
        EraseResponse(found);
    }
}
