// DbFileInfo, the catalog entry of one DB file: its accessors, reading the
// file number back out of a DB file name ("<stem>_<number>.db") and a path,
// the guarded EndID updates and their log line, the time stamp updates, the
// file-number ordering used to sort the catalog, and value semantics.
#include "Sqlite3DB/DbFileInfo/DbFileInfo.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "PlatformSim.h"

namespace {

const char kLogPrefix[] = "[App ]: DbFileInfo.cpp(";
const char kLogSuffix[] = "):  [DB]UpdateEndID:err\r\n";

class DbFileInfoTest : public ::testing::Test {
protected:
    void SetUp() override { PlatformSim::Reset(); }
    void TearDown() override { PlatformSim::Reset(); }

    // A record with FileID 42 already set, to see which names leave it.
    static DbFileInfo WithFileID42() {
        DbFileInfo rec;
        rec.SetFileID(42u);
        return rec;
    }

    // Checks that exactly one line was logged and that it is the refused
    // UpdateEndID line: prefix, a decimal source line, fixed suffix.
    static void ExpectOneUpdateEndIDErrLine() {
        std::vector<std::string> lines = PlatformSim::TakeLogLines();
        ASSERT_EQ(1u, lines.size());
        const std::string& line = lines[0];
        const std::string prefix = kLogPrefix;
        const std::string suffix = kLogSuffix;
        ASSERT_GT(line.size(), prefix.size() + suffix.size());
        EXPECT_EQ(prefix, line.substr(0, prefix.size())) << line;
        EXPECT_EQ(suffix, line.substr(line.size() - suffix.size())) << line;
        std::string number =
            line.substr(prefix.size(), line.size() - prefix.size() - suffix.size());
        EXPECT_FALSE(number.empty());
        EXPECT_EQ(std::string::npos, number.find_first_not_of("0123456789")) << line;
    }
};

}  // namespace

// --- Construction and accessors ----------------------------------------------

TEST_F(DbFileInfoTest, NewRecordIsZeroAndEmpty) {
    DbFileInfo rec;
    EXPECT_EQ(0u, rec.GetFileID());
    EXPECT_EQ("", rec.GetFileName());
    EXPECT_EQ("", rec.GetProjMD5());
    EXPECT_EQ("", rec.GetFullName());
    EXPECT_EQ(0u, rec.GetStartTime());
    EXPECT_EQ(0u, rec.GetEndTime());
    EXPECT_EQ(0u, rec.GetStartID());
    EXPECT_EQ(0u, rec.GetEndID());
}

TEST_F(DbFileInfoTest, SettersAndGettersRoundTripFullWidthValues) {
    DbFileInfo rec;
    rec.SetFileID(4294967295u);
    rec.SetFileName("rec");
    rec.SetProjMD5("900150983cd24fb0d6963f7d28e17f72");
    rec.SetStartTime(18446744073709551615ULL);
    rec.SetEndTime(1700000000123ULL);
    rec.SetStartID(1ULL << 40);
    rec.SetEndID((1ULL << 63) + 5);
    EXPECT_EQ(4294967295u, rec.GetFileID());
    EXPECT_EQ("rec", rec.GetFileName());
    EXPECT_EQ("900150983cd24fb0d6963f7d28e17f72", rec.GetProjMD5());
    EXPECT_EQ(18446744073709551615ULL, rec.GetStartTime());
    EXPECT_EQ(1700000000123ULL, rec.GetEndTime());
    EXPECT_EQ(1ULL << 40, rec.GetStartID());
    EXPECT_EQ((1ULL << 63) + 5, rec.GetEndID());
}

TEST_F(DbFileInfoTest, PlainSettersAcceptAnEndBelowTheStart) {
    DbFileInfo rec;
    rec.SetStartID(100);
    rec.SetEndID(5);
    rec.SetStartTime(900);
    rec.SetEndTime(10);
    EXPECT_EQ(5u, rec.GetEndID());
    EXPECT_EQ(10u, rec.GetEndTime());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DbFileInfoTest, GettersReturnCopies) {
    DbFileInfo rec;
    rec.SetFileName("rec");
    std::string name = rec.GetFileName();
    name += "_changed";
    EXPECT_EQ("rec", rec.GetFileName());
}

// --- SetFullNameAndInfo ---------------------------------------------------------

