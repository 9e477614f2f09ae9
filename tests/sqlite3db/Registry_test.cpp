// The process-wide registry of stores and the handle: switching the library
// on, the host's init flag, Create with each of its results and the automatic
// IDs, lookup by ID, Destroy, and binding a handle to a store (Open, DeInit,
// SetDbData, SetDbDataID, GetDbDataID, LoadDbSuccess).
#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "PlatformSim.h"
#include "Sqlite3DB/DbData/DbData.h"
#include "Sqlite3DB/Sqlite3DB.h"
#include "TestUtil.h"

namespace {

const char kHelloMD5[] = "5d41402abc4b2a76b9719d911017c592";  // of "hello"

class RegistryTest : public ::testing::Test {
protected:
    void SetUp() override {
        PlatformSim::Reset();
        Sqlite3DB::Destroy();
        m_savedEnable = Sqlite3DB::m_bEnable;
        m_savedInitType = Sqlite3DB::m_bInitSuccess;
        m_savedMaxID = Sqlite3DB::m_nMaxDBID;
        m_savedMD5 = Sqlite3DB::m_strProjMD5;
        Sqlite3DB::m_bEnable = 0;
        Sqlite3DB::m_bInitSuccess = 0;
        Sqlite3DB::m_nMaxDBID = 0;
        Sqlite3DB::m_strProjMD5.clear();
        m_conf.dirName = m_dir.name() + "/sub";
        m_project = m_files.path() + "panel.pro";
        testutil::WriteFile(m_project, "hello");
    }
    void TearDown() override {
        Sqlite3DB::Destroy();
        Sqlite3DB::m_bEnable = m_savedEnable;
        Sqlite3DB::m_bInitSuccess = m_savedInitType;
        Sqlite3DB::m_nMaxDBID = m_savedMaxID;
        Sqlite3DB::m_strProjMD5 = m_savedMD5;
        PlatformSim::Reset();
    }

    void Enable() { ASSERT_EQ(1, Sqlite3DB::Sqlit3DBEnable(m_project)); }
    long long Create(long long id) { return Sqlite3DB::Create(m_conf.get(), id); }
    std::string StoreDir() const { return m_dir.path() + "sub/"; }

    int m_savedEnable = 0;
    int m_savedInitType = 0;
    long long m_savedMaxID = 0;
    std::string m_savedMD5;
    testutil::TempDir m_dir{"/mnt/data/"};
    testutil::TempDir m_files;
    testutil::Conf m_conf;
    std::string m_project;
};

}  // namespace

// --- Enable and init type -----------------------------------------------------------

TEST_F(RegistryTest, EnableTakesTheProjectDigestAndStoresGetACopy) {
    EXPECT_EQ(1, Sqlite3DB::Sqlit3DBEnable(m_project));
    EXPECT_EQ(1, Sqlite3DB::m_bEnable);
    EXPECT_EQ(kHelloMD5, Sqlite3DB::m_strProjMD5);
    const long long id = Create(0);
    ASSERT_EQ(1, id);
    EXPECT_EQ(kHelloMD5, Sqlite3DB::GetDbByID(id)->m_strProjMD5);
}

TEST_F(RegistryTest, EnableWithAnUnreadableProjectFileStillSwitchesOn) {
    EXPECT_EQ(1, Sqlite3DB::Sqlit3DBEnable(m_files.path() + "missing.pro"));
    EXPECT_EQ(1, Sqlite3DB::m_bEnable);
    EXPECT_EQ(1, Create(0));
}

TEST_F(RegistryTest, InitTypeIsOnlyStored) {
    Sqlite3DB::SetInitType(5);
    EXPECT_EQ(5, Sqlite3DB::GetInitType());
    EXPECT_EQ(5, Sqlite3DB::m_bInitSuccess);
    EXPECT_EQ(0, Sqlite3DB::m_bEnable);
    EXPECT_EQ(-5, Create(0));
    Sqlite3DB::SetInitType(-3);
    EXPECT_EQ(-3, Sqlite3DB::GetInitType());
}

// --- Create -----------------------------------------------------------------------

TEST_F(RegistryTest, CreateBeforeEnableIsRefusedAndRegistersNothing) {
    EXPECT_EQ(-5, Create(0));
    EXPECT_EQ(-5, Create(5));
    EXPECT_EQ(-5, Create(1000));  // the enable test comes first
    EXPECT_TRUE(Sqlite3DB::m_listDbData.empty());
    EXPECT_EQ(0, Sqlite3DB::m_nMaxDBID);
    EXPECT_FALSE(testutil::DirExists(StoreDir()));
}

