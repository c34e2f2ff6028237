// CVEKHttpAddresses: the addresses of a target, found on a loop without waiting. A name is asked
// for again when the answer has become old or connecting has failed.
#ifndef CVEK_HTTP_ADDRESSES_H
#define CVEK_HTTP_ADDRESSES_H

#include <netdb.h>
#include <sys/un.h>
#include <uv.h>

#include <cstdint>
#include <functional>
#include <string>

#include "CVEKLoopCore.h"
#include "VEKHttpClientOption.h"

class CVEKHttpAddresses {
  public:
    // Gets null, or why there are no addresses.
    using Handler = std::function<void(const char* error)>;

    CVEKHttpAddresses(CVEKLoopCore& loop, const VEK_ST_HTTP_TARGET& target, Handler handler);
    // Ends a search that is under way.
    ~CVEKHttpAddresses();
    CVEKHttpAddresses(const CVEKHttpAddresses&) = delete;
    CVEKHttpAddresses& operator=(const CVEKHttpAddresses&) = delete;

    // The addresses; null while there are none. Of no use after the next Find.
    const addrinfo* Get() const;
    bool IsFinding() const { return search_ != nullptr; }
    // Looks for them; the handler follows, maybe at once.
    void Find();
    // Connecting has failed.
    void Forget() { isStale_ = true; }

  private:
    struct Search;

    static void OnFound(uv_getaddrinfo_t* request, int status, addrinfo* list);
    void TakeUnix();

    CVEKLoopCore& loop_;
    const VEK_ST_HTTP_TARGET& target_;
    Handler handler_;
    Search* search_ = nullptr;
    addrinfo* list_ = nullptr;
    addrinfo unix_{};
    sockaddr_un unixAddress_{};
    uint64_t foundTime_ = 0;
    bool isNumeric_ = false;
    bool isStale_ = false;
};

#endif
