// A host program built against the installed Sqlite3DB package: it switches
// the library on, creates a store on the data partition (directory given as
// the argument, under /mnt/data/), checks that the store's first DB file
// exists, and takes that file's name apart with the path helpers and
// DbFileInfo. Prints OK when all of it worked.
#include <cstdio>
#include <string>

#include "PlatformSim.h"
#include "Sqlite3DB/ComFun.h"
#include "Sqlite3DB/DbFileInfo/DbFileInfo.h"
#include "Sqlite3DB/Sqlite3DB.h"

namespace {

int Fail(const char* what) {
    std::printf("FAILED: %s\n", what);
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        return Fail("usage: consumer STORE_DIR_NAME");
    }
    std::string dirName = argv[1], fileName = "rec.db", table = "rec", del;
    std::string create = "CREATE TABLE rec (id INTEGER PRIMARY KEY, t INTEGER, v TEXT)";
    _tagDBConf conf{};
    conf.pDirName = &dirName;
    conf.pFileName = &fileName;
    conf.pTableName = &table;
    conf.pCreateTableSql = &create;
    conf.pDelRecordSql = &del;
    conf.nStorePattern = 0;
    conf.bSplitFile = 1;
    conf.nSaveTime = 1000;
    conf.bUseMemDB = 1;
    conf.bSaveFile = 1;

    PlatformSim::SetTimeStamp(1700000000000ULL);
    if (Sqlite3DB::Sqlit3DBEnable(argv[0]) != 1) {
        return Fail("Sqlit3DBEnable");
    }
    const long long id = Sqlite3DB::Create(conf, 0);
    Sqlite3DB handle;
    if (id <= 0 || handle.Open(id) != 1) {
        return Fail("Create");
    }

    std::string path;
    ComFun_GetFileFullPath("/mnt/data/" + dirName, "rec_0.db", path);
    if (COS::CosFile::ExistFile(path) != 1) {
        return Fail("the store's first DB file");
    }
    DbFileInfo info;
    info.SetFullNameAndInfo(path);
    if (info.GetFileID() != 0 || info.GetFileName() != "rec" || info.GetFullName() != "rec_0.db") {
        return Fail("DbFileInfo");
    }
    Sqlite3DB::Destroy();
    PlatformSim::Reset();
    std::printf("OK\n");
    return 0;
}
