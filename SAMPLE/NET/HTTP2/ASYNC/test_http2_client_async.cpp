// Many requests in flight on several connections at once, and what became of them. `vekload` in
// TOOL/LOAD is the program that measures.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <future>
#include <memory>
#include <string>

#include "CVEKHttpClient.h"
#include "SampleArguments.h"
#include "VEKTlsOption.h"

namespace {

struct Arguments {
    std::string host;
    int port = 0;
    int count = 10;
    int connections = 1;
    int streams = 100;
    bool isStartedAtOnce = false;
    int transport = 0;  // u, d or INSECURE; 0: TLS
};

enum { INSECURE = FIRST_LONG_OPTION };
constexpr option LONG_OPTIONS[] = {{"insecure", no_argument, nullptr, INSECURE},
                                   {nullptr, 0, nullptr, 0}};

void PrintHelp(FILE* stream, const char* program) {
    fprintf(stream,
            "usage: %s -h host -p port [-u | -d | --insecure] [-c count] [-n connections]\n"
            "       [-m streams] [-s]\n"
            "  -h host         server, a name or an address\n"
            "  -p port         its port\n"
            "  -u              clear text with the HTTP/1.1 upgrade instead of TLS\n"
            "  -d              clear text with prior knowledge instead of TLS\n"
            "  --insecure      take a server whose certificate does not hold\n"
            "  -c count        requests in all (10)\n"
            "  -n connections  side by side (1)\n"
            "  -m streams      requests in flight on each connection (100)\n"
            "  -s              start at once, do not wait for Enter\n"
            "example: %s -h 127.0.0.1 -p 8443 -s -c 100000\n",
            program, program);
}

bool ParseOption(int option, const char* argument, Arguments& arguments) {
    switch (option) {
        case 'h':
            arguments.host = TrimHost(argument);
            return true;
        case 'p':
            return ParseNumber('p', argument, 1, MAX_PORT, arguments.port);
        case 'c':
            return ParseNumber('c', argument, 1, 1000000000, arguments.count);
        case 'n':
            return ParseNumber('n', argument, 1, 10000, arguments.connections);
        case 'm':
            return ParseNumber('m', argument, 1, 10000, arguments.streams);
        case 's':
            arguments.isStartedAtOnce = true;
            return true;
        case 'u':
        case 'd':
        case INSECURE:
            arguments.transport = option;
            return true;
        default:
            return false;
    }
}

// Keeps a number of requests in flight until all have been sent: each answer sends the next one.
class Sender {
  public:
    Sender(CVEKHttpClient& client, int count) : client_(client), toSend_(count), toCome_(count) {
        request_.method_ = "POST";
        request_.path_ = "/test/test";
        request_.fields_ = {{"content-type", "text"}};
        request_.body_ = std::make_shared<const std::string>(4096, 'x');
    }
    // Returns when all answers have come.
    void Run(int inFlight) {
        for (int i = 0; i < inFlight; ++i) {
            SendNext();
        }
        allCame_.get_future().wait();
    }
    int GetGood() const { return good_; }
    int GetBad() const { return bad_; }

  private:
    // On any thread; handlers run on those of the loops.
    void SendNext() {
        if (toSend_-- <= 0) {
            return;
        }
        client_.Send(request_, [this](VEK_ST_HTTP_RESPONSE& response) {
            const bool isGood = !response.failure_ && response.status_ / 100 == 2;
            if (!isGood && bad_++ == 0) {  // the first one tells enough
                const bool isConnected = response.connection_ != 0;
                fprintf(stderr, "%s%s, status %d\n", isConnected ? "" : "cannot connect: ",
                        response.failure_ ? response.failure_.text_.c_str() : "answered",
                        response.status_);
            }
            good_ += isGood ? 1 : 0;
            SendNext();
            if (--toCome_ == 0) {
                allCame_.set_value();
            }
        });
    }

    CVEKHttpClient& client_;
    VEK_ST_HTTP_REQUEST request_;
    std::atomic<int> toSend_;
    std::atomic<int> toCome_;
    std::atomic<int> good_{0};
    std::atomic<int> bad_{0};
    std::promise<void> allCame_;
};

}  // namespace

int main(int argc, char** argv) {
    if (AnswerQuestion(argc, argv, PrintHelp)) {
        return 0;
    }
    Arguments arguments;
    const auto parse = [&](int option, const char* text) {
        return ParseOption(option, text, arguments);
    };
    if (!ParseOptions(argc, argv, "h:p:c:n:m:sud", LONG_OPTIONS, parse) || arguments.port == 0 ||
        arguments.host.empty() || optind < argc) {
        PrintHelp(stderr, argv[0]);
        return 2;
    }
    VEK_ST_HTTP_TARGET target;
    target.host_ = arguments.host;
    target.port_ = static_cast<uint16_t>(arguments.port);
    target.isUpgrade_ = arguments.transport == 'u';
    if (arguments.transport == 0 || arguments.transport == INSECURE) {
        const auto tls = std::make_shared<VEK_ST_TLS_OPTIONS>();
        tls->isVerifying_ = arguments.transport != INSECURE;
        target.tls_ = tls;
    }
    CVEKEventLoops loops;
    VEK_ST_HTTP_CLIENT_OPTIONS options;
    options.connections_ = static_cast<size_t>(arguments.connections);
    options.streams_ = static_cast<uint32_t>(arguments.streams);
    options.waiting_ = 0;
    CVEKHttpClient client(loops, options);
    if (const VEK_ST_HTTP_FAILURE failure = client.AddTarget(target)) {
        fprintf(stderr, "%s\n", failure.text_.c_str());
        return 1;
    }
    if (!arguments.isStartedAtOnce) {
        WaitForEnter();
    }
    Sender sender(client, arguments.count);
    const auto start = std::chrono::steady_clock::now();
    sender.Run(arguments.connections * arguments.streams);
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    printf("%d answered, %d failed, %.3f s, %.1f requests/s\n", sender.GetGood(), sender.GetBad(),
           time.count(), arguments.count / time.count());
    return sender.GetBad() == 0 ? 0 : 1;
}
