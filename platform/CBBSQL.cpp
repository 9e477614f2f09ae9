// CBBSQL: the SQLite access layer over SQLite's C API. Engine errors are
// thrown as CppSQLite3Exception with SQLite's own message text.
#include "CBBSQL.h"

#include <sqlite3.h>

#include <cstdlib>
#include <memory>
#include <utility>

#include "SqliteSettings.h"
#include "StatementCache.h"

namespace CBBSQL {

namespace {

const char kNotOpen[] = "database not open";
const char kNoStatement[] = "no statement in the SQL text";
const char kNullQuery[] = "query has no statement";
const char kBadField[] = "field index out of range";
const char kBadRow[] = "row index out of range";
const char kNotOneStatement[] = "more than one statement in the SQL text";

struct StmtFinalizer {
    void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using StmtPtr = std::unique_ptr<sqlite3_stmt, StmtFinalizer>;

[[noreturn]] void ThrowEngineError(sqlite3* db, int code) {
    throw CppSQLite3Exception(code, db ? sqlite3_errmsg(db) : sqlite3_errstr(code));
}

// Steps once; true on a row, false when done, throws on an engine error.
bool Step(sqlite3* db, sqlite3_stmt* stmt) {
    StepGuard timed;
    int rc = sqlite3_step(stmt);
    if (rc == SQLITE_ROW) {
        return true;
    }
    if (rc != SQLITE_DONE) {
        ThrowEngineError(db, rc);
    }
    return false;
}

}  // namespace

// --- CppSQLite3Exception -------------------------------------------------------

CppSQLite3Exception::CppSQLite3Exception(int errorCode, const std::string& errorMessage)
    : m_nErrCode(errorCode), m_strErrMessage(errorMessage) {}

// --- CppSQLite3Query -----------------------------------------------------------

CppSQLite3Query::CppSQLite3Query() : m_pDB(nullptr), m_pStmt(nullptr), m_bEof(true) {}

CppSQLite3Query::CppSQLite3Query(sqlite3* db, sqlite3_stmt* stmt, bool eof)
    : m_pDB(db), m_pStmt(stmt), m_bEof(eof) {}

// Copying hands the cursor over, as host code written for the panel's wrapper
// expects; the source is left empty.
CppSQLite3Query::CppSQLite3Query(const CppSQLite3Query& other)
    : m_pDB(other.m_pDB), m_pStmt(other.m_pStmt), m_bEof(other.m_bEof) {
    other.m_pDB = nullptr;
    other.m_pStmt = nullptr;
    other.m_bEof = true;
}

CppSQLite3Query& CppSQLite3Query::operator=(const CppSQLite3Query& other) {
    if (this != &other) {
        finalize();
        m_pDB = other.m_pDB;
        m_pStmt = other.m_pStmt;
        m_bEof = other.m_bEof;
        other.m_pDB = nullptr;
        other.m_pStmt = nullptr;
        other.m_bEof = true;
    }
    return *this;
}

CppSQLite3Query::~CppSQLite3Query() {
    finalize();
}

// An empty or finalised query reads as one with no rows left.
bool CppSQLite3Query::eof() const {
    return m_bEof || !m_pStmt;
}

void CppSQLite3Query::nextRow() {
    checkStatement();
    if (m_bEof) {
        return;  // stepping a finished statement would run it again
    }
    m_bEof = true;  // stays so when the step throws
    m_bEof = !Step(m_pDB, m_pStmt);
}

int CppSQLite3Query::numFields() const {
    checkStatement();
    return sqlite3_column_count(m_pStmt);
}

const char* CppSQLite3Query::fieldName(int field) const {
    checkField(field);
    const char* name = sqlite3_column_name(m_pStmt, field);
    return name ? name : "";
}

// Past the last row every field reads as NULL, as with the panel's wrapper.
bool CppSQLite3Query::fieldIsNull(int field) const {
    checkField(field);
    return m_bEof || sqlite3_column_type(m_pStmt, field) == SQLITE_NULL;
}

// sqlite3_column_int keeps the low 32 bits of a larger value; callers rely on it.
int CppSQLite3Query::getIntField(int field, int nullValue) const {
    return fieldIsNull(field) ? nullValue : sqlite3_column_int(m_pStmt, field);
}

long long CppSQLite3Query::getInt64Field(int field, long long nullValue) const {
    return fieldIsNull(field) ? nullValue : sqlite3_column_int64(m_pStmt, field);
}

const char* CppSQLite3Query::getStringField(int field, const char* nullValue) const {
    if (fieldIsNull(field)) {
        return nullValue;
    }
    const unsigned char* text = sqlite3_column_text(m_pStmt, field);
    return text ? reinterpret_cast<const char*>(text) : nullValue;
}

void CppSQLite3Query::finalize() {
    if (m_pStmt) {
        // A step error was already thrown by nextRow or execQuery.
        sqlite3_finalize(m_pStmt);
    }
    m_pStmt = nullptr;
    m_pDB = nullptr;
    m_bEof = true;
}

void CppSQLite3Query::checkField(int field) const {
    checkStatement();
    if (field < 0 || field >= sqlite3_column_count(m_pStmt)) {
        throw CppSQLite3Exception(SQLITE_RANGE, kBadField);
    }
}

void CppSQLite3Query::checkStatement() const {
    if (!m_pStmt) {
        throw CppSQLite3Exception(SQLITE_MISUSE, kNullQuery);
    }
}

// --- CppSQLite3Table -----------------------------------------------------------

void CppSQLite3Table::setRow(int row) {
    if (row < 0 || row >= m_nRows) {
        throw CppSQLite3Exception(SQLITE_RANGE, kBadRow);
    }
    m_nCurrentRow = row;
}

const char* CppSQLite3Table::fieldName(int field) const {
    if (field < 0 || field >= numFields()) {
        throw CppSQLite3Exception(SQLITE_RANGE, kBadField);
    }
    return m_vecNames[field].c_str();
}

bool CppSQLite3Table::fieldIsNull(int field) const {
    return cell(field) == nullptr;
}

// Truncated to 32 bits like CppSQLite3Query::getIntField, so both read alike.
int CppSQLite3Table::getIntField(int field, int nullValue) const {
    const std::string* value = cell(field);
    return value ? static_cast<int>(std::strtoll(value->c_str(), nullptr, 10)) : nullValue;
}

long long CppSQLite3Table::getInt64Field(int field, long long nullValue) const {
    const std::string* value = cell(field);
    return value ? std::strtoll(value->c_str(), nullptr, 10) : nullValue;
}

const char* CppSQLite3Table::getStringField(int field, const char* nullValue) const {
    const std::string* value = cell(field);
    return value ? value->c_str() : nullValue;
}

void CppSQLite3Table::setFieldNames(std::vector<std::string> names) {
    m_vecNames = std::move(names);
    m_vecValues.clear();
    m_vecNulls.clear();
    m_nRows = 0;
    m_nCurrentRow = 0;
}

void CppSQLite3Table::appendRow(const std::vector<std::string>& values,
                                const std::vector<bool>& nulls) {
    if (values.size() != m_vecNames.size() || nulls.size() != m_vecNames.size()) {
        throw CppSQLite3Exception(SQLITE_MISUSE, "row does not match the table's fields");
    }
    m_vecValues.insert(m_vecValues.end(), values.begin(), values.end());
    m_vecNulls.insert(m_vecNulls.end(), nulls.begin(), nulls.end());
    ++m_nRows;
}

const std::string* CppSQLite3Table::cell(int field) const {
    if (field < 0 || field >= numFields()) {
        throw CppSQLite3Exception(SQLITE_RANGE, kBadField);
    }
    if (m_nCurrentRow >= m_nRows) {
        throw CppSQLite3Exception(SQLITE_RANGE, kBadRow);
    }
    size_t index = static_cast<size_t>(m_nCurrentRow) * m_vecNames.size() + field;
    return m_vecNulls[index] ? nullptr : &m_vecValues[index];
}

// --- CppSQLite3DB --------------------------------------------------------------

CppSQLite3DB::CppSQLite3DB() : m_pDB(nullptr), m_pInserts(new StatementCache) {}

CppSQLite3DB::~CppSQLite3DB() {
    close();
}

void CppSQLite3DB::open(const char* path) {
    close();
    if (!path) {
        throw CppSQLite3Exception(SQLITE_MISUSE, "no database path");
    }
    sqlite3* db = nullptr;
    int rc = sqlite3_open_v2(path, &db, ConnectionOpenFlags(true), ConnectionVfs());
    if (rc != SQLITE_OK) {
        CppSQLite3Exception error(rc, db ? sqlite3_errmsg(db) : sqlite3_errstr(rc));
        sqlite3_close_v2(db);
        throw error;
    }
    setUp(db);
}

int CppSQLite3DB::openWithoutCreate(const char* path) {
    close();
    if (!path) {
        return 0;
    }
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path, &db, ConnectionOpenFlags(false), ConnectionVfs()) != SQLITE_OK) {
        sqlite3_close_v2(db);
        return 0;
    }
    setUp(db);
    return 1;
}

