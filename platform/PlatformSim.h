// PlatformSim: deterministic control of the platform for tests and the panel
// simulator. Without overrides the platform is real.
#ifndef PLATFORM_PLATFORMSIM_H_
#define PLATFORM_PLATFORMSIM_H_

#include <string>
#include <vector>

#include "CHmiMedia.h"
#include "COS.h"

namespace PlatformSim {
// A stand-in for one of the platform's own file operations on a path; returns
// 1 on success, 0 on failure, as the operation would.
using FileOpHook = int (*)(const std::string& path);

void Reset();                                  // real clocks and disk again; captures emptied;
                                               // SD and USB paths cleared; no file hooks
void SetTickCount(unsigned long long ms);      // COS::CosTime::GetTickCountCos() returns ms
void AdvanceTickCount(unsigned long long ms);  // adds to the fixed tick (fixes it first if real)
void SetTimeStamp(unsigned long long ts);      // COS::CosTime::GetTimeStamp() returns ts
void SetDiskFreeSize(unsigned int value);      // COS::CosOsState::GetDiskFreeSize returns value
std::vector<std::string> TakeLogLines();       // texts written by FormatPrintUtf8 since the
                                               // last take, one entry per call, exactly as
                                               // formatted ("\r\n" included)
std::vector<std::string> TakeMessages();       // texts posted with MessageMoude::InsertMsg
                                               // since the last take
// While set, the platform's file deletions (COS::CosFile::Delete) and the
// directory syncs after a commit go to these instead of the OS, so that a test
// of power cuts sees every change to a store's directory; nullptr: the OS.
void SetFileOpHooks(FileOpHook deleteFile, FileOpHook syncDir);
}  // namespace PlatformSim

#endif  // PLATFORM_PLATFORMSIM_H_
