// Fixture shared by the tests of file rotation, retention, the save cycle,
// the handle's forwarding and the end-to-end runs: stores on the data
// partition driven directly or through the registry, record commands, and
// readers that check DB files through SQLite's C API rather than the store.
#ifndef TESTS_SQLITE3DB_ROLLINGSTOREFIXTURE_H_
#define TESTS_SQLITE3DB_ROLLINGSTOREFIXTURE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <list>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "PlatformSim.h"
#include "Sqlite3DB/DbData/DbData.h"
#include "Sqlite3DB/Sqlite3DB.h"
#include "TestUtil.h"

namespace rollingtest {

// The time stamp the platform reports while a test has not set another one.
constexpr unsigned long long kCreationTime = 1500000000000ULL;

// A record's time in the host's unit: rising with the ID and never 0.
inline unsigned long long TimeOf(unsigned long long id) {
    return 1600000000000ULL + 1000ULL * id;
}

// The value column of a record: its ID with an optional payload.
inline std::string ValueOf(unsigned long long id, const std::string& payload = "") {
    return "v" + std::to_string(id) + payload;
}

inline std::string InsertSql(unsigned long long id, const std::string& payload = "") {
    return "insert into rec values(" + std::to_string(id) + ", " + std::to_string(TimeOf(id)) +
           ", '" + ValueOf(id, payload) + "')";
}

// Queues the write of one record (a type-1 command carrying ID and time).
inline int QueueRecord(DbData& store, unsigned long long id, const std::string& payload = "") {
    std::string sql = InsertSql(id, payload);
    _tagDBSqlCmdInfo cmd{&sql, 1, id, TimeOf(id)};
    return store.AddNode(cmd);
}

// Queues records first..last; the number of commands the store accepted.
inline int QueueRecords(DbData& store, unsigned long long first, unsigned long long last) {
    int accepted = 0;
    for (unsigned long long id = first; id <= last; ++id) {
        accepted += QueueRecord(store, id);
    }
    return accepted;
}

// Queues a deferred statement (type 0) that concerns record `id`.
inline int QueueOther(DbData& store, const std::string& sql, unsigned long long id) {
    std::string text = sql;
    _tagDBSqlCmdInfo cmd{&text, 0, id, 0};
    return store.AddNode(cmd);
}

// A tick far above any tick used earlier in this process. The tick at which
// the "save location" message was last shown is shared by the whole process,
// so each test that depends on it starts from a range of its own.
inline unsigned long long FreshTickBase() {
    static unsigned long long calls = 0;
    return 0x0005A00000000000ULL + (++calls) * 1000000000000ULL;
}

// A captured log line "[App ]: <file>(<line>):  <text>" as "<file>:  <text>";
// a line of another shape comes back marked so that a comparison shows it.
inline std::string WithoutLineNumber(const std::string& line) {
    const std::string prefix = "[App ]: ";
    if (line.compare(0, prefix.size(), prefix) != 0) {
        return "UNEXPECTED SHAPE: " + line;
    }
    const std::string::size_type open = line.find('(', prefix.size());
    if (open == std::string::npos) {
        return "UNEXPECTED SHAPE: " + line;
    }
    std::string::size_type pos = open + 1;
    while (pos < line.size() && std::isdigit(static_cast<unsigned char>(line[pos]))) {
        ++pos;
    }
    if (pos == open + 1 || pos >= line.size() || line[pos] != ')') {
        return "UNEXPECTED SHAPE: " + line;
    }
    return line.substr(prefix.size(), open - prefix.size()) + line.substr(pos + 1);
}

// The log lines written since the last take, without their line numbers.
inline std::vector<std::string> TakeLogs() {
    std::vector<std::string> lines;
    for (const std::string& line : PlatformSim::TakeLogLines()) {
        lines.push_back(WithoutLineNumber(line));
    }
    return lines;
}

// The DBInfo table of a file, read through SQLite's C API.
struct DBInfoRow {
    size_t rows = 0;  // number of rows in DBInfo
    unsigned long long maxID = 0;
    unsigned long long minID = 0;
    unsigned long long startTime = 0;
    unsigned long long endTime = 0;
};

inline DBInfoRow ReadDBInfo(const std::string& path) {
    DBInfoRow info;
    auto rows = testutil::RawQuery(
        path, "select MaxID, MinID, StartTime, EndTime from DBInfo where version = 1");
    info.rows = std::stoul(testutil::RawValue(path, "select count(*) from DBInfo"));
    if (!rows.empty()) {
        info.maxID = std::stoull(rows[0][0]);
        info.minID = std::stoull(rows[0][1]);
        info.startTime = std::stoull(rows[0][2]);
        info.endTime = std::stoull(rows[0][3]);
    }
    return info;
}

// The record IDs of a file in row order.
inline std::vector<unsigned long long> FileIds(const std::string& path) {
    std::vector<unsigned long long> ids;
    for (const auto& row : testutil::RawQuery(path, "select id from rec order by rowid")) {
        ids.push_back(std::stoull(row[0]));
    }
    return ids;
}

inline long long RowCount(const std::string& path, const std::string& table = "rec") {
    return std::stoll(testutil::RawValue(path, "select count(*) from " + table));
}

// Rows in the store's memory buffer (only the store's connection reaches it).
// Like every reader here that would otherwise dereference nothing, it throws
// when there is nothing to read: GoogleTest reports the exception as the
// test's failure, and the test program goes on.
inline long long MemRowCount(DbData& store) {
    if (!store.m_pMemDB) {
        throw std::runtime_error("the store has no memory buffer");
    }
    CBBSQL::CppSQLite3Table table = store.m_pMemDB->getTable("select count(*) from rec");
    table.setRow(0);
    return table.getInt64Field(0, -1);
}

// Catalog entry `index` (-1: the current file); throws when there is none.
inline DbFileInfo& CatalogEntry(DbData& store, int index = -1) {
    if (store.m_vecFileInfo.empty()) {
        throw std::out_of_range("the store's catalog is empty");
    }
    return index < 0 ? store.m_vecFileInfo.back()
                     : store.m_vecFileInfo.at(static_cast<size_t>(index));
}

// Full path of catalog entry `index` (-1: the current file).
inline std::string CatalogPath(DbData& store, int index = -1) {
    return store.m_strSavePath + CatalogEntry(store, index).GetFullName();
}

// The bare names of the catalog, oldest first.
inline std::vector<std::string> CatalogNames(DbData& store) {
    std::vector<std::string> names;
    for (const DbFileInfo& rec : store.m_vecFileInfo) {
        names.push_back(rec.GetFullName());
    }
    return names;
}

// "<stem>_<n>.db" for each n in numbers.
inline std::vector<std::string> FileNames(const std::vector<int>& numbers,
                                          const std::string& stem = "rec") {
    std::vector<std::string> names;
    for (int n : numbers) {
        names.push_back(stem + "_" + std::to_string(n) + ".db");
    }
    return names;
}

// The *.db files of a directory, ordered by their number.
inline std::vector<std::string> DbFilesOnDisk(const std::string& dir) {
    std::list<std::string> found;
    COS::CosDir::ListDir(dir, 0, "*.db", found);
    std::vector<std::string> names(found.begin(), found.end());
    auto number = [](const std::string& name) {
        const std::string::size_type us = name.rfind('_');
        return us == std::string::npos ? -1 : std::atoi(name.c_str() + us + 1);
    };
    std::sort(names.begin(), names.end(),
              [&](const std::string& a, const std::string& b) { return number(a) < number(b); });
    return names;
}

// Base fixture: a directory on the data partition, stores configured in
// sub-directories of it, the platform reset around each test, the registry
// emptied before and after.
class RollingStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        PlatformSim::Reset();
        Sqlite3DB::Destroy();
        PlatformSim::SetTimeStamp(kCreationTime);
    }

    void TearDown() override {
        stores_.clear();
        Sqlite3DB::Destroy();
        PlatformSim::Reset();
    }

    // A configuration whose store lives in <dir>/<sub>; defaults of Conf otherwise.
    testutil::Conf& NewConf(const std::string& sub) {
        confs_.emplace_back();
        confs_.back().dirName = dir_.name() + "/" + sub;
        return confs_.back();
    }

    // A store configured from c and driven directly, without the registry.
    DbData& MakeStore(testutil::Conf& c, long long id = 1) {
        stores_.push_back(std::make_unique<DbData>());
        EXPECT_EQ(1, stores_.back()->Config(c.get(), id, "md5"));
        return *stores_.back();
    }

    // A store created through the registry (the library is switched on first).
    DbData& RegisterStore(testutil::Conf& c) {
        Sqlite3DB::Sqlit3DBEnable("/nonexistent/project");
        const long long id = Sqlite3DB::Create(c.get(), 0);
        EXPECT_GT(id, 0);
        DbData* store = Sqlite3DB::GetDbByID(id);
        if (store == nullptr) {
            throw std::runtime_error("no store registered under ID " + std::to_string(id));
        }
        return *store;
    }

    // The save directory of the store configured with sub, with its '/'.
    std::string SaveDir(const std::string& sub) const { return dir_.path() + sub + "/"; }

    testutil::TempDir dir_{"/mnt/data/"};
    std::list<testutil::Conf> confs_;  // stable addresses for the stores' records
    std::vector<std::unique_ptr<DbData>> stores_;
};

}  // namespace rollingtest

#endif  // TESTS_SQLITE3DB_ROLLINGSTOREFIXTURE_H_
