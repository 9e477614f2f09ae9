// Fuzz target: the store's scan of a directory holding one DB file whose
// bytes are the input: the directory listing, the stem test, the file check
// and DBInfo read (DbData::ReadDbInfo) and the catalog insert, all through
// the library's own DbData::UpdateFileList.
//
// Allowed outcomes: the file is catalogued, kept or deleted, or the scan
// throws std::out_of_range (a stored CREATE text without "(": deliberate,
// the host's Save() or Create() sees it). Anything else - another exception,
// a crash, a hang, a sanitizer report, a second catalog entry, a catalogued
// file that is gone, an entry left in the directory - is a finding.
#include <cstdint>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "FuzzFile.h"
#include "PlatformSim.h"
#include "Sqlite3DB/DbData/DbData.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzfile::Setup();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& dir = fuzzfile::Dir();
    const std::string path = dir + "rec_1.db";
    fuzzfile::Write(path, data, size);

    DbData store;
    store.m_strSavePath = dir;
    store.m_bSaveFile = 1;
    store.m_strFileName = "rec";
    store.m_strTableName = "rec";
    store.m_strCreateTableSql = "CREATE TABLE rec (id INTEGER PRIMARY KEY, t INTEGER, v TEXT)";
    try {
        store.UpdateFileList();
    } catch (const std::out_of_range&) {
        // The scan's specified exception.
    }
    if (store.GetFileNum() > 1) {
        std::abort();
    }
    if (store.GetFileNum() == 1) {
        std::string path0;
        if (store.GetDBFilePath(0, path0) != 1 || path0 != path) {
            std::abort();
        }
    }
    const std::vector<std::string> left = fuzzfile::Names();
    if (left.size() > 1 || (store.GetFileNum() == 1 && left.empty())) {
        std::abort();  // a side file left behind, or a catalogued file deleted
    }
    store.ClearFileList();
    fuzzfile::Clear();
    PlatformSim::TakeLogLines();  // the captured log would grow without bound
    return 0;
}
