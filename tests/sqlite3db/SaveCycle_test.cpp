// The save cycle: Save and its order of steps, SaveSqlToDb with and without a
// memory buffer (the save interval, the flush, writing straight into the
// file), FlushDB with its attach and detach, and the operator message for a
// missing save location, shown at most once per 15 s for the whole process.
#include <filesystem>

#include "RollingStoreFixture.h"

using namespace rollingtest;

namespace {

const char kNoLocation[] = "The save location does not exist";

std::vector<std::string> Messages(int n) {
    return std::vector<std::string>(n, kNoLocation);
}

}  // namespace

class SaveCycleTest : public RollingStoreTest {
protected:
    // A buffered store on the data partition with the given save interval.
    DbData& BufferedStore(int saveTime = 1000) {
        testutil::Conf& c = NewConf("s");
        c.conf.nSaveTime = saveTime;
        return MakeStore(c);
    }

    // A store on the simulated SD card, directory "card". The card is present
    // when `present` is set; bClearOnReload 0 keeps queued commands and
    // buffered rows while the card is out.
    DbData& CardStore(testutil::TempDir& card, bool present, int useMemDB = 1) {
        CHmiMedia::SetSDPath(card.path() + "mount/");
        if (present) {
            std::filesystem::create_directory(card.path() + "mount");
        }
        testutil::Conf& c = NewConf("card");
        c.dirName = "card";
        c.conf.nStorePattern = 1;
        c.conf.bClearOnReload = 0;
        c.conf.bUseMemDB = useMemDB;
        return MakeStore(c);
    }

    // One cycle at `tick`, with the platform's tick counter showing the same.
    void SaveAt(DbData& store, unsigned long long tick) {
        PlatformSim::SetTickCount(tick);
        store.Save(tick);
    }

    // Proves that the store's save lock is free, leaving it free.
    void ExpectSaveLockFree(DbData& store) {
        ASSERT_EQ(1, store.m_mutexSave.TryLock(200));
        store.m_mutexSave.Unlock();
    }
};

// --- Save ----------------------------------------------------------------------------

TEST_F(SaveCycleTest, SaveOfUnconfiguredStoreDoesNothing) {
    DbData store;
    store.Save(123456);
    EXPECT_EQ(0u, store.m_nLastSaveTick);
    ExpectSaveLockFree(store);
}

TEST_F(SaveCycleTest, SaveReleasesTheSaveLock) {
    DbData& store = BufferedStore();
    QueueRecords(store, 1, 3);
    SaveAt(store, 50000);
    ExpectSaveLockFree(store);
}

TEST_F(SaveCycleTest, SaveRunsInsertsThenDeferredCommandsThenSplit) {
    testutil::Conf& c = NewConf("s");
    c.conf.nMaxRecordNum = 3;
    DbData& store = MakeStore(c);
    QueueRecords(store, 1, 4);
    QueueOther(store, "update rec set v = 'changed' where id = 2", 2);

    SaveAt(store, 50000);
    // The update found record 2 flushed into file 0, and file 0 was then full.
    const std::string file0 = SaveDir("s") + "rec_0.db";
    EXPECT_EQ((std::vector<unsigned long long>{1, 2, 3, 4}), FileIds(file0));
    EXPECT_EQ("changed", testutil::RawValue(file0, "select v from rec where id = 2"));
    EXPECT_EQ(FileNames({0, 1}), CatalogNames(store));
    EXPECT_TRUE(store.m_listOtherCmd.empty());
}

// --- Buffered form ----------------------------------------------------------------------

TEST_F(SaveCycleTest, ZeroSaveTimeKeepsRowsInBufferForever) {
    DbData& store = BufferedStore(0);
    QueueRecords(store, 1, 5);
    SaveAt(store, 50000);
    SaveAt(store, 50000000);
    EXPECT_EQ(5, MemRowCount(store));
    EXPECT_TRUE(store.m_listInsertCmd.empty());
    EXPECT_EQ(0, RowCount(CatalogPath(store)));
    EXPECT_EQ(0u, store.m_nLastSaveTick);
    EXPECT_EQ(0, store.m_bNeedSplitCheck);
}

