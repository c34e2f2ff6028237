// Many requests in flight at once, and what became of them. `vekload` in TOOL/LOAD measures.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <future>
#include <memory>

#include "CVEKHttpClient.h"
#include "SampleArguments.h"
#include "VEKTlsOption.h"

namespace {

struct Arguments {
    VEK_ST_HTTP_TARGET target;
    VEK_ST_HTTP_CLIENT_OPTIONS options;
    int count = 10;
    bool isStartedAtOnce = false;
    bool isTls = true;
    std::shared_ptr<VEK_ST_TLS_OPTIONS> tls = std::make_shared<VEK_ST_TLS_OPTIONS>();
};

enum { INSECURE = FIRST_LONG_OPTION };
constexpr option LONG_OPTIONS[] = {{"insecure", no_argument, nullptr, INSECURE}, {}};

void PrintHelp(FILE* stream, const char* program) {
    fprintf(stream,
            "usage: %s -h host -p port [-u | -d | --insecure] [-c count] [-n connections]\n"
            "       [-m streams] [-s]\n"
            "  -h host, -p port  server, a name or an address, and its port\n"
            "  -u, -d            clear text with the HTTP/1.1 upgrade, or with prior knowledge\n"
            "  --insecure        take a server whose certificate does not hold\n"
            "  -c count          requests in all (10)\n"
            "  -n, -m            connections (1), and requests in flight on each (100)\n"
            "  -s                start at once, do not wait for Enter\n"
            "example: %s -h 127.0.0.1 -p 8443 -s -c 100000 -m 99 --insecure\n",
            program, program);
}

bool ParseOption(int option, const char* argument, Arguments& arguments) {
    VEK_ST_HTTP_CLIENT_OPTIONS& options = arguments.options;
    switch (option) {
        case 'h':
            arguments.target.host_ = TrimHost(argument);
            return true;
        case 'p':
            return ParseNumber<uint16_t>('p', argument, 1, MAX_PORT, arguments.target.port_);
        case 'c':
            return ParseNumber('c', argument, 1, 1000000000, arguments.count);
        case 'n':
            return ParseNumber<size_t>('n', argument, 1, 10000, options.connections_);
        case 'm':
            return ParseNumber<uint32_t>('m', argument, 1, 10000, options.streams_);
        case 's':
            arguments.isStartedAtOnce = true;
            return true;
        case 'u':
        case 'd':
            arguments.isTls = false;
            arguments.target.isUpgrade_ = option == 'u';
            return true;
        case INSECURE:
            arguments.tls->isVerifying_ = false;
            return true;
        default:
            return false;
    }
}

// Keeps a number of requests in flight until all have been sent: each answer sends the next one.
class Sender {
  public:
    explicit Sender(int count) : toSend_(count), toCome_(count) {
        request_.method_ = "POST";
        request_.path_ = "/test/test";
        request_.fields_ = {{"content-type", "text"}};
        request_.body_ = std::make_shared<const std::string>(4096, 'x');
    }
    // Returns, when all answers have come, how many were not what they should be. Outlives
    // the client.
    int Run(CVEKHttpClient& client, size_t inFlight) {
        client_ = &client;
        for (size_t i = 0; i < inFlight; ++i) {
            SendNext();
        }
        allCame_.get_future().wait();
        return bad_;
    }

  private:
    // On any thread; handlers run on those of the loops, and must not throw.
    void SendNext() {
        while (toSend_-- > 0) {
            try {
                client_->Send(request_, [this](VEK_ST_HTTP_RESPONSE& response) {
                    const bool isGood = !response.failure_ && response.status_ / 100 == 2;
                    SendNext();
                    Count(isGood, response.status_, response.failure_.text_.c_str());
                });
                return;
            } catch (const std::exception& failure) {  // no memory
                Count(false, 0, failure.what());
            }
        }
    }
    void Count(bool isGood, int status, const char* reason) {
        if (!isGood && bad_++ == 0) {  // the first one tells enough
            fprintf(stderr, "status %d %s\n", status, reason);
        }
        if (--toCome_ == 0) {
            allCame_.set_value();
        }
    }

    CVEKHttpClient* client_ = nullptr;
    VEK_ST_HTTP_REQUEST request_;
    std::atomic<int> toSend_;
    std::atomic<int> toCome_;
    std::atomic<int> bad_{0};
    std::promise<void> allCame_;
};

int Run(int argc, char** argv) {
    Arguments arguments;
    arguments.options.waiting_ = 0;
    const auto parse = [&](int option, const char* text) {
        return ParseOption(option, text, arguments);
    };
    VEK_ST_HTTP_TARGET& target = arguments.target;
    if (!ParseOptions(argc, argv, "h:p:c:n:m:sud", LONG_OPTIONS, parse) || target.port_ == 0 ||
        target.host_.empty() || optind < argc) {
        PrintHelp(stderr, argv[0]);
        return 2;
    }
    target.tls_ = arguments.isTls ? arguments.tls : nullptr;
    CVEKEventLoops loops;
    Sender sender(arguments.count);
    CVEKHttpClient client(loops, arguments.options);
    if (const VEK_ST_HTTP_FAILURE failure = client.AddTarget(target)) {
        fprintf(stderr, "%s\n", failure.text_.c_str());
        return 1;
    }
    if (!arguments.isStartedAtOnce) {
        WaitForEnter();
    }
    const auto start = std::chrono::steady_clock::now();
    const int bad = sender.Run(client, arguments.options.connections_ * arguments.options.streams_);
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    printf("%d answered, %d failed, %.3f s, %.1f requests/s\n", arguments.count - bad, bad,
           time.count(), arguments.count / time.count());
    return bad == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (AnswerQuestion(argc, argv, PrintHelp)) {
        return 0;
    }
    try {
        return Run(argc, argv);
    } catch (const std::exception& failure) {  // no threads or no memory
        fprintf(stderr, "%s: %s\n", argv[0], failure.what());
        return 1;
    }
}
