// Running one text on a store connection (CppSQLite3DB::execDML) and through
// sqlite3_exec on a plain connection, and reading back what each stored: the
// comparison behind the compiled-insert tests and fuzz target.
#ifndef TESTS_SAMEASENGINE_H_
#define TESTS_SAMEASENGINE_H_

#include <sqlite3.h>

#include <ostream>
#include <string>

#include "CBBSQL.h"

namespace sameasengine {

// What running one text did: the error (primary code and message) or the
// rows it changed.
struct Outcome {
    bool ok = true;
    int code = 0;
    std::string message;
    int changes = 0;

    bool operator==(const Outcome& o) const {
        return ok == o.ok && code == o.code && message == o.message && changes == o.changes;
    }
    bool operator!=(const Outcome& o) const { return !(*this == o); }
    std::string text() const {
        return ok ? "ok, changes " + std::to_string(changes)
                  : "error " + std::to_string(code) + ": " + message;
    }
};

inline std::ostream& operator<<(std::ostream& os, const Outcome& o) {
    return os << o.text();
}

inline Outcome ViaLibrary(CBBSQL::CppSQLite3DB& db, const std::string& sql) {
    Outcome out;
    try {
        out.changes = db.execDML(sql.c_str());
    } catch (const CBBSQL::CppSQLite3Exception& e) {
        out.ok = false;
        out.code = e.errorCode() & 0xff;
        out.message = e.errorMessage();
    }
    return out;
}

inline Outcome ViaEngine(sqlite3* db, const std::string& sql) {
    Outcome out;
    int before = sqlite3_total_changes(db);
    char* error = nullptr;
    int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error);
    if (rc != SQLITE_OK) {
        out.ok = false;
        out.code = rc & 0xff;
        out.message = error ? error : "";
    } else {
        out.changes = sqlite3_total_changes(db) - before;
    }
    sqlite3_free(error);
    return out;
}

// The rows of a query, a line each, fields as text ("<null>" for NULL).
inline std::string DumpLibrary(CBBSQL::CppSQLite3DB& db, const char* sql) {
    CBBSQL::CppSQLite3Table table = db.getTable(sql);
    std::string out;
    for (int r = 0; r < table.numRows(); ++r) {
        table.setRow(r);
        for (int f = 0; f < table.numFields(); ++f) {
            out += table.getStringField(f, "<null>");
            out += '|';
        }
        out += '\n';
    }
    return out;
}

inline std::string DumpEngine(sqlite3* db, const char* sql) {
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK) {
        return std::string("prepare failed: ") + sqlite3_errmsg(db);
    }
    std::string out;
    while (sqlite3_step(stmt) == SQLITE_ROW) {
        for (int f = 0; f < sqlite3_column_count(stmt); ++f) {
            const unsigned char* text = sqlite3_column_text(stmt, f);
            out += text ? reinterpret_cast<const char*>(text) : "<null>";
            out += '|';
        }
        out += '\n';
    }
    sqlite3_finalize(stmt);
    return out;
}

}  // namespace sameasengine

#endif  // TESTS_SAMEASENGINE_H_
