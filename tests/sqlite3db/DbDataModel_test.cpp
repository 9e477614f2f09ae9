// The data model of a store (DbData) before configuration: the values a new
// store starts with, its two plain getters, emptying the catalog, the
// command queues and the memory buffer, and destruction of a store that
// still holds queued commands, kept statements and a memory database (the
// sanitizer build's leak check shows that nothing is lost).
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>

#include "PlatformSim.h"
#include "Sqlite3DB/DbData/DbData.h"

namespace {

const char kCreateRec[] = "CREATE TABLE rec (id INTEGER PRIMARY KEY, t INTEGER, v TEXT)";

class DbDataModelTest : public ::testing::Test {
protected:
    void SetUp() override { PlatformSim::Reset(); }
    void TearDown() override { PlatformSim::Reset(); }

    // Queues one command through the store's own queueing operation.
    static void Queue(DbData& store, const std::string& sql, int type = 0) {
        std::string text = sql;
        _tagDBSqlCmdInfo cmd{&text, type, 1, 2};
        ASSERT_EQ(1, store.AddNode(cmd));
    }

    // Gives the store a ":memory:" buffer holding the data table.
    static void MakeMemoryDB(DbData& store, const std::string& table, const std::string& create) {
        store.m_bUseMemDB = 1;
        store.m_strTableName = table;
        store.m_strCreateTableSql = create;
        ASSERT_EQ(1, store.CreateMemoryDB());
        ASSERT_NE(nullptr, store.m_pMemDB);
    }

    static int CountRows(DbData& store, const std::string& table) {
        CBBSQL::CppSQLite3Query q =
            store.m_pMemDB->execQuery(("select count(*) from " + table).c_str());
        return q.getIntField(0);
    }

    static void SetMemoryRange(DbData& store) {
        store.m_nMemMinID = 11;
        store.m_nMemMaxID = 22;
        store.m_nMemStartTime = 33;
        store.m_nMemEndTime = 44;
    }

    static void ExpectMemoryRange(DbData& store, unsigned long long minID, unsigned long long maxID,
                                  unsigned long long start, unsigned long long end) {
        EXPECT_EQ(minID, store.m_nMemMinID);
        EXPECT_EQ(maxID, store.m_nMemMaxID);
        EXPECT_EQ(start, store.m_nMemStartTime);
        EXPECT_EQ(end, store.m_nMemEndTime);
    }

    // The lock is free: taken at once, then given back.
    static void ExpectFree(COS::CosMutex& mutex) {
        EXPECT_NE(0, mutex.TryLock(200));
        mutex.Unlock();
    }

    static DbFileInfo Entry(unsigned int fileID) {
        DbFileInfo rec;
        rec.SetFileID(fileID);
        return rec;
    }
};

}  // namespace

// --- A new store ----------------------------------------------------------------

TEST_F(DbDataModelTest, NewStoreHasItsStartingValues) {
    DbData store;
    EXPECT_EQ(0, store.m_nDBID);
    EXPECT_EQ(0, store.m_bConfig);
    EXPECT_EQ("", store.m_strSavePath);
    EXPECT_EQ("", store.m_strSaveRoot);
    EXPECT_EQ("", store.m_strDirName);
    EXPECT_EQ("", store.m_strFileName);
    EXPECT_EQ("", store.m_strTableName);
    EXPECT_EQ(0, store.m_nMaxRecordNum);
    EXPECT_EQ(0, store.m_nMaxFileSize);
    EXPECT_EQ(0, store.m_bSplitFile);
    EXPECT_EQ(0, store.m_nMaxFileNum);
    EXPECT_EQ(0, store.m_nSaveTime);
    EXPECT_EQ(0u, store.m_nLastSaveTick);
    EXPECT_EQ(0, store.m_bMemChange);
    EXPECT_EQ(0, store.m_bUseMemDB);
    EXPECT_EQ(0, store.m_bSaveFile);
    EXPECT_EQ("", store.m_strCreateTableSql);
    EXPECT_EQ("", store.m_strDelRecordSql);
    EXPECT_EQ(0, store.m_bNeedSplitCheck);
    EXPECT_EQ(0, store.m_bSaveDirOK);
    EXPECT_EQ(0u, store.m_nLastID);
    EXPECT_EQ("", store.m_strProjMD5);
    EXPECT_EQ(0, store.m_bAttach);
    EXPECT_EQ(0u, store.m_nChangeNum);
    EXPECT_EQ(0, store.m_nInsertCmdNum);
    EXPECT_EQ(0, store.m_nOtherCmdNum);
    EXPECT_EQ(0, store.m_bHasSaveDir);
    ExpectMemoryRange(store, 0, 0, 0, 0);
}

