// Configuration and start-up of a store: Config (copies, the save location,
// the first file), the check of the save directory before every save cycle
// with its reload and drop paths on internal flash, SD card and USB disk,
// ReloadFile and IsDbFileExist; then a running panel through Sqlite3DB::Create
// and Sqlite3DB::Save(): an SD card inserted after start-up, a USB disk pulled
// and put back, the store directory deleted under a running store, and a
// store whose CREATE statement the engine rejects.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "PlatformSim.h"
#include "Sqlite3DB/DbData/DbData.h"
#include "Sqlite3DB/Sqlite3DB.h"
#include "TestUtil.h"

namespace {

using testutil::LogTexts;
using Rows = std::vector<std::vector<std::string>>;

const unsigned long long kTick = 5000000;
const char kNoLocation[] = "The save location does not exist";

std::string InsertSql(unsigned long long id) {
    return "insert into rec values(" + std::to_string(id) + ", " + std::to_string(id * 10) +
           ", 'x')";
}

void QueueRecords(DbData& store, unsigned long long first, unsigned long long last) {
    for (unsigned long long id = first; id <= last; ++id) {
        std::string sql = InsertSql(id);
        _tagDBSqlCmdInfo cmd{&sql, 1, id, id * 10};
        ASSERT_EQ(1, store.AddNode(cmd));
    }
}

void QueueOther(DbData& store, const std::string& sql) {
    std::string text = sql;
    _tagDBSqlCmdInfo cmd{&text, 0, 0, 0};
    ASSERT_EQ(1, store.AddNode(cmd));
}

// Runs the queued inserts into the buffer, as a save cycle does.
void RunBatch(DbData& store) {
    store.m_nInsertCmdNum = static_cast<int>(store.m_listInsertCmd.size());
    store.SaveCmdInfo(store.m_pMemDB);
}

int BufferedRows(DbData& store) {
    CBBSQL::CppSQLite3Query q = store.m_pMemDB->execQuery("select count(*) from rec");
    return q.getIntField(0);
}

Rows Ids(const std::string& file) {
    return testutil::RawQuery(file, "select id from rec order by id");
}

Rows IdsFromTo(int first, int last) {
    Rows rows;
    for (int id = first; id <= last; ++id) {
        rows.push_back({std::to_string(id)});
    }
    return rows;
}

void SetMount(int pattern, const std::string& path) {
    if (pattern == 1) {
        CHmiMedia::SetSDPath(path);
    } else {
        CHmiMedia::SetUdiskPath(path);
    }
}

class StoreConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        PlatformSim::Reset();
        PlatformSim::SetTickCount(kTick);
        m_conf.dirName = m_dir.name() + "/sub";
    }
    void TearDown() override { PlatformSim::Reset(); }

    std::string StoreDir() const { return m_dir.path() + "sub/"; }
    std::string SdMount() const { return m_media.path() + "sd/"; }

    testutil::TempDir m_dir{"/mnt/data/"};
    testutil::TempDir m_media;  // mount points of removable media
    testutil::Conf m_conf;
    DbData m_store;
};

}  // namespace

// --- Config -----------------------------------------------------------------------

