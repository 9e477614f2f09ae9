// The handle's forwarding: the verb test on the first six characters of the
// SQL text, the results of an unbound handle, the routing of select requests
// by kind, the 64-bit getters, and the static Save that hands one tick to
// every registered store.
#include "RollingStoreFixture.h"

using namespace rollingtest;

class ForwardingTest : public RollingStoreTest {
protected:
    void SetUp() override {
        RollingStoreTest::SetUp();
        testutil::Conf& c = NewConf("s");
        c.conf.nMaxRecordNum = 4;
        store_ = &RegisterStore(c);
        ASSERT_EQ(1, handle_.Open(store_->GetID()));
    }

    // Two flushed files and a third, empty current one:
    // rec_0 holds 1..5 (IDs 1..5), rec_1 holds 6..10 (catalogued from ID 5).
    void SaveTwoFiles() {
        QueueRecords(*store_, 1, 5);
        store_->Save(50000);
        QueueRecords(*store_, 6, 10);
        store_->Save(51001);
        ASSERT_EQ(FileNames({0, 1, 2}), CatalogNames(*store_));
    }

    // Record IDs of each table, in order.
    static std::vector<std::vector<long long>> Ids(std::vector<CBBSQL::CppSQLite3Table>& tables) {
        std::vector<std::vector<long long>> all;
        for (CBBSQL::CppSQLite3Table& table : tables) {
            std::vector<long long> ids;
            for (int row = 0; row < table.numRows(); ++row) {
                table.setRow(row);
                ids.push_back(table.getInt64Field(0));
            }
            all.push_back(ids);
        }
        return all;
    }

    DbData* store_ = nullptr;
    Sqlite3DB handle_;
};

// --- Unbound handle --------------------------------------------------------------------

TEST_F(ForwardingTest, EveryForwarderOfUnboundHandleReturnsZero) {
    Sqlite3DB h;
    CBBSQL::CppSQLite3Query query;
    std::vector<CBBSQL::CppSQLite3Table> tables;
    std::string select = "select * from rec";
    _tagDBSqlSelectCmdInfo byId{&select, 1, 0, 0, 0, 0, 0, 1};
    _tagDBSqlSelectCmdInfo byTime{&select, 2, 0, 0, 0, 0, 0, 1};
    _tagDBSqlSelectCmdInfo attach{&select, 3, 0, 0, 0, 0, -1, 1};
    std::string indexSql = "select id from rec";
    unsigned long long out = 77;

    EXPECT_EQ(0, h.SqlInsert("insert into rec values(1, 2, 'x')"));
    EXPECT_EQ(0, h.SqlUpdate("update rec set v = 'y'"));
    EXPECT_EQ(0, h.SqlDelete("delete from rec"));
    EXPECT_EQ(0, h.SqlSelect("select * from rec", query));
    EXPECT_EQ(0, h.CreateTable("create table extra (a)"));
    EXPECT_EQ(0, h.SqlSelect(byId, tables));
    EXPECT_EQ(0, h.SqlSelect(byTime, tables));
    EXPECT_EQ(0, h.SqlSelect(attach));
    EXPECT_EQ(0, h.DoOneSQL(0, std::list<std::string>{"insert into rec values(1, 2, 'x')"}));
    EXPECT_EQ(0, h.DoOneSQL(0, "insert into rec values(1, 2, 'x')"));
    EXPECT_EQ(0, h.TableIsExist("rec"));
    EXPECT_EQ(0, h.GetIndexIDfroTime(indexSql, 0, 0, 1, &out));
    EXPECT_EQ(0, h.GetMaxID());
    EXPECT_EQ(0, h.GetMinID());
    EXPECT_EQ(0, h.GetMaxTime());
    EXPECT_EQ(0, h.GetMinTime());
    EXPECT_EQ(0, h.GetChangeNum());
    EXPECT_EQ(0, h.LoadDbSuccess());
    EXPECT_TRUE(tables.empty());
    EXPECT_EQ(77u, out);
    EXPECT_TRUE(store_->m_listSql.empty());
}