TEST_F(DbFileInfoTest, FullPathGivesNameStemAndNumber) {
    DbFileInfo rec;
    rec.SetFullNameAndInfo("/mnt/data/x/rec_7.db");
    EXPECT_EQ("rec_7.db", rec.GetFullName());
    EXPECT_EQ("rec", rec.GetFileName());
    EXPECT_EQ(7u, rec.GetFileID());
}

TEST_F(DbFileInfoTest, FileNumberZero) {
    DbFileInfo rec = WithFileID42();
    rec.SetFullNameAndInfo("/d/rec_0.db");
    EXPECT_EQ("rec_0.db", rec.GetFullName());
    EXPECT_EQ("rec", rec.GetFileName());
    EXPECT_EQ(0u, rec.GetFileID());
}

TEST_F(DbFileInfoTest, LargeFileNumber) {
    DbFileInfo rec;
    rec.SetFullNameAndInfo("/d/rec_2147483647.db");
    EXPECT_EQ(2147483647u, rec.GetFileID());
}

TEST_F(DbFileInfoTest, NameWithoutUnderscoreKeepsTheWholeNameAndTheOldNumber) {
    DbFileInfo rec = WithFileID42();
    rec.SetFullNameAndInfo("/d/rec.db");
    EXPECT_EQ("rec.db", rec.GetFullName());
    EXPECT_EQ("rec.db", rec.GetFileName());
    EXPECT_EQ(42u, rec.GetFileID());
}

TEST_F(DbFileInfoTest, NameWithoutDotKeepsTheOldNumber) {
    DbFileInfo rec = WithFileID42();
    rec.SetFullNameAndInfo("/d/rec_7");
    EXPECT_EQ("rec_7", rec.GetFullName());
    EXPECT_EQ("rec", rec.GetFileName());
    EXPECT_EQ(42u, rec.GetFileID());
}

TEST_F(DbFileInfoTest, StemWithUnderscoreKeepsTheOldNumber) {
    DbFileInfo rec = WithFileID42();
    rec.SetFullNameAndInfo("/d/my_rec_5.db");
    EXPECT_EQ("my_rec_5.db", rec.GetFullName());
    EXPECT_EQ("my", rec.GetFileName());
    EXPECT_EQ(42u, rec.GetFileID());
}

TEST_F(DbFileInfoTest, PathWithoutSlashOnANewRecordChangesNothing) {
    DbFileInfo rec = WithFileID42();
    rec.SetFileName("keep");
    rec.SetFullNameAndInfo("rec_3.db");
    EXPECT_EQ("", rec.GetFullName());
    // FileName is taken again from the (unchanged, empty) FullName.
    EXPECT_EQ("", rec.GetFileName());
    EXPECT_EQ(42u, rec.GetFileID());
}

TEST_F(DbFileInfoTest, PathWithoutSlashKeepsTheOldNameAndRereadsIt) {
    DbFileInfo rec;
    rec.SetFullNameAndInfo("/d/rec_3.db");
    rec.SetFileName("other");
    rec.SetFileID(99u);
    rec.SetFullNameAndInfo("log_8.db");
    EXPECT_EQ("rec_3.db", rec.GetFullName());
    EXPECT_EQ("rec", rec.GetFileName());
    EXPECT_EQ(3u, rec.GetFileID());
}

TEST_F(DbFileInfoTest, BackslashPathDoesNotSplit) {
    DbFileInfo rec = WithFileID42();
    rec.SetFullNameAndInfo("C:\\data\\rec_3.db");
    EXPECT_EQ("", rec.GetFullName());
    EXPECT_EQ(42u, rec.GetFileID());
}

TEST_F(DbFileInfoTest, Utf8StemPassesThrough) {
    const std::string stem = "\xe8\xae\xb0\xe5\xbd\x95";  // "记录"
    DbFileInfo rec;
    rec.SetFullNameAndInfo("/mnt/data/" + stem + "/" + stem + "_11.db");
    EXPECT_EQ(stem + "_11.db", rec.GetFullName());
    EXPECT_EQ(stem, rec.GetFileName());
    EXPECT_EQ(11u, rec.GetFileID());
}