TEST_F(StoreConfigTest, ConfigOnInternalFlashMakesTheDirectoryAndTheFirstFile) {
    ASSERT_EQ(1, m_store.Config(m_conf.get(), 42, "0123abcd"));
    EXPECT_EQ(1, m_store.m_bConfig);
    EXPECT_EQ(42, m_store.GetID());
    EXPECT_EQ("/mnt/data/", m_store.m_strSaveRoot);
    EXPECT_EQ(StoreDir(), m_store.m_strSavePath);  // with the separator of the reload
    EXPECT_TRUE(testutil::DirExists(StoreDir()));
    EXPECT_TRUE(testutil::FileExists(StoreDir() + "rec_0.db"));
    ASSERT_EQ(1, m_store.GetFileNum());
    EXPECT_EQ("rec_0.db", m_store.m_vecFileInfo[0].GetFullName());
    EXPECT_EQ(1, m_store.m_bSaveDirOK);
    ASSERT_NE(nullptr, m_store.m_pMemDB);
    EXPECT_EQ(
        (Rows{{"DBInfo"}, {"rec"}, {"sqlite_sequence"}}),
        testutil::RawQuery(StoreDir() + "rec_0.db",
                           "select name from sqlite_master where type='table' order by name"));
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(StoreConfigTest, ConfigCopiesEveryFieldAsGiven) {
    m_conf.delSql = "delete from rec where id in (select id from rec order by id limit 5)";
    _tagDBConf& conf = m_conf.get();
    conf.nMaxRecordNum = 11;
    conf.nMaxFileSize = 22;
    conf.bSplitFile = 0;
    conf.nMaxFileNum = 33;
    conf.nSaveTime = 44;
    conf.nDelRecordNum = 55;
    conf.bClearOnReload = 7;
    ASSERT_EQ(1, m_store.Config(conf, 3, "md5"));
    EXPECT_EQ(0, m_store.m_nStorePattern);
    EXPECT_EQ(11, m_store.m_nMaxRecordNum);
    EXPECT_EQ(22, m_store.m_nMaxFileSize);
    EXPECT_EQ(0, m_store.m_bSplitFile);
    EXPECT_EQ(33, m_store.m_nMaxFileNum);
    EXPECT_EQ(44, m_store.m_nSaveTime);
    EXPECT_EQ(1, m_store.m_bUseMemDB);
    EXPECT_EQ(1, m_store.m_bSaveFile);
    EXPECT_EQ(55, m_store.m_nDelRecordNum);
    EXPECT_EQ(7, m_store.m_bClearOnReload);
    EXPECT_EQ(m_conf.delSql, m_store.m_strDelRecordSql);
    EXPECT_EQ("md5", m_store.m_strProjMD5);
    EXPECT_EQ(m_conf.dirName, m_store.m_strDirName);
    EXPECT_EQ("rec", m_store.m_strTableName);
    EXPECT_EQ(m_conf.createSql, m_store.m_strCreateTableSql);

    // The texts are copies: the caller may change its strings afterwards.
    m_conf.tableName = "changed";
    m_conf.dirName = "changed";
    EXPECT_EQ("rec", m_store.m_strTableName);
    EXPECT_EQ(m_dir.name() + "/sub", m_store.m_strDirName);
}

TEST_F(StoreConfigTest, ConfigTwiceReturnsZeroAndChangesNothing) {
    ASSERT_EQ(1, m_store.Config(m_conf.get(), 1, "first"));
    testutil::Conf other;
    other.dirName = m_dir.name() + "/other";
    other.conf.nSaveTime = 777;
    EXPECT_EQ(0, m_store.Config(other.get(), 2, "second"));
    EXPECT_EQ(1, m_store.GetID());
    EXPECT_EQ(1000, m_store.m_nSaveTime);
    EXPECT_EQ("first", m_store.m_strProjMD5);
    EXPECT_EQ(StoreDir(), m_store.m_strSavePath);
    EXPECT_FALSE(testutil::DirExists(m_dir.path() + "other"));
}

TEST_F(StoreConfigTest, FileNameStemIsTheTextBeforeTheFirstPoint) {
    m_conf.fileName = "log.data.db";
    ASSERT_EQ(1, m_store.Config(m_conf.get(), 1, ""));
    EXPECT_EQ("log", m_store.m_strFileName);
    EXPECT_TRUE(testutil::FileExists(StoreDir() + "log_0.db"));
}

TEST_F(StoreConfigTest, FileNameWithoutPointIsKeptWhole) {
    m_conf.fileName = "nodot";
    ASSERT_EQ(1, m_store.Config(m_conf.get(), 1, ""));
    EXPECT_EQ("nodot", m_store.m_strFileName);
    EXPECT_TRUE(testutil::FileExists(StoreDir() + "nodot_0.db"));
}

// --- CheckSaveDir without files ------------------------------------------------

TEST_F(StoreConfigTest, WithoutFilesTheCheckReturnsOneAndTouchesNothing) {
    m_conf.conf.bSaveFile = 0;
    ASSERT_EQ(1, m_store.Config(m_conf.get(), 1, ""));
    // Config makes the internal-flash directory whatever bSaveFile says, but
    // no file and no catalog entry.
    EXPECT_TRUE(testutil::DirExists(StoreDir()));
    EXPECT_FALSE(testutil::FileExists(StoreDir() + "rec_0.db"));
    EXPECT_EQ(0, m_store.GetFileNum());

    testutil::RemoveTree(StoreDir());
    QueueRecords(m_store, 1, 1);
    EXPECT_EQ(1, m_store.CheckSaveDir());
    EXPECT_FALSE(testutil::DirExists(StoreDir()));
    EXPECT_EQ(m_dir.path() + "sub", m_store.m_strSavePath);  // as Config left it
    EXPECT_EQ(0, m_store.m_bSaveDirOK);
    EXPECT_EQ(1u, m_store.m_listInsertCmd.size());
}

TEST_F(StoreConfigTest, WithoutFilesAMissingSdCardDoesNotMatter) {
    m_conf.conf.bSaveFile = 0;
    m_conf.conf.nStorePattern = 1;
    m_conf.dirName = "store";
    CHmiMedia::SetSDPath(SdMount());  // not there
    ASSERT_EQ(1, m_store.Config(m_conf.get(), 1, ""));
    EXPECT_EQ(1, m_store.CheckSaveDir());
    EXPECT_EQ("", m_store.m_strSavePath);
    EXPECT_FALSE(testutil::DirExists(SdMount()));
}

// --- CheckSaveDir on internal flash ----------------------------------------------

TEST_F(StoreConfigTest, InternalFlashInGoodOrderIsNotReloaded) {
    ASSERT_EQ(1, m_store.Config(m_conf.get(), 1, ""));
    QueueRecords(m_store, 1, 2);
    RunBatch(m_store);
    QueueRecords(m_store, 3, 3);
    EXPECT_EQ(1, m_store.CheckSaveDir());
    EXPECT_EQ(1u, m_store.m_listInsertCmd.size());
    EXPECT_EQ(2, BufferedRows(m_store));
}

TEST_F(StoreConfigTest, DeletedDirectoryIsRecreatedWithAFreshFirstFile) {
    ASSERT_EQ(1, m_store.Config(m_conf.get(), 1, ""));
    ASSERT_EQ(1, m_store.CreateFileDB());  // a second file, rec_1.db
    ASSERT_EQ(2, m_store.GetFileNum());
    QueueRecords(m_store, 1, 2);
    RunBatch(m_store);
    QueueRecords(m_store, 3, 3);
    QueueOther(m_store, "delete from rec");

    testutil::RemoveTree(StoreDir());
    EXPECT_EQ(1, m_store.CheckSaveDir());
    EXPECT_EQ(1, m_store.m_bSaveDirOK);
    EXPECT_EQ(StoreDir(), m_store.m_strSavePath);
    EXPECT_TRUE(testutil::FileExists(StoreDir() + "rec_0.db"));
    EXPECT_FALSE(testutil::FileExists(StoreDir() + "rec_1.db"));
    ASSERT_EQ(1, m_store.GetFileNum());
    EXPECT_EQ(0u, m_store.m_vecFileInfo[0].GetFileID());
    // Reloading discards the queues and the buffered rows.
    EXPECT_TRUE(m_store.m_listInsertCmd.empty());
    EXPECT_TRUE(m_store.m_listOtherCmd.empty());
    EXPECT_EQ(0, BufferedRows(m_store));
    EXPECT_EQ(0u, m_store.m_nMemMaxID);
    EXPECT_EQ(0u, m_store.m_nMemStartTime);
}

TEST_F(StoreConfigTest, ReloadKeepsQueuesAndBufferWhenConfiguredTo) {
    m_conf.conf.bClearOnReload = 0;
    ASSERT_EQ(1, m_store.Config(m_conf.get(), 1, ""));
    QueueRecords(m_store, 1, 2);
    RunBatch(m_store);
    QueueRecords(m_store, 3, 3);
    testutil::RemoveTree(StoreDir());
    EXPECT_EQ(1, m_store.CheckSaveDir());
    EXPECT_TRUE(testutil::FileExists(StoreDir() + "rec_0.db"));
    EXPECT_EQ(1u, m_store.m_listInsertCmd.size());
    EXPECT_EQ(2, BufferedRows(m_store));
    EXPECT_EQ(2u, m_store.m_nMemMaxID);
}

TEST_F(StoreConfigTest, DirectoryWithoutTheStoresFilesIsReloaded) {
    ASSERT_EQ(1, m_store.Config(m_conf.get(), 1, ""));
    QueueRecords(m_store, 1, 1);
    std::remove((StoreDir() + "rec_0.db").c_str());
    testutil::WriteFile(StoreDir() + "other_0.db", "");
    EXPECT_EQ(1, m_store.CheckSaveDir());
    EXPECT_TRUE(testutil::FileExists(StoreDir() + "rec_0.db"));
    EXPECT_TRUE(testutil::FileExists(StoreDir() + "other_0.db"));
    EXPECT_EQ(1, m_store.GetFileNum());
    EXPECT_TRUE(m_store.m_listInsertCmd.empty());
}

TEST_F(StoreConfigTest, NotLoadedDirectoryIsReloaded) {
    ASSERT_EQ(1, m_store.Config(m_conf.get(), 1, ""));
    QueueRecords(m_store, 1, 1);
    m_store.m_bSaveDirOK = 0;
    EXPECT_EQ(1, m_store.CheckSaveDir());
    EXPECT_EQ(1, m_store.m_bSaveDirOK);
    EXPECT_TRUE(m_store.m_listInsertCmd.empty());  // the reload showed itself
    EXPECT_EQ(1, m_store.GetFileNum());
}

TEST_F(StoreConfigTest, DirectoryThatCannotBeMadeFailsTheReloadAndKeepsTheCatalog) {
    ASSERT_EQ(1, m_store.Config(m_conf.get(), 1, ""));
    testutil::WriteFile(m_dir.path() + "blocker", "a file where a directory should be");
    m_store.m_strDirName = m_dir.name() + "/blocker/sub";
    m_store.m_bSaveDirOK = 0;
    EXPECT_EQ(0, m_store.CheckSaveDir());
    EXPECT_EQ(0, m_store.m_bSaveDirOK);
    EXPECT_EQ(m_dir.path() + "blocker/sub/", m_store.m_strSavePath);
    ASSERT_EQ(1, m_store.GetFileNum());
    EXPECT_EQ("rec_0.db", m_store.m_vecFileInfo[0].GetFullName());
}

// --- SD card and USB disk ----------------------------------------------------------

TEST_F(StoreConfigTest, SdCardMissingAtStartUpThenInserted) {
    m_conf.conf.nStorePattern = 1;
    m_conf.dirName = "store";
    CHmiMedia::SetSDPath(SdMount());  // the card is not in
    ASSERT_EQ(1, m_store.Config(m_conf.get(), 1, ""));
    EXPECT_EQ(0, m_store.m_bSaveDirOK);
    EXPECT_EQ("", m_store.m_strSavePath);
    EXPECT_EQ("", m_store.m_strSaveRoot);
    EXPECT_EQ(0, m_store.GetFileNum());
    EXPECT_NE(nullptr, m_store.m_pMemDB);

    QueueRecords(m_store, 1, 1);
    EXPECT_EQ(0, m_store.CheckSaveDir());
    EXPECT_EQ(0, m_store.m_bSaveDirOK);
    EXPECT_EQ(1u, m_store.m_listInsertCmd.size());  // nothing was dropped: nothing was loaded
    EXPECT_FALSE(testutil::DirExists(SdMount()));

    ASSERT_TRUE(COS::CosDir::MakeDir(SdMount()));  // the card goes in
    EXPECT_EQ(1, m_store.CheckSaveDir());
    EXPECT_EQ(1, m_store.m_bSaveDirOK);
    EXPECT_EQ(SdMount(), m_store.m_strSaveRoot);
    EXPECT_EQ(SdMount() + "store/", m_store.m_strSavePath);
    EXPECT_TRUE(testutil::FileExists(SdMount() + "store/rec_0.db"));
    EXPECT_EQ(1, m_store.GetFileNum());
    EXPECT_TRUE(m_store.m_listInsertCmd.empty());  // the reload discarded it
}

TEST_F(StoreConfigTest, MountPointGivenWithoutSlashStillSeparatesTheStoreDirectory) {
    m_conf.conf.nStorePattern = 2;
    m_conf.dirName = "store";
    const std::string mount = m_media.path() + "usb";  // no trailing '/'
    ASSERT_TRUE(COS::CosDir::MakeDir(mount));
    CHmiMedia::SetUdiskPath(mount);
    ASSERT_EQ(1, m_store.Config(m_conf.get(), 1, ""));
    EXPECT_EQ(mount + "/", m_store.m_strSaveRoot);
    EXPECT_EQ(mount + "/store/", m_store.m_strSavePath);
    EXPECT_TRUE(testutil::FileExists(mount + "/store/rec_0.db"));
}

TEST_F(StoreConfigTest, SdCardReportedWithoutMountPointCountsAsMissing) {
    m_conf.conf.nStorePattern = 1;
    m_conf.dirName = "store";
    ASSERT_EQ(1, m_store.Config(m_conf.get(), 1, ""));  // no SD path at all
    EXPECT_EQ(0, m_store.CheckSaveDir());
    EXPECT_EQ(0, m_store.GetFileNum());
}

TEST_F(StoreConfigTest, OtherPatternHasNoRootAndUsesTheDirectoryNameAsThePath) {
    m_conf.conf.nStorePattern = 3;
    m_conf.dirName = m_media.path() + "own";
    ASSERT_EQ(1, m_store.Config(m_conf.get(), 1, ""));
    EXPECT_EQ("", m_store.m_strSaveRoot);
    EXPECT_EQ(m_media.path() + "own/", m_store.m_strSavePath);
    EXPECT_TRUE(testutil::FileExists(m_media.path() + "own/rec_0.db"));
    EXPECT_EQ(1, m_store.CheckSaveDir());
}

// A store on a removable medium; the parameter is the store pattern.
class StoreMediaTest : public StoreConfigTest, public ::testing::WithParamInterface<int> {
protected:
    void SetUp() override {
        StoreConfigTest::SetUp();
        m_conf.conf.nStorePattern = GetParam();
        m_conf.dirName = "store";
        ASSERT_TRUE(COS::CosDir::MakeDir(Mount()));
        SetMount(GetParam(), Mount());
    }

    std::string Mount() const { return m_media.path() + "medium/"; }
    std::string FilePath() const { return Mount() + "store/rec_0.db"; }

    // Configures the store with the medium in, then queues commands and
    // buffers two rows.
    void StartWithWork() {
        ASSERT_EQ(1, m_store.Config(m_conf.get(), 1, ""));
        ASSERT_EQ(1, m_store.m_bSaveDirOK);
        ASSERT_TRUE(testutil::FileExists(FilePath()));
        QueueRecords(m_store, 1, 2);
        RunBatch(m_store);
        QueueRecords(m_store, 3, 3);
        QueueOther(m_store, "delete from rec where id = 1");
    }
};

TEST_P(StoreMediaTest, PulledMediumIsDroppedOnceAndReportsZero) {
    StartWithWork();
    testutil::RemoveTree(Mount());
    EXPECT_EQ(0, m_store.CheckSaveDir());
    EXPECT_EQ(0, m_store.m_bSaveDirOK);
    EXPECT_EQ("", m_store.m_strSavePath);
    EXPECT_EQ(0, m_store.GetFileNum());
    EXPECT_TRUE(m_store.m_listInsertCmd.empty());
    EXPECT_TRUE(m_store.m_listOtherCmd.empty());
    EXPECT_EQ(0, BufferedRows(m_store));
    EXPECT_EQ(0u, m_store.m_nMemMaxID);

    // Later checks return at once, without clearing again.
    QueueRecords(m_store, 4, 4);
    EXPECT_EQ(0, m_store.CheckSaveDir());
    EXPECT_EQ(1u, m_store.m_listInsertCmd.size());
    EXPECT_EQ("", m_store.m_strSavePath);
    EXPECT_FALSE(testutil::DirExists(Mount()));
}

TEST_P(StoreMediaTest, PulledMediumKeepsQueuesAndBufferWhenConfiguredTo) {
    m_conf.conf.bClearOnReload = 0;
    StartWithWork();
    testutil::RemoveTree(Mount());
    EXPECT_EQ(0, m_store.CheckSaveDir());
    EXPECT_EQ("", m_store.m_strSavePath);
    EXPECT_EQ(0, m_store.GetFileNum());
    EXPECT_EQ(1u, m_store.m_listInsertCmd.size());
    EXPECT_EQ(1u, m_store.m_listOtherCmd.size());
    EXPECT_EQ(2, BufferedRows(m_store));
    EXPECT_EQ(2u, m_store.m_nMemMaxID);
}

TEST_P(StoreMediaTest, MediumPutBackEmptyIsReloadedWithAFreshFile) {
    StartWithWork();
    testutil::RemoveTree(Mount());
    ASSERT_EQ(0, m_store.CheckSaveDir());
    ASSERT_TRUE(COS::CosDir::MakeDir(Mount()));
    EXPECT_EQ(1, m_store.CheckSaveDir());
    EXPECT_EQ(Mount() + "store/", m_store.m_strSavePath);
    EXPECT_TRUE(testutil::FileExists(FilePath()));
    EXPECT_EQ(1, m_store.GetFileNum());
}

TEST_P(StoreMediaTest, MediumPutBackWithItsFilesIsRescanned) {
    StartWithWork();
    ASSERT_EQ(1, m_store.CreateFileDB());  // rec_1.db
    const std::string away = m_media.path() + "away";
    const std::string mount = m_media.path() + "medium";
    ASSERT_EQ(0, std::rename(mount.c_str(), away.c_str()));  // pulled
    ASSERT_EQ(0, m_store.CheckSaveDir());
    ASSERT_EQ(0, std::rename(away.c_str(), mount.c_str()));  // put back
    EXPECT_EQ(1, m_store.CheckSaveDir());
    ASSERT_EQ(2, m_store.GetFileNum());
    EXPECT_EQ("rec_0.db", m_store.m_vecFileInfo[0].GetFullName());
    EXPECT_EQ("rec_1.db", m_store.m_vecFileInfo[1].GetFullName());
    EXPECT_FALSE(testutil::FileExists(Mount() + "store/rec_2.db"));
}

TEST_P(StoreMediaTest, ReloadFileWithoutTheMediumFailsAndKeepsTheCatalog) {
    StartWithWork();
    testutil::RemoveTree(Mount());
    EXPECT_EQ(0, m_store.ReloadFile());
    EXPECT_EQ("", m_store.m_strSavePath);
    EXPECT_EQ("", m_store.m_strSaveRoot);
    EXPECT_EQ(1, m_store.GetFileNum());
    EXPECT_EQ(1u, m_store.m_listInsertCmd.size());  // ReloadFile clears no queue
}

TEST_P(StoreMediaTest, ReloadFileRebuildsTheCatalogFromTheDirectory) {
    StartWithWork();
    ASSERT_EQ(1, m_store.CreateFileDB());
    m_store.ClearFileList();
    EXPECT_EQ(1, m_store.ReloadFile());
    EXPECT_EQ(Mount(), m_store.m_strSaveRoot);
    ASSERT_EQ(2, m_store.GetFileNum());
    EXPECT_EQ(0u, m_store.m_vecFileInfo[0].GetFileID());
    EXPECT_EQ(1u, m_store.m_vecFileInfo[1].GetFileID());
    EXPECT_EQ(1u, m_store.m_listInsertCmd.size());
}

INSTANTIATE_TEST_SUITE_P(StoreConfigMedia, StoreMediaTest, ::testing::Values(1, 2),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return info.param == 1 ? std::string("SdCard")
                                                    : std::string("UsbDisk");
                         });

