// Values past 32 bits through the store, as on the 32-bit panel (where long
// and size_t are 32 bits): record IDs and times around 2^31 and 2^32 queued,
// flushed, read back by ID and by time range and kept in DBInfo; file numbers
// at and above 2^31 in names and in the catalog's order, and the number after
// 2^32 - 1; a file over 4 GiB against a size limit in KiB; and a wall clock
// past 2038 and 2106 (through the platform's clock call) in a new file's DBInfo.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "DbFilesFixture.h"
#include "OsCalls.h"
#include "RollingStoreFixture.h"

namespace {

using rollingtest::CatalogPath;
using rollingtest::DBInfoRow;
using rollingtest::FileIds;
using rollingtest::ReadDBInfo;

const unsigned long long k2p31 = 1ULL << 31;
const unsigned long long k2p32 = 1ULL << 32;

// IDs around both boundaries; each record's time is its ID + 1, so that a
// swapped or truncated value shows.
const std::vector<unsigned long long> kIds = {k2p31 - 1, k2p31, k2p31 + 1,
                                              k2p32 - 1, k2p32, k2p32 + 1};

class WideRecordsTest : public rollingtest::RollingStoreTest {
protected:
    DbData& BufferedStore() {
        testutil::Conf& c = NewConf("s");
        c.conf.nSaveTime = 1000;
        return MakeStore(c);
    }

    static void Queue(DbData& store, unsigned long long id) {
        std::string sql = "insert into rec values(" + std::to_string(id) + ", " +
                          std::to_string(id + 1) + ", 'v')";
        _tagDBSqlCmdInfo cmd{&sql, 1, id, id + 1};
        ASSERT_EQ(1, store.AddNode(cmd));
    }

    static void SaveAt(DbData& store, unsigned long long tick) {
        PlatformSim::SetTickCount(tick);
        store.Save(tick);
    }

