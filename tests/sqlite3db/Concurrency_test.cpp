// A host thread queueing records while another runs the periodic save: every
// command runs exactly once, whether the store buffers in memory or writes
// straight into its file. Each record's ID is the data table's primary key,
// so the files show any record lost or written twice. Also run under the
// thread sanitizer (build-tsan in .ci/run).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "PlatformSim.h"
#include "Sqlite3DB/DbData/DbData.h"
#include "Sqlite3DB/Sqlite3DB.h"
#include "TestUtil.h"

namespace {

const unsigned long long kRecords = 3000;
const long long kID = 21;

// The parameter is bUseMemDB.
class ConcurrencyTest : public ::testing::TestWithParam<int> {
protected:
    void SetUp() override {
        PlatformSim::Reset();
        Sqlite3DB::Destroy();
        m_savedEnable = Sqlite3DB::m_bEnable;
        Sqlite3DB::Sqlit3DBEnable("/nonexistent/project");
        m_conf.dirName = m_dir.name() + "/sub";
        m_conf.conf.bUseMemDB = GetParam();
        m_conf.conf.nSaveTime = 1000;
        m_conf.conf.nMaxRecordNum = 700;  // the buffered store rolls over to new files
    }
    void TearDown() override {
        Sqlite3DB::Destroy();
        Sqlite3DB::m_bEnable = m_savedEnable;
        PlatformSim::Reset();
    }

    // Every record ID found in the store's DB files, duplicates included.
    std::vector<unsigned long long> IdsOnDisk() {
        std::vector<unsigned long long> ids;
        for (const auto& entry : std::filesystem::directory_iterator(m_dir.path() + "sub")) {
            if (entry.path().extension() != ".db") {
                continue;
            }
            for (const auto& row :
                 testutil::RawQuery(entry.path().string(), "select id from rec")) {
                ids.push_back(std::stoull(row[0]));
            }
        }
        return ids;
    }

    int m_savedEnable = 0;
    testutil::TempDir m_dir{"/mnt/data/"};
    testutil::Conf m_conf;
};

}  // namespace

TEST_P(ConcurrencyTest, EveryQueuedRecordIsWrittenExactlyOnce) {
    ASSERT_EQ(kID, Sqlite3DB::Create(m_conf.get(), kID));
    DbData* store = Sqlite3DB::GetDbByID(kID);
    Sqlite3DB handle;
    ASSERT_EQ(1, handle.Open(kID));
    PlatformSim::SetTickCount(1000000);
    PlatformSim::TakeLogLines();

    // A guard against hanging, not a measurement.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    std::atomic<bool> producerDone{false};
    std::atomic<bool> timedOut{false};
    std::atomic<unsigned> refusals{0};

    std::thread producer([&] {
        for (unsigned long long id = 1; id <= kRecords && !timedOut; ++id) {
            std::string sql = "insert into rec values(" + std::to_string(id) + ", " +
                              std::to_string(id * 10) + ", 'x')";
            _tagDBSqlCmdInfo cmd{&sql, 1, id, id * 10};
            while (handle.SqlAddNode(cmd) == 0) {  // a full queue: try again
                ++refusals;
                if (std::chrono::steady_clock::now() > deadline) {
                    timedOut = true;
                    break;
                }
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        }
        producerDone = true;
    });
    std::thread saver([&] {
        while (!producerDone && !timedOut) {
            PlatformSim::AdvanceTickCount(600);  // a flush every second cycle
            Sqlite3DB::Save();
            if (std::chrono::steady_clock::now() > deadline) {
                timedOut = true;
            }
        }
    });
    producer.join();
    saver.join();
    ASSERT_FALSE(timedOut);

    // What is still queued goes out in the next cycles, then a last flush
    // empties the buffer.
    for (int i = 0; i < 10 && !store->m_listInsertCmd.empty(); ++i) {
        PlatformSim::AdvanceTickCount(1100);
        Sqlite3DB::Save();
    }
    PlatformSim::AdvanceTickCount(1100);
    Sqlite3DB::Save();
    EXPECT_TRUE(store->m_listInsertCmd.empty());
    if (store->m_pMemDB != nullptr) {
        CBBSQL::CppSQLite3Query q = store->m_pMemDB->execQuery("select count(*) from rec");
        EXPECT_EQ(0, q.getIntField(0));
    }
    EXPECT_TRUE(PlatformSim::TakeLogLines().empty());

    std::vector<unsigned long long> ids = IdsOnDisk();
    const std::set<unsigned long long> distinct(ids.begin(), ids.end());
    unsigned long long sum = 0;
    for (unsigned long long id : ids) {
        sum += id;
    }
    EXPECT_EQ(kRecords, ids.size());
    EXPECT_EQ(kRecords, distinct.size());
    EXPECT_EQ(kRecords * (kRecords + 1) / 2, sum);
    ASSERT_FALSE(distinct.empty());
    EXPECT_EQ(1u, *distinct.begin());
    EXPECT_EQ(kRecords, *distinct.rbegin());
    EXPECT_EQ(kRecords, store->m_nLastID);
    if (GetParam() != 0) {
        EXPECT_GT(store->GetFileNum(), 1);  // the files rolled over meanwhile
    }
    RecordProperty("refusals", static_cast<int>(refusals));
}

INSTANTIATE_TEST_SUITE_P(Concurrency, ConcurrencyTest, ::testing::Values(1, 0),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return info.param ? std::string("Buffered")
                                               : std::string("StraightToFile");
                         });