TEST_F(DbDataModelTest, NewStoreHasTheDBInfoTexts) {
    DbData store;
    EXPECT_EQ(
        "CREATE TABLE 'DBInfo' (version INTEGER PRIMARY KEY AUTOINCREMENT,MaxID INTEGER ,MinID "
        "INTEGER ,StartTime INTEGER ,EndTime INTEGER,Value0 INTEGER,Value1 INTEGER,Value2 "
        "INTEGER,Value3 INTEGER,Value4 INTEGER)",
        store.m_strDBInfoCreateSql);
    EXPECT_EQ("DBInfo", store.m_strDBInfoTable);
    EXPECT_EQ("SELECT * FROM 'DBInfo' WHERE version = 1", store.m_strDBInfoSelectSql);
}

TEST_F(DbDataModelTest, NewStoreDiscardsOnReloadAndHasNoBufferListsOrConfig) {
    DbData store;
    EXPECT_EQ(1, store.m_bClearOnReload);
    EXPECT_EQ(nullptr, store.m_pMemDB);
    EXPECT_TRUE(store.m_vecFileInfo.empty());
    EXPECT_TRUE(store.m_listInsertCmd.empty());
    EXPECT_TRUE(store.m_listOtherCmd.empty());
    EXPECT_TRUE(store.m_listSql.empty());
    EXPECT_EQ(0, store.m_bConfig);
}

TEST_F(DbDataModelTest, NewStoreHasItsLocksFree) {
    DbData store;
    ExpectFree(store.m_mutexFile);
    ExpectFree(store.m_mutexCmd);
    ExpectFree(store.m_mutexSave);
}

TEST_F(DbDataModelTest, NewStoreLogsNothing) {
    { DbData store; }
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
    EXPECT_TRUE(PlatformSim::TakeMessages().empty());
}

// --- HasSaveDir and GetID -------------------------------------------------------

TEST_F(DbDataModelTest, HasSaveDirReportsTheLastCheck) {
    DbData store;
    EXPECT_EQ(0, store.HasSaveDir());
    store.m_bHasSaveDir = 1;
    EXPECT_EQ(1, store.HasSaveDir());
    store.m_bHasSaveDir = 0;
    EXPECT_EQ(0, store.HasSaveDir());
}

TEST_F(DbDataModelTest, GetIDReturnsTheFull64BitID) {
    DbData store;
    EXPECT_EQ(0, store.GetID());
    store.m_nDBID = (1LL << 40) + 7;
    EXPECT_EQ((1LL << 40) + 7, store.GetID());
    store.m_nDBID = -3;
    EXPECT_EQ(-3, store.GetID());
}

// --- ClearFileList -----------------------------------------------------------------

TEST_F(DbDataModelTest, ClearFileListOnAnEmptyCatalogTakesNoLock) {
    DbData store;
    store.m_mutexFile.Lock();  // held by the test: taking it would block
    std::future<void> done = std::async(std::launch::async, [&store] { store.ClearFileList(); });
    std::future_status status = done.wait_for(std::chrono::seconds(5));
    store.m_mutexFile.Unlock();  // lets a wrongly blocked call finish
    done.get();
    EXPECT_EQ(std::future_status::ready, status);
    EXPECT_TRUE(store.m_vecFileInfo.empty());
}

TEST_F(DbDataModelTest, ClearFileListEmptiesTheCatalogAndKeepsItsCapacity) {
    DbData store;
    for (unsigned int i = 0; i < 5; ++i) {
        store.m_vecFileInfo.push_back(Entry(i));
    }
    const size_t capacity = store.m_vecFileInfo.capacity();
    store.ClearFileList();
    EXPECT_TRUE(store.m_vecFileInfo.empty());
    EXPECT_EQ(capacity, store.m_vecFileInfo.capacity());
    ExpectFree(store.m_mutexFile);
}

TEST_F(DbDataModelTest, ClearFileListOnAFullCatalogWaitsForTheLock) {
    DbData store;
    store.m_vecFileInfo.push_back(Entry(0));
    store.m_vecFileInfo.push_back(Entry(1));
    store.m_mutexFile.Lock();
    std::future<void> done = std::async(std::launch::async, [&store] { store.ClearFileList(); });
    EXPECT_EQ(std::future_status::timeout, done.wait_for(std::chrono::milliseconds(200)));
    store.m_mutexFile.Unlock();
    done.get();
    EXPECT_TRUE(store.m_vecFileInfo.empty());
    ExpectFree(store.m_mutexFile);
}

// --- ClearSQLList ------------------------------------------------------------------

