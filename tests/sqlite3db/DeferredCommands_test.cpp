// Deferred commands: RunOtherCmd running one statement on a list of sources,
// and RunOtherCmdInfo draining the queued updates and deletes once per save
// cycle, each on the sources whose ID range holds its record ID (oldest file
// first, the buffer last), bounded by the count taken at the cycle's start;
// the failure path that logs, releases m_mutexSave and leaves its sources to
// the next command; and deferred commands reaching flushed and buffered rows
// in a store built by the real save cycle.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "QueryStoreFixture.h"
#include "TestUtil.h"

namespace {

using querytest::RawJoined;

// Three files (IDs 1-8 'file0', 9-16 'file1', 17-24 'file2') and buffered
// rows 25-32 'buffer'.
class DeferredCommandsTest : public querytest::StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        BuildThreeFilesAndBuffer();
        PlatformSim::TakeLogLines();
    }

    void Queue(const std::string& sql, unsigned long long id) {
        std::string text = sql;
        _tagDBSqlCmdInfo cmd{&text, 2, id, 0};
        ASSERT_EQ(1, m_store.AddNode(cmd));
    }

    // One save cycle's step for the deferred commands, with the snapshot
    // count that Save would have taken, under m_mutexSave as in Save.
    void RunCycle(int snapshot) {
        m_store.m_nOtherCmdNum = snapshot;
        m_store.m_mutexSave.Lock();
        m_store.RunOtherCmdInfo();
        m_store.m_mutexSave.Unlock();
    }

    // Rows of catalog entry index whose v is no longer the file's own tag.
    std::string Changed(int index) {
        return RawJoined(FilePath(index),
                         "select id, v from rec where v not like 'file_' order by id");
    }

    std::string Ids(int index) {
        return RawJoined(FilePath(index), "select id from rec order by id");
    }

    std::string BufferChanged() { return BufferIds("where v <> 'buffer'"); }
};

// --- RunOtherCmd ------------------------------------------------------------------

TEST_F(DeferredCommandsTest, RunOtherCmdRunsOnEverySourceOfTheListAndClearsIt) {
    std::vector<int> sources{0, 2, -1};
    std::string sql = "update rec set v = 'upd' where id in (3, 12, 20, 30)";
    m_store.RunOtherCmd(sources, sql);
    EXPECT_TRUE(sources.empty());
    EXPECT_EQ("3|upd", Changed(0));
    EXPECT_EQ("", Changed(1));
    EXPECT_EQ("20|upd", Changed(2));
    EXPECT_EQ("30", BufferChanged());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DeferredCommandsTest, RunOtherCmdWithAnEmptyListRunsNothing) {
    std::vector<int> sources;
    std::string sql = "update rec set v = 'upd'";
    m_store.RunOtherCmd(sources, sql);
    EXPECT_EQ("", Changed(0));
    EXPECT_EQ("", BufferChanged());
}

TEST_F(DeferredCommandsTest, RunOtherCmdCreatesAMissingCatalogedFile) {
    const std::string gone = FilePath(1);
    testutil::RemoveTree(gone);
    std::vector<int> sources{1};
    std::string sql = "create table marker(x)";
    m_store.RunOtherCmd(sources, sql);
    ASSERT_TRUE(testutil::FileExists(gone));
    EXPECT_EQ("marker", RawJoined(gone, "select name from sqlite_master"));
    EXPECT_TRUE(sources.empty());
}

TEST_F(DeferredCommandsTest, RunOtherCmdFailureStopsAtTheFailingSourceAndReleasesTheSaveLock) {
    testutil::RawExec(FilePath(1), "drop table rec");
    m_store.m_mutexSave.Lock();  // as Save holds it
    std::vector<int> sources{0, 1, 2, -1};
    std::string sql = "update rec set v = 'upd' where id in (3, 20, 30)";
    m_store.RunOtherCmd(sources, sql);
    // Released although RunOtherCmd never took it.
    ASSERT_EQ(1, m_store.m_mutexSave.TryLock(200));
    m_store.m_mutexSave.Unlock();
    EXPECT_EQ("3|upd", Changed(0));
    EXPECT_EQ("", Changed(2)) << "sources after the failing one are not run";
    EXPECT_EQ("", BufferChanged());
    EXPECT_EQ(std::vector<int>({0, 1, 2, -1}), sources) << "the list is not cleared";
    const std::vector<std::string> lines = PlatformSim::TakeLogLines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ(0u, lines[0].find("[App ]: DbDataRunSql.cpp(")) << lines[0];
    const std::string tail = "):  [DB]no such table: rec\r\n";
    EXPECT_EQ(tail, lines[0].substr(lines[0].size() - tail.size())) << lines[0];
}

// --- RunOtherCmdInfo -----------------------------------------------------------------

TEST_F(DeferredCommandsTest, EmptyQueueLeavesTheChangeCounterAlone) {
    const long long before = m_store.GetChangeNum();
    RunCycle(5);
    EXPECT_EQ(before, m_store.GetChangeNum());
    ASSERT_EQ(1, m_store.m_mutexCmd.TryLock(200));
    m_store.m_mutexCmd.Unlock();
}