// --- IsDbFileExist ---------------------------------------------------------------

TEST_F(StoreConfigTest, IsDbFileExistLooksForADbFileStartingWithTheStem) {
    DbData store;
    store.m_strFileName = "rec";
    store.m_strSavePath = m_media.path() + "none/";
    EXPECT_EQ(0, store.IsDbFileExist());  // no such directory

    store.m_strSavePath = m_media.path();
    EXPECT_EQ(0, store.IsDbFileExist());  // empty
    testutil::WriteFile(m_media.path() + "other_0.db", "");
    testutil::WriteFile(m_media.path() + "rec_0.txt", "");
    testutil::WriteFile(m_media.path() + "Rec_0.db", "");
    EXPECT_EQ(0, store.IsDbFileExist());

    testutil::WriteFile(m_media.path() + "record_7.db", "");  // the stem is only a prefix
    EXPECT_EQ(1, store.IsDbFileExist());
}

TEST_F(StoreConfigTest, IsDbFileExistDoesNotLookInsideTheFile) {
    DbData store;
    store.m_strFileName = "rec";
    store.m_strSavePath = m_media.path().substr(0, m_media.path().size() - 1);  // no separator
    testutil::WriteFile(m_media.path() + "rec_0.db", "not a database");
    EXPECT_EQ(1, store.IsDbFileExist());
}

