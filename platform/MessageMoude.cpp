// MessageMoude: operator messages. The Linux build has no operator screen, so
// a message goes to standard error and to the PlatformSim capture.
#include "MessageMoude.h"

#include <cstdio>

#include "PlatformSimInternal.h"

void MessageMoude::InsertMsg(const std::string& text, int type) {
    (void)type;  // one kind of message only
    std::fprintf(stderr, "%s\n", text.c_str());
    PlatformSimInternal::CaptureMessage(text);
}