    // The IDs of every row of every table a range read gave.
    std::vector<unsigned long long> Read(DbData& store, int type, unsigned long long start,
                                         unsigned long long end, const std::string& where) {
        std::string sql = "select id, t from rec where " + where + " order by id";
        _tagDBSqlSelectCmdInfo info{};
        info.pSql = &sql;
        info.nSelectType = type;
        info.nOrder = 1;
        (type == 1 ? info.nStartID : info.nStartTime) = start;
        (type == 1 ? info.nEndID : info.nEndTime) = end;
        std::vector<CBBSQL::CppSQLite3Table> tables;
        EXPECT_EQ(1, type == 1 ? store.Select_ID(info, tables) : store.Select_Time(info, tables));
        std::vector<unsigned long long> ids;
        for (CBBSQL::CppSQLite3Table& table : tables) {
            for (int row = 0; row < table.numRows(); ++row) {
                table.setRow(row);
                const unsigned long long id =
                    static_cast<unsigned long long>(table.getInt64Field(0));
                EXPECT_EQ(id + 1, static_cast<unsigned long long>(table.getInt64Field(1)));
                ids.push_back(id);
            }
        }
        return ids;
    }
};

TEST_F(WideRecordsTest, IdsAndTimesPast2Pow31And2Pow32AreFlushedAndKeptInDBInfo) {
    DbData& store = BufferedStore();
    for (unsigned long long id : kIds) {
        Queue(store, id);
    }
    SaveAt(store, 50000);

    const std::string path = CatalogPath(store);
    EXPECT_EQ(kIds, FileIds(path));
    DBInfoRow info = ReadDBInfo(path);
    EXPECT_EQ(1u, info.rows);
    EXPECT_EQ(k2p31 - 1, info.minID);
    EXPECT_EQ(k2p32 + 1, info.maxID);
    EXPECT_EQ(k2p31, info.startTime);
    EXPECT_EQ(k2p32 + 2, info.endTime);
    const DbFileInfo& rec = store.m_vecFileInfo.back();
    EXPECT_EQ(k2p31 - 1, rec.GetStartID());
    EXPECT_EQ(k2p32 + 1, rec.GetEndID());
    EXPECT_EQ(k2p31, rec.GetStartTime());
    EXPECT_EQ(k2p32 + 2, rec.GetEndTime());
    EXPECT_EQ(k2p32 + 1, store.GetDataMaxID());
    EXPECT_EQ(k2p32 + 2, store.GetDataMaxTime());
}

TEST_F(WideRecordsTest, IdAndTimeRangesPast2Pow32ReadFileAndBuffer) {
    DbData& store = BufferedStore();
    for (unsigned long long id : kIds) {
        Queue(store, id);
    }
    SaveAt(store, 50000);
    Queue(store, k2p32 + 10);  // stays in the memory buffer
    Queue(store, k2p32 + 11);
    SaveAt(store, 50001);
    ASSERT_EQ(kIds, FileIds(CatalogPath(store)));

    EXPECT_EQ((std::vector<unsigned long long>{k2p32 - 1, k2p32}),
              Read(store, 1, k2p32 - 1, k2p32, "id between 4294967295 and 4294967296"));
    EXPECT_EQ((std::vector<unsigned long long>{k2p32 + 1, k2p32 + 10, k2p32 + 11}),
              Read(store, 1, k2p32 + 1, k2p32 + 11, "id >= 4294967297"));
    // Times 2^31 + 1 .. 2^32: records 2^31 .. 2^32 - 1.
    EXPECT_EQ((std::vector<unsigned long long>{k2p31, k2p31 + 1, k2p32 - 1}),
              Read(store, 2, k2p31 + 1, k2p32, "t between 2147483649 and 4294967296"));
    EXPECT_EQ((std::vector<unsigned long long>{k2p32 + 10, k2p32 + 11}),
              Read(store, 2, k2p32 + 11, k2p32 + 12, "t > 4294967298"));
}

// A file over 4 GiB (sparse) reads as the largest size, 4 GiB - 1 byte, so
// that a limit just below 4 GiB in KiB still starts a new file, and a size
// above 2^31 bytes compares exactly.
TEST_F(WideRecordsTest, FilesOverTwoAndFourGiBMeetSizeLimitsInKiB) {
    struct Case {
        long long bytes;
        int limitKiB;
        bool splits;
    };
    const Case cases[] = {
        {3LL << 30, 3145727, true},   // 3 GiB = 3145728 KiB, strictly over the limit
        {3LL << 30, 3145728, false},  // exactly the limit
        {5LL << 30, 4194302, true},   // read as 4194303 KiB
        {5LL << 30, 4194303, false},  // not over: the size is clamped, not wrapped to 1 GiB
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bytes);
        SCOPED_TRACE(c.limitKiB);
        testutil::Conf& conf = NewConf("size" + std::to_string(stores_.size()));
        conf.conf.nMaxFileSize = c.limitKiB;
        DbData& store = MakeStore(conf);
        store.m_bNeedSplitCheck = 1;
        ASSERT_EQ(0, truncate(CatalogPath(store).c_str(), static_cast<off_t>(c.bytes)));
        store.SplitDBFile();
        EXPECT_EQ(c.splits ? 2u : 1u, store.m_vecFileInfo.size());
    }
}

// --- File numbers -------------------------------------------------------------------

class WideFileNumbersTest : public dbfiles::DbFilesTest {
protected:
    void TearDown() override {
        OsCalls::clockGetTimeHook = nullptr;
        dbfiles::DbFilesTest::TearDown();
    }

    std::vector<std::string> CatalogNames() const {
        std::vector<std::string> names;
        for (const DbFileInfo& rec : store.m_vecFileInfo) {
            names.push_back(rec.GetFullName());
        }
        return names;
    }
};

// The same numbers on every target: where long has 32 bits, a plain "%d"
// would read every number from 2^31 on as 2^31 - 1.
TEST(WideFileNumbers, NamesReadBackTheirNumberModulo2Pow32) {
    const struct {
        const char* name;
        unsigned int number;
    } cases[] = {
        {"rec_2147483647.db", 2147483647u},  {"rec_2147483648.db", 2147483648u},
        {"rec_4294967295.db", 4294967295u},  {"rec_4294967296.db", 0u},
        {"rec_4294967303.db", 7u},           {"rec_-1.db", 4294967295u},
        {"rec_-2147483648.db", 2147483648u},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        DbFileInfo rec;
        rec.SetFileID(std::string(c.name));
        EXPECT_EQ(c.number, rec.GetFileID());
    }
}

