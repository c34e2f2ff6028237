// CVEKHttpClientShard: a client's part on one loop. CVEKHttpClientCore: what it has once.
#ifndef CVEK_HTTP_CLIENT_SHARD_H
#define CVEK_HTTP_CLIENT_SHARD_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "CVEKHttpClientExchange.h"
#include "CVEKHttpClientGroup.h"
#include "CVEKHttpClientTarget.h"
#include "CVEKLoopCounter.h"

class CVEKHttpClientShard : public CVEKLoopResident,
                            private CVEKLoopSettler,
                            public std::enable_shared_from_this<CVEKHttpClientShard> {
  public:
    struct Counters {
        CVEKLoopCounter connections;
        CVEKLoopCounter opened;
        CVEKLoopCounter connectFailed;
        CVEKLoopCounter waiting;
        CVEKLoopCounter flying;
        CVEKLoopCounter sent;
        CVEKLoopCounter repeated;
        CVEKLoopCounter succeeded;
        CVEKLoopCounter failed;
    };

    CVEKHttpClientShard(std::shared_ptr<CVEKLoopCore> loop,
                        std::shared_ptr<const VEK_ST_HTTP_CLIENT_OPTIONS> options);
    ~CVEKHttpClientShard() override;
    CVEKHttpClientShard(const CVEKHttpClientShard&) = delete;
    CVEKHttpClientShard& operator=(const CVEKHttpClientShard&) = delete;

    const std::shared_ptr<CVEKLoopCore>& GetLoop() const { return loop_; }
    const VEK_ST_HTTP_CLIENT_OPTIONS& GetOptions() const { return *options_; }
    Counters& GetCounters() { return counters_; }

    // Any thread: an exchange to fill; where it goes then.
    CVEKHttpClientExchange& Acquire();
    void Post(CVEKHttpClientExchange& exchange);

    // The rest is the loop's thread's.
    void Enter() { loop_->Enter(*this); }
    void AddTarget(std::shared_ptr<const CVEKHttpClientTarget> target,
                   const std::vector<size_t>& slots);
    void Connect();
    void Submit(CVEKHttpClientExchange& exchange);
    // Hands the response to the handler, and takes the exchange back.
    void Complete(CVEKHttpClientExchange& exchange);
    // The same with a failure, but not now: a handler would come too early, within Send or Cancel,
    // or while functions of the request are at work.
    void Fail(CVEKHttpClientExchange& exchange, VEK_HTTP_REASON reason, std::string_view text,
              bool isRepeatable);
    // The same for one that waits or is with a peer; others stay as they are.
    void GiveUp(CVEKHttpClientExchange& exchange, VEK_HTTP_REASON reason, const char* text);
    void Cancel(CVEKHttpClientExchange& exchange);
    // Adds what connections have carried.
    void CountBytes(uint64_t& sent, uint64_t& received);
    void End();
    // Where it has ended, nothing settles later: does so now.
    void FinishWhenEnded();
    void OnLoopEnd() override;

    uint64_t NextNumber() { return ++*numbers_; }
    void SetNumbers(std::shared_ptr<std::atomic<uint64_t>> numbers) {
        numbers_ = std::move(numbers);
    }
    // Room for the fields of a message while it is submitted.
    std::vector<nghttp2_nv>& GetFields() { return fields_; }

  private:
    void OnSettle() override;
    void Release(CVEKHttpClientExchange& exchange);

    std::shared_ptr<CVEKLoopCore> loop_;
    const std::shared_ptr<const VEK_ST_HTTP_CLIENT_OPTIONS> options_;
    std::shared_ptr<std::atomic<uint64_t>> numbers_;
    std::vector<std::shared_ptr<const CVEKHttpClientTarget>> targets_;
    std::vector<std::unique_ptr<CVEKHttpClientGroup>> groups_;  // by target; null: none here
    Counters counters_;
    std::vector<nghttp2_nv> fields_;
    CVEKHttpClientQueue failing_;
    CVEKHttpClientQueue free_;
    bool hasEnded_ = false;

    std::mutex mutex_;  // of the rest
    std::vector<std::unique_ptr<CVEKHttpClientExchange>> all_;
    CVEKHttpClientQueue returned_;  // free, for any thread
};

class CVEKHttpClientCore {
  public:
    CVEKHttpClientCore(std::vector<std::shared_ptr<CVEKLoopCore>> loops,
                       VEK_ST_HTTP_CLIENT_OPTIONS options);

    VEK_ST_HTTP_FAILURE AddTarget(const VEK_ST_HTTP_TARGET& options);
    VEK_ST_HTTP_FAILURE AddTarget(const std::string& url);
    void Connect();
    CVEKHttpCall Send(VEK_ST_HTTP_REQUEST&& request, CVEKHttpClient::Handler&& handler,
                      VEK_ST_HTTP_CALL_OPTIONS&& options);
    VEK_HTTP_PREPARED Prepare(VEK_ST_HTTP_REQUEST&& request,
                              VEK_ST_HTTP_CALL_OPTIONS&& options) const;
    CVEKHttpCall Send(const VEK_HTTP_PREPARED& request, CVEKHttpSink& sink, uint64_t tag);
    void End();
    VEK_ST_HTTP_CLIENT_COUNTERS GetCounters() const;
    void CountBytes(uint64_t& sent, uint64_t& received) const;

  private:
    CVEKHttpClientShard& Choose(size_t target);
    static CVEKHttpCall Begin(CVEKHttpClientShard& shard, CVEKHttpClientExchange& exchange);

    const std::shared_ptr<const VEK_ST_HTTP_CLIENT_OPTIONS> options_;
    std::vector<std::shared_ptr<CVEKHttpClientShard>> shards_;
    std::vector<std::shared_ptr<const CVEKHttpClientTarget>> targets_;
    std::atomic<size_t> turn_{0};
};

#endif
