// Shared helpers of the test suite: temporary directories, store
// configurations, and raw SQLite access that bypasses the library's wrapper.
#include "TestUtil.h"

#include <sqlite3.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace testutil {

namespace {

std::string UniqueName() {
    static std::atomic<unsigned> counter{0};
    std::random_device random;
    return "sq3t_" + std::to_string(getpid()) + "_" + std::to_string(counter++) + "_" +
           std::to_string(random() % 1000000);
}

}  // namespace

// --- TempDir ---------------------------------------------------------------------

TempDir::TempDir(const std::string& root) {
    std::string base = root.empty() || root.back() == '/' ? root : root + "/";
    m_name = UniqueName();
    m_path = base + m_name + "/";
    std::error_code ec;
    fs::create_directories(m_path, ec);
    if (!fs::is_directory(m_path)) {
        throw std::runtime_error("cannot create temporary directory " + m_path);
    }
}

TempDir::~TempDir() {
    RemoveTree(m_path);
}

// --- Conf ------------------------------------------------------------------------

Conf::Conf() {
    conf.nStorePattern = 0;
    conf.nMaxRecordNum = 0;
    conf.nMaxFileSize = 0;
    conf.bSplitFile = 1;
    conf.nMaxFileNum = 0;
    conf.nSaveTime = 1000;
    conf.bUseMemDB = 1;
    conf.bSaveFile = 1;
    conf.nDelRecordNum = 0;
    conf.bClearOnReload = 1;
    get();
}

_tagDBConf& Conf::get() {
    conf.pDirName = &dirName;
    conf.pFileName = &fileName;
    conf.pTableName = &tableName;
    conf.pCreateTableSql = &createSql;
    conf.pDelRecordSql = &delSql;
    return conf;
}

// --- Raw SQLite access -------------------------------------------------------------

std::vector<std::vector<std::string>> RawQuery(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        std::string message = db ? sqlite3_errmsg(db) : "out of memory";
        sqlite3_close(db);
        throw std::runtime_error("cannot open " + path + ": " + message);
    }
    sqlite3_busy_timeout(db, 2000);

    std::vector<std::vector<std::string>> rows;
    const char* tail = sql.c_str();
    std::string error;
    while (*tail && error.empty()) {
        sqlite3_stmt* stmt = nullptr;
        if (sqlite3_prepare_v2(db, tail, -1, &stmt, &tail) != SQLITE_OK) {
            error = sqlite3_errmsg(db);
            break;
        }
        if (!stmt) {
            break;
        }
        int rc;
        while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
            std::vector<std::string> row;
            for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
                const unsigned char* text = sqlite3_column_text(stmt, i);
                row.push_back(text ? reinterpret_cast<const char*>(text) : "NULL");
            }
            rows.push_back(row);
        }
        if (rc != SQLITE_DONE) {
            error = sqlite3_errmsg(db);
        }
        sqlite3_finalize(stmt);
    }
    sqlite3_close(db);
    if (!error.empty()) {
        throw std::runtime_error("query on " + path + " failed: " + error);
    }
    return rows;
}

std::string RawValue(const std::string& path, const std::string& sql) {
    const std::vector<std::vector<std::string>> rows = RawQuery(path, sql);
    if (rows.empty() || rows[0].empty()) {
        throw std::runtime_error("no row from \"" + sql + "\" on " + path);
    }
    return rows[0][0];
}

void RawExec(const std::string& path, const std::string& sql) {
    sqlite3* db = nullptr;
    int rc =
        sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    std::string error;
    if (rc != SQLITE_OK) {
        error = db ? sqlite3_errmsg(db) : "out of memory";
    } else {
        sqlite3_busy_timeout(db, 2000);
        char* message = nullptr;
        if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message) != SQLITE_OK) {
            error = message ? message : sqlite3_errmsg(db);
        }
        sqlite3_free(message);
    }
    sqlite3_close(db);
    if (!error.empty()) {
        throw std::runtime_error("exec on " + path + " failed: " + error);
    }
}

// --- Files -------------------------------------------------------------------------

void WriteFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out) {
        throw std::runtime_error("cannot write " + path);
    }
}

bool FileExists(const std::string& path) {
    std::error_code ec;
    return fs::is_regular_file(path, ec);
}

bool DirExists(const std::string& path) {
    std::error_code ec;
    return fs::is_directory(path, ec);
}

void RemoveTree(const std::string& path) {
    std::error_code ec;
    fs::remove_all(path, ec);
}

bool LogContains(const std::vector<std::string>& lines, const std::string& needle) {
    for (const std::string& line : lines) {
        if (line.find(needle) != std::string::npos) {
            return true;
        }
    }
    return false;
}

bool IsStoreLogLine(const std::string& line, const std::string& file, const std::string& text) {
    const std::string head = "[App ]: " + file + "(";
    const std::string tail = "):  " + text + "\r\n";
    if (line.size() < head.size() + tail.size() + 1 || line.compare(0, head.size(), head) != 0 ||
        line.compare(line.size() - tail.size(), tail.size(), tail) != 0) {
        return false;
    }
    const std::string number = line.substr(head.size(), line.size() - head.size() - tail.size());
    return number.find_first_not_of("0123456789") == std::string::npos;
}

int CountStoreLogLines(const std::vector<std::string>& lines, const std::string& file,
                       const std::string& text) {
    int n = 0;
    for (const std::string& line : lines) {
        if (IsStoreLogLine(line, file, text)) {
            ++n;
        }
    }
    return n;
}

std::vector<std::string> LogTexts(const std::vector<std::string>& lines) {
    const std::string prefix = "[App ]: ";
    std::vector<std::string> texts;
    for (const std::string& line : lines) {
        const std::string::size_type open = line.find('(');
        const std::string::size_type close = line.find("):  ");
        if (line.compare(0, prefix.size(), prefix) == 0 && open != std::string::npos &&
            close != std::string::npos && open < close && line.size() >= 2 &&
            line.compare(line.size() - 2, 2, "\r\n") == 0 &&
            IsStoreLogLine(line, line.substr(prefix.size(), open - prefix.size()),
                           line.substr(close + 4, line.size() - close - 6))) {
            texts.push_back(line.substr(prefix.size(), open - prefix.size()) + ": " +
                            line.substr(close + 4, line.size() - close - 6));
        } else {
            texts.push_back(line);
        }
    }
    return texts;
}

// --- Scaling ---------------------------------------------------------------------

int ScaledCount(int full, int minimum) {
    const char* text = std::getenv("SQLITE3DB_TEST_SCALE");
    int scale = text ? std::atoi(text) : 1;
    int count = scale > 1 ? full / scale : full;
    return count < minimum ? minimum : count;
}

std::vector<std::string> EmulatorCommand() {
    std::vector<std::string> words;
    const char* text = std::getenv("SQLITE3DB_EMULATOR");
    std::istringstream in(text ? text : "");
    for (std::string word; in >> word;) {
        words.push_back(word);
    }
    return words;
}

}  // namespace testutil
