// StatementCache: the compiled inserts of one connection.
//
// A host queues thousands of inserts that differ only in their values
// ("insert into alarm values(17, 1717236001700, 'Pump 17 overload')").
// Compiling such a text costs the engine more than running it, so a
// connection keeps the compiled form of each insert's shape (the text with
// every value as a parameter) and binds the values of the next one. Only a
// text whose every value is a plain integer, a string or NULL takes this path;
// any other text, and a shape the engine will not compile, runs as written,
// so results and error messages stay those of the text itself.
// Private to the platform layer.
#ifndef PLATFORM_STATEMENTCACHE_H_
#define PLATFORM_STATEMENTCACHE_H_

#include <mutex>
#include <string>
#include <vector>

struct sqlite3_stmt;

namespace CBBSQL {

// One value of a recognised insert.
struct InsertValue {
    bool isText;
    long long integer;  // when !isText
    const char* text;   // when isText: not terminated; valid while the text is
    int bytes;
};

// A recognised insert: its shape and its values in order.
struct InsertParts {
    std::string shape;
    std::vector<InsertValue> values;
    std::string unescaped;      // the strings that held '' (their values point here)
    std::vector<long> offsets;  // of each value in `unescaped`; -1: it points into the text
};

// The longest text that takes the cached path; longer ones run as written.
constexpr int kCachedInsertMaxText = 4096;

// True, with parts filled, when sql is exactly one
//   INSERT [OR REPLACE|IGNORE|ABORT|FAIL|ROLLBACK] INTO name[.name] [(names)] VALUES (v, ...)
// or REPLACE INTO ... of that form, each v a decimal integer that fits 64 bits
// (after at most one sign), a string literal or NULL,
// followed by no more than one ';' and white space. Anything else (comments,
// real numbers, hex, blobs, parameters, several rows, upserts, RETURNING, a
// second statement, texts over kCachedInsertMaxText bytes) is false.
bool SplitInsert(const char* sql, InsertParts& parts);

// The compiled shapes of one connection. A statement in use is marked busy,
// so two threads never step the same one.
class StatementCache {
public:
    static constexpr size_t kCapacity = 8;

    StatementCache() = default;
    ~StatementCache();
    StatementCache(const StatementCache&) = delete;
    StatementCache& operator=(const StatementCache&) = delete;

    // The compiled shape, marked busy; null when there is no free one.
    sqlite3_stmt* take(const std::string& shape);
    // Hands back a reset statement, taken or newly compiled. When the cache is
    // full the least recently used free one is finalised in its place.
    void give(const std::string& shape, sqlite3_stmt* stmt);
    // Finalises a statement that failed, taken or newly compiled.
    void drop(sqlite3_stmt* stmt);
    // Finalises every free statement (before the connection closes).
    void clear();
    size_t size();

private:
    struct Entry {
        std::string shape;
        sqlite3_stmt* stmt;
        bool busy;
        unsigned long long used;
    };
    std::mutex m_mutex;
    std::vector<Entry> m_entries;  // guarded by m_mutex
    unsigned long long m_clock = 0;
};

}  // namespace CBBSQL

#endif  // PLATFORM_STATEMENTCACHE_H_
