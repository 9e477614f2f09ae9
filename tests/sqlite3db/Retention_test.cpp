// Retention: a store's own file-count limit (DeleteDBFile), the unconditional
// removal of the oldest file with its two log lines (DelOldFile), the getters
// that the free-space housekeeping reads, and Sqlite3DB::FreeSpaceDelete,
// which removes one oldest file of one store when the data partition runs low.
#include <filesystem>

#include "RollingStoreFixture.h"

using namespace rollingtest;

namespace {

// The time stamp at which file k of a store made by StoreWithFiles is created.
unsigned long long FileTime(unsigned long long first, int k) {
    return first + 100ULL * k;
}

}  // namespace

class RetentionTest : public RollingStoreTest {
protected:
    // Adds files to a configured store until it holds `files`; file k (k >= the
    // files already there) is created at FileTime(firstTime, k).
    void GrowTo(DbData& store, int files, unsigned long long firstTime) {
        for (int k = static_cast<int>(store.GetNowFileNum()); k < files; ++k) {
            PlatformSim::SetTimeStamp(FileTime(firstTime, k));
            ASSERT_EQ(1, store.CreateFileDB());
        }
    }

    // A store driven directly whose catalog holds `files` files, numbered from 0.
    DbData& StoreWithFiles(int files, int maxFileNum, const std::string& sub = "s",
                           unsigned long long firstTime = 5000) {
        testutil::Conf& c = NewConf(sub);
        c.conf.nMaxFileNum = maxFileNum;
        PlatformSim::SetTimeStamp(FileTime(firstTime, 0));
        DbData& store = MakeStore(c);
        GrowTo(store, files, firstTime);
        PlatformSim::TakeLogLines();
        return store;
    }

    // A store created through the registry with `files` files. pattern 1 and 2
    // put it on the simulated SD card or USB disk.
    DbData& RegisteredWithFiles(int files, unsigned long long firstTime, const std::string& sub,
                                int maxFileNum = 0, int pattern = 0) {
        testutil::Conf& c = NewConf(sub);
        c.dirName = sub;  // on a medium the root is the medium's mount point
        if (pattern == 0) {
            c.dirName = dir_.name() + "/" + sub;
        }
        c.conf.nStorePattern = pattern;
        c.conf.nMaxFileNum = maxFileNum;
        PlatformSim::SetTimeStamp(FileTime(firstTime, 0));
        DbData& store = RegisterStore(c);
        GrowTo(store, files, firstTime);
        PlatformSim::TakeLogLines();
        return store;
    }

    std::string OkLine(const std::string& path, size_t capacity) {
        return "DbData.cpp:  DelOldFile---ok-----" + path + "   " + std::to_string(capacity) +
               "\r\n";
    }
};

// --- DeleteDBFile -----------------------------------------------------------------

TEST_F(RetentionTest, LimitEqualToFileCountDeletesNothing) {
    DbData& store = StoreWithFiles(5, 5);
    store.DeleteDBFile();
    EXPECT_EQ(FileNames({0, 1, 2, 3, 4}), CatalogNames(store));
    EXPECT_EQ(FileNames({0, 1, 2, 3, 4}), DbFilesOnDisk(SaveDir("s")));
    EXPECT_TRUE(TakeLogs().empty());
}

TEST_F(RetentionTest, OneFileOverLimitDeletesLowestNumberedFile) {
    DbData& store = StoreWithFiles(6, 5);
    store.DeleteDBFile();
    EXPECT_EQ(FileNames({1, 2, 3, 4, 5}), CatalogNames(store));
    EXPECT_EQ(FileNames({1, 2, 3, 4, 5}), DbFilesOnDisk(SaveDir("s")));
    EXPECT_EQ(store.m_vecFileInfo.size(), store.m_vecFileInfo.capacity());
    EXPECT_TRUE(TakeLogs().empty());  // DeleteDBFile logs nothing
}

TEST_F(RetentionTest, OneCallDeletesOneFileEvenFarOverLimit) {
    DbData& store = StoreWithFiles(8, 5);
    store.DeleteDBFile();
    EXPECT_EQ(FileNames({1, 2, 3, 4, 5, 6, 7}), CatalogNames(store));
    EXPECT_EQ(FileNames({1, 2, 3, 4, 5, 6, 7}), DbFilesOnDisk(SaveDir("s")));
    store.DeleteDBFile();
    EXPECT_EQ(6u, store.GetNowFileNum());
    EXPECT_FALSE(testutil::FileExists(SaveDir("s") + "rec_1.db"));
}