TEST_F(DeferredCommandsTest, EachCommandRunsOnlyOnTheSourcesHoldingItsId) {
    Queue("update rec set v = 'A' where id in (3, 12, 20, 30)", 12);
    Queue("delete from rec where id in (4, 13, 21, 31)", 31);
    Queue("update rec set v = 'C' where id in (5, 14, 22, 32)", 5);
    const long long before = m_store.GetChangeNum();
    RunCycle(3);
    EXPECT_EQ("5|C", Changed(0));
    EXPECT_EQ("12|A", Changed(1));
    EXPECT_EQ("", Changed(2));
    EXPECT_EQ("1,2,3,4,5,6,7,8", Ids(0));
    EXPECT_EQ("9,10,11,12,13,14,15,16", Ids(1));
    EXPECT_EQ("17,18,19,20,21,22,23,24", Ids(2));
    EXPECT_EQ("25,26,27,28,29,30,32", BufferIds());
    EXPECT_EQ("", BufferChanged());
    EXPECT_TRUE(m_store.m_listOtherCmd.empty());
    EXPECT_EQ(before + 1, m_store.GetChangeNum());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DeferredCommandsTest, CommandOnSeveralSourcesRunsOldestFileFirstAndBufferLast) {
    // Ranges that share ID 16 and 24: the command for ID 24 reaches file 2
    // and the buffer, the one for ID 16 files 1 and 2.
    m_store.m_vecFileInfo.at(2).SetStartID(16);
    m_store.m_nMemMinID = 24;
    const std::string trace = m_dir.path() + "trace.db";
    testutil::RawExec(trace, "create table t(n integer primary key, v text)");
    const std::string record =
        "attach '" + trace +
        "' as tr; insert into tr.t(v) select v from rec limit 1; detach database tr";
    Queue(record, 24);
    Queue(record, 16);
    RunCycle(2);
    EXPECT_EQ("1|file2,2|buffer,3|file1,4|file2",
              RawJoined(trace, "select n, v from t order by n"));
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(DeferredCommandsTest, CommandWithIdZeroRunsOnEverySource) {
    Queue("update rec set v = 'all' where id % 8 = 1", 0);
    RunCycle(1);
    EXPECT_EQ("1|all", Changed(0));
    EXPECT_EQ("9|all", Changed(1));
    EXPECT_EQ("17|all", Changed(2));
    EXPECT_EQ("25", BufferChanged());
}

TEST_F(DeferredCommandsTest, CommandWhoseIdNoSourceHoldsIsDroppedWithoutRunning) {
    Queue("delete from rec where id = 5", 999);
    Queue("update rec set v = 'upd' where id = 6", 33);
    const long long before = m_store.GetChangeNum();
    RunCycle(2);
    EXPECT_EQ("1,2,3,4,5,6,7,8", Ids(0));
    EXPECT_EQ("", Changed(0));
    EXPECT_TRUE(m_store.m_listOtherCmd.empty());
    EXPECT_EQ(before + 1, m_store.GetChangeNum());
}

TEST_F(DeferredCommandsTest, CycleRunsOnlyTheCommandsCountedAtItsStart) {
    // Ten commands counted when the cycle began, three more queued since.
    for (int id = 1; id <= 13; ++id) {
        Queue("delete from rec where id = " + std::to_string(id), id);
    }
    const long long before = m_store.GetChangeNum();
    RunCycle(10);
    EXPECT_EQ("", Ids(0));
    EXPECT_EQ("11,12,13,14,15,16", Ids(1));
    ASSERT_EQ(3u, m_store.m_listOtherCmd.size());
    EXPECT_EQ(11u, m_store.m_listOtherCmd.front().nID);
    EXPECT_EQ("delete from rec where id = 11", *m_store.m_listOtherCmd.front().pSql);
    EXPECT_EQ(before + 1, m_store.GetChangeNum());
    // The next cycle takes the rest.
    RunCycle(3);
    EXPECT_EQ("14,15,16", Ids(1));
    EXPECT_TRUE(m_store.m_listOtherCmd.empty());
    EXPECT_EQ(before + 2, m_store.GetChangeNum());
}

TEST_F(DeferredCommandsTest, CycleThatCountedNoCommandsRunsNoneButCountsAChange) {
    Queue("delete from rec where id = 1", 1);
    Queue("delete from rec where id = 2", 2);
    Queue("delete from rec where id = 3", 3);
    const long long before = m_store.GetChangeNum();
    RunCycle(0);
    EXPECT_EQ("1,2,3,4,5,6,7,8", Ids(0));
    EXPECT_EQ(3u, m_store.m_listOtherCmd.size());
    EXPECT_EQ(before + 1, m_store.GetChangeNum());
}

TEST_F(DeferredCommandsTest, FailedCommandIsLoggedOnceDroppedAndItsSourcesCarryOver) {
    m_store.m_mutexSave.Lock();  // as Save holds it
    Queue("updatex rec set v = 'x' where id = 12", 12);
    Queue("update rec set v = 'second' where id in (3, 12, 30)", 30);
    m_store.m_nOtherCmdNum = 2;
    const long long before = m_store.GetChangeNum();
    m_store.RunOtherCmdInfo();
    // The failure released the lock that the caller held.
    ASSERT_EQ(1, m_store.m_mutexSave.TryLock(200));
    m_store.m_mutexSave.Unlock();
    const std::vector<std::string> lines = PlatformSim::TakeLogLines();
    ASSERT_EQ(1u, lines.size());
    EXPECT_NE(std::string::npos, lines[0].find("):  [DB]near \"updatex\": syntax error\r\n"))
        << lines[0];
    // The second command (ID 30: the buffer) also ran on file 1, the source
    // left over from the failed one.
    EXPECT_EQ("12|second", Changed(1));
    EXPECT_EQ("30", BufferChanged());
    EXPECT_EQ("", Changed(0));
    EXPECT_TRUE(m_store.m_listOtherCmd.empty());
    EXPECT_EQ(before + 1, m_store.GetChangeNum());
}

TEST_F(DeferredCommandsTest, CommandForAVanishedFileCreatesItEmpty) {
    const std::string gone = FilePath(1);
    testutil::RemoveTree(gone);
    Queue("delete from rec where id = 12", 12);
    RunCycle(1);  // the failure inside releases m_mutexSave; RunCycle's Unlock is harmless
    ASSERT_TRUE(testutil::FileExists(gone));
    EXPECT_EQ("", RawJoined(gone, "select name from sqlite_master"));
    EXPECT_TRUE(testutil::LogContains(PlatformSim::TakeLogLines(), "[DB]no such table: rec"));
    EXPECT_TRUE(m_store.m_listOtherCmd.empty());
}

// --- A store built by the real save cycle -------------------------------------------

// rec_0.db [1,8], rec_1.db [8,16], rec_2.db [16,20], buffer [20,23].
class DeferredCommandsAfterSavesTest : public querytest::StoreTest {
protected:
    void SetUp() override {
        StoreTest::SetUp();
        Configure(1, 5);
        querytest::BuildThroughSaveCycle(m_store,
                                         [this](unsigned long long tick) { m_store.Save(tick); });
        ASSERT_EQ(3, m_store.GetFileNum());
    }

    void Queue(const std::string& sql, unsigned long long id) {
        std::string text = sql;
        _tagDBSqlCmdInfo cmd{&text, 2, id, 0};
        ASSERT_EQ(1, m_store.AddNode(cmd));
    }

    std::string Rows(const std::string& file) {
        return RawJoined(Dir() + file, "select id, v from rec order by id");
    }
};

TEST_F(DeferredCommandsAfterSavesTest, UpdatesAndDeletesReachFlushedAndBufferedRows) {
    ASSERT_EQ("17|r17,18|r18,19|r19,20|r20", Rows("rec_2.db"));
    Queue("delete from rec where id = 12", 12);
    Queue("update rec set v = 'upd' where id = 22", 22);
    Queue("update rec set v = 'edge' where id in (8, 16, 17)", 16);  // rec_1 and rec_2
    const long long before = m_store.GetChangeNum();
    m_store.Save(14600);  // within the interval: no flush
    EXPECT_EQ(before + 1, m_store.GetChangeNum());
    EXPECT_TRUE(m_store.m_listOtherCmd.empty());

    EXPECT_EQ("1|r1,2|r2,3|r3,4|r4,5|r5,6|r6,7|r7,8|r8", Rows("rec_0.db"));
    EXPECT_EQ("9|r9,10|r10,11|r11,13|r13,14|r14,15|r15,16|edge", Rows("rec_1.db"));
    EXPECT_EQ("17|edge,18|r18,19|r19,20|r20", Rows("rec_2.db"));
    EXPECT_EQ("22", BufferIds("where v = 'upd'"));

    // The buffered change reaches the file with the next flush.
    m_store.Save(16000);
    EXPECT_EQ("17|edge,18|r18,19|r19,20|r20,21|r21,22|upd,23|r23", Rows("rec_2.db"));
}

TEST_F(DeferredCommandsAfterSavesTest, DeleteOfABufferedRowNeverReachesTheFile) {
    Queue("delete from rec where id = 21", 21);
    m_store.Save(14600);
    EXPECT_EQ("22,23", BufferIds());
    m_store.Save(16000);
    EXPECT_EQ("17,18,19,20,22,23", RawJoined(Dir() + "rec_2.db", "select id from rec order by id"));
}

TEST_F(DeferredCommandsAfterSavesTest, CommandsQueuedAfterASaveWaitForTheNextOne) {
    m_store.Save(14600);
    Queue("delete from rec where id = 10", 10);
    EXPECT_EQ(1u, m_store.m_listOtherCmd.size());
    m_store.Save(14700);
    EXPECT_TRUE(m_store.m_listOtherCmd.empty());
    EXPECT_EQ("9,11,12,13,14,15,16",
              RawJoined(Dir() + "rec_1.db", "select id from rec order by id"));
}

}  // namespace
