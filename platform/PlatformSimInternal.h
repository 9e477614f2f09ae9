// PlatformSimInternal: what the platform's own sources read from and report
// to PlatformSim. Private to platform/; hosts and tests use PlatformSim.h.
#ifndef PLATFORM_PLATFORMSIMINTERNAL_H_
#define PLATFORM_PLATFORMSIMINTERNAL_H_

#include <string>

#include "PlatformSim.h"

namespace PlatformSimInternal {

// Each returns true and fills its argument when the figure is fixed.
bool FixedTickCount(unsigned long long& ms);
bool FixedTimeStamp(unsigned long long& ts);
bool FixedDiskFreeSize(unsigned int& value);

// The stand-ins set with PlatformSim::SetFileOpHooks, or nullptr.
PlatformSim::FileOpHook FileDeleteHook();
PlatformSim::FileOpHook DirSyncHook();

void CaptureLogLine(const std::string& text);
void CaptureMessage(const std::string& text);

// The real monotonic clock in milliseconds (defined in COS.cpp).
unsigned long long MonotonicMs();

}  // namespace PlatformSimInternal

#endif  // PLATFORM_PLATFORMSIMINTERNAL_H_
