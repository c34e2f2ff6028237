// CVEKHttpListener: a listening socket on a loop. It accepts what there is, a good many in a row,
// and pauses for a moment when the system has no descriptors or memory for more. Listening, and all
// of its life, is the loop's thread's; Open may be called before on another.
#ifndef CVEK_HTTP_LISTENER_H
#define CVEK_HTTP_LISTENER_H

#include <openssl/ssl.h>
#include <sys/socket.h>

#include <cstdint>
#include <memory>
#include <string>

#include "CVEKLoopCore.h"
#include "VEKHttpServerOption.h"

class CVEKHttpServerCore;

class CVEKHttpListener : private CVEKLoopTimer {
  public:
    CVEKHttpListener(CVEKHttpServerCore& server, std::shared_ptr<CVEKLoopCore> loop)
        : server_(server), loop_(std::move(loop)) {}
    ~CVEKHttpListener() override;
    CVEKHttpListener(const CVEKHttpListener&) = delete;
    CVEKHttpListener& operator=(const CVEKHttpListener&) = delete;

    VEK_ST_HTTP_FAILURE Open(const VEK_ST_HTTP_LISTENER& options);
    uint16_t GetPort() const;
    CVEKLoopCore& GetLoop() { return *loop_; }
    // Begins to accept. False when the loop cannot watch the descriptor.
    bool Start();
    void Close();

  private:
    bool MakeContext(const VEK_ST_HTTP_LISTENER& options, std::string& error);
    VEK_ST_HTTP_FAILURE Bind(const sockaddr* address, socklen_t length, bool isV6Only);
    VEK_ST_HTTP_FAILURE OpenUnix(const std::string& path);
    VEK_ST_HTTP_FAILURE OpenAddress(const VEK_ST_HTTP_LISTENER& options);
    void Accept();
    bool Hand(int fd, const sockaddr_storage& peer);
    void Pause();
    void OnTimer() override;

    CVEKHttpServerCore& server_;
    std::shared_ptr<CVEKLoopCore> loop_;
    std::shared_ptr<SSL_CTX> context_;  // null: clear text
    std::string unixPath_;
    int fd_ = -1;
    CVEKLoopPoll* poll_ = nullptr;
};

#endif