// Every connection, to a file or to the memory buffer, is set up the same way.
void CppSQLite3DB::setUp(sqlite3* db) {
    sqlite3_busy_timeout(db, 2000);
    ApplyHardening(db);
    ApplyDurability(db);
    m_pDB = db;
}

// close_v2 lets cursors that are still open keep the connection alive until
// they are finalised.
void CppSQLite3DB::close() {
    m_pInserts->clear();
    if (m_pDB) {
        sqlite3_close_v2(m_pDB);
        m_pDB = nullptr;
    }
}

int CppSQLite3DB::execDML(const char* sql) {
    checkDB();
    if (!sql) {
        throw CppSQLite3Exception(SQLITE_MISUSE, kNoStatement);
    }
    int cached = execCachedInsert(sql);
    if (cached >= 0) {
        return cached;
    }
    int before = sqlite3_total_changes(m_pDB);
    const char* tail = sql;
    while (*tail) {
        sqlite3_stmt* raw = nullptr;
        int rc = sqlite3_prepare_v2(m_pDB, tail, -1, &raw, &tail);
        StmtPtr stmt(raw);
        if (rc != SQLITE_OK) {
            ThrowEngineError(m_pDB, rc);
        }
        if (!stmt) {
            break;  // only white space or comments are left
        }
        while (Step(m_pDB, stmt.get())) {
        }
    }
    return sqlite3_total_changes(m_pDB) - before;
}