TEST_F(RegistryTest, ExplicitIDsOutsideZeroTo999AreRefused) {
    Enable();
    EXPECT_EQ(-1, Create(1000));
    EXPECT_EQ(-1, Create(-1));
    EXPECT_EQ(-1, Create(LLONG_MIN));
    EXPECT_EQ(-1, Create(1LL << 32));        // high half set, low half 0
    EXPECT_EQ(-1, Create((1LL << 32) + 5));  // low half alone would pass
    EXPECT_TRUE(Sqlite3DB::m_listDbData.empty());
    EXPECT_EQ(0, Sqlite3DB::m_nMaxDBID);
    EXPECT_FALSE(testutil::DirExists(StoreDir()));

    EXPECT_EQ(999, Create(999));
    ASSERT_EQ(1u, Sqlite3DB::m_listDbData.size());
    EXPECT_EQ(999, Sqlite3DB::m_listDbData.front()->GetID());
    EXPECT_EQ(1, Sqlite3DB::m_listDbData.front()->m_bConfig);
    EXPECT_TRUE(testutil::FileExists(StoreDir() + "rec_0.db"));
}

TEST_F(RegistryTest, ASecondStoreWithTheSameExplicitIDIsRefused) {
    Enable();
    EXPECT_EQ(7, Create(7));
    EXPECT_EQ(-2, Create(7));
    EXPECT_EQ(1u, Sqlite3DB::m_listDbData.size());
    EXPECT_EQ(0, Sqlite3DB::m_nMaxDBID);  // explicit IDs never raise it
}

TEST_F(RegistryTest, AutomaticIDsCountUpFromOne) {
    Enable();
    EXPECT_EQ(1, Create(0));
    EXPECT_EQ(2, Create(0));
    EXPECT_EQ(3, Create(0));
    EXPECT_EQ(3, Sqlite3DB::m_nMaxDBID);
    ASSERT_EQ(3u, Sqlite3DB::m_listDbData.size());
    long long expected = 1;
    for (DbData* store : Sqlite3DB::m_listDbData) {
        EXPECT_EQ(expected++, store->GetID());  // in creation order
    }
}

TEST_F(RegistryTest, AutomaticIDsAreNotCheckedAgainstExplicitOnes) {
    Enable();
    EXPECT_EQ(1, Create(1));
    EXPECT_EQ(1, Create(0));
    ASSERT_EQ(2u, Sqlite3DB::m_listDbData.size());
    DbData* first = Sqlite3DB::m_listDbData.front();
    DbData* second = Sqlite3DB::m_listDbData.back();
    EXPECT_NE(first, second);
    EXPECT_EQ(1, second->GetID());
    EXPECT_EQ(first, Sqlite3DB::GetDbByID(1));
    EXPECT_EQ(1, Sqlite3DB::DbIDExist(1));
    EXPECT_EQ(-2, Create(1));
}

TEST_F(RegistryTest, AutomaticIDsAreNotLimitedTo999) {
    Enable();
    Sqlite3DB::m_nMaxDBID = 999;
    EXPECT_EQ(1000, Create(0));
    EXPECT_EQ(1, Sqlite3DB::DbIDExist(1000));
}

// Create hands Config a store it has just constructed, and Config refuses
// only a store that is already configured, so Create cannot return -4 (nor
// use up an automatic ID on a refused store). The refusal it would map to -4
// is that of Config itself.
TEST_F(RegistryTest, ConfigRefusesOnlyAnAlreadyConfiguredStore) {
    DbData store;
    ASSERT_EQ(1, store.Config(m_conf.get(), 4, ""));
    EXPECT_EQ(0, store.Config(m_conf.get(), 5, ""));
    EXPECT_EQ(4, store.GetID());
}

// --- Lookup -------------------------------------------------------------------------

TEST_F(RegistryTest, LookupFindsStoresByID) {
    Enable();
    ASSERT_EQ(3, Create(3));
    ASSERT_EQ(1, Create(0));
    DbData* three = Sqlite3DB::m_listDbData.front();
    DbData* one = Sqlite3DB::m_listDbData.back();
    EXPECT_EQ(three, Sqlite3DB::GetDbByID(3));
    EXPECT_EQ(one, Sqlite3DB::GetDbByID(1));
    EXPECT_EQ(nullptr, Sqlite3DB::GetDbByID(2));
    EXPECT_EQ(nullptr, Sqlite3DB::GetDbByID(0));
    EXPECT_EQ(1, Sqlite3DB::DbIDExist(3));
    EXPECT_EQ(0, Sqlite3DB::DbIDExist(2));
}

