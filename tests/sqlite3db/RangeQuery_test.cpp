// Range queries across files: Select_ID, Select_Time and the source loop
// Select_FileVecToVecTable (sources in list order under m_mutexSave, files
// opened without creation, the row limit tested after each whole source,
// partial results kept after an engine error), the bounds accessors, and the
// same reads through the handle on a store built by the real save cycle.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QueryStoreFixture.h"
#include "Sqlite3DB/Sqlite3DB.h"
#include "TestUtil.h"

namespace {

using CBBSQL::CppSQLite3Table;
using querytest::Column0;
using querytest::TimeOf;
using Ids = std::vector<long long>;
using IdTables = std::vector<std::vector<long long>>;

Ids Range(long long first, long long last) {
    Ids ids;
    for (long long id = first; id <= last; ++id) {
        ids.push_back(id);
    }
    return ids;
}

// Three files of eight rows (IDs 1-8, 9-16, 17-24) and eight buffered rows
// (25-32), built white-box.
class RangeQueryTest : public querytest::StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        BuildThreeFilesAndBuffer();
    }

    _tagDBSqlSelectCmdInfo Request(int type, unsigned long long start, unsigned long long end,
                                   int maxRecord, int order) {
        _tagDBSqlSelectCmdInfo info{};
        info.pSql = &m_sql;
        info.nSelectType = type;
        if (type == 1) {
            info.nStartID = start;
            info.nEndID = end;
        } else {
            info.nStartTime = start;
            info.nEndTime = end;
        }
        info.nMaxRecord = maxRecord;
        info.nOrder = order;
        return info;
    }

    int ById(unsigned long long start, unsigned long long end, int maxRecord, int order) {
        return m_store.Select_ID(Request(1, start, end, maxRecord, order), m_tables);
    }

    int ByTime(unsigned long long start, unsigned long long end, int maxRecord, int order) {
        return m_store.Select_Time(Request(2, start, end, maxRecord, order), m_tables);
    }

    std::string m_sql = "select id from rec order by id";
    std::vector<CppSQLite3Table> m_tables;
};

TEST_F(RangeQueryTest, IdRangeInOneFileRunsTheUnchangedSqlOnThatFileOnly) {
    EXPECT_EQ(1, ById(10, 12, 0, 1));
    // The range only picks the file; the SQL, without a WHERE, returns all of it.
    EXPECT_EQ(IdTables({Range(9, 16)}), Column0(m_tables));
}

TEST_F(RangeQueryTest, CallersWhereClauseRestrictsTheRows) {
    m_sql = "select id from rec where id between 10 and 12 order by id";
    EXPECT_EQ(1, ById(10, 12, 0, 0));
    EXPECT_EQ(IdTables({{10, 11, 12}}), Column0(m_tables));
}

TEST_F(RangeQueryTest, IdRangeOverSeveralFilesOldestFirst) {
    EXPECT_EQ(1, ById(5, 20, 0, 1));
    EXPECT_EQ(IdTables({Range(1, 8), Range(9, 16), Range(17, 24)}), Column0(m_tables));
}

TEST_F(RangeQueryTest, IdRangeOverSeveralFilesNewestFirst) {
    EXPECT_EQ(1, ById(5, 20, 0, 0));
    EXPECT_EQ(IdTables({Range(17, 24), Range(9, 16), Range(1, 8)}), Column0(m_tables));
}

TEST_F(RangeQueryTest, OpenRangeVisitsFilesThenBufferOldestFirst) {
    EXPECT_EQ(1, ById(0, 0, 0, 1));
    EXPECT_EQ(IdTables({Range(1, 8), Range(9, 16), Range(17, 24), Range(25, 32)}),
              Column0(m_tables));
}

TEST_F(RangeQueryTest, OpenRangeVisitsBufferThenFilesNewestFirst) {
    EXPECT_EQ(1, ById(0, 0, 0, 0));
    EXPECT_EQ(IdTables({Range(25, 32), Range(17, 24), Range(9, 16), Range(1, 8)}),
              Column0(m_tables));
}

