// Crafted files in a store's directory on internal flash, an SD card and a USB
// disk, present at start-up or on a medium inserted later: links, special
// files, schema code of the file's own, odd DBInfo rows, names carrying quotes
// and SQL, file numbers past 2^31 and 2^32, a store directory that is a link.
// Each case runs start-up, flushes, range queries and deferred commands in a
// child process under a watchdog and checks that nothing hangs or crashes, no
// file outside the store directory changes, and the store keeps working.
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include "RollingStoreFixture.h"
#include "Sqlite3DB/DbData/DbText.h"

using namespace rollingtest;

namespace {

namespace fs = std::filesystem;

const char kCreateSql[] = "CREATE TABLE rec (id INTEGER PRIMARY KEY, t INTEGER, v VARCHAR(64))";
// Generous for emulated runs (scaled like the loops); a hang never ends.
int WatchdogSeconds() {
    const char* scale = std::getenv("SQLITE3DB_TEST_SCALE");
    const int factor = scale ? std::atoi(scale) : 1;
    return 60 * (factor > 1 ? factor : 1);
}

enum class Medium { Flash, SD, USB };

const char* MediumName(Medium m) {
    return m == Medium::Flash ? "Flash" : m == Medium::SD ? "SD" : "USB";
}

// Every entry below root with its kind, size, mtime and content (a link's
// target text), so that any change shows.
std::map<std::string, std::string> Snapshot(const std::string& root) {
    std::map<std::string, std::string> out;
    std::error_code ec;
    for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::end(it);
         it.increment(ec)) {
        const std::string path = it->path().string();
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) {
            continue;
        }
        std::ostringstream v;
        v << st.st_mode << ' ' << st.st_size << ' ' << st.st_mtim.tv_sec << '.'
          << st.st_mtim.tv_nsec << ' ';
        if (S_ISLNK(st.st_mode)) {
            v << fs::read_symlink(path, ec).string();
        } else if (S_ISREG(st.st_mode)) {
            std::ifstream in(path, std::ios::binary);
            v << in.rdbuf();
        }
        out[path] = v.str();
    }
    return out;
}

// Runs body in a child with a watchdog. Exit codes: 0 passed, 1 a check
// failed, 3 std::out_of_range escaped, 4 another exception escaped.
int RunGuarded(const std::function<void()>& body) {
    fflush(stdout);
    fflush(stderr);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(WatchdogSeconds());
        int code = 0;
        try {
            body();
            code = ::testing::Test::HasFailure() ? 1 : 0;
        } catch (std::out_of_range&) {
            code = 3;
        } catch (...) {
            code = 4;
        }
        fflush(stdout);
        _exit(code);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFSIGNALED(status)) {
        return 100 + WTERMSIG(status);  // SIGALRM (114): the watchdog fired, a hang
    }
    return WEXITSTATUS(status);
}

// A file in the store's format holding records first..last.
void MakeStoreFile(const std::string& path, unsigned long long first, unsigned long long last,
                   const std::string& createSql = kCreateSql) {
    std::string sql = createSql + ";" + dbtext::kDBInfoCreateSql + ";";
    for (unsigned long long id = first; id <= last && first != 0; ++id) {
        sql += InsertSql(id) + ";";
    }
    sql += "replace into DBInfo values(1," + std::to_string(first ? last : 0) + "," +
           std::to_string(first) + "," + std::to_string(TimeOf(first)) + "," +
           std::to_string(TimeOf(last)) + ",0,0,0,0,0);";
    testutil::RawExec(path, sql);
}

void Link(const std::string& target, const std::string& link) {
    ASSERT_EQ(0, symlink(target.c_str(), link.c_str())) << link;
}

const char kEndless[] =
    "WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) SELECT count(*) FROM c";

// One crafted directory content: what to put into the store directory (given
// with its '/') with the sentinel directory outside it.
struct Scenario {
    const char* name;
    std::function<void(const std::string& store, const std::string& outside)> plant;
    bool keepsRecords = true;  // false: the store's own numbering loses them (wrap at 2^32)
};

