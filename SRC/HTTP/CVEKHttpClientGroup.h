// CVEKHttpClientGroup: a client's connections to one target on one loop, and the requests that wait
// for them. A connection stands for one of the group's slots until no more requests may go to it;
// while it ends, another one takes the slot.
#ifndef CVEK_HTTP_CLIENT_GROUP_H
#define CVEK_HTTP_CLIENT_GROUP_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "CVEKHttpAddresses.h"
#include "CVEKHttpClientConnection.h"
#include "CVEKHttpClientExchange.h"
#include "CVEKHttpClientTarget.h"

class CVEKHttpClientShard;

class CVEKHttpClientGroup : private CVEKLoopTimer {
  public:
    // slots: the numbers of the connections that the group may have at once.
    CVEKHttpClientGroup(CVEKHttpClientShard& shard, const CVEKHttpClientTarget& target,
                        size_t index, const std::vector<size_t>& slots);
    ~CVEKHttpClientGroup() override;
    CVEKHttpClientGroup(const CVEKHttpClientGroup&) = delete;
    CVEKHttpClientGroup& operator=(const CVEKHttpClientGroup&) = delete;

    CVEKHttpClientShard& GetShard() { return shard_; }
    const CVEKHttpClientTarget& GetTarget() const { return target_; }
    size_t GetIndex() const { return index_; }

    void Submit(CVEKHttpClientExchange& exchange);
    void Connect();
    // Takes a waiting one out.
    void Remove(CVEKHttpClientExchange& exchange);
    void CountBytes(uint64_t& sent, uint64_t& received);
    void End();

    // For connections.
    void NoteUp(CVEKHttpClientConnection& connection);
    // It may have room now, or none any more.
    void NoteRoom(CVEKHttpClientConnection& connection);
    void NoteAnswer() { failures_ = 0; }
    void NoteDown(CVEKHttpClientConnection& connection, const VEK_ST_HTTP_FAILURE& failure);
    // The exchange is over on its connection, with this failure, if any; isUnprocessed: the peer
    // has not worked on it.
    void Settle(CVEKHttpClientExchange& exchange, VEK_ST_HTTP_FAILURE failure, bool isUnprocessed);

  private:
    void OnTimer() override;
    void Serve();
    void OpenMore();
    size_t CountWanted() const;
    void TryOpenMore();
    void Open();
    void OnAddresses(const char* error);
    void TellDown(const VEK_ST_HTTP_FAILURE& failure) const;
    void NoteFailure(const VEK_ST_HTTP_FAILURE& failure);
    void Wait(CVEKHttpClientExchange& exchange, bool isFirst);
    uint64_t CheckWaiting(uint64_t now);
    void ReleaseSlot(CVEKHttpClientConnection& connection);
    void List(CVEKHttpClientConnection& connection);
    void Unlist(CVEKHttpClientConnection& connection);
    bool MayRepeat(const CVEKHttpClientExchange& exchange, const VEK_ST_HTTP_FAILURE& failure,
                   bool isUnprocessed) const;

    CVEKHttpClientShard& shard_;
    CVEKLoopCore& loop_;
    const CVEKHttpClientTarget& target_;
    const VEK_ST_HTTP_CLIENT_OPTIONS& options_;
    const size_t index_;
    CVEKHttpAddresses addresses_;
    CVEKHttpClientQueue waiting_;
    std::vector<std::unique_ptr<CVEKHttpClientConnection>> connections_;
    std::vector<size_t> freeSlots_;
    // Those with room; the next request goes to the first of them.
    CVEKHttpList<CVEKHttpClientConnection, &CVEKHttpClientConnection::nextRoom_,
                 &CVEKHttpClientConnection::previousRoom_>
        room_;
    size_t connecting_ = 0;
    size_t up_ = 0;
    unsigned failures_ = 0;   // in a row
    std::string lateText_;    // with the last of them; empty: there was no memory for it
    uint64_t retryTime_ = 0;  // no connecting before
    size_t asked_ = 0;        // connections that Connect has asked for and that are not begun yet
    bool hasEnded_ = false;
};

#endif