TEST_F(DbDataModelTest, ClearSQLListKeepsBothQueuesWhenReloadKeepsThem) {
    DbData store;
    store.m_bClearOnReload = 0;
    Queue(store, "insert into rec values(1, 1, 'a')", 1);
    Queue(store, "replace into rec values(2, 2, 'b')", 1);
    Queue(store, "update rec set v = 'c' where id = 1");
    EXPECT_EQ(1, store.ClearSQLList());
    ASSERT_EQ(2u, store.m_listInsertCmd.size());
    ASSERT_EQ(1u, store.m_listOtherCmd.size());
    EXPECT_EQ("insert into rec values(1, 1, 'a')", *store.m_listInsertCmd.front().pSql);
    EXPECT_EQ("update rec set v = 'c' where id = 1", *store.m_listOtherCmd.front().pSql);
}

TEST_F(DbDataModelTest, ClearSQLListEmptiesBothQueues) {
    DbData store;
    ASSERT_EQ(1, store.m_bClearOnReload);
    for (int i = 0; i < 3; ++i) {
        Queue(store, "insert into rec values(" + std::to_string(i) + ", 0, 'x')", 1);
    }
    Queue(store, "delete from rec where id = 1");
    Queue(store, "update rec set v = 'y'");
    EXPECT_EQ(1, store.ClearSQLList());
    EXPECT_TRUE(store.m_listInsertCmd.empty());
    EXPECT_TRUE(store.m_listOtherCmd.empty());
    EXPECT_EQ(0u, store.m_listInsertCmd.size());
    EXPECT_EQ(0u, store.m_listOtherCmd.size());
    ExpectFree(store.m_mutexCmd);
}

TEST_F(DbDataModelTest, ClearSQLListWithAnyNonZeroFlagEmpties) {
    DbData store;
    store.m_bClearOnReload = 7;
    Queue(store, "insert into rec values(1, 1, 'a')", 1);
    Queue(store, "delete from rec");
    EXPECT_EQ(1, store.ClearSQLList());
    EXPECT_TRUE(store.m_listInsertCmd.empty());
    EXPECT_TRUE(store.m_listOtherCmd.empty());
}

TEST_F(DbDataModelTest, ClearSQLListOnEmptyQueuesReturnsOne) {
    DbData store;
    EXPECT_EQ(1, store.ClearSQLList());
    EXPECT_TRUE(store.m_listInsertCmd.empty());
    EXPECT_TRUE(store.m_listOtherCmd.empty());
    ExpectFree(store.m_mutexCmd);
}

TEST_F(DbDataModelTest, ClearSQLListLeavesKeptStatements) {
    DbData store;
    ASSERT_EQ(1, store.Insert("insert into rec values(1, 1, 'a')"));
    Queue(store, "delete from rec");
    EXPECT_EQ(1, store.ClearSQLList());
    EXPECT_EQ(1u, store.m_listSql.size());
}

// --- ClearMemDbFile ----------------------------------------------------------------

TEST_F(DbDataModelTest, ClearMemDbFileWithoutABufferReturnsOne) {
    DbData store;
    store.m_bUseMemDB = 1;
    store.m_strTableName = "rec";
    SetMemoryRange(store);
    EXPECT_EQ(1, store.ClearMemDbFile());
    EXPECT_EQ(nullptr, store.m_pMemDB);
    ExpectMemoryRange(store, 11, 22, 33, 44);
}

TEST_F(DbDataModelTest, ClearMemDbFileKeepsRowsWhenReloadKeepsThem) {
    DbData store;
    MakeMemoryDB(store, "rec", kCreateRec);
    store.m_pMemDB->execDML("insert into rec values(1, 100, 'a')");
    SetMemoryRange(store);
    store.m_bClearOnReload = 0;
    EXPECT_EQ(1, store.ClearMemDbFile());
    EXPECT_EQ(1, CountRows(store, "rec"));
    ExpectMemoryRange(store, 11, 22, 33, 44);
}

TEST_F(DbDataModelTest, ClearMemDbFileKeepsRowsWhenTheBufferIsNotInUse) {
    DbData store;
    MakeMemoryDB(store, "rec", kCreateRec);
    store.m_pMemDB->execDML("insert into rec values(1, 100, 'a')");
    SetMemoryRange(store);
    store.m_bUseMemDB = 0;
    EXPECT_EQ(1, store.ClearMemDbFile());
    EXPECT_EQ(1, CountRows(store, "rec"));
    ExpectMemoryRange(store, 11, 22, 33, 44);
}

