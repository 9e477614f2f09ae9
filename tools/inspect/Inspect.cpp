// Inspect: finding a store's DB files, judging them as the store's catalog
// scan does, and running read-only queries over the accepted ones. File
// names are parsed with the library's DbFileInfo and ranges are matched with
// the store's own overlap predicate, so numbering and file selection agree
// with what the panel does with the same files.
#include "Inspect.h"

#include <dirent.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <map>

#include "Sqlite3DB/DbData/DbData.h"
#include "Sqlite3DB/DbData/DbText.h"
#include "Sqlite3DB/DbFileInfo/DbFileInfo.h"

namespace inspect {

namespace {

// A prepared statement that finalizes itself.
class Statement {
public:
    Statement(sqlite3* db, const std::string& sql) { m_rc = Prepare(db, sql); }
    ~Statement() { sqlite3_finalize(m_stmt); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    bool ok() const { return m_rc == SQLITE_OK && m_stmt != nullptr; }
    sqlite3_stmt* get() const { return m_stmt; }
    bool hasTail() const { return m_tail; }

private:
    int Prepare(sqlite3* db, const std::string& sql) {
        const char* tail = nullptr;
        int rc = sqlite3_prepare_v2(db, sql.c_str(), -1, &m_stmt, &tail);
        // Anything but blanks and semicolons after the first statement.
        for (; tail != nullptr && *tail != '\0'; ++tail) {
            if (std::string(" \t\r\n;").find(*tail) == std::string::npos) {
                m_tail = true;
            }
        }
        return rc;
    }

    sqlite3_stmt* m_stmt = nullptr;
    int m_rc = SQLITE_OK;
    bool m_tail = false;
};

// A read-only connection that closes itself, with its own step budget.
class Connection {
public:
    Connection(const std::string& path, bool allowViews, long long maxSteps) {
        m_budget.left = maxSteps;
        m_db = OpenReadOnly(path, m_error, allowViews, maxSteps > 0 ? &m_budget : nullptr);
    }
    ~Connection() { sqlite3_close_v2(m_db); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    sqlite3* get() const { return m_db; }
    const std::string& error() const { return m_error; }
    std::string message() const {
        if (sqlite3_errcode(m_db) == SQLITE_INTERRUPT && m_budget.left <= 0) {
            return "stopped: the step bound ran out";
        }
        return sqlite3_errmsg(m_db);
    }

private:
    StepBudget m_budget;
    sqlite3* m_db = nullptr;
    std::string m_error;
};

// The engine calls this every kStepsPerCall virtual-machine steps.
constexpr int kStepsPerCall = 10000;
int CountSteps(void* context) {
    StepBudget* budget = static_cast<StepBudget*>(context);
    budget->left -= kStepsPerCall;
    return budget->left <= 0 ? 1 : 0;
}

// Bounds for files from a stranger: a value (string or blob) may take 32 MiB,
// a statement's text 1 MiB (the schema's statements too) and all of the
// engine's memory together 256 MiB; deep expressions and long compound
// selects are refused.
constexpr int kMaxValueBytes = 32 << 20;
constexpr int kMaxSqlBytes = 1 << 20;
constexpr long long kMaxEngineMemory = 256LL << 20;

std::string QuoteIdentifier(const std::string& name) {
    std::string out = "\"";
    for (char c : name) {
        out += c;
        if (c == '"') {
            out += '"';
        }
    }
    return out + "\"";
}

std::string ColumnText(sqlite3_stmt* stmt, int column, bool csvNulls) {
    switch (sqlite3_column_type(stmt, column)) {
        case SQLITE_NULL:
            return csvNulls ? "" : "NULL";
        case SQLITE_BLOB: {
            const unsigned char* data =
                static_cast<const unsigned char*>(sqlite3_column_blob(stmt, column));
            const int size = sqlite3_column_bytes(stmt, column);
            static const char kHex[] = "0123456789abcdef";
            std::string out = "x'";
            for (int i = 0; i < size; ++i) {
                out += kHex[data[i] >> 4];
                out += kHex[data[i] & 0xF];
            }
            return out + "'";
        }
        default: {
            const unsigned char* text = sqlite3_column_text(stmt, column);
            return std::string(reinterpret_cast<const char*>(text),
                               static_cast<size_t>(sqlite3_column_bytes(stmt, column)));
        }
    }
}

// The DBInfo row as the store reads it: MaxID, MinID, StartTime, EndTime in
// columns 1 to 4, NULL read as 0. Returns "" when read, else the reason.
std::string ReadInfoRow(const Connection& db, FileReport& file) {
    Statement info(db.get(), dbtext::kDBInfoSelectSql);
    if (!info.ok()) {
        return "no DBInfo row: " + db.message();
    }
    const int rc = sqlite3_step(info.get());
    if (rc == SQLITE_DONE) {
        return "no DBInfo row";
    }
    if (rc != SQLITE_ROW) {
        return "no DBInfo row: " + db.message();
    }
    file.maxID = static_cast<unsigned long long>(sqlite3_column_int64(info.get(), 1));
    file.minID = static_cast<unsigned long long>(sqlite3_column_int64(info.get(), 2));
    file.startTime = static_cast<unsigned long long>(sqlite3_column_int64(info.get(), 3));
    file.endTime = static_cast<unsigned long long>(sqlite3_column_int64(info.get(), 4));
    file.hasInfo = true;
    return "";
}

long long CountRows(sqlite3* db, const std::string& table) {
    Statement count(db, "SELECT count(*) FROM " + QuoteIdentifier(table));
    if (!count.ok() || sqlite3_step(count.get()) != SQLITE_ROW) {
        return -1;
    }
    return sqlite3_column_int64(count.get(), 0);
}

// The accepted files as the store's catalog holds them: in number order, and
// a newest file that still has StartID 0 starts where the one before ended.
std::vector<FileReport> Catalog(const Store& store) {
    std::vector<FileReport> catalog;
    for (const FileReport& file : store.files) {
        if (file.accepted) {
            catalog.push_back(file);
        }
    }
    if (catalog.size() >= 2 && catalog.back().minID == 0) {
        catalog.back().minID = catalog[catalog.size() - 2].maxID;
        catalog.back().maxID = catalog.back().minID;
    }
    return catalog;
}

// Runs stmt to the end, adding its rows to result. False on an engine error.
bool CollectRows(const Connection& db, sqlite3_stmt* stmt, const std::string& fileName,
                 bool csvNulls, QueryResult& result) {
    const int columns = sqlite3_column_count(stmt);
    int rc;
    while ((rc = sqlite3_step(stmt)) == SQLITE_ROW) {
        std::vector<std::string> row{fileName};
        for (int i = 0; i < columns; ++i) {
            row.push_back(ColumnText(stmt, i, csvNulls));
        }
        result.rows.push_back(row);
    }
    if (rc != SQLITE_DONE) {
        result.error = fileName + ": " + db.message();
        return false;
    }
    return true;
}

}  // namespace

std::string FileUri(const std::string& path) {
    // "file://" + an absolute path leaves the authority empty; a relative
    // path cannot start with "//", so "file:" alone is safe for it.
    std::string uri = path.compare(0, 1, "/") == 0 ? "file://" : "file:";
    static const char kHex[] = "0123456789ABCDEF";
    for (char c : path) {
        const unsigned char byte = static_cast<unsigned char>(c);
        if ((byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
            (byte >= '0' && byte <= '9') || std::string("-._~/").find(c) != std::string::npos) {
            uri += c;
        } else {
            uri += '%';
            uri += kHex[byte >> 4];
            uri += kHex[byte & 0xF];
        }
    }
    // immutable: no lock, no journal rolled back, no -wal or -shm looked at
    // or created; the file is read as it lies on the medium.
    return uri + "?mode=ro&immutable=1";
}

sqlite3* OpenReadOnly(const std::string& path, std::string& error, bool allowViews,
                      StepBudget* budget) {
    // Opening a FIFO would block for good, and a link leads off the medium:
    // only a regular file is opened. (SQLITE_OPEN_NOFOLLOW refuses a link
    // that appears between this check and the open.)
    struct stat st;
    if (lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        error = "not a regular file";
        return nullptr;
    }
    sqlite3_hard_heap_limit64(kMaxEngineMemory);
    sqlite3* db = nullptr;
    const int rc =
        sqlite3_open_v2(FileUri(path).c_str(), &db,
                        SQLITE_OPEN_READONLY | SQLITE_OPEN_URI | SQLITE_OPEN_NOFOLLOW, nullptr);
    if (rc != SQLITE_OK) {
        error = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
        sqlite3_close_v2(db);
        return nullptr;
    }
    // The file's schema code is untrusted: no triggers (none could fire on a
    // read anyway), views only for the user's own query, no function with
    // side effects from the schema, and the schema cannot be written.
    sqlite3_db_config(db, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_VIEW, allowViews ? 1 : 0, nullptr);
    sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0, nullptr);
    sqlite3_limit(db, SQLITE_LIMIT_ATTACHED, 0);  // no other file can be reached
    sqlite3_limit(db, SQLITE_LIMIT_LENGTH, kMaxValueBytes);
    sqlite3_limit(db, SQLITE_LIMIT_SQL_LENGTH, kMaxSqlBytes);
    sqlite3_limit(db, SQLITE_LIMIT_EXPR_DEPTH, 200);
    sqlite3_limit(db, SQLITE_LIMIT_COMPOUND_SELECT, 100);
    sqlite3_limit(db, SQLITE_LIMIT_WORKER_THREADS, 0);
    if (budget != nullptr) {
        sqlite3_progress_handler(db, kStepsPerCall, CountSteps, budget);
    }
    return db;
}

std::string ResolveDir(const std::string& dir) {
    char* real = realpath(dir.c_str(), nullptr);
    if (real == nullptr) {
        return "";
    }
    std::string resolved = real;
    std::free(real);
    return resolved.back() == '/' ? resolved : resolved + "/";
}

bool ListDbFiles(const std::string& dir, std::vector<std::string>& names) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        return false;
    }
    while (const dirent* entry = readdir(d)) {
        const std::string name = entry->d_name;
        if (name.size() >= 3 && name.compare(name.size() - 3, 3, ".db") == 0) {
            names.push_back(name);
        }
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return true;
}

FileReport StatFile(const Store& store, const std::string& name) {
    FileReport file;
    file.name = name;
    file.path = store.dir + name;
    DbFileInfo info;
    info.SetFullNameAndInfo(file.path);
    file.fileID = info.GetFileID();
    struct stat st;
    if (lstat(file.path.c_str(), &st) != 0) {
        file.skipped = true;
        file.status = "skipped: gone";
        return file;
    }
    file.bytes = static_cast<unsigned long long>(st.st_size);
    const char* kind = S_ISREG(st.st_mode)    ? nullptr
                       : S_ISLNK(st.st_mode)  ? "symbolic link"
                       : S_ISDIR(st.st_mode)  ? "directory"
                       : S_ISFIFO(st.st_mode) ? "FIFO"
                       : S_ISSOCK(st.st_mode) ? "socket"
                       : S_ISCHR(st.st_mode)  ? "character device"
                       : S_ISBLK(st.st_mode)  ? "block device"
                                              : "special file";
    if (kind != nullptr) {
        file.skipped = true;
        file.status = std::string("skipped: ") + kind + ", not opened";
    }
    return file;
}

std::string InferStem(const std::vector<std::string>& names) {
    std::map<std::string, int> counts;
    for (const std::string& name : names) {
        const std::string::size_type underscore = name.find('_');
        if (underscore != std::string::npos) {
            ++counts[name.substr(0, underscore)];
        }
    }
    std::string best;
    int bestCount = 0;
    for (const auto& entry : counts) {  // in text order, so ties keep the smallest
        if (entry.second > bestCount) {
            best = entry.first;
            bestCount = entry.second;
        }
    }
    return best;
}

void CollectFiles(Store& store, const std::vector<std::string>& names) {
    for (const std::string& name : names) {
        // The store's own stem test: the name begins with the stem.
        if (name.compare(0, store.stem.size(), store.stem) == 0) {
            store.files.push_back(StatFile(store, name));
        }
    }
    std::stable_sort(store.files.begin(), store.files.end(),
                     [](const FileReport& a, const FileReport& b) { return a.fileID < b.fileID; });
}

bool InferTable(Store& store) {
    for (auto it = store.files.rbegin(); it != store.files.rend(); ++it) {
        if (it->skipped) {
            continue;
        }
        Connection db(it->path, false, kCheckSteps);
        if (db.get() == nullptr) {
            continue;
        }
        FileReport scratch;
        if (!ReadInfoRow(db, scratch).empty()) {
            continue;
        }
        Statement tables(db.get(),
                         "SELECT name, sql FROM sqlite_master WHERE type = 'table' AND name <> "
                         "'DBInfo' AND name NOT LIKE 'sqlite\\_%' ESCAPE '\\'");
        if (!tables.ok()) {
            continue;
        }
        std::vector<std::pair<std::string, std::string>> found;
        while (sqlite3_step(tables.get()) == SQLITE_ROW) {
            const unsigned char* name = sqlite3_column_text(tables.get(), 0);
            const unsigned char* sql = sqlite3_column_text(tables.get(), 1);
            found.emplace_back(name ? reinterpret_cast<const char*>(name) : "",
                               sql ? reinterpret_cast<const char*>(sql) : "");
        }
        for (const auto& table : found) {
            // Either the one data table of the file, or the one asked for.
            if ((store.table.empty() && found.size() == 1) || table.first == store.table) {
                store.table = table.first;
                store.createSql = table.second;
                store.inferredFrom = it->name;
                return true;
            }
        }
    }
    return false;
}

bool ColumnListSlice(const std::string& createSql, std::string& slice) {
    const std::string::size_type open = createSql.find('(');
    if (open == std::string::npos) {
        return false;
    }
    const std::string::size_type close = createSql.find(')');
    slice = createSql.substr(open, close == std::string::npos ? std::string::npos : close - open);
    return true;
}

void CheckFile(const Store& store, FileReport& file) {
    if (file.skipped) {
        return;
    }
    Connection db(file.path, false, kCheckSteps);
    if (db.get() == nullptr) {
        file.status = "not a database: " + db.error();
        return;
    }
    // The same lookup text as the store's scan, table name in double quotes.
    Statement lookup(db.get(), std::string(dbtext::kTableDefinitionSql) + store.table + "\";");
    int rc = lookup.ok() ? sqlite3_step(lookup.get()) : SQLITE_ERROR;
    if (rc != SQLITE_ROW && rc != SQLITE_DONE) {
        file.status = "not a database: " + db.message();
        return;
    }
    if (rc == SQLITE_DONE) {
        file.status = "no data table (the library would delete it)";
        return;
    }
    file.rows = CountRows(db.get(), store.table);
    const unsigned char* text = sqlite3_column_text(lookup.get(), 0);
    std::string stored, configured;
    // The library cuts the slice without looking for the "(": its scan
    // throws std::out_of_range out of the host's call at such a file.
    if (!ColumnListSlice(text ? reinterpret_cast<const char*>(text) : "", stored)) {
        file.status = "stored CREATE text has no \"(\" (the library's scan would throw)";
        return;
    }
    if (!ColumnListSlice(store.createSql, configured)) {
        file.status = "configured CREATE text has no \"(\" (the library's scan would throw)";
        return;
    }
    if (stored != configured) {
        file.status = "column list differs";
        return;
    }
    const std::string reason = ReadInfoRow(db, file);
    if (!reason.empty()) {
        file.status = reason;
        return;
    }
    file.accepted = true;
    file.status = "accepted";
}

QueryResult RunQuery(const Store& store, const std::string& sql, RangeKind kind,
                     unsigned long long start, unsigned long long end, bool csvNulls,
                     long long maxSteps) {
    QueryResult result;
    for (const FileReport& file : store.files) {
        if (!file.accepted) {
            result.warnings.push_back("skipping " + file.name + ": " + file.status);
        }
    }
    const std::vector<FileReport> catalog = Catalog(store);
    if (catalog.empty()) {
        result.error = "no accepted file to query";
        result.noAcceptedFile = true;
        return result;
    }
    DbData overlap;  // only its range predicates are used
    bool first = true;
    for (const FileReport& file : catalog) {
        const bool selected =
            kind == RangeKind::kAll ||
            (kind == RangeKind::kIds &&
             overlap.FineIDCmpFileID(start, end, file.minID, file.maxID) == 1) ||
            (kind == RangeKind::kTimes &&
             overlap.FineTimeCmpFileTime(start, end, file.startTime, file.endTime) == 1);
        // The first file always compiles the statement, so that bad SQL and
        // the header show even when the range selects nothing.
        if (!selected && !first) {
            continue;
        }
        // The user's own statement may read views; the step bound still
        // stops a crafted one that would never end.
        Connection db(file.path, true, maxSteps);
        if (db.get() == nullptr) {
            result.error = file.name + ": " + db.error();
            return result;
        }
        Statement stmt(db.get(), sql);
        if (!stmt.ok()) {
            result.error = stmt.get() == nullptr && sqlite3_errcode(db.get()) == SQLITE_OK
                               ? "the query holds no statement"
                               : db.message();
            return result;
        }
        if (stmt.hasTail()) {
            result.error = "the query must be a single statement";
            return result;
        }
        if (!sqlite3_stmt_readonly(stmt.get())) {
            result.error = "the query must not change anything (read-only statements only)";
            return result;
        }
        if (first) {
            result.header.push_back("file");
            for (int i = 0; i < sqlite3_column_count(stmt.get()); ++i) {
                result.header.push_back(sqlite3_column_name(stmt.get(), i));
            }
            first = false;
        }
        if (selected && !CollectRows(db, stmt.get(), file.name, csvNulls, result)) {
            return result;
        }
    }
    return result;
}

}  // namespace inspect
