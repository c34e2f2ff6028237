// test_http2_server as its user sees it, and with real peers on either side.
#include <csignal>
#include <filesystem>

#include "TestSupport.h"
#include "TlsSupport.h"

namespace {

const std::string CLIENT = VEK_BIN_DIR "/test_http2_client";
const std::string SERVER = VEK_BIN_DIR "/test_http2_server";

// The sample server on a free port.
class Server {
  public:
    explicit Server(const tls::Words& more)
        : process_(tls::Join({SERVER, "-p", "0"}, more)),
          port_(FindAll(process_.ReadUntil("listening on port"), "on port ([0-9]+)").at(0)) {}
    static tls::Words Tls() { return {"-k", GetIdentity().key, "-r", GetIdentity().certificate}; }
    const std::string& Port() const { return port_; }
    std::string Url(const std::string& scheme) const { return scheme + "://127.0.0.1:" + port_ + "/path"; }
    Result RunClient(const tls::Words& more) const {
        return RunProgram(tls::Join({CLIENT, "-h", "127.0.0.1", "-p", port_}, more), "\n");
    }
    // Stops the server and returns its last words.
    std::string Stop(int signal = SIGTERM) {
        process_.Signal(signal);
        EXPECT_EQ(0, process_.Wait()) << process_.Error();
        return process_.Output();
    }

