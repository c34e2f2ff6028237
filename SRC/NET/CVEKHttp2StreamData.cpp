#include "CVEKHttp2StreamData.h"

#include <cstdlib>
#include <cstring>

#include "CVEKLogLimit.h"
#include "VEKHttp2Clock.h"
#include "VEKHttp2Field.h"
#include "VEKServiceLog.h"

CVEKHttp2StreamData::CVEKHttp2StreamData()
    : stream_id_(-1),
      reqPayload_(nullptr),
      reqPayloadSize_(0),
      payloadSize_(0),
      error_(0),
      hdrCount_(0),
      isListed_(false) {}

CVEKHttp2StreamData::~CVEKHttp2StreamData() {
    free(reqPayload_);
}

bool CVEKHttp2StreamData::Initialize(size_t size) {
    free(reqPayload_);
    reqPayload_ = static_cast<char*>(malloc(size));
    payloadSize_ = reqPayload_ == nullptr ? 0 : size;
    return reqPayload_ != nullptr;
}

void CVEKHttp2StreamData::New(int id) {
    stream_id_ = id;
    Reset();
    reqPayloadSize_ = 0;
    error_ = 0;
}

void CVEKHttp2StreamData::Reset() {
    VEK_HTTP2_BOUND_FIELDS(reqHdr_);
    hdrCount_ = 0;
}

void CVEKHttp2StreamData::AddRequestHeader(const char* name, const char* value) {
    hdrCount_ = VEK_HTTP2_PUT_FIELD(reqHdr_, hdrCount_, name, value);
}

VEK_HTTP2_HEADER* CVEKHttp2StreamData::GetRequestHeader() {
    reqHdr_.resize(hdrCount_);
    return &reqHdr_;
}

bool CVEKHttp2StreamData::SetRequestPayload(const char* data, size_t len) {
    if (len > payloadSize_ - reqPayloadSize_) {
        VEK_PEER_LOG(VEK_LOG_INFO, "SET PAYLOAD FAIL %lu,%lu",
                     static_cast<unsigned long>(reqPayloadSize_), static_cast<unsigned long>(len));
        return false;
    }
    if (len > 0) {
        memcpy(reqPayload_ + reqPayloadSize_, data, len);
        reqPayloadSize_ += len;
    }
    return true;
}

size_t CVEKHttp2StreamData::GetRequestPayload(char** out) {
    *out = reqPayload_;
    return reqPayloadSize_;
}

void CVEKHttp2StreamData::SetTimeout() {
    startT_ = VEK_HTTP2_NOW();
}
