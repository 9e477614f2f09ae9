// Tests of the check that decides whether a file found in the save directory
// is one of the store's DB files (DbData::ReadDbInfo): which files are read,
// which are deleted, which are kept and skipped, and what is logged.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "DbFilesFixture.h"

namespace {

using dbfiles::IsLogLine;
using testutil::FileExists;
using testutil::RawExec;
using testutil::RawQuery;
using testutil::RawValue;

// Outputs of ReadDbInfo, preset so that untouched outputs show.
struct Info {
    unsigned long long maxID = 777;
    unsigned long long minID = 777;
    unsigned long long startTime = 777;
    unsigned long long endTime = 777;
    bool Untouched() const {
        return maxID == 777 && minID == 777 && startTime == 777 && endTime == 777;
    }
};

class DbFileCheckTest : public dbfiles::DbFilesTest {
protected:
    int Read(const std::string& name, Info& info) {
        return store.ReadDbInfo(Path(name), &info.maxID, &info.minID, &info.startTime,
                                &info.endTime);
    }

    // Expects exactly one log line, the ReadDbInfo line with the engine's message.
    void ExpectReadDbInfoLine(const std::string& message) {
        std::vector<std::string> lines = PlatformSim::TakeLogLines();
        ASSERT_EQ(1u, lines.size());
        EXPECT_TRUE(
            IsLogLine(lines[0], "DbDataRunSql.cpp", "  [DB]ReadDbInfo:" + message + "\r\n"));
    }
};

TEST_F(DbFileCheckTest, ValidFileGivesItsDBInfoRow) {
    MakeStoreFile("rec_0.db", 11, 20, 1000, 2000);
    Info info;
    EXPECT_EQ(1, Read("rec_0.db", info));
    EXPECT_EQ(20u, info.maxID);
    EXPECT_EQ(11u, info.minID);
    EXPECT_EQ(1000u, info.startTime);
    EXPECT_EQ(2000u, info.endTime);
    EXPECT_TRUE(FileExists(Path("rec_0.db")));
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DbFileCheckTest, ReadsOnlyTheVersion1Row) {
    MakeStoreFile("rec_0.db", 1, 2, 3, 4);
    RawExec(Path("rec_0.db"), "insert into DBInfo values (2,90,80,70,60,0,0,0,0,0)");
    Info info;
    EXPECT_EQ(1, Read("rec_0.db", info));
    EXPECT_EQ(2u, info.maxID);
    EXPECT_EQ(1u, info.minID);
    EXPECT_EQ(3u, info.startTime);
    EXPECT_EQ(4u, info.endTime);
}

TEST_F(DbFileCheckTest, NullDBInfoValuesReadAsZero) {
    MakeStoreFile("rec_0.db", 1, 2, 3, 4);
    RawExec(Path("rec_0.db"), "update DBInfo set MaxID = NULL, EndTime = NULL");
    Info info;
    EXPECT_EQ(1, Read("rec_0.db", info));
    EXPECT_EQ(0u, info.maxID);
    EXPECT_EQ(1u, info.minID);
    EXPECT_EQ(3u, info.startTime);
    EXPECT_EQ(0u, info.endTime);
}

TEST_F(DbFileCheckTest, FileJustCreatedByTheStoreReadsBackEmptyRangeAndCreationTime) {
    PlatformSim::SetTimeStamp(1700000000123ULL);
    ASSERT_EQ(1, store.CreateFileDB());
    Info info;
    EXPECT_EQ(1, Read("rec_0.db", info));
    EXPECT_EQ(0u, info.maxID);
    EXPECT_EQ(0u, info.minID);
    EXPECT_EQ(1700000000123ULL, info.startTime);
    EXPECT_EQ(1700000000123ULL, info.endTime);
}

TEST_F(DbFileCheckTest, MissingFileIsRefusedSilently) {
    Info info;
    EXPECT_EQ(0, Read("rec_5.db", info));
    EXPECT_TRUE(info.Untouched());
    EXPECT_FALSE(FileExists(Path("rec_5.db")));  // not created by the check
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DbFileCheckTest, NullOutputIsRefusedBeforeTheFileIsOpened) {
    // A file without the data table: opening it would delete it.
    RawExec(Path("rec_1.db"), "CREATE TABLE settings (k TEXT, v TEXT)");
    unsigned long long a = 0, b = 0, c = 0, d = 0;
    const std::string path = Path("rec_1.db");
    EXPECT_EQ(0, store.ReadDbInfo(path, nullptr, &b, &c, &d));
    EXPECT_EQ(0, store.ReadDbInfo(path, &a, nullptr, &c, &d));
    EXPECT_EQ(0, store.ReadDbInfo(path, &a, &b, nullptr, &d));
    EXPECT_EQ(0, store.ReadDbInfo(path, &a, &b, &c, nullptr));
    EXPECT_TRUE(FileExists(path));
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DbFileCheckTest, ForeignDatabaseWithoutDataTableIsDeletedAndLogged) {
    RawExec(Path("rec_9.db"),
            "CREATE TABLE settings (k TEXT, v TEXT); insert into settings values ('a','b')");
    Info info;
    EXPECT_EQ(0, Read("rec_9.db", info));
    EXPECT_TRUE(info.Untouched());
    EXPECT_FALSE(FileExists(Path("rec_9.db")));
    std::vector<std::string> lines = PlatformSim::TakeLogLines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(
        IsLogLine(lines[0], "DbDataRunSql.cpp", "  fileERR-----   " + Path("rec_9.db") + "\r\n"));
}

TEST_F(DbFileCheckTest, DataTableLookupIsByExactTableName) {
    // A table whose name merely starts with the data table's name is not it.
    RawExec(Path("rec_2.db"), "CREATE TABLE records (id INTEGER PRIMARY KEY, t INTEGER, v TEXT)");
    Info info;
    EXPECT_EQ(0, Read("rec_2.db", info));
    EXPECT_FALSE(FileExists(Path("rec_2.db")));
}

// SQLite opens a zero-length file as an empty database: the data table is
// not found, so the file is deleted like any file without the data table.
TEST_F(DbFileCheckTest, ZeroLengthFileCountsAsEmptyDatabaseAndIsDeleted) {
    testutil::WriteFile(Path("rec_4.db"), "");
    Info info;
    EXPECT_EQ(0, Read("rec_4.db", info));
    EXPECT_TRUE(info.Untouched());
    EXPECT_FALSE(FileExists(Path("rec_4.db")));
    std::vector<std::string> lines = PlatformSim::TakeLogLines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(
        IsLogLine(lines[0], "DbDataRunSql.cpp", "  fileERR-----   " + Path("rec_4.db") + "\r\n"));
}

TEST_F(DbFileCheckTest, TextFileIsRefusedByTheEngineLoggedAndKept) {
    const std::string text = "operator notes: not a database\n";
    testutil::WriteFile(Path("rec_3.db"), text);
    Info info;
    EXPECT_EQ(0, Read("rec_3.db", info));
    EXPECT_TRUE(info.Untouched());
    ExpectReadDbInfoLine("file is not a database");
    ASSERT_TRUE(FileExists(Path("rec_3.db")));
    EXPECT_EQ(text.size(), std::filesystem::file_size(Path("rec_3.db")));
}

TEST_F(DbFileCheckTest, FileWithoutDBInfoTableIsLoggedAndKept) {
    RawExec(Path("rec_3.db"),
            std::string(dbfiles::kCreateSql) + "; insert into rec values (1,2,'x')");
    Info info;
    EXPECT_EQ(0, Read("rec_3.db", info));
    EXPECT_TRUE(info.Untouched());
    ExpectReadDbInfoLine("no such table: DBInfo");
    ASSERT_TRUE(FileExists(Path("rec_3.db")));
    EXPECT_EQ("1", RawValue(Path("rec_3.db"), "select count(*) from rec"));
}

TEST_F(DbFileCheckTest, FileWithOnlyAVersion2RowIsSkippedSilentlyAndKept) {
    MakeStoreFile("rec_3.db", 1, 2, 3, 4);
    RawExec(Path("rec_3.db"), "update DBInfo set version = 2");
    Info info;
    EXPECT_EQ(0, Read("rec_3.db", info));
    EXPECT_TRUE(info.Untouched());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
    ASSERT_TRUE(FileExists(Path("rec_3.db")));
    EXPECT_EQ((std::vector<std::vector<std::string>>{{"2", "2", "1"}}),
              RawQuery(Path("rec_3.db"), "select version, MaxID, MinID from DBInfo"));
}

TEST_F(DbFileCheckTest, DataTableWithExtraColumnIsSkippedSilentlyAndKept) {
    MakeStoreFile("rec_3.db", 1, 2, 3, 4,
                  "CREATE TABLE rec (id INTEGER PRIMARY KEY, t INTEGER, v TEXT, w TEXT)");
    Info info;
    EXPECT_EQ(0, Read("rec_3.db", info));
    EXPECT_TRUE(info.Untouched());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
    EXPECT_TRUE(FileExists(Path("rec_3.db")));
}

TEST_F(DbFileCheckTest, ColumnListDifferingOnlyInBlanksIsSkippedSilentlyAndKept) {
    MakeStoreFile("rec_3.db", 1, 2, 3, 4,
                  "CREATE TABLE rec (id INTEGER PRIMARY KEY,  t INTEGER, v TEXT)");
    Info info;
    EXPECT_EQ(0, Read("rec_3.db", info));
    EXPECT_TRUE(info.Untouched());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
    EXPECT_TRUE(FileExists(Path("rec_3.db")));
}

TEST_F(DbFileCheckTest, ColumnListDifferingOnlyInCaseIsSkipped) {
    MakeStoreFile("rec_3.db", 1, 2, 3, 4,
                  "CREATE TABLE rec (id integer PRIMARY KEY, t INTEGER, v TEXT)");
    Info info;
    EXPECT_EQ(0, Read("rec_3.db", info));
    EXPECT_TRUE(FileExists(Path("rec_3.db")));
}

TEST_F(DbFileCheckTest, BlanksBeforeTheColumnListDoNotCount) {
    MakeStoreFile("rec_3.db", 1, 2, 3, 4,
                  "CREATE TABLE rec(id INTEGER PRIMARY KEY, t INTEGER, v TEXT)");
    Info info;
    EXPECT_EQ(1, Read("rec_3.db", info));
    EXPECT_EQ(2u, info.maxID);
}

TEST_F(DbFileCheckTest, ComparisonStopsAtTheFirstClosingParenthesis) {
    store.m_strCreateTableSql =
        "CREATE TABLE rec (id INTEGER PRIMARY KEY, name VARCHAR(20), t INTEGER)";
    // Differs only after "VARCHAR(20": accepted.
    MakeStoreFile(
        "rec_1.db", 5, 6, 7, 8,
        "CREATE TABLE rec (id INTEGER PRIMARY KEY, name VARCHAR(20), t TEXT, extra BLOB)");
    // Differs before the first ")": rejected.
    MakeStoreFile("rec_2.db", 5, 6, 7, 8,
                  "CREATE TABLE rec (id INTEGER PRIMARY KEY, name VARCHAR(30), t INTEGER)");
    Info accepted, rejected;
    EXPECT_EQ(1, Read("rec_1.db", accepted));
    EXPECT_EQ(6u, accepted.maxID);
    EXPECT_EQ(5u, accepted.minID);
    EXPECT_EQ(0, Read("rec_2.db", rejected));
    EXPECT_TRUE(rejected.Untouched());
    EXPECT_TRUE(FileExists(Path("rec_2.db")));
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

// A virtual table made with a built-in module is stored without "(": the cut
// of its column list is out of range, and that error is not caught.
TEST_F(DbFileCheckTest, StoredDefinitionWithoutParenthesisThrowsOutOfRange) {
    try {
        RawExec(Path("rec_6.db"), std::string("CREATE VIRTUAL TABLE rec USING fts4;") +
                                      dbfiles::kDBInfoSql +
                                      "; replace into DBInfo values (1,0,0,0,0,0,0,0,0,0)");
    } catch (const std::runtime_error& e) {
        GTEST_SKIP() << "no built-in fts4 module: " << e.what();
    }
    ASSERT_EQ("CREATE VIRTUAL TABLE rec USING fts4",
              RawValue(Path("rec_6.db"), "select sql from sqlite_master where name = 'rec'"));
    Info info;
    EXPECT_THROW(Read("rec_6.db", info), std::out_of_range);
    EXPECT_TRUE(info.Untouched());
    EXPECT_TRUE(FileExists(Path("rec_6.db")));
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

}  // namespace
