// The store's command queues and memory buffer: queueing with AddNode (the
// bound of 500 per queue, routing of insert and replace commands, the copy of
// the text), the kept-only Insert/Update/Delete texts, the ":memory:" buffer
// created at start-up, the insert batch of a save cycle (the commands counted
// at the cycle's start, a failing command kept at the head without a
// rollback), the memory range bookkeeping and the change counter.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <chrono>
#include <future>
#include <list>
#include <string>
#include <vector>

#include "PlatformSim.h"
#include "Sqlite3DB/DbData/DbData.h"
#include "TestUtil.h"

namespace {

using testutil::LogTexts;

const unsigned long long kTick = 1000000;

std::string InsertSql(unsigned long long id) {
    return "insert into rec values(" + std::to_string(id) + ", " + std::to_string(id * 10) +
           ", 'x')";
}

// Queues one command through the store's own queueing operation.
int Add(DbData& store, const std::string& sql, int type = 0, unsigned long long id = 0,
        unsigned long long time = 0) {
    std::string text = sql;
    _tagDBSqlCmdInfo cmd{&text, type, id, time};
    return store.AddNode(cmd);
}

std::vector<std::string> Texts(const std::list<_tagDBSqlCmdInfo>& queue) {
    std::vector<std::string> texts;
    for (const _tagDBSqlCmdInfo& cmd : queue) {
        texts.push_back(*cmd.pSql);
    }
    return texts;
}

class CommandQueueTest : public ::testing::Test {
protected:
    void SetUp() override {
        PlatformSim::Reset();
        PlatformSim::SetTickCount(kTick);
        m_conf.dirName = m_dir.name() + "/sub";
    }
    void TearDown() override { PlatformSim::Reset(); }

    // Configures m_store on the data partition, with or without a buffer.
    void Configure(int useMemDB = 1) {
        m_conf.conf.bUseMemDB = useMemDB;
        ASSERT_EQ(1, m_store.Config(m_conf.get(), 1, "md5"));
        PlatformSim::TakeLogLines();
    }

    // Queues type-1 inserts of the records first..last (time = 10 * ID).
    void QueueRecords(unsigned long long first, unsigned long long last) {
        for (unsigned long long id = first; id <= last; ++id) {
            ASSERT_EQ(1, Add(m_store, InsertSql(id), 1, id, id * 10));
        }
    }

    // What a save cycle notes at its start: the sizes of both queues.
    void Snapshot() {
        m_store.m_nInsertCmdNum = static_cast<int>(m_store.m_listInsertCmd.size());
        m_store.m_nOtherCmdNum = static_cast<int>(m_store.m_listOtherCmd.size());
    }

    int BufferedRows() {
        CBBSQL::CppSQLite3Query q = m_store.m_pMemDB->execQuery("select count(*) from rec");
        return q.getIntField(0);
    }

    std::string FilePath() const { return m_dir.path() + "sub/rec_0.db"; }

    std::string FileRows() { return testutil::RawValue(FilePath(), "select count(*) from rec"); }

    void ExpectMemoryRange(unsigned long long minID, unsigned long long maxID,
                           unsigned long long start, unsigned long long end) {
        EXPECT_EQ(minID, m_store.m_nMemMinID);
        EXPECT_EQ(maxID, m_store.m_nMemMaxID);
        EXPECT_EQ(start, m_store.m_nMemStartTime);
        EXPECT_EQ(end, m_store.m_nMemEndTime);
    }

    testutil::TempDir m_dir{"/mnt/data/"};
    testutil::Conf m_conf;
    DbData m_store;
};

}  // namespace

// --- AddNode ---------------------------------------------------------------------

TEST_F(CommandQueueTest, The500thInsertIsAcceptedAndThe501stRefused) {
    for (int i = 1; i <= 499; ++i) {
        ASSERT_EQ(1, Add(m_store, InsertSql(i)));
    }
    EXPECT_EQ(1, Add(m_store, InsertSql(500)));
    EXPECT_EQ(500u, m_store.m_listInsertCmd.size());
    EXPECT_EQ(0, Add(m_store, InsertSql(501)));
    ASSERT_EQ(500u, m_store.m_listInsertCmd.size());
    EXPECT_EQ(InsertSql(500), *m_store.m_listInsertCmd.back().pSql);
}

TEST_F(CommandQueueTest, AFullInsertQueueRefusesOtherCommandsToo) {
    for (int i = 1; i <= 500; ++i) {
        ASSERT_EQ(1, Add(m_store, InsertSql(i)));
    }
    EXPECT_EQ(0, Add(m_store, "update rec set v = 'y' where id = 1"));
    EXPECT_EQ(0, Add(m_store, "delete from rec where id = 1"));
    EXPECT_TRUE(m_store.m_listOtherCmd.empty());
}

