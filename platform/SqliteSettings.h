// SqliteSettings: how every connection of the library is set up when it
// opens: the open flags, the journal and sync settings that make a committed
// flush survive a power cut, and the limits and defences that keep a file the
// library did not write from running its own code or growing without bound.
// Private to the platform layer; CBBSQL applies them in one place.
#ifndef PLATFORM_SQLITESETTINGS_H_
#define PLATFORM_SQLITESETTINGS_H_

struct sqlite3;

namespace CBBSQL {

// Flags for sqlite3_open_v2 (create: the file may be created).
int ConnectionOpenFlags(bool create);
// The file system every connection opens through (for sqlite3_open_v2): it
// opens regular files only and never a link (see SqliteSettings.cpp).
const char* ConnectionVfs();
// Journal and sync settings of a connection that may write DB files.
void ApplyDurability(sqlite3* db);
// Limits and defences of a connection that may read a file from a medium.
void ApplyHardening(sqlite3* db);

// Marks one sqlite3_step (or prepare) on this thread: the time and memory
// bounds of ApplyHardening count from its first progress check, and a commit
// of an attached file has its directory synced when the step ends.
class StepGuard {
public:
    StepGuard();
    ~StepGuard();
    StepGuard(const StepGuard&) = delete;
    StepGuard& operator=(const StepGuard&) = delete;
};

}  // namespace CBBSQL

#endif  // PLATFORM_SQLITESETTINGS_H_