// --- A running panel ----------------------------------------------------------------

namespace {

class StoreConfigScenarioTest : public ::testing::Test {
protected:
    void SetUp() override {
        PlatformSim::Reset();
        m_savedEnable = Sqlite3DB::m_bEnable;
        Sqlite3DB::Destroy();
        Sqlite3DB::Sqlit3DBEnable("/nonexistent/project");
    }
    void TearDown() override {
        Sqlite3DB::Destroy();
        Sqlite3DB::m_bEnable = m_savedEnable;
        PlatformSim::Reset();
    }

    // Creates the store with an explicit ID (automatic IDs stay untouched).
    DbData* Create() {
        const long long id = Sqlite3DB::Create(m_conf.get(), kID);
        EXPECT_EQ(kID, id);
        EXPECT_EQ(1, m_handle.Open(kID));
        return Sqlite3DB::GetDbByID(kID);
    }

    void SaveAt(unsigned long long tick) {
        PlatformSim::SetTickCount(tick);
        Sqlite3DB::Save();
    }

    void QueueRecords(unsigned long long first, unsigned long long last) {
        for (unsigned long long id = first; id <= last; ++id) {
            std::string sql = InsertSql(id);
            _tagDBSqlCmdInfo cmd{&sql, 1, id, id * 10};
            ASSERT_EQ(1, m_handle.SqlAddNode(cmd));
        }
    }

