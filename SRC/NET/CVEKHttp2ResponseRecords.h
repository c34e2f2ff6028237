// CVEKHttp2ResponseRecords: the records of a server connection, and where each of them is.
//
// Requests: in requestMap_, by stream, from their first header to the stream's end, and in
// requestList_ from their last byte until the application takes them. Responses: queued by any
// thread in the outbox; once submitted they stand in responseMap_, by stream, until it closes. But
// for the outbox, all of it is the driving thread's.
#ifndef CVEK_HTTP2_RESPONSE_RECORDS_H
#define CVEK_HTTP2_RESPONSE_RECORDS_H

#include <algorithm>
#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <utility>

#include "CVEKHttp2Outbox.h"
#include "CVEKHttp2Pool.h"
#include "CVEKHttp2StreamData.h"
#include "CVEKNodeAllocator.h"
#include "defHttp2.h"

class CVEKHttp2ResponseRecords {
  public:
    using ResponseBox = CVEKHttp2Outbox<VEK_ST_HTTP2_RESPONSE>;
    using RequestPool = CVEKHttp2Pool<CVEKHttp2StreamData>;

    // `name` is the connection's, for log lines.
    explicit CVEKHttp2ResponseRecords(const std::string& name) : name_(name) {}

    void SetLimits(const VEK_ST_HTTP2_OPTIONS& options);
    // Lets go of what was kept for reuse and not needed.
    void Trim();
    // Gives every record back that no other thread has. What the engine referred to must be gone.
    void Reset();

    // Makes a record for a new stream; see the connection's CreateHttp2StreamData.
    bool CreateRequest(int streamId);
    // The same for the request of an upgrade, without growing beyond the limit.
    bool CreateUpgradeRequest(int streamId);
    // The stream's record, or null.
    CVEKHttp2StreamData* FindRequest(int streamId);
    // Lists the stream's complete request for the application.
    void ListRequest(int streamId);
    // Takes the request that was complete first. False when there is none.
    bool TakeRequest(VEK_ST_HTTP2_REQUEST_RECV& out);
    // The stream is over: its record goes back. A request that is still listed stays so, without
    // headers, and its record goes back when it is taken. False when there is no such stream.
    bool DropRequest(int streamId);
    size_t GetRequestCount() const { return requestMap_.size(); }
    // The lowest stream that has a record; there must be one.
    int GetFirstStream() const { return requestMap_.begin()->first; }

    ResponseBox& GetResponses() { return responses_; }
    // The response has been submitted. False when its stream has one already.
    bool FileResponse(VEK_ST_HTTP2_RESPONSE* record);
    // fits(stream) holds for one of the submitted responses.
    template <class FITS>
    bool HasResponse(FITS fits) const {
        return std::any_of(responseMap_.begin(), responseMap_.end(), [&fits](const auto& entry) {
            return fits(static_cast<int>(entry.first));
        });
    }
    // The stream is over: its response goes back.
    void DropResponse(int streamId);

    // The one record that refuses requests. Throws std::bad_alloc.
    VEK_ST_HTTP2_RESPONSE& GetRefusal(const char* status);

  private:
    using Request = RequestPool::Slot;
    template <class KEY, class T>
    using Map = std::map<KEY, T, std::less<>, CVEKNodeAllocator<std::pair<const KEY, T>>>;
    using RequestMap = Map<int, Request*>;

    RequestMap::iterator Find(int streamId);
    bool InsertRequest(int streamId, Request* request);

    const std::string& name_;
    RequestPool requestPool_;
    RequestMap requestMap_;
    std::list<Request*, CVEKNodeAllocator<Request*>> requestList_;  // complete, to be taken
    RequestMap::iterator lastRequest_ = requestMap_.end();          // found last, or the end
    ResponseBox responses_;
    Map<unsigned int, VEK_ST_HTTP2_RESPONSE*> responseMap_;
    std::unique_ptr<VEK_ST_HTTP2_RESPONSE> refusal_;  // made when first needed
};

#endif
