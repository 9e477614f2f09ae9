// Attached-copy query and time-to-index lookup: kind-3 requests running the
// caller's statement on every source of a time range (result always 0, the
// stop flag, a source that changes no row ending the call with m_mutexSave
// still held), GetIndexIDfroTime (first column read as 32-bit signed and
// sign-extended, buffer first when newest first, vanished files created
// empty), and the buffer cursor of DbData::Select and the handle's SqlSelect.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QueryStoreFixture.h"
#include "Sqlite3DB/Sqlite3DB.h"
#include "TestUtil.h"

namespace {

using querytest::RawJoined;
using querytest::TimeOf;

// Three files (IDs 1-8 'file0', 9-16 'file1', 17-24 'file2') and buffered
// rows 25-32 'buffer'; times are TimeOf(id).
class AttachedCopyTest : public querytest::StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        BuildThreeFilesAndBuffer();
        PlatformSim::TakeLogLines();
    }

    _tagDBSqlSelectCmdInfo Request(unsigned long long start, unsigned long long end, int stop,
                                   int order) {
        _tagDBSqlSelectCmdInfo info{};
        info.pSql = &m_sql;
        info.nSelectType = 3;
        info.nStartTime = start;
        info.nEndTime = end;
        info.nMaxRecord = stop;
        info.nOrder = order;
        return info;
    }

    int Attach(unsigned long long start, unsigned long long end, int stop, int order) {
        return m_store.Select_Attach(Request(start, end, stop, order));
    }

    // Ids of catalog entry index marked by the statement.
    std::string Seen(int index) {
        return RawJoined(FilePath(index), "select id from rec where v = 'seen' order by id");
    }

    std::string BufferSeen() { return BufferIds("where v = 'seen'"); }

    void ExpectSaveLockFree() {
        ASSERT_EQ(1, m_store.m_mutexSave.TryLock(200));
        m_store.m_mutexSave.Unlock();
    }

    void ExpectSaveLockHeldThenRelease() {
        EXPECT_EQ(0, m_store.m_mutexSave.TryLock(200));
        m_store.m_mutexSave.Unlock();
    }

    static void ExpectDbLine(const std::string& line, const std::string& message) {
        EXPECT_EQ(0u, line.find("[App ]: DbDataRunSql.cpp(")) << line;
        const std::string tail = "):  [DB]" + message + "\r\n";
        ASSERT_GE(line.size(), tail.size()) << line;
        EXPECT_EQ(tail, line.substr(line.size() - tail.size())) << line;
    }

    std::string m_sql = "update rec set v = 'seen'";
};

// --- Select_Attach / Select_DbFileToDbFile -------------------------------------------

