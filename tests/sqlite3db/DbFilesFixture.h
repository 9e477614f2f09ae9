// Fixture shared by the tests of a store's DB files (file check, catalog scan,
// file creation): a DbData driven directly over a temporary save directory,
// and helpers that make and inspect DB files without going through the store.
#ifndef TESTS_SQLITE3DB_DBFILESFIXTURE_H_
#define TESTS_SQLITE3DB_DBFILESFIXTURE_H_

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "PlatformSim.h"
#include "Sqlite3DB/DbData/DbData.h"
#include "TestUtil.h"

namespace dbfiles {

// The host's data table as the stores under test configure it.
inline const char kCreateSql[] = "CREATE TABLE rec (id INTEGER PRIMARY KEY, t INTEGER, v TEXT)";

// The DBInfo table exactly as the store creates it.
inline const char kDBInfoSql[] =
    "CREATE TABLE 'DBInfo' (version INTEGER PRIMARY KEY AUTOINCREMENT,MaxID INTEGER ,MinID "
    "INTEGER ,StartTime INTEGER ,EndTime INTEGER,Value0 INTEGER,Value1 INTEGER,Value2 "
    "INTEGER,Value3 INTEGER,Value4 INTEGER)";

// True when line is "[App ]: <file>(<line number>):<rest>" exactly.
inline ::testing::AssertionResult IsLogLine(const std::string& line, const std::string& file,
                                            const std::string& rest) {
    const std::string head = "[App ]: " + file + "(";
    if (line.compare(0, head.size(), head) != 0) {
        return ::testing::AssertionFailure()
               << "line \"" << line << "\" does not start with \"" << head << "\"";
    }
    std::string::size_type pos = head.size();
    const std::string::size_type digits = pos;
    while (pos < line.size() && std::isdigit(static_cast<unsigned char>(line[pos]))) {
        ++pos;
    }
    if (pos == digits || line.compare(pos, 2, "):") != 0) {
        return ::testing::AssertionFailure() << "line \"" << line << "\" has no \"(<line>):\"";
    }
    if (line.substr(pos + 2) != rest) {
        return ::testing::AssertionFailure()
               << "line \"" << line << "\" does not end with \"" << rest << "\"";
    }
    return ::testing::AssertionSuccess();
}

// Number of lines for which IsLogLine(line, file, rest) holds.
inline int CountLogLines(const std::vector<std::string>& lines, const std::string& file,
                         const std::string& rest) {
    int n = 0;
    for (const std::string& line : lines) {
        if (IsLogLine(line, file, rest)) {
            ++n;
        }
    }
    return n;
}

// Output of the stock sqlite3 shell for one statement on a file, in its
// default list mode ("a|b" rows, one per line).
inline std::string ShellQuery(const std::string& path, const std::string& sql) {
    const std::string command = "/usr/bin/sqlite3 -batch '" + path + "' \"" + sql + "\" 2>&1";
    std::string out;
    if (FILE* pipe = popen(command.c_str(), "r")) {
        char buffer[512];
        size_t n;
        while ((n = fread(buffer, 1, sizeof(buffer), pipe)) > 0) {
            out.append(buffer, n);
        }
        pclose(pipe);
    }
    return out;
}

// A DbData set up as a store with stem "rec" and data table "rec" whose save
// directory is a fresh temporary directory.
class DbFilesTest : public ::testing::Test {
protected:
    void SetUp() override {
        PlatformSim::Reset();
        store.m_bSaveFile = 1;
        store.m_strSavePath = dir.path();
        store.m_strFileName = "rec";
        store.m_strTableName = "rec";
        store.m_strCreateTableSql = kCreateSql;
    }
    void TearDown() override { PlatformSim::Reset(); }

    std::string Path(const std::string& name) const { return dir.path() + name; }

    // A DB file as the store writes it: the data table made by createSql,
    // DBInfo, and one DBInfo row of version 1.
    void MakeStoreFile(const std::string& name, unsigned long long minID, unsigned long long maxID,
                       unsigned long long startTime, unsigned long long endTime,
                       const std::string& createSql = kCreateSql) {
        testutil::RawExec(Path(name), createSql + ";" + kDBInfoSql + ";" +
                                          "replace into 'DBInfo' values (1," +
                                          std::to_string(maxID) + "," + std::to_string(minID) +
                                          "," + std::to_string(startTime) + "," +
                                          std::to_string(endTime) + ",0,0,0,0,0)");
    }

    // Bare names of the files in the save directory, sorted.
    std::vector<std::string> FilesOnDisk() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir.path())) {
            names.push_back(entry.path().filename().string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    // FileIDs of the catalog, in catalog order.
    std::vector<unsigned int> CatalogIDs() const {
        std::vector<unsigned int> ids;
        for (const DbFileInfo& rec : store.m_vecFileInfo) {
            ids.push_back(rec.GetFileID());
        }
        return ids;
    }

    // Bare names of the catalog, in catalog order.
    std::vector<std::string> CatalogNames() const {
        std::vector<std::string> names;
        for (const DbFileInfo& rec : store.m_vecFileInfo) {
            names.push_back(rec.GetFullName());
        }
        return names;
    }

    testutil::TempDir dir;
    DbData store;
};

}  // namespace dbfiles

#endif  // TESTS_SQLITE3DB_DBFILESFIXTURE_H_
