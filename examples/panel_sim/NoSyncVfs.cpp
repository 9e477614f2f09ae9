// NoSyncVfs: a VFS that is the default one except that a file's xSync does
// nothing. Files are opened by the default VFS itself; their method table is
// swapped for a copy whose xSync is a no-op.
#include "NoSyncVfs.h"

#include <sqlite3.h>

#include <map>
#include <memory>
#include <mutex>

namespace panelsim {

namespace {

sqlite3_vfs* g_base = nullptr;
sqlite3_vfs g_vfs;
std::mutex g_mutex;
// One patched copy per method table of the default VFS (it has very few).
std::map<const sqlite3_io_methods*, std::unique_ptr<sqlite3_io_methods>> g_tables;

int NoSync(sqlite3_file*, int) {
    return SQLITE_OK;
}

const sqlite3_io_methods* Patched(const sqlite3_io_methods* methods) {
    std::lock_guard<std::mutex> lock(g_mutex);
    std::unique_ptr<sqlite3_io_methods>& copy = g_tables[methods];
    if (!copy) {
        copy = std::make_unique<sqlite3_io_methods>(*methods);
        copy->xSync = NoSync;
    }
    return copy.get();
}

int Open(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* outFlags) {
    const int rc = g_base->xOpen(g_base, name, file, flags, outFlags);
    if (rc == SQLITE_OK && file->pMethods != nullptr) {
        file->pMethods = Patched(file->pMethods);
    }
    return rc;
}

}  // namespace

bool InstallNoSyncVfs() {
    if (sqlite3_initialize() != SQLITE_OK) {
        return false;
    }
    g_base = sqlite3_vfs_find(nullptr);
    if (g_base == nullptr) {
        return false;
    }
    g_vfs = *g_base;
    g_vfs.zName = "panel-sim-nosync";
    g_vfs.pNext = nullptr;
    g_vfs.xOpen = Open;
    return sqlite3_vfs_register(&g_vfs, 1) == SQLITE_OK;
}

}  // namespace panelsim
