// File splitting: the end-of-cycle decision of SplitDBFile (strict size test in
// KiB, inclusive record-count test, gated by m_bNeedSplitCheck), the new file
// and the count limit applied by SplitAndCreatDBFile, the trim of a single
// file or of the memory buffer by the host's statement (SqlDelDbData), and the
// record count of the current file.
#include <filesystem>

#include "RollingStoreFixture.h"

using namespace rollingtest;

namespace {

const char kTrimSql[] = "delete from rec where id in (select id from rec order by id limit 100)";

}  // namespace

class SplitTest : public RollingStoreTest {
protected:
    // A splitting store with the given limits whose first save has reached the file.
    DbData& SplittingStore(int maxFileSize, int maxRecordNum, int maxFileNum = 0) {
        testutil::Conf& c = NewConf("s");
        c.conf.nMaxFileSize = maxFileSize;
        c.conf.nMaxRecordNum = maxRecordNum;
        c.conf.nMaxFileNum = maxFileNum;
        DbData& store = MakeStore(c);
        store.m_bNeedSplitCheck = 1;
        return store;
    }

    // A single-file store trimmed by kTrimSql with M = 1000 and N = 100.
    DbData& TrimmedStore(const std::string& trimSql = kTrimSql) {
        testutil::Conf& c = NewConf("s");
        c.conf.bSplitFile = 0;
        c.conf.nMaxRecordNum = 1000;
        c.conf.nDelRecordNum = 100;
        c.delSql = trimSql;
        DbData& store = MakeStore(c);
        store.m_bNeedSplitCheck = 1;
        return store;
    }

    // Grows the current file to exactly `bytes` bytes.
    void ResizeCurrentFile(DbData& store, unsigned long long bytes) {
        std::filesystem::resize_file(CatalogPath(store), bytes);
        ASSERT_EQ(bytes, std::filesystem::file_size(CatalogPath(store)));
    }

    // Gives the current catalog entry the ID range [start, end].
    void SetRange(DbData& store, unsigned long long start, unsigned long long end) {
        CatalogEntry(store).SetStartID(start);
        CatalogEntry(store).SetEndID(end);
    }

    // Writes records first..last straight into the store's current file.
    void FillCurrentFile(DbData& store, unsigned long long first, unsigned long long last) {
        std::string sql = "begin;";
        for (unsigned long long id = first; id <= last; ++id) {
            sql += InsertSql(id) + ";";
        }
        testutil::RawExec(CatalogPath(store), sql + "commit;");
    }
};

// --- Size limit ----------------------------------------------------------------------

TEST_F(SplitTest, FileOfExactlyTheSizeLimitDoesNotSplit) {
    DbData& store = SplittingStore(100, 0);
    ResizeCurrentFile(store, 102400);
    store.SplitDBFile();
    EXPECT_EQ(FileNames({0}), CatalogNames(store));
}

TEST_F(SplitTest, FileOneByteShortOfNextKiBDoesNotSplit) {
    DbData& store = SplittingStore(100, 0);
    ResizeCurrentFile(store, 103423);
    store.SplitDBFile();
    EXPECT_EQ(FileNames({0}), CatalogNames(store));
}

TEST_F(SplitTest, FileOneKiBOverTheSizeLimitSplits) {
    DbData& store = SplittingStore(100, 0);
    ResizeCurrentFile(store, 103424);
    PlatformSim::SetTimeStamp(kCreationTime + 77);
    store.SplitDBFile();
    EXPECT_EQ(FileNames({0, 1}), CatalogNames(store));
    EXPECT_EQ(FileNames({0, 1}), DbFilesOnDisk(SaveDir("s")));

    // The new file is current and empty: count 0, both IDs 0, DBInfo to match.
    EXPECT_EQ(0u, store.GetNowDBFileRecordNum());
    EXPECT_EQ(0u, CatalogEntry(store).GetStartID());
    EXPECT_EQ(0u, CatalogEntry(store).GetEndID());
    DBInfoRow info = ReadDBInfo(SaveDir("s") + "rec_1.db");
    EXPECT_EQ(1u, info.rows);
    EXPECT_EQ(0u, info.maxID);
    EXPECT_EQ(0u, info.minID);
    EXPECT_EQ(kCreationTime + 77, info.startTime);
    EXPECT_EQ(kCreationTime + 77, info.endTime);
}

