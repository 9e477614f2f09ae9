// Output: aligned tables, CSV records and UTC dates for sqlite3db-inspect.
#include "Output.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

namespace inspect {

namespace {

// Characters of a UTF-8 text: every byte that does not continue a sequence.
size_t DisplayWidth(const std::string& text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

void PrintRow(std::ostream& out, const std::vector<std::string>& row,
              const std::vector<size_t>& widths) {
    std::string line;
    for (size_t i = 0; i < widths.size(); ++i) {
        const std::string cell = i < row.size() ? row[i] : "";
        line += cell;
        if (i + 1 < widths.size()) {
            line.append(widths[i] - DisplayWidth(cell) + 2, ' ');
        }
    }
    while (!line.empty() && line.back() == ' ') {
        line.pop_back();
    }
    out << line << '\n';
}

}  // namespace

void TextTable::Print(std::ostream& out) const {
    std::vector<size_t> widths(m_header.size(), 0);
    for (size_t i = 0; i < m_header.size(); ++i) {
        widths[i] = DisplayWidth(m_header[i]);
    }
    for (const auto& row : m_rows) {
        for (size_t i = 0; i < row.size() && i < widths.size(); ++i) {
            widths[i] = std::max(widths[i], DisplayWidth(row[i]));
        }
    }
    PrintRow(out, m_header, widths);
    std::vector<std::string> dashes;
    for (size_t width : widths) {
        dashes.push_back(std::string(width, '-'));
    }
    PrintRow(out, dashes, widths);
    for (const auto& row : m_rows) {
        PrintRow(out, row, widths);
    }
}

std::string CsvLine(const std::vector<std::string>& fields) {
    std::string line;
    for (size_t i = 0; i < fields.size(); ++i) {
        const std::string& field = fields[i];
        if (i > 0) {
            line += ',';
        }
        if (field.find_first_of(",\"\r\n") == std::string::npos) {
            line += field;
            continue;
        }
        line += '"';
        for (char c : field) {
            line += c;
            if (c == '"') {
                line += '"';
            }
        }
        line += '"';
    }
    return line + "\r\n";
}

std::string FormatUtcMs(unsigned long long ms) {
    const unsigned long long kYear2000 = 946684800000ULL;
    const unsigned long long kYear2100 = 4102444800000ULL;
    if (ms < kYear2000 || ms >= kYear2100) {
        return "-";
    }
    const std::time_t seconds = static_cast<std::time_t>(ms / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[40];
    std::snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d.%03u", utc.tm_year + 1900,
                  utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
                  static_cast<unsigned>(ms % 1000));
    return text;
}

}  // namespace inspect
