// Counts the memory that one HTTP/2 connection over TLS holds, at each end of it: the bytes that
// libnghttp2, OpenSSL and everybody else, which is us, have allocated and not freed. Client and
// server live in this program and talk over loopback; they are driven in event mode, with the
// options of the load generator and the sample server.
//   bench_footprint -k key -r certificate [-m streams] [-b bytes] [-n requests] [-w milliseconds]
//     -k, -r  PEM files
//     -m      concurrent streams (100)
//     -b      largest body (16384)
//     -n      requests of the burst (100), each a POST with 4096 bytes and as many back
//     -w      quiet time before "idle again" (2000)
// The program has its own malloc and mmap, in front of the system's. An allocation belongs to whose
// code has called for it; a mapping, of which only we make any, counts with the pages that are
// resident. A first connection comes and goes before, so that what is made once for all is not
// counted; the contexts and the buffers of this program are not either.
#include <arpa/inet.h>
#include <link.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "CVEKHttp2Request.h"
#include "CVEKHttp2Response.h"
#include "CVEKSocketNew.h"
#include "SampleArguments.h"
#include "VEKCommonOpenSSL.h"
#include "VEKHttp2Option.h"
#include "VEKServiceLog.h"
#include "VEKText.h"

// The allocator behind this program's own.
extern "C" {
void* __libc_malloc(size_t size) noexcept;
void* __libc_memalign(size_t alignment, size_t size) noexcept;
void __libc_free(void* memory) noexcept;
}

namespace {

enum Owner { OURS, NGHTTP2, OPENSSL, OWNERS };
enum End { NOBODY, CLIENT, SERVER, ENDS };

struct Range {
    uintptr_t begin;
    uintptr_t end;
    Owner owner;
};
constexpr size_t MAX_RANGES = 32;
Range G_RANGES[MAX_RANGES];  // code of the libraries
size_t G_RANGE_COUNT = 0;

std::atomic<int64_t> G_BYTES[ENDS][OWNERS];
// For whom the thread works.
thread_local End G_END = NOBODY;

// Before each allocation.
struct alignas(std::max_align_t) Header {
    size_t size;
    uint32_t offset;  // of the caller's memory from the system's
    uint16_t owner;
    uint16_t end;
};

struct Mapping {
    void* memory;
    size_t size;
    End end;
};
constexpr size_t MAX_MAPPINGS = 4096;
Mapping G_MAPPINGS[MAX_MAPPINGS];
size_t G_MAPPING_COUNT = 0;
std::mutex G_MAPPING_MUTEX;

Owner FindOwner(const void* caller) {
    const auto address = reinterpret_cast<uintptr_t>(caller);
    for (size_t i = 0; i < G_RANGE_COUNT; ++i) {
        if (address >= G_RANGES[i].begin && address < G_RANGES[i].end) {
            return G_RANGES[i].owner;
        }
    }
    return OURS;
}

Header* HeaderOf(void* memory) {
    return static_cast<Header*>(memory) - 1;
}

void* Allocate(size_t alignment, size_t size, const void* caller) {
    const size_t offset = std::max(alignment, sizeof(Header));
    if (size > PTRDIFF_MAX - offset) {
        errno = ENOMEM;
        return nullptr;
    }
    void* base = alignment <= alignof(Header) ? __libc_malloc(size + offset)
                                              : __libc_memalign(alignment, size + offset);
    if (base == nullptr) {
        return nullptr;
    }
    void* memory = static_cast<char*>(base) + offset;
    const Owner owner = FindOwner(caller);
    *HeaderOf(memory) = {size, static_cast<uint32_t>(offset), static_cast<uint16_t>(owner),
                         static_cast<uint16_t>(G_END)};
    G_BYTES[G_END][owner] += static_cast<int64_t>(size);
    return memory;
}

void Release(void* memory) {
    if (memory != nullptr) {
        const Header& header = *HeaderOf(memory);
        G_BYTES[header.end][header.owner] -= static_cast<int64_t>(header.size);
        __libc_free(static_cast<char*>(memory) - header.offset);
    }
}

// Bytes of the mappings of `end` that have memory behind them.
int64_t CountResident(End end) {
    const std::lock_guard<std::mutex> guard(G_MAPPING_MUTEX);
    const auto pageSize = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    int64_t pages = 0;
    for (size_t i = 0; i < G_MAPPING_COUNT; ++i) {
        std::vector<unsigned char> isResident((G_MAPPINGS[i].size + pageSize - 1) / pageSize);
        if (G_MAPPINGS[i].end == end &&
            mincore(G_MAPPINGS[i].memory, G_MAPPINGS[i].size, isResident.data()) == 0) {
            pages += std::count_if(isResident.begin(), isResident.end(),
                                   [](unsigned char page) { return (page & 1) != 0; });
        }
    }
    return pages * static_cast<int64_t>(pageSize);
}

void ForgetMapping(const void* memory) {
    const std::lock_guard<std::mutex> guard(G_MAPPING_MUTEX);
    Mapping* end = G_MAPPINGS + G_MAPPING_COUNT;
    Mapping* found = std::find_if(
        G_MAPPINGS, end, [memory](const Mapping& mapping) { return mapping.memory == memory; });
    if (found != end) {
        *found = G_MAPPINGS[--G_MAPPING_COUNT];
    }
}

}  // namespace

