// sqlite3db-inspect: looks into a directory of a store's DB files, as copied
// off a panel, without changing anything. It lists the files in file-number
// order with their DBInfo ranges, row counts, sizes and whether the store
// would accept each one, or runs one read-only query over the accepted files
// (all of them, or those overlapping an ID or time range) and prints the rows
// as an aligned table or as CSV.
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "Inspect.h"
#include "Output.h"

namespace {

const char kUsageText[] = R"USAGE(Usage: sqlite3db-inspect [options] DIR

Lists the DB files of the Sqlite3DB store in DIR, or runs a query over them.
Nothing in DIR is ever changed: each file is opened read-only and immutable,
so no journal is rolled back and no -wal or -shm file is created or replayed
(what a -wal file holds is not seen). Symbolic links, FIFOs, sockets,
devices and directories named like DB files are never opened: the listing
shows them as skipped. Files are treated as untrusted: their triggers never
run, their views serve only --query, and every file's checks are stopped
after 10 million engine steps, 32 MiB per value and 256 MiB of engine memory.

Options:
  --stem STEM    file-name stem of the store (default: the most common text
                 before the first "_" among the *.db names); as on the panel,
                 every *.db name that begins with the stem belongs to the store
  --table NAME   the store's data table (default: the one table besides
                 DBInfo in the newest file that has a DBInfo row)
  --create SQL   the data table's CREATE statement as the store is configured
                 (needs --table; default: the statement stored in the newest
                 file that holds the table)
  --query SQL    run one read-only statement on every accepted file, oldest
                 file first; a first column "file" names each row's file
  --ids A:B      with --query: only the files whose record-ID range overlaps
                 A..B (bounds included; 0:0 selects every file)
  --times A:B    with --query: only the files whose time range overlaps A..B
                 (milliseconds since the Unix epoch; 0:0 selects every file)
  --csv          with --query: print CSV (RFC 4180 quoting, CRLF line ends)
                 instead of an aligned table; NULL prints as an empty field
  --max-steps N  with --query: stop the query on a file after N engine steps
                 (default 200000000, a few seconds; 0: no bound), so that a
                 crafted view cannot run for ever
  --help         print this text and exit

A file is accepted when the store would catalogue it: the data table exists
in it, its CREATE statement's column list up to the first ")" is the same
text as the configured one's, and it has a DBInfo row with version 1. The
status also names the files the library treats harshly: "no data table (the
library would delete it)" is deleted by the panel's scan, and a stored CREATE
text with no "(" makes the panel's scan throw out of the host's call.
--ids and --times match the ranges as the store's catalog holds them: a
newest file still at MinID 0 starts where the file before it ended.

Exit codes:
  0  success
  1  bad command line
  2  DIR is missing or is not a readable directory
  3  DIR holds no DB files of the store
  4  the query failed (the engine's message is printed)
  5  some files were not accepted (the listing says why; a query skips them
     with a warning), or no file was accepted at all
  6  the data table could not be inferred: give --table (and --create)
)USAGE";

enum ExitCode {
    kOk = 0,
    kUsage = 1,
    kNoDirectory = 2,
    kNoFiles = 3,
    kQueryFailed = 4,
    kNotAccepted = 5,
    kNoTable = 6,
};

struct Options {
    std::string dir;
    std::string stem;
    bool hasStem = false;
    std::string table;
    std::string createSql;
    std::string query;
    bool hasQuery = false;
    inspect::RangeKind range = inspect::RangeKind::kAll;
    unsigned long long start = 0;
    unsigned long long end = 0;
    bool csv = false;
    long long maxSteps = inspect::kQuerySteps;
    bool hasMaxSteps = false;
    bool help = false;
};

int Fail(int code, const std::string& message) {
    std::cerr << "sqlite3db-inspect: " << message << '\n';
    if (code == kUsage) {
        std::cerr << "Try 'sqlite3db-inspect --help'.\n";
    }
    return code;
}

