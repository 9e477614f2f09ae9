// Shared helpers of the test suite: temporary store directories, store
// configurations, and a raw SQLite reader so that DB files are checked
// independently of the library's own wrapper.
#ifndef TESTS_TESTUTIL_H_
#define TESTS_TESTUTIL_H_

#include <string>
#include <vector>

#include "PlatformSim.h"
#include "Sqlite3DB/DbData/DbData.h"

namespace testutil {

// A uniquely named directory, removed with everything in it on destruction.
// With a root of "/mnt/data/" it lives on the panel's data partition.
class TempDir {
public:
    explicit TempDir(const std::string& root = "/tmp/");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return m_path; }  // ends with '/'
    const std::string& name() const { return m_name; }  // last component

private:
    std::string m_path;
    std::string m_name;
};

// Strings behind a _tagDBConf, kept alive beside it.
struct Conf {
    std::string dirName = "store";
    std::string fileName = "rec.db";
    std::string tableName = "rec";
    std::string createSql = "CREATE TABLE rec (id INTEGER PRIMARY KEY, t INTEGER, v TEXT)";
    std::string delSql;
    _tagDBConf conf{};

    Conf();
    _tagDBConf& get();  // re-points the text fields and returns conf
};

// Results of a query through SQLite's C API, every value as text ("NULL"
// for SQL NULL). Throws std::runtime_error when the file cannot be read.
std::vector<std::vector<std::string>> RawQuery(const std::string& path, const std::string& sql);
// The first value of the first row of such a query. Throws std::runtime_error
// when there is no row: the test fails (GoogleTest reports the exception)
// instead of the test program.
std::string RawValue(const std::string& path, const std::string& sql);
// Runs statements through SQLite's C API, creating the file when missing.
void RawExec(const std::string& path, const std::string& sql);

void WriteFile(const std::string& path, const std::string& content);
bool FileExists(const std::string& path);
bool DirExists(const std::string& path);
void RemoveTree(const std::string& path);

// True when some captured log line contains needle (consumes the captures).
bool LogContains(const std::vector<std::string>& lines, const std::string& needle);

// True when line is "[App ]: <file>(<line number>):  <text>\r\n" exactly, the
// form of every log line of the store (e.g. text "[DB]Save:no such table: t").
bool IsStoreLogLine(const std::string& line, const std::string& file, const std::string& text);
// Number of lines for which IsStoreLogLine(line, file, text) holds.
int CountStoreLogLines(const std::vector<std::string>& lines, const std::string& file,
                       const std::string& text);
// Each log line "[App ]: <file>(<n>):  <text>\r\n" as "<file>: <text>", so
// that a sequence of lines compares without line numbers; other lines stay.
std::vector<std::string> LogTexts(const std::vector<std::string>& lines);

// A loop or trial count scaled for slow runs: full divided by the whole
// number in SQLITE3DB_TEST_SCALE (set for runs under an emulator), never
// below minimum. Every test still runs; only its size shrinks.
int ScaledCount(int full, int minimum = 1);

// The words of SQLITE3DB_EMULATOR (set for cross-built tests): the command
// that runs one of the project's programs, e.g. {"qemu-arm", "-L", "/sysroot"}.
// Empty on native builds.
std::vector<std::string> EmulatorCommand();

}  // namespace testutil

#endif  // TESTS_TESTUTIL_H_
