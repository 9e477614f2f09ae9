// Compiles "CHmiMedia.h" on its own: the header includes what it uses.
#include "CHmiMedia.h"
#include "CHmiMedia.h"  // and its include guard holds