TEST_F(RangeQueryTest, IdRangeOnlyInTheBufferReadsTheBuffer) {
    EXPECT_EQ(1, ById(30, 40, 0, 1));
    EXPECT_EQ(IdTables({Range(25, 32)}), Column0(m_tables));
}

TEST_F(RangeQueryTest, IdRangeThatNothingOverlapsReturnsZeroAndLeavesTheVectorAlone) {
    ASSERT_EQ(1, ById(1, 1, 0, 1));
    ASSERT_EQ(1u, m_tables.size());
    EXPECT_EQ(0, ById(100, 200, 0, 1));
    EXPECT_EQ(IdTables({Range(1, 8)}), Column0(m_tables));
}

TEST_F(RangeQueryTest, SqlMatchingNoRowsReturnsZeroAlthoughSourcesWereAsked) {
    m_sql = "select id from rec where id > 1000";
    EXPECT_EQ(0, ById(0, 0, 0, 1));
    EXPECT_TRUE(m_tables.empty());
}

TEST_F(RangeQueryTest, EmptySourcesAreNotAppended) {
    m_sql = "select id from rec where id in (3, 30) order by id";
    EXPECT_EQ(1, ById(0, 0, 0, 1));
    EXPECT_EQ(IdTables({{3}, {30}}), Column0(m_tables));
}

TEST_F(RangeQueryTest, TablesAlreadyInTheVectorStayInFront) {
    m_tables.push_back(m_store.m_pMemDB->getTable("select 99"));
    EXPECT_EQ(1, ById(10, 12, 0, 1));
    EXPECT_EQ(IdTables({{99}, Range(9, 16)}), Column0(m_tables));
}

TEST_F(RangeQueryTest, TimeRangeInOneFile) {
    EXPECT_EQ(1, ByTime(TimeOf(10), TimeOf(12), 0, 1));
    EXPECT_EQ(IdTables({Range(9, 16)}), Column0(m_tables));
}

TEST_F(RangeQueryTest, TimeRangeOverFilesAndBufferInBothOrders) {
    EXPECT_EQ(1, ByTime(TimeOf(20), TimeOf(26), 0, 1));
    EXPECT_EQ(IdTables({Range(17, 24), Range(25, 32)}), Column0(m_tables));
    m_tables.clear();
    EXPECT_EQ(1, ByTime(TimeOf(20), TimeOf(26), 0, 0));
    EXPECT_EQ(IdTables({Range(25, 32), Range(17, 24)}), Column0(m_tables));
}

TEST_F(RangeQueryTest, TimeRangeThatNothingOverlapsReturnsZero) {
    EXPECT_EQ(0, ByTime(1, 500, 0, 1));
    EXPECT_TRUE(m_tables.empty());
}

// --- Row limit ----------------------------------------------------------------

TEST_F(RangeQueryTest, LimitIsTestedAfterEachWholeSource) {
    // Sources of 8, 8 and 8 rows, newest first: 8 < 10, then 16 >= 10.
    m_store.m_nMemStartTime = 0;  // the buffer reports nothing
    EXPECT_EQ(1, ById(0, 0, 10, 0));
    EXPECT_EQ(IdTables({Range(17, 24), Range(9, 16)}), Column0(m_tables));
}

TEST_F(RangeQueryTest, LimitReachedExactlyStopsAtThatSource) {
    EXPECT_EQ(1, ById(0, 0, 16, 1));
    EXPECT_EQ(IdTables({Range(1, 8), Range(9, 16)}), Column0(m_tables));
}

TEST_F(RangeQueryTest, LimitZeroAsksEverySource) {
    m_sql = "select id from rec where id % 8 = 0";
    EXPECT_EQ(1, ById(0, 0, 0, 0));
    EXPECT_EQ(IdTables({{32}, {24}, {16}, {8}}), Column0(m_tables));
}

