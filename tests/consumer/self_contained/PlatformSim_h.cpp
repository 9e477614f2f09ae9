// Compiles "PlatformSim.h" on its own: the header includes what it uses.
#include "PlatformSim.h"
#include "PlatformSim.h"  // and its include guard holds
