#include "CVEKHttp2ResponseRecords.h"

#include "CVEKLogLimit.h"
#include "VEKServiceLog.h"
#include "VEKText.h"

namespace {

constexpr int RECEIVED = 1;  // stage of every request record that is not free

}  // namespace

void CVEKHttp2ResponseRecords::SetLimits(const VEK_ST_HTTP2_OPTIONS& options) {
    requestPool_.SetLimits(options.nMaxConcurrentStream_, options.nMaxPayloadSize_);
    responses_.SetLimits(options.nMaxConcurrentStream_, options.nMaxPayloadSize_);
}

void CVEKHttp2ResponseRecords::Trim() {
    responses_.Trim();
    requestPool_.Trim();
    requestMap_.get_allocator().Trim();
    requestList_.get_allocator().Trim();
    responseMap_.get_allocator().Trim();
}

void CVEKHttp2ResponseRecords::Reset() {
    responseMap_.clear();
    responses_.Reset();
    requestMap_.clear();
    lastRequest_ = requestMap_.end();
    requestList_.clear();
    requestPool_.Clear();
    Trim();
}

bool CVEKHttp2ResponseRecords::CreateRequest(int streamId) {
    if (requestPool_.IsExhausted()) {
        VEK_PEER_LOG(VEK_LOG_WARNING, "conn(%s) stream buffer full!...%d %lu..try more allocate",
                     name_.c_str(), streamId, static_cast<unsigned long>(requestMap_.size()));
    }
    Request* request = requestPool_.TakeBeyond(RECEIVED);
    if (request == nullptr) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%%) memory allocate failed...");  // no name: meant
        return false;
    }
    return InsertRequest(streamId, request);
}

bool CVEKHttp2ResponseRecords::CreateUpgradeRequest(int streamId) {
    Request* request = requestPool_.Take(RECEIVED);
    if (request == nullptr) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%%) memory allocate failed...");  // no name: meant
        return false;
    }
    return InsertRequest(streamId, request);
}

// Files an emptied record under its stream, or gives it back where the stream has one.
bool CVEKHttp2ResponseRecords::InsertRequest(int streamId, Request* request) {
    request->New(streamId);
    if (requestMap_.emplace(streamId, request).second) {
        return true;
    }
    VEK_SERVICE_LOG(VEK_LOG_ERROR, "conn(%s) stream_id(%d) duplicate!....", name_.c_str(),
                    streamId);
    requestPool_.Return(request);
    return false;
}

CVEKHttp2StreamData* CVEKHttp2ResponseRecords::FindRequest(int streamId) {
    const auto found = Find(streamId);
    return found == requestMap_.end() ? nullptr : found->second;
}

// What arrives for a stream mostly comes in a row: the place found last is looked at first.
CVEKHttp2ResponseRecords::RequestMap::iterator CVEKHttp2ResponseRecords::Find(int streamId) {
    if (lastRequest_ == requestMap_.end() || lastRequest_->first != streamId) {
        lastRequest_ = requestMap_.find(streamId);
    }
    return lastRequest_;
}

void CVEKHttp2ResponseRecords::ListRequest(int streamId) {
    Request* request = Find(streamId)->second;
    requestList_.push_back(request);
    request->SetListed(true);
}

bool CVEKHttp2ResponseRecords::TakeRequest(VEK_ST_HTTP2_REQUEST_RECV& out) {
    if (requestList_.empty()) {
        return false;
    }
    Request* request = requestList_.front();
    requestList_.pop_front();
    request->SetListed(false);
    out.streamId_ = request->GetStreamID();
    out.hdr_ = request->GetRequestHeader();
    out.size_ = request->GetRequestPayload(&out.data_);
    out.error_ = request->GetError();
    request->SetTimeout();
    if (FindRequest(out.streamId_) == nullptr) {
        requestPool_.Return(request);  // as it is, until a stream takes it
    }
    return true;
}

bool CVEKHttp2ResponseRecords::DropRequest(int streamId) {
    const auto found = Find(streamId);
    if (found == requestMap_.end()) {
        return false;
    }
    Request* request = found->second;
    requestMap_.erase(found);
    lastRequest_ = requestMap_.end();
    request->Reset();
    if (!request->IsListed()) {
        requestPool_.Return(request);
    }
    return true;
}

bool CVEKHttp2ResponseRecords::FileResponse(VEK_ST_HTTP2_RESPONSE* record) {
    return responseMap_.emplace(static_cast<unsigned int>(record->streamId_), record).second;
}

void CVEKHttp2ResponseRecords::DropResponse(int streamId) {
    const auto found = responseMap_.find(static_cast<unsigned int>(streamId));
    if (found != responseMap_.end()) {
        responses_.Return(found->second);
        responseMap_.erase(found);
    }
}

VEK_ST_HTTP2_RESPONSE& CVEKHttp2ResponseRecords::GetRefusal(const char* status) {
    if (refusal_ == nullptr) {
        refusal_ = std::make_unique<VEK_ST_HTTP2_RESPONSE>();
        VEK_COPY_TEXT(refusal_->rs_, status);
    }
    return *refusal_;
}
