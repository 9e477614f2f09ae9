// Compiles "Sqlite3DB/DbData/DbData.h" on its own: the header includes what it uses.
#include "Sqlite3DB/DbData/DbData.h"
#include "Sqlite3DB/DbData/DbData.h"  // and its include guard holds

// The SQLite access classes the interface names are complete types here.
static_assert(sizeof(CBBSQL::CppSQLite3DB) > 0, "CppSQLite3DB is complete");
static_assert(sizeof(CBBSQL::CppSQLite3Query) > 0, "CppSQLite3Query is complete");
static_assert(sizeof(CBBSQL::CppSQLite3Table) > 0, "CppSQLite3Table is complete");
static_assert(sizeof(CBBSQL::CppSQLite3Exception) > 0, "CppSQLite3Exception is complete");
