#include "RawPeer.h"

#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "CVEKSocketNew.h"
#include "TestSupport.h"

std::string MakeNumber(int value) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) { bytes += static_cast<char>(static_cast<unsigned>(value) >> shift); }
    return bytes;
}

std::string Repeat(const std::string& part, size_t times) {
    std::string text;
    for (size_t i = 0; i < times; ++i) { text += part; }
    return text;
}

std::string MakeFrame(int type, int flags, int stream, const std::string& payload) {
    return MakeNumber(static_cast<int>(payload.size())).substr(1) + static_cast<char>(type) + static_cast<char>(flags) +
           MakeNumber(stream) + payload;
}

std::string MakeSettings(const std::string& entries) { return MakeFrame(NGHTTP2_SETTINGS, 0, 0, entries); }

std::string MakeHeaders(int stream, const std::string& block, bool isEnd) {
    return MakeFrame(NGHTTP2_HEADERS, NGHTTP2_FLAG_END_HEADERS | (isEnd ? NGHTTP2_FLAG_END_STREAM : 0), stream, block);
}

std::string MakeData(int stream, const std::string& body, bool isEnd) {
    return MakeFrame(NGHTTP2_DATA, isEnd ? NGHTTP2_FLAG_END_STREAM : 0, stream, body);
}

std::string MakeReset(int stream, int code) { return MakeFrame(NGHTTP2_RST_STREAM, 0, stream, MakeNumber(code)); }

std::string MakeGoaway(int lastStream, int code) {
    return MakeFrame(NGHTTP2_GOAWAY, 0, 0, MakeNumber(lastStream) + MakeNumber(code));
}

std::string MakeField(const std::string& name, const std::string& value) {
    return std::string(1, '\0') + static_cast<char>(name.size()) + name + static_cast<char>(value.size()) + value;
}

RawPeer::RawPeer(std::function<void(RawPeer&)> script, bool isPreface, int connections)
    : listenFd_(CVEKSocketNew::LISTEN(AF_INET, 0, nullptr)), port_(PortOf(listenFd_)) {
    thread_ = std::thread([this, script = std::move(script), isPreface, connections] {
        for (int left = connections; left > 0; --left) {
            const int fd = accept(listenFd_, nullptr, nullptr);
            CVEKSocketNew::SET_NODELAY(fd);
            Open(fd);
            if (isPreface) { Send(MakeSettings()); }
            if (!isPreface || ReadText(NGHTTP2_CLIENT_MAGIC_LEN) == NGHTTP2_CLIENT_MAGIC) { script(*this); }
            Close();
        }
    });
}

RawPeer::~RawPeer() {
    shutdown(listenFd_, SHUT_RDWR);  // lets a script go that no client came for
    thread_.join();
    close(listenFd_);
}

void RawSocket::Close() {
    if (fd_ >= 0) {
        close(fd_);
        fd_ = -1;
    }
}

std::string RawSocket::ReadText(size_t size) const {
    std::string text(size, '\0');
    text.resize(static_cast<size_t>(std::max<ssize_t>(recv(fd_, text.data(), size, MSG_WAITALL), 0)));
    return text;
}

void RawSocket::Send(const std::string& bytes) const {
    send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);  // it waits until all is sent
}

RawFrame RawSocket::Read() const {
    RawFrame frame;
    const std::string text = ReadText(9);
    if (text.size() < 9) { return frame; }
    const std::basic_string<unsigned char> head(text.begin(), text.end());
    const auto size = static_cast<size_t>(head[0] << 16 | head[1] << 8 | head[2]);
    frame.payload = ReadText(size);
    if (frame.payload.size() < size) { return frame; }
    frame.type = head[3];
    frame.flags = head[4];
    frame.stream = head[5] << 24 | head[6] << 16 | head[7] << 8 | head[8];
    return frame;
}

RawFrame RawSocket::ReadUntil(int type, int stream) const {
    RawFrame frame;
    do { frame = Read(); } while (frame.type != -1 && (frame.type != type || (stream != 0 && frame.stream != stream)));
    return frame;
}

int RawPeer::ReadRequest() const {
    for (;;) {
        const RawFrame frame = Read();
        if (frame.type == -1) { return 0; }
        if ((frame.type == NGHTTP2_HEADERS || frame.type == NGHTTP2_DATA) &&
            (frame.flags & NGHTTP2_FLAG_END_STREAM) != 0) {
            return frame.stream;
        }
    }
}

void RawPeer::Answer(int stream, const std::string& body) const {
    Send(MakeHeaders(stream, STATUS_200, false) + MakeData(stream, body, true));
}

void RawPeer::AnswerAll(const std::function<std::string(int)>& body) const {
    for (int stream = ReadRequest(); stream != 0; stream = ReadRequest()) { Answer(stream, body(stream)); }
}
