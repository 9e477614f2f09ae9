// COS: directories, files, the binary lock, disk space and clocks on Linux.
// The clocks and the disk figure can be fixed through PlatformSim.
#include "COS.h"

#include <dirent.h>
#include <fnmatch.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <vector>

#include "PlatformSimInternal.h"

namespace {

unsigned long long ClockMs(clockid_t clock) {
    struct timespec ts;
    clock_gettime(clock, &ts);
    return static_cast<unsigned long long>(ts.tv_sec) * 1000ULL +
           static_cast<unsigned long long>(ts.tv_nsec) / 1000000ULL;
}

unsigned int ClampToUInt(unsigned long long value) {
    return value > UINT_MAX ? UINT_MAX : static_cast<unsigned int>(value);
}

}  // namespace

namespace PlatformSimInternal {

unsigned long long MonotonicMs() {
    return ClockMs(CLOCK_MONOTONIC);
}

}  // namespace PlatformSimInternal

namespace COS {

// --- CosDir -------------------------------------------------------------------

int CosDir::IsDir(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
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
    while (struct dirent* entry = readdir(handle)) {
        std::string name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        if (fnmatch(pattern.c_str(), name.c_str(), 0) == 0) {
            found.push_back(name);
        }
    }
    closedir(handle);
    std::sort(found.begin(), found.end());
    names.insert(names.end(), found.begin(), found.end());
    return 1;
}

// --- CosFile ------------------------------------------------------------------

int CosFile::ExistFile(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 && !S_ISDIR(st.st_mode);
}

int CosFile::Delete(const std::string& path) {
    if (PlatformSim::FileOpHook hook = PlatformSimInternal::FileDeleteHook()) {
        return hook(path);  // a power-cut test records the deletion
    }
    return unlink(path.c_str()) == 0;
}

int CosFile::FileSize(const std::string& path, unsigned int& size) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
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
    if (statvfs(path.c_str(), &vfs) != 0) {
        value = 0;
        return 0;
    }
    value = ClampToUInt(static_cast<unsigned long long>(vfs.f_bavail) * vfs.f_frsize / 1024ULL);
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
    return ClockMs(CLOCK_REALTIME);
}

}  // namespace COS