TEST_F(DbFileInfoTest, SetFullNameAndInfoLeavesRangesAndMD5) {
    DbFileInfo rec;
    rec.SetProjMD5("md5");
    rec.SetStartID(1);
    rec.SetEndID(2);
    rec.SetStartTime(3);
    rec.SetEndTime(4);
    rec.SetFullNameAndInfo("/d/rec_5.db");
    EXPECT_EQ("md5", rec.GetProjMD5());
    EXPECT_EQ(1u, rec.GetStartID());
    EXPECT_EQ(2u, rec.GetEndID());
    EXPECT_EQ(3u, rec.GetStartTime());
    EXPECT_EQ(4u, rec.GetEndTime());
}

// --- SetFileID(name) ---------------------------------------------------------------

TEST_F(DbFileInfoTest, SetFileIDReadsTheNumberOnly) {
    DbFileInfo rec;
    rec.SetFileName("stem");
    rec.SetFileID(std::string("rec_12.db"));
    EXPECT_EQ(12u, rec.GetFileID());
    EXPECT_EQ("stem", rec.GetFileName());
    EXPECT_EQ("", rec.GetFullName());
}

TEST_F(DbFileInfoTest, SetFileIDSkipsLeadingBlanks) {
    DbFileInfo rec = WithFileID42();
    rec.SetFileID(std::string("rec_ 12.db"));
    EXPECT_EQ(12u, rec.GetFileID());
}

TEST_F(DbFileInfoTest, SetFileIDStopsAtTheFirstNonDigit) {
    DbFileInfo rec = WithFileID42();
    rec.SetFileID(std::string("rec_12x.db"));
    EXPECT_EQ(12u, rec.GetFileID());
}

TEST_F(DbFileInfoTest, SetFileIDStoresANegativeNumbersBitPattern) {
    DbFileInfo rec;
    rec.SetFileID(std::string("rec_-1.db"));
    EXPECT_EQ(4294967295u, rec.GetFileID());
}

TEST_F(DbFileInfoTest, SetFileIDAcceptsAPlusSign) {
    DbFileInfo rec;
    rec.SetFileID(std::string("rec_+9.db"));
    EXPECT_EQ(9u, rec.GetFileID());
}

TEST_F(DbFileInfoTest, SetFileIDUsesTheLastDot) {
    DbFileInfo rec;
    rec.SetFileID(std::string("rec_4.db.bak"));
    EXPECT_EQ(4u, rec.GetFileID());
}

TEST_F(DbFileInfoTest, SetFileIDKeepsTheOldNumberWhenNothingParses) {
    for (const char* name :
         {"rec_x1.db", "rec_.db", "rec.db", "rec_7", "my_rec_5.db", "", ".db", "_.db"}) {
        DbFileInfo rec = WithFileID42();
        rec.SetFileID(std::string(name));
        EXPECT_EQ(42u, rec.GetFileID()) << name;
    }
}

TEST_F(DbFileInfoTest, SetFileIDParsesANameWithoutAStem) {
    DbFileInfo rec;
    rec.SetFileID(std::string("_6.db"));
    EXPECT_EQ(6u, rec.GetFileID());
}

// --- UpdateEndID family -----------------------------------------------------------

TEST_F(DbFileInfoTest, UpdateEndIDAcceptsTheStartID) {
    DbFileInfo rec;
    rec.SetStartID(10);
    rec.SetEndID(3);
    EXPECT_EQ(1, rec.UpdateEndID(10));
    EXPECT_EQ(10u, rec.GetEndID());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DbFileInfoTest, UpdateEndIDAcceptsLargerIDsWithoutTouchingEndTime) {
    DbFileInfo rec;
    rec.SetStartID(10);
    rec.SetEndTime(77);
    PlatformSim::SetTimeStamp(5000);
    EXPECT_EQ(1, rec.UpdateEndID(1ULL << 63));
    EXPECT_EQ(1ULL << 63, rec.GetEndID());
    EXPECT_EQ(77u, rec.GetEndTime());
}

TEST_F(DbFileInfoTest, UpdateEndIDRefusesAnIDBelowTheStartAndLogs) {
    DbFileInfo rec;
    rec.SetStartID(10);
    rec.SetEndID(20);
    EXPECT_EQ(0, rec.UpdateEndID(9));
    EXPECT_EQ(20u, rec.GetEndID());
    ExpectOneUpdateEndIDErrLine();
}