TEST_F(RegistryTest, LookupSkipsNullEntriesAndComparesAll64Bits) {
    Enable();
    ASSERT_EQ(3, Create(3));
    DbData* store = Sqlite3DB::m_listDbData.front();
    Sqlite3DB::m_listDbData.push_front(nullptr);
    EXPECT_EQ(store, Sqlite3DB::GetDbByID(3));
    EXPECT_EQ(nullptr, Sqlite3DB::GetDbByID((1LL << 32) + 3));

    store->m_nDBID = (1LL << 32) + 3;
    EXPECT_EQ(nullptr, Sqlite3DB::GetDbByID(3));
    EXPECT_EQ(0, Sqlite3DB::DbIDExist(3));
    EXPECT_EQ(store, Sqlite3DB::GetDbByID((1LL << 32) + 3));
    EXPECT_EQ(1, Sqlite3DB::DbIDExist((1LL << 32) + 3));
    Sqlite3DB::Destroy();  // copes with the null entry
    EXPECT_TRUE(Sqlite3DB::m_listDbData.empty());
}

// --- Destroy ------------------------------------------------------------------------

TEST_F(RegistryTest, DestroyEmptiesTheRegistryAndNumberingContinues) {
    Enable();
    ASSERT_EQ(1, Create(0));
    ASSERT_EQ(2, Create(0));
    ASSERT_EQ(9, Create(9));
    Sqlite3DB::Destroy();
    EXPECT_TRUE(Sqlite3DB::m_listDbData.empty());
    EXPECT_EQ(nullptr, Sqlite3DB::GetDbByID(1));
    EXPECT_EQ(nullptr, Sqlite3DB::GetDbByID(2));
    EXPECT_EQ(nullptr, Sqlite3DB::GetDbByID(9));
    EXPECT_EQ(1, Sqlite3DB::m_bEnable);
    EXPECT_EQ(kHelloMD5, Sqlite3DB::m_strProjMD5);
    EXPECT_EQ(3, Create(0));
    EXPECT_EQ(9, Create(9));  // free again
}

TEST_F(RegistryTest, DestroyFlushesNothing) {
    Enable();
    const long long id = Create(0);
    Sqlite3DB handle;
    ASSERT_EQ(1, handle.Open(id));
    PlatformSim::SetTickCount(1000000);
    Sqlite3DB::Save();  // notes the flush tick
    for (unsigned long long i = 1; i <= 3; ++i) {
        std::string sql = "insert into rec values(" + std::to_string(i) + ", 0, 'x')";
        _tagDBSqlCmdInfo cmd{&sql, 1, i, i};
        ASSERT_EQ(1, handle.SqlAddNode(cmd));
    }
    PlatformSim::AdvanceTickCount(100);
    Sqlite3DB::Save();  // the rows are in the buffer, not due yet
    std::string sql = "insert into rec values(4, 0, 'x')";
    _tagDBSqlCmdInfo cmd{&sql, 1, 4, 4};
    ASSERT_EQ(1, handle.SqlAddNode(cmd));
    Sqlite3DB::Destroy();
    EXPECT_EQ((std::vector<std::vector<std::string>>{{"0"}}),
              testutil::RawQuery(StoreDir() + "rec_0.db", "select count(*) from rec"));
}

// --- Handle -------------------------------------------------------------------------

TEST_F(RegistryTest, NewHandleIsUnbound) {
    Sqlite3DB handle;
    EXPECT_EQ(0, handle.GetDbDataID());
    EXPECT_EQ(0, handle.LoadDbSuccess());
    EXPECT_EQ(0, handle.GetChangeNum());
}

TEST_F(RegistryTest, OpenBindsTheHandleToTheStoreWithThatID) {
    Enable();
    ASSERT_EQ(1, Create(0));
    ASSERT_EQ(2, Create(0));
    Sqlite3DB::GetDbByID(1)->m_nChangeNum = 11;
    Sqlite3DB::GetDbByID(2)->m_nChangeNum = 22;
    Sqlite3DB handle;
    EXPECT_EQ(1, handle.Open(2));
    EXPECT_EQ(2, handle.GetDbDataID());
    EXPECT_EQ(22, handle.GetChangeNum());
    EXPECT_EQ(1, handle.Open(1));
    EXPECT_EQ(1, handle.GetDbDataID());
    EXPECT_EQ(11, handle.GetChangeNum());
}