// --- Verb test ---------------------------------------------------------------------------

TEST_F(ForwardingTest, SqlInsertAcceptsOnlyLowerCaseInsertAtPositionZero) {
    EXPECT_EQ(1, handle_.SqlInsert("insert into rec values(1, 2, 'x')"));
    EXPECT_EQ(1, handle_.SqlInsert("inserted anything"));
    EXPECT_EQ(0, handle_.SqlInsert("INSERT into rec values(3, 4, 'x')"));
    EXPECT_EQ(0, handle_.SqlInsert("Insert into rec values(3, 4, 'x')"));
    EXPECT_EQ(0, handle_.SqlInsert(" insert into rec values(3, 4, 'x')"));
    EXPECT_EQ(0, handle_.SqlInsert("inser"));
    EXPECT_EQ(0, handle_.SqlInsert(""));
    EXPECT_EQ(0, handle_.SqlInsert("replace into rec values(3, 4, 'x')"));
    // Accepted texts reach DbData::Insert, which only keeps them.
    EXPECT_EQ((std::list<std::string>{"insert into rec values(1, 2, 'x')", "inserted anything"}),
              store_->m_listSql);
    EXPECT_TRUE(store_->m_listInsertCmd.empty());
    EXPECT_EQ(0, MemRowCount(*store_));
}

TEST_F(ForwardingTest, SqlUpdateAndSqlDeleteTestTheirVerbs) {
    EXPECT_EQ(1, handle_.SqlUpdate("update rec set v = 'a'"));
    EXPECT_EQ(0, handle_.SqlUpdate("UPDATE rec set v = 'b'"));
    EXPECT_EQ(0, handle_.SqlUpdate(" update rec set v = 'c'"));
    EXPECT_EQ(0, handle_.SqlUpdate("updat"));
    EXPECT_EQ(0, handle_.SqlUpdate("delete from rec"));
    EXPECT_EQ(1, handle_.SqlDelete("delete from rec"));
    EXPECT_EQ(0, handle_.SqlDelete("Delete from rec"));
    EXPECT_EQ(0, handle_.SqlDelete("\tdelete from rec"));
    EXPECT_EQ(0, handle_.SqlDelete("del"));
    EXPECT_EQ((std::list<std::string>{"update rec set v = 'a'", "delete from rec"}),
              store_->m_listSql);
    EXPECT_TRUE(store_->m_listOtherCmd.empty());
}

TEST_F(ForwardingTest, CreateTableRunsOnlyLowerCaseCreate) {
    EXPECT_EQ(1, handle_.CreateTable("create table extra (a)"));
    EXPECT_EQ(1, handle_.TableIsExist("extra"));
    EXPECT_EQ(0, handle_.CreateTable("CREATE TABLE other (a)"));
    EXPECT_EQ(0, handle_.CreateTable(" create table other (a)"));
    EXPECT_EQ(0, handle_.TableIsExist("other"));
    EXPECT_TRUE(TakeLogs().empty());
}

TEST_F(ForwardingTest, SqlSelectWithQueryTestsItsVerb) {
    QueueRecords(*store_, 1, 2);
    store_->m_nSaveTime = 0;  // keep the rows in the buffer
    store_->Save(50000);
    CBBSQL::CppSQLite3Query query;
    EXPECT_EQ(0, handle_.SqlSelect("SELECT count(*) from rec", query));
    EXPECT_EQ(0, handle_.SqlSelect(" select count(*) from rec", query));
    EXPECT_EQ(1, handle_.SqlSelect("select count(*) from rec", query));
    ASSERT_FALSE(query.eof());
    EXPECT_EQ(2, query.getIntField(0));
    query.finalize();
    ASSERT_EQ(1, store_->m_mutexSave.TryLock(200));
    store_->m_mutexSave.Unlock();
}