    // The missing-location message is shared by every store and shown at
    // most every 15 s; after this it was last shown at `tick` exactly.
    // Needs a registered store whose save location is missing.
    void ShowMissingLocationMessageAt(unsigned long long tick) {
        SaveAt(tick - 15000);  // shown now, or less than 15 s before
        SaveAt(tick);          // so 15 s or more have passed now in any case
        std::vector<std::string> messages = PlatformSim::TakeMessages();
        ASSERT_FALSE(messages.empty());
        EXPECT_EQ(kNoLocation, messages.back());
    }

    static constexpr long long kID = 11;
    int m_savedEnable = 0;
    testutil::TempDir m_dir{"/mnt/data/"};
    testutil::TempDir m_media;
    testutil::Conf m_conf;
    Sqlite3DB m_handle;
};

// The parameter is bClearOnReload.
class StoreMediaScenarioTest : public StoreConfigScenarioTest,
                               public ::testing::WithParamInterface<int> {
protected:
    void SetUp() override {
        StoreConfigScenarioTest::SetUp();
        m_conf.conf.bClearOnReload = GetParam();
        m_conf.dirName = "store";
    }
    std::string Mount() const { return m_media.path() + "medium/"; }
    std::string FilePath() const { return Mount() + "store/rec_0.db"; }
};

}  // namespace

