// A scripted server end of an HTTP/2 connection in clear text: it reads and writes frames byte by
// byte, so that it can do what no well-behaved peer does.
#ifndef RAW_PEER_H
#define RAW_PEER_H

#include <nghttp2/nghttp2.h>

#include <functional>
#include <string>
#include <thread>

struct RawFrame {
    int type = -1;  // -1: the connection has ended
    int flags = 0, stream = 0;
    std::string payload;
};

// Frames and header fields as bytes.
std::string MakeFrame(int type, int flags, int stream, const std::string& payload);
std::string MakeSettings(const std::string& entries = "");
std::string MakeHeaders(int stream, const std::string& block, bool isEnd);
std::string MakeData(int stream, const std::string& body, bool isEnd);
std::string MakeReset(int stream, int code);
std::string MakeGoaway(int lastStream, int code);
std::string MakeField(const std::string& name, const std::string& value);
std::string MakeNumber(int value);  // 32 bits, network order
std::string Repeat(const std::string& part, size_t times);
const std::string STATUS_200 = "\x88";

// One end of a connection, as frames.
class RawSocket {
  public:
    RawSocket() = default;
    // Takes the descriptor over.
    explicit RawSocket(int fd) : fd_(fd) {}
    ~RawSocket() { Close(); }
    RawSocket(const RawSocket&) = delete;
    RawSocket& operator=(const RawSocket&) = delete;

    void Send(const std::string& bytes) const;
    RawFrame Read() const;
    // Reads on to the next frame of this type (and stream, unless 0), or to the end.
    RawFrame ReadUntil(int type, int stream = 0) const;
    // Reads as many bytes as there come before the end, `size` at most.
    std::string ReadText(size_t size) const;
    void Open(int fd) { fd_ = fd; }
    int GetFD() const { return fd_; }
    void Close();

  private:
    int fd_ = -1;
};

class RawPeer : public RawSocket {
  public:
    // Listens on 127.0.0.1 and plays the script once a client has connected and has sent its
    // preface (unless it is to be left unread); closes the connection at the script's end. The
    // script is played for each of so many connections, one after the other.
    explicit RawPeer(std::function<void(RawPeer&)> script, bool isPreface = true, int connections = 1);
    // Waits for the script's end.
    ~RawPeer();
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    int Port() const { return port_; }

    // For the script: reads a whole request and returns its stream, 0 at the end.
    int ReadRequest() const;
    // Answers with 200 and `body`.
    void Answer(int stream, const std::string& body) const;
    // Answers each request to come with 200 and this body.
    void AnswerAll(const std::function<std::string(int stream)>& body) const;

  private:
    int listenFd_, port_;
    std::thread thread_;
};

#endif
