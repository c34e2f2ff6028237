// CVEKHttp2Source: a body that is produced while it is sent. The link asks for it on the driving
// thread, in the midst of a flush; the source must not call the link from there, except for
// SubmitTrailers. Offer may throw std::bad_alloc, which fails it.
#ifndef CVEK_HTTP2_SOURCE_H
#define CVEK_HTTP2_SOURCE_H

#include <sys/types.h>

#include <cstddef>

class CVEKHttp2Source {
  public:
    // Results of Offer beside a number of bytes.
    static constexpr ssize_t LATER = -1;   // nothing now: the link asks again after ResumeBody
    static constexpr ssize_t FAILED = -2;  // the stream is reset with INTERNAL_ERROR

    enum End {
        END_OPEN,      // more will come
        END_BODY,      // these bytes end the stream
        END_TRAILERS,  // these bytes end the body; trailers, submitted already, end the stream
    };

    virtual ~CVEKHttp2Source() = default;
    // Returns how many bytes can leave now, `max` at most and all of them in one piece of memory,
    // or LATER or FAILED; 0 only with an end. The bytes must stay until they are taken.
    virtual ssize_t Offer(size_t max, End& end) = 0;
    // Hands out the bytes offered last, all of them, and goes on behind them. The link copies them
    // before anything else happens to the source. Not called where none were offered.
    virtual const char* Take(size_t length) = 0;
};

#endif
