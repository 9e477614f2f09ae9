// Tests of CBBSQL, the SQLite access layer: error reporting, opening,
// statement execution, cursors, materialised tables and NULL handling.
#include "CBBSQL.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <climits>
#include <cstring>
#include <string>

#include "PlatformSim.h"
#include "TestUtil.h"

using CBBSQL::CppSQLite3DB;
using CBBSQL::CppSQLite3Exception;
using CBBSQL::CppSQLite3Query;
using CBBSQL::CppSQLite3Table;

namespace {

class PlatformCbbSqlTest : public ::testing::Test {
protected:
    void SetUp() override { PlatformSim::Reset(); }
    void TearDown() override { PlatformSim::Reset(); }

    std::string DbPath(const std::string& name = "t.db") const { return dir.path() + name; }

    // A connection to a file holding t(id, v, n) with rows 1..3.
    void OpenFilled(CppSQLite3DB& db) {
        db.open(DbPath().c_str());
        db.execDML(
            "CREATE TABLE t (id INTEGER PRIMARY KEY, v TEXT, n INTEGER);"
            "INSERT INTO t VALUES (1, 'one', 10);"
            "INSERT INTO t VALUES (2, 'two', NULL);"
            "INSERT INTO t VALUES (3, NULL, 30);");
    }

