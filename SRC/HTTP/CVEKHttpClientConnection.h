// CVEKHttpClientConnection: a connection of a client.
#ifndef CVEK_HTTP_CLIENT_CONNECTION_H
#define CVEK_HTTP_CLIENT_CONNECTION_H

#include <netdb.h>

#include <string>

#include "CVEKHttpClientExchange.h"
#include "CVEKHttpClientTarget.h"
#include "CVEKHttpConnection.h"

class CVEKHttpClientGroup;

class CVEKHttpClientConnection : public CVEKHttpConnection {
  public:
    CVEKHttpClientConnection(CVEKHttpClientGroup& group, uint64_t number, size_t slot);
    ~CVEKHttpClientConnection() override = default;

    void Connect(const addrinfo* list);
    // Begins a request. False: it cannot be on this connection, nor can any other one.
    bool Begin(CVEKHttpClientExchange& exchange);
    // Gives one up.
    void Abort(CVEKHttpClientExchange& exchange);
    // Another request can be begun.
    bool HasRoom() const;
    // The last one that it takes has been begun: it ends when they are over.
    void Retire();
    // It will never have room again.
    bool IsOver() const { return IsDraining() || isRetired_ || HasFailed(); }
    size_t GetSlot() const { return slot_; }
    bool HasAnswered() const { return hasAnswered_; }

    // The group's: place among those with room.
    bool isListed_ = false;
    bool isReplaced_ = false;  // its slot has been given free
    CVEKHttpClientConnection* nextRoom_ = nullptr;
    CVEKHttpClientConnection* previousRoom_ = nullptr;

  private:
    bool OnTransport(CVEKHttp2Setup& setup) override;
    void OnUp(const CVEKHttp2Setup& setup) override;
    void OnStreamEnd(CVEKHttpStream& stream, uint32_t code,
                     const VEK_ST_HTTP_FAILURE* failure) override;
    void OnDown(const VEK_ST_HTTP_FAILURE& failure) override;
    uint64_t CheckDeadlines(uint64_t now) override;
    int OnField(CVEKHttpStream& stream, std::string_view name, std::string_view value) override;
    int OnFieldOverflow(CVEKHttpStream& stream) override;
    int OnData(CVEKHttpStream& stream, std::string_view data) override;
    int OnFrame(const nghttp2_frame* frame) override;
    int OnNotSent(const nghttp2_frame* frame, int error) override;

    void BeginConnect(const addrinfo* list);
    int32_t Submit(CVEKHttpClientExchange& exchange);
    int32_t SubmitFields(CVEKHttpClientExchange& exchange);
    void EndHead(CVEKHttpClientExchange& exchange);
    void TakeSettings(const nghttp2_settings& settings);
    void NoteEnd(CVEKHttpClientExchange& exchange, const VEK_ST_HTTP_FAILURE& failure);
    VEK_ST_HTTP_CONNECTION DescribeAll();
    void NoteIdle();

    CVEKHttpClientGroup& group_;
    const VEK_ST_HTTP_CLIENT_OPTIONS& options_;
    const size_t slot_;
    uint32_t limit_;      // streams at once
    uint64_t begun_ = 0;  // requests
    uint64_t idleSince_ = 0;
    bool hasAnswered_ = false;
    bool isRetired_ = false;
};

#endif
