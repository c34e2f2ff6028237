// One connection of a run, and the example of a client that dispatches the events of its connection
// itself: it queues what is due, submits all of it and flushes once, waits for the socket until the
// next request is due, and collects what has come.
#ifndef LOAD_CONNECTION_H
#define LOAD_CONNECTION_H

#include <nghttp2/nghttp2.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sched.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "CVEKHttp2Request.h"
#include "LoadOptions.h"
#include "LoadResult.h"
#include "VEKHttp2Option.h"
#include "VEKText.h"

// What the connections of a run share with each other and with the main thread.
struct LoadRun {
    LoadClock::time_point start;
    std::atomic<bool> isStopping{false};
    std::atomic<int64_t> done{0};  // requests that have ended, whatever their end
    std::atomic<int64_t> errors{0};
};

class LoadConnection {
  public:
    // The connection sends the requests number `index`, `index` + options.connections, and so on.
    // The context is null for clear text; it, the options and the run must outlive the object.
    LoadConnection(const LoadOptions& options, SSL_CTX* context, int index, LoadRun& run)
        : options_(options),
          context_(context),
          run_(run),
          nextNumber_(index),
          slots_(static_cast<size_t>(options.streams)),
          requestBody_(static_cast<size_t>(options.bodySize)),
          responseBody_(static_cast<size_t>(options.BufferSize())) {
        FreeSlots();
        request_.authority_[0] = '\0';
        VEK_COPY_TEXT(request_.method_, "POST");
        VEK_COPY_TEXT(request_.path_, options.path.c_str());
        request_.hdr_ = {{"content-type", "text"}, {"routing-host", "127.0.0.1:8000"}};
        request_.payload_ = {static_cast<size_t>(options.bodySize), 0, requestBody_.data()};
        response_.payload_.data_ = responseBody_.data();
    }

    // False after the log has said why.
    bool Connect() {
        if (!isInitialized_) {
            VEK_ST_HTTP2_OPTIONS options{};
            options.nMaxConcurrentStream_ = static_cast<uint32_t>(options_.streams);
            options.nMaxPayloadSize_ = static_cast<uint32_t>(options_.BufferSize());
            options.nMaxHeaderTableSize_ = HEADER_TABLE_SIZE;
            options.nDefaultWindowSize_ = WINDOW_SIZE;
            options.nLocalWindowSize_ = WINDOW_SIZE;
            options.nTimeout_ = TIMEOUT_SECONDS;
            isInitialized_ = connection_.Initialize("load", &options) &&
                             (options_.isTls12 || connection_.SetPeerName(options_.host.c_str()));
        }
        isAnswered_ = false;
        const char* host = options_.host.c_str();
        // True: the events are this class's business.
        return isInitialized_ &&
               (options_.isUpgrade ? connection_.Connect(host, options_.port, true)
                                   : connection_.Connect(host, options_.port, context_, true));
    }

    // Of the connection; see CVEKHttp2Request.
    VEK_ST_TLS_INFO GetTlsInfo() const { return connection_.GetTlsInfo(); }
    std::string GetTlsReason() const {
        const VEK_ST_TLS_FAILURE* failure = connection_.GetTlsFailure();
        return failure == nullptr ? "" : failure->text_;
    }

    // Sends and collects until every request has ended, or the connection cannot go on.
    void Run() {
        do {
            bool isUp = connection_.ProcEvent();  // what came behind the handshake raises no event
            while (isUp && !IsFinished()) {
                QueueDue();
                isUp = Submit() && Wait() && Collect();
                Publish();
            }
            CountLost();
        } while (Reconnect());
        CountUnsent();
        Publish();
    }

    // After Run.
    const LoadResult& GetResult() const { return result_; }

  private:
    static constexpr uint32_t HEADER_TABLE_SIZE = 4096;
    static constexpr uint32_t WINDOW_SIZE = 1U << 30;
    static constexpr uint32_t TIMEOUT_SECONDS = 5;
    // How long answers are awaited after the run was stopped.
    static constexpr std::chrono::seconds STOP_GRACE{1};
    // Longest wait: what has stopped or timed out is noticed as late as this.
    static constexpr std::chrono::milliseconds WAIT_LIMIT{20};
    static constexpr int NUMBER_DIGITS = 8;
    static constexpr int NO_SLOT = -1;
    static constexpr char NO_STATUS[] = "000";

    // A request in flight; its index is the number under which the connection knows it.
    struct Slot {
        LoadClock::time_point due;  // when it was queued or, with a rate, was to be
        int64_t number;
    };

    LoadClock::time_point DueTime(int64_t number) const {
        const std::chrono::duration<double> offset(static_cast<double>(number) / options_.rate);
        return run_.start + std::chrono::duration_cast<LoadClock::duration>(offset);
    }

