// What the tests of the two kinds of connections share.
#ifndef NET_TEST_H
#define NET_TEST_H

#include <netdb.h>
#include <poll.h>

#include <chrono>
#include <set>
#include <string>

#include "CVEKHttp2Request.h"
#include "RawPeer.h"
#include "TestSupport.h"
#include "VEKHttp2Error.h"
#include "VEKHttp2Option.h"
#include "VEKHttp2Policy.h"
#include "defHttp2.h"

using Policy = VEK_ST_HTTP2_POLICY;
constexpr size_t PAYLOAD = 64;
constexpr int MAX_INCREMENT = 0x7fffffff;

inline void Graceful(Policy& policy) { policy.isGoawayGraceful_ = true; }
inline void Contained(Policy& policy) { policy.isOffenceContained_ = true; }

inline VEK_ST_HTTP2_OPTIONS Options(uint32_t streams = 8, size_t payload = PAYLOAD, uint32_t timeout = 0) {
    VEK_ST_HTTP2_OPTIONS options{};
    options.nMaxConcurrentStream_ = streams;
    options.nMaxPayloadSize_ = static_cast<uint32_t>(payload);
    options.nTimeout_ = timeout;
    return options;
}

// One entry of a SETTINGS frame.
inline std::string Entry(int id, int value) { return std::string{'\0', static_cast<char>(id)} + MakeNumber(value); }
inline std::string Increase(int stream, int by = MAX_INCREMENT) {
    return MakeFrame(NGHTTP2_WINDOW_UPDATE, 0, stream, MakeNumber(by));
}
inline std::string Answer(int stream) { return MakeHeaders(stream, STATUS_200, false) + MakeData(stream, "hi", true); }
const std::string PRIORITY = MakeFrame(NGHTTP2_PRIORITY, 0, 3, MakeNumber(1) + "x");
const std::string PING = MakeFrame(NGHTTP2_PING, 0, 0, "12345678");
const std::string WIDE = MakeSettings(Entry(4, 1 << 30)) + Increase(0, 1 << 30);  // windows for everything

// "open", or close cause, failure and code or reason.
template <class CONNECTION>
std::string DescribeEnd(CONNECTION& connection) {
    const VEK_ST_HTTP2_ERROR error = connection.GetError();
    return connection.GetState() != VEK_HTTP2_CONN_STATE_CLOSE
               ? "open"
               : "end " + std::to_string(connection.GetStateCause()) + "/" + std::to_string(error.failure_) +
                     (error.code_ == 0 ? error.codeName_ + std::string(error.reason_) : error.codeName_);
}

// What comes before the end: resets and GOAWAYs with their codes, answers to PINGs, and streams that the other side
// ends.
inline std::string Watch(const RawSocket& peer) {
    std::set<std::string> seen;
    for (RawFrame frame = peer.Read(); frame.type != -1; frame = peer.Read()) {
        const auto code = [&](size_t at) { return ":" + std::to_string(static_cast<int>(frame.payload[at])); };
        const bool isLast = frame.type <= NGHTTP2_HEADERS && (frame.flags & NGHTTP2_FLAG_END_STREAM) != 0;
        if (isLast) { seen.insert(" all" + std::to_string(frame.stream)); }
        if (frame.type == NGHTTP2_RST_STREAM) { seen.insert(" reset" + std::to_string(frame.stream) + code(3)); }
        if (frame.type == NGHTTP2_GOAWAY) { seen.insert(" goaway" + code(7)); }
        if (frame.type == NGHTTP2_PING && frame.flags == NGHTTP2_FLAG_ACK) { seen.insert(" pong"); }
    }
    std::string text;
    for (const std::string& entry : seen) { text += entry; }
    return text;
}

// Connects to the port in steps, waiting as the set-up says. Returns the last step's result.
inline int ConnectInSteps(CVEKHttp2Request& connection, int port, SSL_CTX* context) {
    addrinfo* list = CVEKSocketNew::RESOLVE(IPPROTO_TCP, "127.0.0.1", port);
    const bool isStarted = connection.StartConnect(list, "127.0.0.1", port, context, false);
    freeaddrinfo(list);
    int result = isStarted ? VEK_HTTP2_STEP_WAIT : VEK_HTTP2_STEP_FAILED;
    EXPECT_EQ(isStarted, connection.GetSocket() != -1);
    while (result == VEK_HTTP2_STEP_WAIT && (result = connection.Advance()) == VEK_HTTP2_STEP_WAIT) {
        EXPECT_LT(std::chrono::steady_clock::now(), connection.GetWaitDeadline());
        pollfd entry{connection.GetSocket(), connection.GetWaitEvents(), 0};
        poll(&entry, 1, 1000);
    }
    return result;
}

#endif
