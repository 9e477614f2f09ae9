// The store's own rules that a crafted file on a medium can use, pinned as
// they stand: a CREATE text without "(" throws std::out_of_range out of a save
// cycle with the save lock held; file numbers wrap at 32 bits and the next
// roll-over deletes the catalogued rec_0.db; a file the scan rejected is
// deleted when a roll-over reaches its number.
#include <filesystem>
#include <stdexcept>

#include "RollingStoreFixture.h"
#include "Sqlite3DB/DbData/DbText.h"

using namespace rollingtest;

namespace {

void MakeStoreFile(const std::string& path, unsigned long long first, unsigned long long last) {
    std::string sql =
        std::string(testutil::Conf().createSql) + ";" + dbtext::kDBInfoCreateSql + ";";
    for (unsigned long long id = first; id <= last; ++id) {
        sql += InsertSql(id) + ";";
    }
    sql += "replace into DBInfo values(1," + std::to_string(last) + "," + std::to_string(first) +
           "," + std::to_string(TimeOf(first)) + "," + std::to_string(TimeOf(last)) +
           ",0,0,0,0,0);";
    testutil::RawExec(path, sql);
}

using HostileMediaKeptTest = RollingStoreTest;

TEST_F(HostileMediaKeptTest, CreateTextWithoutParenthesisThrowsFromSaveAndLeavesTheStoreBlocked) {
    const std::string mount = dir_.path() + "sd/";
    CHmiMedia::SetSDPath(mount);
    testutil::Conf& c = NewConf("unused");
    c.dirName = "store";
    c.conf.nStorePattern = 1;
    DbData& store = MakeStore(c);  // no card yet
    std::filesystem::create_directories(mount + "store/");
    testutil::RawExec(mount + "store/rec_3.db", "CREATE VIRTUAL TABLE rec USING fts4");
    EXPECT_THROW(store.Save(FreshTickBase()), std::out_of_range);
    EXPECT_EQ(0, store.m_mutexSave.TryLock(10));  // still held: the store is unusable
    store.m_mutexSave.Unlock();                   // let the fixture destroy it
}

TEST_F(HostileMediaKeptTest, NumberAtTheTopOfThirtyTwoBitsWrapsAndTheRollOverDeletesFileZero) {
    testutil::Conf& c = NewConf("s");
    c.conf.nMaxRecordNum = 5;
    const std::string dir = SaveDir("s");
    std::filesystem::create_directories(dir);
    MakeStoreFile(dir + "rec_0.db", 1, 3);
    MakeStoreFile(dir + "rec_4294967295.db", 3, 9);
    DbData& store = MakeStore(c);
    ASSERT_EQ(2u, store.m_vecFileInfo.size());
    EXPECT_EQ(4294967295u, store.GetMaxFileID());
    QueueRecords(store, 10, 12);
    store.Save(FreshTickBase());
    store.Save(FreshTickBase() + 5000);        // flushes, then rolls over to number 0
    EXPECT_EQ(0, RowCount(dir + "rec_0.db"));  // records 1..3 are gone with the old file
    EXPECT_EQ(0u, store.m_vecFileInfo.back().GetFileID());
}

TEST_F(HostileMediaKeptTest, RejectedFileIsDeletedWhenTheRollOverReachesItsNumber) {
    testutil::Conf& c = NewConf("s");
    c.conf.nMaxRecordNum = 5;
    const std::string dir = SaveDir("s");
    std::filesystem::create_directories(dir);
    MakeStoreFile(dir + "rec_0.db", 1, 9);
    testutil::RawExec(dir + "rec_1.db",
                      "CREATE TABLE rec (other TEXT); INSERT INTO rec VALUES('x');" +
                          std::string(dbtext::kDBInfoCreateSql));
    DbData& store = MakeStore(c);
    ASSERT_EQ(1u, store.m_vecFileInfo.size());  // rec_1.db: another layout, left in place
    EXPECT_EQ(1, RowCount(dir + "rec_1.db"));
    QueueRecords(store, 10, 12);
    store.Save(FreshTickBase());
    store.Save(FreshTickBase() + 5000);
    ASSERT_EQ(2u, store.m_vecFileInfo.size());
    EXPECT_EQ(0, RowCount(dir + "rec_1.db"));  // made afresh: the old content is gone
}

TEST_F(HostileMediaKeptTest, NumberFromTwoToTheThirtyOneOnWritesTheRangeIntoASignedName) {
    testutil::Conf& c = NewConf("s");
    const std::string dir = SaveDir("s");
    std::filesystem::create_directories(dir);
    MakeStoreFile(dir + "rec_2147483648.db", 1, 3);
    DbData& store = MakeStore(c);
    ASSERT_EQ(1u, store.m_vecFileInfo.size());
    QueueRecords(store, 4, 6);
    store.Save(FreshTickBase());
    EXPECT_EQ(6, RowCount(dir + "rec_2147483648.db"));  // the rows go by the catalogued name
    EXPECT_TRUE(testutil::FileExists(dir + "rec_-2147483648.db"));  // DBInfo by the rebuilt one
    EXPECT_EQ(3u, ReadDBInfo(dir + "rec_2147483648.db").maxID);
}

TEST_F(HostileMediaKeptTest, StemThatPrefixesAnotherStoresStemDeletesItsFiles) {
    testutil::Conf& c = NewConf("s");
    const std::string dir = SaveDir("s");
    std::filesystem::create_directories(dir);
    testutil::RawExec(dir + "record_0.db", "CREATE TABLE record (id INTEGER PRIMARY KEY)");
    MakeStore(c);
    EXPECT_FALSE(testutil::FileExists(dir + "record_0.db"));
}

}  // namespace
