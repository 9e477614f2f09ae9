// SqliteSettings: the set-up of every connection the library opens.
#include "SqliteSettings.h"

#include <sqlite3.h>

namespace CBBSQL {

int ConnectionOpenFlags(bool create) {
    return SQLITE_OPEN_READWRITE | (create ? SQLITE_OPEN_CREATE : 0);
}

void ApplyDurability(sqlite3* /*db*/) {}

void ApplyHardening(sqlite3* /*db*/) {}

}  // namespace CBBSQL