    // When the sending ends: the time of -t, or the moment in which the end was asked for.
    LoadClock::time_point EndTime() {
        if (run_.isStopping) {
            stopTime_ = std::min(stopTime_, LoadClock::now());
        }
        if (options_.seconds == 0) {
            return stopTime_;
        }
        const std::chrono::duration<double> length(options_.seconds);
        return std::min(stopTime_,
                        run_.start + std::chrono::duration_cast<LoadClock::duration>(length));
    }

    // Nothing more is to be sent.
    bool IsOver() { return nextNumber_ >= options_.Count() || LoadClock::now() >= EndTime(); }

    // Nothing is left to wait for, or it has been waited for long enough.
    bool IsFinished() {
        if (freeSlots_.size() == slots_.size()) {
            return connection_.IsStreamFull() || (IsOver() && isEndSeen_);
        }
        return run_.isStopping && LoadClock::now() >= EndTime() + STOP_GRACE;
    }

    // Queues what is due and fits into the streams. What was due before the end is so once more
    // behind it, for the thread may have slept over the end, but nothing waits for a stream then.
    void QueueDue() {
        const LoadClock::time_point now = LoadClock::now();
        const LoadClock::time_point end = EndTime();
        if (isEndSeen_) {
            return;
        }
        isEndSeen_ = now >= end || nextNumber_ >= options_.Count();
        while (!freeSlots_.empty() && nextNumber_ < options_.Count()) {
            const LoadClock::time_point due = options_.rate > 0 ? DueTime(nextNumber_) : now;
            if (due > now || due >= end || !Queue(due)) {
                return;
            }
        }
    }

    // False when the connection takes no more: its stream ids have run out, or it has closed.
    bool Queue(LoadClock::time_point due) {
        const int slot = freeSlots_.back();
        request_.messageId_ = slot;
        WriteNumber();
        if (connection_.IsStreamFull() || connection_.Request(&request_, false) != 1) {
            return false;
        }
        freeSlots_.pop_back();
        slots_[static_cast<size_t>(slot)] = {due, nextNumber_};
        nextNumber_ += options_.connections;
        ++queued_;
        ++result_.sent;
        result_.bytesSent += options_.bodySize;
        return true;
    }

    // The body begins with the number of its request, in eight digits.
    void WriteNumber() {
        int64_t rest = nextNumber_;
        for (int i = NUMBER_DIGITS - 1; i >= 0; --i, rest /= 10) {
            if (i < options_.bodySize) {
                requestBody_[static_cast<size_t>(i)] = static_cast<char>('0' + rest % 10);
            }
        }
    }

    // Hands the queued requests to the engine; the last one takes all of them to the socket. False
    // when the connection has closed.
    bool Submit() {
        while (queued_ > 1) {
            --queued_;
            if (connection_.SendRequestAsync() == -1) {
                return false;
            }
        }
        return std::exchange(queued_, 0) == 0 || connection_.ProcEventPre() != -1;
    }

    // Waits until something can be received or a request is due, and receives. False when the
    // connection has closed.
    bool Wait() {
        LoadClock::duration limit = WAIT_LIMIT;
        if (options_.rate > 0 && !freeSlots_.empty() && !IsOver()) {
            const LoadClock::duration left = DueTime(nextNumber_) - LoadClock::now();
            limit = std::clamp(left, LoadClock::duration::zero(), limit);
        }
        if (isCrowded_) {
            sched_yield();
        }
        const timespec timeout = {0, static_cast<long>(std::chrono::nanoseconds(limit).count())};
        const short events = connection_.IsSendBlocked() ? POLLIN | POLLOUT : POLLIN;
        pollfd socket = {connection_.GetSocket(), events, 0};
        return ppoll(&socket, 1, &timeout, nullptr) <= 0 || connection_.ProcEvent();
    }

    // Takes the responses and the time-outs. False when the connection has closed.
    bool Collect() {
        TakeResponses();
        const int64_t before = result_.timedOut;
        int result = 0;
        while ((result = connection_.GetTimeout(&response_)) == 1) {
            ++result_.timedOut;
            result_.end = LoadClock::now();
            Release();
        }
        // The resets of the timed-out streams do not wait for the next event.
        return result == 0 && (result_.timedOut == before || connection_.ProcEvent());
    }

    void TakeResponses() {
        // The answer to the upgrade's own request leaves the number as it is.
        while (response_.messageId_ = NO_SLOT, connection_.GetResponse(&response_) == 1) {
            if (response_.messageId_ != NO_SLOT) {
                CountResponse();
                Release();
            }
        }
    }