// What the C library asks a replaced allocator to define.
extern "C" {

void* malloc(size_t size) noexcept {
    return Allocate(0, size, __builtin_return_address(0));
}

void* calloc(size_t count, size_t size) noexcept {
    size_t total = 0;
    if (__builtin_mul_overflow(count, size, &total)) {
        errno = ENOMEM;
        return nullptr;
    }
    void* memory = Allocate(0, total, __builtin_return_address(0));
    return memory == nullptr ? nullptr : memset(memory, 0, total);
}

void* realloc(void* memory, size_t size) noexcept {
    void* moved = Allocate(0, size, __builtin_return_address(0));
    if (memory != nullptr && moved != nullptr) {
        memcpy(moved, memory, std::min(size, HeaderOf(memory)->size));
        Release(memory);
    }
    return moved;
}

void free(void* memory) noexcept {
    Release(memory);
}

void* memalign(size_t alignment, size_t size) noexcept {
    return Allocate(alignment, size, __builtin_return_address(0));
}

void* aligned_alloc(size_t alignment, size_t size) noexcept {
    return Allocate(alignment, size, __builtin_return_address(0));
}

int posix_memalign(void** memory, size_t alignment, size_t size) noexcept {
    *memory = Allocate(alignment, size, __builtin_return_address(0));
    return *memory == nullptr ? ENOMEM : 0;
}

size_t malloc_usable_size(void* memory) noexcept {
    return memory == nullptr ? 0 : HeaderOf(memory)->size;
}

void* mmap(void* wish, size_t size, int protection, int flags, int fd, off_t offset) noexcept {
    const auto result = syscall(SYS_mmap, wish, size, protection, flags, fd, offset);
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the number that the system returns is an address
    void* memory = reinterpret_cast<void*>(result);
    const std::lock_guard<std::mutex> guard(G_MAPPING_MUTEX);
    if (memory != MAP_FAILED && G_END != NOBODY && G_MAPPING_COUNT < MAX_MAPPINGS) {
        G_MAPPINGS[G_MAPPING_COUNT++] = {memory, size, G_END};
    }
    return memory;
}

int munmap(void* memory, size_t size) noexcept {
    ForgetMapping(memory);
    return static_cast<int>(syscall(SYS_munmap, memory, size));
}

}  // extern "C"

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t BODY_SIZE = 4096;
constexpr uint32_t HEADER_TABLE_SIZE = 4096;
constexpr uint32_t WINDOW_SIZE = 1U << 30;
constexpr int MAX_STREAMS = 10000;
constexpr int MAX_PAYLOAD_SIZE = 1 << 20;
constexpr int MAX_REQUESTS = 1000000;
constexpr int MAX_QUIET_MS = 600000;
constexpr int QUIET_STEP_MS = 50;  // between two looks at the connections
constexpr std::chrono::seconds PATIENCE(10);

