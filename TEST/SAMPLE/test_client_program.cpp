// test_http2_client as its user sees it: arguments, output, exit status, against a real server.

#include "TestSupport.h"
#include "TlsSupport.h"

namespace {

const std::string PROGRAM = VEK_BIN_DIR "/test_http2_client";

const std::string HELP = "Invalid Arguments...\n\t./" + PROGRAM + R"( -h host -p port [-u] [-v] [-c test-count]
	 -h host  : host ip address
	 -p port  : host listening port
	 -u       : http/1/1 upgrade connect mode
	 -e       : external event dispath mode
	 -v       : verbose mode
	 -c count : test count
examples)
	)" + PROGRAM + " -h 127.0.0.1 -p 8088 -u -v -c 10\n";

// A real HTTP/2 server over TLS with one file below /test/test.
struct Server : tls::Service {
    Server() : Service("/usr/sbin/nghttpd -d %/files PORT " + GetIdentity().key + " " + GetIdentity().certificate) {
        tls::Folder().Write("files/test/test", "0123456789");
    }
    tls::Words Client(const tls::Words& more) const {
        return tls::Join({PROGRAM, "-h", "127.0.0.1", "-p", std::to_string(port)}, more);
    }
};

Result RunClient(const std::vector<std::string>& command) { return RunProgram(command, "\n"); }

// The lines of `text` that match the extended regular expression as a whole.
size_t CountLines(const std::string& text, const std::string& pattern) {
    return FindAll(text, "^" + pattern + "$").size();
}

TEST(ClientProgram, RejectsWithTheHelpText) {
    const std::vector<std::vector<std::string>> cases = {
        {"-h", "127.0.0.1"},
        {"-h", "127.0.0.1", "-p", "0"},
        {"-h", "127.0.0.1", "-p", "8443", "-e"},
        {"-h", "127.0.0.1", "-p", "8443", "-c"},
        {"-h", std::string(32, '1'), "-p", "8443"},
        {"-h", std::string(5000, '1'), "-p", "8443", "-h", "127.0.0.1"},
    };
    for (const auto& arguments : cases) {
        const Result run = RunClient(tls::Join({PROGRAM}, arguments));
        EXPECT_EQ(0, run.status);
        EXPECT_EQ("", run.output);
        // getopt's own complaint about an option may stand before it.
        EXPECT_EQ(HELP, run.error.substr(run.error.find("Invalid")));
    }
}

TEST(ClientProgram, FailsToConnectWithStatus1) {
    const std::string port = std::to_string(FreePort());
    const std::vector<std::vector<std::string>> cases = {
        {"-h", "127.0.0.1", "-p", port},
        {"-e", "-h", "127.0.0.1", "-p", port},  // a later option makes up for an unknown one
        {"-p", port},
        {"-h", "127.0.0.1", "-p", "99999999999999999999"},
        {"-h", "[::1]", "-p", port, "-u"},
    };
    for (const auto& arguments : cases) {
        const Result run = RunClient(tls::Join({PROGRAM}, arguments));
        EXPECT_EQ(1, run.status) << run.output;
        EXPECT_EQ(0U, Count(run.output, "tps=") + Count(run.output, "error!")) << run.output;
        EXPECT_EQ(1U, Count(run.error, "cannot connect to ")) << run.error;
        EXPECT_EQ(0U, Count(run.error, ": \n")) << run.error;  // a reason is given
    }
}

TEST(ClientProgram, PrintsResponsesProgressAndSummary) {
    const Server server;
    const std::string response = "[0-9]+ response status:200,value\\[  10:01234567\\]", tps = " tps=[0-9]+\\.[0-9]{6}";
    const struct {
        std::vector<std::string> arguments;
        int count;
        size_t responses, progress;
    } cases[] = {
        {{"-c", "-3"}, 0, 0, 0},        {{}, 10, 0, 0}, {{"-v", "-c", "3"}, 3, 3, 0}, {{"-c", "1000"}, 1000, 0, 0},
        {{"-c", "1500"}, 1500, 0, 100},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(test.count);
        const Result run = RunClient(server.Client(test.arguments));
        EXPECT_EQ(0, run.status);
        EXPECT_EQ(test.responses, CountLines(run.output, response)) << run.output;
        EXPECT_EQ(test.progress, CountLines(run.output, response + tps));
        EXPECT_EQ(1U, CountLines(run.output,
                                 std::to_string(test.count) + " elapsed\\.\\.\\.[0-9]+\\.[0-9]{6}\\.\\.\\." + tps))
            << run.output;
    }
    const Result run = RunClient(server.Client({"-c", "0"}));
    EXPECT_EQ(1U, Count(run.output, " tps=0.000000\n"));
    EXPECT_EQ(1U, Count(run.output, "Testing 0 Request!..."));
}

TEST(ClientProgram, WaitsForEnterAndSurvivesTheServersDeath) {
    Server server;
    Process client(server.Client({"-c", "2000000", "-v"}));
    client.ReadUntil("Testing 2000000 Request!...");
    EXPECT_EQ(0U, Count(client.Output(), "response status"));
    client.Feed("\n");
    client.ReadUntil("99 response status:200");
    server.process.reset();
    EXPECT_EQ(0, client.Wait());
    EXPECT_EQ(1U, Count(client.Output(), "error!\n"));
    EXPECT_EQ(1U, CountLines(client.Output(), "[0-9]+ elapsed\\.\\.\\..*"));
}

}  // namespace