bool ParseNumber(const std::string& text, unsigned long long& value) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    char* endp = nullptr;
    errno = 0;
    value = std::strtoull(text.c_str(), &endp, 10);
    return errno == 0 && *endp == '\0';
}

bool ParseRange(const std::string& text, unsigned long long& start, unsigned long long& end) {
    const std::string::size_type colon = text.find(':');
    return colon != std::string::npos && ParseNumber(text.substr(0, colon), start) &&
           ParseNumber(text.substr(colon + 1), end);
}

// Fills options from the command line; returns "" or what is wrong.
std::string ParseArgs(int argc, char** argv, Options& options) {
    std::vector<std::string> args(argv + 1, argv + argc);
    for (size_t i = 0; i < args.size(); ++i) {
        std::string arg = args[i];
        std::string value;
        bool hasValue = false;
        const std::string::size_type eq = arg.find('=');
        if (arg.compare(0, 2, "--") == 0 && eq != std::string::npos) {
            value = arg.substr(eq + 1);
            arg = arg.substr(0, eq);
            hasValue = true;
        }
        auto take = [&](std::string& out) {
            if (!hasValue && i + 1 >= args.size()) {
                return false;
            }
            out = hasValue ? value : args[++i];
            return true;
        };
        std::string range;
        if (arg == "--help" || arg == "-h") {
            options.help = true;
        } else if (arg == "--csv") {
            options.csv = true;
        } else if (arg == "--stem") {
            options.hasStem = true;
            if (!take(options.stem))
                return "--stem needs a value";
        } else if (arg == "--table") {
            if (!take(options.table))
                return "--table needs a value";
        } else if (arg == "--create") {
            if (!take(options.createSql))
                return "--create needs a value";
        } else if (arg == "--query") {
            options.hasQuery = true;
            if (!take(options.query))
                return "--query needs a value";
        } else if (arg == "--max-steps") {
            std::string steps;
            unsigned long long n = 0;
            if (!take(steps) || !ParseNumber(steps, n) || n > 9000000000000000000ULL) {
                return "--max-steps needs a whole number";
            }
            options.maxSteps = static_cast<long long>(n);
            options.hasMaxSteps = true;
        } else if (arg == "--ids" || arg == "--times") {
            if (options.range != inspect::RangeKind::kAll)
                return "give --ids or --times, not both";
            if (!take(range) || !ParseRange(range, options.start, options.end)) {
                return arg + " needs a range A:B of two whole numbers";
            }
            options.range = arg == "--ids" ? inspect::RangeKind::kIds : inspect::RangeKind::kTimes;
        } else if (arg.compare(0, 1, "-") == 0 && arg != "-") {
            return "unknown option " + arg;
        } else if (options.dir.empty()) {
            options.dir = arg;
        } else {
            return "only one directory can be given";
        }
    }
    if (options.help) {
        return "";
    }
    if (options.dir.empty())
        return "no directory given";
    if (!options.createSql.empty() && options.table.empty())
        return "--create needs --table";
    if (!options.hasQuery &&
        (options.csv || options.hasMaxSteps || options.range != inspect::RangeKind::kAll)) {
        return "--ids, --times, --csv and --max-steps go with --query";
    }
    return "";
}

std::string Number(unsigned long long value, bool known) {
    return known ? std::to_string(value) : "-";
}

