// A test client for HTTP/2 servers: one connection, a number of equal POST requests one after
// another, each waiting for its response, and the rate at the end.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

#include "CVEKHttp2Request.h"
#include "SampleArguments.h"
#include "VEKCommonOpenSSL.h"
#include "VEKHttp2Option.h"
#include "VEKServiceLog.h"
#include "VEKStandardStream.h"
#include "VEKText.h"

namespace {

char G_OPT_HOST[32] = "";
int32_t G_OPT_PORT = 0;
int32_t G_OPT_TEST_COUNT = 10;
bool G_OPT_VERBOSE = false;
bool G_OPT_UPGRADE = false;

constexpr int SLOT_MAX_PAYLOAD_SIZE = 1;
constexpr int SLOT_TIMEOUT = 9;
constexpr uint32_t PAYLOAD_SIZE = 4096;
constexpr uint32_t TIMEOUT_SECONDS = 1;

constexpr int PROGRESS_MIN_COUNT = 1000;  // runs above this many requests print their progress
constexpr int PROGRESS_LINES = 100;

using Buffer = std::unique_ptr<char, decltype(&free)>;

// The validity that each option sets stands until a later option sets it anew, so a host or port
// behind an unknown option makes up for it: meant. A host that does not fit is beyond repair.
bool ParseArg(int argc, char** argv) {
    bool isValid = false;
    bool isHostFit = true;
    int option = 0;
    while ((option = getopt(argc, argv, "h:p:c:uv")) != -1) {
        switch (option) {
            case 'h':
                isHostFit = VEK_COPY_TEXT(G_OPT_HOST, TrimHost(optarg).c_str()) && isHostFit;
                isValid = true;
                break;
            case 'p':
                G_OPT_PORT = atoi(optarg);
                isValid = true;
                break;
            case 'c':
                G_OPT_TEST_COUNT = atoi(optarg);
                break;
            case 'u':
                G_OPT_UPGRADE = true;
                break;
            case 'v':
                G_OPT_VERBOSE = true;
                break;
            default:
                isValid = false;
                break;
        }
    }
    return isValid && isHostFit && G_OPT_PORT != 0;
}

// -e is announced though it is not an option, and only the first line puts "./" before the name:
// meant, as the spellings are.
void Help(FILE* stream, const char* program) {
    fprintf(stream, "\t./%s -h host -p port [-u] [-v] [-c test-count]\n", program);
    fprintf(stream, "\t -h host  : host ip address\n");
    fprintf(stream, "\t -p port  : host listening port\n");
    fprintf(stream, "\t -u       : http/1/1 upgrade connect mode\n");
    fprintf(stream, "\t -e       : external event dispath mode\n");
    fprintf(stream, "\t -v       : verbose mode\n");
    fprintf(stream, "\t -c count : test count\n");
    fprintf(stream, "examples)\n\t%s -h 127.0.0.1 -p 8088 -u -v -c 10\n", program);
}

double ElapsedSeconds(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void FillRequest(VEK_ST_HTTP2_REQUEST& request, int number) {
    request.messageId_ = number;
    request.authority_[0] = '\0';
    VEK_COPY_TEXT(request.method_, "POST");
    VEK_COPY_TEXT(request.path_, "/test/test");
    snprintf(request.payload_.data_, PAYLOAD_SIZE, "%08d", number);
    request.payload_.size_ = PAYLOAD_SIZE;  // the whole buffer, not just the digits: meant
    request.payload_.rSize_ = 0;
}

// The response line's "value[...]" shows at most 8 characters of the body: fewer than that must
// end where the body ends.
void TerminateBody(VEK_ST_HTTP2_RESPONSE& response) {
    if (response.payload_.size_ < PAYLOAD_SIZE) {
        response.payload_.data_[response.payload_.size_] = '\0';
    }
}

void PrintProgress(const VEK_ST_HTTP2_RESPONSE& response, int success,
                   std::chrono::steady_clock::time_point start) {
    if (G_OPT_TEST_COUNT > PROGRESS_MIN_COUNT &&
        success % (G_OPT_TEST_COUNT / PROGRESS_LINES) == 0) {
        printf("%d response status:%s,value[%4d:%8.8s] tps=%lf\n", success, response.rs_,
               static_cast<int>(response.payload_.size_), response.payload_.data_,
               success / ElapsedSeconds(start));
    }
}

int doTestSync(CVEKHttp2Request& connection) {
    VEK_ST_HTTP2_REQUEST request;
    VEK_ST_HTTP2_RESPONSE response;
    // Zero-filled, so that nothing of this process's memory goes out with the body.
    const Buffer requestBody(static_cast<char*>(calloc(1, PAYLOAD_SIZE)), free);
    const Buffer responseBody(static_cast<char*>(calloc(1, PAYLOAD_SIZE)), free);
    if (requestBody == nullptr || responseBody == nullptr) {
        VEK_SERVICE_LOG(VEK_LOG_ERROR, "memory allocate failed...");
        return 0;
    }
    request.payload_.data_ = requestBody.get();
    response.payload_.data_ = responseBody.get();
    const auto start = std::chrono::steady_clock::now();
    request.hdr_.emplace_back("content-type", "text");
    request.hdr_.emplace_back("routing-host", "127.0.0.1:8000");

    int success = 0;
    int i = 0;
    for (; i < G_OPT_TEST_COUNT; ++i) {
        FillRequest(request, i);
        if (!connection.Request(&request, &response)) {
            printf("error!\n");
            break;
        }
        ++success;
        TerminateBody(response);
        if (G_OPT_VERBOSE) {
            printf("%d response status:%s,value[%4d:%8.8s]\n", i, response.rs_,
                   static_cast<int>(response.payload_.size_), response.payload_.data_);
        }
        PrintProgress(response, success, start);
    }
    const double seconds = ElapsedSeconds(start);
    printf("%d elapsed...%lf... tps=%lf\n", i, seconds, i / seconds);
    return 1;
}

bool ConnectServer(CVEKHttp2Request& connection, SSL_CTX* context) {
    if (G_OPT_UPGRADE) {
        VEK_SERVICE_LOG(VEK_LOG_INFO, "connect http/1.1 upgrade...");
        return connection.Connect(G_OPT_HOST, G_OPT_PORT, false);
    }
    VEK_SERVICE_LOG(VEK_LOG_INFO, "connect http/2 direct...");
    return connection.Connect(G_OPT_HOST, G_OPT_PORT, context, false);
}

int doTest() {
    static SSL_CTX* context = nullptr;  // kept until the process ends
    CVEKHttp2Request connection;
    if (!G_OPT_UPGRADE) {
        VEK_SSL_INIT();
        context = VEK_SSL_CREATE_CLIENT_CTX(nullptr, nullptr, nullptr);
        if (context == nullptr) {
            return 0;
        }
        VEK_SERVICE_LOG(VEK_LOG_INFO, "SSL init success...");
    }
    memset(G_HTTP2_OPTION, 0, sizeof G_HTTP2_OPTION);
    G_HTTP2_OPTION[SLOT_MAX_PAYLOAD_SIZE] = PAYLOAD_SIZE;
    G_HTTP2_OPTION[SLOT_TIMEOUT] = TIMEOUT_SECONDS;
    if (!connection.Initialize("test", G_HTTP2_OPTION)) {
        return 0;
    }
    if (!ConnectServer(connection, context)) {
        const VEK_ST_HTTP2_ERROR error = connection.GetError();
        fprintf(stderr, "cannot connect to %s port %d: %s\n", G_OPT_HOST, G_OPT_PORT,
                error.reason_[0] != '\0' ? error.reason_ : error.text_);
        return 0;
    }
    VEK_SERVICE_LOG(VEK_LOG_INFO, "Testing %d Request!...", G_OPT_TEST_COUNT);
    WaitForEnter();
    return doTestSync(connection);
}

}  // namespace

int main(int argc, char** argv) {
    VEK_OPEN_STANDARD_STREAMS();
    if (argc == 2 && AnswerQuestion(argc, argv, Help)) {
        return 0;
    }
    if (!ParseArg(argc, argv)) {
        fprintf(stderr, "Invalid Arguments...\n");
        Help(stderr, argv[0]);
        return 0;  // success: meant
    }
    VEK_OPEN_SERVICE_LOG(VEK_LOG_ALL);
    VEK_HTTP2_INIT();
    int result = 0;
    try {
        result = doTest();
    } catch (const std::exception& failure) {  // no memory, for one
        fprintf(stderr, "%s: %s\n", argv[0], failure.what());
    }
    VEK_CLOSE_SERVICE_LOG();
    return result != 0 ? 0 : 1;
}
