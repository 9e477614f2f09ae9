// CBBSQL: the SQLite access layer of the panel platform.
//
// A thin C++ layer over SQLite's C API. Every engine error is thrown as a
// CppSQLite3Exception that carries SQLite's own message text. Connections,
// cursors and materialised tables clean up after themselves: a cursor may
// outlive the connection object that produced it (the engine keeps the
// connection alive until the last statement is finalised).
#ifndef PLATFORM_CBBSQL_H_
#define PLATFORM_CBBSQL_H_

#include <memory>
#include <string>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

namespace CBBSQL {

class StatementCache;

class CppSQLite3Exception {
public:
    CppSQLite3Exception(int errorCode, const std::string& errorMessage);

    int errorCode() const { return m_nErrCode; }
    // The engine's message text, as SQLite reported it.
    const char* errorMessage() const { return m_strErrMessage.c_str(); }

private:
    int m_nErrCode;
    std::string m_strErrMessage;
};

// A cursor over the rows of one statement. Positioned on the first row when
// returned by CppSQLite3DB::execQuery. Copy and assignment hand the cursor
// over and leave the source empty, as host code written for the panel's
// wrapper expects (`query = db.execQuery(...)`, also from a named query).
class CppSQLite3Query {
public:
    CppSQLite3Query();
    CppSQLite3Query(sqlite3* db, sqlite3_stmt* stmt, bool eof);
    CppSQLite3Query(const CppSQLite3Query& other);
    CppSQLite3Query& operator=(const CppSQLite3Query& other);
    ~CppSQLite3Query();

    bool eof() const;
    void nextRow();
    int numFields() const;
    const char* fieldName(int field) const;
    bool fieldIsNull(int field) const;
    int getIntField(int field, int nullValue = 0) const;
    long long getInt64Field(int field, long long nullValue = 0) const;
    const char* getStringField(int field, const char* nullValue = "") const;
    void finalize();

private:
    void checkField(int field) const;
    void checkStatement() const;

    // Mutable so that a handover can empty the source it was given.
    mutable sqlite3* m_pDB;
    mutable sqlite3_stmt* m_pStmt;
    mutable bool m_bEof;
};

// A whole result, materialised in memory. Copies are independent of each
// other and of the connection that produced them.
class CppSQLite3Table {
public:
    CppSQLite3Table() = default;

    int numRows() const { return m_nRows; }
    int numFields() const { return static_cast<int>(m_vecNames.size()); }
    void setRow(int row);
    const char* fieldName(int field) const;
    bool fieldIsNull(int field) const;
    int getIntField(int field, int nullValue = 0) const;
    long long getInt64Field(int field, long long nullValue = 0) const;
    const char* getStringField(int field, const char* nullValue = "") const;

    // Used by CppSQLite3DB::getTable to fill the table.
    void setFieldNames(std::vector<std::string> names);
    void appendRow(const std::vector<std::string>& values, const std::vector<bool>& nulls);

private:
    const std::string* cell(int field) const;  // null for SQL NULL

    std::vector<std::string> m_vecNames;
    std::vector<std::string> m_vecValues;  // row-major, numFields() per row
    std::vector<bool> m_vecNulls;
    int m_nRows = 0;
    int m_nCurrentRow = 0;
};

class CppSQLite3DB {
public:
    CppSQLite3DB();
    ~CppSQLite3DB();
    CppSQLite3DB(const CppSQLite3DB&) = delete;
    CppSQLite3DB& operator=(const CppSQLite3DB&) = delete;

    // Opens the database, creating the file when it is missing. Throws.
    void open(const char* path);
    // Opens an existing file; returns non-zero on success, 0 when the file is
    // missing or cannot be opened. Never creates a file and never throws.
    int openWithoutCreate(const char* path);
    void close();

    // Runs every statement of the text; returns the rows they changed. An
    // insert of plain values reuses the compiled form of an earlier one of the
    // same shape, with the same result.
    int execDML(const char* sql);
    // Runs the one statement of the text; throws, running nothing, when the
    // text holds more than one. Returns the rows it changed.
    int execOne(const char* sql);
    // Runs the first statement of the text; the cursor is on its first row.
    CppSQLite3Query execQuery(const char* sql);
    CppSQLite3Table getTable(const char* sql);
    bool tableExists(const char* table);

private:
    void setUp(sqlite3* db);
    void checkDB() const;
    sqlite3_stmt* compile(const char* sql);
    sqlite3_stmt* prepare(const char* sql, const char** tail);
    int execCachedInsert(const char* sql);

    sqlite3* m_pDB;
    std::unique_ptr<StatementCache> m_pInserts;  // compiled inserts, finalised at close
};

}  // namespace CBBSQL

#endif  // PLATFORM_CBBSQL_H_