TEST_F(SplitTest, SizeLimitIsCheckedBeforeTheRecordCount) {
    DbData& store = SplittingStore(100, 1000);
    ResizeCurrentFile(store, 200 * 1024);
    SetRange(store, 1, 5000);
    store.SplitDBFile();
    EXPECT_EQ(2u, store.GetNowFileNum());  // one new file per cycle, whatever the reasons
}

// --- Record-count limit ----------------------------------------------------------------

TEST_F(SplitTest, RecordCountOneBelowLimitDoesNotSplit) {
    DbData& store = SplittingStore(0, 1000);
    SetRange(store, 5, 1004);  // EndID - StartID = 999
    store.SplitDBFile();
    EXPECT_EQ(FileNames({0}), CatalogNames(store));
}

TEST_F(SplitTest, RecordCountEqualToLimitSplits) {
    DbData& store = SplittingStore(0, 1000);
    SetRange(store, 5, 1005);  // EndID - StartID = 1000
    store.SplitDBFile();
    EXPECT_EQ(FileNames({0, 1}), CatalogNames(store));
    EXPECT_EQ(0u, store.GetNowDBFileRecordNum());
    // The old file keeps its range in the catalog.
    EXPECT_EQ(5u, CatalogEntry(store, 0).GetStartID());
    EXPECT_EQ(1005u, CatalogEntry(store, 0).GetEndID());
}

TEST_F(SplitTest, NothingHappensBeforeTheFirstSaveReachedTheFile) {
    DbData& store = SplittingStore(100, 1000);
    store.m_bNeedSplitCheck = 0;
    ResizeCurrentFile(store, 1024 * 1024);
    SetRange(store, 1, 100000);
    store.SplitDBFile();
    EXPECT_EQ(FileNames({0}), CatalogNames(store));
}

TEST_F(SplitTest, BothLimitsZeroNeverSplit) {
    DbData& store = SplittingStore(0, 0);
    ResizeCurrentFile(store, 4 * 1024 * 1024);
    SetRange(store, 1, 10000000);
    store.SplitDBFile();
    store.SplitDBFile();
    EXPECT_EQ(FileNames({0}), CatalogNames(store));
}

TEST_F(SplitTest, SplitSetsNoFlagAndChecksAgainNextTime) {
    DbData& store = SplittingStore(0, 10);
    SetRange(store, 0, 10);
    store.SplitDBFile();
    EXPECT_EQ(1, store.m_bNeedSplitCheck);  // never cleared
    SetRange(store, 10, 20);
    store.SplitDBFile();
    EXPECT_EQ(FileNames({0, 1, 2}), CatalogNames(store));
}

TEST_F(SplitTest, SplitAppliesTheFileCountLimit) {
    DbData& store = SplittingStore(0, 10, 2);
    ASSERT_EQ(1, store.CreateFileDB());  // files 0 and 1: at the limit
    SetRange(store, 0, 10);
    store.SplitDBFile();
    EXPECT_EQ(FileNames({1, 2}), CatalogNames(store));
    EXPECT_EQ(FileNames({1, 2}), DbFilesOnDisk(SaveDir("s")));
}

