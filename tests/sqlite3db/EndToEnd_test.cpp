// End-to-end runs of whole stores through the registry and a handle, driven by
// the simulated clock: rolling over by record count and by size under a
// file-count limit, a single file trimmed by the host's statement, free-space
// housekeeping across stores, an SD card pulled and put back, a store writing
// straight into its file, and range queries and deferred updates during a
// run. The DB files are read back through SQLite's C API.
#include <algorithm>
#include <filesystem>
#include <map>
#include <set>

#include "RollingStoreFixture.h"

using namespace rollingtest;

namespace {

// What one DB file on disk holds.
struct FileContent {
    std::string name;
    int number = -1;
    std::vector<unsigned long long> ids;
    DBInfoRow info;
};

std::vector<FileContent> ReadFiles(const std::string& dir) {
    std::vector<FileContent> files;
    for (const std::string& name : DbFilesOnDisk(dir)) {
        FileContent f;
        f.name = name;
        f.number = std::atoi(name.c_str() + name.rfind('_') + 1);
        f.ids = FileIds(dir + name);
        f.info = ReadDBInfo(dir + name);
        files.push_back(f);
    }
    return files;
}

// The files' records, oldest file first, must be one run of consecutive IDs
// ending at lastID, each once. Returns the first ID kept.
unsigned long long ExpectContiguousUpTo(const std::vector<FileContent>& files,
                                        unsigned long long lastID) {
    std::vector<unsigned long long> all;
    for (const FileContent& f : files) {
        all.insert(all.end(), f.ids.begin(), f.ids.end());
    }
    EXPECT_FALSE(all.empty());
    if (all.empty()) {
        return 0;
    }
    for (size_t i = 1; i < all.size(); ++i) {
        EXPECT_EQ(all[i - 1] + 1, all[i]) << "records out of order or missing at " << i;
    }
    EXPECT_EQ(lastID, all.back());
    return all.front();
}

// The DBInfo row of each file as the store keeps it: a file's range begins at
// the last ID of the file before it (file 0 at its own first record), its
// times are those records' times, and a file without records keeps the
// values of its creation.
void ExpectDBInfoFollowsRecords(const std::vector<FileContent>& files) {
    for (const FileContent& f : files) {
        SCOPED_TRACE(f.name);
        EXPECT_EQ(1u, f.info.rows);
        if (f.ids.empty()) {
            EXPECT_EQ(0u, f.info.maxID);
            EXPECT_EQ(0u, f.info.minID);
            EXPECT_EQ(f.info.startTime, f.info.endTime);
            continue;
        }
        const unsigned long long minID = f.number == 0 ? f.ids.front() : f.ids.front() - 1;
        EXPECT_EQ(f.ids.back(), f.info.maxID);
        EXPECT_EQ(minID, f.info.minID);
        EXPECT_EQ(TimeOf(minID), f.info.startTime);
        EXPECT_EQ(TimeOf(f.ids.back()), f.info.endTime);
    }
}

std::vector<std::string> Names(const std::vector<FileContent>& files) {
    std::vector<std::string> names;
    for (const FileContent& f : files) {
        names.push_back(f.name);
    }
    return names;
}

unsigned long long SizeKiB(const std::string& path) {
    return static_cast<unsigned long long>(std::filesystem::file_size(path)) >> 10;
}

}  // namespace

class EndToEndTest : public RollingStoreTest {
protected:
    // A store created through the registry, reached through a handle.
    struct Host {
        DbData* store = nullptr;
        Sqlite3DB handle;
        std::string dir;
        unsigned long long nextID = 1;
        int refused = 0;

        // Queues n records through the handle; payload(id) is appended to each value.
        template <typename Payload>
        void Queue(int n, Payload payload) {
            for (int i = 0; i < n; ++i, ++nextID) {
                std::string sql = InsertSql(nextID, payload(nextID));
                _tagDBSqlCmdInfo cmd{&sql, 1, nextID, TimeOf(nextID)};
                if (handle.SqlAddNode(cmd) != 1) {
                    ++refused;
                }
            }
        }
        void Queue(int n) {
            Queue(n, [](unsigned long long) { return std::string(); });
        }
        unsigned long long LastID() const { return nextID - 1; }
    };

    Host& AddHost(testutil::Conf& c, const std::string& dir) {
        hosts_.emplace_back();
        Host& host = hosts_.back();
        host.store = &RegisterStore(c);
        EXPECT_EQ(1, host.handle.Open(host.store->GetID()));
        host.dir = dir;
        return host;
    }

