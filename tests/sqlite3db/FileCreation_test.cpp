// Tests of making a store's DB files and keeping their DBInfo rows current:
// DbData::CreateFileDB (numbering, leftover files, the statements run, the
// catalog entry, refusals and failures), DbData::UpdateFileDBInfo (the row it
// writes and the file it picks) and DbData::GetDBFilePath. Every file made is
// also checked with the stock sqlite3 shell.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "DbFilesFixture.h"

namespace {

using dbfiles::IsLogLine;
using dbfiles::ShellQuery;
using testutil::FileExists;
using testutil::RawExec;
using testutil::RawQuery;

using Names = std::vector<std::string>;
using Rows = std::vector<std::vector<std::string>>;

class FileCreationTest : public dbfiles::DbFilesTest {
protected:
    static DbFileInfo Entry(unsigned int id) {
        DbFileInfo rec;
        rec.SetFileID(id);
        return rec;
    }

    // A file just made by CreateFileDB at time stamp ts: the data table and
    // DBInfo as the store defines them, no data rows, one DBInfo row.
    void ExpectNewFile(const std::string& name, unsigned long long ts) {
        const std::string path = Path(name);
        const std::string t = std::to_string(ts);
        EXPECT_EQ((Rows{{"DBInfo", dbfiles::kDBInfoSql}, {"rec", dbfiles::kCreateSql}}),
                  RawQuery(path,
                           "select name, sql from sqlite_master where type = 'table' and name "
                           "in ('rec', 'DBInfo') order by name"));
        EXPECT_EQ((Rows{{"1", "0", "0", t, t, "0", "0", "0", "0", "0"}}),
                  RawQuery(path, "select * from DBInfo"));
        // The same, independently of our code, through the sqlite3 shell.
        EXPECT_EQ("DBInfo\nrec\n",
                  ShellQuery(path,
                             "select name from sqlite_master where type = 'table' and "
                             "name in ('rec', 'DBInfo') order by name;"));
        EXPECT_EQ("1|0|0|" + t + "|" + t + "|0|0|0|0|0\n",
                  ShellQuery(path, "select * from DBInfo;"));
        EXPECT_EQ("0\n", ShellQuery(path, "select count(*) from rec;"));
        EXPECT_EQ("ok\n", ShellQuery(path, "pragma integrity_check;"));
    }

