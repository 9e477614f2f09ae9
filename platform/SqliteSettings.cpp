// SqliteSettings: the set-up of every connection the library opens.
#include "SqliteSettings.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "PlatformSim.h"
#include "PlatformSimInternal.h"

namespace {

// Bounds of one step of one statement (see docs/DESIGN.md, "Hostile media").
const unsigned int kStatementTimeLimitMs = 30000;        // wall time of one step
const sqlite3_int64 kStatementMemoryLimit = 64LL << 20;  // SQLite heap growth in one step
const int kValueLengthLimit = 16 << 20;                  // one string, blob or row
const int kSqlLengthLimit = 1 << 20;                     // one statement's text
const int kProgressInterval = 1000;                      // VM steps between checks

std::atomic<unsigned int> s_timeLimitMs{kStatementTimeLimitMs};

// What the step running on this thread started with; 0 ms: no step is timed.
struct StepStart {
    unsigned long long ms = 0;
    sqlite3_int64 memory = 0;
};
thread_local StepStart t_step;

unsigned long long NowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<unsigned long long>(ts.tv_sec) * 1000ULL +
           static_cast<unsigned long long>(ts.tv_nsec) / 1000000ULL;
}

// Non-zero interrupts the statement (SQLITE_INTERRUPT). Work that did not
// come through a StepGuard (a prepare outside CBBSQL's helpers) is timed from
// the first check that sees it until the next guarded step.
int Progress(void* /*unused*/) {
    if (t_step.ms == 0) {
        t_step.ms = NowMs();
        t_step.memory = sqlite3_memory_used();
        return 0;
    }
    if (NowMs() - t_step.ms > s_timeLimitMs.load(std::memory_order_relaxed)) {
        return 1;
    }
    return sqlite3_memory_used() - t_step.memory > kStatementMemoryLimit ? 1 : 0;
}

// --- A file system shim under every connection ---------------------------
// The engine follows links when it opens a journal, and a FIFO named like a DB
// file blocks its reads. The shim opens only regular files: a main file that is
// anything else is refused, and a side file (-journal, -wal, -shm) that is a
// link or a special file is removed (the entry, never its target) so that the
// engine makes a plain one in its place.
const char kVfsName[] = "sqlite3db-plain-files";

// One shim per default file system seen at an open (a host's or a test's own
// default stays underneath), kept for the life of the process.
struct Shim {
    sqlite3_vfs vfs;
    std::string name;
};
std::mutex s_shimMutex;
std::map<sqlite3_vfs*, std::unique_ptr<Shim>> s_shims;  // guarded by s_shimMutex

sqlite3_vfs* Base(sqlite3_vfs* vfs) {
    return static_cast<sqlite3_vfs*>(vfs->pAppData);
}

// 1: a regular file; 0: nothing there; -1: a link, directory or special file.
int EntryKind(const std::string& path) {
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) {
        return 0;
    }
    return S_ISREG(st.st_mode) ? 1 : -1;
}

bool EndsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

// Only side files are ever removed here.
void RemoveIfNotPlain(const std::string& path) {
    if ((EndsWith(path, "-journal") || EndsWith(path, "-wal") || EndsWith(path, "-shm")) &&
        EntryKind(path) < 0) {
        unlink(path.c_str());  // a directory stays and makes the open fail
    }
}

int PlainOpen(sqlite3_vfs* vfs, const char* name, sqlite3_file* file, int flags, int* out) {
    if (name) {
        const std::string path = name;
        if (flags & SQLITE_OPEN_MAIN_DB) {
            if (EntryKind(path) < 0) {
                file->pMethods = nullptr;
                return SQLITE_CANTOPEN;
            }
            for (const char* side : {"-journal", "-wal", "-shm"}) {
                RemoveIfNotPlain(path + side);
            }
        } else {
            RemoveIfNotPlain(path);
        }
    }
    return Base(vfs)->xOpen(Base(vfs), name, file, flags, out);
}