    // A store on the data partition in <dir>/<sub>.
    Host& FlashHost(const std::string& sub, int maxRecordNum, int maxFileSize, int maxFileNum) {
        testutil::Conf& c = NewConf(sub);
        c.conf.nMaxRecordNum = maxRecordNum;
        c.conf.nMaxFileSize = maxFileSize;
        c.conf.nMaxFileNum = maxFileNum;
        return AddHost(c, SaveDir(sub));
    }

    // One save of every store `ms` after the last one; files created in it
    // carry the time stamp of the cycle.
    void Cycle(unsigned long long ms = 1001) {
        ++cycle_;
        PlatformSim::SetTimeStamp(kCreationTime + cycle_);
        PlatformSim::AdvanceTickCount(ms);
        Sqlite3DB::Save();
    }

    std::list<Host> hosts_;
    unsigned long long cycle_ = 0;
};

// Batch sizes of the runs: varied, each below the queue limit.
const int kBatches[] = {37, 23, 41, 19, 50};

TEST_F(EndToEndTest, RollingStoreKeepsTheNewestRecordsOnceInOrderAcrossManyFiles) {
    const int kMaxRecords = 80;
    Host& host = FlashHost("roll", kMaxRecords, 0, 4);
    PlatformSim::SetTickCount(1000000);
    int maxBatch = 0;
    for (int i = 0; host.LastID() < 3000; ++i) {
        const int batch = kBatches[i % 5];
        maxBatch = std::max(maxBatch, batch);
        host.Queue(batch);
        Cycle();

        // The catalog and the directory agree, within the limit; every closed
        // file reached the count limit within one batch, the current one not.
        std::vector<FileContent> files = ReadFiles(host.dir);
        ASSERT_EQ(CatalogNames(*host.store), Names(files));
        ASSERT_FALSE(files.empty());
        ASSERT_LE(files.size(), 4u);
        for (size_t k = 0; k + 1 < files.size(); ++k) {
            const unsigned long long count = files[k].info.maxID - files[k].info.minID;
            EXPECT_GE(count, static_cast<unsigned long long>(kMaxRecords)) << files[k].name;
            EXPECT_LT(count, static_cast<unsigned long long>(kMaxRecords + maxBatch));
        }
        EXPECT_LT(files.back().info.maxID - files.back().info.minID,
                  static_cast<unsigned long long>(kMaxRecords));
    }
    EXPECT_EQ(0, host.refused);
    EXPECT_EQ(0, MemRowCount(*host.store));

    std::vector<FileContent> files = ReadFiles(host.dir);
    ASSERT_EQ(4u, files.size());
    EXPECT_GE(files.front().number, 20);  // some thirty files went by
    for (size_t k = 1; k < files.size(); ++k) {
        EXPECT_EQ(files[k - 1].number + 1, files[k].number);
    }
    const unsigned long long first = ExpectContiguousUpTo(files, host.LastID());
    ExpectDBInfoFollowsRecords(files);
    EXPECT_EQ(first, CatalogEntry(*host.store, 0).GetStartID() + 1);
    for (const FileContent& f : files) {
        for (const auto& row : testutil::RawQuery(host.dir + f.name, "select id, v from rec")) {
            ASSERT_EQ(ValueOf(std::stoull(row[0])), row[1]);
        }
    }
}

TEST_F(EndToEndTest, StoreRollsOverBySizeAndByCountUnderAFileLimit) {
    const unsigned long long kMaxKiB = 48;
    const unsigned long long kMaxRecords = 150;
    Host& host = FlashHost("mixed", static_cast<int>(kMaxRecords), static_cast<int>(kMaxKiB), 3);
    auto payload = [](unsigned long long id) {
        // Records of a few cycles in every eight carry 1.5 KB each.
        return std::string((id / 40) % 8 < 3 ? 1500 : 10, static_cast<char>('a' + id % 26));
    };
    PlatformSim::SetTickCount(2000000);
    int bySize = 0;
    int byCount = 0;
    for (int i = 0; host.LastID() < 1500; ++i) {
        const std::string before = CatalogEntry(*host.store).GetFullName();
        host.Queue(kBatches[i % 5], payload);
        Cycle();
        const std::string closed = SaveDir("mixed") + before;
        const DBInfoRow info = ReadDBInfo(closed);
        const bool overSize = SizeKiB(closed) > kMaxKiB;
        const bool full = info.maxID - info.minID >= kMaxRecords;
        if (CatalogEntry(*host.store).GetFullName() != before) {
            EXPECT_TRUE(overSize || full) << before << " split too early";
            bySize += overSize ? 1 : 0;
            byCount += overSize ? 0 : 1;
        } else {
            EXPECT_FALSE(overSize || full) << before << " should have split";
        }
        ASSERT_LE(host.store->GetNowFileNum(), 3u);
    }
    EXPECT_GE(bySize, 3);
    EXPECT_GE(byCount, 3);
    EXPECT_EQ(0, host.refused);

    std::vector<FileContent> files = ReadFiles(host.dir);
    EXPECT_EQ(CatalogNames(*host.store), Names(files));
    ExpectContiguousUpTo(files, host.LastID());
    ExpectDBInfoFollowsRecords(files);
    for (const FileContent& f : files) {
        auto rows = testutil::RawQuery(host.dir + f.name, "select id, v from rec order by id");
        for (const auto& row : rows) {
            const unsigned long long id = std::stoull(row[0]);
            ASSERT_EQ(ValueOf(id, payload(id)), row[1]);
        }
    }
}