std::vector<Scenario> Scenarios() {
    return {
        {"link_inside",
         [](const std::string& s, const std::string&) {
             MakeStoreFile(s + "rec_1.db", 1, 3);
             Link(s + "rec_1.db", s + "rec_9.db");
             Link("rec_1.db", s + "rec_10.db");
         }},
        {"link_outside",
         [](const std::string& s, const std::string& o) {
             MakeStoreFile(o + "victim.db", 1, 3);
             Link(o + "victim.db", s + "rec_9.db");
         }},
        {"link_dangling",
         [](const std::string& s, const std::string& o) {
             MakeStoreFile(s + "rec_2.db", 1, 3);
             Link(o + "ghost3.db", s + "rec_3.db");  // the next file's name
             Link(o + "ghost9.db", s + "rec_9.db");
         }},
        {"fifo",
         [](const std::string& s, const std::string&) {
             MakeStoreFile(s + "rec_0.db", 1, 3);
             ASSERT_EQ(0, mkfifo((s + "rec_1.db").c_str(), 0600));  // the next file's name
             ASSERT_EQ(0, mkfifo((s + "rec_7.db").c_str(), 0600));
         }},
        {"directory",
         [](const std::string& s, const std::string&) {
             MakeStoreFile(s + "rec_0.db", 1, 3);
             fs::create_directory(s + "rec_4.db");
         }},
        {"dbinfo_view",
         [](const std::string& s, const std::string&) {
             testutil::RawExec(s + "rec_3.db",
                               std::string(kCreateSql) +
                                   ";CREATE VIEW DBInfo AS WITH RECURSIVE c(x) AS (SELECT 1 "
                                   "UNION ALL SELECT x + 1 FROM c) SELECT x + 1 AS version, x AS "
                                   "MaxID, x AS MinID, x AS StartTime, x AS EndTime FROM c;");
         }},
        {"table_view",
         [](const std::string& s, const std::string&) {
             testutil::RawExec(s + "rec_3.db", std::string("CREATE VIEW rec AS ") + kEndless + ";" +
                                                   dbtext::kDBInfoCreateSql + ";");
         }},
        {"table_virtual",
         [](const std::string& s, const std::string&) {
             MakeStoreFile(s + "rec_6.db", 1, 3,
                           "CREATE VIRTUAL TABLE rec USING fts4(id INTEGER PRIMARY KEY, t "
                           "INTEGER, v VARCHAR(64))");
         }},
        {"without_rowid",
         [](const std::string& s, const std::string&) {
             MakeStoreFile(s + "rec_6.db", 1, 3, std::string(kCreateSql) + " WITHOUT ROWID");
         }},
        {"trigger_writes_elsewhere",
         [](const std::string& s, const std::string&) {
             MakeStoreFile(s + "rec_6.db", 1, 3);
             testutil::RawExec(
                 s + "rec_6.db",
                 "CREATE TABLE log(x);"
                 "CREATE TRIGGER ti AFTER INSERT ON rec BEGIN INSERT INTO log VALUES(1); END;"
                 "CREATE TRIGGER tu AFTER UPDATE ON rec BEGIN INSERT INTO log VALUES(2); END;"
                 "CREATE TRIGGER td BEFORE DELETE ON rec BEGIN INSERT INTO log VALUES(3); END;");
         }},
        {"trigger_endless",
         [](const std::string& s, const std::string&) {
             MakeStoreFile(s + "rec_6.db", 1, 3);
             testutil::RawExec(
                 s + "rec_6.db",
                 std::string("CREATE TRIGGER ti AFTER INSERT ON rec BEGIN ") + kEndless +
                     "; END; CREATE TRIGGER tu AFTER UPDATE ON rec BEGIN " + kEndless + "; END;");
         }},
        {"huge_generated_columns",
         [](const std::string& s, const std::string&) {
             MakeStoreFile(
                 s + "rec_5.db", 1, 3,
                 std::string(kCreateSql)
                     .insert(sizeof(kCreateSql) - 2,
                             ", g TEXT GENERATED ALWAYS AS (printf('%.*c', 500000000, 'x')) "
                             "VIRTUAL"));
             MakeStoreFile(
                 s + "rec_6.db", 0, 0,
                 std::string(kCreateSql)
                     .insert(sizeof(kCreateSql) - 2,
                             ", g TEXT GENERATED ALWAYS AS (printf('%.*c', 500000000, 'x')) "
                             "STORED"));
         }},
        {"side_files",
         [](const std::string& s, const std::string& o) {
             MakeStoreFile(s + "rec_0.db", 1, 3);
             MakeStoreFile(o + "victim.db", 1, 3);
             testutil::WriteFile(o + "notes.txt", "keep me");
             testutil::WriteFile(s + "rec_0.db-journal", std::string(600, 'j'));
             testutil::WriteFile(s + "rec_0.db-wal", std::string(600, 'w'));
             Link(o + "victim.db", s + "rec_0.db-shm");
             Link(o + "notes.txt", s + "rec_1.db-journal");  // the next file's journal
             Link(o + "ghost.db", s + "rec_1.db-wal");
         }},
        {"wal_file_with_linked_shm",
         [](const std::string& s, const std::string& o) {
             MakeStoreFile(s + "rec_2.db", 1, 3);
             testutil::RawExec(s + "rec_2.db", "PRAGMA journal_mode=WAL;");
             MakeStoreFile(o + "victim.db", 1, 3);
             Link(o + "victim.db", s + "rec_2.db-shm");
             Link(o + "victim.db", s + "rec_2.db-wal");
         }},
        {"dbinfo_values",
         [](const std::string& s, const std::string&) {
             MakeStoreFile(s + "rec_1.db", 0, 0);
             testutil::RawExec(s + "rec_1.db",
                               "replace into DBInfo values(1,9223372036854775807,-5,-1,"
                               "18446744073709551615,0,0,0,0,0);");
             MakeStoreFile(s + "rec_2.db", 0, 0);
             testutil::RawExec(s + "rec_2.db",
                               "WITH RECURSIVE c(x) AS (SELECT 2 UNION ALL SELECT x + 1 FROM c "
                               "WHERE x < 5000) INSERT INTO DBInfo SELECT x, x, x, x, x, 0, 0, "
                               "0, 0, 0 FROM c;");
         }},
        {"names_with_quotes_and_sql",
         [](const std::string& s, const std::string&) {
             MakeStoreFile(s + "rec_9'.db", 1, 3);
             MakeStoreFile(s + "rec_10.db' AS filedb;DELETE FROM main.rec;--.db", 0, 0);
             MakeStoreFile(s + "rec_11.db' AS x;ATTACH 'pwned.db' AS p;CREATE TABLE p.t(x);--.db",
                           0, 0);
         }},
        {"name_with_quote_is_the_current_file",
         [](const std::string& s, const std::string&) {
             MakeStoreFile(s + "rec_0.db", 1, 3);
             MakeStoreFile(s + "rec_9'.db", 3, 5);
         }},
        {"numbers_near_2_31",
         [](const std::string& s, const std::string&) {
             MakeStoreFile(s + "rec_2147483647.db", 1, 3);
             MakeStoreFile(s + "rec_2147483648.db", 0, 0);
         }},
        {"numbers_at_2_32_and_beyond",
         [](const std::string& s, const std::string&) {
             MakeStoreFile(s + "rec_4294967295.db", 1, 3);
             MakeStoreFile(s + "rec_4294967296.db", 0, 0);
             MakeStoreFile(s + "rec_99999999999999999999.db", 0, 0);
         },
         false},
    };
}

