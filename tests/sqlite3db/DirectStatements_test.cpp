// Direct statements: the three ExecDML forms with their fixed results (the
// buffer or the current file as target, the batch inside "begin"/"commit"
// without rollback), TableIsExist answering for the buffer when there is one,
// and the handle's CreateTable, DoOneSQL and TableIsExist forwarders.
#include <gtest/gtest.h>

#include <list>
#include <string>
#include <vector>

#include "QueryStoreFixture.h"
#include "Sqlite3DB/Sqlite3DB.h"
#include "TestUtil.h"

namespace {

using querytest::RawJoined;

const char kInsert7[] = "insert into rec values(7, 1070, 'direct')";

// Two DB files (the current one is rec_1.db) on a store with or without a
// memory buffer.
class DirectStatementsTest : public querytest::StoreTest {
protected:
    void Build(int useMemDB) {
        Configure(useMemDB);
        ASSERT_EQ(1, m_store.CreateFileDB());
        ASSERT_EQ(2, m_store.GetFileNum());
        PlatformSim::TakeLogLines();
    }

    std::string CurrentFile() { return Dir() + "rec_1.db"; }
    std::string OldFile() { return Dir() + "rec_0.db"; }

    std::string FileIds(const std::string& path) {
        return RawJoined(path, "select id from rec order by id");
    }

    // The one log line captured since the last take; fails if there are more.
    std::string OnlyLogLine() {
        const std::vector<std::string> lines = PlatformSim::TakeLogLines();
        EXPECT_EQ(1u, lines.size());
        return lines.empty() ? "" : lines[0];
    }

