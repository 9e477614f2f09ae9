// The crash-simulation layer against SQLite's real behaviour: which events a
// commit makes, where the default VFS syncs a directory, what each power-cut
// model keeps, and that the platform's own deletions and directory syncs are
// seen.
#include "crash/CrashVfs.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <set>

#include "CBBSQL.h"
#include "COS.h"
#include "PlatformSim.h"
#include "TestUtil.h"

using namespace crashsim;

namespace {

void Exec(sqlite3* db, const std::string& sql) {
    char* err = nullptr;
    const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &err);
    const std::string message = err ? err : "";
    sqlite3_free(err);
    ASSERT_EQ(SQLITE_OK, rc) << sql << ": " << message;
}

// Opens path through the default VFS (the crash VFS while one exists).
sqlite3* OpenRaw(const std::string& path) {
    sqlite3* db = nullptr;
    EXPECT_EQ(SQLITE_OK, sqlite3_open_v2(path.c_str(), &db,
                                         SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr));
    return db;
}

std::string Kinds(const std::vector<Event>& events, size_t from = 0) {
    static const char* names[] = {"create", "write", "truncate", "sync", "unlink", "dirsync"};
    std::string out;
    for (size_t i = from; i < events.size(); ++i) {
        out += std::string(names[static_cast<int>(events[i].kind)]) + " " + events[i].path + "\n";
    }
    return out;
}

size_t CountKind(const std::vector<Event>& events, EventKind kind, size_t from = 0) {
    size_t n = 0;
    for (size_t i = from; i < events.size(); ++i) {
        n += events[i].kind == kind;
    }
    return n;
}

// Rows of t, read read-write so that a hot journal is rolled back as at a restart.
long long Rows(const std::string& path) {
    sqlite3* db = nullptr;
    long long n = -1;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) {
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db, "select count(*) from t", -1, &stmt, nullptr) == SQLITE_OK &&
            sqlite3_step(stmt) == SQLITE_ROW) {
            n = sqlite3_column_int64(stmt, 0);
        }
        sqlite3_finalize(stmt);
    }
    sqlite3_close(db);
    return n;
}

class CrashVfsTest : public ::testing::Test {
protected:
    void SetUp() override { PlatformSim::Reset(); }
    void TearDown() override { PlatformSim::Reset(); }

    testutil::TempDir dir_;
    testutil::TempDir image_;
};

}  // namespace

// A commit in the default journal mode: the journal is created, written and
// synced (its directory with it), the file written and synced, and the
// journal unlinked with no directory sync after it. A cut right after the
// commit under the synced-only model keeps the journal, and the next open
// rolls the committed row back; under the everything model the row stays.
TEST_F(CrashVfsTest, DefaultJournalCommitLeavesTheJournalUnlinkUnsynced) {
    {
        CrashVfs vfs(dir_.path());
        sqlite3* db = OpenRaw(dir_.path() + "a.db");
        ASSERT_NE(nullptr, db);
        Exec(db, "PRAGMA synchronous=FULL; CREATE TABLE t(x)");
        const size_t from = vfs.EventCount();
        Exec(db, "INSERT INTO t VALUES(1)");
        std::vector<Event> ev = vfs.Events();
        ev.erase(ev.begin(), ev.begin() + static_cast<long>(from));
        SCOPED_TRACE(Kinds(ev));
        ASSERT_GE(ev.size(), 7u);
        EXPECT_EQ(EventKind::Create, ev[0].kind);
        EXPECT_EQ("a.db-journal", ev[0].path);
        EXPECT_EQ(EventKind::Unlink, ev.back().kind);
        EXPECT_EQ("a.db-journal", ev.back().path);
        // The journal's first sync brings the directory sync that makes the
        // journal itself permanent; the unlink gets none.
        EXPECT_EQ(1u, CountKind(ev, EventKind::DirSync));
        size_t firstSync = 0;
        while (firstSync < ev.size() && ev[firstSync].kind != EventKind::Sync) {
            ++firstSync;
        }
        ASSERT_LT(firstSync + 1, ev.size());
        EXPECT_EQ("a.db-journal", ev[firstSync].path);
        EXPECT_EQ(EventKind::DirSync, ev[firstSync + 1].kind);
        EXPECT_EQ(2u, CountKind(ev, EventKind::Sync) - 1);  // journal twice (FULL), file once

        testutil::TempDir synced, all;
        vfs.WriteImage(vfs.EventCount(), Model::SyncedOnly, 1, synced.path());
        vfs.WriteImage(vfs.EventCount(), Model::Everything, 1, all.path());
        EXPECT_TRUE(testutil::FileExists(synced.path() + "a.db-journal"));
        EXPECT_FALSE(testutil::FileExists(all.path() + "a.db-journal"));
        sqlite3_close(db);
        db = nullptr;
        EXPECT_EQ(0, Rows(synced.path() + "a.db"));  // rolled back by the old journal
        EXPECT_EQ(1, Rows(all.path() + "a.db"));
    }
}