// The medium, and the crafted case (an index into Scenarios()).
using CaseParam = std::tuple<Medium, int>;

class HostileMediaTest : public RollingStoreTest, public ::testing::WithParamInterface<CaseParam> {
protected:
    Medium Where() const { return std::get<0>(GetParam()); }
    Scenario Case() const { return Scenarios()[static_cast<size_t>(std::get<1>(GetParam()))]; }

    // Root of one case: the sentinel tree ("outside/"), the medium's mount
    // point or flash directory, and an internal-flash store of another stem.
    std::string CaseRoot(const std::string& name) { return dir_.path() + name + "/"; }

    std::string MountOf(const std::string& root) const { return root + "medium/"; }

    std::string StoreDirOf(const std::string& root) const { return MountOf(root) + "store/"; }

    testutil::Conf& ConfFor(const std::string& root) {
        testutil::Conf& c = NewConf("unused");
        c.createSql = kCreateSql;
        c.conf.nMaxRecordNum = 15;  // rolls over every other cycle
        if (Where() == Medium::Flash) {
            c.dirName = root.substr(std::string("/mnt/data/").size()) + "medium/store";
            c.conf.nStorePattern = 0;
        } else {
            c.dirName = "store";
            c.conf.nStorePattern = Where() == Medium::SD ? 1 : 2;
        }
        return c;
    }

