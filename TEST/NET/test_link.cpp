// The link's wider interface: what the records of the connections do not use.
#include <sys/socket.h>

#include <algorithm>
#include <map>

#include "CVEKHttp2Link.h"
#include "CVEKHttp2LinkHandler.h"
#include "CVEKHttp2Source.h"
#include "TestSupport.h"
#include "VEKHttp2Field.h"

namespace {

using Fields = std::vector<std::pair<std::string, std::string>>;

std::vector<nghttp2_nv> AsFields(const Fields& fields) {
    std::vector<nghttp2_nv> list;
    for (const auto& [name, value] : fields) { list.push_back(VEK_HTTP2_FIELD(name, value)); }
    return list;
}

// One end of a connection; keeps what it receives, by kind of block.
struct End : CVEKHttp2LinkHandler {
    End(int fd, bool isServer, const VEK_ST_HTTP2_LIMITS& limits) : link(*this, name) {
        VEK_ST_HTTP2_OPTIONS options;
        VEK_HTTP2_SET_DEFAULTS(options);
        link.SetOptions(options);
        link.SetLimits(limits);
        link.Open(fd);
        link.GetTransport().SetFD(fd, nullptr, 0);
        CVEKSocketNew::SET_NONBLOCK(fd);
        EXPECT_EQ(0, link.CreateSession(isServer));
        EXPECT_EQ(0, link.SubmitSettings(nullptr, 0));
        link.Start();
    }
    bool OnTransportReady(CVEKHttp2Setup&) override { return true; }
    bool OnSetupDone(const CVEKHttp2Setup&) override { return true; }
    void OnStateChange() override {}
    void OnTrim() override {}
    int OnFrameRecv(const nghttp2_frame* frame) override {
        isEnd = isEnd || (frame->hd.type < 2 && (frame->hd.flags & NGHTTP2_FLAG_END_STREAM) != 0);
        return 0;
    }
    int OnFrameSend(const nghttp2_frame*) override { return 0; }
    int OnStreamClose(int32_t, uint32_t error) override {
        closeCode = static_cast<int>(error);
        return 0;
    }
    int OnBeginHeaders(const nghttp2_frame*) override { return 0; }
    int OnHeader(const nghttp2_frame*, std::string_view name, std::string_view value) override {
        blocks[link.GetBlock()].emplace_back(name, value);
        return 0;
    }
    int OnHeaderOverflow(const nghttp2_frame*, bool isFirst) override {
        overflows += isFirst ? 1 : 0;
        return 0;
    }
    int OnDataChunkRecv(int32_t, const char* data, size_t length) override {
        body.append(data, length);
        return 0;
    }
    int OnInvalidFrameRecv(const nghttp2_frame*, int) override { return 0; }
    int OnError(int, std::string_view) override { return 0; }
    int OnFrameNotSend(const nghttp2_frame*, int) override { return 0; }

    const std::string name = "end";
    CVEKHttp2Link link;
    std::map<VEK_HTTP2_BLOCK, Fields> blocks;
    std::string body;
    bool isEnd = false;
    int overflows = 0, closeCode = -1;
};

// Two ends that talk to each other.
struct Pair {
    explicit Pair(const VEK_ST_HTTP2_LIMITS& limits = {})
        : client(fds[0], false, limits), server(fds[1], true, limits) {}
    void Exchange() {
        for (int i = 0; i < 6; ++i) {
            for (End* end : {&client, &server}) {
                EXPECT_TRUE(end->link.FlushOrClose("flush", true));
                end->link.Receive();
                end->link.Flush();
            }
        }
    }
    struct Fds {
        Fds() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair)); }
        int operator[](int i) const { return pair[i]; }
        int pair[2];
    } fds;
    End client, server;
};