// Runs an insert of plain values through the compiled form of its shape (see
// StatementCache.h). Returns -1, having run nothing, when the text is not such
// an insert or its shape does not compile: the caller then runs the text as
// written, so that a faulty text reports its own error.
int CppSQLite3DB::execCachedInsert(const char* sql) {
    thread_local InsertParts parts;
    if (!SplitInsert(sql, parts)) {
        return -1;
    }
    sqlite3_stmt* stmt = m_pInserts->take(parts.shape);
    if (!stmt) {
        StepGuard timed;
        int rc =
            sqlite3_prepare_v3(m_pDB, parts.shape.c_str(), static_cast<int>(parts.shape.size()),
                               SQLITE_PREPARE_PERSISTENT, &stmt, nullptr);
        if (rc != SQLITE_OK || !stmt ||
            sqlite3_bind_parameter_count(stmt) != static_cast<int>(parts.values.size())) {
            sqlite3_finalize(stmt);
            return -1;
        }
    }
    // Dropped from the cache when the step throws.
    struct Taken {
        StatementCache* cache;
        sqlite3_stmt* stmt;
        ~Taken() {
            if (stmt) {
                cache->drop(stmt);
            }
        }
    } taken{m_pInserts.get(), stmt};
    for (size_t i = 0; i < parts.values.size(); ++i) {
        const InsertValue& v = parts.values[i];
        int at = static_cast<int>(i) + 1;
        int rc = v.isText ? sqlite3_bind_text(stmt, at, v.text, v.bytes, SQLITE_STATIC)
                          : sqlite3_bind_int64(stmt, at, v.integer);
        if (rc != SQLITE_OK) {
            return -1;
        }
    }
    int before = sqlite3_total_changes(m_pDB);
    while (Step(m_pDB, stmt)) {
    }
    int changes = sqlite3_total_changes(m_pDB) - before;
    sqlite3_reset(stmt);
    sqlite3_clear_bindings(stmt);  // the values point into this call's text
    taken.stmt = nullptr;
    m_pInserts->give(parts.shape, stmt);
    return changes;
}

