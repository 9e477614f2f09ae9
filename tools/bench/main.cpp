// sqlite3db-bench: what a record costs in the library, measured against raw
// SQLite doing the same work in the same run on the same machine.
//
// Every workload runs the library and its raw-SQLite baseline in interleaved
// repetitions and prints both figures and their ratio (median and range over
// the repetitions). Machines are shared and noisy, so only the ratios of one
// run compare with each other. Uses only the library, SQLite and the standard
// library, so the same source builds for the panel.
#include <sqlite3.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "PlatformSim.h"
#include "Sqlite3DB/Sqlite3DB.h"

namespace fs = std::filesystem;

namespace {

// --- Settings -----------------------------------------------------------------

struct Options {
    bool quick = false;
    int reps = 5;
    std::string only;  // run only the workloads whose letters are given
    std::string dir;   // where the files go; a fresh temporary directory by default
};

struct Sizes {
    int ingestRecords;   // (a)
    int durableSaveMs;   // (b) nSaveTime of the durable store
    int durableWindows;  // (b) flush intervals timed per repetition
    int durableBatchRecords;
    int durableAutoRecords;
    int flushRows;               // (c)
    int queryFileRecords;        // (d) records per file, 20 files
    int queryRangeRecords;       // (d) rows one query returns
    std::vector<int> scanFiles;  // (e)
    int loadSeconds;             // (f) length of one run
    int loadSaveMs;              // (f) nSaveTime
    int loadReps;
};

Sizes FullSizes() {
    return {100000, 2000, 3, 100000, 500, 10000, 50000, 10000, {10, 100, 1000}, 10, 2000, 3};
}

Sizes QuickSizes() {
    return {2000, 150, 2, 2000, 40, 1000, 500, 400, {10, 100}, 1, 300, 1};
}

const char kTable[] = "alarm";
const char kCreateSql[] = "CREATE TABLE alarm (id INTEGER PRIMARY KEY, t INTEGER, text TEXT)";
const char kDBInfoCreateSql[] =
    "CREATE TABLE 'DBInfo' (version INTEGER PRIMARY KEY AUTOINCREMENT,MaxID INTEGER ,MinID "
    "INTEGER ,StartTime INTEGER ,EndTime INTEGER,Value0 INTEGER,Value1 INTEGER,Value2 "
    "INTEGER,Value3 INTEGER,Value4 INTEGER)";
const unsigned long long kTime0 = 1717236000000ULL;  // time of record 0, ms
const unsigned long long kTimeStep = 100;            // ms between records

std::string RecordSql(unsigned long long id) {
    char sql[160];
    snprintf(sql, sizeof(sql), "insert into alarm values(%llu, %llu, 'Pump %u overload')", id,
             kTime0 + id * kTimeStep, static_cast<unsigned>(id % 97));
    return sql;
}

std::vector<std::string> RecordTexts(unsigned long long firstId, int count) {
    std::vector<std::string> texts;
    texts.reserve(count);
    for (int i = 0; i < count; ++i) {
        texts.push_back(RecordSql(firstId + i));
    }
    return texts;
}

// --- Measuring -----------------------------------------------------------------

using Clock = std::chrono::steady_clock;

double Seconds(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

struct Spread {
    double median = 0, min = 0, max = 0;
};

Spread SpreadOf(std::vector<double> v) {
    Spread s;
    if (v.empty()) {
        return s;
    }
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    s.median = n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
    s.min = v.front();
    s.max = v.back();
    return s;
}

double Percentile(std::vector<double> v, double p) {
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    size_t i = static_cast<size_t>(p * (v.size() - 1) + 0.5);
    return v[std::min(i, v.size() - 1)];
}

// Counters of /proc/self/io; absent (e.g. no task accounting) reads as -1.
struct IoCounters {
    long long wchar = -1, writeBytes = -1, cancelled = -1;
};

IoCounters ReadIo() {
    IoCounters io;
    std::ifstream in("/proc/self/io");
    std::string key;
    long long value;
    while (in >> key >> value) {
        if (key == "wchar:")
            io.wchar = value;
        if (key == "write_bytes:")
            io.writeBytes = value;
        if (key == "cancelled_write_bytes:")
            io.cancelled = value;
    }
    return io;
}

// Field of /proc/self/status in KiB, or -1.
long long StatusKiB(const char* field) {
    std::ifstream in("/proc/self/status");
    std::string line;
    size_t n = strlen(field);
    while (std::getline(in, line)) {
        if (line.compare(0, n, field) == 0 && line.size() > n && line[n] == ':') {
            return atoll(line.c_str() + n + 1);
        }
    }
    return -1;
}

// Starts a new peak-memory window; false where the kernel does not allow it.
bool ResetPeakMemory() {
    FILE* f = fopen("/proc/self/clear_refs", "w");
    if (!f) {
        return false;
    }
    bool ok = fputs("5", f) >= 0;
    return fclose(f) == 0 && ok;
}

std::string Fmt(const char* format, double v) {
    char buf[64];
    snprintf(buf, sizeof(buf), format, v);
    return buf;
}

std::string Bytes(long long before, long long after, double per) {
    if (before < 0 || after < 0 || per <= 0) {
        return "n/a";
    }
    return Fmt("%.1f", (after - before) / per);
}

unsigned long long DirBytes(const std::string& dir) {
    unsigned long long total = 0;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(dir, ec)) {
        if (e.is_regular_file(ec)) {
            total += e.file_size(ec);
        }
    }
    return total;
}

// Prints one figure pair and their ratio. Each vector holds one value per
// repetition in the same unit; higherIsBetter tells which way speed points.
void PrintPair(const char* what, const char* unit, const char* libLabel,
               const std::vector<double>& lib, const char* baseLabel,
               const std::vector<double>& base, bool higherIsBetter) {
    std::vector<double> ratios;
    for (size_t i = 0; i < lib.size() && i < base.size(); ++i) {
        if (lib[i] > 0 && base[i] > 0) {
            ratios.push_back(higherIsBetter ? lib[i] / base[i] : base[i] / lib[i]);
        }
    }
    Spread l = SpreadOf(lib), b = SpreadOf(base), r = SpreadOf(ratios);
    printf("  %s\n", what);
    printf("    %-34s %12.3f %-10s [%.3f .. %.3f]\n", libLabel, l.median, unit, l.min, l.max);
    printf("    %-34s %12.3f %-10s [%.3f .. %.3f]\n", baseLabel, b.median, unit, b.min, b.max);
    printf("    %-34s %12.3f x          [%.3f .. %.3f]\n", "ratio (library speed / baseline)",
           r.median, r.min, r.max);
}

// --- Raw SQLite helpers ---------------------------------------------------------

sqlite3* OpenRaw(const std::string& path, int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, flags, nullptr) != SQLITE_OK) {
        fprintf(stderr, "sqlite3db-bench: cannot open %s: %s\n", path.c_str(),
                db ? sqlite3_errmsg(db) : "out of memory");
        exit(2);
    }
    sqlite3_busy_timeout(db, 2000);
    return db;
}

