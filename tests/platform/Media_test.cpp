// Tests of CHmiMedia (removable media presence) and MessageMoude (operator
// messages).
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "CHmiMedia.h"
#include "COS.h"
#include "MessageMoude.h"
#include "PlatformSim.h"
#include "TestUtil.h"

namespace {

class PlatformMediaTest : public ::testing::Test {
protected:
    void SetUp() override { PlatformSim::Reset(); }
    void TearDown() override { PlatformSim::Reset(); }

    testutil::TempDir dir;
};

TEST_F(PlatformMediaTest, NoMediaByDefault) {
    EXPECT_FALSE(CHmiMedia::isSDExsit());
    EXPECT_FALSE(CHmiMedia::isUSBExsit());
    EXPECT_EQ("", CHmiMedia::getSDPath());
    EXPECT_EQ("", CHmiMedia::getUdiskPath());
}

TEST_F(PlatformMediaTest, SdPresenceFollowsMountDir) {
    std::string sd = dir.path() + "sd/";
    CHmiMedia::SetSDPath(sd);
    EXPECT_FALSE(CHmiMedia::isSDExsit());
    EXPECT_EQ("", CHmiMedia::getSDPath());

    ASSERT_NE(0, COS::CosDir::MakeDir(sd));
    EXPECT_TRUE(CHmiMedia::isSDExsit());
    EXPECT_EQ(sd, CHmiMedia::getSDPath());
    EXPECT_FALSE(CHmiMedia::isUSBExsit());  // the other medium is unaffected

    testutil::RemoveTree(sd);  // pulled
    EXPECT_FALSE(CHmiMedia::isSDExsit());
    EXPECT_EQ("", CHmiMedia::getSDPath());

    ASSERT_NE(0, COS::CosDir::MakeDir(sd));  // put back
    EXPECT_TRUE(CHmiMedia::isSDExsit());

    CHmiMedia::SetSDPath("");
    EXPECT_FALSE(CHmiMedia::isSDExsit());
    EXPECT_EQ("", CHmiMedia::getSDPath());
}

TEST_F(PlatformMediaTest, UsbPresenceFollowsMountDir) {
    std::string usb = dir.path() + "usb";
    CHmiMedia::SetUdiskPath(usb);
    EXPECT_FALSE(CHmiMedia::isUSBExsit());

    ASSERT_NE(0, COS::CosDir::MakeDir(usb));
    EXPECT_TRUE(CHmiMedia::isUSBExsit());
    EXPECT_EQ(usb + "/", CHmiMedia::getUdiskPath());  // given without its trailing slash
    EXPECT_FALSE(CHmiMedia::isSDExsit());

    testutil::RemoveTree(usb);
    EXPECT_FALSE(CHmiMedia::isUSBExsit());
    EXPECT_EQ("", CHmiMedia::getUdiskPath());

    testutil::WriteFile(usb, "not a directory");
    EXPECT_FALSE(CHmiMedia::isUSBExsit());
}

TEST_F(PlatformMediaTest, PathsMayBeUsedFromThreads) {
    ASSERT_NE(0, COS::CosDir::MakeDir(dir.path() + "m"));
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (int i = 0; i < 500; ++i) {
            CHmiMedia::SetSDPath(i % 2 ? dir.path() + "m" : "");
            CHmiMedia::SetUdiskPath(i % 2 ? "" : dir.path() + "m");
        }
        stop = true;
    });
    std::thread reader([&] {
        while (!stop) {
            std::string sd = CHmiMedia::getSDPath();
            EXPECT_TRUE(sd.empty() || sd == dir.path() + "m/");
            CHmiMedia::isUSBExsit();
        }
    });
    writer.join();
    reader.join();
    EXPECT_EQ(dir.path() + "m/", CHmiMedia::getSDPath());
    EXPECT_EQ("", CHmiMedia::getUdiskPath());
}

TEST_F(PlatformMediaTest, InsertMsgIsCaptured) {
    MessageMoude::InsertMsg("disk full", 0);
    MessageMoude::InsertMsg("second", 0);
    EXPECT_EQ((std::vector<std::string>{"disk full", "second"}), PlatformSim::TakeMessages());
    EXPECT_TRUE(PlatformSim::TakeMessages().empty());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());  // messages are not log lines
}

}  // namespace
