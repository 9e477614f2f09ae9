// Tests of a store's catalog of DB files: the scan of the save directory
// (DbData::UpdateFileList) with the file check applied to every candidate,
// the ordered insert (InsertFileInfoIntoVector) and its duplicate report, the
// numeric sort, the range given to the newest file, GetMaxFileID and
// GetFileNum.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "DbFilesFixture.h"

namespace {

using dbfiles::CountLogLines;
using dbfiles::IsLogLine;
using testutil::FileExists;
using testutil::RawExec;
using testutil::RawQuery;

using Names = std::vector<std::string>;
using IDs = std::vector<unsigned int>;

class CatalogTest : public dbfiles::DbFilesTest {
protected:
    // A catalog entry made without a file.
    static DbFileInfo Entry(unsigned int id, unsigned long long startID = 0,
                            unsigned long long startTime = 0) {
        DbFileInfo rec;
        rec.SetFileID(id);
        rec.SetStartID(startID);
        rec.SetEndID(startID);
        rec.SetStartTime(startTime);
        rec.SetEndTime(startTime);
        return rec;
    }

    void Insert(DbFileInfo rec) { store.InsertFileInfoIntoVector(rec); }

    const DbFileInfo& At(size_t i) const { return store.m_vecFileInfo.at(i); }
};

// --- Scan ---------------------------------------------------------------------------

TEST_F(CatalogTest, ScanOrdersFilesByNumberAndCopiesTheirDBInfo) {
    MakeStoreFile("rec_10.db", 201, 300, 2010, 3000);
    MakeStoreFile("rec_2.db", 101, 200, 1010, 2000);
    MakeStoreFile("rec_0.db", 1, 100, 10, 1000);
    store.UpdateFileList();
    EXPECT_EQ((IDs{0, 2, 10}), CatalogIDs());
    EXPECT_EQ((Names{"rec_0.db", "rec_2.db", "rec_10.db"}), CatalogNames());
    EXPECT_EQ(101u, At(1).GetStartID());
    EXPECT_EQ(200u, At(1).GetEndID());
    EXPECT_EQ(1010u, At(1).GetStartTime());
    EXPECT_EQ(2000u, At(1).GetEndTime());
    EXPECT_EQ(201u, At(2).GetStartID());  // a non-zero start is not adjusted
    EXPECT_EQ(300u, At(2).GetEndID());
    EXPECT_EQ("rec", At(2).GetFileName());
    EXPECT_EQ(3, store.GetFileNum());
    EXPECT_EQ(10u, store.GetMaxFileID());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(CatalogTest, ScanAppliesTheFileCheckToEveryCandidate) {
    MakeStoreFile("rec_0.db", 1, 100, 10, 1000);
    testutil::WriteFile(Path("rec_1.db"), "");                              // zero-length
    testutil::WriteFile(Path("rec_2.db"), "plain text, not a database\n");  // text
    RawExec(Path("rec_3.db"), "CREATE TABLE settings (k TEXT, v TEXT)");    // another application's
    RawExec(Path("rec_4.db"), dbfiles::kCreateSql);                         // no DBInfo
    MakeStoreFile("rec_5.db", 1, 2, 3, 4);
    RawExec(Path("rec_5.db"), "update DBInfo set version = 2");  // no version-1 row
    MakeStoreFile("rec_6.db", 1, 2, 3, 4,
                  "CREATE TABLE rec (id INTEGER PRIMARY KEY, t INTEGER, v TEXT, w TEXT)");
    MakeStoreFile("rec_7.db", 1, 2, 3, 4,
                  "CREATE TABLE rec (id INTEGER PRIMARY KEY, t INTEGER,  v TEXT)");
    MakeStoreFile("rec_8.db", 101, 200, 1010, 2000);

    store.UpdateFileList();

    EXPECT_EQ((Names{"rec_0.db", "rec_8.db"}), CatalogNames());
    // Only the two files without the data table are gone.
    EXPECT_EQ(
        (Names{"rec_0.db", "rec_2.db", "rec_4.db", "rec_5.db", "rec_6.db", "rec_7.db", "rec_8.db"}),
        FilesOnDisk());
    std::vector<std::string> lines = PlatformSim::TakeLogLines();
    EXPECT_EQ(4u, lines.size());
    EXPECT_EQ(1, CountLogLines(lines, "DbDataRunSql.cpp",
                               "  fileERR-----   " + Path("rec_1.db") + "\r\n"));
    EXPECT_EQ(1, CountLogLines(lines, "DbDataRunSql.cpp",
                               "  fileERR-----   " + Path("rec_3.db") + "\r\n"));
    EXPECT_EQ(
        1, CountLogLines(lines, "DbDataRunSql.cpp", "  [DB]ReadDbInfo:file is not a database\r\n"));
    EXPECT_EQ(
        1, CountLogLines(lines, "DbDataRunSql.cpp", "  [DB]ReadDbInfo:no such table: DBInfo\r\n"));
}

TEST_F(CatalogTest, StemTestAdmitsEveryNameBeginningWithTheStem) {
    MakeStoreFile("record_5.db", 51, 60, 5, 6);
    MakeStoreFile("rec.db", 1, 10, 1, 2);
    MakeStoreFile("rec_3.db", 11, 50, 3, 4);
    MakeStoreFile("other_1.db", 1, 2, 3, 4);                                // valid, other stem
    RawExec(Path("other_2.db"), "CREATE TABLE settings (k TEXT, v TEXT)");  // never checked
    MakeStoreFile("Rec_4.db", 1, 2, 3, 4);                                  // case counts
    store.UpdateFileList();
    EXPECT_EQ((Names{"rec.db", "rec_3.db", "record_5.db"}), CatalogNames());
    EXPECT_EQ((IDs{0, 3, 5}), CatalogIDs());
    EXPECT_EQ("record", At(2).GetFileName());
    EXPECT_TRUE(FileExists(Path("other_2.db")));
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(CatalogTest, NameWithoutANumberIsCataloguedAsFileZero) {
    MakeStoreFile("rec_4.db", 11, 20, 3, 4);
    MakeStoreFile("rec_abc.db", 1, 10, 1, 2);
    store.UpdateFileList();
    EXPECT_EQ((Names{"rec_abc.db", "rec_4.db"}), CatalogNames());
    EXPECT_EQ((IDs{0, 4}), CatalogIDs());
}

TEST_F(CatalogTest, EmptyStemAdmitsEveryDbFile) {
    store.m_strFileName = "";
    MakeStoreFile("abc_1.db", 1, 10, 1, 2);
    MakeStoreFile("rec_2.db", 11, 20, 3, 4);
    RawExec(Path("zz_3.db"), "CREATE TABLE settings (k TEXT, v TEXT)");
    MakeStoreFile("rec_4.sqlite", 21, 30, 5, 6);  // not "*.db"
    store.UpdateFileList();
    EXPECT_EQ((Names{"abc_1.db", "rec_2.db"}), CatalogNames());
    // zz_3.db went through the file check, which deleted it.
    EXPECT_FALSE(FileExists(Path("zz_3.db")));
    EXPECT_TRUE(FileExists(Path("rec_4.sqlite")));
}

TEST_F(CatalogTest, NewestFileWithZeroStartContinuesThePreviousRange) {
    MakeStoreFile("rec_0.db", 1, 500, 10, 20);
    MakeStoreFile("rec_1.db", 0, 0, 30, 30);
    store.UpdateFileList();
    ASSERT_EQ(2, store.GetFileNum());
    EXPECT_EQ(500u, At(1).GetStartID());
    EXPECT_EQ(500u, At(1).GetEndID());
    EXPECT_EQ(30u, At(1).GetStartTime());
    EXPECT_EQ(1u, At(0).GetStartID());
    // The file's own row is not rewritten.
    EXPECT_EQ((std::vector<std::vector<std::string>>{{"1", "0", "0", "30", "30"}}),
              RawQuery(Path("rec_1.db"),
                       "select version, MaxID, MinID, StartTime, EndTime "
                       "from DBInfo"));
}

TEST_F(CatalogTest, NewestFileWithZeroStartTakesThePreviousEndAsBothBounds) {
    MakeStoreFile("rec_0.db", 1, 500, 10, 20);
    MakeStoreFile("rec_1.db", 0, 7, 30, 30);
    store.UpdateFileList();
    EXPECT_EQ(500u, At(1).GetStartID());
    EXPECT_EQ(500u, At(1).GetEndID());
}

TEST_F(CatalogTest, OnlyTheNewestFileIsAdjusted) {
    MakeStoreFile("rec_0.db", 1, 100, 10, 20);
    MakeStoreFile("rec_1.db", 0, 0, 30, 30);
    MakeStoreFile("rec_2.db", 201, 300, 40, 50);
    store.UpdateFileList();
    EXPECT_EQ(0u, At(1).GetStartID());
    EXPECT_EQ(0u, At(1).GetEndID());
    EXPECT_EQ(201u, At(2).GetStartID());
}

TEST_F(CatalogTest, SingleFileWithZeroStartKeepsIt) {
    MakeStoreFile("rec_0.db", 0, 42, 10, 20);
    store.UpdateFileList();
    ASSERT_EQ(1, store.GetFileNum());
    EXPECT_EQ(0u, At(0).GetStartID());
    EXPECT_EQ(42u, At(0).GetEndID());
}

TEST_F(CatalogTest, SameNumberAndSameStartIsReportedAndBothAreCatalogued) {
    MakeStoreFile("rec_3.db", 1, 50, 1000, 2000);
    MakeStoreFile("rec_03.db", 1, 50, 1000, 2000);
    MakeStoreFile("rec_4.db", 51, 60, 2001, 3000);
    store.UpdateFileList();
    std::vector<std::string> lines = PlatformSim::TakeLogLines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(IsLogLine(lines[0], "DbData.cpp", "  InsertFileInfoIntoVector 11\r\n"));
    // The sort brings the twin back among its equals, in either order.
    EXPECT_EQ((IDs{3, 3, 4}), CatalogIDs());
    Names twins{At(0).GetFullName(), At(1).GetFullName()};
    std::sort(twins.begin(), twins.end());
    EXPECT_EQ((Names{"rec_03.db", "rec_3.db"}), twins);
    EXPECT_TRUE(FileExists(Path("rec_3.db")));
    EXPECT_TRUE(FileExists(Path("rec_03.db")));
}

TEST_F(CatalogTest, SameNumberWithAnotherStartIsNotReported) {
    MakeStoreFile("rec_3.db", 1, 50, 1000, 2000);
    MakeStoreFile("rec_03.db", 51, 60, 1000, 2000);
    store.UpdateFileList();
    EXPECT_EQ((IDs{3, 3}), CatalogIDs());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(CatalogTest, SortComparesFileNumbersUnsigned) {
    MakeStoreFile("rec_-1.db", 61, 70, 5, 6);  // number 2^32 - 1
    MakeStoreFile("rec_5.db", 51, 60, 3, 4);
    store.UpdateFileList();
    EXPECT_EQ((IDs{5, 4294967295u}), CatalogIDs());
    EXPECT_EQ(4294967295u, store.GetMaxFileID());
}

TEST_F(CatalogTest, ScanOnlyAddsToTheCatalog) {
    Insert(Entry(9, 900));  // no such file on disk
    MakeStoreFile("rec_2.db", 11, 20, 3, 4);
    MakeStoreFile("rec_12.db", 21, 30, 5, 6);
    store.UpdateFileList();
    EXPECT_EQ((IDs{2, 9, 12}), CatalogIDs());
}

TEST_F(CatalogTest, EmptyDirectoryGivesEmptyCatalog) {
    store.UpdateFileList();
    EXPECT_EQ(0, store.GetFileNum());
    EXPECT_EQ(0u, store.GetMaxFileID());
}

TEST_F(CatalogTest, UnreadableSaveDirectoryLeavesTheCatalogAsItWas) {
    MakeStoreFile("rec_1.db", 11, 20, 3, 4);
    Insert(Entry(7));
    store.m_vecFileInfo.push_back(Entry(2));  // out of order: no sort must run
    store.m_strSavePath = dir.path() + "missing/";
    store.UpdateFileList();
    EXPECT_EQ((IDs{7, 2}), CatalogIDs());
    store.m_strSavePath = Path("rec_1.db");  // a file, not a directory
    store.UpdateFileList();
    EXPECT_EQ((IDs{7, 2}), CatalogIDs());
}

TEST_F(CatalogTest, NoScanWithoutFilesOrSavePath) {
    MakeStoreFile("rec_1.db", 11, 20, 3, 4);
    RawExec(Path("rec_2.db"), "CREATE TABLE settings (k TEXT, v TEXT)");
    store.m_bSaveFile = 0;
    store.UpdateFileList();
    EXPECT_EQ(0, store.GetFileNum());
    store.m_bSaveFile = 1;
    store.m_strSavePath.clear();
    store.UpdateFileList();
    EXPECT_EQ(0, store.GetFileNum());
    EXPECT_TRUE(FileExists(Path("rec_2.db")));  // never checked, so never deleted
}

// --- Ordered insert ---------------------------------------------------------------

TEST_F(CatalogTest, InsertKeepsFileNumberOrder) {
    Insert(Entry(5));
    Insert(Entry(1));
    Insert(Entry(3));
    Insert(Entry(9));
    EXPECT_EQ((IDs{1, 3, 5, 9}), CatalogIDs());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(CatalogTest, InsertedTwinIsReportedAndAppendedAtTheEnd) {
    Insert(Entry(1, 1, 100));
    Insert(Entry(3, 31, 300));
    Insert(Entry(5, 51, 500));
    Insert(Entry(3, 31, 300));
    EXPECT_EQ((IDs{1, 3, 5, 3}), CatalogIDs());
    std::vector<std::string> lines = PlatformSim::TakeLogLines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_TRUE(IsLogLine(lines[0], "DbData.cpp", "  InsertFileInfoIntoVector 11\r\n"));
}

TEST_F(CatalogTest, SameNumberWithAnotherStartGoesBeforeTheExistingEntry) {
    Insert(Entry(1, 1, 100));
    Insert(Entry(3, 31, 300));
    Insert(Entry(5, 51, 500));
    Insert(Entry(3, 32, 300));  // other StartID
    Insert(Entry(3, 32, 301));  // other StartTime
    EXPECT_EQ((IDs{1, 3, 3, 3, 5}), CatalogIDs());
    EXPECT_EQ(301u, At(1).GetStartTime());
    EXPECT_EQ(32u, At(2).GetStartID());
    EXPECT_EQ(31u, At(3).GetStartID());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(CatalogTest, InsertWalkComparesFileNumbersSigned) {
    Insert(Entry(1));
    Insert(Entry(7));
    Insert(Entry(0x80000001u));  // negative when signed: goes first
    EXPECT_EQ((IDs{0x80000001u, 1, 7}), CatalogIDs());
    store.m_vecFileInfo.clear();
    Insert(Entry(0x80000000u));
    Insert(Entry(5));  // above every negative number: goes last
    EXPECT_EQ((IDs{0x80000000u, 5}), CatalogIDs());
}

TEST_F(CatalogTest, InsertReleasesTheCatalogLock) {
    Insert(Entry(1));
    ASSERT_NE(0, store.m_mutexFile.TryLock(200));
    store.m_mutexFile.Unlock();
}

TEST_F(CatalogTest, MaxFileIDIsTheLargestUnsignedNumber) {
    EXPECT_EQ(0u, store.GetMaxFileID());
    EXPECT_EQ(0, store.GetFileNum());
    store.m_vecFileInfo.push_back(Entry(3));
    store.m_vecFileInfo.push_back(Entry(0x80000000u));
    store.m_vecFileInfo.push_back(Entry(7));
    EXPECT_EQ(0x80000000u, store.GetMaxFileID());
    EXPECT_EQ(3, store.GetFileNum());
}

}  // namespace
