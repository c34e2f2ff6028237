#include "VEKHttp1Head.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include "VEKHttp2Step.h"
#include "VEKLogText.h"
#include "VEKServiceLog.h"

namespace {

constexpr char HEAD_END[] = "\r\n\r\n";
constexpr size_t HEAD_END_SIZE = sizeof HEAD_END - 1;
constexpr size_t CHUNK_SIZE = 512;
constexpr size_t LINE_TEXT_LIMIT = 4 * VEK_HTTP1_HEAD_SIZE;  // all of it, escaped

bool IsEnded(const std::string& head) {
    return head.size() >= HEAD_END_SIZE &&
           head.compare(head.size() - HEAD_END_SIZE, HEAD_END_SIZE, HEAD_END) == 0;
}

// Appends up to the end of the head. Returns how many of the bytes belong to it.
size_t AppendHead(std::string& head, const char* bytes, size_t size) {
    size_t taken = 0;
    bool isEnd = false;
    while (taken < size && !isEnd) {
        head += bytes[taken++];
        isEnd = head.size() > HEAD_END_SIZE && IsEnded(head);
    }
    return taken;
}

}  // namespace

VEK_HTTP1_HEAD VEK_READ_HTTP1_HEAD(CVEKSocketNew& transport, std::string& head) {
    char chunk[CHUNK_SIZE];
    for (;;) {
        const size_t room = VEK_HTTP1_HEAD_SIZE + 1 - head.size();
        const int seen = transport.Peek(chunk, std::min(room, sizeof chunk));
        switch (seen) {
            case VEK_SOCKET_AGAIN:
                return IsEnded(head) ? VEK_HTTP1_HEAD_DONE : VEK_HTTP1_HEAD_WAIT;
            case VEK_SOCKET_BROKEN:
                return VEK_HTTP1_HEAD_BROKEN;
            case 0:
                return IsEnded(head) ? VEK_HTTP1_HEAD_DONE : VEK_HTTP1_HEAD_CLOSED;
            default:
                break;
        }
        const size_t taken = AppendHead(head, chunk, static_cast<size_t>(seen));
        if (!transport.Skip(taken)) {
            return VEK_HTTP1_HEAD_BROKEN;
        }
        if (head.size() > VEK_HTTP1_HEAD_SIZE) {
            VEK_SERVICE_LOG(VEK_LOG_WARNING, "receive overflow!..%d/%d",
                            static_cast<int>(head.size()), static_cast<int>(VEK_HTTP1_HEAD_SIZE));
            return VEK_HTTP1_HEAD_OVERFLOW;
        }
        if (head.size() > HEAD_END_SIZE && IsEnded(head)) {
            return VEK_HTTP1_HEAD_DONE;
        }
    }
}

std::string VEK_HTTP1_HEAD_TEXT(const std::string& head) {
    constexpr std::string_view LINE_END = "\r\n";
    std::string text;
    for (size_t begin = 0; begin < head.size();) {
        const size_t end = std::min(head.find(LINE_END, begin), head.size());
        const std::string_view line = std::string_view(head).substr(begin, end - begin);
        const bool isUsual = line.empty() || isalpha(static_cast<unsigned char>(line[0])) != 0;
        text.append(isUsual ? "" : "\\").append(VEK_ESCAPE_TEXT(line, LINE_TEXT_LIMIT));
        text.append(end < head.size() ? LINE_END : "");
        begin = end + LINE_END.size();
    }
    return text;
}

int VEK_SEND_HTTP1_TEXT(CVEKSocketNew& transport, const char* text, size_t size, size_t& sent) {
    while (sent < size) {
        const int result = transport.Send(text + sent, size - sent);
        if (result == VEK_SOCKET_AGAIN) {
            return VEK_HTTP2_STEP_WAIT;
        }
        if (result < 1) {
            return VEK_HTTP2_STEP_FAILED;
        }
        sent += static_cast<size_t>(result);
    }
    return VEK_HTTP2_STEP_DONE;
}
