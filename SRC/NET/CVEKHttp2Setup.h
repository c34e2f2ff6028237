// CVEKHttp2Setup: brings a transport, in steps, to where HTTP/2 can begin. It lives from a
// connection's first step to its last: what it holds goes with it.
//
// Life: construct; one of StartConnect, StartConnected, StartAccepted and StartDetect;
// AdvanceTransport until it no longer returns VEK_HTTP2_STEP_WAIT; where the connection is to be
// upgraded, StartClientUpgrade or StartServerUpgrade and AdvanceUpgrade in the same way. Between
// two steps the caller waits until GetEvents come on the transport's descriptor or GetDeadline has
// passed; Advance itself sees to what is late. The descriptor may change while addresses are tried:
// ask the transport after each step.
//
// The descriptor is the transport's from the first step on, also after a failure. Destroying the
// object at any moment cancels the set-up; clearing the transport is left to its owner. Transport,
// name and contexts stay the caller's and must outlive the object. One thread at a time; no lock is
// taken. Failures are results, never exceptions, and a line in the log.
#ifndef CVEK_HTTP2_SETUP_H
#define CVEK_HTTP2_SETUP_H

#include <netdb.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <chrono>
#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "CVEKHttp2ClientUpgrade.h"
#include "CVEKHttp2ServerUpgrade.h"
#include "CVEKSocketNew.h"
#include "VEKExport.h"
#include "VEKHttp2Step.h"
#include "defHttp2.h"

// How long each part may take.
struct VEK_ST_HTTP2_SETUP_LIMITS {
    std::chrono::milliseconds connect_{10000};  // all addresses together
    std::chrono::milliseconds handshake_{10000};
    std::chrono::milliseconds firstBytes_{1000};
    std::chrono::milliseconds upgrade_{VEK_HTTP2_UPGRADE_LIMIT};
};

// Where a set-up has failed.
enum VEK_HTTP2_SETUP_STAGE {
    VEK_HTTP2_SETUP_STAGE_NONE,
    VEK_HTTP2_SETUP_STAGE_RESOLVE,  // there was no address
    VEK_HTTP2_SETUP_STAGE_CONNECT,
    VEK_HTTP2_SETUP_STAGE_TLS,
    VEK_HTTP2_SETUP_STAGE_ALPN,     // the peer does not speak HTTP/2
    VEK_HTTP2_SETUP_STAGE_UPGRADE,  // or the first bytes
    VEK_HTTP2_SETUP_STAGE_TIME,     // the text says of what
};

struct VEK_ST_HTTP2_SETUP_FAILURE {
    VEK_HTTP2_SETUP_STAGE stage_ = VEK_HTTP2_SETUP_STAGE_NONE;
    VEK_HTTP2_SETUP_STAGE part_ = VEK_HTTP2_SETUP_STAGE_NONE;  // in which it failed, if for time
    int errno_ = 0;                                            // of a failed system call, else 0
    int tlsCause_ = 0;  // VEK_TLS_CAUSE_..., where TLS has failed, else 0
    char text_[256] = "";
};

class VEK_API CVEKHttp2Setup {
  public:
    CVEKHttp2Setup(CVEKSocketNew& transport, const char* name);

    CVEKHttp2Setup(const CVEKHttp2Setup&) = delete;
    CVEKHttp2Setup& operator=(const CVEKHttp2Setup&) = delete;

    // For what starts from now on.
    void SetLimits(const VEK_ST_HTTP2_SETUP_LIMITS& limits) { limits_ = limits; }

    // Clients over TLS, before the start: the peer's name, null or empty for none, and where the
    // connection leads (see VEK_TLS_SET_PEER). Both are copied. False after a log line.
    bool SetPeer(const char* name, const char* host, int port);