TEST_P(StoreMediaScenarioTest, SdCardInsertedAfterStartUp) {
    m_conf.conf.nStorePattern = 1;
    CHmiMedia::SetSDPath(Mount());
    DbData* store = Create();
    ASSERT_NE(nullptr, store);
    EXPECT_EQ(0, store->GetFileNum());
    EXPECT_EQ(0, m_handle.LoadDbSuccess());

    ShowMissingLocationMessageAt(kTick);
    QueueRecords(1, 3);
    SaveAt(kTick + 5000);  // the message waits: the batch runs into the buffer
    EXPECT_TRUE(store->m_listInsertCmd.empty());
    EXPECT_EQ(3, BufferedRows(*store));
    EXPECT_EQ(0, m_handle.LoadDbSuccess());

    ASSERT_TRUE(COS::CosDir::MakeDir(Mount()));  // the card goes in
    SaveAt(kTick + 6000);
    EXPECT_EQ(1, m_handle.LoadDbSuccess());
    EXPECT_TRUE(testutil::FileExists(FilePath()));
    EXPECT_EQ(GetParam() ? 0 : 3, BufferedRows(*store));

    QueueRecords(4, 6);
    SaveAt(kTick + 7500);  // batch and a due flush
    EXPECT_EQ(GetParam() ? IdsFromTo(4, 6) : IdsFromTo(1, 6), Ids(FilePath()));
    EXPECT_EQ((Rows{{"6", GetParam() ? "4" : "1"}}),
              testutil::RawQuery(FilePath(), "select MaxID, MinID from DBInfo"));
    EXPECT_TRUE(PlatformSim::TakeMessages().empty());
}