TEST_F(CommandQueueTest, AFullOtherQueueRefusesInsertsToo) {
    for (int i = 1; i <= 500; ++i) {
        ASSERT_EQ(1, Add(m_store, "delete from rec where id = " + std::to_string(i)));
    }
    EXPECT_EQ(0, Add(m_store, "update rec set v = 'y'"));
    EXPECT_EQ(0, Add(m_store, InsertSql(1)));
    EXPECT_EQ(0, Add(m_store, "replace into rec values(1, 1, 'x')"));
    EXPECT_EQ(500u, m_store.m_listOtherCmd.size());
    EXPECT_TRUE(m_store.m_listInsertCmd.empty());
}

TEST_F(CommandQueueTest, AQueueWithRoomAcceptsAgainOnceTheOtherIsBelowTheBound) {
    for (int i = 1; i <= 500; ++i) {
        ASSERT_EQ(1, Add(m_store, "delete from rec where id = " + std::to_string(i)));
    }
    ASSERT_EQ(0, Add(m_store, InsertSql(1)));
    ASSERT_EQ(500u, m_store.m_listOtherCmd.size());
    delete m_store.m_listOtherCmd.front().pSql;
    m_store.m_listOtherCmd.pop_front();
    EXPECT_EQ(1, Add(m_store, InsertSql(1)));
    EXPECT_EQ(1u, m_store.m_listInsertCmd.size());
}

TEST_F(CommandQueueTest, InsertAndReplaceGoToTheInsertQueueCaseSensitively) {
    const std::vector<std::string> inserts = {
        "insert into rec values(1, 1, 'x')",
        "replace into rec values(2, 2, 'x')",
        "insertion is what the verb test sees",  // only the first six characters count
        "replace",
    };
    const std::vector<std::string> others = {
        "INSERT INTO rec values(3, 3, 'x')",
        "Insert into rec values(4, 4, 'x')",
        " insert into rec values(5, 5, 'x')",
        "REPLACE into rec values(6, 6, 'x')",
        "replac",
        "inser",
        "update rec set v = 'y'",
        "delete from rec",
        "",
    };
    for (const std::string& sql : inserts) {
        ASSERT_EQ(1, Add(m_store, sql));
    }
    for (const std::string& sql : others) {
        ASSERT_EQ(1, Add(m_store, sql));
    }
    EXPECT_EQ(inserts, Texts(m_store.m_listInsertCmd));
    EXPECT_EQ(others, Texts(m_store.m_listOtherCmd));
}

TEST_F(CommandQueueTest, TheQueuedEntryIsACopyOwningItsOwnText) {
    std::string sql = InsertSql(7);
    _tagDBSqlCmdInfo cmd{&sql, 1, 7, 70};
    ASSERT_EQ(1, m_store.AddNode(cmd));
    sql = "changed by the host afterwards";

    ASSERT_EQ(1u, m_store.m_listInsertCmd.size());
    const _tagDBSqlCmdInfo& entry = m_store.m_listInsertCmd.front();
    EXPECT_NE(&sql, entry.pSql);
    EXPECT_EQ(InsertSql(7), *entry.pSql);
    EXPECT_EQ(1, entry.nType);
    EXPECT_EQ(7u, entry.nID);
    EXPECT_EQ(70u, entry.nTime);
    EXPECT_EQ(&sql, cmd.pSql);  // the caller's record is left alone
}

TEST_F(CommandQueueTest, TheTextIsCopiedUpToItsFirstNul) {
    const std::string head = "insert into rec values(1, 1, 'x')";
    std::string sql = head + std::string(1, '\0') + "; drop table rec";
    ASSERT_EQ(head.size() + 17, sql.size());
    ASSERT_EQ(1, Add(m_store, sql));
    ASSERT_EQ(1u, m_store.m_listInsertCmd.size());
    EXPECT_EQ(head, *m_store.m_listInsertCmd.front().pSql);
    EXPECT_EQ(head.size(), m_store.m_listInsertCmd.front().pSql->size());
}

TEST_F(CommandQueueTest, ATextStartingWithNulIsQueuedEmptyAsAnOtherCommand) {
    ASSERT_EQ(1, Add(m_store, std::string(1, '\0') + "insert into rec values(1, 1, 'x')"));
    EXPECT_TRUE(m_store.m_listInsertCmd.empty());
    ASSERT_EQ(1u, m_store.m_listOtherCmd.size());
    EXPECT_EQ("", *m_store.m_listOtherCmd.front().pSql);
}

