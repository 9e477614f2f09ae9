// Tests of PlatformSim: fixed clocks and disk figures, the captures and Reset.
#include "PlatformSim.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "FormatPrint.h"
#include "MessageMoude.h"
#include "TestUtil.h"

namespace {

class PlatformSimTest : public ::testing::Test {
protected:
    void SetUp() override { PlatformSim::Reset(); }
    void TearDown() override { PlatformSim::Reset(); }

    testutil::TempDir dir;
};

unsigned long long MonotonicNowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<unsigned long long>(ts.tv_sec) * 1000ULL +
           static_cast<unsigned long long>(ts.tv_nsec) / 1000000ULL;
}

// Sends standard error to /dev/null while alive, for tests that write thousands of lines.
class QuietStderr {
public:
    QuietStderr() : m_saved(dup(STDERR_FILENO)) {
        int null = open("/dev/null", O_WRONLY);
        if (null >= 0) {
            dup2(null, STDERR_FILENO);
            close(null);
        }
    }
    ~QuietStderr() {
        if (m_saved >= 0) {
            dup2(m_saved, STDERR_FILENO);
            close(m_saved);
        }
    }

private:
    int m_saved;
};

TEST_F(PlatformSimTest, SetTickCountFixesTick) {
    PlatformSim::SetTickCount(5000);
    EXPECT_EQ(5000u, COS::CosTime::GetTickCountCos());
    EXPECT_EQ(5000u, COS::CosTime::GetTickCountCos());
    PlatformSim::SetTickCount(0);
    EXPECT_EQ(0u, COS::CosTime::GetTickCountCos());
}

TEST_F(PlatformSimTest, AdvanceFixedTick) {
    PlatformSim::SetTickCount(100);
    PlatformSim::AdvanceTickCount(50);
    EXPECT_EQ(150u, COS::CosTime::GetTickCountCos());
    PlatformSim::AdvanceTickCount(0);
    EXPECT_EQ(150u, COS::CosTime::GetTickCountCos());
}

TEST_F(PlatformSimTest, AdvanceRealTickFixesItFirst) {
    unsigned long long before = MonotonicNowMs();
    PlatformSim::AdvanceTickCount(1000000);
    unsigned long long after = MonotonicNowMs();
    unsigned long long tick = COS::CosTime::GetTickCountCos();
    EXPECT_GE(tick, before + 1000000);
    EXPECT_LE(tick, after + 1000000);
    EXPECT_EQ(tick, COS::CosTime::GetTickCountCos());  // now fixed
}

TEST_F(PlatformSimTest, SetTimeStamp) {
    PlatformSim::SetTimeStamp(1700000000123ULL);
    EXPECT_EQ(1700000000123ULL, COS::CosTime::GetTimeStamp());
    EXPECT_EQ(1700000000123ULL, COS::CosTime::GetTimeStamp());
}

TEST_F(PlatformSimTest, ResetRestoresRealClocksAndDisk) {
    PlatformSim::SetTickCount(7);
    PlatformSim::SetTimeStamp(9);
    PlatformSim::SetDiskFreeSize(11);
    PlatformSim::Reset();

    unsigned long long before = MonotonicNowMs();
    unsigned long long tick = COS::CosTime::GetTickCountCos();
    EXPECT_GE(tick, before);
    EXPECT_LE(tick, MonotonicNowMs());

    unsigned long long now = static_cast<unsigned long long>(time(nullptr)) * 1000ULL;
    unsigned long long ts = COS::CosTime::GetTimeStamp();
    EXPECT_GE(ts + 2000, now);
    EXPECT_LE(ts, now + 2000 + 1000);

    unsigned int value = 11;
    COS::CosOsState::GetDiskFreeSize(dir.path() + "missing", value);
    EXPECT_EQ(0u, value);  // real again: a missing path has no free space
}

TEST_F(PlatformSimTest, DiskFreeSizeOverride) {
    PlatformSim::SetDiskFreeSize(5119);
    unsigned int value = 0;
    EXPECT_EQ(5119u, COS::CosOsState::GetDiskFreeSize(dir.path(), value));
    EXPECT_EQ(5119u, value);
}

TEST_F(PlatformSimTest, TakeLogLinesEmptiesCapture) {
    FormatPrintUtf8("a %d\r\n", 1);
    FormatPrintUtf8("%s-%s\r\n", "x", "y");
    EXPECT_EQ((std::vector<std::string>{"a 1\r\n", "x-y\r\n"}), PlatformSim::TakeLogLines());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
    FormatPrintUtf8("b\r\n");
    EXPECT_EQ((std::vector<std::string>{"b\r\n"}), PlatformSim::TakeLogLines());
}

TEST_F(PlatformSimTest, TakeMessagesEmptiesCapture) {
    MessageMoude::InsertMsg("m1", 0);
    EXPECT_EQ((std::vector<std::string>{"m1"}), PlatformSim::TakeMessages());
    EXPECT_TRUE(PlatformSim::TakeMessages().empty());
}

TEST_F(PlatformSimTest, LongLinesAreCapturedWhole) {
    std::string big(20000, 'q');
    {
        QuietStderr quiet;
        FormatPrintUtf8("<%s>\r\n", big.c_str());
    }
    std::vector<std::string> lines = PlatformSim::TakeLogLines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("<" + big + ">\r\n", lines[0]);
}

TEST_F(PlatformSimTest, CapturesKeepNewestTenThousand) {
    {
        QuietStderr quiet;
        for (int i = 0; i < 10050; ++i) {
            FormatPrintUtf8("line %d\r\n", i);
            MessageMoude::InsertMsg("msg " + std::to_string(i), 0);
        }
    }
    std::vector<std::string> lines = PlatformSim::TakeLogLines();
    ASSERT_EQ(10000u, lines.size());
    EXPECT_EQ("line 50\r\n", lines.front());
    EXPECT_EQ("line 10049\r\n", lines.back());

    std::vector<std::string> messages = PlatformSim::TakeMessages();
    ASSERT_EQ(10000u, messages.size());
    EXPECT_EQ("msg 50", messages.front());
    EXPECT_EQ("msg 10049", messages.back());
}

TEST_F(PlatformSimTest, ResetEmptiesCapturesAndMedia) {
    ASSERT_NE(0, COS::CosDir::MakeDir(dir.path() + "sd"));
    ASSERT_NE(0, COS::CosDir::MakeDir(dir.path() + "usb"));
    CHmiMedia::SetSDPath(dir.path() + "sd");
    CHmiMedia::SetUdiskPath(dir.path() + "usb");
    ASSERT_TRUE(CHmiMedia::isSDExsit());
    ASSERT_TRUE(CHmiMedia::isUSBExsit());
    FormatPrintUtf8("x\r\n");
    MessageMoude::InsertMsg("y", 0);

    PlatformSim::Reset();
    EXPECT_FALSE(CHmiMedia::isSDExsit());
    EXPECT_FALSE(CHmiMedia::isUSBExsit());
    EXPECT_EQ("", CHmiMedia::getSDPath());
    EXPECT_EQ("", CHmiMedia::getUdiskPath());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
    EXPECT_TRUE(PlatformSim::TakeMessages().empty());
}

}  // namespace