// The disk is pulled with rows buffered and commands queued, and put back
// with its files. With bClearOnReload 0 the rows buffered before the pull
// reach the file, but only with the flush after the next batch: the flush
// attempted while the disk was out used up the buffer's change flag.
TEST_P(StoreMediaScenarioTest, UsbDiskPulledAndPutBack) {
    m_conf.conf.nStorePattern = 2;
    ASSERT_TRUE(COS::CosDir::MakeDir(Mount()));
    CHmiMedia::SetUdiskPath(Mount());
    DbData* store = Create();
    ASSERT_NE(nullptr, store);
    SaveAt(kTick);  // notes the flush tick
    QueueRecords(1, 3);
    SaveAt(kTick + 100);
    ASSERT_EQ(3, BufferedRows(*store));
    QueueRecords(4, 5);
    EXPECT_EQ(1, m_handle.LoadDbSuccess());

    const std::string away = m_media.path() + "away";
    const std::string mount = m_media.path() + "medium";
    ASSERT_EQ(0, std::rename(mount.c_str(), away.c_str()));  // pulled
    const unsigned long long t = kTick + 100000;
    ShowMissingLocationMessageAt(t);
    SaveAt(t + 1000);  // the queued inserts run (if kept)
    SaveAt(t + 2500);  // a due flush finds no file
    EXPECT_EQ(0, m_handle.LoadDbSuccess());
    EXPECT_EQ(0, store->GetFileNum());
    EXPECT_EQ("", store->m_strSavePath);
    EXPECT_TRUE(store->m_listInsertCmd.empty());
    EXPECT_EQ(GetParam() ? 0 : 5, BufferedRows(*store));

    ASSERT_EQ(0, std::rename(away.c_str(), mount.c_str()));  // put back
    SaveAt(t + 3000);
    EXPECT_EQ(1, m_handle.LoadDbSuccess());
    EXPECT_EQ(1, store->GetFileNum());
    SaveAt(t + 4500);  // due, but no batch ran since the last flush attempt
    EXPECT_EQ(Rows{}, Ids(FilePath()));
    EXPECT_EQ(GetParam() ? 0 : 5, BufferedRows(*store));

    QueueRecords(6, 7);
    SaveAt(t + 4600);
    SaveAt(t + 6000);
    EXPECT_EQ(GetParam() ? IdsFromTo(6, 7) : IdsFromTo(1, 7), Ids(FilePath()));
    EXPECT_EQ((Rows{{"7", GetParam() ? "6" : "1"}}),
              testutil::RawQuery(FilePath(), "select MaxID, MinID from DBInfo"));
    EXPECT_EQ(0, BufferedRows(*store));
    EXPECT_TRUE(PlatformSim::TakeMessages().empty());
}