TEST_F(EndToEndTest, SingleFileStoreStaysBetweenMAndMPlusNRecords) {
    const unsigned long long M = 200;
    const unsigned long long N = 60;
    testutil::Conf& c = NewConf("single");
    c.conf.bSplitFile = 0;
    c.conf.nMaxRecordNum = static_cast<int>(M);
    c.conf.nDelRecordNum = static_cast<int>(N);
    c.delSql = "delete from rec where id in (select id from rec order by id limit 60)";
    Host& host = AddHost(c, SaveDir("single"));
    const std::string path = host.dir + "rec_0.db";
    PlatformSim::SetTickCount(3000000);
    bool trimmed = false;
    int trims = 0;
    unsigned long long lastMin = 1;
    for (int i = 0; host.LastID() < 1300; ++i) {
        host.Queue(kBatches[i % 5] % 30 + 10);
        Cycle();
        const DBInfoRow info = ReadDBInfo(path);
        const unsigned long long count = info.maxID - info.minID;
        ASSERT_EQ(host.LastID(), info.maxID);
        ASSERT_EQ(std::to_string(info.minID), testutil::RawValue(path, "select min(id) from rec"));
        ASSERT_EQ(static_cast<long long>(count + 1), RowCount(path));
        ASSERT_LE(count, M + N);
        if (info.minID != lastMin) {
            EXPECT_EQ(lastMin + N, info.minID);  // one trim of N per cycle at most
            lastMin = info.minID;
            trimmed = true;
            ++trims;
        }
        if (trimmed) {
            ASSERT_GT(count, M);
        }
    }
    EXPECT_GE(trims, 15);
    EXPECT_EQ(FileNames({0}), DbFilesOnDisk(host.dir));
}

TEST_F(EndToEndTest, FreeSpaceDeleteTakesGloballyOldestFileWhenSpaceRunsLow) {
    Host& a = FlashHost("a", 20, 0, 0);
    Host& b = FlashHost("b", 20, 0, 0);
    Host& limited = FlashHost("c", 20, 0, 3);
    std::vector<Host*> eligible{&a, &b};
    PlatformSim::SetTickCount(4000000);
    std::map<std::string, int> deletions;
    int lowCycles = 0;
    for (int i = 0; i < 45; ++i) {
        a.Queue(7);
        b.Queue(9);
        limited.Queue(5);
        Cycle();

        // The simulated free space shrinks with every file kept.
        size_t total = 0;
        for (Host& h : hosts_) {
            total += DbFilesOnDisk(h.dir).size();
        }
        const unsigned int freeSize = static_cast<unsigned int>(5500 - 40 * total);
        PlatformSim::SetDiskFreeSize(freeSize);

        // The oldest file of each eligible store, as its DBInfo on disk says.
        Host* expected = nullptr;
        unsigned long long oldest = 0;
        for (Host* h : eligible) {
            std::vector<std::string> names = DbFilesOnDisk(h->dir);
            if (names.size() < 2) {
                continue;
            }
            const unsigned long long t = ReadDBInfo(h->dir + names.front()).startTime;
            if (expected == nullptr || t <= oldest) {
                expected = h;
                oldest = t;
            }
        }
        std::map<std::string, std::vector<std::string>> before;
        for (Host& h : hosts_) {
            before[h.dir] = DbFilesOnDisk(h.dir);
        }

        Sqlite3DB::FreeSpaceDelete();

        if (freeSize <= 5120 && expected != nullptr) {
            ++lowCycles;
            std::vector<std::string> rest(before[expected->dir].begin() + 1,
                                          before[expected->dir].end());
            EXPECT_EQ(rest, DbFilesOnDisk(expected->dir)) << "cycle " << i;
            EXPECT_EQ(rest, CatalogNames(*expected->store));
            ++deletions[expected->dir];
        }
        for (Host& h : hosts_) {
            if (freeSize > 5120 || &h != expected) {
                EXPECT_EQ(before[h.dir], DbFilesOnDisk(h.dir)) << "cycle " << i;
            }
        }
        ASSERT_LE(limited.store->GetNowFileNum(), 3u);
    }
    EXPECT_GE(lowCycles, 10);
    EXPECT_GE(deletions[a.dir], 3);
    EXPECT_GE(deletions[b.dir], 3);
    // What is kept of each store is still one run of its newest records.
    for (Host& h : hosts_) {
        std::vector<FileContent> files = ReadFiles(h.dir);
        ExpectContiguousUpTo(files, h.LastID());
        ExpectDBInfoFollowsRecords(files);
    }
}

