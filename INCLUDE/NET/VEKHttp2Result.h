// Names for the results of the connections' operations (CVEKHttp2Request, CVEKHttp2Response).
#ifndef VEK_HTTP2_RESULT_H
#define VEK_HTTP2_RESULT_H

// Client: Request that queues.
enum VEK_HTTP2_REQUEST_RESULT {
    VEK_HTTP2_REQUEST_QUEUED = 1,
    VEK_HTTP2_REQUEST_FULL = 0,         // no free record (without wait)
    VEK_HTTP2_REQUEST_STREAM_IDS = -1,  // used up: time to connect anew
    VEK_HTTP2_REQUEST_LATE = -2,        // no record came free within the second
    VEK_HTTP2_REQUEST_CLOSED = -3,      // or a text that does not fit, or no memory
    VEK_HTTP2_REQUEST_INVALID = -4,     // cannot be sent; only where the policy asks for the check
};

// Client: Response, GetResponse, GetTimeout and RecvResponse...
enum VEK_HTTP2_COLLECT_RESULT {
    VEK_HTTP2_COLLECT_DONE = 1,
    VEK_HTTP2_COLLECT_NONE = 0,
    VEK_HTTP2_COLLECT_CLOSED = -1,
};

// Client: Cancel.
enum VEK_HTTP2_CANCEL_RESULT {
    VEK_HTTP2_CANCEL_UNSENT = 2,  // it had not been submitted yet: the peer never hears of it
    VEK_HTTP2_CANCEL_DONE = 1,
    VEK_HTTP2_CANCEL_NONE = 0,     // no such request, or it has been delivered
    VEK_HTTP2_CANCEL_CLOSED = -1,  // the connection is not open, or has just closed
};

// Server: Request and RecvRequest.
enum VEK_HTTP2_RECEIVE_RESULT {
    VEK_HTTP2_RECEIVE_DONE = 1,
    VEK_HTTP2_RECEIVE_NONE = 0,
    VEK_HTTP2_RECEIVE_CLOSED = -1,  // or a "000" response was submitted
};

// Server: Response.
enum VEK_HTTP2_RESPONSE_RESULT {
    VEK_HTTP2_RESPONSE_QUEUED = 1,
    VEK_HTTP2_RESPONSE_FULL = 0,     // no free record (without wait)
    VEK_HTTP2_RESPONSE_LATE = -2,    // no record came free within the second
    VEK_HTTP2_RESPONSE_CLOSED = -3,  // or the ticket is an earlier connection's, or no memory
    VEK_HTTP2_RESPONSE_HELD = -4,    // over the policy's maxHeldBytes_
};

// Both: ProcEventPre, SendRequestAsync and SendResponse.
enum VEK_HTTP2_SUBMIT_RESULT {
    VEK_HTTP2_SUBMIT_DONE = 1,
    VEK_HTTP2_SUBMIT_NONE = 0,
    VEK_HTTP2_SUBMIT_FAILED = -1,
};

// Both: PrepareRequest and PrepareResponse, where they do not return a number of fields.
// SendRequest returns the first one, or an error of the engine.
enum VEK_HTTP2_PREPARE_RESULT {
    VEK_HTTP2_PREPARE_REFUSED = -1,
    VEK_HTTP2_PREPARE_NO_STREAM = -2,
};

// Both: SendSettingsHdr. Client: GetEvent.
enum VEK_HTTP2_CALL_RESULT {
    VEK_HTTP2_CALL_DONE = 0,
    VEK_HTTP2_CALL_FAILED = -1,
};

#endif
