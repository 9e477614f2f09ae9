// Tests of FormatPrintUtf8 and GetBareFileName.
#include "FormatPrint.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "PlatformSim.h"
#include "TestUtil.h"

namespace {

class PlatformFormatPrintTest : public ::testing::Test {
protected:
    void SetUp() override { PlatformSim::Reset(); }
    void TearDown() override { PlatformSim::Reset(); }

    testutil::TempDir dir;
};

TEST_F(PlatformFormatPrintTest, BareFileName) {
    EXPECT_STREQ("c.cpp", GetBareFileName("/a/b/c.cpp"));
    EXPECT_STREQ("c.cpp", GetBareFileName("c.cpp"));
    EXPECT_STREQ("c.cpp", GetBareFileName("b/c.cpp"));
    EXPECT_STREQ("", GetBareFileName("/a/b/"));
    EXPECT_STREQ("", GetBareFileName(""));

    const char* path = "/x/y.cpp";
    EXPECT_EQ(path + 3, GetBareFileName(path));  // points into the given text
}

TEST_F(PlatformFormatPrintTest, LinesAreCapturedAsFormatted) {
    FormatPrintUtf8("%s:%d: value %llu\r\n", "DbData.cpp", 42, 18446744073709551615ULL);
    FormatPrintUtf8("no newline");
    FormatPrintUtf8("%5.2f|%-3s|%%\r\n", 3.14159, "a");
    EXPECT_EQ((std::vector<std::string>{"DbData.cpp:42: value 18446744073709551615\r\n",
                                        "no newline", " 3.14|a  |%\r\n"}),
              PlatformSim::TakeLogLines());
    EXPECT_TRUE(PlatformSim::TakeMessages().empty());
}

TEST_F(PlatformFormatPrintTest, LogContainsFindsText) {
    FormatPrintUtf8("open %s failed\r\n", "rec_1.db");
    std::vector<std::string> lines = PlatformSim::TakeLogLines();
    EXPECT_TRUE(testutil::LogContains(lines, "rec_1.db failed"));
    EXPECT_FALSE(testutil::LogContains(lines, "rec_2.db"));
}

}  // namespace