TEST_F(RegistryTest, OpenOfAnUnknownIDLeavesTheHandleCleared) {
    Enable();
    ASSERT_EQ(1, Create(0));
    Sqlite3DB::GetDbByID(1)->m_nChangeNum = 11;
    Sqlite3DB::Save();  // the store's last check found its directory
    Sqlite3DB handle;
    ASSERT_EQ(1, handle.Open(1));
    ASSERT_EQ(1, handle.LoadDbSuccess());

    EXPECT_EQ(0, handle.Open(99));
    EXPECT_EQ(0, handle.GetDbDataID());
    EXPECT_EQ(0, handle.LoadDbSuccess());
    EXPECT_EQ(0, handle.GetChangeNum());
}

TEST_F(RegistryTest, DeInitUnbindsTheHandle) {
    Enable();
    ASSERT_EQ(1, Create(0));
    Sqlite3DB::GetDbByID(1)->m_nChangeNum = 11;
    Sqlite3DB handle;
    ASSERT_EQ(1, handle.Open(1));
    handle.DeInit();
    EXPECT_EQ(0, handle.GetDbDataID());
    EXPECT_EQ(0, handle.GetChangeNum());
    EXPECT_EQ(1u, Sqlite3DB::m_listDbData.size());  // the store stays registered
}

TEST_F(RegistryTest, SetDbDataBindsWithoutTouchingTheID) {
    DbData store;
    store.m_nChangeNum = 33;
    store.m_bHasSaveDir = 1;
    Sqlite3DB handle;
    handle.SetDbData(&store);
    EXPECT_EQ(0, handle.GetDbDataID());
    EXPECT_EQ(33, handle.GetChangeNum());
    EXPECT_EQ(1, handle.LoadDbSuccess());
    handle.SetDbData(nullptr);
    EXPECT_EQ(0, handle.GetChangeNum());
}

TEST_F(RegistryTest, SetDbDataIDDoesNotRebind) {
    Enable();
    ASSERT_EQ(1, Create(0));
    ASSERT_EQ(2, Create(0));
    Sqlite3DB::GetDbByID(1)->m_nChangeNum = 11;
    Sqlite3DB handle;
    ASSERT_EQ(1, handle.Open(1));
    handle.SetDbDataID(2);
    EXPECT_EQ(2, handle.GetDbDataID());
    EXPECT_EQ(11, handle.GetChangeNum());  // still the first store
    handle.SetDbDataID(1LL << 40);
    EXPECT_EQ(1LL << 40, handle.GetDbDataID());
}

TEST_F(RegistryTest, ACopiedHandleIsBoundToTheSameStore) {
    Enable();
    ASSERT_EQ(4, Create(4));
    Sqlite3DB::GetDbByID(4)->m_nChangeNum = 44;
    Sqlite3DB handle;
    ASSERT_EQ(1, handle.Open(4));
    Sqlite3DB copy = handle;
    EXPECT_EQ(4, copy.GetDbDataID());
    EXPECT_EQ(44, copy.GetChangeNum());
}

TEST_F(RegistryTest, LoadDbSuccessReportsTheLastSaveCyclesCheck) {
    Enable();
    ASSERT_EQ(1, Create(0));
    Sqlite3DB handle;
    ASSERT_EQ(1, handle.Open(1));
    EXPECT_EQ(0, handle.LoadDbSuccess());  // no save cycle yet
    Sqlite3DB::Save();
    EXPECT_EQ(1, handle.LoadDbSuccess());

    testutil::TempDir media;
    testutil::Conf sd;
    sd.conf.nStorePattern = 1;
    CHmiMedia::SetSDPath(media.path() + "card/");  // not inserted
    ASSERT_EQ(2, Sqlite3DB::Create(sd.get(), 0));
    Sqlite3DB onCard;
    ASSERT_EQ(1, onCard.Open(2));
    Sqlite3DB::Save();
    EXPECT_EQ(0, onCard.LoadDbSuccess());
    EXPECT_EQ(1, handle.LoadDbSuccess());
    PlatformSim::TakeMessages();
}
