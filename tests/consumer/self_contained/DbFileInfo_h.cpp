// Compiles "Sqlite3DB/DbFileInfo/DbFileInfo.h" on its own: the header includes what it uses.
#include "Sqlite3DB/DbFileInfo/DbFileInfo.h"
#include "Sqlite3DB/DbFileInfo/DbFileInfo.h"  // and its include guard holds
