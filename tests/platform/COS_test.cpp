// Tests of COS: directories, files, the binary lock, disk space and clocks.
#include "COS.h"

#include <gtest/gtest.h>
#include <sys/statvfs.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <list>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "PlatformSim.h"
#include "TestUtil.h"

using COS::CosDir;
using COS::CosFile;
using COS::CosMutex;
using COS::CosOsState;
using COS::CosTime;

namespace {

class PlatformCosTest : public ::testing::Test {
protected:
    void SetUp() override { PlatformSim::Reset(); }
    void TearDown() override { PlatformSim::Reset(); }

    testutil::TempDir dir;
};

unsigned long long MonotonicNowMs() {
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<unsigned long long>(ts.tv_sec) * 1000ULL +
           static_cast<unsigned long long>(ts.tv_nsec) / 1000000ULL;
}

// Waits up to five seconds for flag; the bound keeps a broken lock from hanging the suite.
bool WaitFor(const std::atomic<bool>& flag) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!flag && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return flag;
}

// --- CosDir --------------------------------------------------------------------

TEST_F(PlatformCosTest, IsDir) {
    testutil::WriteFile(dir.path() + "f", "x");
    EXPECT_NE(0, CosDir::IsDir(dir.path()));
    EXPECT_EQ(0, CosDir::IsDir(dir.path() + "f"));
    EXPECT_EQ(0, CosDir::IsDir(dir.path() + "missing"));
}

TEST_F(PlatformCosTest, MakeDirCreatesParents) {
    std::string deep = dir.path() + "a/b/c";
    EXPECT_NE(0, CosDir::MakeDir(deep));
    EXPECT_TRUE(testutil::DirExists(deep));
    EXPECT_NE(0, CosDir::MakeDir(deep));  // already there
    EXPECT_NE(0, CosDir::MakeDir(dir.path() + "x/y/"));
    EXPECT_TRUE(testutil::DirExists(dir.path() + "x/y"));

    testutil::WriteFile(dir.path() + "file", "x");
    EXPECT_EQ(0, CosDir::MakeDir(dir.path() + "file"));
    EXPECT_EQ(0, CosDir::MakeDir(dir.path() + "file/sub"));
}

TEST_F(PlatformCosTest, ListDirMatchesSortedBareNames) {
    for (const char* name : {"c.db", "a.db", "b.db", "X.DB", "notes.txt", "a.db-journal"}) {
        testutil::WriteFile(dir.path() + name, "x");
    }
    ASSERT_NE(0, CosDir::MakeDir(dir.path() + "sub"));
    testutil::WriteFile(dir.path() + "sub/inner.db", "x");

    std::list<std::string> names{"kept"};
    EXPECT_NE(0, CosDir::ListDir(dir.path(), 0, "*.db", names));
    EXPECT_EQ((std::list<std::string>{"kept", "a.db", "b.db", "c.db"}), names);

    names.clear();
    EXPECT_NE(0, CosDir::ListDir(dir.path(), 0, "*.DB", names));
    EXPECT_EQ((std::list<std::string>{"X.DB"}), names);

    names.clear();
    EXPECT_NE(0, CosDir::ListDir(dir.path() + "sub", 0, "*.db", names));
    EXPECT_EQ((std::list<std::string>{"inner.db"}), names);

    names.clear();
    EXPECT_NE(0, CosDir::ListDir(dir.path(), 0, "*.none", names));
    EXPECT_TRUE(names.empty());
}

TEST_F(PlatformCosTest, ListDirOfMissingDirFails) {
    std::list<std::string> names;
    EXPECT_EQ(0, CosDir::ListDir(dir.path() + "missing", 0, "*", names));
    EXPECT_TRUE(names.empty());
}

// --- CosFile -------------------------------------------------------------------