// Hands out `text` in pieces of three bytes, as far as it is released.
struct Source : CVEKHttp2Source {
    ssize_t Offer(size_t max, End& end) override {
        if (at == released) { return LATER; }
        const size_t size = std::min({max, size_t{3}, released - at});
        if (at + size == text.size()) {
            end = trailers.empty() ? END_BODY : END_TRAILERS;
            const auto list = AsFields(trailers);
            if (!list.empty()) { EXPECT_EQ(0, link->SubmitTrailers(1, list.data(), list.size())); }
        }
        return static_cast<ssize_t>(size);
    }
    const char* Take(size_t length) override {
        at += length;
        return text.data() + at - length;
    }
    std::string text = "0123456789";
    size_t released = 0, at = 0;
    Fields trailers;
    CVEKHttp2Link* link = nullptr;
};

const Fields REQUEST = {{":method", "POST"}, {":scheme", "http"}, {":path", "/"}, {":authority", "a"}};

TEST(Link, BodiesFromSourcesWithTrailersBothWays) {
    Pair pair;
    Source up;
    up.link = &pair.client.link;
    up.trailers = {{"sum", "1"}};
    const auto request = AsFields(REQUEST);
    ASSERT_EQ(1, pair.client.link.SubmitRequest(request.data(), request.size(), &up));
    pair.Exchange();
    for (const size_t released : {4U, 10U}) {  // deferred, resumed
        up.released = released;
        EXPECT_EQ(0, pair.client.link.ResumeBody(1));
        pair.Exchange();
        EXPECT_EQ(up.text.substr(0, released), pair.server.body);
    }
    EXPECT_TRUE(pair.server.isEnd);
    EXPECT_EQ(REQUEST, pair.server.blocks[VEK_HTTP2_BLOCK_REQUEST]);
    EXPECT_EQ(up.trailers, pair.server.blocks[VEK_HTTP2_BLOCK_TRAILERS]);

    const Fields early = {{":status", "103"}, {"link", "x"}}, final = {{":status", "200"}, {"a", "b"}};
    const auto informational = AsFields(early), response = AsFields(final);
    Source down;
    down.link = &pair.server.link;
    down.trailers = {{"sum", "2"}};
    down.released = down.text.size();
    EXPECT_EQ(0, pair.server.link.SubmitInformational(1, informational.data(), informational.size()));
    EXPECT_EQ(0, pair.server.link.SubmitResponse(1, response.data(), response.size(), &down));
    pair.Exchange();
    EXPECT_EQ(early, pair.client.blocks[VEK_HTTP2_BLOCK_INFORMATIONAL]);
    EXPECT_EQ(final, pair.client.blocks[VEK_HTTP2_BLOCK_RESPONSE]);
    EXPECT_EQ(down.trailers, pair.client.blocks[VEK_HTTP2_BLOCK_TRAILERS]);
    EXPECT_EQ(down.text, pair.client.body);
    EXPECT_EQ(0, pair.client.closeCode);
}

TEST(Link, LimitsOnFieldsBothWays) {
    Fields many = REQUEST;
    many.emplace_back("large", std::string(60000, 'x'));
    many.emplace_back("larger", std::string(60000, 'y'));
    const auto list = AsFields(many);
    Pair narrow;
    CVEKHttp2Source* const noSource = nullptr;
    EXPECT_EQ(NGHTTP2_ERR_INVALID_ARGUMENT, narrow.client.link.SubmitRequest(list.data(), list.size(), noSource));
    VEK_ST_HTTP2_LIMITS limits;
    limits.headerBytes = size_t{1} << 20;
    Pair wide(limits);
    limits.headerFields = REQUEST.size();
    wide.server.link.SetLimits(limits);
    EXPECT_EQ(1, wide.client.link.SubmitRequest(list.data(), list.size(), noSource));
    wide.Exchange();
    EXPECT_EQ(REQUEST, wide.server.blocks[VEK_HTTP2_BLOCK_REQUEST]);
    EXPECT_EQ(1, wide.server.overflows);
    EXPECT_TRUE(wide.server.isEnd);
}

}  // namespace
