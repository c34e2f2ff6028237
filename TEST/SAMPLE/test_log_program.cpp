// test_service_log as its user sees it.
#include <cstdlib>

#include "TestSupport.h"
#include "TlsSupport.h"

namespace {

Result RunLog(const tls::Words& arguments) {
    return RunProgram(tls::Join({VEK_BIN_DIR "/test_service_log"}, arguments));
}

TEST(LogProgram, WritesEachThreadsLinesToItsFiles) {
    const TempDir folder;
    setenv("VEK_TEST_PLACE", folder.Path().c_str(), 1);
    const Result run = RunLog({"-d", "$(VEK_TEST_PLACE)", "-t2", "-n300", "-s5000"});
    EXPECT_EQ(0, run.status) << run.error;
    std::string lines[3];
    const auto files = FindAll(run.output, "^ *[0-9]+  " + folder.Path() + "/(.*)$");
    EXPECT_EQ(0U, run.output.find(std::to_string(files.size()) + " files in " + folder.Path()));
    EXPECT_LT(10U, files.size());
    for (const std::string& file : files) {
        const size_t thread = file.find("sample.T");
        lines[thread == std::string::npos ? 0 : file[thread + 8] - '0'] += folder.Read(file);
    }
    for (const int thread : {1, 2}) {
        const std::string number = "thread(" + std::to_string(thread);
        EXPECT_EQ(300U, FindAll(lines[thread], "[[]Debug  []]line [0-9]+ of 300$").size());
        EXPECT_EQ(1U, Count(lines[thread], " the name of this thread log\n00000000: 54  3"));
        EXPECT_EQ(302U, Count(lines[0], number + ") line ") + Count(lines[0], number + ") begins\n") +
                            Count(lines[0], number + ") ends\n"));
    }
    for (const tls::Words& wrong :
         {tls::Words{}, {"-d", ".", "-t101"}, {"-d", ".", "-n0"}, {"-d", ".", "-s-1"}, {"-d", ".", "x"}}) {
        const Result refused = RunLog(wrong);
        EXPECT_EQ(2, refused.status);
        EXPECT_EQ(1U, Count(refused.error, "usage: ")) << refused.error;
    }
    const Result closed = RunLog({"-d", "/none"});
    EXPECT_EQ(1, closed.status);
    EXPECT_EQ("cannot open the log in /none\n", closed.error);
}

}  // namespace