TEST_F(DbFileInfoTest, UpdateEndIDComparesUnsigned) {
    DbFileInfo rec;
    rec.SetStartID(1ULL << 63);
    EXPECT_EQ(0, rec.UpdateEndID(5));
    ExpectOneUpdateEndIDErrLine();
    EXPECT_EQ(1, rec.UpdateEndID(18446744073709551615ULL));
    EXPECT_EQ(18446744073709551615ULL, rec.GetEndID());
}

TEST_F(DbFileInfoTest, UpdateEndIDAndEndTimeSetsBothFromTheTimeStamp) {
    DbFileInfo rec;
    rec.SetStartID(10);
    PlatformSim::SetTimeStamp(1700000000123ULL);
    EXPECT_EQ(1, rec.UpdateEndIDAndEndTime(10));
    EXPECT_EQ(10u, rec.GetEndID());
    EXPECT_EQ(1700000000123ULL, rec.GetEndTime());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DbFileInfoTest, UpdateEndIDAndEndTimeRefusedLeavesEndIDAndEndTime) {
    DbFileInfo rec;
    rec.SetStartID(10);
    rec.SetEndID(15);
    rec.SetEndTime(77);
    PlatformSim::SetTimeStamp(5000);
    EXPECT_EQ(0, rec.UpdateEndIDAndEndTime(9));
    EXPECT_EQ(15u, rec.GetEndID());
    EXPECT_EQ(77u, rec.GetEndTime());
    ExpectOneUpdateEndIDErrLine();
}

TEST_F(DbFileInfoTest, UpdateEndIDAndEndTimeNoNameSetsBothFromTheTimeStamp) {
    DbFileInfo rec;
    rec.SetStartID(10);
    PlatformSim::SetTimeStamp(424242);
    EXPECT_EQ(1, rec.UpdateEndIDAndEndTimeNoName(11));
    EXPECT_EQ(11u, rec.GetEndID());
    EXPECT_EQ(424242u, rec.GetEndTime());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DbFileInfoTest, UpdateEndIDAndEndTimeNoNameRefusedLeavesEndIDAndEndTime) {
    DbFileInfo rec;
    rec.SetStartID(10);
    rec.SetEndID(15);
    rec.SetEndTime(77);
    PlatformSim::SetTimeStamp(5000);
    EXPECT_EQ(0, rec.UpdateEndIDAndEndTimeNoName(0));
    EXPECT_EQ(15u, rec.GetEndID());
    EXPECT_EQ(77u, rec.GetEndTime());
    ExpectOneUpdateEndIDErrLine();
}

