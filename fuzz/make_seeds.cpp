// sqlite3db_fuzz_seeds OUT_DIR: writes the fuzz targets' seed files.
//   OUT_DIR/store/      files of a store written by the library itself: full
//                       files, the current file just created, split files
//   OUT_DIR/crafted/    small files (512-byte pages) of the shapes a hostile
//                       medium brings: the data table as a view, a virtual
//                       table or WITHOUT ROWID, DBInfo as a view, with a
//                       generated column, several rows, huge and negative
//                       values, a trigger, WAL mode, a missing table
//   OUT_DIR/endless/    schema code that never ends if it is run (a DBInfo
//                       view with an endless recursive query): for targets
//                       whose connections refuse to run a file's views
// The library's store is written under the internal-flash root, in a
// directory of its own that is removed afterwards.
#include <sqlite3.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <string>

#include "PlatformSim.h"
#include "Sqlite3DB/Sqlite3DB.h"

namespace fs = std::filesystem;

namespace {

const char kCreate[] = "CREATE TABLE rec (id INTEGER PRIMARY KEY, t INTEGER, v TEXT)";
const char kDBInfoCreate[] =
    "CREATE TABLE 'DBInfo' (version INTEGER PRIMARY KEY AUTOINCREMENT,MaxID INTEGER ,MinID "
    "INTEGER ,StartTime INTEGER ,EndTime INTEGER,Value0 INTEGER,Value1 INTEGER,Value2 "
    "INTEGER,Value3 INTEGER,Value4 INTEGER)";
const char kInfoRow[] = "INSERT INTO DBInfo VALUES(1,3,1,1700000001000,1700000003000,0,0,0,0,0);";
const char kRows[] =
    "INSERT INTO rec VALUES(1,1700000001000,'v1');INSERT INTO rec VALUES(2,1700000002000,NULL);"
    "INSERT INTO rec VALUES(3,1700000003000,'a,b');";

bool Exec(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    bool ok = sqlite3_open(path.c_str(), &db) == SQLITE_OK;
    char* error = nullptr;
    ok = ok && sqlite3_exec(db, ("PRAGMA page_size=512;" + sql).c_str(), nullptr, nullptr,
                            &error) == SQLITE_OK;
    if (!ok) {
        std::fprintf(stderr, "%s: %s\n", path.c_str(), error ? error : sqlite3_errmsg(db));
    }
    sqlite3_free(error);
    sqlite3_close(db);
    return ok;
}

bool WriteStore(const std::string& out) {
    char pattern[] = "/mnt/data/sqlite3db_seedsXXXXXX";
    if (mkdtemp(pattern) == nullptr) {
        std::perror("/mnt/data/");
        return false;
    }
    const std::string root = pattern;
    std::string dirName = root.substr(std::string("/mnt/data/").size()) + "/s";
    std::string fileName = "rec.db", table = "rec", create = kCreate, del;
    _tagDBConf conf{};
    conf.pDirName = &dirName;
    conf.pFileName = &fileName;
    conf.nMaxRecordNum = 4;
    conf.bSplitFile = 1;
    conf.nSaveTime = 1000;
    conf.bUseMemDB = 1;
    conf.bSaveFile = 1;
    conf.pTableName = &table;
    conf.pCreateTableSql = &create;
    conf.pDelRecordSql = &del;
    conf.bClearOnReload = 1;

    Sqlite3DB::Sqlit3DBEnable("/nonexistent");
    PlatformSim::SetTimeStamp(1700000000000ULL);
    PlatformSim::SetTickCount(100000);
    const long long id = Sqlite3DB::Create(conf, 0);
    Sqlite3DB handle;
    bool ok = id > 0 && handle.Open(id) == 1;
    unsigned long long n = 1;
    for (int batch = 0; ok && batch < 3; ++batch) {
        for (int i = 0; i < 4; ++i, ++n) {
            std::string sql = "insert into rec values(" + std::to_string(n) + "," +
                              std::to_string(1700000000000ULL + n * 1000) + ",'v" +
                              std::to_string(n) + "')";
            _tagDBSqlCmdInfo cmd{&sql, 1, n, 1700000000000ULL + n * 1000};
            ok = handle.SqlAddNode(cmd) == 1;
        }
        PlatformSim::SetTimeStamp(1700000000000ULL + n * 1000);
        Sqlite3DB::Save();
        PlatformSim::AdvanceTickCount(2000);
        Sqlite3DB::Save();
    }
    Sqlite3DB::Destroy();
    PlatformSim::TakeLogLines();
    int copied = 0;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(root + "/s", ec)) {
        const std::string copy = out + "store_" + entry.path().filename().string();
        fs::copy_file(entry.path(), copy, fs::copy_options::overwrite_existing, ec);
        // The same tables and rows in 512-byte pages: a smaller input is
        // cheaper to mutate and to run.
        copied += !ec && Exec(copy, "VACUUM;") ? 1 : 0;
    }
    fs::remove_all(root, ec);
    return ok && copied >= 3;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: sqlite3db_fuzz_seeds OUT_DIR\n");
        return 1;
    }
    const std::string out = std::string(argv[1]) + "/";
    for (const char* sub : {"store", "crafted", "endless"}) {
        fs::create_directories(out + sub);
    }
    bool ok = WriteStore(out + "store/");

    const std::string base = std::string(kCreate) + ";" + kDBInfoCreate + ";";
    const std::map<std::string, std::string> crafted = {
        {"valid", base + kRows + kInfoRow},
        {"new_file",
         base + "INSERT INTO DBInfo VALUES(1,0,0,1700000000000,1700000000000,0,0,0,0,0);"},
        {"no_data_table", std::string(kDBInfoCreate) + ";" + kInfoRow},
        {"other_layout", "CREATE TABLE rec (id INTEGER PRIMARY KEY, t INTEGER, v TEXT, w);" +
                             std::string(kDBInfoCreate) + ";" + kInfoRow},
        {"create_without_paren",
         "CREATE VIRTUAL TABLE rec USING fts4;" + std::string(kDBInfoCreate) + ";" + kInfoRow},
        {"data_table_view",
         "CREATE VIEW rec AS SELECT 1 AS id;" + std::string(kDBInfoCreate) + ";" + kInfoRow},
        {"without_rowid",
         std::string(kCreate) + " WITHOUT ROWID;" + kDBInfoCreate + ";" + kRows + kInfoRow},
        {"dbinfo_view",
         std::string(kCreate) + ";CREATE VIEW DBInfo AS SELECT 1 AS version, 3, 1, 10, 20;"},
        {"dbinfo_generated",
         std::string(kCreate) +
             ";CREATE TABLE DBInfo (version INTEGER PRIMARY KEY, MaxID, MinID, StartTime, "
             "EndTime AS (length(hex(zeroblob(1000)))));INSERT INTO DBInfo (version, MaxID, "
             "MinID, StartTime) VALUES (1, 3, 1, 10);"},
        {"dbinfo_many_rows", base + kInfoRow +
                                 "INSERT INTO DBInfo VALUES(2,9,8,7,6,0,0,0,0,0);"
                                 "INSERT INTO DBInfo VALUES(3,-1,-2,-3,-4,0,0,0,0,0);"},
        {"dbinfo_extremes",
         base + "INSERT INTO DBInfo VALUES(1,9223372036854775807,-9223372036854775808,"
                "-1,1e300,'x',x'00',NULL,0,0);"},
        {"dbinfo_version2_only", base + "INSERT INTO DBInfo VALUES(2,3,1,0,0,0,0,0,0,0);"},
        {"trigger", base + kRows + kInfoRow +
                        "CREATE TABLE log (x);CREATE TRIGGER t AFTER UPDATE ON rec BEGIN "
                        "INSERT INTO log VALUES (new.id); END;"},
        {"wal_mode", base + kRows + kInfoRow + "PRAGMA journal_mode=WAL;"},
        {"text", ""},
    };
    for (const auto& file : crafted) {
        const std::string path = out + "crafted/" + file.first + ".db";
        if (file.first == "text") {
            std::FILE* f = std::fopen(path.c_str(), "w");
            ok = f != nullptr && std::fputs("this is not a database\n", f) >= 0 && ok;
            if (f != nullptr) {
                std::fclose(f);
            }
            continue;
        }
        ok = Exec(path, file.second) && ok;
    }
    ok = Exec(out + "endless/dbinfo_endless_view.db",
              std::string(kCreate) +
                  ";CREATE VIEW DBInfo AS WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL "
                  "SELECT x + 1 FROM c) SELECT x, x, x, x, x FROM c WHERE x < 0;") &&
         ok;
    return ok ? 0 : 1;
}