    void CountResponse() {
        const Slot& slot = slots_[static_cast<size_t>(response_.messageId_)];
        isAnswered_ = true;
        if (options_.isVerbose) {
            PrintResponse(slot.number);
        }
        result_.end = LoadClock::now();
        if (response_.error_ != 0 || strcmp(response_.rs_, NO_STATUS) == 0) {
            result_.Fail(DescribeError(response_.error_), 1);
            return;
        }
        ++result_.answered;
        result_.bytesReceived += static_cast<int64_t>(response_.payload_.size_);
        const int status = response_.rs_[0] - '0';
        const bool isKnown = status >= 1 && status < static_cast<int>(LoadResult::STATUS_CLASSES);
        ++result_.statusClasses[isKnown ? static_cast<size_t>(status) : 0];
        result_.latency.Record(result_.end - slot.due);
    }

    void PrintResponse(int64_t number) const {
        const int size = static_cast<int>(response_.payload_.size_);
        printf("%lld response status:%s,value[%4d:%8.*s]\n", static_cast<long long>(number),
               response_.rs_, size, std::min(size, NUMBER_DIGITS), responseBody_.data());
    }

    static std::string DescribeError(int error) {
        if (error == VEK_HTTP2_ERROR_PAYLOAD_OVERFLOW) {
            return "response body too large";
        }
        return std::string("stream reset by peer: ") +
               nghttp2_http2_strerror(static_cast<uint32_t>(error));
    }

    // The request of the response at hand has ended.
    void Release() { freeSlots_.push_back(response_.messageId_); }

    void Publish() {
        const int64_t errors = result_.timedOut + result_.failed;
        run_.done +=
            result_.answered + errors - std::exchange(published_, result_.answered + errors);
        run_.errors += errors - std::exchange(publishedErrors_, errors);
    }

    // The connection is done with: counts what came last, and what never will.
    void CountLost() {
        TakeResponses();
        const auto lost = static_cast<int64_t>(slots_.size() - freeSlots_.size());
        if (lost > 0) {
            const bool isClosed = connection_.GetState() == VEK_HTTP2_CONN_STATE_CLOSE;
            result_.Fail(isClosed ? DescribeCause(connection_.GetStateCause())
                                  : "not answered before the end",
                         lost);
            result_.end = LoadClock::now();
        }
        result_.tlsReason = GetTlsReason();
        FreeSlots();
        queued_ = 0;
    }

    static const char* DescribeCause(int cause) {
        switch (cause) {
            case VEK_HTTP2_CONN_CLOSE_CAUSE_PEER:
                return "connection closed by peer (GOAWAY)";
            case VEK_HTTP2_CONN_CLOSE_CAUSE_ERROR:
                return "connection lost";
            case VEK_HTTP2_CONN_CLOSE_CAUSE_STREAM_FULL:
                return "connection out of stream ids";
            default:
                return "connection closed by internal error";
        }
    }

    // Starts over where there is more to send and the last time was not in vain: a peer that closes
    // without an answer would only do so again.
    bool Reconnect() {
        connection_.Disconnect();
        if (IsOver() || !isAnswered_ || !Connect()) {
            return false;
        }
        ++result_.reconnects;
        return true;
    }

    // What was to be sent: of a run for a time without a rate, nothing in particular.
    void CountUnsent() {
        int64_t planned = options_.Count();
        const LoadClock::time_point end = EndTime();
        if (options_.rate > 0 && end != LoadClock::time_point::max()) {
            const std::chrono::duration<double> length = end - run_.start;
            planned = std::min(planned, static_cast<int64_t>(length.count() * options_.rate));
        } else if (options_.seconds > 0) {
            return;
        }
        const int64_t step = options_.connections;
        result_.unsent = std::max<int64_t>(0, (planned - nextNumber_ + step - 1) / step);
    }

    void FreeSlots() {
        freeSlots_.clear();
        for (int slot = options_.streams - 1; slot >= 0; --slot) {
            freeSlots_.push_back(slot);
        }
    }

    const LoadOptions& options_;
    SSL_CTX* context_;
    LoadRun& run_;
    CVEKHttp2Request connection_;
    bool isInitialized_ = false;
    bool isAnswered_ = false;  // since the last Connect
    // More threads than cores, and no schedule to keep: who lets the others go first, the server
    // among them, finds more when he comes back, and wakes up less often.
    const bool isCrowded_ =
        options_.rate == 0 && options_.connections > 1 &&
        static_cast<unsigned>(options_.connections) >= std::thread::hardware_concurrency();
    int64_t nextNumber_;
    int queued_ = 0;  // with the connection and not yet with the engine
    std::vector<Slot> slots_;
    std::vector<int> freeSlots_;
    LoadClock::time_point stopTime_ = LoadClock::time_point::max();
    bool isEndSeen_ = false;
    std::vector<char> requestBody_;
    std::vector<char> responseBody_;
    VEK_ST_HTTP2_REQUEST request_;
    VEK_ST_HTTP2_RESPONSE response_;
    LoadResult result_;
    int64_t published_ = 0;
    int64_t publishedErrors_ = 0;
};

#endif
