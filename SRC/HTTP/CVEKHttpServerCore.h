// CVEKHttpServerCore: what a server has once: options, handlers, listeners and the counts that its
// loops share. CVEKHttpServerShard: its part on one loop.
#ifndef CVEK_HTTP_SERVER_CORE_H
#define CVEK_HTTP_SERVER_CORE_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "CVEKHttpListener.h"
#include "CVEKHttpServer.h"
#include "CVEKHttpServerShard.h"
#include "CVEKTlsContext.h"

class CVEKHttpServerCore {
  public:
    CVEKHttpServerCore(std::vector<std::shared_ptr<CVEKLoopCore>> loops,
                       VEK_ST_HTTP_SERVER_OPTIONS options);
    ~CVEKHttpServerCore();
    CVEKHttpServerCore(const CVEKHttpServerCore&) = delete;
    CVEKHttpServerCore& operator=(const CVEKHttpServerCore&) = delete;

    VEK_ST_HTTP_FAILURE Listen(const VEK_ST_HTTP_LISTENER& options);
    uint16_t GetPort(size_t listener) const;
    void Drain(std::chrono::milliseconds limit, std::function<void()> done);
    bool Stop(std::chrono::milliseconds limit);
    // Ends everything now, on whatever thread.
    void End();
    VEK_ST_HTTP_SERVER_COUNTERS GetCounters() const;

    // For listeners: finds a loop for an accepted connection, which is closed where the limits
    // leave no room for it. ctx null: clear text.
    void Take(int fd, SSL_CTX* ctx, std::string peer, std::string address);
    void NotePause() { ++pauses_; }

    // For shards, on any of their threads.
    const VEK_ST_HTTP_SERVER_OPTIONS& GetOptions() const { return options_; }
    // A connection has gone; its address, empty for none.
    void NoteGone(const std::string& address);
    // The last connection of a draining shard has gone. wasWhole: by itself.
    void NoteDrained(bool wasWhole);

    CVEKHttpServer::Handler handler_;
    CVEKHttpServer::HeadHandler headHandler_;

  private:
    bool Admit(const std::string& address);
    bool CountOfPeer(const std::string& address);
    void CloseListeners();

    const VEK_ST_HTTP_SERVER_OPTIONS options_;
    std::vector<std::shared_ptr<CVEKHttpServerShard>> shards_;
    std::atomic<uint64_t> numbers_{0};
    std::atomic<size_t> connections_{0};
    std::atomic<uint64_t> tooMany_{0};
    std::atomic<uint64_t> pauses_{0};

    mutable std::mutex mutex_;  // of the rest
    std::vector<std::unique_ptr<CVEKHttpListener>> listeners_;
    std::vector<uint16_t> ports_;
    std::unordered_map<std::string, size_t> peers_;  // connections by address
    std::vector<std::function<void()>> done_;
    size_t draining_ = 0;  // shards that are
    bool isDraining_ = false;
    bool wasWhole_ = true;
};

#endif
