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
    int flags = 0;
    int stream = 0;
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
const std::string STATUS_200 = "\x88";

class RawPeer {
  public:
    // Listens on 127.0.0.1 and plays the script once a client has connected and has sent its
    // preface; closes the connection at the script's end.
    explicit RawPeer(std::function<void(RawPeer&)> script);
    // Waits for the script's end.
    ~RawPeer();
    RawPeer(const RawPeer&) = delete;
    RawPeer& operator=(const RawPeer&) = delete;

    int Port() const { return port_; }

    // For the script.
    void Send(const std::string& bytes) const;
    RawFrame Read() const;
    // Reads on to the next frame of this type (and stream, unless 0), or to the end.
    RawFrame ReadUntil(int type, int stream = 0) const;
    // Reads a whole request; answers with 200 and `body`. Returns its stream, 0 at the end.
    int ReadRequest() const;
    void Answer(int stream, const std::string& body) const;
    int Socket() const { return fd_; }

  private:
    bool ReadExactly(char* buffer, size_t size) const;

    int listenFd_;
    int port_;
    int fd_ = -1;
    std::thread thread_;
};

#endif
