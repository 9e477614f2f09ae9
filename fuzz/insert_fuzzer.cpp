// Fuzz target: an insert text run through a store connection's compiled
// inserts (CppSQLite3DB::execDML) and through sqlite3_exec on a plain
// connection with the same defences, three times each (the later runs reuse
// the compiled statement). Texts the splitter does not take run as written on
// both sides and are skipped.
//
// An input whose first byte is odd is the text itself (the splitter's edges);
// one whose first byte is even is read as choices that build an insert the
// splitter takes (head, columns, value forms, integers, string bytes, blanks),
// so that most runs reach the engine.
//
// A finding: any difference in outcome (error code and message, or rows
// changed) or in the stored rows, values and types; a crash, a hang or a
// sanitizer report.
#include <sqlite3.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "CBBSQL.h"
#include "SqliteSettings.h"
#include "StatementCache.h"
#include "tests/SameAsEngine.h"

namespace {

const char kSchema[] =
    "CREATE TABLE t (a INTEGER PRIMARY KEY, b INT, c REAL, d TEXT, e BLOB, f NUMERIC, g, "
    "CHECK (b IS NULL OR b <> 13));"
    "CREATE TABLE u (x TEXT NOT NULL UNIQUE, y INTEGER DEFAULT 7);";
const char* const kDumps[] = {
    "SELECT rowid, quote(a), typeof(a), quote(b), typeof(b), quote(c), typeof(c), quote(d), "
    "typeof(d), quote(e), typeof(e), quote(f), typeof(f), quote(g), typeof(g) FROM t ORDER BY "
    "rowid",
    "SELECT rowid, quote(x), typeof(x), quote(y), typeof(y) FROM u ORDER BY rowid",
};

// Reads the input as a stream of choices; 0 once it is used up.
class Choices {
public:
    Choices(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    unsigned next() { return m_at < m_size ? m_data[m_at++] : 0; }
    bool more() const { return m_at < m_size; }

private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_at = 0;
};

const char* const kHeads[] = {"insert into t",
                              "INSERT OR REPLACE INTO t",
                              "insert or ignore into t",
                              "replace into t",
                              "insert or abort into main.t",
                              "insert into 'u'",
                              "insert or fail into \"u\"",
                              "replace into [u]"};
const char* const kColumns[] = {
    "",    "(a, b, c, d, e, f, g)", "(g, f, e, d, c, b, a)", "(b, a)", "(x, y)", "(y, x)",
    "(x)", "(rowid, x, y)"};
const char* const kBlanks[] = {"", " ", "  ", "\n", "\t", "\r\n", "\f"};
const char* const kForms[] = {"NULL", "null",   "0",      "-0",    "+7",     "- 12",
                              "007",  "13",     "''",     "'12'",  "' 12 '", "'1e3'",
                              "'-5'", "'0x10'", "'1.50'", "'NULL'"};

std::string Built(Choices& in) {
    auto blank = [&] { return std::string(kBlanks[in.next() % 7]); };
    std::string sql = blank() + kHeads[in.next() % 8] + blank() + kColumns[in.next() % 8] +
                      blank() + (in.next() % 2 ? "values" : "VALUES") + blank() + "(";
    int values = 1 + static_cast<int>(in.next() % 8);
    for (int v = 0; v < values; ++v) {
        if (v > 0) {
            sql += blank() + "," + blank();
        }
        unsigned kind = in.next() % 4;
        if (kind == 0) {
            sql += kForms[in.next() % 16];
        } else if (kind == 1) {  // an integer of up to 19 digits, signed or not
            unsigned long long n = 0;
            for (int k = 0; k < 8; ++k) {
                n = n << 8 | in.next();
            }
            unsigned sign = in.next() % 3;
            sql += sign == 0 ? "" : sign == 1 ? "-" : "+";
            sql += std::to_string(n % 10000000000000000000ULL);
        } else if (kind == 2) {  // a small integer, so that keys collide
            sql += std::to_string(in.next() % 8);
        } else {  // a string of the input's bytes, quotes doubled
            sql += '\'';
            for (unsigned k = in.next() % 12; k > 0 && in.more(); --k) {
                char c = static_cast<char>(in.next());
                if (c == '\0') {
                    c = ' ';
                }
                sql += c;
                if (c == '\'') {
                    sql += c;
                }
            }
            sql += '\'';
        }
    }
    return sql + blank() + ")" + (in.next() % 2 ? ";" : "") + blank();
}

[[noreturn]] void Differ(const std::string& sql, const std::string& lib, const std::string& eng) {
    std::fprintf(stderr,
                 "the compiled insert differs from the text\n  text: %s\n  library: %s\n"
                 "  engine:  %s\n",
                 sql.c_str(), lib.c_str(), eng.c_str());
    std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    std::string sql;
    if (data[0] % 2) {
        sql.assign(reinterpret_cast<const char*>(data) + 1, size - 1);
    } else {
        Choices in(data + 1, size - 1);
        sql = Built(in);
    }
    CBBSQL::InsertParts parts;
    if (sql.find('\0') != std::string::npos || !CBBSQL::SplitInsert(sql.c_str(), parts)) {
        return 0;
    }
    CBBSQL::CppSQLite3DB lib;
    lib.open(":memory:");
    lib.execDML(kSchema);
    sqlite3* raw = nullptr;
    if (sqlite3_open_v2(":memory:", &raw, CBBSQL::ConnectionOpenFlags(true),
                        CBBSQL::ConnectionVfs()) != SQLITE_OK) {
        std::abort();
    }
    CBBSQL::ApplyHardening(raw);
    if (sqlite3_exec(raw, kSchema, nullptr, nullptr, nullptr) != SQLITE_OK) {
        std::abort();
    }
    for (int run = 0; run < 3; ++run) {
        sameasengine::Outcome a = sameasengine::ViaLibrary(lib, sql);
        sameasengine::Outcome b = sameasengine::ViaEngine(raw, sql);
        if (a != b) {
            Differ(sql, a.text(), b.text());
        }
    }
    for (const char* dump : kDumps) {
        std::string a = sameasengine::DumpLibrary(lib, dump);
        std::string b = sameasengine::DumpEngine(raw, dump);
        if (a != b) {
            Differ(sql, a, b);
        }
    }
    sqlite3_close(raw);
    return 0;
}
