// Switching the library on and the registry's static data: the starting
// values, the project digest taken by Sqlit3DBEnable (also for a missing
// file, and again on a second call), the host's init flag, a new handle, and
// Destroy emptying the registry while keeping the switch, the automatic-ID
// counter and the digest.
#include <gtest/gtest.h>

#include <string>

#include "PlatformSim.h"
#include "Sqlite3DB/Sqlite3DB.h"
#include "TestUtil.h"

namespace {

// The registry's statics as they are when the program starts: the library's
// own initialisers run before this file's.
struct StartValues {
    size_t stores = Sqlite3DB::m_listDbData.size();
    int enable = Sqlite3DB::m_bEnable;
    int initSuccess = Sqlite3DB::m_bInitSuccess;
    long long maxDBID = Sqlite3DB::m_nMaxDBID;
    std::string projMD5 = Sqlite3DB::m_strProjMD5;
};
const StartValues kStartValues;

const char kAbcMD5[] = "900150983cd24fb0d6963f7d28e17f72";    // of "abc"
const char kEmptyMD5[] = "d41d8cd98f00b204e9800998ecf8427e";  // of ""
const char kFoxMD5[] = "9e107d9d372bb6826bd81d3542a419d6";    // of the fox sentence

class Sqlite3DBEnableTest : public ::testing::Test {
protected:
    void SetUp() override {
        PlatformSim::Reset();
        ResetStatics();
    }
    void TearDown() override {
        Sqlite3DB::Destroy();
        ResetStatics();
        PlatformSim::Reset();
    }

    static void ResetStatics() {
        Sqlite3DB::m_bEnable = 0;
        Sqlite3DB::m_bInitSuccess = 0;
        Sqlite3DB::m_nMaxDBID = 0;
        Sqlite3DB::m_strProjMD5.clear();
    }

    std::string WriteProject(const std::string& name, const std::string& content) {
        std::string path = m_dir.path() + name;
        testutil::WriteFile(path, content);
        return path;
    }

    testutil::TempDir m_dir;
};

}  // namespace

TEST(Sqlite3DBStatics, StartSwitchedOffAndEmpty) {
    EXPECT_EQ(0u, kStartValues.stores);
    EXPECT_EQ(0, kStartValues.enable);
    EXPECT_EQ(0, kStartValues.initSuccess);
    EXPECT_EQ(0, kStartValues.maxDBID);
    EXPECT_EQ("", kStartValues.projMD5);
}

// --- Sqlit3DBEnable ---------------------------------------------------------------

TEST_F(Sqlite3DBEnableTest, TakesTheProjectDigestAndSwitchesOn) {
    std::string project = WriteProject("panel.pro", "abc");
    EXPECT_EQ(1, Sqlite3DB::Sqlit3DBEnable(project));
    EXPECT_EQ(kAbcMD5, Sqlite3DB::m_strProjMD5);
    EXPECT_EQ(1, Sqlite3DB::m_bEnable);
}

TEST_F(Sqlite3DBEnableTest, DigestOfAnEmptyProjectFile) {
    std::string project = WriteProject("empty.pro", "");
    EXPECT_EQ(1, Sqlite3DB::Sqlit3DBEnable(project));
    EXPECT_EQ(kEmptyMD5, Sqlite3DB::m_strProjMD5);
    EXPECT_EQ(1, Sqlite3DB::m_bEnable);
}

TEST_F(Sqlite3DBEnableTest, DigestOfABinaryProjectFile) {
    // Bytes 0..255 four times: NUL bytes and high bytes are hashed as they are.
    std::string content;
    for (int round = 0; round < 4; ++round) {
        for (int b = 0; b < 256; ++b) {
            content += static_cast<char>(b);
        }
    }
    std::string project = WriteProject("binary.pro", content);
    EXPECT_EQ(1, Sqlite3DB::Sqlit3DBEnable(project));
    EXPECT_EQ("b2ea9f7fcea831a4a63b213f41a8855b", Sqlite3DB::m_strProjMD5);
}

TEST_F(Sqlite3DBEnableTest, MissingProjectFileStillSwitchesOnWithEmptyDigest) {
    Sqlite3DB::m_strProjMD5 = "stale";
    EXPECT_EQ(1, Sqlite3DB::Sqlit3DBEnable(m_dir.path() + "no-such.pro"));
    EXPECT_EQ("", Sqlite3DB::m_strProjMD5);
    EXPECT_EQ(1, Sqlite3DB::m_bEnable);
}

TEST_F(Sqlite3DBEnableTest, DirectoryAsProjectFileStillSwitchesOnWithEmptyDigest) {
    EXPECT_EQ(1, Sqlite3DB::Sqlit3DBEnable(m_dir.path()));
    EXPECT_EQ("", Sqlite3DB::m_strProjMD5);
    EXPECT_EQ(1, Sqlite3DB::m_bEnable);
}

TEST_F(Sqlite3DBEnableTest, SecondCallRecomputesTheDigest) {
    std::string project = WriteProject("panel.pro", "abc");
    EXPECT_EQ(1, Sqlite3DB::Sqlit3DBEnable(project));
    EXPECT_EQ(kAbcMD5, Sqlite3DB::m_strProjMD5);

    testutil::WriteFile(project, "The quick brown fox jumps over the lazy dog");
    EXPECT_EQ(1, Sqlite3DB::Sqlit3DBEnable(project));
    EXPECT_EQ(kFoxMD5, Sqlite3DB::m_strProjMD5);

    EXPECT_EQ(1, Sqlite3DB::Sqlit3DBEnable(m_dir.path() + "gone.pro"));
    EXPECT_EQ("", Sqlite3DB::m_strProjMD5);
    EXPECT_EQ(1, Sqlite3DB::m_bEnable);
}

