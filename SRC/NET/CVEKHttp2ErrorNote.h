// CVEKHttp2ErrorNote: the error record of a connection. It costs memory only once there is an
// error. Any thread.
#ifndef CVEK_HTTP2_ERROR_NOTE_H
#define CVEK_HTTP2_ERROR_NOTE_H

#include <cstdint>
#include <memory>
#include <string_view>

#include "VEKExport.h"
#include "VEKHttp2Error.h"
#include "VEKThreadSafety.h"

class VEK_API CVEKHttp2ErrorNote {
  public:
    // Completes the record by its texts and keeps it, unless there is one already: the first cause
    // wins. reason: see the record, may be empty.
    void Put(VEK_ST_HTTP2_ERROR error, std::string_view reason) VEK_EXCLUDES(lock_);
    VEK_ST_HTTP2_ERROR Get() const VEK_EXCLUDES(lock_);
    void Clear() VEK_EXCLUDES(lock_);

  private:
    mutable CVEKLock lock_;
    VEK_HTTP2_FAILURE failure_ VEK_GUARDED_BY(lock_) = VEK_HTTP2_FAILURE_NONE;
    std::unique_ptr<VEK_ST_HTTP2_ERROR> error_ VEK_GUARDED_BY(lock_);  // null without memory
};

#endif