TEST_F(RetentionTest, ZeroLimitKeepsEveryFile) {
    DbData& store = StoreWithFiles(8, 0);
    store.DeleteDBFile();
    EXPECT_EQ(8u, store.GetNowFileNum());
    EXPECT_EQ(8u, DbFilesOnDisk(SaveDir("s")).size());
}

TEST_F(RetentionTest, OldestFileThatCannotBeDeletedKeepsEntryAndIsTriedAgain) {
    DbData& store = StoreWithFiles(6, 5);
    // The oldest entry now names a non-empty directory, which unlink refuses.
    const std::string oldest = SaveDir("s") + "rec_0.db";
    std::filesystem::remove(oldest);
    std::filesystem::create_directory(oldest);
    testutil::WriteFile(oldest + "/keep", "x");

    store.DeleteDBFile();
    EXPECT_EQ(FileNames({0, 1, 2, 3, 4, 5}), CatalogNames(store));
    EXPECT_TRUE(testutil::DirExists(oldest));
    EXPECT_TRUE(TakeLogs().empty());

    store.DeleteDBFile();  // still refused: nothing changes
    EXPECT_EQ(6u, store.GetNowFileNum());

    testutil::RemoveTree(oldest);
    testutil::WriteFile(oldest, "old");
    store.DeleteDBFile();  // the same file is tried again and now goes
    EXPECT_EQ(FileNames({1, 2, 3, 4, 5}), CatalogNames(store));
    EXPECT_FALSE(std::filesystem::exists(oldest));
}

// --- DelOldFile ---------------------------------------------------------------------