TEST_F(SaveCycleTest, FlushIsDueOnlyStrictlyAfterTheSaveTime) {
    DbData& store = BufferedStore(1000);
    store.m_nLastSaveTick = 5000;  // tick 0 lies behind it: the flush is due
    QueueRecords(store, 1, 3);
    SaveAt(store, 0);
    EXPECT_EQ(3, RowCount(CatalogPath(store)));
    EXPECT_EQ(0u, store.m_nLastSaveTick);

    QueueRecords(store, 4, 6);
    SaveAt(store, 1000);  // exactly the save time: not yet
    EXPECT_EQ(3, RowCount(CatalogPath(store)));
    EXPECT_EQ(3, MemRowCount(store));
    EXPECT_EQ(0u, store.m_nLastSaveTick);

    SaveAt(store, 1001);
    EXPECT_EQ((std::vector<unsigned long long>{1, 2, 3, 4, 5, 6}), FileIds(CatalogPath(store)));
    EXPECT_EQ(0, MemRowCount(store));
    EXPECT_EQ(1001u, store.m_nLastSaveTick);
}

TEST_F(SaveCycleTest, FlushCopiesRowsEmptiesBufferAndSetsTheFileRange) {
    DbData& store = BufferedStore();
    QueueRecords(store, 1, 5);
    SaveAt(store, 50000);

    const std::string path = CatalogPath(store);
    EXPECT_EQ((std::vector<unsigned long long>{1, 2, 3, 4, 5}), FileIds(path));
    EXPECT_EQ(0, MemRowCount(store));
    const DbFileInfo& rec = CatalogEntry(store);
    EXPECT_EQ(1u, rec.GetStartID());
    EXPECT_EQ(5u, rec.GetEndID());
    EXPECT_EQ(TimeOf(1), rec.GetStartTime());
    EXPECT_EQ(TimeOf(5), rec.GetEndTime());
    DBInfoRow info = ReadDBInfo(path);
    EXPECT_EQ(1u, info.rows);
    EXPECT_EQ(5u, info.maxID);
    EXPECT_EQ(1u, info.minID);
    EXPECT_EQ(TimeOf(1), info.startTime);
    EXPECT_EQ(TimeOf(5), info.endTime);
    // The memory range collapses onto the last record.
    EXPECT_EQ(5u, store.m_nMemMinID);
    EXPECT_EQ(5u, store.m_nMemMaxID);
    EXPECT_EQ(TimeOf(5), store.m_nMemStartTime);
    EXPECT_EQ(TimeOf(5), store.m_nMemEndTime);
    EXPECT_EQ(0, store.GetNowDBMemRecordNum());
    EXPECT_EQ(1, store.m_bNeedSplitCheck);

    // A later flush moves only the end; the start stays with the first record.
    QueueRecords(store, 6, 8);
    SaveAt(store, 51001);
    EXPECT_EQ((std::vector<unsigned long long>{1, 2, 3, 4, 5, 6, 7, 8}), FileIds(path));
    info = ReadDBInfo(path);
    EXPECT_EQ(8u, info.maxID);
    EXPECT_EQ(1u, info.minID);
    EXPECT_EQ(TimeOf(1), info.startTime);
    EXPECT_EQ(TimeOf(8), info.endTime);
}

TEST_F(SaveCycleTest, IntervalRunsBetweenFlushChecksNotFlushes) {
    DbData& store = BufferedStore(1000);
    QueueRecords(store, 1, 2);
    SaveAt(store, 50000);
    store.m_bNeedSplitCheck = 0;

    SaveAt(store, 51001);  // due, but nothing ran into the buffer
    EXPECT_EQ(51001u, store.m_nLastSaveTick);
    EXPECT_EQ(0, store.m_bNeedSplitCheck);  // no flush happened

    QueueRecords(store, 3, 4);
    SaveAt(store, 52001);  // 1000 after the last check: not due
    EXPECT_EQ(2, RowCount(CatalogPath(store)));
    EXPECT_EQ(2, MemRowCount(store));
    SaveAt(store, 52002);
    EXPECT_EQ(4, RowCount(CatalogPath(store)));
    EXPECT_EQ(1, store.m_bNeedSplitCheck);
}

TEST_F(SaveCycleTest, BufferedStoreWithoutFilesNeverFlushesNorMovesTheTick) {
    testutil::Conf& c = NewConf("s");
    c.conf.bSaveFile = 0;
    DbData& store = MakeStore(c);
    QueueRecords(store, 1, 3);
    SaveAt(store, 50000);
    SaveAt(store, 90000);
    EXPECT_EQ(3, MemRowCount(store));
    EXPECT_EQ(0u, store.m_nLastSaveTick);
    EXPECT_TRUE(store.m_vecFileInfo.empty());
    EXPECT_TRUE(PlatformSim::TakeMessages().empty());
}

// --- Unbuffered form ---------------------------------------------------------------------