TEST_F(CommandQueueTest, EntriesReusedAfterACycleCarryOnlyTheNewCommand) {
    Configure();
    const std::string longText = InsertSql(1) + "                                        ";
    ASSERT_EQ(1, Add(m_store, longText, 1, 1, 10));
    ASSERT_EQ(1, Add(m_store, InsertSql(2), 1, 2, 20));
    Snapshot();
    m_store.SaveCmdInfo(m_store.m_pMemDB);
    ASSERT_TRUE(m_store.m_listInsertCmd.empty());

    // Shorter texts, a cut at a NUL, the other queue and another type.
    const std::string head = "insert into rec values(3, 30, 'y')";
    ASSERT_EQ(1, Add(m_store, head + std::string(1, '\0') + "tail", 0, 0, 0));
    ASSERT_EQ(1, Add(m_store, "update rec set v = 'z'", 1, 9, 90));
    ASSERT_EQ(1, Add(m_store, InsertSql(4), 1, 4, 40));
    EXPECT_EQ((std::vector<std::string>{head, InsertSql(4)}), Texts(m_store.m_listInsertCmd));
    EXPECT_EQ((std::vector<std::string>{"update rec set v = 'z'"}), Texts(m_store.m_listOtherCmd));
    const _tagDBSqlCmdInfo& first = m_store.m_listInsertCmd.front();
    EXPECT_EQ(0, first.nType);
    EXPECT_EQ(0u, first.nID);
    EXPECT_EQ(0u, first.nTime);
    const _tagDBSqlCmdInfo& other = m_store.m_listOtherCmd.front();
    EXPECT_EQ(1, other.nType);
    EXPECT_EQ(9u, other.nID);
    EXPECT_EQ(90u, other.nTime);
    EXPECT_NE(first.pSql, m_store.m_listInsertCmd.back().pSql);

    // The reused entries run like fresh ones.
    Snapshot();
    m_store.SaveCmdInfo(m_store.m_pMemDB);
    EXPECT_TRUE(m_store.m_listInsertCmd.empty());
    EXPECT_EQ(4, BufferedRows());
}

TEST_F(CommandQueueTest, AddNodeWaitsWhileTheQueueLockIsHeld) {
    m_store.m_mutexCmd.Lock();  // as a running insert batch holds it
    std::future<int> queued =
        std::async(std::launch::async, [this] { return Add(m_store, InsertSql(1)); });
    EXPECT_EQ(std::future_status::timeout, queued.wait_for(std::chrono::milliseconds(100)));
    m_store.m_mutexCmd.Unlock();
    EXPECT_EQ(1, queued.get());
    EXPECT_EQ(1u, m_store.m_listInsertCmd.size());
    EXPECT_NE(0, m_store.m_mutexCmd.TryLock(200));  // and AddNode gave it back
    m_store.m_mutexCmd.Unlock();
}

// --- Insert, Update, Delete -------------------------------------------------------

TEST_F(CommandQueueTest, InsertUpdateDeleteOnlyKeepTheTextAndAlwaysReturnOne) {
    Configure();
    EXPECT_EQ(1, m_store.Insert(InsertSql(1)));
    EXPECT_EQ(1, m_store.Update("update rec set v = 'y'"));
    EXPECT_EQ(1, m_store.Delete("delete from rec"));
    EXPECT_EQ(1, m_store.Insert("not even SQL"));
    EXPECT_EQ((std::list<std::string>{InsertSql(1), "update rec set v = 'y'", "delete from rec",
                                      "not even SQL"}),
              m_store.m_listSql);
    EXPECT_TRUE(m_store.m_listInsertCmd.empty());
    EXPECT_TRUE(m_store.m_listOtherCmd.empty());

    // No save cycle ever runs them.
    m_store.Save(kTick);
    m_store.Save(kTick + 5000);
    EXPECT_EQ(0, BufferedRows());
    EXPECT_EQ("0", FileRows());
    EXPECT_EQ(4u, m_store.m_listSql.size());
    EXPECT_EQ(0, m_store.GetChangeNum());
}

TEST_F(CommandQueueTest, InsertTakesNoBoundOnKeptTexts) {
    for (int i = 0; i < 600; ++i) {
        ASSERT_EQ(1, m_store.Insert(InsertSql(i)));
    }
    EXPECT_EQ(600u, m_store.m_listSql.size());
    EXPECT_EQ(1, Add(m_store, InsertSql(1)));  // the command queues are unaffected
}

// --- CreateMemoryDB ---------------------------------------------------------------