TEST_F(EndToEndTest, SdCardPulledAndPutBackLosesNothingAndWarnsOncePer15Seconds) {
    testutil::TempDir media;
    const std::string mount = media.path() + "mount";
    const std::string away = media.path() + "away";
    std::filesystem::create_directory(mount);
    CHmiMedia::SetSDPath(mount + "/");
    testutil::Conf& c = NewConf("card");
    c.dirName = "card";
    c.conf.nStorePattern = 1;
    c.conf.nMaxRecordNum = 50;
    c.conf.bClearOnReload = 0;
    Host& card = AddHost(c, mount + "/card/");

    const unsigned long long base = FreshTickBase();
    PlatformSim::SetTickCount(base);
    std::vector<int> messageCycles;
    for (int i = 0; i < 60; ++i) {
        if (i == 15) {
            std::filesystem::rename(mount, away);  // the card is pulled
        }
        if (i == 36) {
            std::filesystem::rename(away, mount);  // and put back
        }
        card.Queue(10);
        Cycle(2000);
        const size_t posted = PlatformSim::TakeMessages().size();
        ASSERT_LE(posted, 1u);
        if (posted == 1) {
            messageCycles.push_back(i);
        }
        EXPECT_EQ(i >= 15 && i < 36 ? 0 : 1, card.store->HasSaveDir()) << "cycle " << i;
        EXPECT_EQ(card.store->HasSaveDir(), card.handle.LoadDbSuccess());
    }
    // Out from cycle 15 to 35, 2 s apart: shown at 0 s, 16 s and 32 s of the outage.
    EXPECT_EQ((std::vector<int>{15, 23, 31}), messageCycles);
    EXPECT_EQ(0, card.refused);
    EXPECT_EQ(0, MemRowCount(*card.store));

    std::vector<FileContent> files = ReadFiles(card.dir);
    EXPECT_EQ(CatalogNames(*card.store), Names(files));
    EXPECT_EQ(1u, ExpectContiguousUpTo(files, card.LastID()));
    for (size_t k = 0; k < files.size(); ++k) {
        if (!files[k].ids.empty()) {
            EXPECT_EQ(files[k].ids.back(), files[k].info.maxID) << files[k].name;
            EXPECT_EQ(k == 0 ? 1 : files[k - 1].ids.back(), files[k].info.minID) << files[k].name;
        }
    }
}

TEST_F(EndToEndTest, StoreWithoutBufferWritesStraightIntoItsFiles) {
    testutil::Conf& c = NewConf("direct");
    c.conf.bUseMemDB = 0;
    c.conf.nMaxFileSize = 16;
    Host& host = AddHost(c, SaveDir("direct"));
    auto payload = [](unsigned long long) { return std::string(400, 'p'); };
    PlatformSim::SetTickCount(5000000);
    for (int i = 0; i < 31; ++i) {
        host.Queue(10, payload);
        Cycle(600);  // due every second cycle: a batch waits in the queue in between
        if (i % 2 == 0) {
            ASSERT_TRUE(host.store->m_listInsertCmd.empty()) << "cycle " << i;
        } else {
            ASSERT_EQ(10u, host.store->m_listInsertCmd.size()) << "cycle " << i;
        }
    }
    std::vector<FileContent> files = ReadFiles(host.dir);
    ASSERT_GE(files.size(), 3u);
    EXPECT_EQ(CatalogNames(*host.store), Names(files));
    EXPECT_EQ(1u, ExpectContiguousUpTo(files, host.LastID()));
    for (size_t k = 0; k + 1 < files.size(); ++k) {
        EXPECT_GT(SizeKiB(host.dir + files[k].name), 16u) << files[k].name;
    }
    EXPECT_LE(SizeKiB(host.dir + files.back().name), 16u);
}

