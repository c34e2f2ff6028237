#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "CVEKConv.h"
#include "CVEKServiceLog.h"
#include "VEKServiceLog.h"

namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

TEST(ServiceLog, DumpsUpToFourKilobytes) {
    CVEKServiceLog log;
    const std::vector<unsigned char> data(4097, 'x');
    ASSERT_EQ(log.Initialize(), 1);
    CaptureStdout();
    EXPECT_EQ(log.HexaLog("title", data.data(), 4097), 0);
    EXPECT_EQ(log.HexaLog("T1", std::string(40000, 't').c_str(), data.data(), 4096), 1);
    EXPECT_EQ(log.HexaLog("100%s", data.data(), 1), 1);
    log.SetMask(VEK_LOG_ALL - VEK_LOG_DEBUG);
    EXPECT_EQ(log.HexaLog("masked", data.data(), 4097), 1);
    const std::string text = GetCapturedStdout();
    EXPECT_EQ(text.find("masked"), std::string::npos);
    std::string dump;
    CVEKConv::HexaDump(dump, data.data(), 4096);
    EXPECT_LT(text.find("ttt\n" + dump + "\n\n["), 40000U);
    EXPECT_NE(text.find("[Debug  ] 100%s\n00000000: 78  "), std::string::npos);
}

}  // namespace