TEST_F(SaveCycleTest, StoreWithoutBufferWritesEachDueBatchStraightIntoTheFile) {
    testutil::Conf& c = NewConf("s");
    c.conf.bUseMemDB = 0;
    DbData& store = MakeStore(c);
    ASSERT_EQ(nullptr, store.m_pMemDB);
    QueueRecords(store, 1, 4);
    SaveAt(store, 50000);

    const std::string path = CatalogPath(store);
    EXPECT_EQ((std::vector<unsigned long long>{1, 2, 3, 4}), FileIds(path));
    EXPECT_EQ(1, store.m_bNeedSplitCheck);
    EXPECT_EQ(50000u, store.m_nLastSaveTick);
    EXPECT_EQ(4u, store.m_nMemMaxID);  // the range tracks the last records written
    // The catalog entry is not moved in this form, so DBInfo keeps the creation values.
    DBInfoRow info = ReadDBInfo(path);
    EXPECT_EQ(1u, info.rows);
    EXPECT_EQ(0u, info.maxID);
    EXPECT_EQ(0u, info.minID);
    EXPECT_EQ(kCreationTime, info.startTime);

    QueueRecords(store, 5, 6);
    SaveAt(store, 51000);  // not due: the batch waits in the queue
    EXPECT_EQ(2u, store.m_listInsertCmd.size());
    EXPECT_EQ(4, RowCount(path));
    SaveAt(store, 51001);
    EXPECT_EQ((std::vector<unsigned long long>{1, 2, 3, 4, 5, 6}), FileIds(path));
    EXPECT_TRUE(store.m_listInsertCmd.empty());
}

TEST_F(SaveCycleTest, StoreWithoutBufferAndZeroSaveTimeNeverWrites) {
    testutil::Conf& c = NewConf("s");
    c.conf.bUseMemDB = 0;
    c.conf.nSaveTime = 0;
    DbData& store = MakeStore(c);
    QueueRecords(store, 1, 2);
    SaveAt(store, 50000);
    EXPECT_EQ(2u, store.m_listInsertCmd.size());
    EXPECT_EQ(0, RowCount(CatalogPath(store)));
    EXPECT_EQ(0, store.m_bNeedSplitCheck);
}

TEST_F(SaveCycleTest, StoreWithoutBufferShowsNoMessageForMissingLocation) {
    testutil::TempDir card;
    DbData& store = CardStore(card, false, 0);
    QueueRecords(store, 1, 2);
    const unsigned long long base = FreshTickBase();
    SaveAt(store, base);
    EXPECT_TRUE(PlatformSim::TakeMessages().empty());
    EXPECT_EQ(0, store.HasSaveDir());
    EXPECT_EQ(base, store.m_nLastSaveTick);
    EXPECT_EQ(2u, store.m_listInsertCmd.size());  // no file to write into
    EXPECT_EQ(0, store.m_bNeedSplitCheck);
}

// --- Missing save location ------------------------------------------------------------------

TEST_F(SaveCycleTest, MissingLocationMessageIsShownAtMostOncePer15Seconds) {
    testutil::TempDir card;
    DbData& store = CardStore(card, false);
    QueueRecords(store, 1, 3);
    const unsigned long long base = FreshTickBase();

    SaveAt(store, base);  // message, and no insert runs in this cycle
    EXPECT_EQ(Messages(1), PlatformSim::TakeMessages());
    EXPECT_EQ(3u, store.m_listInsertCmd.size());
    EXPECT_EQ(0, MemRowCount(store));
    EXPECT_EQ(0, store.HasSaveDir());

    SaveAt(store, base + 5000);  // no message: the inserts run into the buffer
    EXPECT_TRUE(PlatformSim::TakeMessages().empty());
    EXPECT_TRUE(store.m_listInsertCmd.empty());
    EXPECT_EQ(3, MemRowCount(store));  // the due flush had no file to attach

    QueueRecords(store, 4, 5);
    SaveAt(store, base + 16000);  // 16 s after the message: shown again
    EXPECT_EQ(Messages(1), PlatformSim::TakeMessages());
    EXPECT_EQ(2u, store.m_listInsertCmd.size());

    // The card comes: the directory and a first file are made, everything is flushed.
    std::filesystem::create_directory(card.path() + "mount");
    SaveAt(store, base + 17001);
    EXPECT_TRUE(PlatformSim::TakeMessages().empty());
    EXPECT_EQ(1, store.HasSaveDir());
    const std::string path = card.path() + "mount/card/rec_0.db";
    EXPECT_EQ((std::vector<unsigned long long>{1, 2, 3, 4, 5}), FileIds(path));
    DBInfoRow info = ReadDBInfo(path);
    EXPECT_EQ(1u, info.minID);
    EXPECT_EQ(5u, info.maxID);
    EXPECT_EQ(0, MemRowCount(store));
}