TEST_F(CommandQueueTest, StartUpOpensTheBufferWithAutoVacuumAndTheDataTable) {
    Configure();
    ASSERT_NE(nullptr, m_store.m_pMemDB);
    CBBSQL::CppSQLite3Query q = m_store.m_pMemDB->execQuery("PRAGMA auto_vacuum");
    EXPECT_EQ(1, q.getIntField(0));
    q.finalize();
    EXPECT_TRUE(m_store.m_pMemDB->tableExists("rec"));
    CBBSQL::CppSQLite3Query file = m_store.m_pMemDB->execQuery("PRAGMA database_list");
    EXPECT_EQ("", std::string(file.getStringField(2, "?")));  // an in-memory database
}

TEST_F(CommandQueueTest, CreateMemoryDBWithoutBufferingDoesNothing) {
    Configure(0);
    EXPECT_EQ(nullptr, m_store.m_pMemDB);
    EXPECT_EQ(1, m_store.CreateMemoryDB());
    EXPECT_EQ(nullptr, m_store.m_pMemDB);
}

TEST_F(CommandQueueTest, CreateMemoryDBKeepsAnExistingBuffer) {
    Configure();
    CBBSQL::CppSQLite3DB* before = m_store.m_pMemDB;
    m_store.m_pMemDB->execDML(InsertSql(1).c_str());
    EXPECT_EQ(1, m_store.CreateMemoryDB());
    EXPECT_EQ(before, m_store.m_pMemDB);
    EXPECT_EQ(1, BufferedRows());
}