TEST_F(WideFileNumbersTest, NumbersFrom2Pow31AreNamedUnsignedAndScannedInOrder) {
    MakeStoreFile("rec_7.db", 1, 10, 100, 200);
    MakeStoreFile("rec_2147483647.db", 11, 20, 201, 300);
    MakeStoreFile("rec_2147483648.db", 21, 30, 301, 400);
    MakeStoreFile("rec_4294967294.db", 31, 40, 401, 500);
    store.UpdateFileList();
    EXPECT_EQ((std::vector<std::string>{"rec_7.db", "rec_2147483647.db", "rec_2147483648.db",
                                        "rec_4294967294.db"}),
              CatalogNames());
    EXPECT_EQ(4294967294u, store.GetMaxFileID());
    ASSERT_EQ(4u, store.m_vecFileInfo.size());
    EXPECT_EQ(2147483648u, store.m_vecFileInfo[2].GetFileID());
    EXPECT_EQ(31u, store.m_vecFileInfo[3].GetStartID());

    // The next file is numbered unsigned ("%u"); the ordered insert compares
    // numbers signed, so a number of 2^31 or more goes before the small ones.
    ASSERT_EQ(1, store.CreateFileDB());
    EXPECT_TRUE(testutil::FileExists(Path("rec_4294967295.db")));
    EXPECT_EQ((std::vector<std::string>{"rec_4294967295.db", "rec_7.db", "rec_2147483647.db",
                                        "rec_2147483648.db", "rec_4294967294.db"}),
              CatalogNames());
    EXPECT_EQ(4294967295u, store.GetMaxFileID());

    // A scan sorts unsigned again.
    store.m_vecFileInfo.clear();
    store.UpdateFileList();
    EXPECT_EQ((std::vector<std::string>{"rec_7.db", "rec_2147483647.db", "rec_2147483648.db",
                                        "rec_4294967294.db", "rec_4294967295.db"}),
              CatalogNames());
}

// After 2^32 - 1 the number wraps to 0: an existing rec_0.db counts as a
// leftover and is replaced by the new, empty file. Deliberate (the numbering
// is the panel's); it takes 2^32 files to get there.
TEST_F(WideFileNumbersTest, NumberAfter2Pow32Minus1WrapsToZero) {
    MakeStoreFile("rec_0.db", 1, 10, 100, 200);
    testutil::RawExec(Path("rec_0.db"), "insert into rec values(5, 150, 'x')");
    MakeStoreFile("rec_4294967295.db", 11, 20, 201, 300);
    store.UpdateFileList();
    EXPECT_EQ((std::vector<std::string>{"rec_0.db", "rec_4294967295.db"}), CatalogNames());
    ASSERT_EQ(1, store.CreateFileDB());
    EXPECT_EQ((testutil::RawQuery(Path("rec_0.db"), "select count(*) from rec")),
              (std::vector<std::vector<std::string>>{{"0"}}));
    ASSERT_EQ(3u, store.m_vecFileInfo.size());
    EXPECT_EQ(0u, store.m_vecFileInfo[0].GetFileID());
    EXPECT_EQ(0u, store.m_vecFileInfo[0].GetStartID());  // the new file's entry
    EXPECT_EQ(0u, store.m_vecFileInfo[1].GetFileID());
    EXPECT_EQ(1u, store.m_vecFileInfo[1].GetStartID());  // the old entry, now stale
}

// --- The wall clock past 2038 -------------------------------------------------------

long long g_clockSeconds = 0;

int ClockAt(clockid_t clock, struct timespec* ts) {
    if (clock != CLOCK_REALTIME) {
        return clock_gettime(clock, ts);
    }
    ts->tv_sec = static_cast<time_t>(g_clockSeconds);
    ts->tv_nsec = 250000000;
    return 0;
}

TEST_F(WideFileNumbersTest, NewFilesCarryWallClockTimesPast2038And2106) {
    for (unsigned long long seconds : {k2p31 + 1, k2p32 + 1}) {
        SCOPED_TRACE(seconds);
        g_clockSeconds = static_cast<long long>(seconds);
        OsCalls::clockGetTimeHook = ClockAt;
        ASSERT_EQ(1, store.CreateFileDB());
        OsCalls::clockGetTimeHook = nullptr;
        const std::string path = Path(store.m_vecFileInfo.back().GetFullName());
        const DBInfoRow info = ReadDBInfo(path);
        EXPECT_EQ(seconds * 1000ULL + 250ULL, info.startTime);
        EXPECT_EQ(seconds * 1000ULL + 250ULL, info.endTime);
        EXPECT_EQ(seconds * 1000ULL + 250ULL, store.m_vecFileInfo.back().GetStartTime());
    }
}

}  // namespace