// For statements formatted from file names and paths: a text that holds a
// second statement is refused before anything runs.
int CppSQLite3DB::execOne(const char* sql) {
    checkDB();
    if (!sql) {
        throw CppSQLite3Exception(SQLITE_MISUSE, kNoStatement);
    }
    StmtPtr stmt(prepare(sql, &sql));
    if (!stmt) {
        throw CppSQLite3Exception(SQLITE_MISUSE, kNoStatement);
    }
    while (*sql) {
        const char* before = sql;
        StmtPtr rest(prepare(sql, &sql));
        if (rest) {
            throw CppSQLite3Exception(SQLITE_MISUSE, kNotOneStatement);
        }
        if (sql == before) {
            break;
        }
    }
    int changes = sqlite3_total_changes(m_pDB);
    while (Step(m_pDB, stmt.get())) {
    }
    return sqlite3_total_changes(m_pDB) - changes;
}

CppSQLite3Query CppSQLite3DB::execQuery(const char* sql) {
    checkDB();
    StmtPtr stmt(compile(sql));
    bool hasRow = Step(m_pDB, stmt.get());
    return CppSQLite3Query(m_pDB, stmt.release(), !hasRow);
}

CppSQLite3Table CppSQLite3DB::getTable(const char* sql) {
    checkDB();
    StmtPtr stmt(compile(sql));
    int fields = sqlite3_column_count(stmt.get());

    CppSQLite3Table table;
    std::vector<std::string> names;
    for (int i = 0; i < fields; ++i) {
        const char* name = sqlite3_column_name(stmt.get(), i);
        names.push_back(name ? name : "");
    }
    table.setFieldNames(std::move(names));

    std::vector<std::string> values(fields);
    std::vector<bool> nulls(fields);
    while (Step(m_pDB, stmt.get())) {
        for (int i = 0; i < fields; ++i) {
            nulls[i] = sqlite3_column_type(stmt.get(), i) == SQLITE_NULL;
            const unsigned char* text = sqlite3_column_text(stmt.get(), i);
            int bytes = sqlite3_column_bytes(stmt.get(), i);
            values[i] = text ? std::string(reinterpret_cast<const char*>(text), bytes) : "";
        }
        table.appendRow(values, nulls);
    }
    return table;
}

bool CppSQLite3DB::tableExists(const char* table) {
    checkDB();
    if (!table) {
        return false;
    }
    StmtPtr stmt(compile("SELECT count(*) FROM sqlite_master WHERE type='table' AND name=?"));
    int rc = sqlite3_bind_text(stmt.get(), 1, table, -1, SQLITE_TRANSIENT);
    if (rc != SQLITE_OK) {
        ThrowEngineError(m_pDB, rc);
    }
    return Step(m_pDB, stmt.get()) && sqlite3_column_int(stmt.get(), 0) > 0;
}

void CppSQLite3DB::checkDB() const {
    if (!m_pDB) {
        throw CppSQLite3Exception(SQLITE_MISUSE, kNotOpen);
    }
}

// Compiles the first statement of sql; throws when there is none.
sqlite3_stmt* CppSQLite3DB::compile(const char* sql) {
    checkDB();
    if (!sql) {
        throw CppSQLite3Exception(SQLITE_MISUSE, kNoStatement);
    }
    sqlite3_stmt* stmt = prepare(sql, nullptr);
    if (!stmt) {
        throw CppSQLite3Exception(SQLITE_MISUSE, kNoStatement);
    }
    return stmt;
}

// Compiles the first statement of sql (null when there is none); throws.
sqlite3_stmt* CppSQLite3DB::prepare(const char* sql, const char** tail) {
    sqlite3_stmt* stmt = nullptr;
    int rc;
    {
        StepGuard timed;  // loading a file's schema runs statements too
        rc = sqlite3_prepare_v2(m_pDB, sql, -1, &stmt, tail);
    }
    if (rc != SQLITE_OK) {
        sqlite3_finalize(stmt);
        ThrowEngineError(m_pDB, rc);
    }
    return stmt;
}

}  // namespace CBBSQL