void Exec(sqlite3* db, const char* sql) {
    char* err = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &err) != SQLITE_OK) {
        fprintf(stderr, "sqlite3db-bench: %s: %s\n", sql, err ? err : "?");
        sqlite3_free(err);
        exit(2);
    }
}

// The journal and sync settings that the library gives its file connections,
// read back from one of them, so that the baselines write as durably.
struct Durability {
    std::string journalMode = "delete";
    std::string synchronous = "2";
};

Durability LibraryDurability(const std::string& dir) {
    Durability d;
    std::string path = dir + "/settings-probe.db";
    {
        CBBSQL::CppSQLite3DB db;
        db.open(path.c_str());
        CBBSQL::CppSQLite3Query q = db.execQuery("PRAGMA journal_mode");
        d.journalMode = q.getStringField(0);
        q = db.execQuery("PRAGMA synchronous");
        d.synchronous = q.getStringField(0);
    }
    fs::remove(path);
    return d;
}

void ApplyDurability(sqlite3* db, const Durability& d) {
    Exec(db, ("PRAGMA journal_mode=" + d.journalMode).c_str());
    Exec(db, ("PRAGMA synchronous=" + d.synchronous).c_str());
}

// Runs "insert into alarm values(?,?,?)" with record id's values bound.
void InsertBound(sqlite3_stmt* insert, unsigned long long id) {
    char text[32];
    snprintf(text, sizeof(text), "Pump %u overload", static_cast<unsigned>(id % 97));
    sqlite3_bind_int64(insert, 1, static_cast<sqlite3_int64>(id));
    sqlite3_bind_int64(insert, 2, static_cast<sqlite3_int64>(kTime0 + id * kTimeStep));
    sqlite3_bind_text(insert, 3, text, -1, SQLITE_TRANSIENT);
    sqlite3_step(insert);
    sqlite3_reset(insert);
}

// Writes a store file in the library's format: the data table with records
// [firstId, firstId + count) and the DBInfo row describing them.
void WriteStoreFile(const std::string& path, unsigned long long firstId, int count,
                    unsigned long long minId) {
    sqlite3* db = OpenRaw(path);
    Exec(db, "PRAGMA journal_mode=OFF");
    Exec(db, "PRAGMA synchronous=OFF");
    Exec(db, kCreateSql);
    Exec(db, kDBInfoCreateSql);
    Exec(db, "begin");
    sqlite3_stmt* st = nullptr;
    sqlite3_prepare_v2(db, "insert into alarm values(?,?,?)", -1, &st, nullptr);
    for (int i = 0; i < count; ++i) {
        InsertBound(st, firstId + i);
    }
    sqlite3_finalize(st);
    unsigned long long lastId = firstId + count - 1;
    char sql[256];
    snprintf(sql, sizeof(sql), "replace into 'DBInfo' values (1,%llu,%llu,%llu,%llu,0,0,0,0,0)",
             lastId, minId, kTime0 + firstId * kTimeStep, kTime0 + lastId * kTimeStep);
    Exec(db, sql);
    Exec(db, "commit");
    sqlite3_close(db);
}

// --- Library helpers -------------------------------------------------------------

std::string g_root;  // the SD card's mount point of the run: every store lives here

struct StoreConf {
    std::string dir, file = "alarm.db", table = kTable, create = kCreateSql, trim;
    _tagDBConf conf{};
};

// A store under the run's root. nSaveTime 0: the buffer is never flushed.
long long CreateStore(StoreConf& s, const std::string& dir, int saveMs) {
    s.dir = dir;
    s.conf = _tagDBConf{&s.dir,
                        &s.file,
                        /*nStorePattern*/ 1,
                        /*nMaxRecordNum*/ 0,
                        /*nMaxFileSize*/ 0,
                        /*bSplitFile*/ 1,
                        /*nMaxFileNum*/ 0,
                        saveMs,
                        /*bUseMemDB*/ 1,
                        /*bSaveFile*/ 1,
                        &s.table,
                        &s.create,
                        0,
                        &s.trim,
                        /*bClearOnReload*/ 1};
    long long id = Sqlite3DB::Create(s.conf, 0);
    if (id < 0) {
        fprintf(stderr, "sqlite3db-bench: Create(%s) failed: %lld\n", dir.c_str(), id);
        exit(2);
    }
    return id;
}

std::string StoreDir(const std::string& dir) {
    return g_root + dir;
}

void RemoveDir(const std::string& path) {
    std::error_code ec;
    fs::remove_all(path, ec);
}

}  // namespace

// --- (a) ingest into the buffer ------------------------------------------------------
// One cycle each: 500 records. Named and not inlined, so that callgrind can
// count each side alone:
// valgrind --tool=callgrind --toggle-collect=BenchIngestLibrary sqlite3db-bench --only a
// (or BenchIngestBaseline, BenchIngestPrepared)