    // Begin; false after a log line. A null context is clear text.
    // Connects to the first of the addresses (copied) that answers; each has an equal share of the
    // time that is left when its turn comes.
    bool StartConnect(const addrinfo* list, SSL_CTX* ctx);
    // Goes on from a descriptor that is connected, or accepted.
    bool StartConnected(int fd, SSL_CTX* ctx);
    bool StartAccepted(int fd, SSL_CTX* ctx);
    // Goes on from a descriptor that is accepted, in clear text, and tells HTTP/2 with prior
    // knowledge (RFC 9113, section 3.4) from HTTP/1.1 by the first bytes, which stay in the socket.
    bool StartDetect(int fd);

    // A VEK_HTTP2_STEP_... value. DONE: the first bytes may be exchanged, in HTTP/2 or the upgrade.
    // FAILED after a log line for each address that failed, or one for what else did.
    int AdvanceTransport();
    // After StartDetect: the peer does not begin with HTTP/2, so it is to ask for the upgrade.
    bool IsUpgradeExpected() const { return isUpgradeExpected_; }

    bool StartClientUpgrade(const char* host, const VEK_ST_HTTP2_OPTIONS& options);
    void StartServerUpgrade();
    // A VEK_HTTP2_STEP_... value; lines as of the upgrade's two classes.
    int AdvanceUpgrade();
    // What came of it; null for the other side.
    const CVEKHttp2ClientUpgrade* GetClientUpgrade() const { return client_ ? &*client_ : nullptr; }
    const CVEKHttp2ServerUpgrade* GetServerUpgrade() const { return server_ ? &*server_ : nullptr; }

    // While a step has returned WAIT: POLLIN or POLLOUT, and until when.
    short GetEvents() const;
    VEK_HTTP2_DEADLINE GetDeadline() const;
    const VEK_ST_HTTP2_SETUP_FAILURE& GetFailure() const { return failure_; }
    // Of the transport, when it is done.
    const VEK_ST_CONNECT_TIMES& GetTimes() const { return times_; }

    // Take the steps and wait in between. True when done.
    bool RunTransport() { return Run(&CVEKHttp2Setup::AdvanceTransport); }
    bool RunUpgrade() { return Run(&CVEKHttp2Setup::AdvanceUpgrade); }

  private:
    enum class State { IDLE, CONNECT, HANDSHAKE, FIRST_BYTES, READY, CLIENT, SERVER, OVER, FAILED };

    struct Address {
        int family;
        int type;
        int protocol;
        socklen_t length;
        sockaddr_storage address;
    };

    bool TakeOver(int fd, SSL_CTX* ctx, int mode);
    int Step();
    int ConnectNext();
    bool BeginAddress(const Address& address);
    void DropAddress(int error);
    int AwaitConnect();
    int BeginTLS();
    int AdvanceTLS();
    int FailTLS(VEK_HTTP2_SETUP_STAGE stage, const char* text);
    int DetectProtocol();
    template <class UPGRADE>
    int Follow(UPGRADE& upgrade);
    bool Run(int (CVEKHttp2Setup::*advance)());
    VEK_HTTP2_SETUP_STAGE StageOfState() const;
    int Fail(VEK_HTTP2_SETUP_STAGE stage, const char* text, int error = 0);
    int FailMemory();

    CVEKSocketNew& transport_;
    const char* name_;
    VEK_ST_HTTP2_SETUP_LIMITS limits_;
    State state_ = State::IDLE;
    SSL_CTX* ctx_ = nullptr;
    int mode_ = 0;
    std::string peer_;          // name
    std::string target_;        // "host:port", empty: not set
    VEK_HTTP2_DEADLINE start_;  // of connect or handshake
    VEK_ST_CONNECT_TIMES times_;
    VEK_HTTP2_DEADLINE deadline_;         // of the current step
    VEK_HTTP2_DEADLINE connectDeadline_;  // of all addresses
    std::vector<Address> addresses_;
    size_t nextAddress_ = 0;
    bool isUpgradeExpected_ = false;
    std::optional<CVEKHttp2ClientUpgrade> client_;
    std::optional<CVEKHttp2ServerUpgrade> server_;
    VEK_ST_HTTP2_SETUP_FAILURE failure_;
};

#endif
