// CVEKHttp2LinkHandler: what a link tells the connection above it. One operation for each thing in
// which a client and a server, or two users of a link, differ. All run on the driving thread, in
// the midst of a receive or a flush, where not said otherwise; none may throw but std::bad_alloc,
// which ends the session, and OnStateChange and OnTrim not even that. Results are the engine's: 0
// to go on, NGHTTP2_ERR_CALLBACK_FAILURE to end the session, NGHTTP2_ERR_TEMPORAL_CALLBACK_FAILURE
// to reset the stream.
#ifndef CVEK_HTTP2_LINK_HANDLER_H
#define CVEK_HTTP2_LINK_HANDLER_H

#include <nghttp2/nghttp2.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

class CVEKHttp2Setup;

class CVEKHttp2LinkHandler {
  public:
    virtual ~CVEKHttp2LinkHandler() = default;

    // Stepwise set-up: the first bytes may be exchanged; where an upgrade comes first, the handler
    // starts it. And: the session may be created and started. False, after a log line, fails.
    virtual bool OnTransportReady(CVEKHttp2Setup& setup) = 0;
    virtual bool OnSetupDone(const CVEKHttp2Setup& setup) = 0;

    // The state has changed, or a drain has begun. Any thread that calls SetState.
    virtual void OnStateChange() = 0;
    // A while has passed: what was kept for reuse and not needed can go.
    virtual void OnTrim() = 0;

    // Part of a body that was submitted waits for the peer to take it. For the limit of stalls.
    virtual bool HasDataToSend() const { return false; }
    // While the connection drains: nothing is awaited from the peer any more, whatever streams the
    // engine still has.
    virtual bool IsDone() const { return false; }

    virtual int OnFrameRecv(const nghttp2_frame* frame) = 0;
    virtual int OnFrameSend(const nghttp2_frame* frame) = 0;
    // The stream is over; error: its RST_STREAM code, 0 for none (RFC 9113, section 7).
    virtual int OnStreamClose(int32_t stream, uint32_t error) = 0;
    // A field block begins, and its fields. Which block it is, GetBlock of the link tells from the
    // first field on. Texts end with a NUL behind their length.
    virtual int OnBeginHeaders(const nghttp2_frame* frame) = 0;
    virtual int OnHeader(const nghttp2_frame* frame, std::string_view name,
                         std::string_view value) = 0;
    // A field that the link's limits leave no room for; isFirst: the first one of its block.
    virtual int OnHeaderOverflow(const nghttp2_frame* frame, bool isFirst) = 0;
    // A part of a body. With manual windows, its bytes count until Consume has been called.
    virtual int OnDataChunkRecv(int32_t stream, const char* data, size_t length) = 0;

    // The peer has sent what it must not; error is the engine's.
    virtual int OnInvalidFrameRecv(const nghttp2_frame* frame, int error) = 0;
    virtual int OnError(int error, std::string_view text) = 0;
    // A frame could not be sent.
    virtual int OnFrameNotSend(const nghttp2_frame* frame, int error) = 0;
};

#endif