// With synchronous=EXTRA the unlink is followed by a directory sync, and the
// same cut keeps the row under every model.
TEST_F(CrashVfsTest, ExtraSyncsTheDirectoryAfterTheJournalUnlink) {
    CrashVfs vfs(dir_.path());
    sqlite3* db = OpenRaw(dir_.path() + "a.db");
    ASSERT_NE(nullptr, db);
    Exec(db, "PRAGMA synchronous=EXTRA; CREATE TABLE t(x)");
    Exec(db, "INSERT INTO t VALUES(1)");
    sqlite3_close(db);
    const std::vector<Event> ev = vfs.Events();
    SCOPED_TRACE(Kinds(ev));
    ASSERT_GE(ev.size(), 2u);
    EXPECT_EQ(EventKind::Unlink, ev[ev.size() - 2].kind);
    EXPECT_EQ(EventKind::DirSync, ev.back().kind);
    EXPECT_EQ("", ev.back().path);
    for (Model model : {Model::SyncedOnly, Model::Everything, Model::RandomSectors}) {
        for (uint32_t seed = 0; seed < 5; ++seed) {
            testutil::TempDir out;
            vfs.WriteImage(vfs.EventCount(), model, seed, out.path());
            EXPECT_FALSE(testutil::FileExists(out.path() + "a.db-journal")) << ModelName(model);
            EXPECT_EQ(1, Rows(out.path() + "a.db")) << ModelName(model);
        }
    }
}

// Every connection the library opens: a file connection commits with the
// directory synced after its journal goes, and a file attached to the memory
// buffer gets the platform's own directory sync after its commit.
TEST_F(CrashVfsTest, LibraryConnectionsSyncTheDirectoryAfterEveryCommit) {
    CrashVfs vfs(dir_.path());
    {
        CBBSQL::CppSQLite3DB file;
        file.open((dir_.path() + "f.db").c_str());
        file.execDML("CREATE TABLE t(x)");
    }
    std::vector<Event> ev = vfs.Events();
    ASSERT_FALSE(ev.empty());
    EXPECT_EQ(EventKind::DirSync, ev.back().kind) << Kinds(ev);
    EXPECT_FALSE(ev.back().byLibrary);

    const size_t before = vfs.EventCount();
    CBBSQL::CppSQLite3DB mem;
    mem.open(":memory:");
    mem.execDML("CREATE TABLE t(x)");
    mem.execDML("INSERT INTO t VALUES(7)");
    EXPECT_EQ(before, vfs.EventCount());  // the buffer itself writes no file
    mem.execDML(("ATTACH '" + dir_.path() + "f.db' AS filedb").c_str());
    mem.execDML("INSERT INTO filedb.t SELECT * FROM t");
    ev = vfs.Events();
    SCOPED_TRACE(Kinds(ev, before));
    ASSERT_GE(ev.size(), before + 2);
    EXPECT_EQ(EventKind::Unlink, ev[ev.size() - 2].kind);
    EXPECT_EQ("f.db-journal", ev[ev.size() - 2].path);
    EXPECT_EQ(EventKind::DirSync, ev.back().kind);
    EXPECT_TRUE(ev.back().byLibrary);
    EXPECT_EQ("", ev.back().path);
    mem.execDML("DELETE FROM t");  // a commit of the buffer alone syncs nothing
    EXPECT_EQ(ev.size(), vfs.EventCount());
    mem.execDML("DETACH DATABASE filedb");

    testutil::TempDir out;
    vfs.WriteImage(vfs.EventCount(), Model::SyncedOnly, 0, out.path());
    EXPECT_EQ(1, Rows(out.path() + "f.db"));
}

