// Shared setup of the read and statement tests: a store on the data
// partition with several DB files and buffered rows, built either white-box
// (CreateFileDB, raw inserts and catalog ranges set by hand) or through the
// real save cycle, plus small readers for the rows that came back.
#ifndef TESTS_SQLITE3DB_QUERYSTOREFIXTURE_H_
#define TESTS_SQLITE3DB_QUERYSTOREFIXTURE_H_

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "Sqlite3DB/DbData/DbData.h"
#include "Sqlite3DB/Sqlite3DB.h"
#include "TestUtil.h"

namespace querytest {

// Time stamp of record id in every store built here.
inline unsigned long long TimeOf(unsigned long long id) {
    return 1000 + 10 * id;
}

// The first column of every row of a table, as numbers.
inline std::vector<long long> Column0(CBBSQL::CppSQLite3Table table) {
    std::vector<long long> values;
    for (int row = 0; row < table.numRows(); ++row) {
        table.setRow(row);
        values.push_back(table.getInt64Field(0));
    }
    return values;
}

// The first column of every table, one vector per table.
inline std::vector<std::vector<long long>> Column0(
    const std::vector<CBBSQL::CppSQLite3Table>& tables) {
    std::vector<std::vector<long long>> all;
    for (const CBBSQL::CppSQLite3Table& table : tables) {
        all.push_back(Column0(table));
    }
    return all;
}

// The rows of a raw query, each row's columns joined by '|', rows by ','.
inline std::string RawJoined(const std::string& path, const std::string& sql) {
    std::string text;
    for (const std::vector<std::string>& row : testutil::RawQuery(path, sql)) {
        if (!text.empty()) {
            text += ",";
        }
        for (size_t i = 0; i < row.size(); ++i) {
            text += (i == 0 ? "" : "|") + row[i];
        }
    }
    return text;
}

// Holds lock here while call runs on another thread; true when the call
// finished within two seconds, i.e. without waiting for the lock. A call that
// does wait gets the lock after that time, so nothing hangs.
inline bool FinishesWhileLocked(COS::CosMutex& lock, const std::function<void()>& call) {
    lock.Lock();
    std::atomic<bool> done{false};
    std::thread worker([&] {
        call();
        done = true;
    });
    for (int i = 0; i < 2000 && !done; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    const bool finished = done;
    lock.Unlock();
    worker.join();
    return finished;
}

// Queues the records first..last as type-1 inserts ("insert into rec ...").
inline void QueueRecords(DbData& store, unsigned long long first, unsigned long long last) {
    for (unsigned long long id = first; id <= last; ++id) {
        std::string sql = "insert into rec values(" + std::to_string(id) + ", " +
                          std::to_string(TimeOf(id)) + ", 'r" + std::to_string(id) + "')";
        _tagDBSqlCmdInfo cmd{&sql, 1, id, TimeOf(id)};
        ASSERT_EQ(1, store.AddNode(cmd));
    }
}

// Runs the real save cycle on a store configured with nMaxRecordNum 5 and
// nSaveTime 1000, leaving three DB files and three buffered records:
//   rec_0.db IDs [1,8], rec_1.db [8,16], rec_2.db [16,20] (each new file
//   starts at the last ID flushed before it), buffer [20,23]
// holding rows 1-8, 9-16, 17-20 and 21-23. save(tick) runs one cycle.
inline void BuildThroughSaveCycle(DbData& store,
                                  const std::function<void(unsigned long long)>& save) {
    QueueRecords(store, 1, 8);
    save(10000);  // flush into rec_0.db; 7 records reach the limit: rec_1.db
    QueueRecords(store, 9, 16);
    save(12000);  // flush into rec_1.db; split: rec_2.db
    QueueRecords(store, 17, 20);
    save(14000);  // flush into rec_2.db; 4 records, no split
    QueueRecords(store, 21, 23);
    save(14500);  // within the save interval: the rows stay buffered
}

// A store configured through DbData::Config in its own directory under
// "/mnt/data/". Time stamps are fixed at 5 so new files are dated 5.
class StoreTest : public ::testing::Test {
protected:
    StoreTest() : m_dir("/mnt/data/") {}

    void SetUp() override {
        PlatformSim::Reset();
        PlatformSim::SetTimeStamp(5);
        m_conf.dirName = m_dir.name() + "/sub";
    }

    void TearDown() override { PlatformSim::Reset(); }

    // Configures m_store; one empty DB file (rec_0.db) exists afterwards.
    void Configure(int useMemDB = 1, int maxRecordNum = 0) {
        m_conf.conf.bUseMemDB = useMemDB;
        m_conf.conf.nMaxRecordNum = maxRecordNum;
        ASSERT_EQ(1, m_store.Config(m_conf.get(), 1, "md5"));
        ASSERT_EQ(1, m_store.GetFileNum());
    }

    std::string Dir() const { return m_dir.path() + "sub/"; }

    // Full path of catalog entry index (at() throws, failing the test rather
    // than the test program, when there is no such entry).
    std::string FilePath(int index) {
        return m_store.m_strSavePath + m_store.m_vecFileInfo.at(index).GetFullName();
    }

    // Inserts rows first..last (v = tag) into catalog entry index with raw
    // SQLite and sets the entry's ID and time ranges to match.
    void FillFile(int index, unsigned long long first, unsigned long long last,
                  const std::string& tag) {
        std::string sql = "begin;";
        for (unsigned long long id = first; id <= last; ++id) {
            sql += "insert into rec values(" + std::to_string(id) + "," +
                   std::to_string(TimeOf(id)) + ",'" + tag + "');";
        }
        testutil::RawExec(FilePath(index), sql + "commit;");
        DbFileInfo& rec = m_store.m_vecFileInfo.at(index);
        rec.SetStartID(first);
        rec.SetEndID(last);
        rec.SetStartTime(TimeOf(first));
        rec.SetEndTime(TimeOf(last));
    }

    // Inserts rows first..last (v = 'buffer') into the memory buffer and sets
    // the buffer's range members to match.
    void FillBuffer(unsigned long long first, unsigned long long last) {
        for (unsigned long long id = first; id <= last; ++id) {
            m_store.m_pMemDB->execDML(("insert into rec values(" + std::to_string(id) + "," +
                                       std::to_string(TimeOf(id)) + ",'buffer')")
                                          .c_str());
        }
        m_store.m_nMemMinID = first;
        m_store.m_nMemMaxID = last;
        m_store.m_nMemStartTime = TimeOf(first);
        m_store.m_nMemEndTime = TimeOf(last);
    }

    // Three files of eight rows and eight buffered rows:
    //   0: IDs 1-8 'file0', 1: 9-16 'file1', 2: 17-24 'file2', buffer 25-32.
    void BuildThreeFilesAndBuffer() {
        Configure();
        while (m_store.GetFileNum() < 3) {
            ASSERT_EQ(1, m_store.CreateFileDB());
        }
        FillFile(0, 1, 8, "file0");
        FillFile(1, 9, 16, "file1");
        FillFile(2, 17, 24, "file2");
        FillBuffer(25, 32);
    }

    // The ids in the memory buffer, ascending, joined by ','.
    std::string BufferIds(const std::string& where = "") {
        std::string text;
        CBBSQL::CppSQLite3Table table =
            m_store.m_pMemDB->getTable(("select id from rec " + where + " order by id").c_str());
        for (long long id : Column0(table)) {
            text += (text.empty() ? "" : ",") + std::to_string(id);
        }
        return text;
    }

    testutil::TempDir m_dir;
    testutil::Conf m_conf;
    DbData m_store;
};

// A store created through the registry and filled by the real save cycle:
// rec_0.db [1,8], rec_1.db [8,16], rec_2.db [16,20], buffer [20,23].
class RegistryStoreAfterSavesTest : public ::testing::Test {
protected:
    RegistryStoreAfterSavesTest() : m_dir("/mnt/data/") {}

    void SetUp() override {
        PlatformSim::Reset();
        PlatformSim::SetTimeStamp(5);
        Sqlite3DB::Sqlit3DBEnable("/nonexistent");
        m_conf.dirName = m_dir.name() + "/sub";
        m_conf.conf.nMaxRecordNum = 5;
        m_conf.conf.nSaveTime = 1000;
        const long long id = Sqlite3DB::Create(m_conf.get(), 0);
        ASSERT_GT(id, 0);
        ASSERT_EQ(1, m_handle.Open(id));
        m_store = Sqlite3DB::GetDbByID(id);
        BuildThroughSaveCycle(*m_store, [](unsigned long long tick) {
            PlatformSim::SetTickCount(tick);
            Sqlite3DB::Save();
        });
        ASSERT_EQ(3, m_store->GetFileNum());
    }

    void TearDown() override {
        Sqlite3DB::Destroy();
        PlatformSim::Reset();
    }

    testutil::TempDir m_dir;
    testutil::Conf m_conf;
    Sqlite3DB m_handle;
    DbData* m_store = nullptr;
};

}  // namespace querytest

#endif  // TESTS_SQLITE3DB_QUERYSTOREFIXTURE_H_