TEST_F(AttachedCopyTest, StatementCopiesEverySourceIntoAnAttachedDatabaseAndReturnsZero) {
    const std::string out = m_dir.path() + "copy.db";
    testutil::RawExec(out, "create table copy(id integer primary key, v text)");
    m_sql = "attach '" + out +
            "' as out; insert into out.copy select id, v from main.rec; detach database out";
    EXPECT_EQ(0, Attach(0, 0, 0, 1));
    EXPECT_EQ("file0|8,file1|8,file2|8,buffer|8",
              RawJoined(out, "select v, count(*) from copy group by v order by min(id)"));
    ExpectSaveLockFree();
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(AttachedCopyTest, TimeRangeChoosesTheSources) {
    EXPECT_EQ(0, Attach(TimeOf(10), TimeOf(20), 0, 1));
    EXPECT_EQ("", Seen(0));
    EXPECT_EQ("9,10,11,12,13,14,15,16", Seen(1));
    EXPECT_EQ("17,18,19,20,21,22,23,24", Seen(2));
    EXPECT_EQ("", BufferSeen());
    ExpectSaveLockFree();
}

TEST_F(AttachedCopyTest, NoOverlappingSourceReturnsZeroWithoutTakingTheLock) {
    int result = -1;
    EXPECT_TRUE(querytest::FinishesWhileLocked(m_store.m_mutexSave,
                                               [&] { result = Attach(1, 500, 0, 1); }));
    EXPECT_EQ(0, result);
    EXPECT_EQ("", Seen(0));
    ExpectSaveLockFree();
}

TEST_F(AttachedCopyTest, StopFlagZeroRunsOnEveryOverlappingSource) {
    EXPECT_EQ(0, Attach(0, 0, 0, 0));
    EXPECT_EQ("1,2,3,4,5,6,7,8", Seen(0));
    EXPECT_EQ("9,10,11,12,13,14,15,16", Seen(1));
    EXPECT_EQ("17,18,19,20,21,22,23,24", Seen(2));
    EXPECT_EQ("25,26,27,28,29,30,31,32", BufferSeen());
    ExpectSaveLockFree();
}

TEST_F(AttachedCopyTest, PositiveStopFlagAlsoRunsOnEveryOverlappingSource) {
    m_sql = "update rec set v = 'seen' where id % 8 = 0";
    EXPECT_EQ(0, Attach(0, 0, 1, 1));
    EXPECT_EQ("8", Seen(0));
    EXPECT_EQ("16", Seen(1));
    EXPECT_EQ("24", Seen(2));
    EXPECT_EQ("32", BufferSeen());
    ExpectSaveLockFree();
}

TEST_F(AttachedCopyTest, NegativeStopFlagRunsOnlyOnTheFirstSource) {
    EXPECT_EQ(0, Attach(0, 0, -1, 0));
    EXPECT_EQ("25,26,27,28,29,30,31,32", BufferSeen());
    EXPECT_EQ("", Seen(2));
    EXPECT_EQ("", Seen(1));
    EXPECT_EQ("", Seen(0));
    ExpectSaveLockFree();
}

TEST_F(AttachedCopyTest, NegativeStopFlagRunsOnTheFirstSourceThatOpens) {
    const std::string gone = FilePath(0);
    testutil::RemoveTree(gone);
    EXPECT_EQ(0, Attach(0, 0, -1, 1));
    EXPECT_FALSE(testutil::FileExists(gone)) << "never created";
    EXPECT_EQ("9,10,11,12,13,14,15,16", Seen(1));
    EXPECT_EQ("", Seen(2));
    EXPECT_EQ("", BufferSeen());
    ExpectSaveLockFree();
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(AttachedCopyTest, VanishedFileIsSkippedAndTheOthersStillRun) {
    const std::string gone = FilePath(1);
    testutil::RemoveTree(gone);
    EXPECT_EQ(0, Attach(0, 0, 0, 1));
    EXPECT_FALSE(testutil::FileExists(gone));
    EXPECT_EQ("1,2,3,4,5,6,7,8", Seen(0));
    EXPECT_EQ("17,18,19,20,21,22,23,24", Seen(2));
    EXPECT_EQ("25,26,27,28,29,30,31,32", BufferSeen());
    ExpectSaveLockFree();
}

TEST_F(AttachedCopyTest, FileWhereNoRowChangesEndsTheCallWithTheLockStillHeld) {
    m_sql = "update rec set v = 'seen' where id > 8";
    EXPECT_EQ(0, Attach(0, 0, 0, 1));
    ExpectSaveLockHeldThenRelease();
    EXPECT_EQ("", Seen(0));
    EXPECT_EQ("", Seen(1)) << "the sources after it are not run";
    EXPECT_EQ("", BufferSeen());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(AttachedCopyTest, BufferWhereNoRowChangesEndsTheCallWithTheLockStillHeld) {
    m_sql = "update rec set v = 'seen' where id < 25";
    EXPECT_EQ(0, Attach(0, 0, 0, 0));
    ExpectSaveLockHeldThenRelease();
    EXPECT_EQ("", Seen(2));
}

TEST_F(AttachedCopyTest, LaterFileWhereNoRowChangesStopsAfterTheEarlierOnes) {
    m_sql = "update rec set v = 'seen' where id < 12";
    EXPECT_EQ(0, Attach(0, 0, 0, 1));
    ExpectSaveLockHeldThenRelease();
    EXPECT_EQ("1,2,3,4,5,6,7,8", Seen(0));
    EXPECT_EQ("9,10,11", Seen(1));
    EXPECT_EQ("", BufferSeen());
}

TEST_F(AttachedCopyTest, EngineErrorIsLoggedAndReleasesTheLock) {
    m_sql = "updatex rec set v = 'seen'";
    EXPECT_EQ(0, Attach(0, 0, 0, 1));
    ExpectSaveLockFree();
    const std::vector<std::string> lines = PlatformSim::TakeLogLines();
    ASSERT_EQ(1u, lines.size());
    ExpectDbLine(lines[0], "near \"updatex\": syntax error");
}

TEST_F(AttachedCopyTest, EngineErrorOnALaterSourceKeepsWhatTheEarlierOnesDid) {
    testutil::RawExec(FilePath(1), "drop table rec");
    EXPECT_EQ(0, Attach(0, 0, 0, 1));
    ExpectSaveLockFree();
    EXPECT_EQ("1,2,3,4,5,6,7,8", Seen(0));
    EXPECT_EQ("", Seen(2));
    EXPECT_EQ("", BufferSeen());
    const std::vector<std::string> lines = PlatformSim::TakeLogLines();
    ASSERT_EQ(1u, lines.size());
    ExpectDbLine(lines[0], "no such table: rec");
}

TEST_F(AttachedCopyTest, SourceLoopVisitsTheListAsGiven) {
    m_sql = "update rec set v = v || '+'";
    EXPECT_EQ(0, m_store.Select_DbFileToDbFile(m_sql, {2, -1, 2}, 0));
    EXPECT_EQ("17|file2++", RawJoined(FilePath(2), "select id, v from rec where id = 17"));
    EXPECT_EQ("25,26,27,28,29,30,31,32", BufferIds("where v = 'buffer+'"));
    EXPECT_EQ("", RawJoined(FilePath(0), "select id from rec where v like '%+'"));
    ExpectSaveLockFree();
}

TEST_F(AttachedCopyTest, HandleForwardsOnlyKindThree) {
    Sqlite3DB handle;
    _tagDBSqlSelectCmdInfo info = Request(0, 0, 0, 1);
    EXPECT_EQ(0, handle.SqlSelect(info)) << "no store bound";
    EXPECT_EQ("", Seen(0));
    handle.SetDbData(&m_store);
    info.nSelectType = 1;
    EXPECT_EQ(0, handle.SqlSelect(info));
    info.nSelectType = 2;
    EXPECT_EQ(0, handle.SqlSelect(info));
    EXPECT_EQ("", Seen(0));
    info.nSelectType = 3;
    EXPECT_EQ(0, handle.SqlSelect(info));
    EXPECT_EQ("1,2,3,4,5,6,7,8", Seen(0));
    EXPECT_EQ("25,26,27,28,29,30,31,32", BufferSeen());
    ExpectSaveLockFree();
}

// --- GetIndexIDfroTime ------------------------------------------------------------------

class IndexFromTimeTest : public AttachedCopyTest {
protected:
    int Lookup(const std::string& sql, unsigned long long start, unsigned long long end,
               int order) {
        std::string text = sql;
        m_out = 77;
        return m_store.GetIndexIDfroTime(text, start, end, order, &m_out);
    }

    unsigned long long m_out = 77;
};

TEST_F(IndexFromTimeTest, NewestFirstAsksTheBufferFirst) {
    EXPECT_EQ(1, Lookup("select id from rec order by id", 0, 0, 0));
    EXPECT_EQ(25u, m_out);
}

TEST_F(IndexFromTimeTest, OldestFirstAsksTheOldestFileFirst) {
    EXPECT_EQ(1, Lookup("select id from rec order by id", 0, 0, 1));
    EXPECT_EQ(1u, m_out);
}

TEST_F(IndexFromTimeTest, TimeRangeChoosesTheSources) {
    EXPECT_EQ(1, Lookup("select id from rec order by id", TimeOf(10), TimeOf(12), 0));
    EXPECT_EQ(9u, m_out);
}

TEST_F(IndexFromTimeTest, SourcesWithoutARowArePassedOver) {
    const std::string sql = "select id from rec where t = " + std::to_string(TimeOf(12));
    EXPECT_EQ(1, Lookup(sql, 0, 0, 1));
    EXPECT_EQ(12u, m_out);
    EXPECT_EQ(1, Lookup(sql, 0, 0, 0));
    EXPECT_EQ(12u, m_out);
}

TEST_F(IndexFromTimeTest, NoSourceHoldingAMatchingRowGivesOneAndZero) {
    EXPECT_EQ(1, Lookup("select id from rec where id = 1000", 0, 0, 1));
    EXPECT_EQ(0u, m_out);
}

TEST_F(IndexFromTimeTest, RangeThatNoSourceOverlapsGivesZero) {
    EXPECT_EQ(0, Lookup("select id from rec", 1, 500, 1));
    EXPECT_EQ(0u, m_out);
}

TEST_F(IndexFromTimeTest, FirstColumnIsReadAs32BitSignedAndSignExtended) {
    EXPECT_EQ(1, Lookup("select 2147483653", 0, 0, 1));  // 2^31 + 5, from a file
    EXPECT_EQ(0xFFFFFFFF80000005ULL, m_out);
    EXPECT_EQ(1, Lookup("select -7", 0, 0, 0));  // from the buffer
    EXPECT_EQ(0xFFFFFFFFFFFFFFF9ULL, m_out);
    EXPECT_EQ(1, Lookup("select 4294967299", 0, 0, 0));  // 2^32 + 3: the low 32 bits
    EXPECT_EQ(3u, m_out);
    EXPECT_EQ(1, Lookup("select 2147483647", 0, 0, 1));
    EXPECT_EQ(2147483647u, m_out);
}

TEST_F(IndexFromTimeTest, NullFirstColumnReadsAsZero) {
    EXPECT_EQ(1, Lookup("select null", 0, 0, 1));
    EXPECT_EQ(0u, m_out);
}

TEST_F(IndexFromTimeTest, VanishedFileIsCreatedEmptyAndFindsNoRow) {
    const std::string gone = FilePath(1);
    testutil::RemoveTree(gone);
    EXPECT_EQ(1, Lookup("select rootpage from sqlite_master where name = 'rec'", TimeOf(10),
                        TimeOf(12), 1));
    EXPECT_EQ(0u, m_out);
    ASSERT_TRUE(testutil::FileExists(gone));
    EXPECT_EQ("", RawJoined(gone, "select name from sqlite_master"));
}

TEST_F(IndexFromTimeTest, QueryOnAVanishedFileFailsOnTheMissingTable) {
    const std::string gone = FilePath(1);
    testutil::RemoveTree(gone);
    EXPECT_EQ(0, Lookup("select id from rec", TimeOf(10), TimeOf(12), 1));
    EXPECT_EQ(0u, m_out);
    EXPECT_TRUE(testutil::FileExists(gone));
    const std::vector<std::string> lines = PlatformSim::TakeLogLines();
    ASSERT_EQ(1u, lines.size());
    ExpectDbLine(lines[0], "no such table: rec");
}

TEST_F(IndexFromTimeTest, EngineErrorIsLoggedAndGivesZero) {
    EXPECT_EQ(0, Lookup("selectx 1", 0, 0, 0));
    EXPECT_EQ(0u, m_out);
    const std::vector<std::string> lines = PlatformSim::TakeLogLines();
    ASSERT_EQ(1u, lines.size());
    ExpectDbLine(lines[0], "near \"selectx\": syntax error");
    ExpectSaveLockFree();
}

TEST_F(IndexFromTimeTest, EmptySavePathEndsTheLookupAtTheFirstFile) {
    m_store.m_strSavePath.clear();
    EXPECT_EQ(0, Lookup("select id from rec where id < 25", 0, 0, 0));
    EXPECT_EQ(0u, m_out);
    EXPECT_EQ(1, Lookup("select id from rec where id > 30", 0, 0, 0));
    EXPECT_EQ(31u, m_out);
}

TEST_F(IndexFromTimeTest, TakesNoLock) {
    int result = -1;
    EXPECT_TRUE(querytest::FinishesWhileLocked(
        m_store.m_mutexSave, [&] { result = Lookup("select id from rec order by id", 0, 0, 1); }));
    EXPECT_EQ(1, result);
    EXPECT_EQ(1u, m_out);
}

TEST_F(IndexFromTimeTest, HandleRefusesAnUnboundStoreAnEmptyTextOrNoOutput) {
    Sqlite3DB handle;
    std::string sql = "select id from rec order by id";
    unsigned long long out = 77;
    EXPECT_EQ(0, handle.GetIndexIDfroTime(sql, 0, 0, 1, &out));
    EXPECT_EQ(77u, out);
    handle.SetDbData(&m_store);
    std::string empty;
    EXPECT_EQ(0, handle.GetIndexIDfroTime(empty, 0, 0, 1, &out));
    EXPECT_EQ(77u, out);
    EXPECT_EQ(0, handle.GetIndexIDfroTime(sql, 0, 0, 1, nullptr));
    EXPECT_EQ(1, handle.GetIndexIDfroTime(sql, 0, 0, 0, &out));
    EXPECT_EQ(25u, out);
}

// --- DbData::Select and the handle's cursor select ---------------------------------------

using BufferCursorTest = AttachedCopyTest;

TEST_F(BufferCursorTest, CursorOnTheBufferIsReadableAfterTheCall) {
    CBBSQL::CppSQLite3Query query;
    EXPECT_EQ(1, m_store.Select("select id from rec order by id", query));
    ExpectSaveLockFree();
    std::vector<long long> ids;
    for (; !query.eof(); query.nextRow()) {
        ids.push_back(query.getInt64Field(0));
    }
    // Only the buffer: the files' rows 1-24 are not seen.
    EXPECT_EQ(std::vector<long long>({25, 26, 27, 28, 29, 30, 31, 32}), ids);
}

TEST_F(BufferCursorTest, SqlErrorLogsASelectLineAndKeepsTheLock) {
    CBBSQL::CppSQLite3Query query;
    EXPECT_EQ(0, m_store.Select("select id from nosuch", query));
    ExpectSaveLockHeldThenRelease();
    EXPECT_TRUE(query.eof());
    const std::vector<std::string> lines = PlatformSim::TakeLogLines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(0u, lines[0].find("[App ]: DbDataRunSql.cpp(")) << lines[0];
    const std::string tail = "):  [DB]Select:no such table: nosuch\r\n";
    ASSERT_GE(lines[0].size(), tail.size());
    EXPECT_EQ(tail, lines[0].substr(lines[0].size() - tail.size())) << lines[0];
}

TEST_F(BufferCursorTest, HandleForwardsLowerCaseSelect) {
    Sqlite3DB handle;
    CBBSQL::CppSQLite3Query query;
    EXPECT_EQ(0, handle.SqlSelect("select id from rec", query)) << "no store bound";
    handle.SetDbData(&m_store);
    EXPECT_EQ(1, handle.SqlSelect("select id from rec order by id desc", query));
    ASSERT_FALSE(query.eof());
    EXPECT_EQ(32, query.getInt64Field(0));
    query.finalize();
    ExpectSaveLockFree();
}

TEST_F(BufferCursorTest, HandleReturnsZeroForCapitalSelectWithoutTouchingTheStore) {
    Sqlite3DB handle;
    handle.SetDbData(&m_store);
    CBBSQL::CppSQLite3Query query;
    int result = -1;
    // The store's Select would wait for the held lock; the handle never gets there.
    EXPECT_TRUE(querytest::FinishesWhileLocked(
        m_store.m_mutexSave, [&] { result = handle.SqlSelect("SELECT id FROM rec", query); }));
    EXPECT_EQ(0, result);
    EXPECT_TRUE(query.eof());
    EXPECT_EQ(0, handle.SqlSelect(" select id from rec", query));
    EXPECT_EQ(0, handle.SqlSelect("Select id from rec", query));
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
    ExpectSaveLockFree();
}

// --- A store built by the real save cycle ------------------------------------------------

class AttachedCopyAfterSavesTest : public querytest::RegistryStoreAfterSavesTest {};

TEST_F(AttachedCopyAfterSavesTest, CopyOfATimeRangeGathersRowsFromFilesAndBuffer) {
    const std::string out = m_dir.path() + "copy.db";
    testutil::RawExec(out, "create table copy(id integer primary key, t integer, v text)");
    // Files rec_1 [T8,T16], rec_2 [T16,T20] and the buffer [T20,T23] overlap.
    std::string sql = "attach '" + out +
                      "' as out; insert or replace into out.copy select * from main.rec where t "
                      "between " +
                      std::to_string(TimeOf(12)) + " and " + std::to_string(TimeOf(22)) +
                      "; detach database out";
    _tagDBSqlSelectCmdInfo info{};
    info.pSql = &sql;
    info.nSelectType = 3;
    info.nStartTime = TimeOf(12);
    info.nEndTime = TimeOf(22);
    info.nMaxRecord = 0;
    info.nOrder = 1;
    EXPECT_EQ(0, m_handle.SqlSelect(info));
    EXPECT_EQ("12,13,14,15,16,17,18,19,20,21,22",
              RawJoined(out, "select group_concat(id) from (select id from copy order by id)"));
    ASSERT_EQ(1, m_store->m_mutexSave.TryLock(200));
    m_store->m_mutexSave.Unlock();
}

TEST_F(AttachedCopyAfterSavesTest, IndexFromTimeFindsFlushedAndBufferedRecords) {
    std::string sql =
        "select id from rec where t >= " + std::to_string(TimeOf(14)) + " order by t limit 1";
    unsigned long long out = 0;
    EXPECT_EQ(1, m_handle.GetIndexIDfroTime(sql, TimeOf(14), TimeOf(14), 1, &out));
    EXPECT_EQ(14u, out);
    sql = "select id from rec order by id desc";
    EXPECT_EQ(1, m_handle.GetIndexIDfroTime(sql, 0, 0, 0, &out));
    EXPECT_EQ(23u, out);
    EXPECT_EQ(1, m_handle.GetIndexIDfroTime(sql, 0, 0, 1, &out));
    EXPECT_EQ(8u, out);
}

TEST_F(AttachedCopyAfterSavesTest, CursorSeesOnlyTheBufferedRows) {
    CBBSQL::CppSQLite3Query query;
    EXPECT_EQ(1, m_handle.SqlSelect("select count(*), min(id) from rec", query));
    ASSERT_FALSE(query.eof());
    EXPECT_EQ(3, query.getIntField(0));
    EXPECT_EQ(21, query.getIntField(1));
}

}  // namespace