TEST_F(RangeQueryTest, LimitAboveEveryRowAsksEverySource) {
    EXPECT_EQ(1, ById(0, 0, 1000, 1));
    EXPECT_EQ(4u, m_tables.size());
}

TEST_F(RangeQueryTest, NegativeLimitReturnsOnlyTheFirstSource) {
    EXPECT_EQ(1, ById(0, 0, -1, 0));
    EXPECT_EQ(IdTables({Range(25, 32)}), Column0(m_tables));
}

TEST_F(RangeQueryTest, NegativeLimitStopsAfterTheFirstSourceEvenWhenItGaveNoRows) {
    m_sql = "select id from rec where id > 8";
    EXPECT_EQ(0, ById(0, 0, -1, 1));
    EXPECT_TRUE(m_tables.empty());
}

// --- Files missing from disk ---------------------------------------------------

TEST_F(RangeQueryTest, DeletedCatalogedFileIsSkippedAndNotRecreated) {
    const std::string gone = FilePath(1);
    testutil::RemoveTree(gone);
    EXPECT_EQ(1, ById(0, 0, 0, 1));
    EXPECT_EQ(IdTables({Range(1, 8), Range(17, 24), Range(25, 32)}), Column0(m_tables));
    EXPECT_FALSE(testutil::FileExists(gone));
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(RangeQueryTest, SkippedFileDoesNotCountAgainstTheLimit) {
    const std::string gone = FilePath(0);
    testutil::RemoveTree(gone);
    EXPECT_EQ(1, ById(0, 0, -1, 1));
    EXPECT_EQ(IdTables({Range(9, 16)}), Column0(m_tables));
    EXPECT_FALSE(testutil::FileExists(gone));
}

TEST_F(RangeQueryTest, OnlySourceDeletedGivesZero) {
    const std::string gone = FilePath(1);
    testutil::RemoveTree(gone);
    EXPECT_EQ(0, ById(10, 12, 0, 1));
    EXPECT_TRUE(m_tables.empty());
    EXPECT_FALSE(testutil::FileExists(gone));
}

// --- Engine errors and the lock -----------------------------------------------

TEST_F(RangeQueryTest, SyntaxErrorLogsTheEnginesMessageAndReleasesTheLock) {
    PlatformSim::TakeLogLines();
    m_sql = "selectx id from rec";
    EXPECT_EQ(0, ById(0, 0, 0, 1));
    EXPECT_TRUE(m_tables.empty());
    const std::vector<std::string> lines = PlatformSim::TakeLogLines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(0u, lines[0].find("[App ]: DbDataRunSql.cpp(")) << lines[0];
    const std::string tail = "):  [DB]near \"selectx\": syntax error\r\n";
    ASSERT_GE(lines[0].size(), tail.size());
    EXPECT_EQ(tail, lines[0].substr(lines[0].size() - tail.size())) << lines[0];
    ASSERT_EQ(1, m_store.m_mutexSave.TryLock(200));
    m_store.m_mutexSave.Unlock();
}

TEST_F(RangeQueryTest, EngineErrorKeepsTheTablesGatheredBeforeIt) {
    testutil::RawExec(FilePath(2), "drop table rec");
    PlatformSim::TakeLogLines();
    EXPECT_EQ(0, ById(0, 0, 0, 1));
    EXPECT_EQ(IdTables({Range(1, 8), Range(9, 16)}), Column0(m_tables));
    const std::vector<std::string> lines = PlatformSim::TakeLogLines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("):  [DB]no such table: rec\r\n")) << lines[0];
    ASSERT_EQ(1, m_store.m_mutexSave.TryLock(200));
    m_store.m_mutexSave.Unlock();
}

TEST_F(RangeQueryTest, SuccessfulQueryReleasesTheLock) {
    EXPECT_EQ(1, ById(0, 0, 0, 1));
    ASSERT_EQ(1, m_store.m_mutexSave.TryLock(200));
    m_store.m_mutexSave.Unlock();
}