extern "C" __attribute__((noinline)) void BenchIngestLibrary(Sqlite3DB& store,
                                                             const std::vector<std::string>& texts,
                                                             int first, int end) {
    for (int k = first; k < end; ++k) {
        _tagDBSqlCmdInfo cmd{const_cast<std::string*>(&texts[k]), 1,
                             static_cast<unsigned long long>(k + 1), kTime0 + (k + 1) * kTimeStep};
        store.SqlAddNode(cmd);
    }
    Sqlite3DB::Save();
}

extern "C" __attribute__((noinline)) void BenchIngestBaseline(sqlite3* db,
                                                              const std::vector<std::string>& texts,
                                                              int first, int end) {
    sqlite3_exec(db, "begin", nullptr, nullptr, nullptr);
    for (int k = first; k < end; ++k) {
        sqlite3_exec(db, texts[k].c_str(), nullptr, nullptr, nullptr);
    }
    sqlite3_exec(db, "commit", nullptr, nullptr, nullptr);
}

// What a host that binds its values to one compiled insert would pay: the
// best case, for reference.
extern "C" __attribute__((noinline)) void BenchIngestPrepared(sqlite3* db, sqlite3_stmt* insert,
                                                              int first, int end) {
    sqlite3_exec(db, "begin", nullptr, nullptr, nullptr);
    for (int k = first; k < end; ++k) {
        InsertBound(insert, static_cast<unsigned long long>(k + 1));
    }
    sqlite3_exec(db, "commit", nullptr, nullptr, nullptr);
}