TEST_F(SplitTest, SplitThatCannotCreateTheFileStillAppliesTheCountLimit) {
    DbData& store = SplittingStore(0, 10, 2);
    ASSERT_EQ(1, store.CreateFileDB());
    ASSERT_EQ(1, store.CreateFileDB());  // files 0, 1, 2: one over the limit
    // The next file's name is taken by a directory, so its creation fails.
    std::filesystem::create_directory(SaveDir("s") + "rec_3.db");
    PlatformSim::TakeLogLines();

    store.SplitAndCreatDBFile();
    EXPECT_EQ(FileNames({1, 2}), CatalogNames(store));
    EXPECT_FALSE(testutil::FileExists(SaveDir("s") + "rec_0.db"));
    std::vector<std::string> logs = TakeLogs();
    ASSERT_EQ(1u, logs.size());
    EXPECT_EQ(0u, logs[0].find("DbData.cpp:  [DB]CreateFileDB:")) << logs[0];
}

TEST_F(SplitTest, StoreWithoutFilesOnlyAppliesTheCountLimit) {
    DbData& store = SplittingStore(0, 10, 2);
    ASSERT_EQ(1, store.CreateFileDB());
    ASSERT_EQ(1, store.CreateFileDB());
    store.m_bSaveFile = 0;
    store.SplitAndCreatDBFile();
    EXPECT_EQ(FileNames({1, 2}), CatalogNames(store));
    EXPECT_EQ(FileNames({1, 2}), DbFilesOnDisk(SaveDir("s")));
}

// --- Record count ----------------------------------------------------------------------

TEST_F(SplitTest, RecordCountIsEndMinusStartWithoutPlusOne) {
    DbData& store = SplittingStore(0, 0);
    SetRange(store, 10, 19);
    EXPECT_EQ(9u, store.GetNowDBFileRecordNum());
    SetRange(store, 0x100000000ULL, 0x300000005ULL);
    EXPECT_EQ(0x200000005ULL, store.GetNowDBFileRecordNum());
    store.ClearFileList();
    EXPECT_EQ(0u, store.GetNowDBFileRecordNum());
}

// --- Trimming a single file -------------------------------------------------------------

TEST_F(SplitTest, SingleFileIsNotTrimmedAtMPlusNRecords) {
    DbData& store = TrimmedStore();
    FillCurrentFile(store, 1, 1101);
    SetRange(store, 1, 1101);  // count 1100
    store.SplitDBFile();
    EXPECT_EQ(1101, RowCount(CatalogPath(store)));
    EXPECT_EQ(1u, CatalogEntry(store).GetStartID());
    EXPECT_EQ(FileNames({0}), CatalogNames(store));
}

TEST_F(SplitTest, SingleFileOverMPlusNIsTrimmedOnceByN) {
    DbData& store = TrimmedStore();
    FillCurrentFile(store, 1, 1102);
    SetRange(store, 1, 1102);  // count 1101
    store.SplitDBFile();

    const std::string path = CatalogPath(store);
    EXPECT_EQ(1002, RowCount(path));
    EXPECT_EQ("101", testutil::RawValue(path, "select min(id) from rec"));
    EXPECT_EQ(101u, CatalogEntry(store).GetStartID());
    EXPECT_EQ(1102u, CatalogEntry(store).GetEndID());
    DBInfoRow info = ReadDBInfo(path);
    EXPECT_EQ(1u, info.rows);
    EXPECT_EQ(101u, info.minID);
    EXPECT_EQ(1102u, info.maxID);
    EXPECT_EQ(FileNames({0}), CatalogNames(store));

    store.SplitDBFile();  // count 1001: nothing more
    EXPECT_EQ(1002, RowCount(path));
    EXPECT_EQ(101u, CatalogEntry(store).GetStartID());
}

TEST_F(SplitTest, TrimAssumesNRecordsWentWhateverTheStatementDeleted) {
    DbData& store = TrimmedStore("delete from rec where id = 1");
    FillCurrentFile(store, 1, 1102);
    SetRange(store, 1, 1102);
    store.SplitDBFile();
    EXPECT_EQ(1101, RowCount(CatalogPath(store)));
    EXPECT_EQ(101u, CatalogEntry(store).GetStartID());
}