TEST_F(SaveCycleTest, MessageNeedsMoreThan14999MillisecondsSinceTheLast) {
    testutil::TempDir card;
    DbData& store = CardStore(card, false);
    const unsigned long long base = FreshTickBase();
    SaveAt(store, base);
    EXPECT_EQ(Messages(1), PlatformSim::TakeMessages());
    SaveAt(store, base + 14999);
    EXPECT_TRUE(PlatformSim::TakeMessages().empty());
    SaveAt(store, base + 15000);
    EXPECT_EQ(Messages(1), PlatformSim::TakeMessages());
}

TEST_F(SaveCycleTest, TwoStoresMissingTheirLocationInOneCyclePostOneMessage) {
    testutil::TempDir card;
    CHmiMedia::SetSDPath(card.path() + "absent/");
    std::vector<DbData*> stores;
    for (const char* sub : {"one", "two"}) {
        testutil::Conf& c = NewConf(sub);
        c.dirName = sub;
        c.conf.nStorePattern = 1;
        c.conf.bClearOnReload = 0;
        stores.push_back(&RegisterStore(c));
        QueueRecords(*stores.back(), 1, 2);
    }
    const unsigned long long base = FreshTickBase();
    PlatformSim::SetTickCount(base);
    Sqlite3DB::Save();
    EXPECT_EQ(Messages(1), PlatformSim::TakeMessages());
    EXPECT_EQ(2u, stores[0]->m_listInsertCmd.size());  // the first posted and ran nothing
    EXPECT_TRUE(stores[1]->m_listInsertCmd.empty());   // the second carried on
    EXPECT_EQ(2, MemRowCount(*stores[1]));

    PlatformSim::SetTickCount(base + 20000);
    Sqlite3DB::Save();
    EXPECT_EQ(Messages(1), PlatformSim::TakeMessages());
    EXPECT_EQ(2u, stores[0]->m_listInsertCmd.size());
}

// --- FlushDB, AttachDbDB, DetachDbDB ----------------------------------------------------------

TEST_F(SaveCycleTest, AttachAndDetachTheCurrentFileAsFiledb) {
    DbData& store = BufferedStore();
    EXPECT_EQ(1, store.AttachDbDB());
    EXPECT_EQ(1, store.m_bAttach);
    CBBSQL::CppSQLite3Table table = store.m_pMemDB->getTable("select count(*) from filedb.DBInfo");
    table.setRow(0);
    EXPECT_EQ(1, table.getIntField(0));
    EXPECT_EQ(1, store.DetachDbDB());
    EXPECT_EQ(0, store.m_bAttach);
    EXPECT_THROW(store.m_pMemDB->getTable("select count(*) from filedb.DBInfo"),
                 CBBSQL::CppSQLite3Exception);
    EXPECT_TRUE(TakeLogs().empty());
}

TEST_F(SaveCycleTest, AttachRefusesWithoutFilesBufferOrCurrentFile) {
    DbData& store = BufferedStore();
    store.m_bSaveFile = 0;
    EXPECT_EQ(0, store.AttachDbDB());
    store.m_bSaveFile = 1;
    store.m_bUseMemDB = 0;
    EXPECT_EQ(0, store.AttachDbDB());
    EXPECT_EQ(0, store.DetachDbDB());
    store.m_bUseMemDB = 1;
    store.ClearFileList();
    EXPECT_EQ(0, store.AttachDbDB());
    EXPECT_EQ(0, store.m_bAttach);
    EXPECT_TRUE(TakeLogs().empty());

    testutil::Conf& c = NewConf("nobuffer");
    c.conf.bUseMemDB = 0;
    DbData& unbuffered = MakeStore(c);
    EXPECT_EQ(0, unbuffered.AttachDbDB());
    EXPECT_EQ(0, unbuffered.DetachDbDB());
    EXPECT_EQ(1, unbuffered.FlushDB());  // nothing to do counts as success
}

TEST_F(SaveCycleTest, AttachWhileAttachedLogsAndKeepsTheFlag) {
    DbData& store = BufferedStore();
    ASSERT_EQ(1, store.AttachDbDB());
    EXPECT_EQ(0, store.AttachDbDB());
    EXPECT_EQ(
        std::vector<std::string>{
            "DbDataRunSql.cpp:  [DB]AttachDbDB:database filedb is already in use\r\n"},
        TakeLogs());
    EXPECT_EQ(1, store.m_bAttach);
    EXPECT_EQ(1, store.DetachDbDB());
}