// The platform's own file deletion is recorded and, until a directory sync,
// is undone by a cut under the synced-only model.
TEST_F(CrashVfsTest, PlatformDeletionIsRecordedAndUndoneUntilTheDirectoryIsSynced) {
    testutil::WriteFile(dir_.path() + "old.db", "content");
    CrashVfs vfs(dir_.path());
    EXPECT_EQ(1, COS::CosFile::Delete(dir_.path() + "old.db"));
    EXPECT_FALSE(testutil::FileExists(dir_.path() + "old.db"));
    const std::vector<Event> ev = vfs.Events();
    ASSERT_EQ(1u, ev.size());
    EXPECT_EQ(EventKind::Unlink, ev[0].kind);
    EXPECT_TRUE(ev[0].byLibrary);
    EXPECT_EQ("old.db", ev[0].path);
    EXPECT_EQ(0, COS::CosFile::Delete(dir_.path() + "old.db"));  // gone: fails, no event
    EXPECT_EQ(1u, vfs.EventCount());

    testutil::TempDir synced, all;
    vfs.WriteImage(1, Model::SyncedOnly, 0, synced.path());
    vfs.WriteImage(1, Model::Everything, 0, all.path());
    EXPECT_TRUE(testutil::FileExists(synced.path() + "old.db"));
    EXPECT_FALSE(testutil::FileExists(all.path() + "old.db"));
}

// Unsynced writes survive sector by sector at random: over many seeds every
// sector is seen both old and new, a synced write always survives, and one
// seed always gives the same image.
TEST_F(CrashVfsTest, RandomSectorsKeepsEachUnsyncedSectorOrNot) {
    testutil::WriteFile(dir_.path() + "f.bin", std::string(1024, 'a'));
    CrashVfs vfs(dir_.path());
    sqlite3_vfs* v = sqlite3_vfs_find(nullptr);
    ASSERT_NE(nullptr, v);
    std::vector<char> mem(static_cast<size_t>(v->szOsFile));
    sqlite3_file* f = reinterpret_cast<sqlite3_file*>(mem.data());
    int out = 0;
    ASSERT_EQ(SQLITE_OK, v->xOpen(v, (dir_.path() + "f.bin").c_str(), f,
                                  SQLITE_OPEN_READWRITE | SQLITE_OPEN_MAIN_DB, &out));
    const std::string b(1024, 'b');
    ASSERT_EQ(SQLITE_OK, f->pMethods->xWrite(f, b.data(), 512, 0));
    ASSERT_EQ(SQLITE_OK, f->pMethods->xSync(f, SQLITE_SYNC_NORMAL));
    const std::string c(1024, 'c');
    ASSERT_EQ(SQLITE_OK, f->pMethods->xWrite(f, c.data(), 1024, 0));
    f->pMethods->xClose(f);
    ASSERT_EQ(3u, vfs.EventCount());

    std::set<std::string> seen;
    for (uint32_t seed = 0; seed < 64; ++seed) {
        testutil::TempDir img;
        vfs.WriteImage(3, Model::RandomSectors, seed, img.path());
        std::string content;
        FILE* in = fopen((img.path() + "f.bin").c_str(), "rb");
        ASSERT_NE(nullptr, in);
        char buf[2048];
        const size_t n = fread(buf, 1, sizeof buf, in);
        fclose(in);
        ASSERT_EQ(1024u, n);
        content.assign(buf, n);
        EXPECT_TRUE(content[0] == 'b' || content[0] == 'c');
        EXPECT_TRUE(content[512] == 'a' || content[512] == 'c');
        seen.insert(content.substr(0, 1) + content.substr(512, 1));
        testutil::TempDir again;
        vfs.WriteImage(3, Model::RandomSectors, seed, again.path());
        FILE* in2 = fopen((again.path() + "f.bin").c_str(), "rb");
        ASSERT_NE(nullptr, in2);
        char buf2[2048];
        const size_t n2 = fread(buf2, 1, sizeof buf2, in2);
        fclose(in2);
        EXPECT_EQ(content, std::string(buf2, n2));
    }
    EXPECT_EQ(4u, seen.size());  // ba, bc, ca, cc
}