TEST_F(SplitTest, FailingTrimKeepsStartIDAndLogsOncePerCycle) {
    DbData& store = TrimmedStore("delete from nosuch where id < 100");
    SetRange(store, 1, 1102);
    PlatformSim::TakeLogLines();

    store.SplitDBFile();
    EXPECT_EQ(std::vector<std::string>{"DbData.cpp:  [DB]SqlDelDbData:no such table: nosuch\r\n"},
              TakeLogs());
    EXPECT_EQ(1u, CatalogEntry(store).GetStartID());

    store.SplitDBFile();  // tried again on the next cycle
    EXPECT_EQ(std::vector<std::string>{"DbData.cpp:  [DB]SqlDelDbData:no such table: nosuch\r\n"},
              TakeLogs());
    EXPECT_EQ(1u, CatalogEntry(store).GetStartID());
    EXPECT_EQ(0u, ReadDBInfo(CatalogPath(store)).minID);
}

TEST_F(SplitTest, ZeroTrimCountNeverTrims) {
    DbData& store = TrimmedStore();
    store.m_nDelRecordNum = 0;
    FillCurrentFile(store, 1, 1200);
    SetRange(store, 1, 1200);
    store.SplitDBFile();
    EXPECT_EQ(1200, RowCount(CatalogPath(store)));
    EXPECT_EQ(1u, CatalogEntry(store).GetStartID());
}

// --- Trimming the memory buffer -----------------------------------------------------------

TEST_F(SplitTest, BufferOfStoreWithoutFilesIsTrimmedAndFirstIDMovesByN) {
    testutil::Conf& c = NewConf("s");
    c.conf.bSplitFile = 0;
    c.conf.bSaveFile = 0;
    c.conf.nMaxRecordNum = 1000;
    c.conf.nDelRecordNum = 100;
    c.delSql = kTrimSql;
    DbData& store = MakeStore(c);
    store.m_bNeedSplitCheck = 1;
    store.m_pMemDB->execDML("begin");
    for (unsigned long long id = 1; id <= 1102; ++id) {
        store.m_pMemDB->execDML(InsertSql(id).c_str());
    }
    store.m_pMemDB->execDML("commit");

    store.m_nMemMinID = 1;
    store.m_nMemMaxID = 1101;  // count 1100: no trim
    store.SplitDBFile();
    EXPECT_EQ(1102, MemRowCount(store));
    EXPECT_EQ(1u, store.m_nMemMinID);

    store.m_nMemMaxID = 1102;  // count 1101
    store.SplitDBFile();
    EXPECT_EQ(1002, MemRowCount(store));
    EXPECT_EQ(101u, store.m_nMemMinID);
    EXPECT_EQ(1102u, store.m_nMemMaxID);
}

TEST_F(SplitTest, StoreWithNeitherFilesNorBufferNeverTrims) {
    DbData& store = TrimmedStore();
    FillCurrentFile(store, 1, 1200);
    SetRange(store, 1, 1200);
    store.m_nMemMinID = 1;
    store.m_nMemMaxID = 5000;
    store.m_bSaveFile = 0;
    store.m_bUseMemDB = 0;
    store.SqlDelDbData();
    EXPECT_EQ(1200, RowCount(CatalogPath(store)));
    EXPECT_EQ(1u, CatalogEntry(store).GetStartID());
    EXPECT_EQ(1u, store.m_nMemMinID);
    EXPECT_TRUE(TakeLogs().empty());
}

TEST_F(SplitTest, StoreKeepingFilesTrimsTheFileNotTheBuffer) {
    DbData& store = TrimmedStore();
    FillCurrentFile(store, 1, 1102);
    SetRange(store, 1, 1102);
    store.m_nMemMinID = 1;
    store.m_nMemMaxID = 5000;
    store.SqlDelDbData();
    EXPECT_EQ(1002, RowCount(CatalogPath(store)));
    EXPECT_EQ(1u, store.m_nMemMinID);
}