    static void ExpectDbLine(const std::string& line, const std::string& message) {
        EXPECT_EQ(0u, line.find("[App ]: DbDataRunSql.cpp(")) << line;
        const std::string tail = "):  [DB]" + message + "\r\n";
        ASSERT_GE(line.size(), tail.size()) << line;
        EXPECT_EQ(tail, line.substr(line.size() - tail.size())) << line;
    }
};

// --- ExecDML(statement) ------------------------------------------------------------

TEST_F(DirectStatementsTest, UntargetedStatementRunsOnTheBufferAndReturnsOne) {
    Build(1);
    EXPECT_EQ(1, m_store.ExecDML(kInsert7));
    EXPECT_EQ("7", BufferIds());
    EXPECT_EQ("", FileIds(CurrentFile()));
}

TEST_F(DirectStatementsTest, UntargetedStatementWithoutBufferRunsOnTheCurrentFileAndReturnsZero) {
    Build(0);
    EXPECT_EQ(0, m_store.ExecDML(kInsert7));
    EXPECT_EQ("7", FileIds(CurrentFile()));
    EXPECT_EQ("", FileIds(OldFile()));
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DirectStatementsTest, UntargetedStatementWithoutBufferOrFileRunsNothing) {
    Build(0);
    m_store.m_vecFileInfo.clear();
    EXPECT_EQ(0, m_store.ExecDML(kInsert7));
    EXPECT_EQ("", FileIds(CurrentFile()));
}

TEST_F(DirectStatementsTest, UntargetedStatementErrorIsLoggedAndGivesZero) {
    Build(1);
    EXPECT_EQ(0, m_store.ExecDML("insert into nosuch values(1)"));
    ExpectDbLine(OnlyLogLine(), "no such table: nosuch");
}

// --- ExecDML(target, statement) -----------------------------------------------------

TEST_F(DirectStatementsTest, TargetZeroRunsOnTheBufferAndReturnsOne) {
    Build(1);
    EXPECT_EQ(1, m_store.ExecDML(0, kInsert7));
    EXPECT_EQ("7", BufferIds());
    EXPECT_EQ("", FileIds(CurrentFile()));
}

TEST_F(DirectStatementsTest, TargetOneRunsOnTheCurrentFileAndReturnsOne) {
    Build(1);
    EXPECT_EQ(1, m_store.ExecDML(1, kInsert7));
    EXPECT_EQ("7", FileIds(CurrentFile()));
    EXPECT_EQ("", FileIds(OldFile()));
    EXPECT_EQ("", BufferIds());
}

TEST_F(DirectStatementsTest, TargetOneWithoutACurrentFileReturnsZero) {
    Build(1);
    m_store.m_vecFileInfo.clear();
    EXPECT_EQ(0, m_store.ExecDML(1, kInsert7));
    EXPECT_EQ("", FileIds(CurrentFile()));
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DirectStatementsTest, TargetTwoRunsOnBufferAndFileButReturnsZero) {
    Build(1);
    EXPECT_EQ(0, m_store.ExecDML(2, kInsert7));
    EXPECT_EQ("7", BufferIds());
    EXPECT_EQ("7", FileIds(CurrentFile()));
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DirectStatementsTest, TargetTwoFailingOnTheBufferSkipsTheFile) {
    Build(1);
    m_store.m_pMemDB->execDML("drop table rec");
    EXPECT_EQ(0, m_store.ExecDML(2, kInsert7));
    EXPECT_EQ("", FileIds(CurrentFile()));
    ExpectDbLine(OnlyLogLine(), "no such table: rec");
}

TEST_F(DirectStatementsTest, OtherTargetsRunNothingAndReturnZero) {
    Build(1);
    EXPECT_EQ(0, m_store.ExecDML(5, kInsert7));
    EXPECT_EQ(0, m_store.ExecDML(-1, kInsert7));
    EXPECT_EQ("", BufferIds());
    EXPECT_EQ("", FileIds(CurrentFile()));
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DirectStatementsTest, TargetedSyntaxErrorIsLoggedAndGivesZero) {
    Build(1);
    EXPECT_EQ(0, m_store.ExecDML(0, "insertt into rec values(1, 1, 'a')"));
    ExpectDbLine(OnlyLogLine(), "near \"insertt\": syntax error");
    EXPECT_EQ(0, m_store.ExecDML(1, "insertt into rec values(1, 1, 'a')"));
    ExpectDbLine(OnlyLogLine(), "near \"insertt\": syntax error");
}

TEST_F(DirectStatementsTest, ChangedRowCountIsNotLookedAt) {
    Build(1);
    EXPECT_EQ(1, m_store.ExecDML(0, "delete from rec where id = 1"));
    EXPECT_EQ(1, m_store.ExecDML(1, "delete from rec where id = 1"));
}

TEST_F(DirectStatementsTest, FileFormsCreateAMissingCurrentFile) {
    Build(1);
    testutil::RemoveTree(CurrentFile());
    EXPECT_EQ(1, m_store.ExecDML(1, "create table t2(x)"));
    ASSERT_TRUE(testutil::FileExists(CurrentFile()));
    EXPECT_EQ("t2", RawJoined(CurrentFile(), "select name from sqlite_master"));
}

// --- ExecDML(target, list) ------------------------------------------------------------

TEST_F(DirectStatementsTest, BatchOnTheBufferRunsInListOrderAndReturnsZero) {
    Build(1);
    std::list<std::string> sqls{kInsert7, "update rec set v = 'changed' where id = 7",
                                "insert into rec values(8, 1080, 'b')"};
    EXPECT_EQ(0, m_store.ExecDML(0, sqls));
    EXPECT_EQ("7,8", BufferIds());
    EXPECT_EQ("7,8", BufferIds("where v in ('changed', 'b')"));
    EXPECT_EQ("", FileIds(CurrentFile()));
    // The transaction was committed: a new one can begin.
    EXPECT_NO_THROW(m_store.m_pMemDB->execDML("begin; commit;"));
}

TEST_F(DirectStatementsTest, BatchWithTargetZeroWithoutBufferRunsOnTheCurrentFile) {
    Build(0);
    std::list<std::string> sqls{kInsert7, "insert into rec values(8, 1080, 'b')"};
    EXPECT_EQ(0, m_store.ExecDML(0, sqls));
    EXPECT_EQ("7,8", FileIds(CurrentFile()));
    EXPECT_EQ("", FileIds(OldFile()));
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DirectStatementsTest, BatchOnTheFileIsOneTransaction) {
    Build(0);
    // The failing third statement leaves the transaction uncommitted, and
    // closing the file drops it: none of the rows lands.
    std::list<std::string> sqls{kInsert7, "insert into rec values(8, 1080, 'b')",
                                "insert into nosuch values(1)",
                                "insert into rec values(9, 1090, 'c')"};
    EXPECT_EQ(0, m_store.ExecDML(0, sqls));
    EXPECT_EQ("", FileIds(CurrentFile()));
    ExpectDbLine(OnlyLogLine(), "no such table: nosuch");
}

TEST_F(DirectStatementsTest, BatchWithTargetOneRunsOnTheCurrentFileOfABufferedStore) {
    Build(1);
    std::list<std::string> sqls{kInsert7};
    EXPECT_EQ(0, m_store.ExecDML(1, sqls));
    EXPECT_EQ("7", FileIds(CurrentFile()));
    EXPECT_EQ("", BufferIds());
}

TEST_F(DirectStatementsTest, BatchWithoutACurrentFileRunsNothing) {
    Build(1);
    m_store.m_vecFileInfo.clear();
    std::list<std::string> sqls{kInsert7};
    EXPECT_EQ(0, m_store.ExecDML(1, sqls));
    EXPECT_EQ("", BufferIds());
    EXPECT_EQ("", FileIds(CurrentFile()));
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DirectStatementsTest, BatchFailingOnTheBufferLeavesItsTransactionOpen) {
    Build(1);
    std::list<std::string> sqls{kInsert7, "insert into nosuch values(1)",
                                "insert into rec values(9, 1090, 'c')"};
    EXPECT_EQ(0, m_store.ExecDML(0, sqls));
    ExpectDbLine(OnlyLogLine(), "no such table: nosuch");
    EXPECT_EQ("7", BufferIds()) << "the statements after the failing one are not run";
    // Still inside the batch's transaction: a new "begin" is refused, and a
    // later statement joins the open transaction until someone commits.
    EXPECT_THROW(m_store.m_pMemDB->execDML("begin"), CBBSQL::CppSQLite3Exception);
    EXPECT_EQ(1, m_store.ExecDML(0, "insert into rec values(10, 1100, 'd')"));
    EXPECT_NO_THROW(m_store.m_pMemDB->execDML("rollback"));
    EXPECT_EQ("", BufferIds());
}

TEST_F(DirectStatementsTest, EmptyBatchStillBeginsAndCommits) {
    Build(0);
    std::list<std::string> sqls;
    EXPECT_EQ(0, m_store.ExecDML(0, sqls));
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

// --- TableIsExist -----------------------------------------------------------------------

TEST_F(DirectStatementsTest, TableIsExistAnswersForTheBufferOnly) {
    Build(1);
    testutil::RawExec(CurrentFile(), "create table onlyinfile(x)");
    EXPECT_NE(0, m_store.TableIsExist("rec"));
    EXPECT_EQ(0, m_store.TableIsExist("onlyinfile"));
    m_store.m_pMemDB->execDML("create table onlyinbuffer(x)");
    EXPECT_NE(0, m_store.TableIsExist("onlyinbuffer"));
}

TEST_F(DirectStatementsTest, TableIsExistWithoutBufferAsksTheCurrentFile) {
    Build(0);
    testutil::RawExec(CurrentFile(), "create table onlyincurrent(x)");
    testutil::RawExec(OldFile(), "create table onlyinold(x)");
    EXPECT_EQ(1, m_store.TableIsExist("rec"));
    EXPECT_EQ(1, m_store.TableIsExist("onlyincurrent"));
    EXPECT_EQ(0, m_store.TableIsExist("onlyinold"));
    EXPECT_EQ(0, m_store.TableIsExist("nosuch"));
}

TEST_F(DirectStatementsTest, TableIsExistWithoutBufferOrFileIsZero) {
    Build(0);
    m_store.m_vecFileInfo.clear();
    EXPECT_EQ(0, m_store.TableIsExist("rec"));
}

TEST_F(DirectStatementsTest, TableIsExistCreatesAMissingCurrentFile) {
    Build(0);
    testutil::RemoveTree(CurrentFile());
    EXPECT_EQ(0, m_store.TableIsExist("rec"));
    EXPECT_TRUE(testutil::FileExists(CurrentFile()));
}

TEST_F(DirectStatementsTest, TableIsExistLogsItsOwnLineOnAnEngineError) {
    Build(0);
    testutil::WriteFile(CurrentFile(), std::string(4096, 'x'));
    EXPECT_EQ(0, m_store.TableIsExist("rec"));
    const std::string line = OnlyLogLine();
    EXPECT_EQ(0u, line.find("[App ]: DbDataRunSql.cpp(")) << line;
    const std::string tail = "):  [DB]TableIsExist:file is not a database\r\n";
    ASSERT_GE(line.size(), tail.size()) << line;
    EXPECT_EQ(tail, line.substr(line.size() - tail.size())) << line;
}

// --- Through the handle ------------------------------------------------------------------

TEST_F(DirectStatementsTest, CreateTableForwardsOnlyLowerCaseCreate) {
    Build(1);
    Sqlite3DB handle;
    EXPECT_EQ(0, handle.CreateTable("create table t1(x)")) << "no store bound";
    handle.SetDbData(&m_store);
    EXPECT_EQ(1, handle.CreateTable("create table t1(x)"));
    EXPECT_TRUE(m_store.m_pMemDB->tableExists("t1"));
    EXPECT_EQ(0, handle.CreateTable("CREATE TABLE t2(x)"));
    EXPECT_EQ(0, handle.CreateTable(" create table t3(x)"));
    EXPECT_FALSE(m_store.m_pMemDB->tableExists("t2"));
    EXPECT_FALSE(m_store.m_pMemDB->tableExists("t3"));
}

TEST_F(DirectStatementsTest, CreateTableWithoutBufferCreatesInTheFileButReturnsZero) {
    Build(0);
    Sqlite3DB handle;
    handle.SetDbData(&m_store);
    EXPECT_EQ(0, handle.CreateTable("create table t1(x)"));
    EXPECT_EQ(1, handle.TableIsExist("t1"));
}

TEST_F(DirectStatementsTest, DoOneSqlForwardsBothForms) {
    Build(1);
    Sqlite3DB handle;
    EXPECT_EQ(0, handle.DoOneSQL(0, std::string(kInsert7))) << "no store bound";
    EXPECT_EQ(0, handle.DoOneSQL(0, std::list<std::string>{kInsert7}));
    EXPECT_EQ(0, handle.TableIsExist("rec"));
    EXPECT_EQ("", BufferIds());
    handle.SetDbData(&m_store);
    EXPECT_EQ(1, handle.DoOneSQL(0, std::string(kInsert7)));
    EXPECT_EQ(1, handle.DoOneSQL(1, std::string(kInsert7)));
    EXPECT_EQ(0, handle.DoOneSQL(0, std::list<std::string>{"insert into rec values(8, 1, 'b')"}));
    EXPECT_EQ("7,8", BufferIds());
    EXPECT_EQ("7", FileIds(CurrentFile()));
    EXPECT_EQ(1, handle.TableIsExist("rec"));
}

}  // namespace
