// The set-up of every connection against files from a hostile medium: links
// refused, schema code of the file switched off, bounded statements, one
// statement only where the store formats a text from a path, and the listing
// and directory checks of the OS layer.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <list>

#include "CBBSQL.h"
#include "COS.h"
#include "PlatformSim.h"
#include "Sqlite3DB/ComFun.h"
#include "TestUtil.h"

namespace {

using CBBSQL::CppSQLite3DB;
using CBBSQL::CppSQLite3Exception;

class SqliteSettingsTest : public ::testing::Test {
protected:
    void SetUp() override { PlatformSim::Reset(); }
    void TearDown() override { PlatformSim::Reset(); }
    testutil::TempDir dir_;
};

TEST_F(SqliteSettingsTest, LinkedFileIsRefusedAndItsTargetUntouched) {
    testutil::RawExec(dir_.path() + "target.db", "CREATE TABLE t(x)");
    ASSERT_EQ(0, symlink((dir_.path() + "target.db").c_str(), (dir_.path() + "l.db").c_str()));
    ASSERT_EQ(0, symlink((dir_.path() + "ghost.db").c_str(), (dir_.path() + "d.db").c_str()));
    CppSQLite3DB db;
    EXPECT_THROW(db.open((dir_.path() + "l.db").c_str()), CppSQLite3Exception);
    EXPECT_THROW(db.open((dir_.path() + "d.db").c_str()), CppSQLite3Exception);
    EXPECT_EQ(0, db.openWithoutCreate((dir_.path() + "l.db").c_str()));
    EXPECT_FALSE(testutil::FileExists(dir_.path() + "ghost.db"));
    // ATTACH on a connection opened this way refuses links as well.
    db.open(":memory:");
    EXPECT_THROW(db.execOne(("ATTACH '" + dir_.path() + "l.db' AS f").c_str()),
                 CppSQLite3Exception);
}

TEST_F(SqliteSettingsTest, FifoNamedLikeADbFileIsRefusedWithoutBlocking) {
    ASSERT_EQ(0, mkfifo((dir_.path() + "f.db").c_str(), 0600));
    CppSQLite3DB db;
    EXPECT_THROW(db.open((dir_.path() + "f.db").c_str()), CppSQLite3Exception);
}

TEST_F(SqliteSettingsTest, LinkedJournalIsReplacedNotFollowed) {
    testutil::WriteFile(dir_.path() + "victim.txt", "keep");
    ASSERT_EQ(
        0, symlink((dir_.path() + "victim.txt").c_str(), (dir_.path() + "a.db-journal").c_str()));
    CppSQLite3DB db;
    db.open((dir_.path() + "a.db").c_str());
    db.execDML("CREATE TABLE t(x); INSERT INTO t VALUES(1)");
    db.close();
    std::ifstream in(dir_.path() + "victim.txt");
    std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ("keep", content);
}

TEST_F(SqliteSettingsTest, TriggersAndViewsOfAFileDoNotRun) {
    const std::string path = dir_.path() + "a.db";
    testutil::RawExec(path,
                      "CREATE TABLE t(x); CREATE TABLE log(y); CREATE TRIGGER tr AFTER INSERT ON t "
                      "BEGIN INSERT INTO log VALUES(1); END; CREATE VIEW v AS SELECT * FROM t;");
    CppSQLite3DB db;
    db.open(path.c_str());
    EXPECT_EQ(1, db.execOne("INSERT INTO t VALUES(1)"));
    EXPECT_THROW(db.getTable("SELECT * FROM v"), CppSQLite3Exception);
    db.close();
    EXPECT_EQ("0", testutil::RawQuery(path, "SELECT count(*) FROM log")[0][0]);
}

TEST_F(SqliteSettingsTest, HugeValueIsRefused) {
    CppSQLite3DB db;
    db.open(":memory:");
    EXPECT_THROW(db.getTable("SELECT zeroblob(500000000)"), CppSQLite3Exception);
    EXPECT_THROW(db.getTable("SELECT hex(zeroblob(10000000))"), CppSQLite3Exception);
    EXPECT_EQ(1, db.getTable("SELECT printf('%.*c', 1000000, 'x')").numRows());
}

TEST_F(SqliteSettingsTest, EndlessStatementIsInterruptedAtTheTimeBound) {
    PlatformSim::SetStatementTimeLimitMs(200);
    CppSQLite3DB db;
    db.open(":memory:");
    try {
        db.getTable(
            "WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) SELECT count(*) "
            "FROM c");
        ADD_FAILURE() << "not interrupted";
    } catch (CppSQLite3Exception& e) {
        EXPECT_EQ(SQLITE_INTERRUPT, e.errorCode());
    }
    // The next statement has its own bound.
    EXPECT_EQ(1, db.getTable("SELECT 1").numRows());
}

TEST_F(SqliteSettingsTest, StatementGrowingTheHeapPastTheBoundIsInterrupted) {
    CppSQLite3DB db;
    db.open(":memory:");
    try {
        db.execOne(
            "CREATE TABLE big AS WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c "
            "WHERE x < 2000000) SELECT x, randomblob(100) AS b FROM c");
        ADD_FAILURE() << "not interrupted";
    } catch (CppSQLite3Exception& e) {
        EXPECT_EQ(SQLITE_INTERRUPT, e.errorCode());
    }
    EXPECT_LT(sqlite3_memory_used(), 256LL << 20);
}

TEST_F(SqliteSettingsTest, ExecOneRefusesASecondStatementBeforeRunningAny) {
    CppSQLite3DB db;
    db.open(":memory:");
    db.execOne("CREATE TABLE t(x);  -- a comment\n ;");
    EXPECT_THROW(db.execOne("INSERT INTO t VALUES(1); DROP TABLE t"), CppSQLite3Exception);
    EXPECT_EQ(0, db.getTable("SELECT * FROM t").numRows());
    EXPECT_THROW(db.execOne("  "), CppSQLite3Exception);
}

TEST_F(SqliteSettingsTest, EscapedNameStaysOneLiteral) {
    const std::string name = dir_.path() + "rec_9.db' AS filedb;CREATE TABLE main.x(y);--.db";
    CppSQLite3DB db;
    db.open(":memory:");
    db.execOne(("ATTACH '" + ComFun_SqlEscape(name) + "' AS filedb").c_str());
    EXPECT_FALSE(db.tableExists("x"));
    EXPECT_TRUE(testutil::FileExists(name));
    EXPECT_EQ("a''b''''", ComFun_SqlEscape("a'b''"));
    EXPECT_EQ("a\"\"b'", ComFun_SqlEscape("a\"b'", '"'));
}

TEST_F(SqliteSettingsTest, ListDirReturnsOnlyRegularFiles) {
    testutil::WriteFile(dir_.path() + "a.db", "");
    ASSERT_EQ(0, symlink("a.db", (dir_.path() + "b.db").c_str()));
    ASSERT_EQ(0, symlink("none.db", (dir_.path() + "c.db").c_str()));
    ASSERT_EQ(0, mkfifo((dir_.path() + "d.db").c_str(), 0600));
    std::filesystem::create_directory(dir_.path() + "e.db");
    std::list<std::string> names;
    ASSERT_NE(0, COS::CosDir::ListDir(dir_.path(), 0, "*.db", names));
    EXPECT_EQ(std::list<std::string>{"a.db"}, names);
}

TEST_F(SqliteSettingsTest, DirectoryOnAMediumThatLeadsOffItReadsAsMissing) {
    const std::string mount = dir_.path() + "usb/";
    std::filesystem::create_directories(mount + "real/");
    std::filesystem::create_directories(dir_.path() + "flash/");
    ASSERT_EQ(0, symlink((dir_.path() + "flash").c_str(), (mount + "away").c_str()));
    ASSERT_EQ(0, symlink("real", (mount + "near").c_str()));
    CHmiMedia::SetUdiskPath(mount);
    EXPECT_NE(0, COS::CosDir::IsDir(mount + "real/"));
    EXPECT_NE(0, COS::CosDir::IsDir(mount + "near/"));
    EXPECT_EQ(0, COS::CosDir::IsDir(mount + "away/"));
    EXPECT_EQ(0, COS::CosDir::MakeDir(mount + "away/sub/"));
    EXPECT_FALSE(testutil::DirExists(dir_.path() + "flash/sub"));
    CHmiMedia::SetUdiskPath("");
    EXPECT_NE(0, COS::CosDir::IsDir(mount + "away/"));  // not a medium any more
}

}  // namespace
