// CVEKSocketNew: the byte stream below both ends of an HTTP/2 connection.
//
// Its static operations open, bind, accept and tune bare descriptors, for TCP and SCTP over IPv4
// and IPv6. An object owns one connected descriptor, with TLS when it is given a context. On top of
// that it can send and receive whole messages, compressed, and copy its traffic into capture files.
//
// Results of the reads and writes:
//    n >= 0                    bytes read or written; a read of 0: the peer has closed
//    VEK_SOCKET_AGAIN (-1)     would block: call again later (a Send over TLS with the same bytes,
//                              or more behind them; they may stand at another address by then)
//    VEK_SOCKET_BROKEN (-2)    the connection is unusable
//    VEK_SOCKET_OVERFLOW (-3)  only from the delimited read
// A Send over TLS takes all of the bytes or none (VEK_SOCKET_AGAIN); one in clear text may take
// fewer.
// No operation raises SIGPIPE, whatever the program has set for that signal.
//
// An object belongs to one thread at a time; it takes no lock. The static operations may be called
// from any thread; CONNECT serialises its callers.
#ifndef CVEK_SOCKET_NEW_H
#define CVEK_SOCKET_NEW_H

#include <netdb.h>
#include <netinet/in.h>
#include <openssl/ssl.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

#include "VEKConnectTimes.h"
#include "VEKDumpOption.h"
#include "VEKExport.h"
#include "VEKTlsConnection.h"
#include "VEKTlsFailure.h"

class CVEKPCAPDump;

constexpr int VEK_SOCKET_AGAIN = -1;
constexpr int VEK_SOCKET_BROKEN = -2;
constexpr int VEK_SOCKET_OVERFLOW = -3;

// Results of AdvanceTLS.
constexpr int VEK_SOCKET_TLS_DONE = 1;     // the handshake is over and "h2" agreed
constexpr int VEK_SOCKET_TLS_WAIT = 0;     // call again when GetTLSEvents have come
constexpr int VEK_SOCKET_TLS_FAILED = -1;  // the handshake has failed
constexpr int VEK_SOCKET_TLS_NO_H2 = -2;   // it is over, but the peer does not speak HTTP/2

// Modes of SetFD: which side of the TLS handshake to play.
constexpr int VEK_SOCKET_MODE_ACCEPT = 1;
constexpr int VEK_SOCKET_MODE_CONNECT = 2;

// Values of SetIOMethod; any value other than SINGLE loops.
constexpr int VEK_SOCKET_IO_SINGLE = 1;  // one system call for each Send and Recv
constexpr int VEK_SOCKET_IO_LOOP = 2;    // Send and Recv go on until done or blocked

// Sizes of ACCEPT's buffers.
constexpr size_t VEK_SOCKET_IP_TEXT_SIZE = INET6_ADDRSTRLEN;
constexpr size_t VEK_SOCKET_HOST_TEXT_SIZE = 1025;

// Why there is no connection.
struct VEK_ST_SOCKET_FAILURE {
    int resolverError_ = 0;  // EAI_..., else 0
    int errno_ = 0;          // of the address that was tried last
};

// Held for the whole of CONNECT, so that one connect follows another.
VEK_API extern std::mutex G_VEK_SOCKADDR_MUTEX;

class VEK_API CVEKSocketNew {
  public:
    // Connects to `host` (a name or a numeric address) at `port`. protocol: IPPROTO_TCP (6, the
    // default) or IPPROTO_SCTP (132). Each address that the name has is tried in turn, with up to
    // `retry` calls for a connect still in progress; a retry of 0 fails without a call.
    // Returns a blocking descriptor, which the caller closes, or -1.
    static int CONNECT(int protocol, const char* host, int port, int retry);
    static int CONNECT(const char* host, int port, int retry);
    // The same, and says in `times` how long name and connect took and, where it is not null and
    // there is no descriptor, in `failure` why.
    static int CONNECT(int protocol, const char* host, int port, int retry,
                       VEK_ST_CONNECT_TIMES& times, VEK_ST_SOCKET_FAILURE* failure = nullptr);

    // Its first half: the addresses of `host` at `port`, for the caller to free with freeaddrinfo.
    // Takes no lock; the resolver may take its time. Returns null after an Info line.
    // error: where not null, gets the resolver's result.
    static addrinfo* RESOLVE(int protocol, const char* host, int port, int* error = nullptr);

