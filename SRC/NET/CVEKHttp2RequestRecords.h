// CVEKHttp2RequestRecords: the records of a client connection, and where each of them is.
//
// Requests: queued by any thread in the outbox; once submitted they stand in requestMap_, by
// stream, and in timeoutMap_, until their response is collected or they time out. Responses: in
// responseMap_, by stream, while they are received; in responseList_ when they are complete, until
// they are collected. But for the outbox, all of it is the driving thread's.
#ifndef CVEK_HTTP2_REQUEST_RECORDS_H
#define CVEK_HTTP2_REQUEST_RECORDS_H

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "CVEKHttp2Outbox.h"
#include "CVEKHttp2Pool.h"
#include "CVEKNodeAllocator.h"
#include "defHttp2.h"

class CVEKHttp2Link;

class CVEKHttp2RequestRecords {
  public:
    using RequestBox = CVEKHttp2Outbox<VEK_ST_HTTP2_REQUEST>;
    using ResponsePool = CVEKHttp2Pool<VEK_ST_HTTP2_RESPONSE>;
    // What stands for the status of a request that has none.
    static constexpr char NO_STATUS[] = "000";

    // `name` is the connection's, for log lines.
    explicit CVEKHttp2RequestRecords(const std::string& name) : name_(name) {}

    void SetLimits(const VEK_ST_HTTP2_OPTIONS& options);
    // A response whose body is too large keeps its status.
    void KeepStatus(bool isKept) { isStatusKept_ = isKept; }
    // Lets go of what was kept for reuse and not needed.
    void Trim();
    // Gives every record back that no other thread has. What the engine referred to must be gone.
    void Reset();

    RequestBox& GetRequests() { return requests_; }
    // Takes a free request record, waiting as `wait` says. Returns a VEK_HTTP2_TAKE_... value.
    int TakeRequest(bool wait, const CVEKHttp2Link& link, RequestBox::Lease& record);
    // The record has been submitted as the stream in its streamId_.
    void FileRequest(RequestBox::Slot* record);
    bool HasRequest(int stream) const { return requestMap_.find(stream) != requestMap_.end(); }
    bool HasRequests() const { return !requestMap_.empty(); }
    // Calls action(stream) for each stream that has a submitted request, until it returns false.
    // Returns whether it never did. The action must leave the requests as they are.
    template <class ACTION>
    bool ForEachStream(ACTION action) const {
        return std::all_of(requestMap_.begin(), requestMap_.end(),
                           [&action](const auto& entry) { return action(entry.first); });
    }
    // The submitted request with the caller's number, or null.
    RequestBox::Slot* FindMessage(int32_t messageId) const;
    // The request is over. Returns its messageId_ in `messageId`, or false when there is none.
    bool EndRequest(int stream, int32_t& messageId);
    // The request that was queued first of those submitted, or null.
    RequestBox::Slot* GetOldest() const { return timeoutMap_.GetFirst(); }
    // Takes a record out of timeoutMap_, after a Warning line when it is not there.
    void DropTimeout(const VEK_ST_HTTP2_REQUEST* record);
    // Takes a record that was taken out of timeoutMap_ out of requestMap_ as well; its
    // half-received response goes back.
    void ForgetRequest(RequestBox::Slot* record);

    // Intake of responses; see the connection's operations of the same purpose.
    bool InsertResponse(int stream);
    bool PutField(int stream, std::string_view name, std::string_view value);
    bool PutTrailer(int stream, std::string_view name, std::string_view value);
    bool PutPayload(int stream, const char* data, size_t length);
    bool CompleteResponse(int stream);
    // Completes a response without a status; `error` tells why.
    bool CompleteReset(int stream, int error);

    bool HasComplete() const { return !responseList_.IsEmpty(); }
    // The response to the stream waits to be collected.
    bool IsComplete(int stream) const;
    // The response that was complete first, or null; its taker returns it.
    ResponsePool::Slot* TakeComplete() { return responseList_.Pop(); }
    // Drops the complete response to the stream, if there is one.
    void DropComplete(int stream);
    void ReturnResponse(ResponsePool::Slot* record) { responsePool_.Return(record); }

    // Fields of a push that is being received.
    VEK_HTTP2_HEADER& GetPushed() { return pushed_; }

    // The last submitted request is the last one answered. Any thread.
    bool IsAllAnswered() const;
    void SetLastSent(int32_t stream);
    void SetLastReceived(int32_t stream);
    void ClearLast();

  private:
    template <class T>
    using Map = std::map<int, T, std::less<>, CVEKNodeAllocator<std::pair<const int, T>>>;
    // A response that is being received. Its list of fields may hold old ones behind the first
    // `fields`, for their memory.
    struct Receiving {
        ResponsePool::Slot* record;
        size_t fields;
    };
    using ResponseMap = Map<Receiving>;
    // Read and written as one: aligned so that the processor does it, whatever compiles it.
    struct alignas(2 * sizeof(int32_t)) LastIds {
        int32_t last_send_stream_id_;
        int32_t last_recv_stream_id_;
    };

    void LogNoTimeout() const;
    ResponsePool::Slot* TakeResponse(int stream);
    ResponseMap::iterator FindResponse(int stream);
    ResponsePool::Slot* FindComplete(int stream) const;
    void EraseResponse(ResponseMap::iterator response);
    void DropResponse(int stream);

    const std::string& name_;
    size_t maxPayloadSize_ = 0;
    bool isStatusKept_ = false;
    RequestBox requests_;
    Map<RequestBox::Slot*> requestMap_;
    // By startT_, oldest first.
    CVEKHttp2Pool<VEK_ST_HTTP2_REQUEST>::Queue timeoutMap_;
    ResponsePool responsePool_;
    ResponsePool::Queue responseList_;
    ResponseMap responseMap_;
    ResponseMap::iterator lastResponse_ = responseMap_.end();  // found last, or the end
    VEK_HTTP2_HEADER pushed_;
    std::atomic<LastIds> lastIds_{LastIds{0, 0}};  // written by the driving thread only
};

#endif
