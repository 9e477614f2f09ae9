// End-to-end smoke test: one store on the data partition, records queued,
// saved and read back.
#include <gtest/gtest.h>

#include "Sqlite3DB/Sqlite3DB.h"
#include "TestUtil.h"

TEST(Smoke, StoreSavesAndReadsBack) {
    PlatformSim::Reset();
    testutil::TempDir dir("/mnt/data/");
    testutil::Conf c;
    c.dirName = dir.name() + "/s";
    Sqlite3DB::Sqlit3DBEnable("/nonexistent");
    long long id = Sqlite3DB::Create(c.get(), 0);
    ASSERT_GT(id, 0);
    Sqlite3DB h;
    ASSERT_EQ(1, h.Open(id));
    PlatformSim::SetTickCount(100000);
    for (int i = 1; i <= 10; ++i) {
        std::string sql = "insert into rec values(" + std::to_string(i) + ", " +
                          std::to_string(1000 + i) + ", 'x')";
        _tagDBSqlCmdInfo cmd{&sql, 1, (unsigned long long)i, 1000ULL + i};
        ASSERT_EQ(1, h.SqlAddNode(cmd));
    }
    Sqlite3DB::Save();
    PlatformSim::AdvanceTickCount(2000);
    Sqlite3DB::Save();
    std::string path = dir.path() + "s/rec_0.db";
    auto rows = testutil::RawQuery(path, "select count(*) from rec");
    EXPECT_EQ("10", rows[0][0]);
    auto info = testutil::RawQuery(path, "select MaxID, MinID, StartTime, EndTime from DBInfo");
    ASSERT_EQ(1u, info.size());
    EXPECT_EQ("10", info[0][0]);
    EXPECT_EQ("1", info[0][1]);
    std::string q = "select * from rec";
    _tagDBSqlSelectCmdInfo sel{&q, 1, 0, 0, 0, 0, 0, 1};
    std::vector<CBBSQL::CppSQLite3Table> tables;
    EXPECT_EQ(1, h.SqlSelect(sel, tables));
    ASSERT_EQ(1u, tables.size());
    EXPECT_EQ(10, tables[0].numRows());
    Sqlite3DB::Destroy();
    PlatformSim::Reset();
}