    // The newest catalog entry; throws when there is none, failing the test
    // rather than the test program.
    DbFileInfo& Last() {
        if (store.m_vecFileInfo.empty()) {
            throw std::out_of_range("the catalog is empty");
        }
        return store.m_vecFileInfo.back();
    }
};

// --- CreateFileDB -------------------------------------------------------------------

TEST_F(FileCreationTest, FirstFileIsNumberZero) {
    PlatformSim::SetTimeStamp(1700000000000ULL);
    ASSERT_EQ(1, store.CreateFileDB());
    EXPECT_EQ((Names{"rec_0.db"}), FilesOnDisk());
    ExpectNewFile("rec_0.db", 1700000000000ULL);
    ASSERT_EQ(1, store.GetFileNum());
    EXPECT_EQ(0u, Last().GetFileID());
    EXPECT_EQ("rec_0.db", Last().GetFullName());
    EXPECT_EQ("rec", Last().GetFileName());
    EXPECT_EQ(0u, Last().GetStartID());
    EXPECT_EQ(0u, Last().GetEndID());
    EXPECT_EQ(1700000000000ULL, Last().GetStartTime());
    EXPECT_EQ(1700000000000ULL, Last().GetEndTime());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(FileCreationTest, EachNewFileComesAfterTheLargestNumber) {
    PlatformSim::SetTimeStamp(1000);
    ASSERT_EQ(1, store.CreateFileDB());
    PlatformSim::SetTimeStamp(2000);
    ASSERT_EQ(1, store.CreateFileDB());
    PlatformSim::SetTimeStamp(3000);
    ASSERT_EQ(1, store.CreateFileDB());
    EXPECT_EQ((Names{"rec_0.db", "rec_1.db", "rec_2.db"}), FilesOnDisk());
    ExpectNewFile("rec_0.db", 1000);
    ExpectNewFile("rec_1.db", 2000);
    ExpectNewFile("rec_2.db", 3000);
    EXPECT_EQ(3, store.GetFileNum());
    EXPECT_EQ("rec_2.db", Last().GetFullName());
    EXPECT_EQ(3000u, Last().GetStartTime());
}

TEST_F(FileCreationTest, FileAfterNumbersThreeFourSevenIsEight) {
    for (unsigned int id : {3u, 4u, 7u}) {
        DbFileInfo rec = Entry(id);
        store.InsertFileInfoIntoVector(rec);
    }
    PlatformSim::SetTimeStamp(5555);
    ASSERT_EQ(1, store.CreateFileDB());
    EXPECT_EQ((Names{"rec_8.db"}), FilesOnDisk());
    ExpectNewFile("rec_8.db", 5555);
    ASSERT_EQ(4, store.GetFileNum());
    EXPECT_EQ(8u, Last().GetFileID());
    EXPECT_EQ("rec_8.db", Last().GetFullName());
}

TEST_F(FileCreationTest, UncataloguedFileOfTheNewNumberIsReplaced) {
    for (unsigned int id : {3u, 4u, 7u}) {
        DbFileInfo rec = Entry(id);
        store.InsertFileInfoIntoVector(rec);
    }
    MakeStoreFile("rec_8.db", 100, 200, 10, 20);
    RawExec(Path("rec_8.db"), "insert into rec values (150, 15, 'old')");
    PlatformSim::SetTimeStamp(6666);
    ASSERT_EQ(1, store.CreateFileDB());
    ExpectNewFile("rec_8.db", 6666);
    EXPECT_EQ(0u, Last().GetStartID());
    EXPECT_EQ(0u, Last().GetEndID());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(FileCreationTest, LeftoverTextFileIsReplaced) {
    testutil::WriteFile(Path("rec_0.db"), "left over\n");
    PlatformSim::SetTimeStamp(42);
    ASSERT_EQ(1, store.CreateFileDB());
    ExpectNewFile("rec_0.db", 42);
}

TEST_F(FileCreationTest, NumberingStartsAgainAtZeroOnceTheCatalogIsEmpty) {
    PlatformSim::SetTimeStamp(1000);
    ASSERT_EQ(1, store.CreateFileDB());
    ASSERT_EQ(1, store.CreateFileDB());
    store.ClearFileList();
    PlatformSim::SetTimeStamp(9000);
    ASSERT_EQ(1, store.CreateFileDB());
    EXPECT_EQ((Names{"rec_0.db", "rec_1.db"}), FilesOnDisk());
    ExpectNewFile("rec_0.db", 9000);
    ASSERT_EQ(1, store.GetFileNum());
    EXPECT_EQ(0u, Last().GetFileID());
}

TEST_F(FileCreationTest, CreationIsRefusedWithoutFilesTableStatementOrSavePath) {
    auto expectRefused = [&](const char* what) {
        EXPECT_EQ(0, store.CreateFileDB()) << what;
        EXPECT_TRUE(FilesOnDisk().empty()) << what;
        EXPECT_EQ(0, store.GetFileNum()) << what;
        EXPECT_TRUE(PlatformSim::TakeLogLines().empty()) << what;
        SetUp();  // restore the configuration
    };
    store.m_bSaveFile = 0;
    expectRefused("no files");
    store.m_strCreateTableSql.clear();
    expectRefused("no table statement");
    store.m_strTableName.clear();
    expectRefused("no table name");
    store.m_strSavePath.clear();
    expectRefused("no save path");
}

TEST_F(FileCreationTest, RejectedTableStatementLeavesAFileWithoutDBInfo) {
    store.m_strCreateTableSql = "CREATE TABLE rec (id INTEGER, id INTEGER)";
    EXPECT_EQ(0, store.CreateFileDB());
    std::vector<std::string> lines = PlatformSim::TakeLogLines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(
        IsLogLine(lines[0], "DbData.cpp", "  [DB]CreateFileDB:duplicate column name: id\r\n"));
    EXPECT_EQ(0, store.GetFileNum());
    ASSERT_TRUE(FileExists(Path("rec_0.db")));
    EXPECT_EQ((Rows{{"0"}}), RawQuery(Path("rec_0.db"), "select count(*) from sqlite_master"));

    // The next creation with the same number replaces the leftover.
    store.m_strCreateTableSql = dbfiles::kCreateSql;
    PlatformSim::SetTimeStamp(77);
    ASSERT_EQ(1, store.CreateFileDB());
    ExpectNewFile("rec_0.db", 77);
}

TEST_F(FileCreationTest, UnopenableFileIsLoggedAndNotCatalogued) {
    store.m_strSavePath = dir.path() + "missing/";
    EXPECT_EQ(0, store.CreateFileDB());
    std::vector<std::string> lines = PlatformSim::TakeLogLines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(
        IsLogLine(lines[0], "DbData.cpp", "  [DB]CreateFileDB:unable to open database file\r\n"));
    EXPECT_EQ(0, store.GetFileNum());
    EXPECT_TRUE(FilesOnDisk().empty());
}

// --- UpdateFileDBInfo ---------------------------------------------------------------

TEST_F(FileCreationTest, UpdateWritesTheCurrentEntryIntoItsFile) {
    PlatformSim::SetTimeStamp(1000);
    ASSERT_EQ(1, store.CreateFileDB());
    PlatformSim::SetTimeStamp(2000);
    ASSERT_EQ(1, store.CreateFileDB());
    DbFileInfo& current = Last();
    current.SetStartID(101);
    current.SetEndID(250);
    current.SetStartTime(5000);
    current.SetEndTime(6000);
    ASSERT_EQ(1, store.UpdateFileDBInfo());
    current.SetEndID(300);
    current.SetEndTime(7000);
    ASSERT_EQ(1, store.UpdateFileDBInfo());

    EXPECT_EQ((Rows{{"1", "300", "101", "5000", "7000", "0", "0", "0", "0", "0"}}),
              RawQuery(Path("rec_1.db"), "select * from DBInfo"));
    EXPECT_EQ("1|300|101|5000|7000|0|0|0|0|0\n",
              ShellQuery(Path("rec_1.db"), "select * from DBInfo;"));
    ExpectNewFile("rec_0.db", 1000);  // the older file is not touched
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(FileCreationTest, UpdateRebuildsTheNameFromStemAndNumber) {
    MakeStoreFile("rec_4.db", 0, 0, 1, 1);
    MakeStoreFile("record_4.db", 0, 0, 1, 1);
    DbFileInfo rec;
    rec.SetFullNameAndInfo(Path("record_4.db"));
    rec.SetStartID(41);
    rec.SetEndID(49);
    store.InsertFileInfoIntoVector(rec);
    ASSERT_EQ(1, store.UpdateFileDBInfo());
    EXPECT_EQ((Rows{{"49", "41"}}), RawQuery(Path("rec_4.db"), "select MaxID, MinID from DBInfo"));
    EXPECT_EQ((Rows{{"0", "0"}}), RawQuery(Path("record_4.db"), "select MaxID, MinID from DBInfo"));
}

TEST_F(FileCreationTest, UpdateFormatsLargeNumbersSigned) {
    MakeStoreFile("rec_-1.db", 0, 0, 1, 1);
    MakeStoreFile("rec_4294967295.db", 0, 0, 1, 1);
    DbFileInfo rec = Entry(4294967295u);
    rec.SetEndID(9);
    store.InsertFileInfoIntoVector(rec);
    ASSERT_EQ(1, store.UpdateFileDBInfo());
    EXPECT_EQ((Rows{{"9"}}), RawQuery(Path("rec_-1.db"), "select MaxID from DBInfo"));
    EXPECT_EQ((Rows{{"0"}}), RawQuery(Path("rec_4294967295.db"), "select MaxID from DBInfo"));
}

TEST_F(FileCreationTest, UpdateOfAFileWithoutDBInfoIsLogged) {
    DbFileInfo rec = Entry(2);
    rec.SetEndID(9);
    store.InsertFileInfoIntoVector(rec);
    EXPECT_EQ(0, store.UpdateFileDBInfo());  // rec_2.db does not exist: opened empty
    std::vector<std::string> lines = PlatformSim::TakeLogLines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(
        IsLogLine(lines[0], "DbData.cpp", "  [DB]UpdateFileDBInfo:no such table: DBInfo\r\n"));
    EXPECT_EQ(9u, Last().GetEndID());
}

TEST_F(FileCreationTest, UpdateIsRefusedWithoutFilesSavePathOrCatalog) {
    EXPECT_EQ(0, store.UpdateFileDBInfo());  // empty catalog
    PlatformSim::SetTimeStamp(1000);
    ASSERT_EQ(1, store.CreateFileDB());
    Last().SetEndID(99);
    store.m_bSaveFile = 0;
    EXPECT_EQ(0, store.UpdateFileDBInfo());
    store.m_bSaveFile = 1;
    store.m_strSavePath.clear();
    EXPECT_EQ(0, store.UpdateFileDBInfo());
    ExpectNewFile("rec_0.db", 1000);
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

// --- GetDBFilePath ------------------------------------------------------------------

TEST_F(FileCreationTest, PathOfACatalogPosition) {
    ASSERT_EQ(1, store.CreateFileDB());
    ASSERT_EQ(1, store.CreateFileDB());
    ASSERT_EQ(1, store.CreateFileDB());
    std::string path;
    EXPECT_EQ(1, store.GetDBFilePath(0, path));
    EXPECT_EQ(Path("rec_0.db"), path);
    EXPECT_EQ(1, store.GetDBFilePath(1, path));
    EXPECT_EQ(Path("rec_1.db"), path);
    EXPECT_EQ(1, store.GetDBFilePath(-1, path));
    EXPECT_EQ(Path("rec_2.db"), path);
    path = "untouched";
    EXPECT_EQ(0, store.GetDBFilePath(3, path));
    EXPECT_EQ("untouched", path);
}

TEST_F(FileCreationTest, PathUsesTheEntrysOwnName) {
    DbFileInfo rec;
    rec.SetFullNameAndInfo(Path("record_4.db"));
    store.InsertFileInfoIntoVector(rec);
    std::string path;
    EXPECT_EQ(1, store.GetDBFilePath(-1, path));
    EXPECT_EQ(Path("record_4.db"), path);
}

TEST_F(FileCreationTest, PathAddsTheSeparatorThatTheSavePathLacks) {
    ASSERT_EQ(1, store.CreateFileDB());
    std::string dirWithoutSlash = dir.path();
    dirWithoutSlash.pop_back();
    store.m_strSavePath = dirWithoutSlash;
    std::string path;
    EXPECT_EQ(1, store.GetDBFilePath(0, path));
    EXPECT_EQ(dirWithoutSlash + "/rec_0.db", path);
}

TEST_F(FileCreationTest, NoPathWithoutCatalogOrSavePath) {
    std::string path = "untouched";
    EXPECT_EQ(0, store.GetDBFilePath(-1, path));
    EXPECT_EQ(0, store.GetDBFilePath(0, path));
    ASSERT_EQ(1, store.CreateFileDB());
    store.m_strSavePath.clear();
    EXPECT_EQ(0, store.GetDBFilePath(0, path));
    EXPECT_EQ(0, store.GetDBFilePath(-1, path));
    EXPECT_EQ("untouched", path);
}

}  // namespace
