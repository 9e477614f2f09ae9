// COS: the operating-system layer of the panel platform (directories, files,
// the lock, disk space and clocks). The library reaches the OS only through
// here, and PlatformSim (PlatformSim.h) can fix the clocks and disk figures.
#ifndef PLATFORM_COS_H_
#define PLATFORM_COS_H_

#include <atomic>
#include <condition_variable>
#include <list>
#include <mutex>
#include <string>

namespace COS {

class CosDir {
public:
    // Non-zero when path names an existing directory. A path below the mount
    // point of the SD card or USB disk counts only while it resolves to a
    // place on that medium (a link to elsewhere reads as missing).
    static int IsDir(const std::string& path);
    // Creates the directory and any missing parents; non-zero on success
    // (also when it already exists).
    static int MakeDir(const std::string& path);
    // Appends to names the bare names of the regular files (not links,
    // FIFOs, devices or directories) directly in dir that match the shell
    // wildcard pattern (case-sensitive), sorted by name.
    // The int argument is kept for the panel's signature and selects nothing.
    // Returns 0 when the directory cannot be read.
    static int ListDir(const std::string& dir, int flags, std::string pattern,
                       std::list<std::string>& names);
};

class CosFile {
public:
    // 1 when path names an existing entry other than a directory (a link
    // counts as itself, resolving or not).
    static int ExistFile(const std::string& path);
    // Removes the file; non-zero on success. Like ExistFile, refuses a path
    // whose directory is on a medium but resolves off it (see IsDir).
    static int Delete(const std::string& path);
    // Size in bytes (clamped to 32 bits); non-zero on success, size left
    // unchanged on failure.
    static int FileSize(const std::string& path, unsigned int& size);
};

// A binary lock. Lock() waits while anyone holds it; Unlock() releases it
// whoever holds it and does nothing when it is free. A second Lock() by the
// holder waits forever, as a plain non-recursive mutex does on the panel.
//
// Taking a free lock and releasing one nobody waits for is one atomic
// operation each (every queued command takes a store's lock). A waiter
// blocks on m_cond, and an Unlock that finds one hands the lock straight to
// it: the lock never reads as free in between, so nobody else can take it
// and destroy the object while that Unlock still uses it.
class CosMutex {
public:
    CosMutex() = default;
    CosMutex(const CosMutex&) = delete;
    CosMutex& operator=(const CosMutex&) = delete;

    void Lock();
    void Unlock();
    // Takes the lock if it becomes free within timeoutMs; non-zero when taken.
    int TryLock(unsigned int timeoutMs);

private:
    bool TakeForWaiter();  // REQUIRES: m_mutex held
    void WaiterLeaves();   // REQUIRES: m_mutex held

    // 0 free; 1 held; 2 held, and a waiter may be registered.
    std::atomic<int> m_nState{0};
    std::mutex m_mutex;
    std::condition_variable m_cond;
    int m_nWaiters = 0;       // guarded by m_mutex
    bool m_bHandOff = false;  // guarded by m_mutex: handed to a waiter, not yet claimed
};

class CosOsState {
public:
    // Free space, in KiB, of the file system that holds path (0 when it
    // cannot be read, the maximum when it does not fit); the same value is
    // stored in value.
    static unsigned int GetDiskFreeSize(const std::string& path, unsigned int& value);
};

class CosTime {
public:
    // Monotonic milliseconds. Should the clock fail, each clock gives its
    // last good reading again (0 before the first one), never garbage.
    static unsigned long long GetTickCountCos();
    // Wall-clock milliseconds since the Unix epoch (before 1970: as a failure).
    static unsigned long long GetTimeStamp();
};

}  // namespace COS

#endif  // PLATFORM_COS_H_
