// COS: directories, files, the binary lock, disk space and clocks on Linux.
// The clocks and the disk figure can be fixed through PlatformSim.
#include "COS.h"

#include <dirent.h>
#include <errno.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <vector>

#include "CHmiMedia.h"
#include "OsCalls.h"
#include "PlatformSimInternal.h"

// Built with _FILE_OFFSET_BITS=64 and _TIME_BITS=64 (CMakeLists.txt). Without
// them a 32-bit build's readdir, stat and statvfs fail with EOVERFLOW on large
// files and file systems, and its clock_gettime fails from 2038 on.
static_assert(sizeof(off_t) == 8, "the platform layer needs 64-bit off_t");
static_assert(sizeof(time_t) == 8, "the platform layer needs 64-bit time_t");

namespace OsCalls {

std::atomic<ReadDirFn> readDirHook{nullptr};
std::atomic<ClockGetTimeFn> clockGetTimeHook{nullptr};
std::atomic<StatFn> statHook{nullptr};
std::atomic<StatVfsFn> statVfsHook{nullptr};

struct dirent* ReadDir(DIR* dir) {
    ReadDirFn hook = readDirHook.load();
    return hook ? hook(dir) : readdir(dir);
}

int ClockGetTime(clockid_t clock, struct timespec* ts) {
    ClockGetTimeFn hook = clockGetTimeHook.load();
    return hook ? hook(clock, ts) : clock_gettime(clock, ts);
}

int Stat(const char* path, struct stat* st) {
    StatFn hook = statHook.load();
    return hook ? hook(path, st) : stat(path, st);
}

int Lstat(const char* path, struct stat* st) {
    StatFn hook = statHook.load();
    return hook ? hook(path, st) : lstat(path, st);
}

int StatVfs(const char* path, struct statvfs* vfs) {
    StatVfsFn hook = statVfsHook.load();
    return hook ? hook(path, vfs) : statvfs(path, vfs);
}

}  // namespace OsCalls

namespace {

// Only plain files are listed: a link, FIFO, device or directory named like a
// DB file could make SQLite block, or read and write somewhere else.
bool IsRegularEntry(const std::string& dir, const std::string& name) {
    std::string path = dir;
    if (!path.empty() && path.back() != '/') {
        path += '/';
    }
    struct stat st;
    return lstat((path + name).c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// The resolved form of path, or empty when it does not resolve.
std::string RealPath(const std::string& path) {
    char* resolved = realpath(path.c_str(), nullptr);
    if (!resolved) {
        return std::string();
    }
    std::string out = resolved;
    free(resolved);
    return out;
}

// False for a path on a removable medium (below its mount point) that
// resolves outside that medium: a stick may carry a link to internal flash.
bool StaysOnItsMedium(const std::string& path) {
    for (const std::string& mount : {CHmiMedia::getSDPath(), CHmiMedia::getUdiskPath()}) {
        if (mount.empty() || path.compare(0, mount.size(), mount) != 0) {
            continue;
        }
        const std::string root = RealPath(mount);
        const std::string real = RealPath(path);
        if (root.empty() || real.empty()) {
            return false;
        }
        if (real != root && real.compare(0, root.size() + 1, root + "/") != 0) {
            return false;
        }
    }
    return true;
}

// The last good reading of each clock. A failed reading gives it again, so a
// failing clock stands still (0 before its first reading) instead of giving
// garbage, and the tick never runs backwards.
std::atomic<unsigned long long> g_lastMonotonicMs{0};
std::atomic<unsigned long long> g_lastRealTimeMs{0};

unsigned long long ClockMs(clockid_t clock, std::atomic<unsigned long long>& last) {
    struct timespec ts;
    if (OsCalls::ClockGetTime(clock, &ts) != 0 || ts.tv_sec < 0 || ts.tv_nsec < 0 ||
        ts.tv_nsec >= 1000000000L) {
        return last.load();
    }
    const unsigned long long sec = static_cast<unsigned long long>(ts.tv_sec);
    const unsigned long long ms =
        sec > ULLONG_MAX / 1000ULL - 1ULL
            ? ULLONG_MAX
            : sec * 1000ULL + static_cast<unsigned long long>(ts.tv_nsec) / 1000000ULL;
    last.store(ms);
    return ms;
}

unsigned int ClampToUInt(unsigned long long value) {
    return value > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(value);
}

// The same for the directory that holds path.
bool DirStaysOnItsMedium(const std::string& path) {
    const std::string::size_type slash = path.rfind('/');
    return slash == std::string::npos || StaysOnItsMedium(path.substr(0, slash + 1));
}

// blocks * blockSize / 1024 without wrapping: past 2^64 bytes it gives the maximum.
unsigned long long KiB(unsigned long long blocks, unsigned long long blockSize) {
    if (blockSize != 0 && blocks > ULLONG_MAX / blockSize) {
        return ULLONG_MAX;
    }
    return blocks * blockSize / 1024ULL;
}

}  // namespace

namespace PlatformSimInternal {

unsigned long long MonotonicMs() {
    return ClockMs(CLOCK_MONOTONIC, g_lastMonotonicMs);
}

}  // namespace PlatformSimInternal

namespace COS {

// --- CosDir -------------------------------------------------------------------

int CosDir::IsDir(const std::string& path) {
    struct stat st;
    return OsCalls::Stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && StaysOnItsMedium(path);
}

int CosDir::MakeDir(const std::string& path) {
    if (path.empty()) {
        return 0;
    }
    // Create each missing ancestor, as "mkdir -p" does; the mode is left to the umask.
    for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1)) {
        std::string prefix = path.substr(0, pos);
        if (mkdir(prefix.c_str(), 0777) != 0 && !IsDir(prefix)) {
            return 0;
        }
    }
    mkdir(path.c_str(), 0777);
    return IsDir(path);
}

int CosDir::ListDir(const std::string& dir, int flags, std::string pattern,
                    std::list<std::string>& names) {
    (void)flags;  // kept for the panel's signature
    DIR* handle = opendir(dir.c_str());
    if (!handle) {
        return 0;
    }
    std::vector<std::string> found;
    for (;;) {
        // readdir gives null both at the end and on an error (EOVERFLOW, EIO):
        // only errno tells them apart. A listing cut short is a failure, not
        // a shorter list.
        errno = 0;
        struct dirent* entry = OsCalls::ReadDir(handle);
        if (!entry) {
            if (errno != 0) {
                closedir(handle);
                return 0;
            }
            break;
        }
        std::string name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        if (fnmatch(pattern.c_str(), name.c_str(), 0) == 0 && IsRegularEntry(dir, name)) {
            found.push_back(name);
        }
    }
    closedir(handle);
    std::sort(found.begin(), found.end());
    names.insert(names.end(), found.begin(), found.end());
    return 1;
}

// --- CosFile ------------------------------------------------------------------

// A link counts as the entry it is, dangling or not, so that a name taken by
// a link is seen (and deleted before a new file is made there).
int CosFile::ExistFile(const std::string& path) {
    struct stat st;
    return OsCalls::Lstat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode) &&
           DirStaysOnItsMedium(path);
}

