#include "VEKLoadOptions.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <iostream>
#include <random>
#include <sstream>

#include "VEKLoadInput.h"
#include "VEKLoadStatus.h"
#include "VEKLoadUrl.h"
#include "VEKVersion.h"

namespace {

constexpr int64_t DEFAULT_COUNT = 10;
constexpr int64_t MAX_COUNT = 1000000000000;
constexpr double MIN_RATE = 0.001;
constexpr double MAX_RATE = 1e7;
constexpr size_t MAX_BODY = size_t{1} << 30;
constexpr std::chrono::hours MAX_LENGTH{24};
constexpr int MAX_MERGED = 1000;  // whatever they count, no sum overflows

const char FOOTER[] =
    "examples:\n"
    "  vekload -n 100000 -c 10 -m 99 --insecure https://127.0.0.1:8443/\n"
    "  vekload -D 60s -c 50 --rate 2000 --fail-if 'p99 > 50ms' --fail-if 'errors > 0.1%' "
    "'https://example.test/search?q=a'\n"
    "  vekload -X PUT -H 'content-type: application/json' -d @order.json --ramp 100:5000:60s "
    "'http://[::1]:8080/orders'\n"
    "  vekload --scenario shop.json --users 200 -D 5m --warm-up 10s --json run.json --report "
    "run.html\n"
    "  vekload merge one.json two.json --fail-if 'rate < 9000/s'\n"
    "A term compares a figure by <, <=, > or >=:\n"
    "  pN, min, mean, sd, max            'p99 > 50ms'\n"
    "  errors, timeouts, failed, not-sent, expectations, status 503, status 5xx\n"
    "                                    'errors > 0.1%' of what was sent, 'status 5xx > 0'\n"
    "  rate                              'rate < 900/s'\n"
    "A time is a number with us, ms, s, m or h. Ctrl-C ends a run early, with all its results; "
    "twice: at once.\n"
    "Exit status: 0 all well, 1 a threshold or an expectation failed or nothing was answered, 2 "
    "wrong use, 3 nothing could be sent.";

const char FOOTER_OF_RANKS[] =
    "examples:\n"
    "  mpirun -np 8 --hostfile hosts vekload-mpi -n 1000000 -c 80 https://example.test/\n"
    "  mpirun -np 8 --hostfile hosts --mca odls_base_sigkill_timeout 5 vekload-mpi -D 60s -c 80 "
    "--rate 20000 --per-rank --fail-if 'p99 > 50ms' https://example.test/\n"
    "Counts, rates, users and connections are those of all ranks together, -m and -t of each. Rank "
    "0 writes the results. vekload --help explains terms.\n"
    "Exit status, of all: 0 all well, 1 a threshold or an expectation failed or nothing was "
    "answered, 2 wrong use, 3 nothing could be sent.";

using Words = std::vector<std::string>;

Words Split(const std::string& text, char separator) {
    Words words;
    std::stringstream stream(text);
    for (std::string word; std::getline(stream, word, separator);) {
        words.push_back(word);
    }
    return words;
}

double ReadRate(const std::string& text) {
    double rate = 0;
    const auto* end = text.data() + text.size();
    const auto [rest, code] = std::from_chars(text.data(), end, rate, std::chars_format::fixed);
    const bool isWithin = rate >= 0 && rate <= MAX_RATE;  // "nan" is not
    if (code != std::errc() || rest != end || !isWithin) {
        throw CLI::ValidationError("\"" + text + "\" is no rate up to 1e7");
    }
    return rate;
}

// "0/4"
VEK_ST_LOAD_SHARE ReadPart(const std::string& text) {
    constexpr int64_t MAX_PARTS = 100000;
    VEK_ST_LOAD_SHARE share;
    const auto* end = text.data() + text.size();
    const auto [slash, code] = std::from_chars(text.data(), end, share.index_);
    bool isGood = code == std::errc() && slash != end && *slash == '/';
    if (isGood) {
        const auto [rest, code2] = std::from_chars(slash + 1, end, share.of_);
        isGood = code2 == std::errc() && rest == end && share.index_ >= 0 &&
                 share.index_ < share.of_ && share.of_ <= MAX_PARTS;
    }
    if (!isGood) {
        throw CLI::ValidationError("\"" + text + "\" is no part, from \"0/4\" to \"3/4\"");
    }
    return share;
}

std::chrono::microseconds ReadTime(const std::string& text) {
    std::chrono::microseconds time{0};
    if (!VEK_LOAD_READ_TIME(text, time) || time.count() == 0 || time > MAX_LENGTH) {
        throw CLI::ValidationError("\"" + text + "\" is no time up to a day, \"30s\" or \"250ms\"");
    }
    return time;
}

void RequireRate(double rate, const std::string& text) {
    if (rate < MIN_RATE) {
        throw CLI::ValidationError("\"" + text + "\" has a rate below 0.001");
    }
}

// "1000:30s,2000:30s"
std::vector<VEK_ST_LOAD_PHASE> ReadSteps(const std::string& text) {
    std::vector<VEK_ST_LOAD_PHASE> phases;
    for (const std::string& step : Split(text, ',')) {
        const Words parts = Split(step, ':');
        if (parts.size() != 2) {
            throw CLI::ValidationError("\"" + text + "\" is no list of rate:time");
        }
        const double rate = ReadRate(parts[0]);
        RequireRate(rate, text);
        phases.push_back({rate, rate, ReadTime(parts[1])});
    }
    return phases;
}

// "100:5000:60s"
std::vector<VEK_ST_LOAD_PHASE> ReadRamp(const std::string& text) {
    const Words parts = Split(text, ':');
    if (parts.size() != 3) {
        throw CLI::ValidationError("\"" + text + "\" is not from:to:time");
    }
    const VEK_ST_LOAD_PHASE phase{ReadRate(parts[0]), ReadRate(parts[1]), ReadTime(parts[2])};
    RequireRate(std::max(phase.from_, phase.to_), text);
    return {phase};
}

CVEKLoadTerm ReadTerm(const std::string& text) {
    CVEKLoadTerm term;
    std::string error;
    if (!term.Parse(text, error)) {
        throw CLI::ValidationError(error);
    }
    return term;
}

// Adds an option. argument: what stands for it in the help.
template <class VALUE>
CLI::Option* Add(CLI::App& app, const char* name, const char* argument, VALUE& value,
                 const char* help) {
    return app.add_option(name, value, help)->option_text(argument);
}

// The same, with a function that reads the text, or throws CLI::ValidationError.
template <class READ>
CLI::Option* AddRead(CLI::App& app, const std::string& name, const char* argument,
                     const std::string& help, READ read) {
    return app
        .add_option_function<std::string>(
            name,
            [read, name](const std::string& text) {
                try {
                    read(text);
                } catch (const CLI::ValidationError& error) {
                    throw CLI::ValidationError(name.substr(name.rfind(',') + 1), error.what());
                }
            },
            help)
        ->option_text(argument);
}

CLI::Option* AddTerms(CLI::App& app, const std::string& name, const std::string& help,
                      std::vector<CVEKLoadTerm>& terms) {
    return app
        .add_option_function<Words>(
            name,
            [&terms](const Words& texts) {
                for (const std::string& text : texts) {
                    terms.push_back(ReadTerm(text));
                }
            },
            help)
        ->option_text("term")
        ->take_all()
        ->allow_extra_args(false);
}

void AddWhat(CLI::App& app, VEK_ST_LOAD_OPTIONS& options) {
    const std::string group = "What to ask";
    app.add_option("url", options.urls_, "http:// or https:// URLs, asked for in turn");
    Add(app, "--weights", "n,n,...", options.weights_, "how often each URL is asked for")
        ->delimiter(',')
        ->allow_extra_args(false)
        ->check(CLI::Range(uint64_t{1}, uint64_t{1000000}))
        ->group(group);
    Add(app, "-X,--request", "method", options.method_, "method (GET; POST with a body)")
        ->group(group);
    Add(app, "-H,--header", "field", options.headers_,
        "\"name: value\", as often as wanted, also :authority")
        ->allow_extra_args(false)
        ->group(group);
    AddRead(app, "-d,--data", "text|@file", "body: a text, @file, or @- for standard input",
            [&options](const std::string& text) {
                options.data_ = text;
                options.hasData_ = true;
            })
        ->group(group);
    Add(app, "--body-size", "bytes", options.bodySize_, "body of so many bytes")
        ->check(CLI::Range(size_t{0}, MAX_BODY))
        ->excludes("--data")
        ->group(group);
    Add(app, "--scenario", "file", options.scenario_, "flows of requests from a JSON file")
        ->excludes("--data")
        ->excludes("--body-size")
        ->excludes("--request")
        ->excludes("--weights")
        ->group(group);
    Add(app, "--seed", "n", options.seed_, "of random choices (a new one, told in the JSON)")
        ->check(CLI::Range(uint64_t{0}, static_cast<uint64_t>(INT64_MAX)))
        ->group(group);
}

void AddWhere(CLI::App& app, VEK_ST_LOAD_OPTIONS& options) {
    const std::string group = "Connections";
    const auto add = [&](const char* name, const char* argument, auto& value, const char* help) {
        return Add(app, name, argument, value, help)->group(group);
    };
    const auto flag = [&](const char* name, bool& value, const char* help) {
        return app.add_flag(name, value, help)->group(group);
    };
    add("--connect-to", "host:port", options.connectTo_, "connect there, whatever the URLs say");
    add("--resolve", "rule", options.resolve_, "host:port:address, the one to use for that host")
        ->allow_extra_args(false)
        ->excludes("--connect-to");
    flag("-4", options.isV4_, "only IPv4");
    flag("-6", options.isV6_, "only IPv6")->excludes("-4");
    add("--unix", "path", options.unixPath_, "connect to this Unix socket")
        ->excludes("--connect-to");
    flag("--upgrade", options.isUpgrade_, "http: begin with the upgrade from HTTP/1.1");
    add("--cacert", "file", options.caFile_, "PEM certificates of who may vouch (the system's)");
    add("--cert", "file", options.certificate_, "PEM certificate of this side");
    add("--key", "file", options.key_, "its key")->needs("--cert");
    flag("--insecure", options.isInsecure_, "take a certificate that does not hold");
    add("--tls-min", "1.2|1.3", options.tlsMin_, "lowest version of TLS")
        ->check(CLI::IsMember({"1.2", "1.3"}));
    add("--tls-max", "1.2|1.3", options.tlsMax_, "highest one")
        ->check(CLI::IsMember({"1.2", "1.3"}));
    add("--ciphers", "list", options.ciphers_, "TLS 1.2 ciphers, and suites of TLS 1.3 (TLS_...)");
    add("--sni", "name", options.sni_, "name to send and to demand in the certificate");
    add("--keylog", "file", options.keyLog_, "append the secrets of TLS to this file");
    CLI::Option* old = flag("--tls12", options.isTls12_,
                            "the framework's old TLS: 1.2 at most, no name, self-signed is good");
    for (const char* other :
         {"--cacert", "--insecure", "--tls-min", "--tls-max", "--ciphers", "--keylog"}) {
        old->excludes(other);
    }
    add("--window", "bytes", options.window_, "bytes that the server may send ahead (2^30)")
        ->check(CLI::Range(1U, 0x7fffffffU));
    add("--header-table", "bytes", options.headerTable_, "bytes of the header table (4096)")
        ->check(CLI::Range(0U, 1U << 20));
    add("--max-frame", "bytes", options.maxFrame_, "largest frame taken (16384)")
        ->check(CLI::Range(16384U, (1U << 24) - 1));
}

void AddHow(CLI::App& app, VEK_ST_LOAD_OPTIONS& options) {
    const std::string group = "How hard";
    const auto add = [&](const char* name, const char* argument, auto& value, const char* help) {
        return Add(app, name, argument, value, help)->group(group);
    };
    const auto read = [&](const char* name, const char* argument, const char* help, auto reader) {
        return AddRead(app, name, argument, help, reader)->group(group);
    };
    add("-n,--count", "n", options.count_, "requests; flows with a scenario (10)")
        ->check(CLI::Range(int64_t{1}, MAX_COUNT));
    read("-D,--duration", "time", "send for so long",
         [&](const std::string& text) { options.length_ = ReadTime(text); });
    add("-c,--connections", "n", options.connections_,
        "connections in all, shared by the hosts (1)")
        ->check(CLI::Range(size_t{1}, size_t{100000}));
    add("-m,--streams", "n", options.streams_, "requests at once on each (100)")
        ->check(CLI::Range(1U, 10000U));
    add("-t,--threads", "n", options.threads_, "threads (one for each core)")
        ->check(CLI::Range(1U, 256U));
    add("--users", "n", options.users_, "requests or flows at once (-c times -m)")
        ->check(CLI::Range(size_t{1}, size_t{1000000}));
    read("--rate", "n", "requests, or flows, in a second on a fixed schedule",
         [&](const std::string& text) {
             const double rate = ReadRate(text);
             RequireRate(rate, text);
             options.phases_ = {{rate, rate, {}}};
         });
    read("--rate-steps", "list", "one rate after another, 1000:30s,2000:30s",
         [&](const std::string& text) { options.phases_ = ReadSteps(text); })
        ->excludes("--rate");
    read("--ramp", "range", "a rate that changes evenly, from:to:time",
         [&](const std::string& text) { options.phases_ = ReadRamp(text); })
        ->excludes("--rate")
        ->excludes("--rate-steps");
    read("--warm-up", "time", "time at first that is left out of all figures",
         [&](const std::string& text) { options.warmUp_ = ReadTime(text); });
    add("--timeout", "ms", options.timeoutMs_, "for an answer (5000)")
        ->check(CLI::Range(1, 86400000));
    add("--churn", "n", options.churn_, "replace a connection after so many requests")
        ->check(CLI::Range(uint64_t{1}, uint64_t{1000000000}));
    app.add_flag_callback(
           "--no-resume", [&options] { options.isResuming_ = false; },
           "new connections take no old TLS session")
        ->group(group);
    AddTerms(app, "--abort-if", "end the run as soon as this holds, as --fail-if", options.abortIf_)
        ->group(group);
    read("--max-lag", "time",
         options.isRank_ ? "end the run when a thread is so late (2s)"
                         : "end the run when a thread is so late (never)",
         [&](const std::string& text) { options.maxLag_ = ReadTime(text); });
    if (!options.isRank_) {
        read("--part", "i/n", "do only this part, 0/4 to 3/4, of what is asked for",
             [&](const std::string& text) { options.share_ = ReadPart(text); });
    }
}

void AddResults(CLI::App& app, VEK_ST_LOAD_OPTIONS& options) {
    const std::string group = "Results";
    const auto add = [&](const char* name, const char* argument, auto& value, const char* help) {
        return Add(app, name, argument, value, help)->group(group);
    };
    add("--json", "file|-", options.json_,
        "all figures to this file; -: standard output, the summary moves");
    add("--csv", "file", options.csv_, "one line for each second to this file");
    add("--hdr", "file", options.hdr_,
        "HdrHistogram log of the latencies, an interval for each second");
    add("--report", "file", options.report_, "a page with charts to this file (HTML)");
    AddTerms(app, "--fail-if", "exit status 1 when this holds in the end", options.failIf_)
        ->group(group);
}

void AddLive(CLI::App& app, VEK_ST_LOAD_OPTIONS& options) {
    Add(app, "--requests", "file", options.requests_,
        "one line for each request to this file (CSV)")
        ->group("Results");
    if (options.isRank_) {
        app.add_flag("--per-rank", options.isPerRank_, "a line for each rank, too")
            ->group("Results");
    }
#ifdef VEK_PROMETHEUS
    Add(app, "--prometheus", "port", options.prometheus_,
        "serve live figures at [host:]port/metrics (127.0.0.1)")
        ->group("Results");
#endif
}

// Null, or what is wrong with the options together.
const char* FindConflict(const VEK_ST_LOAD_OPTIONS& options) {
    if (options.urls_.empty() && options.scenario_.empty()) {
        return "a URL is needed, or --scenario";
    }
    if (!options.scenario_.empty() && options.urls_.size() > 1) {
        return "a scenario takes one URL";
    }
    if (!options.scenario_.empty() && !options.headers_.empty()) {
        return "the headers of a scenario stand in its file";
    }
    if (!options.weights_.empty() && options.weights_.size() != options.urls_.size()) {
        return "--weights needs one number for each URL";
    }
    if (options.tlsMin_ > options.tlsMax_) {
        return "--tls-min is above --tls-max";
    }
    if (!options.certificate_.empty() && options.key_.empty()) {
        return "--cert needs --key";
    }
    return nullptr;
}

// A shell's variable that nobody has set must not make it another run: one without a rate, say.
void RefuseEmpty(const CLI::App& app) {
    for (const CLI::Option* option : app.get_options()) {
        const Words texts = option->results();
        const bool mayBeEmpty = option->check_name("--data");
        if (!mayBeEmpty && std::find(texts.begin(), texts.end(), "") != texts.end()) {
            throw CLI::ValidationError(option->get_name(), "has nothing for its value");
        }
    }
    for (const CLI::App* used : app.get_subcommands()) {
        RefuseEmpty(*used);
    }
}

std::string JoinCommand(int argc, char** argv) {
    std::string command;
    for (int i = 0; i < argc; ++i) {
        const std::string word = argv[i];
        const bool isPlain = word.find_first_of(" '\"\\$&|<>;()*?") == std::string::npos;
        command += (i == 0 ? "" : " ") + (isPlain ? word : "'" + word + "'");
    }
    return command;
}

}  // namespace