  private:
    Process process_;
    std::string port_;
};

TEST(ServerProgram, RejectsBadArguments) {
    const Server busy({"-u"});
    const struct {
        std::vector<std::string> arguments;
        const char* error;
    } cases[] = {
        {{}, "usage: "},
        {{"-p", "0"}, "either -k and -r, or -u\n"},
        {{"-p", "0", "-u", "-k", "key"}, "usage: "},
        {{"-p", "0", "-k", "key"}, "-k and -r go together\n"},
        {{"-p", "0", "-u", "stray"}, "belongs to no option\n"},
        {{"-p", "port", "-u"}, "-p: \"port\" is not a number from 0 to 65535\n"},
        {{"-p", "0", "-u", "-m", "1"}, "-m: \"1\" is not a number from 2 to 1000\n"},
        {{"-p", "0", "-k", "key", "-r", "certificate", "-d", "/tmp"}, "-d goes with -u\n"},
        {{"-p", "0", "-u", "-d", "/none"}, "cannot write into directory /none: No such file"},
        {{"-p", "0", "-k", "/none", "-r", "/none", "--tls12"}, "cannot use key /none with certificate /none\n"},
        {{"-p", "0", "-k", "/none", "-r", "/none"}, "certificate file /none: No such file or directory\n"},
        {{"-p", "0", "-k", "k", "-r", "r", "--tls-min", "1.1"}, "version \"1.1\" is neither 1.2 nor 1.3\n"},
        {{"-p", "0", "-k", "k", "-r", "r", "--tls-min", "1.3", "--tls12"}, "not with --tls12\n"},
        {{"-p", "0", "-u", "--want-client", "file"}, "go with -k and -r"},
        {{"-p", "0", "-u", "--tls12"}, "--tls12 goes with -k and -r\n"},
        {{"-p", busy.Port(), "-u"}, "Address already in use\n"},
    };
    for (const auto& test : cases) {
        const Result result = RunProgram(tls::Join({SERVER}, test.arguments));
        EXPECT_EQ(1, result.status);
        EXPECT_EQ(1U, Count(result.error, test.error)) << result.error;
    }
}

TEST(ServerProgram, EchoesToOurClientBothWays) {
    for (const bool isUpgrade : {false, true}) {
        SCOPED_TRACE(isUpgrade);
        const TempDir captures;
        Server server(isUpgrade ? tls::Words{"-u", "-d", captures.Path()} : Server::Tls());
        const Result result = server.RunClient(tls::Join({"-c", "100", "-v"}, tls::Words(isUpgrade ? 1 : 0, "-u")));
        EXPECT_EQ(0, result.status);
        EXPECT_EQ(100U, Count(result.output, " response status:200,value[4096:000000"));
        EXPECT_EQ(1U, Count(result.output, "99 response status:200,value[4096:00000099]"));
        EXPECT_EQ(1U, Count(server.Stop(), "1 connections, 0 failed handshakes, 100 requests, 0"));
        if (isUpgrade) {
            const auto capture = std::filesystem::directory_iterator(captures.Path())->path().filename();
            const std::string text = captures.Read(capture);
            EXPECT_EQ(1U, Count(text, "HTTP/1.1 101 Switching Protocols"));
            EXPECT_EQ(2U, Count(text, "00000099"));  // the last request and its echo
        }
    }
}

TEST(ServerProgram, FixedBodyLateAnswerAndTimeout) {
    const Server fixed({"-u", "-b", "10", "-w", "50"});
    EXPECT_EQ(1U, Count(fixed.RunClient({"-u", "-c", "1", "-v"}).output, "0 response status:200,value[  10:00000000]"));
    const Server late({"-u", "-w", "3000"});
    const Result result = late.RunClient({"-u", "-c", "1", "-v"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(1U, Count(result.output, "event wait timeout!..."));
    EXPECT_EQ(1U, Count(result.output, "error!\n"));
}

TEST(ServerProgram, ForeignClients) {
    Server secure(Server::Tls()), clear({"-u"});
    for (const bool isSecure : {true, false}) {
        const std::string url = isSecure ? secure.Url("https") : clear.Url("http");
        const Result nghttp = RunProgram({"nghttp", isSecure ? "-v" : "-uv", "-t10s", "-Hcontent-type: a/b", url});
        EXPECT_EQ(0, nghttp.status);
        EXPECT_EQ(1U, Count(nghttp.output, ":status: 200")) << nghttp.output << nghttp.error;
        EXPECT_EQ(1U, Count(nghttp.output, ") content-type: a/b")) << nghttp.output;
    }
    const Result refused = RunProgram({"h2load", "-n", "2000", "-c", "1", "-m", "100", secure.Url("https")});
    EXPECT_EQ(1U, Count(refused.output, "2000 done")) << refused.output;
    EXPECT_EQ(1U, Count(refused.output, " 0 errored, 0 timeout")) << refused.output;
    EXPECT_EQ(0U, Count(secure.Stop(), " 0 requests"));
}

TEST(ServerProgram, TlsOptions) {
    const std::string identity = "--cert %/client.pem --key %/client.pem";
    const struct {
        std::string options, client;
        bool isServed;
    } cases[] = {
        {"", "--tlsv1.3", true},
        {"--tls-max 1.2", "--tlsv1.3", false},
        {"--tls-min 1.3", "--tls-max 1.2", false},
        {"--tls12", "", true},
        {"--tls12", "--tlsv1.3", false},
        {"--want-client %/root.pem", "", true},
        {"--want-client %/stranger.pem", identity, false},
        {"--demand-client %/root.pem", identity, true},
        {"--demand-client %/root.pem", "", false},
    };
    for (const auto& test : cases) {
        Server server(tls::Split("-k %/ec.pem -r %/ec.pem " + test.options));
        const std::string url = " https://localhost:" + server.Port();
        const Result result =
            RunProgram(tls::Split("curl -sS --http2 --cacert %/root.pem -w @%/format " + test.client + url));
        EXPECT_EQ(test.isServed ? "2-200" : "0-000", result.output) << test.options << result.error;
        EXPECT_EQ(1U, Count(server.Stop(), test.isServed ? "1 connections, 0 failed" : "0 connections, 1 failed"));
    }
}

TEST(ServerProgram, SaysGoawayWhenItIsStopped) {
    Server server(tls::Join(Server::Tls(), {"-w", "20000"}));
    Process client({"nghttp", "-v", server.Url("https")});
    client.ReadUntil("recv SETTINGS frame <length=0");  // acknowledged: the server has read it all
    server.Stop(SIGINT);
    client.Wait();
    EXPECT_EQ(1U, Count(client.Output(), "last_stream_id=2147483647, error_code=NO_ERROR"));  // a notice
    EXPECT_NE(0U, Count(client.Output(), "last_stream_id=13, error_code=NO_ERROR"));
}

}  // namespace