TEST_F(RangeQueryTest, EmptySourceListReturnsZeroWithoutTakingTheLock) {
    int result = -1;
    EXPECT_TRUE(querytest::FinishesWhileLocked(m_store.m_mutexSave, [&] {
        result = m_store.Select_FileVecToVecTable(m_sql, {}, m_tables, 0);
    }));
    EXPECT_EQ(0, result);
    EXPECT_TRUE(m_tables.empty());
}

TEST_F(RangeQueryTest, QueryWaitsWhileASaveHoldsTheLock) {
    int result = -1;
    EXPECT_FALSE(
        querytest::FinishesWhileLocked(m_store.m_mutexSave, [&] { result = ById(10, 12, 0, 1); }));
    EXPECT_EQ(1, result);  // ran once the lock was released
    EXPECT_EQ(IdTables({Range(9, 16)}), Column0(m_tables));
}

TEST_F(RangeQueryTest, SourceLoopVisitsTheListAsGiven) {
    EXPECT_EQ(1, m_store.Select_FileVecToVecTable(m_sql, {2, -1, 0, 2}, m_tables, 0));
    EXPECT_EQ(IdTables({Range(17, 24), Range(25, 32), Range(1, 8), Range(17, 24)}),
              Column0(m_tables));
}

TEST_F(RangeQueryTest, ResultTablesAreIndependentOfLaterChanges) {
    EXPECT_EQ(1, ById(30, 40, 0, 1));
    m_store.m_pMemDB->execDML("delete from rec");
    EXPECT_EQ(IdTables({Range(25, 32)}), Column0(m_tables));
}

// --- Through the handle ---------------------------------------------------------

TEST_F(RangeQueryTest, HandleForwardsKindsOneAndTwoAndRefusesOthers) {
    Sqlite3DB handle;
    _tagDBSqlSelectCmdInfo info = Request(1, 10, 12, 0, 1);
    EXPECT_EQ(0, handle.SqlSelect(info, m_tables)) << "no store bound";
    handle.SetDbData(&m_store);
    EXPECT_EQ(1, handle.SqlSelect(info, m_tables));
    EXPECT_EQ(IdTables({Range(9, 16)}), Column0(m_tables));
    info = Request(2, TimeOf(30), TimeOf(30), 0, 1);
    EXPECT_EQ(1, handle.SqlSelect(info, m_tables));
    EXPECT_EQ(2u, m_tables.size());
    info.nSelectType = 3;
    EXPECT_EQ(0, handle.SqlSelect(info, m_tables));
    info.nSelectType = 0;
    EXPECT_EQ(0, handle.SqlSelect(info, m_tables));
    EXPECT_EQ(2u, m_tables.size());
}

// --- Bounds accessors -------------------------------------------------------------

TEST_F(RangeQueryTest, MaximaAskTheBufferFirst) {
    EXPECT_EQ(32u, m_store.GetDataMaxID());
    EXPECT_EQ(TimeOf(32), m_store.GetDataMaxTime());
    m_store.m_nMemMaxID = 0;
    m_store.m_nMemEndTime = 0;
    EXPECT_EQ(24u, m_store.GetDataMaxID());
    EXPECT_EQ(TimeOf(24), m_store.GetDataMaxTime());
}

TEST_F(RangeQueryTest, MaximaIgnoreTheBufferWhenBufferingIsOff) {
    m_store.m_bUseMemDB = 0;
    EXPECT_EQ(24u, m_store.GetDataMaxID());
    EXPECT_EQ(TimeOf(24), m_store.GetDataMaxTime());
}

TEST_F(RangeQueryTest, MinimaAskTheFilesFirst) {
    EXPECT_EQ(1u, m_store.GetDataMinID());
    EXPECT_EQ(TimeOf(1), m_store.GetDataMinTime());
}