TEST_F(Sqlite3DBEnableTest, LeavesTheOtherStaticsAlone) {
    Sqlite3DB::m_nMaxDBID = 12;
    Sqlite3DB::m_bInitSuccess = 3;
    EXPECT_EQ(1, Sqlite3DB::Sqlit3DBEnable(WriteProject("panel.pro", "abc")));
    EXPECT_EQ(12, Sqlite3DB::m_nMaxDBID);
    EXPECT_EQ(3, Sqlite3DB::m_bInitSuccess);
    EXPECT_TRUE(Sqlite3DB::m_listDbData.empty());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

// --- Init flag ----------------------------------------------------------------------

TEST_F(Sqlite3DBEnableTest, InitTypeIsStoredAndReadBack) {
    EXPECT_EQ(0, Sqlite3DB::GetInitType());
    Sqlite3DB::SetInitType(1);
    EXPECT_EQ(1, Sqlite3DB::GetInitType());
    EXPECT_EQ(1, Sqlite3DB::m_bInitSuccess);
    Sqlite3DB::SetInitType(-7);
    EXPECT_EQ(-7, Sqlite3DB::GetInitType());
    EXPECT_EQ(0, Sqlite3DB::m_bEnable);  // the library does not read it
}

// --- Handle --------------------------------------------------------------------------

TEST_F(Sqlite3DBEnableTest, NewHandleIsUnbound) {
    Sqlite3DB handle;
    EXPECT_EQ(0, handle.GetDbDataID());
    EXPECT_EQ(0, handle.LoadDbSuccess());
    EXPECT_EQ(0, handle.GetMaxID());
    EXPECT_EQ(0, handle.GetChangeNum());
}

// --- Destroy -------------------------------------------------------------------------

TEST_F(Sqlite3DBEnableTest, DestroyEmptiesTheRegistryAndKeepsTheRest) {
    EXPECT_EQ(1, Sqlite3DB::Sqlit3DBEnable(WriteProject("panel.pro", "abc")));
    Sqlite3DB::m_nMaxDBID = 41;
    Sqlite3DB::m_bInitSuccess = 1;
    DbData* first = new DbData();
    first->m_nDBID = 5;
    DbData* second = new DbData();
    second->m_nDBID = 6;
    std::string sql = "insert into rec values(1, 1, 'a')";
    _tagDBSqlCmdInfo cmd{&sql, 1, 1, 1};
    ASSERT_EQ(1, second->AddNode(cmd));
    Sqlite3DB::m_listDbData.push_back(first);
    Sqlite3DB::m_listDbData.push_back(nullptr);  // null entries are skipped
    Sqlite3DB::m_listDbData.push_back(second);
    ASSERT_EQ(first, Sqlite3DB::GetDbByID(5));

    Sqlite3DB::Destroy();

    EXPECT_TRUE(Sqlite3DB::m_listDbData.empty());
    EXPECT_EQ(0u, Sqlite3DB::m_listDbData.size());
    EXPECT_EQ(nullptr, Sqlite3DB::GetDbByID(5));
    EXPECT_EQ(0, Sqlite3DB::DbIDExist(6));
    EXPECT_EQ(1, Sqlite3DB::m_bEnable);
    EXPECT_EQ(41, Sqlite3DB::m_nMaxDBID);
    EXPECT_EQ(kAbcMD5, Sqlite3DB::m_strProjMD5);
    EXPECT_EQ(1, Sqlite3DB::GetInitType());
}

TEST_F(Sqlite3DBEnableTest, DestroyOfAnEmptyRegistryDoesNothing) {
    Sqlite3DB::Destroy();
    Sqlite3DB::Destroy();
    EXPECT_TRUE(Sqlite3DB::m_listDbData.empty());
    EXPECT_EQ(0, Sqlite3DB::m_bEnable);
}

TEST_F(Sqlite3DBEnableTest, StoresCreatedAfterDestroyContinueTheAutomaticIDs) {
    testutil::TempDir data("/mnt/data/");
    testutil::Conf c;
    c.dirName = data.name() + "/first";
    EXPECT_EQ(1, Sqlite3DB::Sqlit3DBEnable(WriteProject("panel.pro", "abc")));
    ASSERT_EQ(1, Sqlite3DB::Create(c.get(), 0));
    DbData* store = Sqlite3DB::GetDbByID(1);
    ASSERT_NE(nullptr, store);
    EXPECT_EQ(kAbcMD5, store->m_strProjMD5);  // every store gets the digest
    c.dirName = data.name() + "/second";
    ASSERT_EQ(2, Sqlite3DB::Create(c.get(), 0));
    ASSERT_EQ(2u, Sqlite3DB::m_listDbData.size());

    Sqlite3DB::Destroy();
    EXPECT_TRUE(Sqlite3DB::m_listDbData.empty());
    EXPECT_EQ(2, Sqlite3DB::m_nMaxDBID);
    EXPECT_EQ(1, Sqlite3DB::m_bEnable);

    c.dirName = data.name() + "/third";
    EXPECT_EQ(3, Sqlite3DB::Create(c.get(), 0));
    EXPECT_EQ(1u, Sqlite3DB::m_listDbData.size());
}
