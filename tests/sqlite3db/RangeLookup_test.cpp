// Range lookup over files: the overlap predicates for IDs and time stamps
// (four tests in a fixed order, unsigned, bounds taken as given) and the
// lookups that turn an ID or time range into catalog indexes, with -1 for
// the memory buffer, oldest or newest first.
#include <gtest/gtest.h>

#include <vector>

#include "PlatformSim.h"
#include "Sqlite3DB/DbData/DbData.h"

namespace {

const unsigned long long kMax = ~0ULL;

// A store that only carries a catalog and buffer ranges: the lookups touch
// neither the disk nor the databases.
class RangeLookupTest : public ::testing::Test {
protected:
    void SetUp() override { PlatformSim::Reset(); }
    void TearDown() override { PlatformSim::Reset(); }

    void AddEntry(unsigned long long startID, unsigned long long endID,
                  unsigned long long startTime, unsigned long long endTime) {
        DbFileInfo rec;
        rec.SetFileID(static_cast<unsigned int>(m_store.m_vecFileInfo.size()));
        rec.SetStartID(startID);
        rec.SetEndID(endID);
        rec.SetStartTime(startTime);
        rec.SetEndTime(endTime);
        m_store.m_vecFileInfo.push_back(rec);
    }

    // Files with IDs [1,100], [101,200], [201,300] and times ten times that.
    void AddThreeFiles() {
        AddEntry(1, 100, 10, 1000);
        AddEntry(101, 200, 1010, 2000);
        AddEntry(201, 300, 2010, 3000);
    }

    void SetBuffer(int useMemDB, unsigned long long minID, unsigned long long maxID,
                   unsigned long long startTime, unsigned long long endTime) {
        m_store.m_bUseMemDB = useMemDB;
        m_store.m_nMemMinID = minID;
        m_store.m_nMemMaxID = maxID;
        m_store.m_nMemStartTime = startTime;
        m_store.m_nMemEndTime = endTime;
    }

    std::vector<int> ById(unsigned long long start, unsigned long long end, int order) {
        std::vector<int> result;
        EXPECT_EQ(1, m_store.FindFile_ID(result, start, end, order));
        return result;
    }

    std::vector<int> ByTime(unsigned long long start, unsigned long long end, int order) {
        std::vector<int> result;
        EXPECT_EQ(1, m_store.FindFile_Time(result, start, end, order));
        return result;
    }