TEST_F(ForwardingTest, SqlAddNodeQueuesTheCommand) {
    std::string sql = "insert into rec values(9, 10, 'x')";
    _tagDBSqlCmdInfo cmd{&sql, 1, 9, 10};
    EXPECT_EQ(1, handle_.SqlAddNode(cmd));
    ASSERT_EQ(1u, store_->m_listInsertCmd.size());
    EXPECT_EQ(sql, *store_->m_listInsertCmd.front().pSql);
    EXPECT_EQ(9u, store_->m_listInsertCmd.front().nID);
}

// --- Select requests by kind -----------------------------------------------------------------

TEST_F(ForwardingTest, SelectKindOneChoosesFilesByIdAndKindTwoByTime) {
    SaveTwoFiles();
    std::string sql = "select id from rec order by id";
    std::vector<CBBSQL::CppSQLite3Table> tables;

    // IDs 1..3 lie in rec_0 only; its rows come back whole, the range picks the file.
    _tagDBSqlSelectCmdInfo byId{&sql, 1, 1, 3, TimeOf(7), TimeOf(10), 0, 1};
    EXPECT_EQ(1, handle_.SqlSelect(byId, tables));
    EXPECT_EQ((std::vector<std::vector<long long>>{{1, 2, 3, 4, 5}}), Ids(tables));

    // The same record read by its time range picks rec_1.
    tables.clear();
    _tagDBSqlSelectCmdInfo byTime = byId;
    byTime.nSelectType = 2;
    EXPECT_EQ(1, handle_.SqlSelect(byTime, tables));
    EXPECT_EQ((std::vector<std::vector<long long>>{{6, 7, 8, 9, 10}}), Ids(tables));
}

TEST_F(ForwardingTest, SelectIntoTablesRefusesOtherKinds) {
    SaveTwoFiles();
    std::string sql = "select id from rec";
    std::vector<CBBSQL::CppSQLite3Table> tables;
    for (int kind : {0, 3, 4, -1}) {
        _tagDBSqlSelectCmdInfo info{&sql, kind, 0, 0, 0, 0, 0, 1};
        EXPECT_EQ(0, handle_.SqlSelect(info, tables)) << kind;
    }
    EXPECT_TRUE(tables.empty());
}

TEST_F(ForwardingTest, AttachedCopyRunsOnlyForKindThree) {
    SaveTwoFiles();
    const std::string file0 = SaveDir("s") + "rec_0.db";
    std::string notRun = "update rec set v = 'not run' where id = 2";
    _tagDBSqlSelectCmdInfo info{&notRun, 1, 0, 0, 0, 0, -1, 1};
    EXPECT_EQ(0, handle_.SqlSelect(info));
    info.nSelectType = 2;
    EXPECT_EQ(0, handle_.SqlSelect(info));
    EXPECT_EQ("v2", testutil::RawValue(file0, "select v from rec where id = 2"));

    // Kind 3 reaches Select_Attach, whose result is always 0; the statement ran on
    // the oldest file and the stop flag -1 ended the walk there.
    std::string run = "update rec set v = 'run' where id = 2";
    _tagDBSqlSelectCmdInfo copy{&run, 3, 0, 0, 0, 0, -1, 1};
    EXPECT_EQ(0, handle_.SqlSelect(copy));
    EXPECT_EQ("run", testutil::RawValue(file0, "select v from rec where id = 2"));
    ASSERT_EQ(1, store_->m_mutexSave.TryLock(200));
    store_->m_mutexSave.Unlock();
}

// --- Direct statements ---------------------------------------------------------------------

TEST_F(ForwardingTest, DoOneSqlForwardsBothForms) {
    EXPECT_EQ(1, handle_.DoOneSQL(0, "insert into rec values(1, 2, 'mem')"));
    EXPECT_EQ(1, MemRowCount(*store_));
    EXPECT_EQ(1, handle_.DoOneSQL(1, "insert into rec values(2, 3, 'file')"));
    EXPECT_EQ(0, handle_.DoOneSQL(1, std::list<std::string>{"insert into rec values(3, 4, 'a')",
                                                            "insert into rec values(4, 5, 'b')"}));
    EXPECT_EQ((std::vector<unsigned long long>{2, 3, 4}), FileIds(CatalogPath(*store_)));
    EXPECT_EQ(1, handle_.TableIsExist("rec"));
    EXPECT_EQ(0, handle_.TableIsExist("none"));
}

