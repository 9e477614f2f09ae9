// A one-file host program compiled with nothing but the flags of
// `pkg-config --cflags --libs sqlite3db`: it parses a DB file name with
// DbFileInfo, joins a path with a ComFun helper and reads the platform's
// time stamp through PlatformSim. Prints OK when all of it worked.
#include <cstdio>
#include <string>

#include "COS.h"
#include "PlatformSim.h"
#include "Sqlite3DB/ComFun.h"
#include "Sqlite3DB/DbFileInfo/DbFileInfo.h"

int main() {
    std::string path;
    ComFun_GetFileFullPath("/mnt/data/store", "rec_12.db", path);
    DbFileInfo info;
    info.SetFullNameAndInfo(path);
    PlatformSim::SetTimeStamp(42);
    const bool ok = path == "/mnt/data/store/rec_12.db" && info.GetFileID() == 12 &&
                    info.GetFileName() == "rec" && COS::CosTime::GetTimeStamp() == 42;
    PlatformSim::Reset();
    std::printf(ok ? "OK\n" : "FAILED\n");
    return ok ? 0 : 1;
}