    testutil::TempDir dir;
};

TEST_F(PlatformCbbSqlTest, CompileErrorCarriesEngineMessage) {
    CppSQLite3DB db;
    db.open(DbPath().c_str());
    try {
        db.execQuery("SELECT * FROM nope");
        FAIL() << "no exception";
    } catch (const CppSQLite3Exception& e) {
        EXPECT_STREQ("no such table: nope", e.errorMessage());
        EXPECT_EQ(SQLITE_ERROR, e.errorCode());
    }
    try {
        db.execDML("DELETE FROM nope");
        FAIL() << "no exception";
    } catch (const CppSQLite3Exception& e) {
        EXPECT_STREQ("no such table: nope", e.errorMessage());
    }
    try {
        db.getTable("SELECT * FROM nope");
        FAIL() << "no exception";
    } catch (const CppSQLite3Exception& e) {
        EXPECT_STREQ("no such table: nope", e.errorMessage());
    }
}

TEST_F(PlatformCbbSqlTest, StepErrorsAreThrown) {
    CppSQLite3DB db;
    OpenFilled(db);
    db.execDML("CREATE TABLE u (id INTEGER PRIMARY KEY, x INTEGER UNIQUE)");
    db.execDML("INSERT INTO u VALUES (1, 5)");
    try {
        db.execDML("INSERT INTO u VALUES (2, 5)");
        FAIL() << "no exception";
    } catch (const CppSQLite3Exception& e) {
        EXPECT_STREQ("UNIQUE constraint failed: u.x", e.errorMessage());
        EXPECT_EQ(SQLITE_CONSTRAINT, e.errorCode());
    }
    EXPECT_THROW(db.execQuery("SELECT abs(-9223372036854775807 - 1)"), CppSQLite3Exception);

    // The second row fails while the cursor moves onto it.
    db.execDML("INSERT INTO u VALUES (3, -9223372036854775807 - 1)");
    CppSQLite3Query q = db.execQuery("SELECT abs(x) FROM u ORDER BY id");
    ASSERT_FALSE(q.eof());
    EXPECT_EQ(5, q.getIntField(0));
    try {
        q.nextRow();
        FAIL() << "no exception";
    } catch (const CppSQLite3Exception& e) {
        EXPECT_STREQ("integer overflow", e.errorMessage());
    }
    EXPECT_TRUE(q.eof());
}

TEST_F(PlatformCbbSqlTest, ClosedDatabaseThrows) {
    CppSQLite3DB db;
    try {
        db.execDML("CREATE TABLE t (a)");
        FAIL() << "no exception";
    } catch (const CppSQLite3Exception& e) {
        EXPECT_NE(nullptr, std::strstr(e.errorMessage(), "not open"));
        EXPECT_EQ(SQLITE_MISUSE, e.errorCode());
    }
    db.open(DbPath().c_str());
    db.close();
    db.close();  // closing twice is harmless
    EXPECT_THROW(db.execQuery("SELECT 1"), CppSQLite3Exception);
    EXPECT_THROW(db.getTable("SELECT 1"), CppSQLite3Exception);
    EXPECT_THROW(db.tableExists("t"), CppSQLite3Exception);
}

TEST_F(PlatformCbbSqlTest, OpenWithoutCreateLeavesMissingFileAlone) {
    CppSQLite3DB db;
    int rc = -1;
    EXPECT_NO_THROW(rc = db.openWithoutCreate(DbPath("missing.db").c_str()));
    EXPECT_EQ(0, rc);
    EXPECT_FALSE(testutil::FileExists(DbPath("missing.db")));
    EXPECT_EQ(0, db.openWithoutCreate(DbPath("no/such/dir.db").c_str()));
    EXPECT_FALSE(testutil::DirExists(DbPath("no")));
    EXPECT_THROW(db.execDML("CREATE TABLE t (a)"), CppSQLite3Exception);

    testutil::RawExec(DbPath(), "CREATE TABLE t (a); INSERT INTO t VALUES (7);");
    ASSERT_NE(0, db.openWithoutCreate(DbPath().c_str()));
    CppSQLite3Query q = db.execQuery("SELECT a FROM t");
    ASSERT_FALSE(q.eof());
    EXPECT_EQ(7, q.getIntField(0));
}

TEST_F(PlatformCbbSqlTest, OpenCreatesAndFailsCleanly) {
    CppSQLite3DB db;
    db.open(DbPath().c_str());
    EXPECT_TRUE(testutil::FileExists(DbPath()));
    db.execDML("CREATE TABLE t (a)");
    EXPECT_EQ("t", testutil::RawValue(DbPath(), "SELECT name FROM sqlite_master"));

    EXPECT_THROW(db.open(DbPath("no/such/dir.db").c_str()), CppSQLite3Exception);
    // The failed open left the object closed.
    EXPECT_THROW(db.execDML("SELECT 1"), CppSQLite3Exception);
}

TEST_F(PlatformCbbSqlTest, ReopeningSwitchesConnection) {
    CppSQLite3DB db;
    db.open(DbPath("a.db").c_str());
    db.open(DbPath("b.db").c_str());
    db.execDML("CREATE TABLE only_b (x)");
    EXPECT_TRUE(testutil::RawQuery(DbPath("a.db"), "SELECT name FROM sqlite_master").empty());
    EXPECT_EQ(1u, testutil::RawQuery(DbPath("b.db"), "SELECT name FROM sqlite_master").size());
}

TEST_F(PlatformCbbSqlTest, ExecDmlCountsChangedRows) {
    CppSQLite3DB db;
    db.open(DbPath().c_str());
    EXPECT_EQ(0, db.execDML("CREATE TABLE t (id INTEGER PRIMARY KEY, v TEXT)"));
    EXPECT_EQ(1, db.execDML("INSERT INTO t (v) VALUES ('a')"));
    EXPECT_EQ(3, db.execDML("INSERT INTO t (v) VALUES ('b');\n"
                            "INSERT INTO t (v) VALUES ('c');\n"
                            "UPDATE t SET v = 'z' WHERE id = 1;  -- trailing comment\n"));
    EXPECT_EQ(4, db.execDML("UPDATE t SET v = 'y'; DELETE FROM t WHERE id = 3"));
    EXPECT_EQ(0, db.execDML("UPDATE t SET v = 'q' WHERE id = 99"));
    EXPECT_EQ(2, db.execDML("DELETE FROM t"));

    // Statements before a failing one stay done; the error names the failure.
    try {
        db.execDML("INSERT INTO t (v) VALUES ('k'); INSERT INTO nope VALUES (1)");
        FAIL() << "no exception";
    } catch (const CppSQLite3Exception& e) {
        EXPECT_STREQ("no such table: nope", e.errorMessage());
    }
    EXPECT_EQ("1", testutil::RawValue(DbPath(), "SELECT count(*) FROM t"));
}

TEST_F(PlatformCbbSqlTest, QueryReadsRowsAndNulls) {
    CppSQLite3DB db;
    OpenFilled(db);
    CppSQLite3Query q = db.execQuery("SELECT id, v, n FROM t ORDER BY id");
    ASSERT_EQ(3, q.numFields());
    EXPECT_STREQ("id", q.fieldName(0));
    EXPECT_STREQ("n", q.fieldName(2));

    ASSERT_FALSE(q.eof());
    EXPECT_EQ(1, q.getIntField(0));
    EXPECT_STREQ("one", q.getStringField(1));
    EXPECT_EQ(10LL, q.getInt64Field(2));
    EXPECT_FALSE(q.fieldIsNull(2));

    q.nextRow();
    ASSERT_FALSE(q.eof());
    EXPECT_TRUE(q.fieldIsNull(2));
    EXPECT_EQ(0, q.getIntField(2));
    EXPECT_EQ(-5, q.getIntField(2, -5));
    EXPECT_EQ(-6LL, q.getInt64Field(2, -6));
    EXPECT_STREQ("", q.getStringField(2));

    q.nextRow();
    ASSERT_FALSE(q.eof());
    EXPECT_TRUE(q.fieldIsNull(1));
    EXPECT_STREQ("dflt", q.getStringField(1, "dflt"));
    EXPECT_EQ(nullptr, q.getStringField(1, nullptr));
    EXPECT_STREQ("30", q.getStringField(2));

    q.nextRow();
    EXPECT_TRUE(q.eof());
    q.nextRow();  // stays at the end rather than running the statement again
    EXPECT_TRUE(q.eof());
}

TEST_F(PlatformCbbSqlTest, QueryWithoutRowsIsEof) {
    CppSQLite3DB db;
    OpenFilled(db);
    CppSQLite3Query q = db.execQuery("SELECT id FROM t WHERE id > 100");
    EXPECT_TRUE(q.eof());
    EXPECT_EQ(1, q.numFields());
    EXPECT_EQ(42, q.getIntField(0, 42));  // no current row: reads as NULL
}

TEST_F(PlatformCbbSqlTest, QueryFieldIndexChecked) {
    CppSQLite3DB db;
    OpenFilled(db);
    CppSQLite3Query q = db.execQuery("SELECT id, v FROM t");
    EXPECT_THROW(q.getIntField(2), CppSQLite3Exception);
    EXPECT_THROW(q.getIntField(-1), CppSQLite3Exception);
    EXPECT_THROW(q.fieldName(2), CppSQLite3Exception);
    EXPECT_THROW(q.fieldIsNull(5), CppSQLite3Exception);
    EXPECT_THROW(q.getStringField(2), CppSQLite3Exception);
    EXPECT_THROW(q.getInt64Field(2), CppSQLite3Exception);
}

TEST_F(PlatformCbbSqlTest, IntFieldKeepsLow32Bits) {
    CppSQLite3DB db;
    db.open(DbPath().c_str());
    db.execDML("CREATE TABLE t (id INTEGER PRIMARY KEY, x INTEGER)");
    db.execDML("INSERT INTO t VALUES (1, 2147483648), (2, 4294967297), (3, 8589934602)");

    CppSQLite3Query q = db.execQuery("SELECT x FROM t ORDER BY id");
    EXPECT_EQ(INT_MIN, q.getIntField(0));
    EXPECT_EQ(2147483648LL, q.getInt64Field(0));
    q.nextRow();
    EXPECT_EQ(1, q.getIntField(0));
    EXPECT_EQ(4294967297LL, q.getInt64Field(0));
    q.nextRow();
    EXPECT_EQ(10, q.getIntField(0));
    EXPECT_EQ(8589934602LL, q.getInt64Field(0));

    CppSQLite3Table t = db.getTable("SELECT x FROM t ORDER BY id");
    EXPECT_EQ(INT_MIN, t.getIntField(0));
    EXPECT_EQ(2147483648LL, t.getInt64Field(0));
    t.setRow(1);
    EXPECT_EQ(1, t.getIntField(0));
    EXPECT_EQ(4294967297LL, t.getInt64Field(0));
}

TEST_F(PlatformCbbSqlTest, AssignmentHandsCursorOver) {
    CppSQLite3DB db;
    OpenFilled(db);
    CppSQLite3Query source = db.execQuery("SELECT id FROM t ORDER BY id");
    CppSQLite3Query target;
    EXPECT_TRUE(target.eof());
    target = source;

    EXPECT_TRUE(source.eof());
    EXPECT_THROW(source.numFields(), CppSQLite3Exception);
    EXPECT_THROW(source.getIntField(0), CppSQLite3Exception);
    EXPECT_THROW(source.nextRow(), CppSQLite3Exception);

    ASSERT_FALSE(target.eof());
    EXPECT_EQ(1, target.getIntField(0));
    target.nextRow();
    EXPECT_EQ(2, target.getIntField(0));

    // Assigning over a live cursor finalises it (a leak would show under ASan).
    target = db.execQuery("SELECT v FROM t WHERE id = 3");
    ASSERT_FALSE(target.eof());
    EXPECT_TRUE(target.fieldIsNull(0));

    CppSQLite3Query copied(target);
    EXPECT_TRUE(target.eof());
    EXPECT_THROW(target.numFields(), CppSQLite3Exception);
    EXPECT_EQ(1, copied.numFields());

    CppSQLite3Query& alias = copied;
    copied = alias;  // self-assignment keeps the cursor
    EXPECT_EQ(1, copied.numFields());
}

TEST_F(PlatformCbbSqlTest, FinalizedQueryIsEmpty) {
    CppSQLite3DB db;
    OpenFilled(db);
    CppSQLite3Query q = db.execQuery("SELECT id FROM t");
    q.finalize();
    q.finalize();
    EXPECT_TRUE(q.eof());
    EXPECT_THROW(q.getIntField(0), CppSQLite3Exception);
    EXPECT_THROW(q.nextRow(), CppSQLite3Exception);
    EXPECT_THROW(q.fieldName(0), CppSQLite3Exception);
}

TEST_F(PlatformCbbSqlTest, QueryOutlivesConnectionObject) {
    CppSQLite3Query q;
    {
        CppSQLite3DB db;
        OpenFilled(db);
        q = db.execQuery("SELECT id, v FROM t ORDER BY id");
    }
    int ids = 0;
    for (int expected = 1; !q.eof(); ++expected, q.nextRow()) {
        EXPECT_EQ(expected, q.getIntField(0));
        ++ids;
    }
    EXPECT_EQ(3, ids);

    // Same after an explicit close() of a connection that lives on.
    CppSQLite3DB db;
    db.open(DbPath().c_str());
    CppSQLite3Query q2 = db.execQuery("SELECT v FROM t WHERE id = 2");
    db.close();
    ASSERT_FALSE(q2.eof());
    EXPECT_STREQ("two", q2.getStringField(0));
}

TEST_F(PlatformCbbSqlTest, TableCopiesAreIndependent) {
    CppSQLite3Table copy;
    EXPECT_EQ(0, copy.numRows());
    {
        CppSQLite3DB db;
        OpenFilled(db);
        CppSQLite3Table t = db.getTable("SELECT id, v, n FROM t ORDER BY id");
        copy = t;
    }
    ASSERT_EQ(3, copy.numRows());
    ASSERT_EQ(3, copy.numFields());
    EXPECT_STREQ("v", copy.fieldName(1));
    EXPECT_EQ(1, copy.getIntField(0));
    EXPECT_STREQ("one", copy.getStringField(1));

    CppSQLite3Table other(copy);
    other.setRow(2);
    other.appendRow({"4", "four", "40"}, {false, false, false});
    EXPECT_EQ(4, other.numRows());
    EXPECT_EQ(3, other.getIntField(0));
    EXPECT_EQ(3, copy.numRows());
    EXPECT_EQ(1, copy.getIntField(0));  // still on its own row 0

    other.setRow(3);
    EXPECT_STREQ("four", other.getStringField(1));
}

TEST_F(PlatformCbbSqlTest, TableNullsAndBounds) {
    CppSQLite3DB db;
    OpenFilled(db);
    CppSQLite3Table t = db.getTable("SELECT id, v, n FROM t ORDER BY id");
    t.setRow(1);
    EXPECT_TRUE(t.fieldIsNull(2));
    EXPECT_FALSE(t.fieldIsNull(1));
    EXPECT_EQ(-1, t.getIntField(2, -1));
    EXPECT_EQ(-2LL, t.getInt64Field(2, -2));
    EXPECT_STREQ("none", t.getStringField(2, "none"));
    EXPECT_STREQ("", t.getStringField(2));
    t.setRow(2);
    EXPECT_TRUE(t.fieldIsNull(1));
    EXPECT_EQ(30, t.getIntField(2));

    EXPECT_THROW(t.setRow(3), CppSQLite3Exception);
    EXPECT_THROW(t.setRow(-1), CppSQLite3Exception);
    EXPECT_THROW(t.getIntField(3), CppSQLite3Exception);
    EXPECT_THROW(t.fieldName(-1), CppSQLite3Exception);
    EXPECT_THROW(t.fieldIsNull(3), CppSQLite3Exception);

    CppSQLite3Table empty = db.getTable("SELECT id, v FROM t WHERE id > 99");
    EXPECT_EQ(0, empty.numRows());
    EXPECT_EQ(2, empty.numFields());
    EXPECT_STREQ("v", empty.fieldName(1));
    EXPECT_THROW(empty.getStringField(0), CppSQLite3Exception);
    EXPECT_THROW(empty.setRow(0), CppSQLite3Exception);
}

TEST_F(PlatformCbbSqlTest, TableExists) {
    CppSQLite3DB db;
    OpenFilled(db);
    db.execDML("CREATE VIEW vw AS SELECT id FROM t; CREATE INDEX ix ON t (n)");
    EXPECT_TRUE(db.tableExists("t"));
    EXPECT_FALSE(db.tableExists("nope"));
    EXPECT_FALSE(db.tableExists("vw"));
    EXPECT_FALSE(db.tableExists("ix"));
    EXPECT_FALSE(db.tableExists("x' OR '1'='1"));
}

TEST_F(PlatformCbbSqlTest, BusyConnectionWaitsThenReportsLocked) {
    CppSQLite3DB holder;
    OpenFilled(holder);
    holder.execDML("BEGIN IMMEDIATE");

    CppSQLite3DB writer;
    writer.open(DbPath().c_str());
    auto start = std::chrono::steady_clock::now();
    try {
        writer.execDML("INSERT INTO t (v) VALUES ('w')");
        FAIL() << "no exception";
    } catch (const CppSQLite3Exception& e) {
        EXPECT_EQ(SQLITE_BUSY, e.errorCode());
        EXPECT_STREQ("database is locked", e.errorMessage());
    }
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(1000));  // the 2 s busy timeout applied

    holder.execDML("COMMIT");
    EXPECT_EQ(1, writer.execDML("INSERT INTO t (v) VALUES ('w')"));
}

}  // namespace
