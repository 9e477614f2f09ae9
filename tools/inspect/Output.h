// Output: how sqlite3db-inspect prints what it found: aligned text tables,
// CSV lines quoted as RFC 4180 asks, and millisecond time stamps as UTC dates.
#ifndef TOOLS_INSPECT_OUTPUT_H_
#define TOOLS_INSPECT_OUTPUT_H_

#include <ostream>
#include <string>
#include <vector>

namespace inspect {

// Rows printed in columns padded to the widest cell (counted in UTF-8
// characters), two blanks apart; a dashed line follows the header.
class TextTable {
public:
    explicit TextTable(std::vector<std::string> header) : m_header(std::move(header)) {}
    void AddRow(std::vector<std::string> row) { m_rows.push_back(std::move(row)); }
    void Print(std::ostream& out) const;

private:
    std::vector<std::string> m_header;
    std::vector<std::vector<std::string>> m_rows;
};

// One CSV record ending in CRLF; a field holding a comma, a double quote, CR
// or LF is put in double quotes with its double quotes doubled.
std::string CsvLine(const std::vector<std::string>& fields);

// "YYYY-MM-DD HH:MM:SS.mmm" (UTC) for a count of milliseconds since the Unix
// epoch between the years 2000 and 2100; "-" for anything else.
std::string FormatUtcMs(unsigned long long ms);

}  // namespace inspect

#endif  // TOOLS_INSPECT_OUTPUT_H_