int64_t VEK_ST_LOAD_OPTIONS::GetCount() const {
    const bool isTimed =
        length_.count() > 0 || (!phases_.empty() && phases_.back().length_.count() > 0);
    return count_ > 0 ? count_ : isTimed ? MAX_COUNT : DEFAULT_COUNT;
}

int VEK_LOAD_READ_OPTIONS(int argc, char** argv, VEK_ST_LOAD_OPTIONS& options) {
    const std::string name = options.isRank_ ? "vekload-mpi" : "vekload";
    CLI::App app(name + ": load for HTTP/2 servers, and what came of it", name);
    app.set_version_flag("--version", name + " " + VEK_VERSION);
    app.footer(options.isRank_ ? FOOTER_OF_RANKS : FOOTER);
    app.get_formatter()->column_width(30);
    options.seed_ = std::random_device()();
    AddWhat(app, options);
    AddWhere(app, options);
    AddHow(app, options);
    AddResults(app, options);
    AddLive(app, options);
    if (!options.isRank_) {
        CLI::App* merge = app.add_subcommand("merge", "add up the JSON files of several runs");
        merge->add_option("file", options.merged_, "files of --json")
            ->required()
            ->expected(1, MAX_MERGED);
        AddResults(*merge, options);
    }
    try {
        app.parse(argc, argv);
        RefuseEmpty(app);
        const char* conflict = !options.merged_.empty() ? nullptr : FindConflict(options);
        if (conflict != nullptr) {
            throw CLI::ValidationError(conflict);
        }
    } catch (const CLI::Success& wanted) {
        return app.exit(wanted);
    } catch (const CLI::ParseError& error) {
        std::cerr << "vekload: " << error.what() << "\n" << name << " --help tells more\n";
        return VEK_LOAD_WRONG_USE;
    }
    options.command_ = JoinCommand(argc, argv);
    return VEK_LOAD_GO_ON;
}