    void SetMount(const std::string& mount) {
        if (Where() == Medium::SD) {
            CHmiMedia::SetSDPath(mount);
        } else if (Where() == Medium::USB) {
            CHmiMedia::SetUdiskPath(mount);
        }
    }

    // Cycles that write records, flush and roll over; range queries; deferred
    // updates; then the checks that the store still works.
    void Workload(DbData& store, bool keepsRecords) {
        unsigned long long tick = FreshTickBase();
        unsigned long long id = 100;
        const int cycles = testutil::ScaledCount(6, 4);
        for (int i = 0; i < cycles; ++i) {
            QueueRecords(store, id, id + 9);
            id += 10;
            tick += 1001;
            store.Save(tick);
        }
        const unsigned long long last = id - 1;
        std::string q = "select id from rec";
        std::vector<CBBSQL::CppSQLite3Table> tables;
        _tagDBSqlSelectCmdInfo byId{&q, 1, 0, ULLONG_MAX, 0, 0, 0, 1};
        store.Select_ID(byId, tables);
        _tagDBSqlSelectCmdInfo byTime{&q, 2, 0, 0, 0, ULLONG_MAX, 0, 0};
        store.Select_Time(byTime, tables);
        QueueOther(store, "update rec set v = 'u' where id = " + std::to_string(last), last);
        QueueOther(store, "delete from rec where id = " + std::to_string(last - 1), last - 1);
        tick += 1001;
        store.Save(tick);

        // Every catalogued file is a plain file in the store directory.
        EXPECT_EQ(0, MemRowCount(store));
        for (const DbFileInfo& rec : store.m_vecFileInfo) {
            struct stat st;
            const std::string path = store.m_strSavePath + rec.GetFullName();
            ASSERT_EQ(0, lstat(path.c_str(), &st)) << path;
            EXPECT_TRUE(S_ISREG(st.st_mode)) << path;
        }
        if (!keepsRecords) {
            return;
        }
        // The rows reached the files, with the deferred commands applied.
        std::vector<std::string> updated;
        int deleted = 0;
        for (size_t i = 0; i < store.m_vecFileInfo.size(); ++i) {
            const std::string path = CatalogPath(store, static_cast<int>(i));
            const std::string where = " from rec where id = ";
            for (const auto& r :
                 testutil::RawQuery(path, "select v" + where + std::to_string(last))) {
                updated.push_back(r[0]);
            }
            deleted += static_cast<int>(
                testutil::RawQuery(path, "select v" + where + std::to_string(last - 1)).size());
        }
        EXPECT_EQ(std::vector<std::string>{"u"}, updated);
        EXPECT_EQ(0, deleted);
        tables.clear();
        _tagDBSqlSelectCmdInfo recent{&q, 1, last - 5, last, 0, 0, 0, 1};
        EXPECT_EQ(1, store.Select_ID(recent, tables));
    }

    // Plants the case into the store directory, at start-up or on a medium
    // inserted after the store was configured, and runs the workload.
    void RunCase(const Scenario& sc, bool insertedLater) {
        SCOPED_TRACE(std::string(sc.name) + (insertedLater ? " inserted later" : " at start-up"));
        const std::string root = CaseRoot(std::string(sc.name) + (insertedLater ? "_l" : "_s"));
        const std::string outside = root + "outside/";
        fs::create_directories(outside);
        testutil::WriteFile(outside + "sentinel.txt", "sentinel");
        const std::string other = root + "other/";
        fs::create_directories(other);
        MakeStoreFile(other + "rec_0.db", 1, 3);
        const std::string staging = root + "staging/";
        fs::create_directories(staging + "store/");
        sc.plant(staging + "store/", outside);
        if (HasFatalFailure()) {
            return;
        }
        if (!insertedLater) {
            fs::rename(staging, MountOf(root));
        }
        const auto before = Snapshot(outside);
        const auto otherBefore = Snapshot(other);
        testutil::Conf& c = ConfFor(root);
        const int rc = RunGuarded([&] {
            SetMount(MountOf(root));
            DbData store;
            ASSERT_EQ(1, store.Config(c.get(), 1, "md5"));
            if (insertedLater) {
                store.Save(FreshTickBase());
                fs::rename(staging, MountOf(root));
            }
            Workload(store, sc.keepsRecords);
        });
        EXPECT_EQ(0, rc) << "child: 1 check failed, 3/4 exception, 114 hang, 100+n signal n";
        EXPECT_EQ(before, Snapshot(outside)) << "a file outside the store changed";
        EXPECT_EQ(otherBefore, Snapshot(other));
        EXPECT_FALSE(fs::exists("pwned.db"));
        EXPECT_FALSE(testutil::FileExists(outside + "ghost3.db"));
    }
};