TEST_F(RetentionTest, DelOldFileLogsPathAndCatalogCapacityBeforeErase) {
    DbData& store = StoreWithFiles(3, 0);
    store.m_vecFileInfo.reserve(10);  // capacity 10, three entries
    const std::string path = SaveDir("s") + "rec_0.db";

    EXPECT_EQ(1, store.DelOldFile());
    EXPECT_EQ(std::vector<std::string>{OkLine(path, 10)}, TakeLogs());
    EXPECT_EQ(FileNames({1, 2}), CatalogNames(store));
    EXPECT_EQ(2u, store.m_vecFileInfo.capacity());  // shrunk to fit
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(RetentionTest, DelOldFileLogsCapacityNotFileCount) {
    DbData& store = StoreWithFiles(4, 0);
    store.DelOldFile();  // capacity now equals size: 3
    TakeLogs();
    store.m_vecFileInfo.reserve(7);
    EXPECT_EQ(1, store.DelOldFile());
    EXPECT_EQ(std::vector<std::string>{OkLine(SaveDir("s") + "rec_1.db", 7)}, TakeLogs());
    EXPECT_EQ(2u, store.m_vecFileInfo.size());
    EXPECT_EQ(2u, store.m_vecFileInfo.capacity());
}

TEST_F(RetentionTest, DelOldFileOfMissingFileLogsErrAndKeepsEntry) {
    DbData& store = StoreWithFiles(3, 0);
    const std::string path = SaveDir("s") + "rec_0.db";
    std::filesystem::remove(path);

    EXPECT_EQ(0, store.DelOldFile());
    EXPECT_EQ(std::vector<std::string>{"DbData.cpp:  DelOldFile---err-----" + path + "   \r\n"},
              TakeLogs());
    EXPECT_EQ(FileNames({0, 1, 2}), CatalogNames(store));

    testutil::WriteFile(path, "back");
    EXPECT_EQ(1, store.DelOldFile());  // the next call tries the same file
    EXPECT_EQ(FileNames({1, 2}), CatalogNames(store));
}

TEST_F(RetentionTest, DelOldFileOnEmptyCatalogReturnsZeroSilently) {
    DbData& store = StoreWithFiles(1, 0);
    store.ClearFileList();
    EXPECT_EQ(0, store.DelOldFile());
    EXPECT_TRUE(TakeLogs().empty());
    EXPECT_TRUE(testutil::FileExists(SaveDir("s") + "rec_0.db"));
}

TEST_F(RetentionTest, DelOldFileRemovesEvenTheOnlyFile) {
    DbData& store = StoreWithFiles(1, 0);
    EXPECT_EQ(1, store.DelOldFile());
    EXPECT_EQ(0u, store.GetNowFileNum());
    EXPECT_EQ(0u, store.m_vecFileInfo.capacity());
    EXPECT_TRUE(DbFilesOnDisk(SaveDir("s")).empty());
}

// --- Getters ---------------------------------------------------------------------------

TEST_F(RetentionTest, GettersReportPatternLimitFileCountAndOldestTime) {
    DbData& store = StoreWithFiles(3, 7, "s", 9000);
    EXPECT_EQ(0, store.GetStorePattern());
    EXPECT_EQ(7, store.GetMaxFileNum());
    EXPECT_EQ(3u, store.GetNowFileNum());
    EXPECT_EQ(9000u, store.GetOldFileTime());

    store.DelOldFile();
    EXPECT_EQ(2u, store.GetNowFileNum());
    EXPECT_EQ(9100u, store.GetOldFileTime());

    store.ClearFileList();
    EXPECT_EQ(0u, store.GetNowFileNum());
    EXPECT_EQ(0u, store.GetOldFileTime());
}

TEST_F(RetentionTest, StorePatternOfSdCardStoreIsOne) {
    testutil::TempDir sd;
    CHmiMedia::SetSDPath(sd.path());
    DbData& store = RegisteredWithFiles(2, 100, "card", 0, 1);
    EXPECT_EQ(1, store.GetStorePattern());
    EXPECT_EQ(2u, store.GetNowFileNum());
    EXPECT_EQ(sd.path() + "card/", store.m_strSavePath);
}

// --- FreeSpaceDelete --------------------------------------------------------------------

TEST_F(RetentionTest, FreeSpaceAboveThresholdDeletesNothing) {
    DbData& a = RegisteredWithFiles(3, 1000, "a");
    DbData& b = RegisteredWithFiles(3, 2000, "b");
    PlatformSim::SetDiskFreeSize(5121);
    Sqlite3DB::FreeSpaceDelete();
    EXPECT_EQ(3u, a.GetNowFileNum());
    EXPECT_EQ(3u, b.GetNowFileNum());
    EXPECT_EQ(3u, DbFilesOnDisk(SaveDir("a")).size());
    EXPECT_TRUE(TakeLogs().empty());
}

TEST_F(RetentionTest, FreeSpaceAtThresholdDeletesOneFileOfStoreWithOldestFile) {
    DbData& a = RegisteredWithFiles(3, 2000, "a");
    DbData& b = RegisteredWithFiles(3, 1000, "b");
    DbData& c = RegisteredWithFiles(3, 3000, "c");
    const size_t capacity = b.m_vecFileInfo.capacity();
    PlatformSim::SetDiskFreeSize(5120);
    Sqlite3DB::FreeSpaceDelete();
    EXPECT_EQ(3u, a.GetNowFileNum());
    EXPECT_EQ(FileNames({1, 2}), CatalogNames(b));
    EXPECT_EQ(FileNames({1, 2}), DbFilesOnDisk(SaveDir("b")));
    EXPECT_EQ(3u, c.GetNowFileNum());
    EXPECT_EQ(std::vector<std::string>{OkLine(SaveDir("b") + "rec_0.db", capacity)}, TakeLogs());
}

TEST_F(RetentionTest, FreeSpaceDeleteRemovesOneFilePerCallOldestFirst) {
    // a's files start at 1000, 1100, 1200; b's at 1050, 1150, 1250.
    DbData& a = RegisteredWithFiles(3, 1000, "a");
    DbData& b = RegisteredWithFiles(3, 1050, "b");
    PlatformSim::SetDiskFreeSize(0);

    Sqlite3DB::FreeSpaceDelete();
    EXPECT_EQ(FileNames({1, 2}), CatalogNames(a));
    EXPECT_EQ(3u, b.GetNowFileNum());
    Sqlite3DB::FreeSpaceDelete();
    EXPECT_EQ(FileNames({1, 2}), CatalogNames(b));
    Sqlite3DB::FreeSpaceDelete();
    EXPECT_EQ(FileNames({2}), CatalogNames(a));
    Sqlite3DB::FreeSpaceDelete();
    EXPECT_EQ(FileNames({2}), CatalogNames(b));

    // Each store is down to its current file, which is never taken.
    Sqlite3DB::FreeSpaceDelete();
    EXPECT_EQ(FileNames({2}), CatalogNames(a));
    EXPECT_EQ(FileNames({2}), CatalogNames(b));
    EXPECT_EQ(FileNames({2}), DbFilesOnDisk(SaveDir("a")));
    EXPECT_EQ(FileNames({2}), DbFilesOnDisk(SaveDir("b")));
    EXPECT_EQ(4u, TakeLogs().size());
}

TEST_F(RetentionTest, FreeSpaceDeleteSkipsStoresOnSdCardAndUsbDisk) {
    testutil::TempDir sd;
    testutil::TempDir usb;
    CHmiMedia::SetSDPath(sd.path());
    CHmiMedia::SetUdiskPath(usb.path());
    DbData& card = RegisteredWithFiles(3, 100, "card", 0, 1);
    DbData& disk = RegisteredWithFiles(3, 200, "disk", 0, 2);
    DbData& flash = RegisteredWithFiles(3, 5000, "flash");
    PlatformSim::SetDiskFreeSize(5120);
    Sqlite3DB::FreeSpaceDelete();
    EXPECT_EQ(3u, card.GetNowFileNum());
    EXPECT_EQ(3u, disk.GetNowFileNum());
    EXPECT_EQ(FileNames({1, 2}), CatalogNames(flash));
}

TEST_F(RetentionTest, FreeSpaceDeleteSkipsStoresWithTheirOwnFileLimit) {
    DbData& limited = RegisteredWithFiles(3, 100, "limited", 10);
    DbData& open = RegisteredWithFiles(3, 5000, "open");
    PlatformSim::SetDiskFreeSize(5120);
    Sqlite3DB::FreeSpaceDelete();
    EXPECT_EQ(3u, limited.GetNowFileNum());
    EXPECT_EQ(FileNames({1, 2}), CatalogNames(open));
}

TEST_F(RetentionTest, FreeSpaceDeleteNeverTakesAStoresOnlyFile) {
    DbData& single = RegisteredWithFiles(1, 100, "single");
    DbData& two = RegisteredWithFiles(2, 5000, "two");
    PlatformSim::SetDiskFreeSize(5120);
    Sqlite3DB::FreeSpaceDelete();
    EXPECT_EQ(FileNames({0}), CatalogNames(single));
    EXPECT_EQ(FileNames({1}), CatalogNames(two));
}

TEST_F(RetentionTest, FreeSpaceDeleteSkipsStoreWhoseOldestFileHasTimeZero) {
    DbData& zero = RegisteredWithFiles(3, 0, "zero");  // file 0 created at time stamp 0
    DbData& later = RegisteredWithFiles(3, 5000, "later");
    ASSERT_EQ(0u, zero.GetOldFileTime());
    PlatformSim::SetDiskFreeSize(5120);
    Sqlite3DB::FreeSpaceDelete();
    EXPECT_EQ(3u, zero.GetNowFileNum());
    EXPECT_EQ(FileNames({1, 2}), CatalogNames(later));
}

TEST_F(RetentionTest, FreeSpaceDeleteWithoutEligibleStoreDeletesNothing) {
    testutil::TempDir sd;
    CHmiMedia::SetSDPath(sd.path());
    DbData& card = RegisteredWithFiles(3, 100, "card", 0, 1);
    DbData& limited = RegisteredWithFiles(3, 200, "limited", 5);
    DbData& single = RegisteredWithFiles(1, 300, "single");
    DbData& zero = RegisteredWithFiles(2, 0, "zero");
    PlatformSim::SetDiskFreeSize(0);
    Sqlite3DB::FreeSpaceDelete();
    EXPECT_EQ(3u, card.GetNowFileNum());
    EXPECT_EQ(3u, limited.GetNowFileNum());
    EXPECT_EQ(1u, single.GetNowFileNum());
    EXPECT_EQ(2u, zero.GetNowFileNum());
    EXPECT_TRUE(TakeLogs().empty());
}

TEST_F(RetentionTest, FreeSpaceDeleteOnEqualOldestTimesTakesFromLaterStore) {
    DbData& first = RegisteredWithFiles(3, 1000, "first");
    DbData& second = RegisteredWithFiles(3, 1000, "second");
    DbData& newer = RegisteredWithFiles(3, 2000, "newer");
    PlatformSim::SetDiskFreeSize(5120);
    Sqlite3DB::FreeSpaceDelete();
    EXPECT_EQ(3u, first.GetNowFileNum());
    EXPECT_EQ(FileNames({1, 2}), CatalogNames(second));
    EXPECT_EQ(3u, newer.GetNowFileNum());
}

TEST_F(RetentionTest, FreeSpaceDeleteDoesNothingWhileLibraryIsNotEnabled) {
    DbData& a = RegisteredWithFiles(3, 1000, "a");
    PlatformSim::SetDiskFreeSize(0);
    Sqlite3DB::m_bEnable = 0;
    Sqlite3DB::FreeSpaceDelete();
    Sqlite3DB::m_bEnable = 1;
    EXPECT_EQ(3u, a.GetNowFileNum());
    EXPECT_EQ(3u, DbFilesOnDisk(SaveDir("a")).size());
    EXPECT_TRUE(TakeLogs().empty());
}
