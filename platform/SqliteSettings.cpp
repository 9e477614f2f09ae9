// SqliteSettings: the set-up of every connection the library opens.
#include "SqliteSettings.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "PlatformSimInternal.h"

namespace CBBSQL {

namespace {

// Directories of attached files whose commit has deleted a journal that no
// directory sync has yet made permanent. A commit and the end of its statement
// run on the same thread inside one sqlite3_step.
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

// After a statement ends, its commit (journal deleted) is complete: sync the
// noted directories so that a power cut cannot bring the journal back.
int OnStatementEnd(unsigned /*type*/, void* /*ctx*/, void* /*stmt*/, void* /*ns*/) {
    std::vector<std::string> dirs;
    dirs.swap(t_dirsToSync);
    for (const std::string& dir : dirs) {
        SyncDirectory(dir);
    }
    return 0;
}

}  // namespace

int ConnectionOpenFlags(bool create) {
    return SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0);
}

// A commit in the default DELETE journal mode ends by unlinking the journal;
// until the directory is synced a power cut can bring the journal back, and
// the next open rolls the committed transaction back. EXTRA syncs the
// directory after that unlink for the main file. An attached file (the flush)
// always starts at FULL whatever the connection's setting, so the platform
// syncs its directory itself after each commit that wrote it.
void ApplyDurability(sqlite3* db) {
    sqlite3_exec(db, "PRAGMA synchronous=EXTRA", nullptr, nullptr, nullptr);
    sqlite3_commit_hook(db, OnCommit, db);
    sqlite3_trace_v2(db, SQLITE_TRACE_PROFILE, OnStatementEnd, nullptr);
}

void ApplyHardening(sqlite3* /*db*/) {}

}  // namespace CBBSQL
