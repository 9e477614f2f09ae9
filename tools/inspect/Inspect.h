// Inspect: the read-only view of a store directory that sqlite3db-inspect
// prints. It finds the store's DB files, judges each one by the same rules as
// the store's own catalog scan (data table in sqlite_master, the column-list
// slice up to the first ")", the DBInfo row with version 1) and runs queries
// on the files that pass.
//
// Nothing here writes: every file is opened read-only and immutable (no
// journal rolled back, no -wal or -shm created or replayed), symbolic links
// and special files are never opened, only read-only statements are run and
// ATTACH is switched off, so a panel's files can be inspected as they were
// copied. Files from a stranger's medium are untrusted: their schema code
// (triggers, views, generated columns) runs under defensive settings, with
// bounded lengths, memory and virtual-machine steps.
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
    bool skipped = false;  // not a regular file: never opened
    std::string status;    // "accepted" or why not
};

// The store as found in one directory.
struct Store {
    std::string dir;  // with a trailing '/'; no symbolic link in it (see ResolveDir)
    std::string stem;
    bool stemInferred = false;
    std::string table;
    std::string createSql;
    std::string inferredFrom;       // the file that the table or statement came from
    std::vector<FileReport> files;  // in file-number order
};

// Virtual-machine steps one file's own checks may take before they are
// stopped: far more than a store file needs (its checks take a few hundred),
// about 0.2 s of engine work on a PC.
constexpr long long kCheckSteps = 10000000;
// The default bound of --max-steps: steps of the user's query on one file,
// about 4 s of engine work on a PC (a query over a million rows takes some
// tens of millions).
constexpr long long kQuerySteps = 200000000;

// Virtual-machine steps a connection's statements may still take; the
// engine stops a statement with "interrupted" when they run out.
struct StepBudget {
    long long left = 0;
};

// The URI that names path for sqlite3_open_v2 with SQLITE_OPEN_URI: read-only
// and immutable, every byte but unreserved ones and "/" percent-encoded.
std::string FileUri(const std::string& path);

// Opens the regular file at path read-only and immutable, refusing links,
// with the defences for untrusted files; nullptr with the reason in error.
// Views can be used only with allowViews. budget (nullptr: no bound) must
// outlive the connection. path must hold no symbolic link in its directory
// part (see ResolveDir).
sqlite3* OpenReadOnly(const std::string& path, std::string& error, bool allowViews,
                      StepBudget* budget);

// dir with every symbolic link resolved and a trailing "/"; "" when it
// cannot be resolved. The directory is the user's choice; links are refused
// only inside it.
std::string ResolveDir(const std::string& dir);

// Bare names of all entries directly in dir whose names end in ".db",
// whatever their kind (special files are listed so that they can be
// reported), sorted by name. False when the directory cannot be read.
bool ListDbFiles(const std::string& dir, std::vector<std::string>& names);

// Name, path, number and size of one entry of store.dir, by lstat. Anything
// but a regular file comes back skipped, with a status saying what it is.
FileReport StatFile(const Store& store, const std::string& name);

// The most common text before the first "_" among names; ties go to the
// smallest text. Empty when no name holds a "_".
std::string InferStem(const std::vector<std::string>& names);

// Fills store.files (name, path, number, size) with the names that begin
// with store.stem, in file-number order, names breaking ties.
void CollectFiles(Store& store, const std::vector<std::string>& names);

// Fills store.table (when empty) and store.createSql from the newest regular
// file that looks like a store file. False when no file fits.
bool InferTable(Store& store);

// Judges one file (from StatFile) against the store's table and statement,
// as the library's scan would; skipped files are left as they are. The
// status names the files at which the scan would throw or that it deletes.
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
// order. csvNulls: NULL reads as "" instead of "NULL". Views may be used;
// maxSteps bounds the statement on each file (0: no bound).
QueryResult RunQuery(const Store& store, const std::string& sql, RangeKind kind,
                     unsigned long long start, unsigned long long end, bool csvNulls,
                     long long maxSteps = kQuerySteps);

}  // namespace inspect

#endif  // TOOLS_INSPECT_INSPECT_H_