struct Options {
    const char* key = nullptr;
    const char* certificate = nullptr;
    int streams = 100;
    int payloadSize = 16384;
    int requests = 100;
    int quietMs = 2000;
};
Options G_OPTIONS;

// What the thread does in its life is done for one end.
class Scope {
  public:
    explicit Scope(End end) { G_END = end; }
    ~Scope() { G_END = NOBODY; }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;
};

[[noreturn]] void Fail(const char* what) {
    fprintf(stderr, "%s failed\n", what);
    exit(1);
}

void Require(bool isGood, const char* what) {
    if (!isGood) {
        Fail(what);
    }
}

int AddRanges(dl_phdr_info* info, size_t /*size*/, void* /*data*/) {
    const struct {
        const char* name;
        Owner owner;
    } libraries[] = {{"libnghttp2.", NGHTTP2}, {"libssl.", OPENSSL}, {"libcrypto.", OPENSSL}};
    for (const auto& library : libraries) {
        if (strstr(info->dlpi_name, library.name) == nullptr) {
            continue;
        }
        for (int i = 0; i < info->dlpi_phnum && G_RANGE_COUNT < MAX_RANGES; ++i) {
            const auto& segment = info->dlpi_phdr[i];
            if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0) {
                const uintptr_t begin = info->dlpi_addr + segment.p_vaddr;
                G_RANGES[G_RANGE_COUNT++] = {begin, begin + segment.p_memsz, library.owner};
            }
        }
    }
    return 0;
}

struct Contexts {
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> client{nullptr, SSL_CTX_free};
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> server{nullptr, SSL_CTX_free};
};

// Listens on any free port, and sets it.
int Listen(int& port) {
    const int fd = CVEKSocketNew::LISTEN(AF_INET, 0, nullptr);
    sockaddr_in address{};
    socklen_t length = sizeof address;
    Require(fd >= 0 && getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0,
            "listening");
    port = ntohs(address.sin_port);
    return fd;
}

// Both ends of one connection.
class Pair {
  public:
    Pair() : requestBody_(BODY_SIZE, 'x'), responseBody_(PayloadSize(), '\0') {
        VEK_ST_HTTP2_OPTIONS options{};
        options.nMaxConcurrentStream_ = static_cast<uint32_t>(G_OPTIONS.streams);
        options.nMaxPayloadSize_ = static_cast<uint32_t>(G_OPTIONS.payloadSize);
        options.nMaxHeaderTableSize_ = HEADER_TABLE_SIZE;
        options.nLocalWindowSize_ = WINDOW_SIZE;
        options.nTimeout_ = static_cast<uint32_t>(PATIENCE.count());
        {
            const Scope scope(CLIENT);
            client_ = std::make_unique<CVEKHttp2Request>();
            Require(client_->Initialize("client", &options), "the client's Initialize()");
        }
        const Scope scope(SERVER);
        server_ = std::make_unique<CVEKHttp2Response>();
        Require(server_->Initialize("server", &options), "the server's Initialize()");
    }
    ~Pair() = default;
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;

    void Connect(const Contexts& contexts) {
        int port = 0;
        const int listenFd = Listen(port);
        bool isAccepted = false;
        std::thread accepting([&] {
            const int fd = accept(listenFd, nullptr, nullptr);
            const Scope scope(SERVER);
            isAccepted = server_->Accept(fd, "127.0.0.1", port, contexts.server.get(), true);
        });
        bool isConnected = false;
        {
            const Scope scope(CLIENT);
            isConnected = client_->Connect("127.0.0.1", port, contexts.client.get(), true);
        }
        accepting.join();
        close(listenFd);
        Require(isConnected && isAccepted, "the handshake");
        Pass();
        while (Wait(QUIET_STEP_MS)) {  // SETTINGS and their acknowledgements
            Pass();
        }
    }

