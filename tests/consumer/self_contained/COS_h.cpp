// Compiles "COS.h" on its own: the header includes what it uses.
#include "COS.h"
#include "COS.h"  // and its include guard holds
