// A host program built against the library through add_subdirectory():
// includes every public header, switches the library on, and uses a path
// helper, a DB file record and the platform controls. Prints one line and
// returns 0 when everything answered as expected.
#include <cstdio>
#include <string>

#include "PlatformSim.h"
#include "Sqlite3DB/ComFun.h"
#include "Sqlite3DB/DbData/DbData.h"
#include "Sqlite3DB/DbFileInfo/DbFileInfo.h"
#include "Sqlite3DB/Sqlite3DB.h"

namespace {

int g_failures = 0;

void Check(bool ok, const char* what) {
    if (!ok) {
        std::fprintf(stderr, "consumer: %s failed\n", what);
        ++g_failures;
    }
}

}  // namespace

int main(int argc, char** argv) {
    PlatformSim::Reset();

    // The executable itself stands in for the host's project file.
    const std::string project = argc > 0 ? argv[0] : "";
    Check(Sqlite3DB::Sqlit3DBEnable(project) == 1, "Sqlit3DBEnable");
    Check(Sqlite3DB::m_bEnable == 1, "m_bEnable");
    Check(Sqlite3DB::m_strProjMD5.size() == 32, "project digest");

    std::string path;
    ComFun_GetFileFullPath("/mnt/data/store", "rec_7.db", path);
    Check(path == "/mnt/data/store/rec_7.db", "ComFun_GetFileFullPath");

    DbFileInfo rec;
    rec.SetFullNameAndInfo(path);
    Check(rec.GetFileID() == 7 && rec.GetFileName() == "rec", "DbFileInfo naming");
    PlatformSim::SetTimeStamp(1234);
    rec.UpdateEndTime();
    Check(rec.GetEndTime() == 1234, "PlatformSim::SetTimeStamp");

    Sqlite3DB handle;
    Check(handle.GetDbDataID() == 0 && handle.LoadDbSuccess() == 0, "unbound handle");

    DbData store;
    Check(store.GetID() == 0 && store.m_pMemDB == nullptr, "new DbData");

    Sqlite3DB::Destroy();
    PlatformSim::Reset();

    std::printf("consumer: Sqlite3DB %s, digest %s, file %s number %u\n",
                g_failures == 0 ? "ok" : "FAILED", Sqlite3DB::m_strProjMD5.c_str(),
                rec.GetFullName().c_str(), rec.GetFileID());
    return g_failures == 0 ? 0 : 1;
}