INSTANTIATE_TEST_SUITE_P(StoreConfigScenario, StoreMediaScenarioTest, ::testing::Values(1, 0),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return info.param ? std::string("Clears") : std::string("Keeps");
                         });

TEST_F(StoreConfigScenarioTest, StoreDirectoryDeletedUnderARunningStore) {
    m_conf.dirName = m_dir.name() + "/sub";
    const std::string file = m_dir.path() + "sub/rec_0.db";
    DbData* store = Create();
    ASSERT_NE(nullptr, store);
    SaveAt(kTick);
    QueueRecords(1, 3);
    SaveAt(kTick + 1100);
    ASSERT_EQ(IdsFromTo(1, 3), Ids(file));

    testutil::RemoveTree(m_dir.path() + "sub");
    QueueRecords(4, 5);    // queued before the store notices: discarded by the reload
    SaveAt(kTick + 1200);  // recreates the directory with a fresh file 0
    EXPECT_EQ(1, m_handle.LoadDbSuccess());
    EXPECT_EQ(Rows{}, Ids(file));
    EXPECT_EQ(1, store->GetFileNum());

    QueueRecords(6, 8);
    SaveAt(kTick + 1300);
    SaveAt(kTick + 2400);
    EXPECT_EQ(IdsFromTo(6, 8), Ids(file));
    EXPECT_EQ((Rows{{"8", "6"}}), testutil::RawQuery(file, "select MaxID, MinID from DBInfo"));
    EXPECT_TRUE(PlatformSim::TakeMessages().empty());
}

// Create still registers the store: only the logs tell. The first file is
// tried twice (at the reload and again at the end of start-up); each try
// leaves an empty file behind that the store does not catalogue but that
// later counts as "one of the store's files" for the directory check. The
// first insert then fails on the buffer and leaves its transaction open.
TEST_F(StoreConfigScenarioTest, RejectedCreateStatementStillGivesAStore) {
    m_conf.dirName = m_dir.name() + "/sub";
    m_conf.createSql = "CREATE TABLE rec (id INTEGER PRIMARY KEY,";
    const std::string file = m_dir.path() + "sub/rec_0.db";
    PlatformSim::TakeLogLines();
    DbData* store = Create();
    ASSERT_NE(nullptr, store);
    EXPECT_EQ((std::vector<std::string>{"DbData.cpp: [DB]CreateFileDB:incomplete input",
                                        "DbData.cpp: [DB]Config:incomplete input",
                                        "DbData.cpp: [DB]CreateFileDB:incomplete input"}),
              LogTexts(PlatformSim::TakeLogLines()));
    EXPECT_EQ(0, store->GetFileNum());
    EXPECT_TRUE(testutil::FileExists(file));
    EXPECT_EQ(Rows{}, testutil::RawQuery(file, "select name from sqlite_master"));

    QueueRecords(1, 1);
    SaveAt(kTick);
    EXPECT_EQ(1, m_handle.LoadDbSuccess());
    EXPECT_EQ((std::vector<std::string>{"DbData.cpp: [DB]Save:no such table: rec"}),
              LogTexts(PlatformSim::TakeLogLines()));
    SaveAt(kTick + 2000);
    EXPECT_EQ((std::vector<std::string>{
                  "DbData.cpp: [DB]Save:cannot start a transaction within a transaction"}),
              LogTexts(PlatformSim::TakeLogLines()));
    EXPECT_EQ(1u, store->m_listInsertCmd.size());
    EXPECT_EQ(0, store->GetFileNum());
}