int PlainAccess(sqlite3_vfs* vfs, const char* name, int flags, int* out) {
    if (name) {
        RemoveIfNotPlain(name);
    }
    return Base(vfs)->xAccess(Base(vfs), name, flags, out);
}

// The other calls go to the file system underneath, as itself.
int PlainDelete(sqlite3_vfs* vfs, const char* name, int dirSync) {
    return Base(vfs)->xDelete(Base(vfs), name, dirSync);
}
int PlainFullPathname(sqlite3_vfs* vfs, const char* name, int size, char* out) {
    return Base(vfs)->xFullPathname(Base(vfs), name, size, out);
}
void* PlainDlOpen(sqlite3_vfs* vfs, const char* name) {
    return Base(vfs)->xDlOpen(Base(vfs), name);
}
void PlainDlError(sqlite3_vfs* vfs, int size, char* out) {
    Base(vfs)->xDlError(Base(vfs), size, out);
}
void (*PlainDlSym(sqlite3_vfs* vfs, void* handle, const char* symbol))(void) {
    return Base(vfs)->xDlSym(Base(vfs), handle, symbol);
}
void PlainDlClose(sqlite3_vfs* vfs, void* handle) {
    Base(vfs)->xDlClose(Base(vfs), handle);
}
int PlainRandomness(sqlite3_vfs* vfs, int size, char* out) {
    return Base(vfs)->xRandomness(Base(vfs), size, out);
}
int PlainSleep(sqlite3_vfs* vfs, int micros) {
    return Base(vfs)->xSleep(Base(vfs), micros);
}
int PlainCurrentTime(sqlite3_vfs* vfs, double* out) {
    return Base(vfs)->xCurrentTime(Base(vfs), out);
}
int PlainGetLastError(sqlite3_vfs* vfs, int size, char* out) {
    return Base(vfs)->xGetLastError ? Base(vfs)->xGetLastError(Base(vfs), size, out) : 0;
}
int PlainCurrentTimeInt64(sqlite3_vfs* vfs, sqlite3_int64* out) {
    return Base(vfs)->xCurrentTimeInt64(Base(vfs), out);
}

// Version 2 at most: the system-call overrides of version 3 stay the base's.
std::unique_ptr<Shim> MakeShim(sqlite3_vfs* base, size_t number) {
    std::unique_ptr<Shim> shim(new Shim);
    shim->name = std::string(kVfsName) + "-" + std::to_string(number);
    sqlite3_vfs& vfs = shim->vfs;
    vfs = sqlite3_vfs{};
    vfs.iVersion = base->iVersion >= 2 && base->xCurrentTimeInt64 ? 2 : 1;
    vfs.szOsFile = base->szOsFile;
    vfs.mxPathname = base->mxPathname;
    vfs.zName = shim->name.c_str();
    vfs.pAppData = base;
    vfs.xOpen = PlainOpen;
    vfs.xDelete = PlainDelete;
    vfs.xAccess = PlainAccess;
    vfs.xFullPathname = PlainFullPathname;
    vfs.xDlOpen = PlainDlOpen;
    vfs.xDlError = PlainDlError;
    vfs.xDlSym = PlainDlSym;
    vfs.xDlClose = PlainDlClose;
    vfs.xRandomness = PlainRandomness;
    vfs.xSleep = PlainSleep;
    vfs.xCurrentTime = PlainCurrentTime;
    vfs.xGetLastError = PlainGetLastError;
    vfs.xCurrentTimeInt64 = PlainCurrentTimeInt64;
    sqlite3_vfs_register(&vfs, 0);
    return shim;
}

// --- Directory syncs after a commit to an attached file -------------------

// Directories of attached files whose commit has deleted a journal that no
// directory sync has yet made permanent. A commit and the end of its step run
// on the same thread.
thread_local std::vector<std::string> t_dirsToSync;

int SyncDirectory(const std::string& dir) {
    if (PlatformSim::FileOpHook hook = PlatformSimInternal::DirSyncHook()) {
        return hook(dir);
    }
    const int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return 0;
    }
    const int ok = fsync(fd) == 0;
    close(fd);
    return ok;
}

