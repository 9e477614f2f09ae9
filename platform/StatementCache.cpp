// StatementCache: recognising an insert's values, and the compiled shapes.
#include "StatementCache.h"

#include <sqlite3.h>

#include <cstring>

namespace CBBSQL {

namespace {

// The engine's white space and identifier characters (bytes from 0x80 belong
// to identifiers, as in the engine's tokenizer).
bool IsSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\f' || c == '\r';
}

bool IsIdStart(char c) {
    unsigned char u = static_cast<unsigned char>(c);
    return (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || u == '_' || u >= 0x80;
}

bool IsIdChar(char c) {
    return IsIdStart(c) || (c >= '0' && c <= '9') || c == '$';
}

// A cursor over the text; every method advances only when it matches.
class Scanner {
public:
    explicit Scanner(const char* p) : m_p(p) {}

    const char* at() const { return m_p; }

    void space() {
        while (IsSpace(*m_p)) {
            ++m_p;
        }
    }

    bool ch(char c) {
        if (*m_p != c) {
            return false;
        }
        ++m_p;
        return true;
    }

    // A keyword, in any case, as a whole word.
    bool keyword(const char* word) {
        size_t n = strlen(word);
        for (size_t i = 0; i < n; ++i) {
            char c = m_p[i];
            if (c >= 'a' && c <= 'z') {
                c = static_cast<char>(c - 'a' + 'A');
            }
            if (c != word[i]) {
                return false;
            }
        }
        if (IsIdChar(m_p[n])) {
            return false;
        }
        m_p += n;
        return true;
    }

    // A bare or quoted name, kept as written in the shape.
    bool name() {
        if (IsIdStart(*m_p)) {
            while (IsIdChar(*m_p)) {
                ++m_p;
            }
            return true;
        }
        char close = *m_p == '[' ? ']' : *m_p;
        if (close != '"' && close != '\'' && close != '`' && close != ']') {
            return false;
        }
        const char* p = m_p + 1;
        for (;; ++p) {
            if (*p == '\0') {
                return false;
            }
            if (*p == close) {
                if (close != ']' && p[1] == close) {
                    ++p;  // a doubled quote stands for itself
                    continue;
                }
                break;
            }
        }
        m_p = p + 1;
        return true;
    }

    // A decimal integer literal that fits 64 bits and is not the start of a
    // real number or of an illegal token such as "12abc".
    bool integer(long long& value) {
        if (*m_p < '0' || *m_p > '9') {
            return false;
        }
        unsigned long long v = 0;
        const char* p = m_p;
        for (; *p >= '0' && *p <= '9'; ++p) {
            unsigned digit = static_cast<unsigned>(*p - '0');
            if (v > (9223372036854775807ULL - digit) / 10) {
                return false;  // the engine makes it a real number
            }
            v = v * 10 + digit;
        }
        if (IsIdChar(*p) || *p == '.') {
            return false;
        }
        value = static_cast<long long>(v);
        m_p = p;
        return true;
    }

    // A string literal; text and bytes point into the text itself, or into
    // `unescaped` (at the returned offset, >= 0) when it held a doubled quote.
    bool string(const char*& text, int& bytes, std::string& unescaped, long& offset) {
        if (*m_p != '\'') {
            return false;
        }
        const char* start = m_p + 1;
        const char* p = start;
        bool doubled = false;
        for (;; ++p) {
            if (*p == '\0') {
                return false;
            }
            if (*p == '\'') {
                if (p[1] != '\'') {
                    break;
                }
                doubled = true;
                ++p;
            }
        }
        offset = -1;
        text = start;
        bytes = static_cast<int>(p - start);
        if (doubled) {
            offset = static_cast<long>(unescaped.size());
            for (const char* q = start; q < p; ++q) {
                unescaped.push_back(*q);
                if (*q == '\'') {
                    ++q;
                }
            }
            bytes = static_cast<int>(unescaped.size() - offset);
        }
        m_p = p + 1;
        return true;
    }

private:
    const char* m_p;
};

// INSERT [OR conflict] INTO name[.name] [(name, ...)] VALUES, or REPLACE INTO ...
bool ScanHead(Scanner& s) {
    s.space();
    if (s.keyword("INSERT")) {
        s.space();
        if (s.keyword("OR")) {
            s.space();
            if (!s.keyword("REPLACE") && !s.keyword("IGNORE") && !s.keyword("ABORT") &&
                !s.keyword("FAIL") && !s.keyword("ROLLBACK")) {
                return false;
            }
            s.space();
        }
    } else if (s.keyword("REPLACE")) {
        s.space();
    } else {
        return false;
    }
    if (!s.keyword("INTO")) {
        return false;
    }
    s.space();
    if (!s.name()) {
        return false;
    }
    s.space();
    if (s.ch('.')) {
        s.space();
        if (!s.name()) {
            return false;
        }
        s.space();
    }
    if (s.ch('(')) {
        do {
            s.space();
            if (!s.name()) {
                return false;
            }
            s.space();
        } while (s.ch(','));
        if (!s.ch(')')) {
            return false;
        }
        s.space();
    }
    return s.keyword("VALUES");
}

}  // namespace

bool SplitInsert(const char* sql, InsertParts& parts) {
    if (!sql || strnlen(sql, kCachedInsertMaxText + 1) > kCachedInsertMaxText) {
        return false;
    }
    Scanner s(sql);
    if (!ScanHead(s)) {
        return false;
    }
    parts.shape.assign(sql, s.at());
    parts.shape += '(';
    parts.values.clear();
    parts.unescaped.clear();
    parts.offsets.clear();
    s.space();
    if (!s.ch('(')) {
        return false;
    }
    do {
        s.space();
        if (parts.shape.back() != '(') {
            parts.shape += ',';
        }
        InsertValue v{false, 0, nullptr, 0};
        long offset = -1;
        if (s.keyword("NULL")) {
            parts.shape += "NULL";
            s.space();
            continue;
        }
        if (s.string(v.text, v.bytes, parts.unescaped, offset)) {
            v.isText = true;
        } else {
            if (*s.at() == '+' || *s.at() == '-') {
                parts.shape += *s.at();
                s.ch(*s.at());
                s.space();  // "--" starts a comment: the next check refuses it
            }
            if (!s.integer(v.integer)) {
                return false;
            }
        }
        parts.shape += '?';
        parts.values.push_back(v);
        parts.offsets.push_back(offset);
        s.space();
    } while (s.ch(','));
    if (!s.ch(')')) {
        return false;
    }
    s.space();
    if (s.ch(';')) {
        s.space();
    }
    if (*s.at() != '\0') {
        return false;
    }
    parts.shape += ')';
    // Pointers into `unescaped` are taken once it has stopped growing.
    for (size_t i = 0; i < parts.values.size(); ++i) {
        if (parts.offsets[i] >= 0) {
            parts.values[i].text = parts.unescaped.data() + parts.offsets[i];
        }
    }
    return true;
}

// --- StatementCache ------------------------------------------------------------

StatementCache::~StatementCache() {
    clear();
}

sqlite3_stmt* StatementCache::take(const std::string& shape) {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (Entry& e : m_entries) {
        if (!e.busy && e.shape == shape) {
            e.busy = true;
            e.used = ++m_clock;
            return e.stmt;
        }
    }
    return nullptr;
}

void StatementCache::give(const std::string& shape, sqlite3_stmt* stmt) {
    sqlite3_stmt* finalize = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        Entry* oldest = nullptr;
        for (Entry& e : m_entries) {
            if (e.stmt == stmt) {
                e.busy = false;
                return;
            }
            if (!e.busy && (!oldest || e.used < oldest->used)) {
                oldest = &e;
            }
        }
        if (m_entries.size() < kCapacity) {
            m_entries.push_back(Entry{shape, stmt, false, ++m_clock});
        } else if (oldest) {
            finalize = oldest->stmt;
            oldest->shape = shape;
            oldest->stmt = stmt;
            oldest->used = ++m_clock;
        } else {
            finalize = stmt;  // every entry is running on another thread
        }
    }
    sqlite3_finalize(finalize);
}

void StatementCache::drop(sqlite3_stmt* stmt) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (size_t i = 0; i < m_entries.size(); ++i) {
            if (m_entries[i].stmt == stmt) {
                m_entries.erase(m_entries.begin() + static_cast<long>(i));
                break;
            }
        }
    }
    sqlite3_finalize(stmt);
}

void StatementCache::clear() {
    std::vector<sqlite3_stmt*> finalize;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (size_t i = 0; i < m_entries.size();) {
            if (m_entries[i].busy) {
                ++i;
                continue;
            }
            finalize.push_back(m_entries[i].stmt);
            m_entries.erase(m_entries.begin() + static_cast<long>(i));
        }
    }
    for (sqlite3_stmt* stmt : finalize) {
        sqlite3_finalize(stmt);
    }
}

size_t StatementCache::size() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_entries.size();
}

}  // namespace CBBSQL