TEST_F(EndToEndTest, RangeQueriesAndDeferredUpdatesReachEachRecordOnce) {
    Host& host = FlashHost("query", 60, 0, 5);
    PlatformSim::SetTickCount(6000000);
    std::set<unsigned long long> updated;

    // Every record the store holds, files on disk and buffer, with its value.
    auto everything = [&]() {
        std::multimap<unsigned long long, std::string> all;
        for (const std::string& name : DbFilesOnDisk(host.dir)) {
            for (const auto& row : testutil::RawQuery(host.dir + name, "select id, v from rec")) {
                all.emplace(std::stoull(row[0]), row[1]);
            }
        }
        CBBSQL::CppSQLite3Table mem = host.store->m_pMemDB->getTable("select id, v from rec");
        for (int r = 0; r < mem.numRows(); ++r) {
            mem.setRow(r);
            all.emplace(static_cast<unsigned long long>(mem.getInt64Field(0)),
                        mem.getStringField(1));
        }
        return all;
    };
    // IDs returned by a select request of the given kind over [a, b].
    auto select = [&](int kind, unsigned long long a, unsigned long long b, int order) {
        std::string sql = kind == 1
                              ? "select id from rec where id between " + std::to_string(a) +
                                    " and " + std::to_string(b)
                              : "select id from rec where t between " + std::to_string(TimeOf(a)) +
                                    " and " + std::to_string(TimeOf(b));
        _tagDBSqlSelectCmdInfo info{&sql, kind, a, b, TimeOf(a), TimeOf(b), 0, order};
        std::vector<CBBSQL::CppSQLite3Table> tables;
        host.handle.SqlSelect(info, tables);
        std::vector<unsigned long long> ids;
        for (CBBSQL::CppSQLite3Table& t : tables) {
            for (int r = 0; r < t.numRows(); ++r) {
                t.setRow(r);
                ids.push_back(static_cast<unsigned long long>(t.getInt64Field(0)));
            }
        }
        std::sort(ids.begin(), ids.end());
        return ids;
    };
    auto update = [&](unsigned long long id) {
        std::string sql =
            "update rec set v = 'u" + std::to_string(id) + "' where id = " + std::to_string(id);
        _tagDBSqlCmdInfo cmd{&sql, 0, id, 0};
        ASSERT_EQ(1, host.handle.SqlAddNode(cmd));
        updated.insert(id);
    };

    for (int i = 0; i < 36; ++i) {
        host.Queue(kBatches[i % 5]);
        if (i % 4 == 3) {
            // Deferred updates: the last record of an older file (its ID also
            // opens the next file's range), one inside it, one of this batch.
            std::vector<std::string> names = DbFilesOnDisk(host.dir);
            if (names.size() >= 3) {
                const unsigned long long boundary = ReadDBInfo(host.dir + names[1]).maxID;
                update(boundary);
                update(boundary - 7);
            }
            update(host.LastID() - 3);
        }
        // Every third cycle is not due, so the newest records stay in the buffer.
        Cycle(i % 3 == 2 ? 400 : 1001);

        const auto all = everything();
        ASSERT_FALSE(all.empty());
        const unsigned long long low = all.begin()->first;
        const unsigned long long high = all.rbegin()->first;
        ASSERT_EQ(host.LastID(), high);
        ASSERT_EQ(high - low + 1, all.size()) << "a record is missing or held twice";

        // Deferred updates changed their records and nothing else.
        for (const auto& entry : all) {
            const std::string expect = updated.count(entry.first)
                                           ? "u" + std::to_string(entry.first)
                                           : ValueOf(entry.first);
            ASSERT_EQ(expect, entry.second) << "record " << entry.first << " cycle " << i;
        }

        // Ranges across file boundaries, into the buffer, and past the oldest kept record.
        const unsigned long long span = high - low;
        const std::vector<std::pair<unsigned long long, unsigned long long>> ranges{
            {low, high},
            {low + span / 3, low + span / 3 + 75},
            {high - 30, high},
            {low > 20 ? low - 20 : 1, low + 10},
            {low + span / 2, low + span / 2}};
        for (const auto& r : ranges) {
            std::vector<unsigned long long> want;
            for (unsigned long long id = std::max(r.first, low); id <= std::min(r.second, high);
                 ++id) {
                want.push_back(id);
            }
            for (int kind : {1, 2}) {
                for (int order : {0, 1}) {
                    EXPECT_EQ(want, select(kind, r.first, r.second, order))
                        << "kind " << kind << " order " << order << " range " << r.first << ".."
                        << r.second << " cycle " << i;
                }
            }
        }
    }
    EXPECT_EQ(0, host.refused);
    EXPECT_GE(updated.size(), 20u);
    EXPECT_GE(CatalogEntry(*host.store).GetFileID(), 10u);
}