// Never through a directory on a medium that leads off it.
int CosFile::Delete(const std::string& path) {
    if (!DirStaysOnItsMedium(path)) {
        return 0;
    }
    if (PlatformSim::FileOpHook hook = PlatformSimInternal::FileDeleteHook()) {
        return hook(path);  // a power-cut test records the deletion
    }
    return unlink(path.c_str()) == 0;
}

int CosFile::FileSize(const std::string& path, unsigned int& size) {
    struct stat st;
    if (OsCalls::Stat(path.c_str(), &st) != 0 || st.st_size < 0) {
        return 0;
    }
    size = ClampToUInt(static_cast<unsigned long long>(st.st_size));
    return 1;
}

// --- CosMutex -----------------------------------------------------------------

void CosMutex::Lock() {
    int expected = 0;
    if (m_nState.compare_exchange_strong(expected, 1)) {
        return;
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_nWaiters;
    m_cond.wait(lock, [this] { return TakeForWaiter(); });
    WaiterLeaves();
}

void CosMutex::Unlock() {
    int expected = 1;
    if (m_nState.compare_exchange_strong(expected, 0) || expected == 0) {
        return;  // released with nobody waiting, or it was free: nothing to do
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    int state = m_nState.load();
    while (state == 1 && !m_nState.compare_exchange_strong(state, 0)) {
    }
    if (state != 2) {
        return;
    }
    if (m_bHandOff) {
        // Released again before the waiter it was handed to woke (an Unlock
        // by another thread): free it; the waiters compete for it.
        m_bHandOff = false;
        m_nState.store(0);
        m_cond.notify_one();
    } else if (m_nWaiters > 0) {
        m_bHandOff = true;  // stays held (2): passed on to a waiter
        m_cond.notify_one();
    } else {
        m_nState.store(0);  // defensive: a waiter always clears 2 when it leaves
    }
}

int CosMutex::TryLock(unsigned int timeoutMs) {
    int expected = 0;
    if (m_nState.compare_exchange_strong(expected, 1)) {
        return 1;
    }
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_nWaiters;
    const bool taken = m_cond.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                                       [this] { return TakeForWaiter(); });
    WaiterLeaves();
    return taken ? 1 : 0;
}

// Claims a lock handed over by Unlock, or takes a free one; otherwise marks
// the lock as waited for (2), so that its holder's Unlock comes here.
bool CosMutex::TakeForWaiter() {
    if (m_bHandOff) {
        m_bHandOff = false;
        return true;
    }
    return m_nState.exchange(2) == 0;
}

// The last waiter to leave, with or without the lock, turns 2 back into 1:
// the lock stays held, and its next Unlock is the fast one again.
void CosMutex::WaiterLeaves() {
    if (--m_nWaiters == 0 && !m_bHandOff) {
        int expected = 2;
        m_nState.compare_exchange_strong(expected, 1);
    }
}

// --- CosOsState ---------------------------------------------------------------

unsigned int CosOsState::GetDiskFreeSize(const std::string& path, unsigned int& value) {
    if (PlatformSimInternal::FixedDiskFreeSize(value)) {
        return value;
    }
    struct statvfs vfs;
    if (OsCalls::StatVfs(path.c_str(), &vfs) != 0) {
        value = 0;
        return 0;
    }
    value = ClampToUInt(KiB(vfs.f_bavail, vfs.f_frsize));
    return value;
}

// --- CosTime ------------------------------------------------------------------

unsigned long long CosTime::GetTickCountCos() {
    unsigned long long ms;
    if (PlatformSimInternal::FixedTickCount(ms)) {
        return ms;
    }
    return PlatformSimInternal::MonotonicMs();
}

unsigned long long CosTime::GetTimeStamp() {
    unsigned long long ts;
    if (PlatformSimInternal::FixedTimeStamp(ts)) {
        return ts;
    }
    return ClockMs(CLOCK_REALTIME, g_lastRealTimeMs);
}

}  // namespace COS