namespace {

double CpuSeconds() {
    return static_cast<double>(std::clock()) / CLOCKS_PER_SEC;
}

// The three sides fill their buffers side by side, one cycle each in turn, so
// that all meet the same machine; each is timed by the process's CPU time,
// which other programs on a shared machine disturb less than the wall clock.
void WorkloadIngest(const Options& opt, const Sizes& sz) {
    const int n = sz.ingestRecords;
    printf(
        "\n(a) Ingest into the buffer: %d text inserts, 500 SqlAddNode per Save(), no flush;\n"
        "    CPU time, the sides' cycles interleaved\n",
        n);
    std::vector<std::string> texts = RecordTexts(1, n);
    std::vector<double> lib, base, prepared;
    for (int rep = 0; rep < opt.reps; ++rep) {
        StoreConf s;
        long long id = CreateStore(s, "ingest/", 0);
        Sqlite3DB store;
        store.Open(id);
        sqlite3* db = OpenRaw(":memory:");
        Exec(db, kCreateSql);
        sqlite3* pdb = OpenRaw(":memory:");
        Exec(pdb, kCreateSql);
        sqlite3_stmt* insert = nullptr;
        sqlite3_prepare_v2(pdb, "insert into alarm values(?,?,?)", -1, &insert, nullptr);
        double tLib = 0, tBase = 0, tPrepared = 0;
        for (int i = 0; i < n; i += 500) {
            const int end = std::min(n, i + 500);
            for (int k = 0; k < 3; ++k) {
                const int side = (k + i / 500 + rep) % 3;
                double t0 = CpuSeconds();
                if (side == 0) {
                    BenchIngestLibrary(store, texts, i, end);
                    tLib += CpuSeconds() - t0;
                } else if (side == 1) {
                    BenchIngestBaseline(db, texts, i, end);
                    tBase += CpuSeconds() - t0;
                } else {
                    BenchIngestPrepared(pdb, insert, i, end);
                    tPrepared += CpuSeconds() - t0;
                }
            }
        }
        if (store.GetMaxID() != n) {
            fprintf(stderr, "sqlite3db-bench: ingest lost records (%lld)\n", store.GetMaxID());
            exit(3);
        }
        Sqlite3DB::Destroy();
        RemoveDir(StoreDir("ingest/"));
        sqlite3_close(db);
        sqlite3_finalize(insert);
        sqlite3_close(pdb);
        lib.push_back(n / tLib);
        base.push_back(n / tBase);
        prepared.push_back(n / tPrepared);
    }
    PrintPair("records per CPU second", "rec/s", "library", lib,
              "sqlite3_exec, 500/txn, :memory:", base, true);
    PrintPair("records per CPU second, against the best case", "rec/s", "library", lib,
              "bound values, 500/txn, :memory:", prepared, true);
}

// --- (b) durable ingest ---------------------------------------------------------------

struct DurableFigure {
    double recPerSec = 0;
    std::string wchar, writeBytes;
    double fileBytesPerRecord = 0;
};

// Records arrive as fast as the host can hand them over; the host's timer
// calls Save() after every 500 (the queue's limit), and the store flushes
// every nSaveTime ms of real time. Timed from just after one flush to just
// after the last of `windows` more: every record counted is in the file.
DurableFigure DurableLibrary(const Sizes& sz, int rep) {
    std::string dir = "durable" + std::to_string(rep) + "/";
    StoreConf s;
    long long id = CreateStore(s, dir, sz.durableSaveMs);
    Sqlite3DB store;
    store.Open(id);
    DbData* data = Sqlite3DB::GetDbByID(id);

    unsigned long long next = 1;
    std::string sql;
    int flushes = -1;
    unsigned long long startRecords = 0;
    Clock::time_point start;
    IoCounters ioStart;
    DurableFigure f;
    while (flushes < sz.durableWindows) {
        for (int k = 0; k < 500; ++k, ++next) {
            sql = RecordSql(next);
            _tagDBSqlCmdInfo cmd{&sql, 1, next, kTime0 + next * kTimeStep};
            store.SqlAddNode(cmd);
        }
        unsigned long long tickBefore = data->m_nLastSaveTick;
        Sqlite3DB::Save();
        if (data->m_nLastSaveTick != tickBefore) {  // this cycle flushed everything queued
            if (++flushes == 0) {
                start = Clock::now();
                ioStart = ReadIo();
                startRecords = next - 1;
            }
        }
    }
    double t = Seconds(start, Clock::now());
    IoCounters ioEnd = ReadIo();
    double records = static_cast<double>(next - 1 - startRecords);
    f.recPerSec = records / t;
    f.wchar = Bytes(ioStart.wchar, ioEnd.wchar, records);
    if (ioStart.writeBytes >= 0 && ioStart.cancelled >= 0) {
        f.writeBytes = Bytes(ioStart.writeBytes - ioStart.cancelled,
                             ioEnd.writeBytes - ioEnd.cancelled, records);
    } else {
        f.writeBytes = "n/a";
    }
    Sqlite3DB::Destroy();
    f.fileBytesPerRecord = static_cast<double>(DirBytes(StoreDir(dir))) / (next - 1);
    RemoveDir(StoreDir(dir));
    return f;
}

// A host that writes the records into the file itself, `perTxn` per
// transaction (1: autocommit), with the library's journal and sync settings.
DurableFigure DurableBaseline(const Durability& d, int records, int perTxn, int rep) {
    std::string path = g_root + "durable-raw" + std::to_string(rep) + ".db";
    sqlite3* db = OpenRaw(path);
    ApplyDurability(db, d);
    Exec(db, kCreateSql);
    std::vector<std::string> texts = RecordTexts(1, records);
    auto t0 = Clock::now();
    IoCounters io0 = ReadIo();
    for (int i = 0; i < records; i += perTxn) {
        if (perTxn > 1)
            Exec(db, "begin");
        for (int k = i; k < records && k < i + perTxn; ++k) {
            Exec(db, RecordSql(k + 1).c_str());
        }
        if (perTxn > 1)
            Exec(db, "commit");
    }
    double t = Seconds(t0, Clock::now());
    IoCounters io1 = ReadIo();
    sqlite3_close(db);
    DurableFigure f;
    f.recPerSec = records / t;
    f.wchar = Bytes(io0.wchar, io1.wchar, records);
    f.writeBytes =
        io0.writeBytes >= 0 && io0.cancelled >= 0
            ? Bytes(io0.writeBytes - io0.cancelled, io1.writeBytes - io1.cancelled, records)
            : "n/a";
    f.fileBytesPerRecord = static_cast<double>(fs::file_size(path)) / records;
    fs::remove(path);
    return f;
}

void WorkloadDurable(const Options& opt, const Sizes& sz, const Durability& d) {
    printf(
        "\n(b) Durable ingest: records as fast as the host hands them over, Save() every 500,\n"
        "    flush every %d ms into the file; timed over %d whole flush intervals\n",
        sz.durableSaveMs, sz.durableWindows);
    std::vector<double> lib, batch, autoc;
    std::vector<DurableFigure> libF, batchF, autoF;
    for (int rep = 0; rep < opt.reps; ++rep) {
        if (rep % 2) {
            batchF.push_back(DurableBaseline(d, sz.durableBatchRecords, 500, rep));
            libF.push_back(DurableLibrary(sz, rep));
        } else {
            libF.push_back(DurableLibrary(sz, rep));
            batchF.push_back(DurableBaseline(d, sz.durableBatchRecords, 500, rep));
        }
        autoF.push_back(DurableBaseline(d, sz.durableAutoRecords, 1, rep));
        lib.push_back(libF.back().recPerSec);
        batch.push_back(batchF.back().recPerSec);
        autoc.push_back(autoF.back().recPerSec);
    }
    PrintPair("records per second, durable in the file", "rec/s", "library", lib,
              "raw, 500 per transaction", batch, true);
    PrintPair("records per second, durable in the file", "rec/s", "library", lib,
              "raw, autocommit per record", autoc, true);
    printf(
        "  bytes per record (last repetition): written (wchar) / written to storage\n"
        "  (write_bytes - cancelled_write_bytes) / final file size\n");
    auto row = [](const char* label, const DurableFigure& f) {
        printf("    %-34s %8s / %8s / %8.1f   written/file %s\n", label, f.wchar.c_str(),
               f.writeBytes.c_str(), f.fileBytesPerRecord,
               f.wchar == "n/a"
                   ? "n/a"
                   : Fmt("%.2f x", atof(f.wchar.c_str()) / f.fileBytesPerRecord).c_str());
    };
    row("library", libF.back());
    row("raw, 500 per transaction", batchF.back());
    row("raw, autocommit per record", autoF.back());
}

// --- (c) flush ------------------------------------------------------------------------------

void WorkloadFlush(const Options& opt, const Sizes& sz, const Durability& d) {
    const int rows = sz.flushRows;
    printf("\n(c) Flush of a %d-row buffer into the current file\n", rows);
    std::vector<double> lib, base;
    std::vector<std::string> texts = RecordTexts(1, rows);
    for (int rep = 0; rep < opt.reps; ++rep) {
        auto runLib = [&] {
            PlatformSim::SetTickCount(1000);
            StoreConf s;
            long long id = CreateStore(s, "flush/", 1000000);
            Sqlite3DB store;
            store.Open(id);
            Sqlite3DB::Save();  // the first cycle's flush check, with nothing buffered
            for (int i = 0; i < rows; ++i) {
                _tagDBSqlCmdInfo cmd{&texts[i], 1, static_cast<unsigned long long>(i + 1),
                                     kTime0 + (i + 1) * kTimeStep};
                store.SqlAddNode(cmd);
                if ((i + 1) % 500 == 0)
                    Sqlite3DB::Save();
            }
            Sqlite3DB::Save();
            PlatformSim::SetTickCount(1000 + 1000000 + 1);
            auto t0 = Clock::now();
            Sqlite3DB::Save();  // flushes
            double t = Seconds(t0, Clock::now());
            if (Sqlite3DB::GetDbByID(id)->GetNowDBMemRecordNum() != 0) {
                fprintf(stderr, "sqlite3db-bench: the flush did not run\n");
                exit(3);
            }
            Sqlite3DB::Destroy();
            PlatformSim::Reset();
            CHmiMedia::SetSDPath(g_root);
            RemoveDir(StoreDir("flush/"));
            lib.push_back(t * 1000);
        };
        auto runBase = [&] {
            std::string path = g_root + "flush-raw.db";
            {
                sqlite3* f = OpenRaw(path);
                Exec(f, kCreateSql);
                sqlite3_close(f);
            }
            sqlite3* db = OpenRaw(":memory:");
            Exec(db, kCreateSql);
            Exec(db, "begin");
            for (const std::string& t : texts)
                Exec(db, t.c_str());
            Exec(db, "commit");
            auto t0 = Clock::now();
            Exec(db, ("ATTACH '" + path + "' AS filedb").c_str());
            Exec(db, ("PRAGMA filedb.journal_mode=" + d.journalMode).c_str());
            Exec(db, ("PRAGMA filedb.synchronous=" + d.synchronous).c_str());
            Exec(db, "INSERT OR REPLACE INTO filedb.alarm SELECT * FROM alarm;");
            Exec(db, "DELETE FROM alarm;");
            Exec(db, "DETACH DATABASE filedb");
            double t = Seconds(t0, Clock::now());
            sqlite3_close(db);
            fs::remove(path);
            base.push_back(t * 1000);
        };
        if (rep % 2) {
            runBase();
            runLib();
        } else {
            runLib();
            runBase();
        }
    }
    PrintPair("time of the flush (library: the Save() that flushes)", "ms", "library", lib,
              "ATTACH + INSERT...SELECT + DELETE", base, false);
}

// --- (d) range queries -------------------------------------------------------------------

// Reads every row of a statement as text, as a materialised table does.
long long StepAll(sqlite3* db, const char* sql) {
    sqlite3_stmt* st = nullptr;
    sqlite3_prepare_v2(db, sql, -1, &st, nullptr);
    long long rows = 0, bytes = 0;
    while (sqlite3_step(st) == SQLITE_ROW) {
        for (int i = 0, n = sqlite3_column_count(st); i < n; ++i) {
            sqlite3_column_text(st, i);
            bytes += sqlite3_column_bytes(st, i);
        }
        ++rows;
    }
    sqlite3_finalize(st);
    return rows + (bytes < 0);
}

long long GetTableRows(sqlite3* db, const char* sql) {
    char** result = nullptr;
    int rows = 0, cols = 0;
    sqlite3_get_table(db, sql, &result, &rows, &cols, nullptr);
    sqlite3_free_table(result);
    return rows;
}

void WorkloadQuery(const Options& opt, const Sizes& sz) {
    const int files = 20, per = sz.queryFileRecords, range = sz.queryRangeRecords;
    printf(
        "\n(d) Range queries over %d files of %d records (%d rows per query, across a file "
        "boundary)\n",
        files, per, range);
    std::string dir = StoreDir("query/");
    fs::create_directories(dir);
    unsigned long long prevMax = 0;
    for (int f = 0; f < files; ++f) {
        unsigned long long first = 1ULL + static_cast<unsigned long long>(f) * per;
        WriteStoreFile(dir + "alarm_" + std::to_string(f) + ".db", first, per,
                       f == 0 ? first : prevMax);
        prevMax = first + per - 1;
    }
    std::string one = g_root + "query-one.db";
    {
        sqlite3* db = OpenRaw(one);
        Exec(db, "PRAGMA journal_mode=OFF");
        Exec(db, "PRAGMA synchronous=OFF");
        Exec(db, ("ATTACH '" + dir + "alarm_0.db' AS src").c_str());
        Exec(db, kCreateSql);
        Exec(db, "detach src");
        for (int f = 0; f < files; ++f) {
            Exec(db, ("ATTACH '" + dir + "alarm_" + std::to_string(f) + ".db' AS src").c_str());
            Exec(db, "insert into alarm select * from src.alarm");
            Exec(db, "detach src");
        }
        sqlite3_close(db);
    }
    StoreConf s;
    long long id = CreateStore(s, "query/", 0);
    Sqlite3DB store;
    store.Open(id);

    // Half the range in file 9, half in file 10.
    unsigned long long a = 1ULL + 10ULL * per - range / 2, b = a + range - 1;
    unsigned long long ta = kTime0 + a * kTimeStep, tb = kTime0 + b * kTimeStep;
    char byId[160], byTime[160];
    snprintf(byId, sizeof(byId), "select * from alarm where id between %llu and %llu", a, b);
    snprintf(byTime, sizeof(byTime), "select * from alarm where t between %llu and %llu", ta, tb);
    std::string idSql = byId, timeSql = byTime;

    struct Kind {
        const char* name;
        std::string* sql;
        int type;
    } kinds[] = {{"by ID", &idSql, 1}, {"by time (no index on t)", &timeSql, 2}};
    for (const Kind& k : kinds) {
        std::vector<double> lib, step, table;
        for (int rep = 0; rep < opt.reps; ++rep) {
            auto runLib = [&] {
                _tagDBSqlSelectCmdInfo sel{k.sql, k.type, a, b, ta, tb, 0, 1};
                std::vector<CBBSQL::CppSQLite3Table> tables;
                auto t0 = Clock::now();
                store.SqlSelect(sel, tables);
                double t = Seconds(t0, Clock::now());
                long long rows = 0;
                for (auto& tb2 : tables)
                    rows += tb2.numRows();
                if (rows != range) {
                    fprintf(stderr, "sqlite3db-bench: query gave %lld rows\n", rows);
                    exit(3);
                }
                lib.push_back(t * 1000);
            };
            auto runRaw = [&](bool getTable) {
                auto t0 = Clock::now();
                sqlite3* db = OpenRaw(one, SQLITE_OPEN_READONLY);
                long long rows =
                    getTable ? GetTableRows(db, k.sql->c_str()) : StepAll(db, k.sql->c_str());
                sqlite3_close(db);
                double t = Seconds(t0, Clock::now());
                if (rows != range) {
                    fprintf(stderr, "sqlite3db-bench: raw query gave %lld rows\n", rows);
                    exit(3);
                }
                (getTable ? table : step).push_back(t * 1000);
            };
            if (rep % 2) {
                runRaw(false);
                runRaw(true);
                runLib();
            } else {
                runLib();
                runRaw(true);
                runRaw(false);
            }
        }
        std::string what = std::string("query ") + k.name + ", time per query";
        PrintPair(what.c_str(), "ms", "library (SqlSelect, 20 files)", lib, "one file, stepping",
                  step, false);
        PrintPair(what.c_str(), "ms", "library (SqlSelect, 20 files)", lib,
                  "one file, sqlite3_get_table", table, false);
    }
    Sqlite3DB::Destroy();
    RemoveDir(dir);
    fs::remove(one);
}

// --- (e) start-up scan ---------------------------------------------------------------------

void WorkloadScan(const Options& opt, const Sizes& sz) {
    printf(
        "\n(e) Start-up scan of a store directory (Create: list, check and catalogue each "
        "file)\n");
    for (int files : sz.scanFiles) {
        std::string dir = StoreDir("scan/");
        fs::create_directories(dir);
        unsigned long long prevMax = 0;
        for (int f = 0; f < files; ++f) {
            unsigned long long first = 1ULL + static_cast<unsigned long long>(f) * 10;
            WriteStoreFile(dir + "alarm_" + std::to_string(f) + ".db", first, 10,
                           f == 0 ? first : prevMax);
            prevMax = first + 9;
        }
        std::vector<double> lib, base;
        int reps = std::max(1, std::min(opt.reps, 3));
        for (int rep = 0; rep < reps; ++rep) {
            auto runLib = [&] {
                StoreConf s;
                auto t0 = Clock::now();
                CreateStore(s, "scan/", 0);
                double t = Seconds(t0, Clock::now());
                if (Sqlite3DB::m_listDbData.front()->GetFileNum() != files) {
                    fprintf(stderr, "sqlite3db-bench: the scan found %d files\n",
                            Sqlite3DB::m_listDbData.front()->GetFileNum());
                    exit(3);
                }
                Sqlite3DB::Destroy();
                lib.push_back(t * 1e6 / files);
            };
            auto runBase = [&] {
                auto t0 = Clock::now();
                std::vector<std::string> names;
                for (const auto& e : fs::directory_iterator(dir)) {
                    names.push_back(e.path().filename().string());
                }
                std::sort(names.begin(), names.end());
                long long sum = 0;
                for (const std::string& name : names) {
                    sqlite3* db = OpenRaw(dir + name, SQLITE_OPEN_READONLY);
                    sqlite3_stmt* st = nullptr;
                    sqlite3_prepare_v2(db, "SELECT * FROM 'DBInfo' WHERE version = 1", -1, &st,
                                       nullptr);
                    if (sqlite3_step(st) == SQLITE_ROW)
                        sum += sqlite3_column_int64(st, 1);
                    sqlite3_finalize(st);
                    sqlite3_close(db);
                }
                double t = Seconds(t0, Clock::now());
                base.push_back(t * 1e6 / files + (sum < 0));
            };
            if (rep % 2) {
                runBase();
                runLib();
            } else {
                runLib();
                runBase();
            }
        }
        std::string what = std::to_string(files) + " files, time per file";
        PrintPair(what.c_str(), "us", "library (Create)", lib, "raw: list, open, read DBInfo", base,
                  false);
        RemoveDir(dir);
    }
}

// --- (f), (g) Save() latency and memory at a panel's load -------------------------------

struct LoadFigure {
    std::vector<double> saveMs;  // one per timer call
    long long peakKiB = -1, startKiB = -1;
    int queries = 0;
    int records = 0;  // received, all stores
    long long wcharStart = -1, wcharEnd = -1;
    unsigned long long fileBytes = 0;  // at the end, all stores
};

const int kLoadStores = 3, kLoadRate = 50, kTimerMs = 100;

// Three stores fed 50 records/s each; the host's timer calls Save() every
// 100 ms; a second thread runs range queries over the newest records.
LoadFigure LoadLibrary(const Sizes& sz, int rep) {
    LoadFigure f;
    bool reset = ResetPeakMemory();
    f.startKiB = StatusKiB("VmRSS");
    std::vector<StoreConf> confs(kLoadStores);
    std::vector<Sqlite3DB> stores(kLoadStores);
    for (int i = 0; i < kLoadStores; ++i) {
        stores[i].Open(CreateStore(
            confs[i], "load" + std::to_string(rep) + "_" + std::to_string(i) + "/", sz.loadSaveMs));
    }
    std::atomic<bool> stop{false};
    std::atomic<unsigned long long> lastId{0};
    std::atomic<int> queries{0};
    f.wcharStart = ReadIo().wchar;
    std::thread reader([&] {
        std::string sql;
        for (int i = 0; !stop; ++i) {
            unsigned long long b = lastId, a = b > 200 ? b - 200 : 1;
            sql = "select * from alarm where id between " + std::to_string(a) + " and " +
                  std::to_string(b);
            _tagDBSqlSelectCmdInfo sel{&sql, 1, a, b, 0, 0, 0, 0};
            std::vector<CBBSQL::CppSQLite3Table> tables;
            stores[i % kLoadStores].SqlSelect(sel, tables);
            ++queries;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
    });
    const int steps = sz.loadSeconds * kLoadRate;
    auto start = Clock::now();
    std::string sql;
    for (int step = 1; step <= steps; ++step) {
        std::this_thread::sleep_until(start + std::chrono::milliseconds(step * 1000 / kLoadRate));
        unsigned long long id = static_cast<unsigned long long>(step);
        sql = RecordSql(id);
        for (int i = 0; i < kLoadStores; ++i) {
            _tagDBSqlCmdInfo cmd{&sql, 1, id, kTime0 + id * kTimeStep};
            stores[i].SqlAddNode(cmd);
        }
        lastId = id;
        if (step % (kLoadRate * kTimerMs / 1000) == 0) {
            auto t0 = Clock::now();
            Sqlite3DB::Save();
            f.saveMs.push_back(Seconds(t0, Clock::now()) * 1000);
        }
    }
    stop = true;
    reader.join();
    f.queries = queries;
    f.peakKiB = reset ? StatusKiB("VmHWM") : -1;
    f.wcharEnd = ReadIo().wchar;
    f.records = steps * kLoadStores;
    Sqlite3DB::Destroy();
    for (int i = 0; i < kLoadStores; ++i) {
        std::string dir = StoreDir("load" + std::to_string(rep) + "_" + std::to_string(i) + "/");
        f.fileBytes += DirBytes(dir);
        RemoveDir(dir);
    }
    return f;
}

// The same load written by a host itself: each store's records kept in a
// vector and written into its file in one transaction every nSaveTime ms;
// the reader thread queries the files with sqlite3_get_table.
LoadFigure LoadBaseline(const Sizes& sz, const Durability& d, int rep) {
    LoadFigure f;
    bool reset = ResetPeakMemory();
    f.startKiB = StatusKiB("VmRSS");
    std::vector<std::string> paths;
    std::vector<sqlite3*> dbs;
    for (int i = 0; i < kLoadStores; ++i) {
        paths.push_back(g_root + "load-raw" + std::to_string(rep) + "_" + std::to_string(i) +
                        ".db");
        dbs.push_back(OpenRaw(paths.back()));
        ApplyDurability(dbs.back(), d);
        Exec(dbs.back(), kCreateSql);
    }
    std::atomic<bool> stop{false};
    std::atomic<unsigned long long> lastId{0};
    std::atomic<int> queries{0};
    f.wcharStart = ReadIo().wchar;
    std::thread reader([&] {
        std::vector<sqlite3*> rdbs;
        for (const std::string& p : paths)
            rdbs.push_back(OpenRaw(p, SQLITE_OPEN_READONLY));
        for (int i = 0; !stop; ++i) {
            unsigned long long b = lastId, a = b > 200 ? b - 200 : 1;
            std::string sql = "select * from alarm where id between " + std::to_string(a) +
                              " and " + std::to_string(b);
            GetTableRows(rdbs[i % kLoadStores], sql.c_str());
            ++queries;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        for (sqlite3* db : rdbs)
            sqlite3_close(db);
    });
    std::vector<std::vector<std::string>> pending(kLoadStores);
    const int steps = sz.loadSeconds * kLoadRate;
    auto start = Clock::now();
    auto lastWrite = start;
    for (int step = 1; step <= steps; ++step) {
        std::this_thread::sleep_until(start + std::chrono::milliseconds(step * 1000 / kLoadRate));
        unsigned long long id = static_cast<unsigned long long>(step);
        for (int i = 0; i < kLoadStores; ++i)
            pending[i].push_back(RecordSql(id));
        lastId = id;
        if (step % (kLoadRate * kTimerMs / 1000) == 0) {
            auto t0 = Clock::now();
            if (Seconds(lastWrite, t0) * 1000 > sz.loadSaveMs) {
                lastWrite = t0;
                for (int i = 0; i < kLoadStores; ++i) {
                    Exec(dbs[i], "begin");
                    for (const std::string& s : pending[i])
                        Exec(dbs[i], s.c_str());
                    Exec(dbs[i], "commit");
                    pending[i].clear();
                }
            }
            f.saveMs.push_back(Seconds(t0, Clock::now()) * 1000);
        }
    }
    stop = true;
    reader.join();
    f.queries = queries;
    f.peakKiB = reset ? StatusKiB("VmHWM") : -1;
    f.wcharEnd = ReadIo().wchar;
    f.records = steps * kLoadStores;
    for (size_t i = 0; i < dbs.size(); ++i) {
        sqlite3_close(dbs[i]);
        f.fileBytes += fs::file_size(paths[i]);
        fs::remove(paths[i]);
    }
    return f;
}

void WorkloadLoad(const Options& opt, const Sizes& sz, const Durability& d) {
    printf(
        "\n(f) Save() latency: %d stores at %d records/s each, timer every %d ms, flush every "
        "%d ms,\n    range queries on another thread, real syncs; %d s per run\n",
        kLoadStores, kLoadRate, kTimerMs, sz.loadSaveMs, sz.loadSeconds);
    int reps = opt.quick ? 1 : sz.loadReps;
    std::vector<LoadFigure> lib, base;
    for (int rep = 0; rep < reps; ++rep) {
        if (rep % 2) {
            base.push_back(LoadBaseline(sz, d, rep));
            lib.push_back(LoadLibrary(sz, rep));
        } else {
            lib.push_back(LoadLibrary(sz, rep));
            base.push_back(LoadBaseline(sz, d, rep));
        }
    }
    auto pooled = [](const std::vector<LoadFigure>& v) {
        std::vector<double> all;
        for (const LoadFigure& f : v)
            all.insert(all.end(), f.saveMs.begin(), f.saveMs.end());
        return all;
    };
    std::vector<double> l = pooled(lib), b = pooled(base);
    double lm = Percentile(l, 0.5), l99 = Percentile(l, 0.99), lx = Percentile(l, 1.0);
    double bm = Percentile(b, 0.5), b99 = Percentile(b, 0.99), bx = Percentile(b, 1.0);
    int lq = 0, bq = 0;
    for (auto& f : lib)
        lq += f.queries;
    for (auto& f : base)
        bq += f.queries;
    printf("  time of one timer call, ms (%zu calls; %d queries ran beside them)\n", l.size(), lq);
    printf("    %-34s median %8.3f  p99 %8.3f  max %8.3f\n", "library (Sqlite3DB::Save)", lm, l99,
           lx);
    printf("    %-34s median %8.3f  p99 %8.3f  max %8.3f  (%d queries)\n",
           "raw host, 1 txn per store per flush", bm, b99, bx, bq);
    printf("    %-34s median %8.3f  p99 %8.3f  max %8.3f\n", "ratio (baseline / library)",
           lm > 0 ? bm / lm : 0, l99 > 0 ? b99 / l99 : 0, lx > 0 ? bx / lx : 0);

    auto bytes = [](const LoadFigure& f) {
        std::string written = Bytes(f.wcharStart, f.wcharEnd, f.records);
        double file = static_cast<double>(f.fileBytes) / f.records;
        printf("%8s / %8.1f   written/file %s\n", written.c_str(), file,
               written == "n/a" ? "n/a" : Fmt("%.1f x", atof(written.c_str()) / file).c_str());
    };
    printf(
        "  bytes per record received at this load (last run): written (wchar) / files at "
        "the end\n");
    printf("    %-34s ", "library");
    bytes(lib.back());
    printf("    %-34s ", "raw host");
    bytes(base.back());

    printf("\n(g) Peak resident memory of the run in (f)\n");
    auto mem = [](const LoadFigure& f) {
        return f.peakKiB < 0 ? std::string("n/a")
                             : Fmt("%.0f KiB", static_cast<double>(f.peakKiB)) +
                                   Fmt(" (%.0f KiB at its start)", static_cast<double>(f.startKiB));
    };
    printf("    %-34s %s\n", "library", mem(lib.back()).c_str());
    printf("    %-34s %s\n", "raw host", mem(base.back()).c_str());
    if (lib.back().peakKiB > 0 && base.back().peakKiB > 0) {
        printf("    %-34s %.3f x\n", "ratio (raw host / library)",
               static_cast<double>(base.back().peakKiB) / lib.back().peakKiB);
    }
    if (lib.back().peakKiB < 0) {
        long long hwm = StatusKiB("VmHWM");
        printf("    (no peak reset here; process peak so far: %s)\n",
               hwm < 0 ? "n/a" : Fmt("%.0f KiB", static_cast<double>(hwm)).c_str());
    }
}

int Usage(const char* argv0) {
    fprintf(stderr,
            "usage: %s [--quick] [--reps N] [--only LETTERS] [--dir DIR]\n"
            "  --quick       small sizes, one repetition (seconds; what the test suite runs)\n"
            "  --reps N      interleaved repetitions of each workload (default 5)\n"
            "  --only abc..  run only these workloads: a ingest, b durable, c flush,\n"
            "                d queries, e start-up scan, f Save() latency and g memory\n"
            "  --dir DIR     directory for the files (default: a new one under /tmp);\n"
            "                on a panel, e.g. a directory under /mnt/data or the SD card\n",
            argv0);
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    bool repsGiven = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (a == "--quick") {
            opt.quick = true;
        } else if (a == "--reps" && i + 1 < argc) {
            opt.reps = atoi(argv[++i]);
            repsGiven = true;
        } else if (a == "--only" && i + 1 < argc) {
            opt.only = argv[++i];
        } else if (a == "--dir" && i + 1 < argc) {
            opt.dir = argv[++i];
        } else {
            return Usage(argv[0]);
        }
    }
    if (opt.reps < 1) {
        return Usage(argv[0]);
    }
    if (opt.quick && !repsGiven) {
        opt.reps = 1;
    }
    Sizes sz = opt.quick ? QuickSizes() : FullSizes();

    std::string base = opt.dir.empty() ? "/tmp" : opt.dir;
    fs::create_directories(base);
    std::string root = base + "/sqlite3db-bench-XXXXXX";
    std::vector<char> tmpl(root.begin(), root.end());
    tmpl.push_back('\0');
    if (!mkdtemp(tmpl.data())) {
        fprintf(stderr, "sqlite3db-bench: cannot create a directory under %s\n", base.c_str());
        return 2;
    }
    g_root = std::string(tmpl.data()) + "/";
    std::atexit([] { RemoveDir(g_root); });  // also when a workload fails

    Sqlite3DB::Sqlit3DBEnable(argv[0]);
    CHmiMedia::SetSDPath(g_root);  // every store of the run lives under g_root
    Durability d = LibraryDurability(g_root);

    printf("sqlite3db-bench %s: SQLite %s, %d interleaved repetition(s), files in %s\n",
           opt.quick ? "--quick" : "(full)", sqlite3_libversion(), opt.reps, g_root.c_str());
    printf(
        "journal_mode=%s synchronous=%s on the library's file connections (baselines "
        "use the same)\n",
        d.journalMode.c_str(), d.synchronous.c_str());
    printf(
        "Figures: median [min .. max] over the repetitions. A ratio above 1 means the "
        "library is faster.\n");
    fflush(stdout);

    // (f) first: its peak memory is then the run's, not an earlier workload's.
    const struct {
        const char* letters;
        std::function<void()> run;
    } workloads[] = {
        {"fg", [&] { WorkloadLoad(opt, sz, d); }},   {"a", [&] { WorkloadIngest(opt, sz); }},
        {"b", [&] { WorkloadDurable(opt, sz, d); }}, {"c", [&] { WorkloadFlush(opt, sz, d); }},
        {"d", [&] { WorkloadQuery(opt, sz); }},      {"e", [&] { WorkloadScan(opt, sz); }},
    };
    for (const auto& w : workloads) {
        if (opt.only.empty() || opt.only.find_first_of(w.letters) != std::string::npos) {
            w.run();
            fflush(stdout);
        }
    }

    Sqlite3DB::Destroy();
    printf("\ndone\n");
    return 0;
}