TEST_F(PlatformCosTest, FileExistSizeDelete) {
    std::string path = dir.path() + "f.bin";
    EXPECT_EQ(0, CosFile::ExistFile(path));
    testutil::WriteFile(path, std::string(1234, 'z'));
    EXPECT_EQ(1, CosFile::ExistFile(path));
    EXPECT_EQ(0, CosFile::ExistFile(dir.path()));

    unsigned int size = 0;
    EXPECT_NE(0, CosFile::FileSize(path, size));
    EXPECT_EQ(1234u, size);

    EXPECT_NE(0, CosFile::Delete(path));
    EXPECT_EQ(0, CosFile::ExistFile(path));
    EXPECT_FALSE(testutil::FileExists(path));
    EXPECT_EQ(0, CosFile::Delete(path));

    size = 77;
    EXPECT_EQ(0, CosFile::FileSize(path, size));
    EXPECT_EQ(77u, size);  // unchanged on failure
}

// --- CosMutex ------------------------------------------------------------------

TEST_F(PlatformCosTest, UnlockOfFreeLockDoesNothing) {
    CosMutex m;
    m.Unlock();
    m.Unlock();
    ASSERT_NE(0, m.TryLock(0));
    EXPECT_EQ(0, m.TryLock(0));  // binary: a second take fails
    m.Unlock();
    m.Unlock();
    EXPECT_NE(0, m.TryLock(0));
    m.Unlock();
}

TEST_F(PlatformCosTest, UnlockFromAnotherThreadReleases) {
    CosMutex m;
    m.Lock();
    std::thread other([&m] { m.Unlock(); });
    other.join();
    EXPECT_NE(0, m.TryLock(0));
    m.Unlock();
}

TEST_F(PlatformCosTest, TryLockTimesOutOnHeldLock) {
    CosMutex m;
    m.Lock();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(0, m.TryLock(50));
    auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(40));
    EXPECT_LT(waited, std::chrono::seconds(10));

    int fromOther = -1;
    std::thread other([&] { fromOther = m.TryLock(10); });
    other.join();
    EXPECT_EQ(0, fromOther);
    m.Unlock();
}

TEST_F(PlatformCosTest, TryLockTakesLockFreedMeanwhile) {
    CosMutex m;
    m.Lock();
    std::thread other([&m] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        m.Unlock();
    });
    EXPECT_NE(0, m.TryLock(10000));
    other.join();
    m.Unlock();
}

TEST_F(PlatformCosTest, LockBlocksUntilUnlock) {
    // Shared with the thread so that a failed test can leave it behind safely.
    auto m = std::make_shared<CosMutex>();
    auto started = std::make_shared<std::atomic<bool>>(false);
    auto got = std::make_shared<std::atomic<bool>>(false);
    m->Lock();
    std::thread waiter([m, started, got] {
        *started = true;
        m->Lock();
        *got = true;
        m->Unlock();
    });
    ASSERT_TRUE(WaitFor(*started));
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(*got);
    m->Unlock();
    if (!WaitFor(*got)) {
        waiter.detach();
        FAIL() << "Lock() did not return after Unlock()";
    }
    waiter.join();
    EXPECT_NE(0, m->TryLock(0));
    m->Unlock();
}

TEST_F(PlatformCosTest, LockExcludesOtherThreads) {
    struct Shared {
        CosMutex m;
        long counter = 0;  // guarded by m
        std::atomic<int> finished{0};
        std::atomic<bool> allDone{false};
    };
    auto shared = std::make_shared<Shared>();
    const int kThreads = 4;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([shared] {
            for (int i = 0; i < 2000; ++i) {
                shared->m.Lock();
                ++shared->counter;
                shared->m.Unlock();
            }
            if (++shared->finished == kThreads) {
                shared->allDone = true;
            }
        });
    }
    if (!WaitFor(shared->allDone)) {
        for (std::thread& t : threads) {
            t.detach();
        }
        FAIL() << "threads stuck in Lock()";
    }
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ(8000, shared->counter);
}

