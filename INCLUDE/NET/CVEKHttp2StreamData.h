// CVEKHttp2StreamData: a request while it arrives on one stream of a server connection. The
// connection pools these, and one thread drives them.
#ifndef CVEK_HTTP2_STREAM_DATA_H
#define CVEK_HTTP2_STREAM_DATA_H

#include <cstddef>
#include <cstdint>

#include "VEKExport.h"
#include "defHttp2.h"

class VEK_API CVEKHttp2StreamData {
  public:
    CVEKHttp2StreamData();
    ~CVEKHttp2StreamData();

    CVEKHttp2StreamData(const CVEKHttp2StreamData&) = delete;
    CVEKHttp2StreamData& operator=(const CVEKHttp2StreamData&) = delete;

    // Once: makes the payload buffer of `size` bytes. False when memory ran out.
    bool Initialize(size_t size);
    // Starts over for the stream `id`: no headers, no payload, no error.
    void New(int id);
    // Drops the headers only.
    void Reset();

    // Appends a copy of the field.
    void AddRequestHeader(const char* name, const char* value);
    // Appends the bytes if all of them fit the buffer. Otherwise stores none of them and returns
    // false; smaller ones that come later may still fit.
    bool SetRequestPayload(const char* data, size_t len);

    // Fields in the order of arrival, pseudo-headers included. Owned by this object.
    VEK_HTTP2_HEADER* GetRequestHeader();
    // Points `out` at the payload, owned by this object, and returns its size in bytes.
    size_t GetRequestPayload(char** out);

    // Marks the moment in which the application took the request.
    void SetTimeout();
    // Marks that some payload did not fit; GetError then returns 1, else 0.
    void SetPayloadError() { error_ = 1; }
    int GetError() const { return error_; }
    // -1 before the first New.
    int GetStreamID() const { return stream_id_; }

    // Whether the complete request waits for the application; see CVEKHttp2Response.
    void SetListed(bool isListed) { isListed_ = isListed; }
    bool IsListed() const { return isListed_; }

  private:
    int32_t stream_id_;
    VEK_HTTP2_HEADER reqHdr_;  // behind hdrCount_ fields of earlier streams, for their memory
    char* reqPayload_;         // owned
    size_t reqPayloadSize_;
    size_t payloadSize_;
    VEK_HTTP2_TIME startT_;
    int32_t error_;
    size_t hdrCount_;
    bool isListed_;
};

#endif