std::string DirectoryOf(const char* path) {
    const std::string file(path);
    const std::string::size_type slash = file.rfind('/');
    return slash == std::string::npos ? "." : file.substr(0, slash + 1);
}

// Before a commit: note the directory of every attached file this transaction
// writes (schema 0 is main, which synchronous=EXTRA covers; 1 is temp).
int OnCommit(void* arg) {
    sqlite3* db = static_cast<sqlite3*>(arg);
    for (int i = 2;; ++i) {
        const char* schema = sqlite3_db_name(db, i);
        if (!schema) {
            break;
        }
        const char* file = sqlite3_db_filename(db, schema);
        if (file && *file && sqlite3_txn_state(db, schema) == SQLITE_TXN_WRITE) {
            t_dirsToSync.push_back(DirectoryOf(file));
        }
    }
    return 0;  // the commit goes ahead
}

// After the step that committed (its journal is deleted by then): sync the
// noted directories so that a power cut cannot bring the journal back.
void SyncCommittedDirectories() {
    std::vector<std::string> dirs;
    dirs.swap(t_dirsToSync);
    for (const std::string& dir : dirs) {
        SyncDirectory(dir);
    }
}

}  // namespace

namespace CBBSQL {

const char* ConnectionVfs() {
    sqlite3_vfs* base = sqlite3_vfs_find(nullptr);
    std::lock_guard<std::mutex> lock(s_shimMutex);
    std::unique_ptr<Shim>& shim = s_shims[base];
    if (!shim) {
        shim = MakeShim(base, s_shims.size());
    }
    return shim->name.c_str();
}
// Links are never followed: a store file that is a link is refused by the
// engine, and so is a file attached through a connection opened this way
// (ATTACH inherits the main connection's flags).
int ConnectionOpenFlags(bool create) {
    return SQLITE_OPEN_READWRITE | SQLITE_OPEN_NOFOLLOW | (create ? SQLITE_OPEN_CREATE : 0);
}

// A commit in the default DELETE journal mode ends by unlinking the journal;
// until the directory is synced a power cut can bring the journal back, and
// the next open rolls the committed transaction back. EXTRA syncs the
// directory after that unlink for the main file. An attached file (the flush)
// always starts at FULL whatever the connection's setting, so the platform
// syncs its directory itself after each step whose commit wrote it.
void ApplyDurability(sqlite3* db) {
    sqlite3_exec(db, "PRAGMA synchronous=EXTRA", nullptr, nullptr, nullptr);
    sqlite3_commit_hook(db, OnCommit, db);
}

// A file from a medium may carry schema code of its own: triggers, views,
// generated columns, unsafe functions. None of it runs here: triggers and views
// stored in a database are switched off (TEMP ones of the connection still
// work), untrusted schema may call no function with side effects, and the
// file's structure cannot be written around the engine.
void ApplyHardening(sqlite3* db) {
    sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_VIEW, 0, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0, nullptr);
    sqlite3_limit(db, SQLITE_LIMIT_LENGTH, kValueLengthLimit);
    sqlite3_limit(db, SQLITE_LIMIT_SQL_LENGTH, kSqlLengthLimit);
    sqlite3_progress_handler(db, kProgressInterval, Progress, nullptr);
}

// The bounds start at the first progress check of the step, so that the short
// statements of a batch of inserts never read the clock.
StepGuard::StepGuard() {
    t_step.ms = 0;
}

StepGuard::~StepGuard() {
    t_step.ms = 0;
    if (!t_dirsToSync.empty()) {
        SyncCommittedDirectories();
    }
}

}  // namespace CBBSQL

namespace PlatformSim {

void SetStatementTimeLimitMs(unsigned int ms) {
    s_timeLimitMs.store(ms == 0 ? kStatementTimeLimitMs : ms, std::memory_order_relaxed);
}

}  // namespace PlatformSim
