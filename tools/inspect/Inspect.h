// Inspect: the read-only view of a store directory that sqlite3db-inspect
// prints. It finds the store's DB files, judges each one by the same rules as
// the store's own catalog scan (data table in sqlite_master, the column-list
// slice up to the first ")", the DBInfo row with version 1) and runs queries
// on the files that pass.
//
// Nothing here writes: every file is opened read-only (and immutable when its
// directory is not writable), only read-only statements are run and ATTACH
// is switched off, so a panel's files can be inspected as they were copied.
#ifndef TOOLS_INSPECT_INSPECT_H_
#define TOOLS_INSPECT_INSPECT_H_

#include <string>
#include <vector>

struct sqlite3;

namespace inspect {

// One DB file of the store and what the store's scan would make of it.
struct FileReport {
    std::string name;  // bare file name
    std::string path;  // full path
    unsigned int fileID = 0;
    unsigned long long bytes = 0;
    bool hasInfo = false;  // the DBInfo row was read
    unsigned long long minID = 0;
    unsigned long long maxID = 0;
    unsigned long long startTime = 0;
    unsigned long long endTime = 0;
    long long rows = -1;  // rows of the data table; -1 when unknown
    bool accepted = false;
    std::string status;  // "accepted" or why not
};

// The store as found in one directory.
struct Store {
    std::string dir;  // with a trailing '/'
    std::string stem;
    bool stemInferred = false;
    std::string table;
    std::string createSql;
    std::string inferredFrom;       // the file that the table or statement came from
    std::vector<FileReport> files;  // in file-number order
};

// Opens path read-only; nullptr with the engine's message in error.
sqlite3* OpenReadOnly(const std::string& path, std::string& error);

// Bare names of the "*.db" files directly in dir, sorted by name. False
// when the directory cannot be read.
bool ListDbFiles(const std::string& dir, std::vector<std::string>& names);

// The most common text before the first "_" among names; ties go to the
// smallest text. Empty when no name holds a "_".
std::string InferStem(const std::vector<std::string>& names);

// Fills store.files (name, path, number, size) with the names that begin
// with store.stem, in file-number order, names breaking ties.
void CollectFiles(Store& store, const std::vector<std::string>& names);

// Fills store.table (when empty) and store.createSql from the newest file
// that looks like a store file. False when no file fits.
bool InferTable(Store& store);

// Judges one file against the store's table and statement.
void CheckFile(const Store& store, FileReport& file);

// The slice from the first "(" to just before the first ")"; false when the
// text has no "(".
bool ColumnListSlice(const std::string& createSql, std::string& slice);

// Result of a query over several files.
struct QueryResult {
    std::vector<std::string> header;  // "file", then the statement's columns
    std::vector<std::vector<std::string>> rows;
    std::vector<std::string> warnings;  // files skipped
    std::string error;                  // set when the statement failed
    bool noAcceptedFile = false;        // nothing to run it on
};

// Which files a query visits: all, or those whose ID or time range overlaps
// [start, end] by the store's own overlap rule.
enum class RangeKind { kAll, kIds, kTimes };

// Runs sql on every accepted file that the range selects, in file-number
// order. csvNulls: NULL reads as "" instead of "NULL".
QueryResult RunQuery(const Store& store, const std::string& sql, RangeKind kind,
                     unsigned long long start, unsigned long long end, bool csvNulls);

}  // namespace inspect

#endif  // TOOLS_INSPECT_INSPECT_H_