TEST_F(RangeQueryTest, MinimaOfAFileStoreWithAnEmptyCatalogAreZeroDespiteBufferedRecords) {
    m_store.m_vecFileInfo.clear();
    EXPECT_EQ(0u, m_store.GetDataMinID());
    EXPECT_EQ(0u, m_store.GetDataMinTime());
    EXPECT_EQ(32u, m_store.GetDataMaxID());
    EXPECT_EQ(TimeOf(32), m_store.GetDataMaxTime());
}

TEST_F(RangeQueryTest, MinimaOfAStoreWithoutFilesComeFromTheBuffer) {
    m_store.m_bSaveFile = 0;
    EXPECT_EQ(25u, m_store.GetDataMinID());
    EXPECT_EQ(TimeOf(25), m_store.GetDataMinTime());
    m_store.m_nMemMinID = 0;
    m_store.m_nMemStartTime = 0;
    EXPECT_EQ(0u, m_store.GetDataMinID());
    m_store.m_bUseMemDB = 0;
    m_store.m_nMemMinID = 25;
    m_store.m_nMemStartTime = TimeOf(25);
    EXPECT_EQ(0u, m_store.GetDataMinID());
    EXPECT_EQ(0u, m_store.GetDataMinTime());
}

TEST_F(RangeQueryTest, BoundsOfAStoreWithNeitherFilesNorBufferedRecordsAreZero) {
    m_store.m_vecFileInfo.clear();
    m_store.m_nMemMinID = m_store.m_nMemMaxID = 0;
    m_store.m_nMemStartTime = m_store.m_nMemEndTime = 0;
    EXPECT_EQ(0u, m_store.GetDataMaxID());
    EXPECT_EQ(0u, m_store.GetDataMaxTime());
    EXPECT_EQ(0u, m_store.GetDataMinID());
    EXPECT_EQ(0u, m_store.GetDataMinTime());
}

TEST_F(RangeQueryTest, MaximaOfAStoreWithoutFilesComeOnlyFromTheBuffer) {
    m_store.m_bSaveFile = 0;
    m_store.m_nMemMaxID = 0;
    m_store.m_nMemEndTime = 0;
    EXPECT_EQ(0u, m_store.GetDataMaxID());
    EXPECT_EQ(0u, m_store.GetDataMaxTime());
}

// --- A store built by the real save cycle ---------------------------------------

class RangeQueryAfterSavesTest : public querytest::RegistryStoreAfterSavesTest {
protected:
    int Select(int type, unsigned long long start, unsigned long long end, int maxRecord,
               int order) {
        _tagDBSqlSelectCmdInfo info{};
        info.pSql = &m_sql;
        info.nSelectType = type;
        info.nStartID = type == 1 ? start : 0;
        info.nEndID = type == 1 ? end : 0;
        info.nStartTime = type == 2 ? start : 0;
        info.nEndTime = type == 2 ? end : 0;
        info.nMaxRecord = maxRecord;
        info.nOrder = order;
        return m_handle.SqlSelect(info, m_tables);
    }

    std::string m_sql = "select id from rec order by id";
    std::vector<CppSQLite3Table> m_tables;
};

TEST_F(RangeQueryAfterSavesTest, SaveCycleLeftThreeFilesAndBufferedRows) {
    const std::string dir = m_dir.path() + "sub/";
    EXPECT_EQ("1|8", querytest::RawJoined(dir + "rec_0.db", "select MinID, MaxID from DBInfo"));
    EXPECT_EQ("8|16", querytest::RawJoined(dir + "rec_1.db", "select MinID, MaxID from DBInfo"));
    EXPECT_EQ("16|20", querytest::RawJoined(dir + "rec_2.db", "select MinID, MaxID from DBInfo"));
    EXPECT_EQ("17,18,19,20", querytest::RawJoined(dir + "rec_2.db", "select id from rec"));
    EXPECT_EQ(20u, m_store->m_nMemMinID);
    EXPECT_EQ(23u, m_store->m_nMemMaxID);
}

TEST_F(RangeQueryAfterSavesTest, IdRangeInTheSecondFile) {
    m_sql = "select id from rec where id between 10 and 12 order by id";
    EXPECT_EQ(1, Select(1, 10, 12, 0, 1));
    EXPECT_EQ(IdTables({{10, 11, 12}}), Column0(m_tables));
}

