// CVEKHttpPrepared: a request that a client sends again and again, worked out once: its header
// fields as the engine takes them, and what it wants beside its message. It never changes, so that
// all loops share it.
#ifndef CVEK_HTTP_PREPARED_H
#define CVEK_HTTP_PREPARED_H

#include <nghttp2/nghttp2.h>

#include <utility>
#include <vector>

#include "CVEKHttpClientTarget.h"
#include "VEKHttpMessage.h"

// Appends the request's fields, which refer to its texts and to the target's. None is copied.
void VEK_HTTP_LIST_FIELDS(const VEK_ST_HTTP_REQUEST& request, const CVEKHttpClientTarget& target,
                          std::vector<nghttp2_nv>& fields);

class CVEKHttpPrepared {
  public:
    CVEKHttpPrepared(VEK_ST_HTTP_REQUEST&& request, VEK_ST_HTTP_CALL_OPTIONS&& options,
                     std::shared_ptr<const CVEKHttpClientTarget> target);
    CVEKHttpPrepared(const CVEKHttpPrepared&) = delete;
    CVEKHttpPrepared& operator=(const CVEKHttpPrepared&) = delete;

    const VEK_ST_HTTP_REQUEST& GetRequest() const { return request_; }
    const VEK_ST_HTTP_CALL_OPTIONS& GetOptions() const { return options_; }
    const std::vector<nghttp2_nv>& GetFields() const { return fields_; }
    // Why it cannot be sent; null: it can.
    const char* GetFault() const { return fault_; }

  private:
    const VEK_ST_HTTP_REQUEST request_;
    const VEK_ST_HTTP_CALL_OPTIONS options_;
    const std::shared_ptr<const CVEKHttpClientTarget> target_;  // its texts are referred to
    const char* const fault_;
    std::vector<nghttp2_nv> fields_;
};

#endif