    // Sends `count` requests, as many at once as the server takes.
    void Burst(int count) {
        const Clock::time_point deadline = Clock::now() + PATIENCE;
        int sent = 0;
        answered_ = 0;
        while (answered_ < count) {
            while (sent < count && sent - answered_ < G_OPTIONS.streams - 1 && Queue(sent)) {
                ++sent;
            }
            const int before = answered_;
            Pass();
            if (answered_ == before) {
                Wait(QUIET_STEP_MS);
            }
            Require(Clock::now() < deadline, "the burst");
        }
    }

    // What an application does while nothing comes.
    void StayQuiet(int quietMs) {
        const Clock::time_point end = Clock::now() + std::chrono::milliseconds(quietMs);
        while (Clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::milliseconds(QUIET_STEP_MS));
            Pass();
            {
                const Scope scope(CLIENT);
                Require(client_->IsValid(), "the client's IsValid()");
            }
            const Scope scope(SERVER);
            Require(server_->IsValid(), "the server's IsValid()");
        }
    }

    void Disconnect() {
        {
            const Scope scope(CLIENT);
            client_->Disconnect();
        }
        const Scope scope(SERVER);
        server_->Disconnect();
    }

  private:
    static size_t PayloadSize() { return static_cast<size_t>(G_OPTIONS.payloadSize); }

    bool Queue(int number) {
        VEK_ST_HTTP2_REQUEST request;
        request.messageId_ = number;
        request.authority_[0] = '\0';
        VEK_COPY_TEXT(request.method_, "POST");
        VEK_COPY_TEXT(request.path_, "/test/test");
        request.hdr_ = {{"content-type", "text"}, {"routing-host", "127.0.0.1:8000"}};
        request.payload_ = {requestBody_.size(), 0, requestBody_.data()};
        const Scope scope(CLIENT);
        return client_->Request(&request, false) == 1;
    }

    // Lets both ends send and receive what there is.
    void Pass() {
        PassClient();
        PassServer();
    }

    void PassClient() {
        VEK_ST_HTTP2_RESPONSE response;
        response.payload_.data_ = responseBody_.data();
        const Scope scope(CLIENT);
        int result = 0;
        while ((result = client_->ProcEventPre()) == 1) {
        }
        Require(result == 0 && client_->ProcEvent(), "the client's events");
        while (client_->GetResponse(&response) == 1) {
            Require(strcmp(response.rs_, "200") == 0, "a request");
            ++answered_;
        }
        Require(client_->GetTimeout(&response) == 0, "answering in time");
    }

    void PassServer() {
        VEK_ST_HTTP2_REQUEST_RECV request;
        VEK_ST_HTTP2_RESPONSE response;
        VEK_COPY_TEXT(response.rs_, "200");
        response.hdr_ = {{"content-type", "text"}};
        response.error_ = 0;
        const Scope scope(SERVER);
        Require(server_->ProcEvent(), "the server's events");
        int result = 0;
        while ((result = server_->Request(&request)) == 1) {
            response.streamId_ = request.streamId_;
            response.payload_ = {request.size_, 0, request.data_};
            Require(server_->Response(&response, false) == 1, "a response");
        }
        Require(result == 0, "the server's Request()");
        while ((result = server_->ProcEventPre()) == 1) {
        }
        Require(result == 0, "the server's ProcEventPre()");
    }

    // Whether something can be received before the time is over.
    bool Wait(int timeoutMs) const {
        pollfd sockets[] = {{client_->GetSocket(), POLLIN, 0}, {server_->GetSocket(), POLLIN, 0}};
        return poll(sockets, 2, timeoutMs) > 0;
    }

    std::string requestBody_;
    std::string responseBody_;
    std::unique_ptr<CVEKHttp2Request> client_;
    std::unique_ptr<CVEKHttp2Response> server_;
    int answered_ = 0;
};

struct Snapshot {
    int64_t bytes[ENDS][OWNERS];
};

