// Compiles "Sqlite3DB/ComFun.h" on its own: the header includes what it uses.
#include "Sqlite3DB/ComFun.h"
#include "Sqlite3DB/ComFun.h"  // and its include guard holds