TEST_F(DbDataModelTest, ClearMemDbFileDeletesTheRowsAndEmptiesTheRange) {
    DbData store;
    MakeMemoryDB(store, "rec", kCreateRec);
    store.m_pMemDB->execDML("insert into rec values(1, 100, 'a')");
    store.m_pMemDB->execDML("insert into rec values(2, 200, 'b')");
    store.m_pMemDB->execDML("insert into rec values(3, 300, 'c')");
    SetMemoryRange(store);
    EXPECT_EQ(1, store.ClearMemDbFile());
    EXPECT_EQ(0, CountRows(store, "rec"));
    ExpectMemoryRange(store, 0, 0, 0, 0);
    EXPECT_TRUE(store.m_pMemDB->tableExists("rec"));  // rows go, the table stays
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DbDataModelTest, ClearMemDbFileOnAnEmptyTableReturnsOne) {
    DbData store;
    MakeMemoryDB(store, "rec", kCreateRec);
    SetMemoryRange(store);
    EXPECT_EQ(1, store.ClearMemDbFile());
    ExpectMemoryRange(store, 0, 0, 0, 0);
}

TEST_F(DbDataModelTest, ClearMemDbFileWithoutTheTableReturnsZeroSilently) {
    DbData store;
    MakeMemoryDB(store, "rec", kCreateRec);
    store.m_strTableName = "missing";
    SetMemoryRange(store);
    EXPECT_EQ(0, store.ClearMemDbFile());
    ExpectMemoryRange(store, 11, 22, 33, 44);
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DbDataModelTest, ClearMemDbFileWithATooLongTableNameReturnsZeroAndKeepsTheRange) {
    // "DELETE FROM " is 12 characters: with a 500-character name the statement
    // is cut to 511 characters inside the name, naming a table that does not
    // exist, although the table with the full name does.
    const std::string table(500, 't');
    DbData store;
    MakeMemoryDB(store, table, "CREATE TABLE " + table + " (id INTEGER PRIMARY KEY)");
    store.m_pMemDB->execDML(("insert into " + table + " values(1)").c_str());
    SetMemoryRange(store);
    EXPECT_EQ(0, store.ClearMemDbFile());
    EXPECT_EQ(1, CountRows(store, table));
    ExpectMemoryRange(store, 11, 22, 33, 44);
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DbDataModelTest, ClearMemDbFileWithAMuchLongerTableNameReturnsZero) {
    const std::string table(600, 'u');
    DbData store;
    MakeMemoryDB(store, table, "CREATE TABLE " + table + " (id INTEGER PRIMARY KEY)");
    store.m_pMemDB->execDML(("insert into " + table + " values(1)").c_str());
    SetMemoryRange(store);
    EXPECT_EQ(0, store.ClearMemDbFile());
    EXPECT_EQ(1, CountRows(store, table));
    ExpectMemoryRange(store, 11, 22, 33, 44);
}

TEST_F(DbDataModelTest, ClearMemDbFileWithANameThatJustFitsDeletes) {
    // 12 + 499 characters fill the buffer exactly: only the ';' is cut, and
    // the statement still runs.
    const std::string table(499, 'v');
    DbData store;
    MakeMemoryDB(store, table, "CREATE TABLE " + table + " (id INTEGER PRIMARY KEY)");
    store.m_pMemDB->execDML(("insert into " + table + " values(1)").c_str());
    SetMemoryRange(store);
    EXPECT_EQ(1, store.ClearMemDbFile());
    EXPECT_EQ(0, CountRows(store, table));
    ExpectMemoryRange(store, 0, 0, 0, 0);
}

// --- Destruction --------------------------------------------------------------------

TEST_F(DbDataModelTest, DestroyingAnUnconfiguredStoreFreesEverything) {
    DbData* store = new DbData();
    for (int i = 0; i < 4; ++i) {
        Queue(*store, "insert into rec values(" + std::to_string(i) + ", 0, 'x')", 1);
        Queue(*store, "update rec set v = 'y' where id = " + std::to_string(i));
    }
    EXPECT_EQ(1, store->Insert("insert into rec values(9, 9, 'k')"));
    EXPECT_EQ(1, store->Update("update rec set v = 'k'"));
    EXPECT_EQ(1, store->Delete("delete from rec"));
    ASSERT_EQ(3u, store->m_listSql.size());
    MakeMemoryDB(*store, "rec", kCreateRec);
    store->m_pMemDB->execDML("insert into rec values(1, 100, 'a')");
    store->m_vecFileInfo.push_back(Entry(0));
    store->m_vecFileInfo.back().SetFullNameAndInfo("/mnt/data/x/rec_0.db");
    ASSERT_EQ(4u, store->m_listInsertCmd.size());
    ASSERT_EQ(4u, store->m_listOtherCmd.size());
    delete store;  // the leak check of the sanitizer build finds anything left
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DbDataModelTest, DestroyingANewStoreIsClean) {
    DbData* store = new DbData();
    delete store;
    SUCCEED();
}