TEST_P(HostileMediaTest, CraftedFilesPresentAtStartUp) {
    RunCase(Case(), false);
}

// Only removable media are inserted.
class HostileMediaInsertedTest : public HostileMediaTest {};

TEST_P(HostileMediaInsertedTest, CraftedFilesOnAMediumInsertedLater) {
    RunCase(Case(), true);
}

// A store directory on the medium that is a link to internal flash reads as
// missing: nothing is written or deleted there, and the rows stay buffered.
// On internal flash a directory link is the panel's own: only SD and USB.
class HostileMediaDirectoryTest : public HostileMediaTest {};

TEST_P(HostileMediaDirectoryTest, StoreDirectoryLinkedToInternalFlashIsMissing) {
    const std::string root = CaseRoot("dirlink");
    const std::string flash = root + "flash/";
    fs::create_directories(flash);
    MakeStoreFile(flash + "rec_0.db", 1, 3);
    MakeStoreFile(flash + "record_0.db", 1, 3);  // another store whose stem starts with rec
    fs::create_directories(MountOf(root));
    Link(flash, MountOf(root) + "store");
    const auto before = Snapshot(flash);
    testutil::Conf& c = ConfFor(root);
    c.conf.bClearOnReload = 0;  // rows stay buffered while the location is missing
    const int rc = RunGuarded([&] {
        SetMount(MountOf(root));
        DbData store;
        ASSERT_EQ(1, store.Config(c.get(), 1, "md5"));
        EXPECT_TRUE(store.m_vecFileInfo.empty());
        unsigned long long tick = FreshTickBase();
        for (int i = 0; i < 4; ++i) {
            QueueRecords(store, 10 * i + 1, 10 * i + 10);
            tick += 1001;
            store.Save(tick);
        }
        EXPECT_EQ(0, store.CheckSaveDir());
        EXPECT_GT(MemRowCount(store), 0);
        EXPECT_TRUE(
            testutil::LogContains(PlatformSim::TakeMessages(), "The save location does not exist"));
    });
    EXPECT_EQ(0, rc);
    EXPECT_EQ(before, Snapshot(flash));
}

INSTANTIATE_TEST_SUITE_P(
    Media, HostileMediaTest,
    ::testing::Combine(::testing::Values(Medium::Flash, Medium::SD, Medium::USB),
                       ::testing::Range(0, static_cast<int>(Scenarios().size()))),
    [](const ::testing::TestParamInfo<CaseParam>& info) {
        return std::string(MediumName(std::get<0>(info.param))) + "_" +
               Scenarios()[static_cast<size_t>(std::get<1>(info.param))].name;
    });

INSTANTIATE_TEST_SUITE_P(Media, HostileMediaInsertedTest,
                         ::testing::Combine(::testing::Values(Medium::SD, Medium::USB),
                                            ::testing::Range(0,
                                                             static_cast<int>(Scenarios().size()))),
                         [](const ::testing::TestParamInfo<CaseParam>& info) {
                             return std::string(MediumName(std::get<0>(info.param))) + "_" +
                                    Scenarios()[static_cast<size_t>(std::get<1>(info.param))].name;
                         });

INSTANTIATE_TEST_SUITE_P(Media, HostileMediaDirectoryTest,
                         ::testing::Combine(::testing::Values(Medium::SD, Medium::USB),
                                            ::testing::Values(0)),
                         [](const ::testing::TestParamInfo<CaseParam>& info) {
                             return std::string(MediumName(std::get<0>(info.param)));
                         });

}  // namespace
