// test_http2_client_async as its user sees it.

#include "TestSupport.h"
#include "TlsSupport.h"

namespace {

const std::string PROGRAM = VEK_BIN_DIR "/test_http2_client_async";

TEST(AsyncProgram, HasItsRequestsAnswered) {
    tls::Folder().Write("files/test/test", "x");
    const auto& [key, certificate] = GetIdentity();
    const tls::Service secure("/usr/sbin/nghttpd -d %/files PORT " + key + " " + certificate);
    const tls::Service clear("/usr/sbin/nghttpd --no-tls -d %/files PORT");
    const tls::Service proxy("/usr/sbin/nghttpx --conf=/dev/null --workers=1 --log-level=FATAL " +
                             ("-f127.0.0.1,PORT;no-tls -b127.0.0.1," + std::to_string(clear.port) + ";;proto=h2"));
    const auto run = [](int port, const tls::Words& more) {
        return RunProgram(tls::Join({PROGRAM, "-h", "127.0.0.1", "-p", std::to_string(port), "-s"}, more));
    };
    for (const auto& [port, option] :
         {std::pair(secure.port, "--insecure"), std::pair(clear.port, "-d"), std::pair(proxy.port, "-u")}) {
        const Result result = run(port, {option, "-c", "1000", "-n", "3", "-m", "20"});
        EXPECT_EQ(0, result.status) << result.error;
        EXPECT_EQ(0U, result.output.find("1000 answered, 0 failed, ")) << result.output;
    }
    // The answer to the upgrade's own request comes first, then those to ours.
    const Result waiting = RunProgram(
        {VEK_BIN_DIR "/test_http2_client", "-h", "127.0.0.1", "-p", std::to_string(proxy.port), "-uvc20"}, "\n");
    EXPECT_EQ(1U, Count(waiting.output, "0 response status:404,value[")) << waiting.output;
    EXPECT_EQ(19U, Count(waiting.output, " response status:200,value[   1:       x]")) << waiting.output;
    const Result refused = run(secure.port, {"-c", "3"});
    EXPECT_EQ(1, refused.status);
    EXPECT_EQ(0U, refused.output.find("0 answered, 3 failed, "));
    EXPECT_EQ(1U, Count(refused.error, "self-signed certificate"));
    for (const tls::Words& wrong : {tls::Words{"-c", "0"}, {"-x"}, {"stray"}}) { EXPECT_EQ(2, run(1, wrong).status); }
}

}  // namespace
