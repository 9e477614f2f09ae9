// Tests of CBB::CbbMd5: digests of known contents and unreadable paths.
#include "CbbMd5.h"

#include <gtest/gtest.h>

#include <string>

#include "PlatformSim.h"
#include "TestUtil.h"

namespace {

class PlatformCbbMd5Test : public ::testing::Test {
protected:
    void SetUp() override { PlatformSim::Reset(); }
    void TearDown() override { PlatformSim::Reset(); }

    std::string Digest(const std::string& content) {
        std::string path = dir.path() + "f";
        testutil::WriteFile(path, content);
        std::string md5;
        EXPECT_EQ(1, CBB::CbbMd5().Md5File(path, md5));
        return md5;
    }

    testutil::TempDir dir;
};

TEST_F(PlatformCbbMd5Test, KnownDigests) {
    EXPECT_EQ("9e107d9d372bb6826bd81d3542a419d6",
              Digest("The quick brown fox jumps over the lazy dog"));
    EXPECT_EQ("d41d8cd98f00b204e9800998ecf8427e", Digest(""));
    EXPECT_EQ("0cc175b9c0f1b6a831c399e269772661", Digest("a"));
}

TEST_F(PlatformCbbMd5Test, LargeFileReadInChunks) {
    EXPECT_EQ("7707d6ae4e027c70eea2a935c2296f21", Digest(std::string(1000000, 'a')));
}

TEST_F(PlatformCbbMd5Test, UnreadableFileGivesNothing) {
    CBB::CbbMd5 md5er;
    std::string md5 = "stale";
    EXPECT_EQ(0, md5er.Md5File(dir.path() + "missing", md5));
    EXPECT_EQ("", md5);

    md5 = "stale";
    EXPECT_EQ(0, md5er.Md5File(dir.path(), md5));  // a directory
    EXPECT_EQ("", md5);
}

}  // namespace
