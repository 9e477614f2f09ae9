// Compiles "CBBSQL.h" on its own: the header includes what it uses.
#include "CBBSQL.h"
#include "CBBSQL.h"  // and its include guard holds
