// Failing and out-of-range OS calls in COS, made to happen through the hooks
// of OsCalls.h where the machine cannot produce them: a readdir error part-way
// (EOVERFLOW is what a 32-bit build without large-file support gets), stat and
// statvfs failures, clocks that fail or read past 2038 and 2106, files over
// 4 GiB (sparse, real) and file systems of many TiB. Plus the real monotonic
// clock shifted past 2^32 s in a time namespace, where the machine allows it.
#include "OsCalls.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <list>
#include <string>

#include "COS.h"
#include "PlatformSim.h"
#include "TestUtil.h"

using COS::CosDir;
using COS::CosFile;
using COS::CosOsState;
using COS::CosTime;

namespace {

const unsigned long long k2p31 = 1ULL << 31;
const unsigned long long k2p32 = 1ULL << 32;

class OsCallsTest : public ::testing::Test {
protected:
    void SetUp() override { PlatformSim::Reset(); }
    void TearDown() override {
        OsCalls::readDirHook = nullptr;
        OsCalls::clockGetTimeHook = nullptr;
        OsCalls::statHook = nullptr;
        OsCalls::statVfsHook = nullptr;
        PlatformSim::Reset();
    }

    // Five files a0.db .. a4.db.
    void MakeFiles() {
        for (int i = 0; i < 5; ++i) {
            testutil::WriteFile(dir.path() + "a" + std::to_string(i) + ".db", "x");
        }
    }