TEST_F(SaveCycleTest, FailedDetachLogsAndKeepsTheFlag) {
    DbData& store = BufferedStore();
    ASSERT_EQ(1, store.AttachDbDB());
    store.m_pMemDB->execDML("DETACH DATABASE filedb");
    EXPECT_EQ(0, store.DetachDbDB());
    EXPECT_EQ(
        std::vector<std::string>{"DbDataRunSql.cpp:  [DB]DetachDbDB:no such database: filedb\r\n"},
        TakeLogs());
    EXPECT_EQ(1, store.m_bAttach);
}

TEST_F(SaveCycleTest, FlushWithoutFileToAttachSucceedsAndKeepsRowsBuffered) {
    DbData& store = BufferedStore(0);
    QueueRecords(store, 1, 3);
    SaveAt(store, 50000);
    store.m_strSavePath.clear();
    EXPECT_EQ(1, store.FlushDB());
    EXPECT_EQ(3, MemRowCount(store));
    EXPECT_EQ(0u, CatalogEntry(store).GetEndID());
}

TEST_F(SaveCycleTest, FailedCopyKeepsRowsBufferedAfterTheRangeWasWritten) {
    DbData& store = BufferedStore(0);
    QueueRecords(store, 1, 3);
    SaveAt(store, 50000);
    const std::string path = CatalogPath(store);
    testutil::RawExec(path, "drop table rec; create table rec (id INTEGER PRIMARY KEY)");
    PlatformSim::TakeLogLines();

    EXPECT_EQ(0, store.FlushDB());
    EXPECT_EQ(std::vector<std::string>{"DbDataRunSql.cpp:  [DB]FlushDB:table filedb.rec has 1 "
                                       "columns but 3 values were supplied\r\n"},
              TakeLogs());
    EXPECT_EQ(0, store.m_bAttach);
    EXPECT_EQ(3, MemRowCount(store));
    EXPECT_EQ(0, RowCount(path));
    // Catalog, DBInfo and memory range moved before the copy was tried.
    EXPECT_EQ(3u, CatalogEntry(store).GetEndID());
    DBInfoRow info = ReadDBInfo(path);
    EXPECT_EQ(1u, info.minID);
    EXPECT_EQ(3u, info.maxID);
    EXPECT_EQ(3u, store.m_nMemMinID);

    // Once the file takes the rows again, the next flush copies them.
    testutil::RawExec(path, "drop table rec; " + std::string(testutil::Conf().createSql));
    EXPECT_EQ(1, store.FlushDB());
    EXPECT_EQ((std::vector<unsigned long long>{1, 2, 3}), FileIds(path));
    EXPECT_EQ(0, MemRowCount(store));
}

TEST_F(SaveCycleTest, FailedDetachInAFlushLetsTheNextFlushProceedThroughTheOpenAttach) {
    DbData& store = BufferedStore(1000);
    QueueRecords(store, 1, 3);
    SaveAt(store, 50000);
    const std::string path = CatalogPath(store);
    ASSERT_EQ(3, RowCount(path));

    // A failing batch leaves a transaction open on the buffer ...
    std::list<std::string> batch{"update rec set nosuch = 1"};
    store.ExecDML(0, batch);
    QueueRecords(store, 4, 6);
    PlatformSim::TakeLogLines();
    SaveAt(store, 51001);  // ... so the inserts cannot begin and the detach fails
    std::vector<std::string> logs = TakeLogs();
    ASSERT_EQ(2u, logs.size());
    EXPECT_EQ(":  [DB]Save:cannot start a transaction within a transaction\r\n",
              logs[0].substr(logs[0].find(':')));
    EXPECT_EQ("DbDataRunSql.cpp:  [DB]DetachDbDB:database filedb is locked\r\n", logs[1]);
    EXPECT_EQ(1, store.m_bAttach);
    EXPECT_EQ(3u, store.m_listInsertCmd.size());

    EXPECT_EQ(1, store.ExecDML(0, "commit"));
    SaveAt(store, 52002);
    EXPECT_EQ(
        std::vector<std::string>{
            "DbDataRunSql.cpp:  [DB]AttachDbDB:database filedb is already in use\r\n"},
        TakeLogs());
    EXPECT_EQ((std::vector<unsigned long long>{1, 2, 3, 4, 5, 6}), FileIds(path));
    EXPECT_EQ(0, MemRowCount(store));
    EXPECT_EQ(0, store.m_bAttach);
    EXPECT_EQ(6u, ReadDBInfo(path).maxID);
}