TEST_F(RangeQueryAfterSavesTest, IdRangeOverSeveralFilesInBothOrders) {
    m_sql = "select id from rec where id between 5 and 18 order by id";
    EXPECT_EQ(1, Select(1, 5, 18, 0, 1));
    EXPECT_EQ(IdTables({Range(5, 8), Range(9, 16), {17, 18}}), Column0(m_tables));
    m_tables.clear();
    EXPECT_EQ(1, Select(1, 5, 18, 0, 0));
    EXPECT_EQ(IdTables({{17, 18}, Range(9, 16), Range(5, 8)}), Column0(m_tables));
}

TEST_F(RangeQueryAfterSavesTest, IdRangeOnlyInTheBuffer) {
    EXPECT_EQ(1, Select(1, 21, 23, 0, 1));
    EXPECT_EQ(IdTables({{21, 22, 23}}), Column0(m_tables));
}

TEST_F(RangeQueryAfterSavesTest, IdRangeBeyondEverythingFindsNothing) {
    EXPECT_EQ(0, Select(1, 24, 100, 0, 1));
    EXPECT_TRUE(m_tables.empty());
}

TEST_F(RangeQueryAfterSavesTest, TimeRangeOverTheLastFileAndTheBufferNewestFirst) {
    EXPECT_EQ(1, Select(2, TimeOf(19), TimeOf(22), 0, 0));
    EXPECT_EQ(IdTables({{21, 22, 23}, Range(17, 20)}), Column0(m_tables));
}

TEST_F(RangeQueryAfterSavesTest, LimitsGiveTheLatestOrEarliestRows) {
    EXPECT_EQ(1, Select(1, 0, 0, 5, 0));
    EXPECT_EQ(IdTables({{21, 22, 23}, Range(17, 20)}), Column0(m_tables));
    m_tables.clear();
    EXPECT_EQ(1, Select(1, 0, 0, 5, 1));
    EXPECT_EQ(IdTables({Range(1, 8)}), Column0(m_tables));
    m_tables.clear();
    EXPECT_EQ(1, Select(1, 0, 0, -1, 0));
    EXPECT_EQ(IdTables({{21, 22, 23}}), Column0(m_tables));
}

TEST_F(RangeQueryAfterSavesTest, DeletedFileIsSkippedAndTheOtherSourcesStillAnswer) {
    const std::string gone = m_dir.path() + "sub/rec_1.db";
    ASSERT_TRUE(testutil::FileExists(gone));
    testutil::RemoveTree(gone);
    EXPECT_EQ(1, Select(1, 0, 0, 0, 1));
    EXPECT_EQ(IdTables({Range(1, 8), Range(17, 20), {21, 22, 23}}), Column0(m_tables));
    EXPECT_FALSE(testutil::FileExists(gone));
}

TEST_F(RangeQueryAfterSavesTest, SyntaxErrorThroughTheHandle) {
    PlatformSim::TakeLogLines();
    m_sql = "select id fromm rec";
    EXPECT_EQ(0, Select(1, 0, 0, 0, 1));
    EXPECT_TRUE(m_tables.empty());
    EXPECT_TRUE(
        testutil::LogContains(PlatformSim::TakeLogLines(), "[DB]near \"rec\": syntax error"));
    ASSERT_EQ(1, m_store->m_mutexSave.TryLock(200));
    m_store->m_mutexSave.Unlock();
}

TEST_F(RangeQueryAfterSavesTest, BoundsThroughTheHandle) {
    EXPECT_EQ(23, m_handle.GetMaxID());
    EXPECT_EQ(1, m_handle.GetMinID());
    EXPECT_EQ(static_cast<long long>(TimeOf(23)), m_handle.GetMaxTime());
    EXPECT_EQ(static_cast<long long>(TimeOf(1)), m_handle.GetMinTime());
}

}  // namespace