void PrintListing(const inspect::Store& store, const Options& options) {
    std::cout << "Directory  " << options.dir << (options.dir.back() == '/' ? "" : "/") << '\n';
    std::cout << "Stem       \"" << store.stem << "\""
              << (store.stemInferred ? " (inferred from the file names)" : "") << '\n';
    std::cout << "Table      " << store.table;
    if (options.table.empty()) {
        std::cout << " (table and CREATE statement inferred from " << store.inferredFrom << ")";
    } else if (options.createSql.empty()) {
        std::cout << " (CREATE statement inferred from " << store.inferredFrom << ")";
    }
    std::cout << "\nCreate     " << store.createSql << "\n\n";

    inspect::TextTable table({"No", "File", "MinID", "MaxID", "StartTime", "StartTime UTC",
                              "EndTime", "EndTime UTC", "Rows", "Bytes", "Status"});
    int accepted = 0;
    for (const inspect::FileReport& file : store.files) {
        accepted += file.accepted ? 1 : 0;
        const bool info = file.hasInfo;
        table.AddRow({std::to_string(file.fileID), file.name, Number(file.minID, info),
                      Number(file.maxID, info), Number(file.startTime, info),
                      info ? inspect::FormatUtcMs(file.startTime) : "-", Number(file.endTime, info),
                      info ? inspect::FormatUtcMs(file.endTime) : "-",
                      file.rows < 0 ? "-" : std::to_string(file.rows), std::to_string(file.bytes),
                      file.status});
    }
    table.Print(std::cout);
    std::cout << '\n'
              << store.files.size() << " files: " << accepted << " accepted, "
              << store.files.size() - accepted << " not accepted\n";
}

int PrintQuery(const inspect::Store& store, const Options& options) {
    const inspect::QueryResult result =
        inspect::RunQuery(store, options.query, options.range, options.start, options.end,
                          options.csv, options.maxSteps);
    for (const std::string& warning : result.warnings) {
        std::cerr << "sqlite3db-inspect: warning: " << warning << '\n';
    }
    if (!result.error.empty()) {
        return Fail(result.noAcceptedFile ? kNotAccepted : kQueryFailed,
                    "query failed: " + result.error);
    }
    if (options.csv) {
        std::cout << inspect::CsvLine(result.header);
        for (const auto& row : result.rows) {
            std::cout << inspect::CsvLine(row);
        }
    } else {
        inspect::TextTable table(result.header);
        for (const auto& row : result.rows) {
            table.AddRow(row);
        }
        table.Print(std::cout);
        std::cout << "(" << result.rows.size()
                  << (result.rows.size() == 1 ? " row)\n" : " rows)\n");
    }
    return result.warnings.empty() ? kOk : kNotAccepted;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const std::string problem = ParseArgs(argc, argv, options);
    if (!problem.empty()) {
        return Fail(kUsage, problem);
    }
    if (options.help) {
        std::cout << kUsageText;
        return kOk;
    }

    inspect::Store store;
    struct stat st;
    if (stat(options.dir.c_str(), &st) != 0) {
        return Fail(kNoDirectory, "no such directory: " + options.dir);
    }
    if (!S_ISDIR(st.st_mode)) {
        return Fail(kNoDirectory, "not a directory: " + options.dir);
    }
    // Links in the path the user gave are followed; inside DIR none is.
    store.dir = inspect::ResolveDir(options.dir);
    std::vector<std::string> names;
    if (store.dir.empty() || !inspect::ListDbFiles(store.dir, names)) {
        return Fail(kNoDirectory, "cannot read the directory " + options.dir);
    }
    if (names.empty()) {
        return Fail(kNoFiles, "no DB files (*.db) in " + options.dir);
    }
    store.stem = options.hasStem ? options.stem : inspect::InferStem(names);
    store.stemInferred = !options.hasStem;
    inspect::CollectFiles(store, names);
    if (store.files.empty()) {
        return Fail(kNoFiles, "no DB files with the stem \"" + store.stem + "\" in " + options.dir);
    }

    store.table = options.table;
    store.createSql = options.createSql;
    if (store.createSql.empty() && !inspect::InferTable(store)) {
        return Fail(kNoTable, store.table.empty()
                                  ? "cannot tell the data table: give --table and --create"
                                  : "no file holds the table " + store.table +
                                        " and a DBInfo "
                                        "row: give --create");
    }
    for (inspect::FileReport& file : store.files) {
        inspect::CheckFile(store, file);
    }

    if (options.hasQuery) {
        return PrintQuery(store, options);
    }
    PrintListing(store, options);
    for (const inspect::FileReport& file : store.files) {
        if (!file.accepted) {
            return kNotAccepted;
        }
    }
    return kOk;
}