TEST_F(PlatformCosTest, LockHandOverAmongWaitersAndTimedTriesKeepsExclusion) {
    // Waiters that take the lock handed over by Unlock, and timed tries that
    // give up or succeed in between: one thread inside at most, none stuck.
    struct Shared {
        CosMutex m;
        std::atomic<int> inside{0};
        std::atomic<int> maxInside{0};
        std::atomic<int> finished{0};
        std::atomic<bool> allDone{false};
    };
    auto shared = std::make_shared<Shared>();
    const int kThreads = 3;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([shared] {
            for (int i = 0; i < 1000; ++i) {
                shared->m.Lock();
                int now = ++shared->inside;
                int seen = shared->maxInside;
                while (now > seen && !shared->maxInside.compare_exchange_weak(seen, now)) {
                }
                --shared->inside;
                shared->m.Unlock();
            }
            if (++shared->finished == kThreads) {
                shared->allDone = true;
            }
        });
    }
    std::thread stray([shared] {
        while (!shared->allDone) {
            if (shared->m.TryLock(1)) {
                int now = ++shared->inside;
                int seen = shared->maxInside;
                while (now > seen && !shared->maxInside.compare_exchange_weak(seen, now)) {
                }
                --shared->inside;
                shared->m.Unlock();
            }
        }
    });
    if (!WaitFor(shared->allDone)) {
        for (std::thread& t : threads) {
            t.detach();
        }
        stray.detach();
        FAIL() << "threads stuck in Lock()";
    }
    for (std::thread& t : threads) {
        t.join();
    }
    stray.join();
    EXPECT_EQ(1, shared->maxInside);
    ASSERT_NE(0, shared->m.TryLock(0));  // free at the end
    shared->m.Unlock();
}

// --- CosOsState ----------------------------------------------------------------

TEST_F(PlatformCosTest, DiskFreeSizeMatchesStatvfs) {
    struct statvfs vfs;
    ASSERT_EQ(0, statvfs(dir.path().c_str(), &vfs));
    unsigned long long expected =
        static_cast<unsigned long long>(vfs.f_bavail) * vfs.f_frsize / 1024;
    if (expected > UINT_MAX) {
        expected = UINT_MAX;
    }
    unsigned int value = 0;
    unsigned int got = CosOsState::GetDiskFreeSize(dir.path(), value);
    EXPECT_EQ(got, value);
    // Other processes may write meanwhile; 100 MiB of slack.
    EXPECT_NEAR(static_cast<double>(expected), static_cast<double>(got), 102400.0);
    EXPECT_GT(got, 0u);

    value = 5;
    EXPECT_EQ(0u, CosOsState::GetDiskFreeSize(dir.path() + "missing/deeper", value));
    EXPECT_EQ(0u, value);
}

TEST_F(PlatformCosTest, DiskFreeSizeOverride) {
    PlatformSim::SetDiskFreeSize(4096);
    unsigned int value = 0;
    EXPECT_EQ(4096u, CosOsState::GetDiskFreeSize(dir.path(), value));
    EXPECT_EQ(4096u, value);
    PlatformSim::SetDiskFreeSize(0);
    EXPECT_EQ(0u, CosOsState::GetDiskFreeSize(dir.path(), value));
    EXPECT_EQ(0u, value);
}

// --- CosTime -------------------------------------------------------------------

TEST_F(PlatformCosTest, TickIsMonotonicMilliseconds) {
    unsigned long long before = MonotonicNowMs();
    unsigned long long t1 = CosTime::GetTickCountCos();
    unsigned long long t2 = CosTime::GetTickCountCos();
    unsigned long long after = MonotonicNowMs();
    EXPECT_LE(before, t1);
    EXPECT_LE(t1, t2);
    EXPECT_LE(t2, after);
}

TEST_F(PlatformCosTest, TimeStampIsWallClockMilliseconds) {
    unsigned long long before = static_cast<unsigned long long>(time(nullptr)) * 1000ULL;
    unsigned long long ts = CosTime::GetTimeStamp();
    unsigned long long after = static_cast<unsigned long long>(time(nullptr)) * 1000ULL;
    EXPECT_GE(ts + 2000, before);
    EXPECT_LE(ts, after + 2000);
}

}  // namespace
