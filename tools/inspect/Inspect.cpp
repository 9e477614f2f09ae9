// Inspect: finding a store's DB files, judging them as the store's catalog
// scan does, and running read-only queries over the accepted ones. File
// names are parsed with the library's DbFileInfo and ranges are matched with
// the store's own overlap predicate, so numbering and file selection agree
// with what the panel does with the same files.
#include "Inspect.h"

#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <list>
#include <map>

#include "COS.h"
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

// A read-only connection that closes itself.
class Connection {
public:
    explicit Connection(const std::string& path) { m_db = OpenReadOnly(path, m_error); }
    ~Connection() { sqlite3_close_v2(m_db); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    sqlite3* get() const { return m_db; }
    const std::string& error() const { return m_error; }
    std::string message() const { return sqlite3_errmsg(m_db); }

private:
    sqlite3* m_db = nullptr;
    std::string m_error;
};

std::string UriEscape(const std::string& path) {
    std::string out;
    for (char c : path) {
        if (c == '%' || c == '?' || c == '#') {
            static const char kHex[] = "0123456789ABCDEF";
            out += '%';
            out += kHex[(static_cast<unsigned char>(c) >> 4) & 0xF];
            out += kHex[static_cast<unsigned char>(c) & 0xF];
        } else {
            out += c;
        }
    }
    return out;
}

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
std::string ReadInfoRow(sqlite3* db, FileReport& file) {
    Statement info(db, dbtext::kDBInfoSelectSql);
    if (!info.ok()) {
        return std::string("no DBInfo row: ") + sqlite3_errmsg(db);
    }
    const int rc = sqlite3_step(info.get());
    if (rc == SQLITE_DONE) {
        return "no DBInfo row";
    }
    if (rc != SQLITE_ROW) {
        return std::string("no DBInfo row: ") + sqlite3_errmsg(db);
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
bool CollectRows(sqlite3* db, sqlite3_stmt* stmt, const std::string& fileName, bool csvNulls,
                 QueryResult& result) {
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
        result.error = fileName + ": " + sqlite3_errmsg(db);
        return false;
    }
    return true;
}

}  // namespace

sqlite3* OpenReadOnly(const std::string& path, std::string& error) {
    std::string dir = ".";
    const std::string::size_type slash = path.rfind('/');
    if (slash != std::string::npos) {
        dir = path.substr(0, slash + 1);
    }
    // A directory we may not write to cannot take a journal or lock file:
    // then the file is read as immutable.
    std::string uri = "file:" + UriEscape(path) + "?mode=ro";
    if (access(dir.c_str(), W_OK) != 0) {
        uri += "&immutable=1";
    }
    sqlite3* db = nullptr;
    const int rc =
        sqlite3_open_v2(uri.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_URI, nullptr);
    if (rc != SQLITE_OK) {
        error = db != nullptr ? sqlite3_errmsg(db) : sqlite3_errstr(rc);
        sqlite3_close_v2(db);
        return nullptr;
    }
    sqlite3_busy_timeout(db, 2000);
    sqlite3_limit(db, SQLITE_LIMIT_ATTACHED, 0);  // no other file can be reached
    return db;
}

bool ListDbFiles(const std::string& dir, std::vector<std::string>& names) {
    std::list<std::string> listed;
    if (COS::CosDir::ListDir(dir, 0, "*.db", listed) == 0) {
        return false;
    }
    for (const std::string& name : listed) {
        if (COS::CosFile::ExistFile(dir + name) == 1) {  // directories are not files
            names.push_back(name);
        }
    }
    return true;
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
        if (name.compare(0, store.stem.size(), store.stem) != 0) {
            continue;
        }
        FileReport file;
        file.name = name;
        file.path = store.dir + name;
        DbFileInfo info;
        info.SetFullNameAndInfo(file.path);
        file.fileID = info.GetFileID();
        struct stat st;
        if (stat(file.path.c_str(), &st) == 0) {
            file.bytes = static_cast<unsigned long long>(st.st_size);
        }
        store.files.push_back(file);
    }
    std::stable_sort(store.files.begin(), store.files.end(),
                     [](const FileReport& a, const FileReport& b) { return a.fileID < b.fileID; });
}

bool InferTable(Store& store) {
    for (auto it = store.files.rbegin(); it != store.files.rend(); ++it) {
        Connection db(it->path);
        if (db.get() == nullptr) {
            continue;
        }
        FileReport scratch;
        if (!ReadInfoRow(db.get(), scratch).empty()) {
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
    Connection db(file.path);
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
    if (!ColumnListSlice(text ? reinterpret_cast<const char*>(text) : "", stored) ||
        !ColumnListSlice(store.createSql, configured) || stored != configured) {
        file.status = "column list differs";
        return;
    }
    const std::string reason = ReadInfoRow(db.get(), file);
    if (!reason.empty()) {
        file.status = reason;
        return;
    }
    file.accepted = true;
    file.status = "accepted";
}

QueryResult RunQuery(const Store& store, const std::string& sql, RangeKind kind,
                     unsigned long long start, unsigned long long end, bool csvNulls) {
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
        Connection db(file.path);
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
        if (selected && !CollectRows(db.get(), stmt.get(), file.name, csvNulls, result)) {
            return result;
        }
    }
    return result;
}

}  // namespace inspect
