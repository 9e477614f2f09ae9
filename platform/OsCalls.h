// OsCalls: the OS calls of COS behind replaceable pointers, so that tests can
// make one fail or report what the machine cannot (a readdir error part-way,
// a clock past 2038, a file system of many TiB). Private to the platform and
// its tests; nothing is replaced unless a test sets a pointer.
#ifndef PLATFORM_OSCALLS_H_
#define PLATFORM_OSCALLS_H_

#include <dirent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>

#include <atomic>

namespace OsCalls {

using ReadDirFn = struct dirent* (*)(DIR*);
using ClockGetTimeFn = int (*)(clockid_t, struct timespec*);
using StatFn = int (*)(const char*, struct stat*);
using StatVfsFn = int (*)(const char*, struct statvfs*);

// Null (the default) means the real call. A test that sets one puts back
// nullptr when it is done.
extern std::atomic<ReadDirFn> readDirHook;
extern std::atomic<ClockGetTimeFn> clockGetTimeHook;
extern std::atomic<StatFn> statHook;
extern std::atomic<StatVfsFn> statVfsHook;

// What COS calls: the hook when one is set, else the OS.
struct dirent* ReadDir(DIR* dir);
int ClockGetTime(clockid_t clock, struct timespec* ts);
int Stat(const char* path, struct stat* st);
int Lstat(const char* path, struct stat* st);  // the stat hook stands in for it too
int StatVfs(const char* path, struct statvfs* vfs);

}  // namespace OsCalls

#endif  // PLATFORM_OSCALLS_H_