    DbData m_store;
};

using V = std::vector<int>;

// --- Overlap predicates ----------------------------------------------------

struct PredicateCase {
    unsigned long long start, end, fileStart, fileEnd;
    int expected;
};

const PredicateCase kPredicateCases[] = {
    {0, 0, 500, 600, 1},              // open request matches everything
    {0, 0, 0, 0, 1},                  //
    {150, 250, 201, 300, 1},          // file begins inside
    {150, 250, 101, 200, 1},          // file ends inside
    {120, 130, 101, 200, 1},          // file strictly contains the request
    {101, 200, 101, 200, 1},          // equal bounds are inclusive
    {200, 300, 101, 200, 1},          // touching at the file's end
    {1, 101, 101, 200, 1},            // touching at the file's start
    {201, 300, 101, 200, 0},          // after the file
    {1, 100, 101, 200, 0},            // before the file
    {101, 200, 101, 101, 1},          // one-record file at the request's start
    {300, 0, 1, 100, 1},              // end 0: only test 4 can hold; 1 < 300, 0 < 100
    {300, 0, 300, 400, 0},            // start not below 300
    {300, 0, 0, 0, 0},                // end not above 0
    {0, 50, 10, 20, 1},               // a single zero bound has no special meaning
    {50, 0, 10, 20, 1},               // 10 < 50 and 0 < 20
    {50, 0, 60, 70, 0},               //
    {250, 150, 101, 200, 1},          // reversed: 101 < 250 and 150 < 200
    {250, 150, 201, 300, 1},          // reversed: 201 < 250 and 150 < 300
    {250, 150, 1, 100, 0},            // reversed: 150 < 100 fails
    {250, 150, 150, 150, 0},          // reversed: 150 < 150 fails
    {5, 10, 3, 1ULL << 63, 1},        // unsigned: 2^63 is above 10
    {1ULL << 63, kMax, 1, 2, 0},      // unsigned: the file lies far below
    {kMax - 1, kMax, kMax, kMax, 1},  // top of the range
};

TEST_F(RangeLookupTest, IdPredicateAppliesTheFourTestsUnsignedAndUnnormalised) {
    for (const PredicateCase& c : kPredicateCases) {
        EXPECT_EQ(c.expected, m_store.FineIDCmpFileID(c.start, c.end, c.fileStart, c.fileEnd))
            << "request (" << c.start << "," << c.end << ") file [" << c.fileStart << ","
            << c.fileEnd << "]";
    }
}

TEST_F(RangeLookupTest, TimePredicateAppliesTheSameTests) {
    for (const PredicateCase& c : kPredicateCases) {
        EXPECT_EQ(c.expected, m_store.FineTimeCmpFileTime(c.start, c.end, c.fileStart, c.fileEnd))
            << "request (" << c.start << "," << c.end << ") file [" << c.fileStart << ","
            << c.fileEnd << "]";
    }
}

// --- FindFile_ID ------------------------------------------------------------

TEST_F(RangeLookupTest, IdRangeOverTwoFilesListsThemInTheRequestedOrder) {
    AddThreeFiles();
    EXPECT_EQ(V({1, 2}), ById(150, 250, 1));
    EXPECT_EQ(V({2, 1}), ById(150, 250, 0));
    EXPECT_EQ(V({1, 2}), ById(150, 250, -3));  // any non-zero order is oldest first
}

TEST_F(RangeLookupTest, OpenIdRangeListsEveryFileAndTheBuffer) {
    AddThreeFiles();
    SetBuffer(1, 301, 310, 3010, 3100);
    EXPECT_EQ(V({0, 1, 2, -1}), ById(0, 0, 1));
    EXPECT_EQ(V({-1, 2, 1, 0}), ById(0, 0, 0));
}

TEST_F(RangeLookupTest, OpenIdRangeWithoutBufferingListsOnlyTheFiles) {
    AddThreeFiles();
    SetBuffer(0, 301, 310, 3010, 3100);
    EXPECT_EQ(V({0, 1, 2}), ById(0, 0, 1));
    EXPECT_EQ(V({2, 1, 0}), ById(0, 0, 0));
}

TEST_F(RangeLookupTest, IdRangeInsideOneFileMatchesItByContainment) {
    AddThreeFiles();
    EXPECT_EQ(V({1}), ById(120, 130, 1));
    EXPECT_EQ(V({1}), ById(120, 130, 0));
}

TEST_F(RangeLookupTest, IdBoundsEqualToAFilesBoundsMatchIt) {
    AddThreeFiles();
    EXPECT_EQ(V({1}), ById(101, 200, 1));
    EXPECT_EQ(V({0, 1}), ById(100, 101, 1));
    EXPECT_EQ(V({2}), ById(300, 300, 1));
    EXPECT_EQ(V({0}), ById(1, 1, 0));
}

TEST_F(RangeLookupTest, IdRangeWithEndZeroMatchesFilesStartingBelowStartAndEndingAboveZero) {
    AddThreeFiles();
    AddEntry(300, 400, 3000, 4000);
    AddEntry(0, 0, 5, 5);
    EXPECT_EQ(V({0, 1, 2}), ById(300, 0, 1));
    EXPECT_EQ(V({2, 1, 0}), ById(300, 0, 0));
}

TEST_F(RangeLookupTest, ReversedIdRangeMatchesOnlyFilesThatStrictlyContainIt) {
    AddThreeFiles();
    EXPECT_EQ(V({1, 2}), ById(250, 150, 1));
    EXPECT_EQ(V({2}), ById(300, 250, 0));
    EXPECT_EQ(V({}), ById(350, 320, 1));
}

TEST_F(RangeLookupTest, IdRangeOutsideEveryFileGivesAnEmptyList) {
    AddThreeFiles();
    EXPECT_EQ(V({}), ById(301, 400, 1));
    EXPECT_EQ(V({}), ById(301, 400, 0));
}

TEST_F(RangeLookupTest, BufferIsMatchedOnItsIdRange) {
    AddThreeFiles();
    SetBuffer(1, 301, 310, 3010, 3100);
    EXPECT_EQ(V({-1}), ById(305, 305, 1));
    EXPECT_EQ(V({2, -1}), ById(250, 301, 1));
    EXPECT_EQ(V({-1, 2}), ById(250, 301, 0));
    EXPECT_EQ(V({}), ById(3050, 3050, 1));  // its times do not count for IDs
}

TEST_F(RangeLookupTest, BufferWithFirstTimeStampZeroIsNeverReported) {
    AddThreeFiles();
    SetBuffer(1, 301, 310, 0, 3100);
    EXPECT_EQ(V({0, 1, 2}), ById(0, 0, 1));
    EXPECT_EQ(V({}), ById(305, 305, 1));
    EXPECT_EQ(V({}), ById(305, 305, 0));
    EXPECT_EQ(V({2, 1, 0}), ByTime(0, 0, 0));
    EXPECT_EQ(V({}), ByTime(3050, 3050, 1));
}

TEST_F(RangeLookupTest, BufferWithLastTimeStampZeroIsNeverReported) {
    SetBuffer(1, 301, 310, 3010, 0);
    EXPECT_EQ(V({}), ById(0, 0, 1));
    EXPECT_EQ(V({}), ByTime(0, 0, 0));
}

TEST_F(RangeLookupTest, BufferIsNotReportedWhenBufferingIsOff) {
    SetBuffer(0, 301, 310, 3010, 3100);
    EXPECT_EQ(V({}), ById(305, 305, 1));
    EXPECT_EQ(V({}), ByTime(3050, 3050, 0));
}

TEST_F(RangeLookupTest, EmptyCatalogWithoutBufferingGivesNothingAndReturnsOne) {
    std::vector<int> result;
    EXPECT_EQ(1, m_store.FindFile_ID(result, 0, 0, 1));
    EXPECT_TRUE(result.empty());
    EXPECT_EQ(1, m_store.FindFile_Time(result, 0, 0, 0));
    EXPECT_TRUE(result.empty());
}

TEST_F(RangeLookupTest, EmptyCatalogWithBufferedRecordsGivesOnlyTheBuffer) {
    SetBuffer(1, 1, 5, 100, 200);
    EXPECT_EQ(V({-1}), ById(0, 0, 1));
    EXPECT_EQ(V({-1}), ByTime(150, 150, 0));
}

TEST_F(RangeLookupTest, IdLookupAppendsBehindWhatTheListAlreadyHolds) {
    AddThreeFiles();
    SetBuffer(1, 301, 310, 3010, 3100);
    std::vector<int> result{7, -1};
    EXPECT_EQ(1, m_store.FindFile_ID(result, 150, 305, 1));
    EXPECT_EQ(V({7, -1, 1, 2, -1}), result);
    EXPECT_EQ(1, m_store.FindFile_ID(result, 150, 250, 0));
    EXPECT_EQ(V({7, -1, 1, 2, -1, 2, 1}), result);
}

// --- FindFile_Time -------------------------------------------------------------

TEST_F(RangeLookupTest, TimeRangeOverTwoFilesListsThemInTheRequestedOrder) {
    AddThreeFiles();
    EXPECT_EQ(V({1, 2}), ByTime(1500, 2500, 1));
    EXPECT_EQ(V({2, 1}), ByTime(1500, 2500, 0));
}

TEST_F(RangeLookupTest, TimeLookupUsesFileTimesNotIds) {
    AddThreeFiles();
    EXPECT_EQ(V({0}), ByTime(150, 250, 1));  // inside file 0's times [10,1000]
    EXPECT_EQ(V({1}), ByTime(1200, 1300, 0));
    EXPECT_EQ(V({1}), ByTime(1010, 2000, 1));  // equal bounds
    EXPECT_EQ(V({}), ByTime(3001, 4000, 1));
}

TEST_F(RangeLookupTest, OpenTimeRangeListsEveryFileAndTheBuffer) {
    AddThreeFiles();
    SetBuffer(1, 301, 310, 3010, 3100);
    EXPECT_EQ(V({0, 1, 2, -1}), ByTime(0, 0, 1));
    EXPECT_EQ(V({-1, 2, 1, 0}), ByTime(0, 0, 0));
}

TEST_F(RangeLookupTest, BufferIsMatchedOnItsTimeRange) {
    AddThreeFiles();
    SetBuffer(1, 3005, 3006, 3010, 3100);
    EXPECT_EQ(V({-1}), ByTime(3050, 3060, 1));
    EXPECT_EQ(V({2, -1}), ByTime(2900, 3010, 1));
    EXPECT_EQ(V({-1, 2}), ByTime(2900, 3010, 0));
    EXPECT_EQ(V({}), ByTime(3005, 3006, 1)) << "its IDs do not count for times";
}

TEST_F(RangeLookupTest, TimeRangeWithEndZeroAppliesOnlyTheContainmentTest) {
    AddThreeFiles();
    EXPECT_EQ(V({0, 1}), ByTime(2000, 0, 1));  // files starting below 2000
    EXPECT_EQ(V({1, 0}), ByTime(2000, 0, 0));
}

TEST_F(RangeLookupTest, TimeLookupAppendsBehindWhatTheListAlreadyHolds) {
    AddThreeFiles();
    std::vector<int> result{3};
    EXPECT_EQ(1, m_store.FindFile_Time(result, 0, 0, 0));
    EXPECT_EQ(V({3, 2, 1, 0}), result);
}

}  // namespace
