// sqlite3db-durability-cost: what the journal and sync settings cost per
// flushed record. Each flush is done as the store does it: the DBInfo row
// rewritten through its own connection, then the buffer attached-copied into
// the file and emptied. Bytes and syncs are counted through the crash VFS;
// times are taken on the real disk with real syncs.
//   sqlite3db-durability-cost [DIR] [FLUSHES] [RECORDS_PER_FLUSH]
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "CBBSQL.h"
#include "PlatformSim.h"
#include "crash/CrashVfs.h"

namespace {

struct Variant {
    const char* name;
    const char* pragmas;  // run on every file schema; nullptr: the library's own settings
};

const Variant kVariants[] = {
    {"delete+full (before)", "PRAGMA %ssynchronous=FULL; PRAGMA %sjournal_mode=DELETE;"},
    {"delete+extra+dirsync (library)", nullptr},
    {"truncate+full", "PRAGMA %ssynchronous=FULL; PRAGMA %sjournal_mode=TRUNCATE;"},
    {"persist+full", "PRAGMA %ssynchronous=FULL; PRAGMA %sjournal_mode=PERSIST;"},
};

// A connection: the library's own (its settings), or a bare one.
class Conn {
public:
    Conn(const std::string& path, bool library) {
        if (library) {
            lib_.open(path.c_str());
        } else if (sqlite3_open_v2(path.c_str(), &raw_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE,
                                   nullptr) != SQLITE_OK) {
            std::fprintf(stderr, "cannot open %s\n", path.c_str());
            std::exit(1);
        }
    }
    ~Conn() { sqlite3_close(raw_); }
    void Exec(const std::string& sql) {
        if (!raw_) {
            lib_.execDML(sql.c_str());
            return;
        }
        char* err = nullptr;
        if (sqlite3_exec(raw_, sql.c_str(), nullptr, nullptr, &err) != SQLITE_OK) {
            std::fprintf(stderr, "%s: %s\n", sql.c_str(), err ? err : "?");
            std::exit(1);
        }
    }

private:
    CBBSQL::CppSQLite3DB lib_;
    sqlite3* raw_ = nullptr;
};

std::string Pragmas(const Variant& v, const std::string& schema) {
    char buf[256];
    std::snprintf(buf, sizeof buf, v.pragmas, schema.c_str(), schema.c_str());
    return buf;
}

// Runs `flushes` flushes of `perFlush` records into dir/x.db. The library's
// connections are used throughout; a variant with pragmas overrides its
// settings on each file schema.
void Flushes(const Variant& v, const std::string& path, int flushes, int perFlush) {
    unlink(path.c_str());
    unlink((path + "-journal").c_str());
    unlink((path + "-wal").c_str());
    unlink((path + "-shm").c_str());
    {
        Conn file(path, !v.pragmas);
        if (v.pragmas) {
            file.Exec(Pragmas(v, ""));
        }
        file.Exec("CREATE TABLE rec (id INTEGER PRIMARY KEY, t INTEGER, v TEXT)");
        file.Exec("CREATE TABLE DBInfo (version INTEGER PRIMARY KEY, MaxID INTEGER)");
    }
    Conn mem(":memory:", !v.pragmas);
    mem.Exec("CREATE TABLE rec (id INTEGER PRIMARY KEY, t INTEGER, v TEXT)");
    long long id = 1;
    for (int f = 0; f < flushes; ++f) {
        mem.Exec("begin");
        for (int i = 0; i < perFlush; ++i, ++id) {
            mem.Exec("insert into rec values(" + std::to_string(id) + ", " +
                     std::to_string(1600000000000LL + id) + ", 'value of record " +
                     std::to_string(id) + "')");
        }
        mem.Exec("commit");
        {
            Conn file(path, !v.pragmas);
            if (v.pragmas) {
                file.Exec(Pragmas(v, ""));
            }
            file.Exec("replace into DBInfo values(1, " + std::to_string(id - 1) + ")");
        }
        mem.Exec("ATTACH '" + path + "' AS filedb");
        if (v.pragmas) {
            mem.Exec(Pragmas(v, "filedb."));
        }
        mem.Exec("INSERT OR REPLACE INTO filedb.rec SELECT * FROM rec");
        mem.Exec("DELETE FROM rec");
        mem.Exec("DETACH DATABASE filedb");
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::string dir = argc > 1 ? argv[1] : "/mnt/data/durability-cost/";
    if (dir.back() != '/') {
        dir += '/';
    }
    const int flushes = argc > 2 ? std::atoi(argv[2]) : 40;
    const int perFlush = argc > 3 ? std::atoi(argv[3]) : 50;
    mkdir(dir.c_str(), 0755);
    const int records = flushes * perFlush;
    std::printf("%d flushes of %d records each into %s\n", flushes, perFlush, dir.c_str());
    std::printf("%-32s %12s %12s %10s %10s %10s\n", "settings", "us/record", "bytes/record",
                "syncs/fl", "dirsync/fl", "unlink/fl");
    // Times: the median of five rounds, the variants interleaved, so that
    // other load on the machine spreads over all of them.
    const size_t n = sizeof kVariants / sizeof kVariants[0];
    std::vector<std::vector<double>> times(n);
    for (int round = 0; round < 5; ++round) {
        for (size_t i = 0; i < n; ++i) {
            const auto start = std::chrono::steady_clock::now();
            Flushes(kVariants[i], dir + "x.db", flushes, perFlush);
            times[i].push_back(
                std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
                    .count());
        }
    }
    for (size_t i = 0; i < n; ++i) {
        const Variant& v = kVariants[i];
        std::sort(times[i].begin(), times[i].end());
        const double us = times[i][times[i].size() / 2];
        long long bytes = 0, syncs = 0, dirSyncs = 0, unlinks = 0;
        {
            crashsim::CrashVfs vfs(dir);
            Flushes(v, dir + "x.db", flushes, perFlush);
            for (const crashsim::Event& e : vfs.Events()) {
                bytes += static_cast<long long>(e.data.size());
                syncs += e.kind == crashsim::EventKind::Sync;
                dirSyncs += e.kind == crashsim::EventKind::DirSync;
                unlinks += e.kind == crashsim::EventKind::Unlink;
            }
        }
        std::printf("%-32s %12.1f %12.1f %10.2f %10.2f %10.2f\n", v.name, us / records,
                    static_cast<double>(bytes) / records, static_cast<double>(syncs) / flushes,
                    static_cast<double>(dirSyncs) / flushes,
                    static_cast<double>(unlinks) / flushes);
    }
    for (const char* side : {"x.db", "x.db-journal", "x.db-wal", "x.db-shm"}) {
        unlink((dir + side).c_str());
    }
    rmdir(dir.c_str());
    return 0;
}
