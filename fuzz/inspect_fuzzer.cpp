// Fuzz target: sqlite3db-inspect's reading of one file whose bytes are the
// input, through the inspector's own functions: the listing and lstat of the
// directory, the inference of the data table, the file check against the
// configured table, and a query on the file when it is accepted.
//
// Besides crashes, hangs and sanitizer reports, a finding is any change the
// inspector makes: the file's bytes must stay as written and no other entry
// (-journal, -wal, -shm) may appear in the directory.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "FuzzFile.h"
#include "tools/inspect/Inspect.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fuzzfile::Setup();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string& dir = fuzzfile::Dir();
    const std::string path = dir + "rec_1.db";
    fuzzfile::Write(path, data, size);

    std::vector<std::string> names;
    if (!inspect::ListDbFiles(dir, names)) {
        std::abort();
    }
    inspect::Store inferred;
    inferred.dir = dir;
    inferred.stem = inspect::InferStem(names);
    inspect::CollectFiles(inferred, names);
    inspect::InferTable(inferred);

    inspect::Store store;
    store.dir = dir;
    store.stem = "rec";
    store.table = "rec";
    store.createSql = "CREATE TABLE rec (id INTEGER PRIMARY KEY, t INTEGER, v TEXT)";
    inspect::CollectFiles(store, names);
    for (inspect::FileReport& file : store.files) {
        inspect::CheckFile(store, file);
    }
    if (store.files.size() == 1 && store.files[0].accepted) {
        // A small step bound: enough for the few rows a fuzz input holds.
        inspect::RunQuery(store, "select * from rec", inspect::RangeKind::kAll, 0, 0, false,
                          1000000);
    }

    std::string after;
    if (!fuzzfile::Read(path, after) || after.size() != size ||
        (size != 0 && after.compare(0, size, reinterpret_cast<const char*>(data), size) != 0)) {
        std::abort();  // the inspector changed the file
    }
    if (fuzzfile::Names() != std::vector<std::string>{"rec_1.db"}) {
        std::abort();  // the inspector made a side file
    }
    fuzzfile::Clear();
    return 0;
}