TEST_F(CommandQueueTest, CreateMemoryDBWithoutTableNameLeavesAnOpenEmptyBuffer) {
    m_store.m_bUseMemDB = 1;
    m_store.m_strCreateTableSql = m_conf.createSql;
    EXPECT_EQ(0, m_store.CreateMemoryDB());
    ASSERT_NE(nullptr, m_store.m_pMemDB);
    CBBSQL::CppSQLite3Query q = m_store.m_pMemDB->execQuery("select count(*) from sqlite_master");
    EXPECT_EQ(0, q.getIntField(0));
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(CommandQueueTest, CreateMemoryDBWithoutCreateStatementLeavesAnOpenEmptyBuffer) {
    m_store.m_bUseMemDB = 1;
    m_store.m_strTableName = "rec";
    EXPECT_EQ(0, m_store.CreateMemoryDB());
    ASSERT_NE(nullptr, m_store.m_pMemDB);
    EXPECT_FALSE(m_store.m_pMemDB->tableExists("rec"));
    CBBSQL::CppSQLite3Query q = m_store.m_pMemDB->execQuery("PRAGMA auto_vacuum");
    EXPECT_EQ(0, q.getIntField(0));  // nothing was run on it
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

namespace {

// Creates the data table in every new in-memory connection, so that the
// store's fresh buffer already holds it. Registered only inside a test.
int CreateRecInMemoryDbs(sqlite3* db, char**, const sqlite3_api_routines*) {
    const char* file = sqlite3_db_filename(db, "main");
    if (file == nullptr || *file == '\0') {
        sqlite3_exec(db, "CREATE TABLE rec (id INTEGER PRIMARY KEY)", nullptr, nullptr, nullptr);
    }
    return SQLITE_OK;
}

struct AutoExtension {
    using EntryPoint = void (*)();
    AutoExtension() { sqlite3_auto_extension(reinterpret_cast<EntryPoint>(CreateRecInMemoryDbs)); }
    ~AutoExtension() {
        sqlite3_cancel_auto_extension(reinterpret_cast<EntryPoint>(CreateRecInMemoryDbs));
    }
};

}  // namespace

TEST_F(CommandQueueTest, CreateMemoryDBWithTheTableAlreadyThereRunsNothing) {
    // A buffer is always opened fresh, so the table can only be there when
    // the engine itself put it in; the auto-extension does exactly that.
    m_store.m_bUseMemDB = 1;
    m_store.m_strTableName = "rec";
    m_store.m_strCreateTableSql = "CREATE TABLE rec (this would not parse";
    {
        AutoExtension extension;
        EXPECT_EQ(1, m_store.CreateMemoryDB());
    }
    ASSERT_NE(nullptr, m_store.m_pMemDB);
    EXPECT_TRUE(m_store.m_pMemDB->tableExists("rec"));
    CBBSQL::CppSQLite3Query q = m_store.m_pMemDB->execQuery("PRAGMA auto_vacuum");
    EXPECT_EQ(0, q.getIntField(0));  // neither the pragma nor the CREATE ran
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(CommandQueueTest, ARejectedCreateStatementIsLoggedAsConfigAndKeepsTheBuffer) {
    m_store.m_bUseMemDB = 1;
    m_store.m_strTableName = "rec";
    m_store.m_strCreateTableSql = "CREATE TABLOID rec (id INTEGER)";
    EXPECT_EQ(0, m_store.CreateMemoryDB());
    ASSERT_NE(nullptr, m_store.m_pMemDB);
    EXPECT_EQ((std::vector<std::string>{"DbData.cpp: [DB]Config:near \"TABLOID\": syntax error"}),
              LogTexts(PlatformSim::TakeLogLines()));
    CBBSQL::CppSQLite3Query q = m_store.m_pMemDB->execQuery("PRAGMA auto_vacuum");
    EXPECT_EQ(1, q.getIntField(0));  // the pragma ran before the CREATE failed
    q.finalize();
    EXPECT_FALSE(m_store.m_pMemDB->tableExists("rec"));
}

// --- SaveCmdInfo ------------------------------------------------------------------

TEST_F(CommandQueueTest, SaveCmdInfoWithoutDatabaseDoesNothing) {
    QueueRecords(1, 2);
    Snapshot();
    m_store.SaveCmdInfo(nullptr);
    EXPECT_EQ(2u, m_store.m_listInsertCmd.size());
    EXPECT_EQ(0, m_store.m_bMemChange);
    EXPECT_EQ(0, m_store.GetChangeNum());
}

TEST_F(CommandQueueTest, SaveCmdInfoOnAnEmptyQueueChangesNothing) {
    Configure();
    Add(m_store, "delete from rec");  // other commands are not its business
    Snapshot();
    m_store.SaveCmdInfo(m_store.m_pMemDB);
    EXPECT_EQ(0, m_store.m_bMemChange);
    EXPECT_EQ(0, m_store.GetChangeNum());
    EXPECT_EQ(1u, m_store.m_listOtherCmd.size());
    EXPECT_NE(0, m_store.m_mutexCmd.TryLock(200));
    m_store.m_mutexCmd.Unlock();
}

TEST_F(CommandQueueTest, SaveCmdInfoRunsTheBatchInOneCommittedTransaction) {
    Configure();
    QueueRecords(1, 3);
    Snapshot();
    m_store.SaveCmdInfo(m_store.m_pMemDB);
    EXPECT_EQ(3, BufferedRows());
    EXPECT_TRUE(m_store.m_listInsertCmd.empty());
    EXPECT_EQ(1, m_store.m_bMemChange);
    EXPECT_EQ(1, m_store.GetChangeNum());
    // Committed: a new transaction can begin.
    EXPECT_NO_THROW(m_store.m_pMemDB->execDML("begin"));
    m_store.m_pMemDB->execDML("commit");
    EXPECT_NE(0, m_store.m_mutexCmd.TryLock(200));
    m_store.m_mutexCmd.Unlock();
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());
}

TEST_F(CommandQueueTest, OnlyTheCommandsCountedAtTheStartOfTheCycleRun) {
    Configure();
    QueueRecords(1, 10);
    Snapshot();            // 10 queued when the cycle begins
    QueueRecords(11, 15);  // 5 more arrive while it runs
    m_store.SaveCmdInfo(m_store.m_pMemDB);
    EXPECT_EQ(10, BufferedRows());
    std::vector<std::string> left;
    for (int id = 11; id <= 15; ++id) {
        left.push_back(InsertSql(id));
    }
    EXPECT_EQ(left, Texts(m_store.m_listInsertCmd));
    EXPECT_EQ(10u, m_store.m_nMemMaxID);

    // The next cycle takes them (and, its first flush check being due,
    // flushes all fifteen).
    m_store.Save(kTick);
    EXPECT_TRUE(m_store.m_listInsertCmd.empty());
    EXPECT_EQ(2, m_store.GetChangeNum());
    EXPECT_EQ("15", FileRows());
}

TEST_F(CommandQueueTest, AZeroSnapshotRunsNothingButStillOpensAndCommits) {
    Configure();
    QueueRecords(1, 2);
    m_store.m_nInsertCmdNum = 0;
    m_store.SaveCmdInfo(m_store.m_pMemDB);
    EXPECT_EQ(0, BufferedRows());
    EXPECT_EQ(2u, m_store.m_listInsertCmd.size());
    EXPECT_EQ(1, m_store.m_bMemChange);
    EXPECT_EQ(1, m_store.GetChangeNum());
}

TEST_F(CommandQueueTest, AFailingCommandStaysAtTheHeadWithoutRollback) {
    Configure();
    QueueRecords(1, 2);
    ASSERT_EQ(1, Add(m_store, "insert into nosuch values(3)", 1, 3, 30));
    QueueRecords(4, 5);
    Snapshot();
    m_store.SaveCmdInfo(m_store.m_pMemDB);

    EXPECT_EQ(
        (std::vector<std::string>{"insert into nosuch values(3)", InsertSql(4), InsertSql(5)}),
        Texts(m_store.m_listInsertCmd));
    EXPECT_EQ(0, m_store.GetChangeNum());
    EXPECT_EQ(1, m_store.m_bMemChange);
    EXPECT_EQ(2u, m_store.m_nLastID);
    ExpectMemoryRange(1, 2, 10, 20);
    EXPECT_EQ((std::vector<std::string>{"DbData.cpp: [DB]Save:no such table: nosuch"}),
              LogTexts(PlatformSim::TakeLogLines()));
    EXPECT_NE(0, m_store.m_mutexCmd.TryLock(200));  // the queue lock was given back
    m_store.m_mutexCmd.Unlock();

    // No rollback: the rows run before the failure are there, inside a
    // transaction that is still open.
    EXPECT_EQ(2, BufferedRows());
    try {
        m_store.m_pMemDB->execDML("begin");
        ADD_FAILURE() << "the buffer's transaction was closed";
    } catch (CBBSQL::CppSQLite3Exception& e) {
        EXPECT_EQ("cannot start a transaction within a transaction", std::string(e.errorMessage()));
    }
}

// The transaction left open by a failing command makes every later batch
// fail at its "begin": the queue stays blocked, even after the save
// directory is reloaded (which empties the queue but closes nothing). This is
// what the step-by-step save cycle does.
TEST_F(CommandQueueTest, AfterAFailingCommandEveryLaterBatchFailsAtBegin) {
    Configure();
    m_store.Save(kTick);  // the first flush check only notes the tick
    QueueRecords(1, 2);
    ASSERT_EQ(1, Add(m_store, "insert into nosuch values(3)", 1, 3, 30));
    m_store.Save(kTick + 100);
    ASSERT_EQ((std::vector<std::string>{"DbData.cpp: [DB]Save:no such table: nosuch"}),
              LogTexts(PlatformSim::TakeLogLines()));

    m_store.Save(kTick + 200);
    EXPECT_EQ(1u, m_store.m_listInsertCmd.size());
    EXPECT_EQ(0, m_store.GetChangeNum());
    EXPECT_EQ((std::vector<std::string>{
                  "DbData.cpp: [DB]Save:cannot start a transaction within a transaction"}),
              LogTexts(PlatformSim::TakeLogLines()));

    // A reload empties the queue and the buffer's rows, yet the transaction
    // stays open, so a good insert queued afterwards is blocked as well.
    testutil::RemoveTree(m_dir.path() + "sub");
    m_store.Save(kTick + 300);
    EXPECT_EQ(1, m_store.HasSaveDir());
    EXPECT_TRUE(testutil::FileExists(FilePath()));
    EXPECT_TRUE(m_store.m_listInsertCmd.empty());
    EXPECT_EQ(0, BufferedRows());
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());

    QueueRecords(10, 10);
    m_store.Save(kTick + 400);
    EXPECT_EQ(1u, m_store.m_listInsertCmd.size());
    EXPECT_EQ(0, m_store.GetChangeNum());
    EXPECT_EQ((std::vector<std::string>{
                  "DbData.cpp: [DB]Save:cannot start a transaction within a transaction"}),
              LogTexts(PlatformSim::TakeLogLines()));
}

// A due flush after a failing command attaches the file inside the open
// transaction: the copy and the emptying of the buffer are never committed,
// the detach fails ("locked"), so the file stays attached with its write lock
// and the next flush's DBInfo update, on its own connection, gives up after
// the engine's busy wait. No row reaches the file.
TEST_F(CommandQueueTest, AfterAFailingCommandTheFlushNeverCommitsToTheFile) {
    Configure();
    m_store.Save(kTick);
    QueueRecords(1, 2);
    ASSERT_EQ(1, Add(m_store, "insert into nosuch values(3)", 1, 3, 30));
    m_store.Save(kTick + 2000);  // a failing batch, then a due flush
    EXPECT_EQ(
        (std::vector<std::string>{"DbData.cpp: [DB]Save:no such table: nosuch",
                                  "DbDataRunSql.cpp: [DB]DetachDbDB:database filedb is locked"}),
        LogTexts(PlatformSim::TakeLogLines()));
    EXPECT_EQ(1, m_store.m_bAttach);
    EXPECT_EQ(0, BufferedRows());  // emptied, inside the open transaction
    EXPECT_EQ("0", FileRows());
    // The DBInfo row was written first, on its own connection: it claims
    // records that the file does not hold.
    EXPECT_EQ((std::vector<std::vector<std::string>>{{"2", "1"}}),
              testutil::RawQuery(FilePath(), "select MaxID, MinID from DBInfo"));

    m_store.Save(kTick + 4000);
    EXPECT_EQ((std::vector<std::string>{
                  "DbData.cpp: [DB]Save:cannot start a transaction within a transaction",
                  "DbDataRunSql.cpp: [DB]AttachDbDB:database filedb is already in use",
                  "DbData.cpp: [DB]UpdateFileDBInfo:database is locked",
                  "DbDataRunSql.cpp: [DB]DetachDbDB:database filedb is locked"}),
              LogTexts(PlatformSim::TakeLogLines()));
    EXPECT_EQ(1, m_store.m_bAttach);
    EXPECT_EQ(1u, m_store.m_listInsertCmd.size());
    EXPECT_EQ("0", FileRows());
}

// Without a buffer the batch runs on a connection to the file that the cycle
// closes afterwards; closing it with the transaction open drops the rows run
// before the failing command, although their commands have left the queue.
// The DBInfo update, on its own connection, meanwhile waits for the open
// write transaction and gives up.
TEST_F(CommandQueueTest, WithoutBufferAFailingCommandLosesTheRowsBeforeIt) {
    Configure(0);
    QueueRecords(1, 2);
    ASSERT_EQ(1, Add(m_store, "insert into nosuch values(3)", 1, 3, 30));
    m_store.Save(kTick);

    ASSERT_EQ(1u, m_store.m_listInsertCmd.size());
    EXPECT_EQ("insert into nosuch values(3)", *m_store.m_listInsertCmd.front().pSql);
    EXPECT_EQ(0, m_store.GetChangeNum());
    EXPECT_EQ((std::vector<std::string>{"DbData.cpp: [DB]Save:no such table: nosuch",
                                        "DbData.cpp: [DB]UpdateFileDBInfo:database is locked"}),
              LogTexts(PlatformSim::TakeLogLines()));
    EXPECT_EQ("0", FileRows());
}

TEST_F(CommandQueueTest, RecordWritesMoveTheMemoryRangeAndOtherInsertsDoNot) {
    Configure();
    ASSERT_EQ(1, Add(m_store, InsertSql(5), 1, 5, 500));
    ASSERT_EQ(1, Add(m_store, InsertSql(6), 1, 6, 600));
    ASSERT_EQ(1, Add(m_store, InsertSql(99), 0, 99, 9900));  // a plain statement
    Snapshot();
    m_store.SaveCmdInfo(m_store.m_pMemDB);
    EXPECT_EQ(3, BufferedRows());
    ExpectMemoryRange(5, 6, 500, 600);
    EXPECT_EQ(6u, m_store.m_nLastID);
}

TEST_F(CommandQueueTest, TheFirstRecordAfterClearingTheBufferSetsTheStartValues) {
    Configure();
    QueueRecords(5, 6);
    Snapshot();
    m_store.SaveCmdInfo(m_store.m_pMemDB);
    ASSERT_EQ(1, m_store.ClearMemDbFile());
    ExpectMemoryRange(0, 0, 0, 0);

    QueueRecords(7, 8);
    Snapshot();
    m_store.SaveCmdInfo(m_store.m_pMemDB);
    ExpectMemoryRange(7, 8, 70, 80);
    EXPECT_EQ(8u, m_store.m_nLastID);
}

TEST_F(CommandQueueTest, TheFirstRecordAfterAFlushKeepsTheCollapsedStart) {
    Configure();
    QueueRecords(5, 6);
    m_store.Save(kTick);  // runs and flushes (the first flush check is due)
    ASSERT_EQ("2", FileRows());
    ExpectMemoryRange(6, 6, 60, 60);
    EXPECT_EQ(0, m_store.GetNowDBMemRecordNum());

    QueueRecords(7, 7);
    m_store.Save(kTick + 100);
    ExpectMemoryRange(6, 7, 60, 70);
    EXPECT_EQ(1, m_store.GetNowDBMemRecordNum());
    EXPECT_EQ(1, BufferedRows());
}

// --- Memory range -----------------------------------------------------------------

TEST_F(CommandQueueTest, RangeInSetsTheStartOnlyWhileTheStartTimeIsZero) {
    m_store.UpdateDBMemoryInfo_in(100, 10);
    ExpectMemoryRange(10, 10, 100, 100);
    m_store.UpdateDBMemoryInfo_in(120, 12);
    ExpectMemoryRange(10, 12, 100, 120);
    m_store.UpdateDBMemoryInfo_in(90, 9);  // no ordering is imposed
    ExpectMemoryRange(10, 9, 100, 90);
}

TEST_F(CommandQueueTest, RangeInWithTimeZeroLeavesTheStartOpen) {
    m_store.UpdateDBMemoryInfo_in(0, 10);
    ExpectMemoryRange(10, 10, 0, 0);
    m_store.UpdateDBMemoryInfo_in(110, 11);
    ExpectMemoryRange(11, 11, 110, 110);
}

TEST_F(CommandQueueTest, RangeOutCollapsesOntoTheLastRecord) {
    m_store.UpdateDBMemoryInfo_in(100, 10);
    m_store.UpdateDBMemoryInfo_in(150, 15);
    m_store.UpdateDBMemoryInfo_out();
    ExpectMemoryRange(15, 15, 150, 150);
    m_store.UpdateDBMemoryInfo_in(160, 16);  // the start is not zero: it stays
    ExpectMemoryRange(15, 16, 150, 160);
}

TEST_F(CommandQueueTest, RangeDelMovesOnlyTheMinimumID) {
    m_store.UpdateDBMemoryInfo_in(100, 10);
    m_store.UpdateDBMemoryInfo_in(200, 20);
    m_store.UpdateDBMemoryInfo_Del(4);
    ExpectMemoryRange(14, 20, 100, 200);
    m_store.UpdateDBMemoryInfo_Del(0);
    ExpectMemoryRange(14, 20, 100, 200);
}

TEST_F(CommandQueueTest, RecordCountIsMaxMinusMinWhileBuffering) {
    m_store.m_bUseMemDB = 1;
    m_store.UpdateDBMemoryInfo_in(100, 10);
    EXPECT_EQ(0, m_store.GetNowDBMemRecordNum());
    m_store.UpdateDBMemoryInfo_in(130, 13);
    EXPECT_EQ(3, m_store.GetNowDBMemRecordNum());
    m_store.UpdateDBMemoryInfo_Del(5);  // past the maximum: the 64-bit difference wraps
    EXPECT_EQ(-2, m_store.GetNowDBMemRecordNum());
}

TEST_F(CommandQueueTest, RecordCountIsZeroWithoutABuffer) {
    m_store.m_bUseMemDB = 0;
    m_store.UpdateDBMemoryInfo_in(100, 10);
    m_store.UpdateDBMemoryInfo_in(200, 20);
    EXPECT_EQ(0, m_store.GetNowDBMemRecordNum());
}

TEST_F(CommandQueueTest, RecordCountIsZeroRightAfterAFlush) {
    Configure();
    m_store.Save(kTick);
    QueueRecords(1, 4);
    m_store.Save(kTick + 100);
    EXPECT_EQ(3, m_store.GetNowDBMemRecordNum());  // IDs 1 to 4 count as three
    m_store.Save(kTick + 1200);
    EXPECT_EQ(0, m_store.GetNowDBMemRecordNum());
    EXPECT_EQ(0, BufferedRows());
    EXPECT_EQ("4", FileRows());
}

TEST_F(CommandQueueTest, RecordCountOfAStoreWithoutBufferIsZeroAfterWrites) {
    Configure(0);
    QueueRecords(1, 4);
    m_store.Save(kTick);
    ASSERT_EQ("4", FileRows());
    EXPECT_EQ(4u, m_store.m_nMemMaxID);  // the range still tracks the records written
    EXPECT_EQ(0, m_store.GetNowDBMemRecordNum());
}

// --- GetChangeNum -----------------------------------------------------------------

TEST_F(CommandQueueTest, ChangeNumCountsCommittedBatchesNotStatements) {
    Configure();
    EXPECT_EQ(0, m_store.GetChangeNum());
    QueueRecords(1, 3);
    m_store.Save(kTick);
    EXPECT_EQ(1, m_store.GetChangeNum());
    m_store.Save(kTick + 100);  // nothing queued
    m_store.Save(kTick + 5000);
    EXPECT_EQ(1, m_store.GetChangeNum());
    QueueRecords(4, 4);
    m_store.Save(kTick + 5100);
    EXPECT_EQ(2, m_store.GetChangeNum());
    m_store.m_nChangeNum = 0x123456789ULL;  // the full 64-bit value is returned
    EXPECT_EQ(0x123456789LL, m_store.GetChangeNum());
}