    // Listens on every address of the family: AF_INET (IPv4), any other value IPv6. `addr` plays no
    // part: meant. Port 0 takes a free one. An IPv6 listener also takes IPv4 unless the environment
    // variable VEK_SOCKET_IPV6_ONLY is "yes", "on" or "true" in any letter case.
    // Returns a descriptor, which the caller closes, or -1.
    static int LISTEN(int family, int port, const char* addr);
    static int LISTEN(int family, int protocol, int port, const char* addr);

    // The same with the resolver's wildcard address of `family`: AF_INET, AF_INET6, or -1 for the
    // family that the environment variable VEK_SOCKET_DEFAULT_IP_NET names: not set any, "IPV6"
    // IPv6, any other text (lower case included) IPv4.
    static int LISTEN2(int port, int family);
    static int LISTEN2(int protocol, int port, int family);

    // Accepts one connection, waiting up to `timeout` microseconds (-1: without limit). ipText
    // takes the peer's address (VEK_SOCKET_IP_TEXT_SIZE bytes hold any; 16 are enough for IPv4).
    // hostText may be null; else it takes the peer's host name, or its address when it has no name,
    // and must hold VEK_SOCKET_HOST_TEXT_SIZE bytes. The name is asked of the resolver, which may
    // take its time.
    // Returns a blocking descriptor, which the caller closes; 0 on time-out; -1 on failure.
    static int ACCEPT(int listenFd, int timeout, char* ipText, char* hostText);

    // Sends small segments at once (TCP_NODELAY).
    static void SET_NODELAY(int fd);
    // Makes the descriptor non-blocking. Returns false after an Info line.
    static bool SET_NONBLOCK(int fd);
    // Index of the interface that carries this IPv6 address, 0 when none does.
    static int GET_V6_IFINDEX(const sockaddr_in6* addr);
    // Waits for readability. Returns above 0 when readable, 0 on time-out, -1 on failure.
    static int SELECT(int fd, int sec, int usec);

    // Not connected, clear text, single-call mode, named "unknown".
    CVEKSocketNew();
    // Calls Clear and DisableDump.
    ~CVEKSocketNew();

    CVEKSocketNew(const CVEKSocketNew&) = delete;
    CVEKSocketNew& operator=(const CVEKSocketNew&) = delete;

    // Says that nothing more will be sent, in TLS first; receiving goes on.
    void EndSending();
    // Ends TLS (without waiting for the peer), closes the descriptor and frees the work buffer of
    // the compressed framing. Capturing goes on with the next descriptor. Safe to repeat.
    void Clear();
    // A name of up to 63 characters for display; a longer one is cut with a Warning line.
    void SetName(const char* name);
    const char* GetName() const { return name_; }
    void SetIOMethod(int method) { ioMethod_ = method; }
    int GetSocket() const { return fd_; }

    // Takes the connected descriptor `fd` over, in place of one that it may have, which it closes;
    // Clear closes it, also after a failure here. Work buffer and capture stay as they are. With a
    // context (not owned; it must outlive the object) runs the TLS handshake, as `mode` says, for
    // up to 10 seconds, whether the descriptor blocks or not, and checks that "h2" was agreed.
    // Returns true, or false after an Error line.
    bool SetFD(int fd, SSL_CTX* ctx, int mode);

    // The handshake of SetFD in steps, for callers that wait for many descriptors at once. SetFD
    // without a context first; the descriptor must not block. The caller keeps the time.
    // Begins it, as `mode` says. Returns false after an Error line.
    bool StartTLS(SSL_CTX* ctx, int mode);
    // A client's, between the two: names the peer (VEK_TLS_SET_PEER). Returns false after an Error
    // line.
    bool SetTLSPeer(const char* name, const char* target);
    // Goes on as far as it can: one of VEK_SOCKET_TLS_..., after an Error line when below 0.
    int AdvanceTLS();
    // What it waits for, POLLIN or POLLOUT.
    short GetTLSEvents() const;
    // The TLS session, which stays the object's; null in clear text.
    SSL* GetTLS() const { return ssl_; }
    // Gives up a handshake that took too long, with its Error line.
    void ExpireTLS();

    // What the handshake has agreed. Empty before its end, in clear text, and without memory.
    VEK_ST_TLS_INFO GetTLSInfo() const;
    // Why TLS has failed: in the handshake, in a Send or in a Recv, whichever was first; null: it
    // has not. A peer that ends the connection before its first byte counts: it may have refused us
    // without a word. The object's own, and gone with the descriptor.
    const VEK_ST_TLS_FAILURE* GetTLSFailure() const { return tlsFailure_.get(); }