TEST_F(DbFileInfoTest, UpdateEndTimeTakesTheTimeStampUnconditionally) {
    DbFileInfo rec;
    rec.SetStartTime(9000);
    rec.SetEndTime(9999);
    PlatformSim::SetTimeStamp(5);
    rec.UpdateEndTime();
    EXPECT_EQ(5u, rec.GetEndTime());
    EXPECT_EQ(9000u, rec.GetStartTime());
    PlatformSim::SetTimeStamp(123456789012ULL);
    rec.UpdateEndTime();
    EXPECT_EQ(123456789012ULL, rec.GetEndTime());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

// --- Ordering ---------------------------------------------------------------------

TEST_F(DbFileInfoTest, MyfunctionOrdersByFileNumber) {
    DbFileInfo a, b;
    a.SetFileID(1u);
    b.SetFileID(2u);
    EXPECT_TRUE(myfunction(a, b));
    EXPECT_FALSE(myfunction(b, a));
}

TEST_F(DbFileInfoTest, MyfunctionComparesUnsigned) {
    DbFileInfo one, big;
    one.SetFileID(1u);
    big.SetFileID(2147483648u);
    EXPECT_TRUE(myfunction(one, big));
    EXPECT_FALSE(myfunction(big, one));
}

TEST_F(DbFileInfoTest, MyfunctionTreatsEqualNumbersAsEquivalent) {
    DbFileInfo a, b;
    a.SetFileID(3u);
    a.SetFileName("a");
    b.SetFileID(3u);
    b.SetFileName("b");
    EXPECT_FALSE(myfunction(a, b));
    EXPECT_FALSE(myfunction(b, a));
}

TEST_F(DbFileInfoTest, MyfunctionLooksOnlyAtTheFileNumber) {
    DbFileInfo a, b;
    a.SetFileID(1u);
    a.SetStartID(1000);
    a.SetStartTime(1000);
    b.SetFileID(2u);
    EXPECT_TRUE(myfunction(a, b));
}

TEST_F(DbFileInfoTest, SortingACatalogOrdersItByFileNumber) {
    const unsigned int ids[] = {10u, 2147483648u, 0u, 3u, 4294967295u, 1u, 2u};
    std::vector<DbFileInfo> catalog;
    for (unsigned int id : ids) {
        DbFileInfo rec;
        rec.SetFileID(id);
        rec.SetStartID(id);  // travels with its record
        catalog.push_back(rec);
    }
    std::sort(catalog.begin(), catalog.end(), myfunction);
    const unsigned int expected[] = {0u, 1u, 2u, 3u, 10u, 2147483648u, 4294967295u};
    ASSERT_EQ(7u, catalog.size());
    for (size_t i = 0; i < catalog.size(); ++i) {
        EXPECT_EQ(expected[i], catalog[i].GetFileID()) << i;
        EXPECT_EQ(expected[i], catalog[i].GetStartID()) << i;
    }
}

TEST_F(DbFileInfoTest, SortingFileNamesParsedFromPaths) {
    std::vector<DbFileInfo> catalog;
    for (const char* path : {"/d/rec_12.db", "/d/rec_2.db", "/d/rec_0.db", "/d/rec_100.db"}) {
        DbFileInfo rec;
        rec.SetFullNameAndInfo(path);
        catalog.push_back(rec);
    }
    std::sort(catalog.begin(), catalog.end(), myfunction);
    ASSERT_EQ(4u, catalog.size());
    EXPECT_EQ("rec_0.db", catalog[0].GetFullName());
    EXPECT_EQ("rec_2.db", catalog[1].GetFullName());
    EXPECT_EQ("rec_12.db", catalog[2].GetFullName());
    EXPECT_EQ("rec_100.db", catalog[3].GetFullName());
}

// --- Value semantics --------------------------------------------------------------

TEST_F(DbFileInfoTest, CopyIsIndependent) {
    DbFileInfo a;
    a.SetFullNameAndInfo("/d/rec_3.db");
    a.SetProjMD5("m");
    a.SetStartID(1);
    a.SetEndID(2);
    a.SetStartTime(3);
    a.SetEndTime(4);

    DbFileInfo b(a);
    EXPECT_EQ(3u, b.GetFileID());
    EXPECT_EQ("rec", b.GetFileName());
    EXPECT_EQ("rec_3.db", b.GetFullName());
    EXPECT_EQ("m", b.GetProjMD5());
    EXPECT_EQ(1u, b.GetStartID());
    EXPECT_EQ(2u, b.GetEndID());
    EXPECT_EQ(3u, b.GetStartTime());
    EXPECT_EQ(4u, b.GetEndTime());

    b.SetFullNameAndInfo("/e/log_9.db");
    b.SetProjMD5("n");
    b.SetEndID(50);
    EXPECT_EQ(3u, a.GetFileID());
    EXPECT_EQ("rec", a.GetFileName());
    EXPECT_EQ("rec_3.db", a.GetFullName());
    EXPECT_EQ("m", a.GetProjMD5());
    EXPECT_EQ(2u, a.GetEndID());
}

TEST_F(DbFileInfoTest, AssignmentIsIndependent) {
    DbFileInfo a;
    a.SetFullNameAndInfo("/d/rec_3.db");
    a.SetStartTime(30);
    DbFileInfo b;
    b.SetFullNameAndInfo("/e/log_9.db");
    b.SetEndTime(90);

    b = a;
    EXPECT_EQ(3u, b.GetFileID());
    EXPECT_EQ("rec", b.GetFileName());
    EXPECT_EQ("rec_3.db", b.GetFullName());
    EXPECT_EQ(30u, b.GetStartTime());
    EXPECT_EQ(0u, b.GetEndTime());

    a.SetFullNameAndInfo("/f/new_4.db");
    a.SetStartTime(40);
    EXPECT_EQ("rec_3.db", b.GetFullName());
    EXPECT_EQ(3u, b.GetFileID());
    EXPECT_EQ(30u, b.GetStartTime());
}