    testutil::TempDir dir;
};

// --- readdir ---------------------------------------------------------------------

int g_readDirCalls = 0;
int g_readDirFailAt = 0;  // the call (1-based) that fails
int g_readDirErrno = 0;

struct dirent* ReadDirFailingAt(DIR* handle) {
    if (++g_readDirCalls == g_readDirFailAt) {
        errno = g_readDirErrno;
        return nullptr;
    }
    return readdir(handle);
}

// A readdir that leaves errno set after giving an entry; errno means nothing then.
struct dirent* ReadDirDirtyingErrno(DIR* handle) {
    struct dirent* entry = readdir(handle);
    if (entry) {
        errno = EAGAIN;
    }
    return entry;
}

void FailReadDirAt(int call, int error) {
    g_readDirCalls = 0;
    g_readDirFailAt = call;
    g_readDirErrno = error;
    OsCalls::readDirHook = ReadDirFailingAt;
}

TEST_F(OsCallsTest, ListDirFailingPartWayGivesZeroAndNoNames) {
    MakeFiles();
    FailReadDirAt(4, EOVERFLOW);
    std::list<std::string> names{"kept"};
    EXPECT_EQ(0, CosDir::ListDir(dir.path(), 0, "*.db", names));
    EXPECT_EQ(std::list<std::string>{"kept"}, names);
    EXPECT_EQ(4, g_readDirCalls);
}

TEST_F(OsCallsTest, ListDirFailingAtTheFirstEntryGivesZero) {
    MakeFiles();
    FailReadDirAt(1, EIO);
    std::list<std::string> names;
    EXPECT_EQ(0, CosDir::ListDir(dir.path(), 0, "*.db", names));
    EXPECT_TRUE(names.empty());
}

TEST_F(OsCallsTest, ListDirFailingAfterTheLastEntryGivesZero) {
    MakeFiles();
    FailReadDirAt(8, EOVERFLOW);  // ".", "..", five files, then the error
    std::list<std::string> names;
    EXPECT_EQ(0, CosDir::ListDir(dir.path(), 0, "*.db", names));
    EXPECT_TRUE(names.empty());
    EXPECT_EQ(8, g_readDirCalls);
}

TEST_F(OsCallsTest, ListDirIgnoresErrnoLeftByEarlierCalls) {
    MakeFiles();
    std::list<std::string> names;
    errno = EIO;
    EXPECT_EQ(1, CosDir::ListDir(dir.path(), 0, "*.db", names));
    EXPECT_EQ(5u, names.size());
}

TEST_F(OsCallsTest, ListDirIgnoresErrnoSetBesideAnEntry) {
    MakeFiles();
    OsCalls::readDirHook = ReadDirDirtyingErrno;
    std::list<std::string> names;
    EXPECT_EQ(1, CosDir::ListDir(dir.path(), 0, "*.db", names));
    EXPECT_EQ((std::list<std::string>{"a0.db", "a1.db", "a2.db", "a3.db", "a4.db"}), names);
}

// --- stat -----------------------------------------------------------------------

int StatOverflows(const char*, struct stat*) {
    errno = EOVERFLOW;
    return -1;
}

TEST_F(OsCallsTest, FailingStatLeavesTheSizeAndReportsNoFile) {
    testutil::WriteFile(dir.path() + "f", "abc");
    OsCalls::statHook = StatOverflows;
    unsigned int size = 77;
    EXPECT_EQ(0, CosFile::FileSize(dir.path() + "f", size));
    EXPECT_EQ(77u, size);
    EXPECT_EQ(0, CosFile::ExistFile(dir.path() + "f"));
    EXPECT_EQ(0, CosDir::IsDir(dir.path()));
}

// Sparse files: no blocks are written, so this runs on any ext4 or tmpfs.
void MakeSparse(const std::string& path, long long bytes) {
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GE(fd, 0) << std::strerror(errno);
    ASSERT_EQ(0, ftruncate(fd, static_cast<off_t>(bytes))) << std::strerror(errno);
    close(fd);
}

TEST_F(OsCallsTest, FileSizesAboveTwoGiBAreExact) {
    const std::string path = dir.path() + "big";
    for (long long bytes :
         {static_cast<long long>(k2p31), 3LL << 30, static_cast<long long>(k2p32) - 4096,
          static_cast<long long>(k2p32) - 1}) {
        SCOPED_TRACE(bytes);
        MakeSparse(path, bytes);
        unsigned int size = 0;
        EXPECT_EQ(1, CosFile::FileSize(path, size));
        EXPECT_EQ(static_cast<unsigned long long>(bytes), size);
        EXPECT_EQ(1, CosFile::ExistFile(path));
    }
}

TEST_F(OsCallsTest, FileSizesOfFourGiBAndMoreClampToTheMaximum) {
    const std::string path = dir.path() + "big";
    for (long long bytes :
         {static_cast<long long>(k2p32), static_cast<long long>(k2p32) + 1, 5LL << 30}) {
        SCOPED_TRACE(bytes);
        MakeSparse(path, bytes);
        unsigned int size = 0;
        EXPECT_EQ(1, CosFile::FileSize(path, size));
        EXPECT_EQ(UINT_MAX, size);
    }
}

// --- statvfs --------------------------------------------------------------------

unsigned long long g_freeBlocks = 0;
unsigned long long g_blockSize = 0;

int StatVfsFixed(const char*, struct statvfs* vfs) {
    std::memset(vfs, 0, sizeof(*vfs));
    vfs->f_bavail = static_cast<fsblkcnt_t>(g_freeBlocks);
    vfs->f_frsize = static_cast<unsigned long>(g_blockSize);
    vfs->f_bsize = vfs->f_frsize;
    return 0;
}

int StatVfsFails(const char*, struct statvfs*) {
    errno = EOVERFLOW;
    return -1;
}

unsigned int FreeKiB(unsigned long long blocks, unsigned long long blockSize) {
    g_freeBlocks = blocks;
    g_blockSize = blockSize;
    OsCalls::statVfsHook = StatVfsFixed;
    unsigned int value = 12345;
    const unsigned int result = CosOsState::GetDiskFreeSize("/", value);
    EXPECT_EQ(result, value);
    return result;
}

TEST_F(OsCallsTest, FreeSpaceAboveFourGiBIsExactInKiB) {
    EXPECT_EQ(4194304u, FreeKiB(1ULL << 20, 4096));        // 4 GiB
    EXPECT_EQ(5242880u, FreeKiB(1310720, 4096));           // 5 GiB
    EXPECT_EQ(4294967295u, FreeKiB(4294967295ULL, 1024));  // just below 4 TiB
    EXPECT_EQ(4294967292u, FreeKiB(1073741823ULL, 4096));  // 4 TiB less 4 KiB
    EXPECT_EQ(2u, FreeKiB(1, 2048));
    EXPECT_EQ(0u, FreeKiB(1, 512));  // half a KiB rounds down
}

TEST_F(OsCallsTest, FreeSpaceBeyondTheRangeClampsToTheMaximum) {
    EXPECT_EQ(UINT_MAX, FreeKiB(1ULL << 30, 4096));  // 4 TiB
    EXPECT_EQ(UINT_MAX, FreeKiB(1ULL << 32, 4096));  // 2^32 blocks: 16 TiB
    EXPECT_EQ(UINT_MAX, FreeKiB(ULLONG_MAX, 4096));  // the product overflows 64 bits
}

TEST_F(OsCallsTest, FailingStatVfsGivesZero) {
    OsCalls::statVfsHook = StatVfsFails;
    unsigned int value = 12345;
    EXPECT_EQ(0u, CosOsState::GetDiskFreeSize("/", value));
    EXPECT_EQ(0u, value);
}

// --- clock_gettime ---------------------------------------------------------------

long long g_clockSeconds = 0;
long g_clockNanos = 0;

int ClockFixed(clockid_t, struct timespec* ts) {
    ts->tv_sec = static_cast<time_t>(g_clockSeconds);
    ts->tv_nsec = g_clockNanos;
    return 0;
}

int ClockFails(clockid_t, struct timespec*) {
    errno = EOVERFLOW;
    return -1;
}

void SetClock(long long seconds, long nanos) {
    g_clockSeconds = seconds;
    g_clockNanos = nanos;
    OsCalls::clockGetTimeHook = ClockFixed;
}

TEST_F(OsCallsTest, TimeStampsAfter2038And2106) {
    SetClock(static_cast<long long>(k2p31), 0);  // 2038-01-19 03:14:08 UTC
    EXPECT_EQ(k2p31 * 1000ULL, CosTime::GetTimeStamp());
    SetClock(static_cast<long long>(k2p31) + 1, 999999999);
    EXPECT_EQ((k2p31 + 1) * 1000ULL + 999ULL, CosTime::GetTimeStamp());
    SetClock(static_cast<long long>(k2p32), 5000000);  // 2106-02-07 06:28:16 UTC
    EXPECT_EQ(k2p32 * 1000ULL + 5ULL, CosTime::GetTimeStamp());
}

TEST_F(OsCallsTest, TickAbove2Pow32Seconds) {
    SetClock(static_cast<long long>(k2p32) + 7, 1000000);
    EXPECT_EQ((k2p32 + 7) * 1000ULL + 1ULL, CosTime::GetTickCountCos());
}

TEST_F(OsCallsTest, FailingClocksRepeatTheirLastReading) {
    SetClock(static_cast<long long>(k2p31) + 10, 0);
    const unsigned long long stamp = CosTime::GetTimeStamp();
    const unsigned long long tick = CosTime::GetTickCountCos();
    OsCalls::clockGetTimeHook = ClockFails;
    EXPECT_EQ(stamp, CosTime::GetTimeStamp());
    EXPECT_EQ(tick, CosTime::GetTickCountCos());
    EXPECT_EQ(tick, CosTime::GetTickCountCos());
}

TEST_F(OsCallsTest, ClockReadingsOutOfRangeCountAsFailures) {
    SetClock(1000, 0);
    const unsigned long long stamp = CosTime::GetTimeStamp();
    EXPECT_EQ(1000000ULL, stamp);
    SetClock(-1, 0);  // before 1970
    EXPECT_EQ(stamp, CosTime::GetTimeStamp());
    SetClock(2000, 1000000000L);  // not a valid nanosecond count
    EXPECT_EQ(stamp, CosTime::GetTimeStamp());
    SetClock(LLONG_MAX, 0);  // milliseconds past 2^64: the largest value
    EXPECT_EQ(ULLONG_MAX, CosTime::GetTimeStamp());
}

// The real monotonic clock, shifted by 2^32 s in a new time namespace: the
// child of a child that unshared it reads the tick and sends it back. Needs
// CAP_SYS_ADMIN and a kernel with time namespaces (Linux 5.6 and later).
TEST_F(OsCallsTest, RealTickPast2Pow32SecondsInATimeNamespace) {
    const unsigned long long before = CosTime::GetTickCountCos();
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        close(fds[0]);
        // Result: "ok <tick>" or "skip <reason>".
        auto report = [&](const std::string& text) {
            if (write(fds[1], text.data(), text.size()) < 0) {
                _exit(2);
            }
            _exit(0);
        };
        if (unshare(CLONE_NEWTIME) != 0) {
            report(std::string("skip unshare(CLONE_NEWTIME): ") + std::strerror(errno));
        }
        const int fd = open("/proc/self/timens_offsets", O_WRONLY);
        const std::string offsets = "monotonic " + std::to_string(k2p32) + " 0\n";
        if (fd < 0 || write(fd, offsets.data(), offsets.size()) < 0) {
            report(std::string("skip writing timens_offsets: ") + std::strerror(errno));
        }
        close(fd);
        const pid_t inner = fork();
        if (inner == 0) {
            report("ok " + std::to_string(CosTime::GetTickCountCos()));
        }
        int status = 0;
        waitpid(inner, &status, 0);
        _exit(WIFEXITED(status) ? WEXITSTATUS(status) : 3);
    }
    close(fds[1]);
    std::string text;
    char buffer[256];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof(buffer))) > 0;) {
        text.append(buffer, static_cast<size_t>(n));
    }
    close(fds[0]);
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << text;
    if (text.compare(0, 5, "skip ") == 0) {
        GTEST_SKIP() << "cannot shift the monotonic clock here: " << text.substr(5);
    }
    ASSERT_EQ(0, text.compare(0, 3, "ok ")) << text;
    const unsigned long long shifted = std::stoull(text.substr(3));
    const unsigned long long after = CosTime::GetTickCountCos();
    EXPECT_GE(shifted, k2p32 * 1000ULL + before);
    EXPECT_LE(shifted, k2p32 * 1000ULL + after);
}

}  // namespace