    // Writes and reads bytes; results as above.
    int Send(const char* buf, size_t len);
    int Recv(char* buf, size_t len);
    // Reads up to and including `delim` (clear text only), `max` bytes at most; `buf` must hold
    // max + 1 bytes and is not NUL-terminated. Input that is the delimiter alone does not end the
    // read: meant. Returns the bytes read, fewer without a delimiter when the input ends or would
    // block; VEK_SOCKET_OVERFLOW when max + 1 bytes came without a delimiter.
    int Recv(char* buf, const char* delim, int max);
    // Reads without taking (clear text only): another read gives the same bytes. Results as of
    // Recv.
    int Peek(char* buf, size_t len);
    // Takes `len` bytes that Peek has shown (clear text only), which one call to Recv may give only
    // in part. Returns false when the connection is unusable.
    bool Skip(size_t len);
    // True when received bytes are waiting above the descriptor, where no event announces them.
    bool IsRecvBuffered() const { return isRecvBuffered_; }
    // True when the last Recv has emptied the socket: another one would block, unless more has come
    // meanwhile.
    bool IsRecvDrained() const { return isDrained_ && !isRecvBuffered_; }

    // The clear-text halves of Send and Recv. SendLoop returns the bytes sent until it would block
    // (0 when none); RecvLoop fills the buffer for up to 0.1 s and returns what it got.
    int SendOnce(const char* buf, size_t len);
    int SendLoop(const char* buf, size_t len);
    int RecvOnce(char* buf, size_t len);
    int RecvLoop(char* buf, size_t len);

    // SELECT on the object's descriptor.
    int Select(int sec, int usec);

    // Messages, each compressed into one frame: the lengths of the message and of the block behind
    // them, 4 bytes each in the host's (little-endian) order, then the block, in LZ4's block
    // format. Both ends must have agreed on it beforehand. The framing wants a blocking descriptor
    // in looping mode: a frame that is cut short is a failure and cannot be resumed, and after a
    // failure the stream may stand in the midst of a frame. Over SCTP a frame is one message, which
    // must fit into the descriptor's send buffer; over TLS it must fit into one record (16 KiB).

    // Makes the work buffer of both directions. size: CVEKUtil::LZ4_GetCompressBoundSize of the
    // largest message; the length itself does not do. Returns false after an Error line.
    bool InitCompress(size_t size);
    // Sends one message. Returns `len`, or -1 when it was not sent as a whole.
    int CompressSend(const char* buf, size_t len);
    // Receives one message into `buf`. Returns its length, or -1: the connection has ended or
    // failed, the frame does not fit into `buf` or the work buffer, or it does not decode to what
    // it promises. What the peer sends never makes it allocate or write beyond them.
    int DecompressRecv(char* buf, size_t bufLen);

    // Copies what Send and Recv carry in clear text from now on into capture files; see
    // CVEKPCAPDump::Initialize for the arguments, and VEKDumpOption.h for what the options add. The
    // delimited read is not copied. Ends an earlier capture first. Returns false, without a
    // capture, when it cannot be started; a capture that fails later loses packets and leaves the
    // traffic alone. As every operation, for one thread at a time: not while another one sends or
    // receives.
    bool EnableDump(const char* path, const char* name, int maxFileSize, const char* srcIP,
                    const char* destIP, const VEK_ST_DUMP_OPTIONS& options = {});
    void DisableDump();

  private:
    bool FinishTLS();
    void FailTLS(const char* reason, int sslError, int systemError);
    void KeepFailure(int sslError, int systemError);
    void KeepFarewell();
    int SendTLS(const char* buf, size_t len);
    int RecvTLS(char* buf, size_t len);
    int RecvFlags(char* buf, size_t len, int flags) const;
    void Close();
    bool RecvExactly(void* buf, int len);
    void FreeCompressBuffer();
    int Mirror(const char* buf, int result);

    char name_[64];
    int fd_;
    SSL* ssl_;
    int ioMethod_;
    char* compressBuffer_;  // from malloc, owned
    int compressBufferSize_;
    std::unique_ptr<CVEKPCAPDump> pcap_;
    bool isTLSDumped_;
    std::unique_ptr<const VEK_ST_TLS_FAILURE> tlsFailure_;
    bool isRecvBuffered_;
    bool isPeerSilent_ = true;  // no byte has come behind the handshake
    bool isDrained_;
};

#endif