TEST_F(ForwardingTest, GetIndexIDfroTimeNeedsTextAndOutput) {
    SaveTwoFiles();
    std::string empty;
    std::string sql = "select id from rec where t >= " + std::to_string(TimeOf(7)) + " order by id";
    unsigned long long out = 55;
    EXPECT_EQ(0, handle_.GetIndexIDfroTime(empty, 0, 0, 1, &out));
    EXPECT_EQ(55u, out);
    EXPECT_EQ(0, handle_.GetIndexIDfroTime(sql, 0, 0, 1, nullptr));
    EXPECT_EQ(1, handle_.GetIndexIDfroTime(sql, TimeOf(7), TimeOf(8), 1, &out));
    EXPECT_EQ(7u, out);
}

// --- 64-bit getters ------------------------------------------------------------------------

TEST_F(ForwardingTest, GettersReturnFullSixtyFourBitValues) {
    store_->m_nMemMaxID = 0x1234567890ULL;
    store_->m_nMemEndTime = 0x2345678901ULL;
    CatalogEntry(*store_, 0).SetStartID(0x3456789012ULL);
    CatalogEntry(*store_, 0).SetStartTime(0x4567890123ULL);
    store_->m_nChangeNum = 0x5678901234ULL;
    EXPECT_EQ(0x1234567890LL, handle_.GetMaxID());
    EXPECT_EQ(0x2345678901LL, handle_.GetMaxTime());
    EXPECT_EQ(0x3456789012LL, handle_.GetMinID());
    EXPECT_EQ(0x4567890123LL, handle_.GetMinTime());
    EXPECT_EQ(0x5678901234LL, handle_.GetChangeNum());
}

TEST_F(ForwardingTest, GettersFollowTheStoreThroughSaves) {
    SaveTwoFiles();
    EXPECT_EQ(10, handle_.GetMaxID());
    EXPECT_EQ(1, handle_.GetMinID());
    EXPECT_EQ(static_cast<long long>(TimeOf(10)), handle_.GetMaxTime());
    EXPECT_EQ(static_cast<long long>(TimeOf(1)), handle_.GetMinTime());
    EXPECT_EQ(2, handle_.GetChangeNum());  // two committed batches
    EXPECT_EQ(1, handle_.LoadDbSuccess());
}

// --- Static Save ---------------------------------------------------------------------------

TEST_F(ForwardingTest, StaticSaveDoesNothingUntilEnabledThenGivesEveryStoreOneTick) {
    std::vector<DbData*> stores{store_};
    for (const char* sub : {"b", "c"}) {
        testutil::Conf& c = NewConf(sub);
        stores.push_back(&RegisterStore(c));
    }
    const unsigned long long tick = 7000000;
    for (DbData* store : stores) {
        store->m_nLastSaveTick = tick - 5000;  // every store is due
        QueueRecord(*store, 1);
    }
    PlatformSim::SetTickCount(tick);

    Sqlite3DB::m_bEnable = 0;
    Sqlite3DB::Save();
    for (DbData* store : stores) {
        EXPECT_EQ(tick - 5000, store->m_nLastSaveTick);
        EXPECT_EQ(1u, store->m_listInsertCmd.size());
    }

    Sqlite3DB::Sqlit3DBEnable("/nonexistent/project");
    Sqlite3DB::Save();
    for (DbData* store : stores) {
        EXPECT_EQ(tick, store->m_nLastSaveTick);
        EXPECT_TRUE(store->m_listInsertCmd.empty());
        EXPECT_EQ((std::vector<unsigned long long>{1}), FileIds(CatalogPath(*store)));
    }
}