Snapshot TakeSnapshot() {
    Snapshot snapshot{};
    for (const End end : {CLIENT, SERVER}) {
        for (int owner = 0; owner < OWNERS; ++owner) {
            snapshot.bytes[end][owner] = G_BYTES[end][owner];
        }
        snapshot.bytes[end][OURS] += CountResident(end);
    }
    return snapshot;
}

void Print(const char* stage, const Snapshot& before) {
    const Snapshot now = TakeSnapshot();
    printf("| %s", stage);
    for (const End end : {CLIENT, SERVER}) {
        for (int owner = 0; owner < OWNERS; ++owner) {
            printf(" | %lld",
                   static_cast<long long>(now.bytes[end][owner] - before.bytes[end][owner]));
        }
    }
    printf(" |\n");
}

void Measure(const Contexts& contexts) {
    {
        Pair first;
        first.Connect(contexts);
        first.Burst(1);
        first.Disconnect();
    }
    printf(
        "| live bytes (%d streams, bodies up to %d) | client: ours | libnghttp2 | OpenSSL "
        "| server: ours | libnghttp2 | OpenSSL |\n|---|---|---|---|---|---|---|\n",
        G_OPTIONS.streams, G_OPTIONS.payloadSize);
    printf("| sizeof of the object, part of ours | %zu | | | %zu | | |\n", sizeof(CVEKHttp2Request),
           sizeof(CVEKHttp2Response));
    const Snapshot before = TakeSnapshot();
    auto pair = std::make_unique<Pair>();
    Print("initialised", before);
    pair->Connect(contexts);
    Print("set up, idle", before);
    pair->Burst(G_OPTIONS.requests);
    const std::string burst = "after " + std::to_string(G_OPTIONS.requests) + " requests";
    Print(burst.c_str(), before);
    pair->StayQuiet(G_OPTIONS.quietMs);
    Print("idle again", before);
    pair->Disconnect();
    Print("disconnected", before);
    pair.reset();
    Print("deleted", before);
}

bool ParseOption(int option, const char* argument) {
    switch (option) {
        case 'k':
            G_OPTIONS.key = argument;
            return true;
        case 'r':
            G_OPTIONS.certificate = argument;
            return true;
        case 'm':
            return ParseNumber('m', argument, 2, MAX_STREAMS, G_OPTIONS.streams);
        case 'b':
            return ParseNumber('b', argument, static_cast<int>(BODY_SIZE), MAX_PAYLOAD_SIZE,
                               G_OPTIONS.payloadSize);
        case 'n':
            return ParseNumber('n', argument, 1, MAX_REQUESTS, G_OPTIONS.requests);
        case 'w':
            return ParseNumber('w', argument, 0, MAX_QUIET_MS, G_OPTIONS.quietMs);
        default:
            return false;
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (!ParseOptions(argc, argv, "k:r:m:b:n:w:", ParseOption) || optind < argc ||
        G_OPTIONS.key == nullptr || G_OPTIONS.certificate == nullptr) {
        fprintf(stderr,
                "usage: %s -k key -r certificate [-m streams] [-b bytes] [-n requests]\n"
                "       [-w milliseconds]\n",
                argv[0]);
        return 2;
    }
    VEK_OPEN_SERVICE_LOG(VEK_LOG_WARNING);
    VEK_HTTP2_INIT();
    VEK_SSL_INIT();
    VEK_SSL_THREAD_SETUP();
    Contexts contexts;
    contexts.client.reset(VEK_SSL_CREATE_CLIENT_CTX(nullptr, nullptr, nullptr));
    contexts.server.reset(VEK_SSL_CREATE_SERVER_CTX(G_OPTIONS.key, G_OPTIONS.certificate, nullptr));
    Require(contexts.client != nullptr && contexts.server != nullptr, "making the contexts");
    dl_iterate_phdr(AddRanges, nullptr);
    Measure(contexts);
    VEK_CLOSE_SERVICE_LOG();
    return 0;
}
