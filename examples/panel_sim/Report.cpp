// Report: files read back through SQLite's C API, checked against the
// store's catalog and against what the panel fed, and printed.
#include "Report.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <map>

namespace fs = std::filesystem;

namespace panelsim {

namespace {

const char kNoLocationMessage[] = "The save location does not exist";

struct FileRow {
    unsigned long long id = 0;
    unsigned long long t = 0;
    bool acked = false;
};

// One DB file as found on disk.
struct DiskFile {
    std::string name;
    unsigned long long number = 0;
    bool hasInfo = false;  // its DBInfo row (version 1) was read
    unsigned long long minId = 0, maxId = 0, startTime = 0, endTime = 0;
    std::vector<FileRow> rows;
    std::string error;
};

struct Check {
    bool ok;
    std::string text;
};

// "<stem>_<number>.db" -> number; false for any other name.
bool ParseFileName(const std::string& name, const std::string& stem, unsigned long long& number) {
    const std::string prefix = stem + "_";
    if (name.size() <= prefix.size() + 3 || name.compare(0, prefix.size(), prefix) != 0 ||
        name.compare(name.size() - 3, 3, ".db") != 0) {
        return false;
    }
    const std::string digits = name.substr(prefix.size(), name.size() - prefix.size() - 3);
    if (digits.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    number = std::stoull(digits);
    return true;
}

void ReadFile(const std::string& path, const std::string& table, bool withAck, DiskFile& file) {
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) != SQLITE_OK) {
        file.error = sqlite3_errmsg(db);
        sqlite3_close(db);
        return;
    }
    sqlite3_stmt* st = nullptr;
    const char* infoSql = "select MinID, MaxID, StartTime, EndTime from DBInfo where version = 1";
    if (sqlite3_prepare_v2(db, infoSql, -1, &st, nullptr) == SQLITE_OK &&
        sqlite3_step(st) == SQLITE_ROW) {
        file.hasInfo = true;
        file.minId = static_cast<unsigned long long>(sqlite3_column_int64(st, 0));
        file.maxId = static_cast<unsigned long long>(sqlite3_column_int64(st, 1));
        file.startTime = static_cast<unsigned long long>(sqlite3_column_int64(st, 2));
        file.endTime = static_cast<unsigned long long>(sqlite3_column_int64(st, 3));
    }
    sqlite3_finalize(st);
    const std::string rowSql =
        "select id, t, " + std::string(withAck ? "acked" : "0") + " from " + table + " order by id";
    if (sqlite3_prepare_v2(db, rowSql.c_str(), -1, &st, nullptr) != SQLITE_OK) {
        file.error = sqlite3_errmsg(db);
    } else {
        while (sqlite3_step(st) == SQLITE_ROW) {
            FileRow row;
            row.id = static_cast<unsigned long long>(sqlite3_column_int64(st, 0));
            row.t = static_cast<unsigned long long>(sqlite3_column_int64(st, 1));
            row.acked = sqlite3_column_int(st, 2) != 0;
            file.rows.push_back(row);
        }
    }
    sqlite3_finalize(st);
    sqlite3_close(db);
}

// The store's files on disk, oldest (lowest number) first.
std::vector<DiskFile> ReadStoreFiles(const Store& s) {
    std::vector<DiskFile> files;
    std::error_code ec;
    for (fs::directory_iterator it(s.fileDir, ec), end; !ec && it != end; it.increment(ec)) {
        DiskFile f;
        f.name = it->path().filename().string();
        if (ParseFileName(f.name, s.table, f.number)) {
            ReadFile(it->path().string(), s.table, s.kind == StoreKind::kAlarm, f);
            files.push_back(f);
        }
    }
    std::sort(files.begin(), files.end(),
              [](const DiskFile& a, const DiskFile& b) { return a.number < b.number; });
    return files;
}

std::string Num(unsigned long long n) {
    return std::to_string(n);
}

std::string Files(unsigned long long n) {
    return Num(n) + (n == 1 ? " file" : " files");
}

// The catalog and the files' DBInfo rows describe the same files with the
// same ranges. The one allowed difference: after a rescan the catalog starts
// an empty newest file where the file before it ended, without writing that
// into the file until its first records arrive.
Check CheckCatalog(const Store& s, const std::vector<DiskFile>& files) {
    DbData* d = Sqlite3DB::GetDbByID(s.id);
    if (d == nullptr) {
        return {false, "catalog: store not found"};
    }
    if (d->m_strSavePath != s.fileDir) {
        return {false, "catalog: save path is " + d->m_strSavePath + ", expected " + s.fileDir};
    }
    const std::vector<DbFileInfo>& cat = d->m_vecFileInfo;
    if (cat.size() != files.size()) {
        return {false,
                "catalog lists " + Num(cat.size()) + " files, the disk holds " + Num(files.size())};
    }
    for (size_t i = 0; i < files.size(); ++i) {
        const DiskFile& f = files[i];
        const DbFileInfo& c = cat[i];
        if (c.GetFullName() != f.name) {
            return {false,
                    "catalog entry " + Num(i) + " is " + c.GetFullName() + ", disk has " + f.name};
        }
        if (!f.hasInfo || !f.error.empty()) {
            return {false, f.name + ": no readable DBInfo row or data table " + f.error};
        }
        const bool same = c.GetStartID() == f.minId && c.GetEndID() == f.maxId &&
                          c.GetStartTime() == f.startTime && c.GetEndTime() == f.endTime;
        const bool rescannedEmpty =
            i + 1 == files.size() && i > 0 && f.rows.empty() && f.minId == 0 && f.maxId == 0 &&
            c.GetStartID() == files[i - 1].maxId && c.GetEndID() == files[i - 1].maxId;
        if (!same && !rescannedEmpty) {
            return {false, f.name + ": catalog " + Num(c.GetStartID()) + ".." + Num(c.GetEndID()) +
                               " but DBInfo " + Num(f.minId) + ".." + Num(f.maxId)};
        }
    }
    return {true, "catalog, DBInfo rows and files on disk agree (" + Files(files.size()) + ")"};
}

Check CheckRanges(const Store& s, const std::vector<DiskFile>& files) {
    for (const DiskFile& f : files) {
        if (f.rows.empty()) {
            continue;
        }
        for (const FileRow& r : f.rows) {
            if (r.id < f.minId || r.id > f.maxId || r.t < f.startTime || r.t > f.endTime) {
                return {false, f.name + ": row " + Num(r.id) + " lies outside its DBInfo range"};
            }
        }
        // The newest row is the one DBInfo names, unless the operator deleted it.
        if (f.rows.back().id != f.maxId && s.deleted.count(f.maxId) == 0) {
            return {false, f.name + ": newest row " + Num(f.rows.back().id) + " but MaxID " +
                               Num(f.maxId)};
        }
    }
    return {true, "every file's rows lie within its DBInfo ID and time range"};
}

// The oldest record the store still claims: a file other than the store's
// first starts where the file before it ended (its MinID is that file's last
// record), so it holds MinID + 1 onwards; the first file, or the single
// trimmed file, holds its MinID itself.
unsigned long long OldestKept(const std::vector<DiskFile>& files) {
    if (files.empty() || files.front().minId == 0) {
        return 1;
    }
    const DiskFile& f = files.front();
    return f.number == 0 ? f.minId : f.minId + 1;
}

void PrintFiles(const std::vector<DiskFile>& files) {
    printf("    %-14s %17s %7s   %s\n", "file", "MinID..MaxID", "rows", "time range (UTC)");
    const size_t n = files.size();
    for (size_t i = 0; i < n; ++i) {
        if (n > 14 && i == 4) {
            printf("    ... %zu more files ...\n", n - 12);
            i = n - 8;
        }
        const DiskFile& f = files[i];
        const std::string range = Num(f.minId) + ".." + Num(f.maxId);
        if (f.rows.empty()) {
            printf("    %-14s %17s %7zu   (no records yet; created %s)\n", f.name.c_str(),
                   range.c_str(), f.rows.size(), UtcText(f.startTime).c_str());
        } else {
            printf("    %-14s %17s %7zu   %s .. %s\n", f.name.c_str(), range.c_str(), f.rows.size(),
                   UtcText(f.startTime).c_str(), UtcText(f.endTime).c_str());
        }
    }
}

std::string Describe(const Store& s) {
    const _tagDBConf& c = s.conf;
    std::string text;
    if (c.bSplitFile == 0) {
        text = "one file, trimmed by " + Num(c.nDelRecordNum) + " records past " +
               Num(c.nMaxRecordNum) + " + " + Num(c.nDelRecordNum);
    } else if (c.nMaxFileSize != 0) {
        text = "new file past " + Num(c.nMaxFileSize) + " KiB";
    } else {
        text = "new file every " + Num(c.nMaxRecordNum) + " records";
    }
    text += c.nMaxFileNum > 0 && c.bSplitFile ? ", at most " + Num(c.nMaxFileNum) + " files"
                                              : (c.bSplitFile ? ", no file limit" : "");
    return text + ", flushed every " + Num(c.nSaveTime) + " ms";
}

void ReportStore(const Store& s, std::vector<Check>& checks) {
    const std::vector<DiskFile> files = ReadStoreFiles(s);
    std::vector<Check> mine;
    printf("\n%s (store %lld) on %s: %s\n", s.title.c_str(), s.id, s.location.c_str(),
           s.fileDir.c_str());
    printf("  %s\n", Describe(s).c_str());
    printf("  %-28s %llu\n", "records accepted", s.Accepted());
    printf("  %-28s %llu\n", "records refused (queue full)", s.refused);
    if (s.kind == StoreKind::kAlarm) {
        printf("  %-28s %zu acknowledgements, %zu deletes\n", "deferred commands queued",
               s.acked.size(), s.deleted.size());
    }
    printf("  %-28s %zu\n", "files", files.size());
    PrintFiles(files);
    if (s.kind == StoreKind::kEvent) {
        printf("    (a trim moves MinID only: the time range still starts at the first record)\n");
    }

    mine.push_back(CheckCatalog(s, files));
    mine.push_back(CheckRanges(s, files));

    // Rows kept: exactly the accepted IDs from the oldest one the files
    // claim up to the last one, less the ones the operator deleted.
    const unsigned long long n = s.Accepted();
    const unsigned long long lo = OldestKept(files);
    std::map<unsigned long long, int> found;
    std::set<unsigned long long> ackedFound;
    unsigned long long rows = 0;
    for (const DiskFile& f : files) {
        for (const FileRow& r : f.rows) {
            ++found[r.id];
            ++rows;
            if (r.acked) {
                ackedFound.insert(r.id);
            }
        }
    }
    unsigned long long expected = 0, missing = 0, deletedInRange = 0;
    for (unsigned long long id = lo; id <= n; ++id) {
        if (s.deleted.count(id)) {
            ++deletedInRange;
        } else {
            ++expected;
            missing += found.count(id) ? 0 : 1;
        }
    }
    const bool rowsOk = missing == 0 && rows == expected && found.size() == rows;
    std::string text = "rows in the files: " + Num(rows);
    if (rowsOk) {
        text += n >= lo ? " = IDs " + Num(lo) + ".." + Num(n) : " (none accepted)";
        if (s.kind == StoreKind::kAlarm) {
            text += " less " + Num(deletedInRange) + " deleted by the operator";
        }
    } else {
        text += ", expected " + Num(expected) + " (IDs " + Num(lo) + ".." + Num(n) +
                "): " + Num(missing) + " missing, " + Num(rows - found.size()) + " duplicated";
    }
    mine.push_back({rowsOk, text});

    const _tagDBConf& c = s.conf;
    if (s.kind == StoreKind::kAlarm) {
        const bool ok = files.size() <= static_cast<size_t>(c.nMaxFileNum) &&
                        (lo <= 1 || files.size() == static_cast<size_t>(c.nMaxFileNum));
        mine.push_back({ok, "retention: " + Files(files.size()) + " kept (limit " +
                                Num(c.nMaxFileNum) + "), " + Num(lo - 1) +
                                " older records removed with whole files"});
        std::set<unsigned long long> ackExpected;
        for (unsigned long long id : s.acked) {
            if (id >= lo && id <= n) {
                ackExpected.insert(id);
            }
        }
        mine.push_back({ackedFound == ackExpected,
                        "acknowledged alarms in the files: " + Num(ackedFound.size()) +
                            ", expected " + Num(ackExpected.size()) +
                            " (acknowledged and still kept)"});
    } else if (s.kind == StoreKind::kTrend) {
        mine.push_back({lo <= 1, "nothing removed: the card pull lost no sample"});
    } else {
        const unsigned long long trimmed = lo - 1, kept = n - trimmed;
        const unsigned long long least = std::min<unsigned long long>(n, c.nMaxRecordNum);
        const bool ok =
            trimmed % static_cast<unsigned long long>(c.nDelRecordNum) == 0 && kept >= least;
        mine.push_back({ok, "trimmed " + Num(c.nDelRecordNum) + " at a time: " + Num(trimmed) +
                                " oldest removed, " + Num(kept) + " kept (at least " + Num(least) +
                                ")"});
    }
    for (const QueryResult& q : s.queries) {
        mine.push_back({q.ok && q.rows == q.expected,
                        q.label + ": " + Num(q.rows) + " rows, expected " + Num(q.expected)});
    }
    printf("  checks\n");
    for (const Check& ch : mine) {
        printf("    %-5s %s\n", ch.ok ? "ok" : "FAIL", ch.text.c_str());
        checks.push_back(ch);
    }
}

}  // namespace

bool PrintReport(const Simulator& sim, double realSeconds) {
    const RunStats& st = sim.stats();
    std::vector<Check> checks;
    for (const std::unique_ptr<Store>& s : sim.stores()) {
        ReportStore(*s, checks);
    }

    std::vector<Check> mine;
    printf("\npanel\n");
    printf("  %-28s %s (%s .. %s UTC)\n", "panel time", DurationText(st.durationMs).c_str(),
           UtcText(st.startStamp).c_str(), UtcText(st.startStamp + st.durationMs).c_str());
    printf("  %-28s %llu (every %llu ms)\n", "save cycles run", st.saveCycles,
           Simulator::kSavePeriodMs);
    // It only ever deletes for stores on internal flash without a file limit
    // and with more than one file; none of these three is one.
    printf("  %-28s %llu (no store qualifies: it removes nothing)\n", "FreeSpaceDelete calls",
           st.freeSpaceCalls);
    printf("  %-28s %llu (%llu acknowledgements, %llu deletes), %llu times refused\n",
           "deferred commands queued", st.acksQueued + st.deletesQueued, st.acksQueued,
           st.deletesQueued, st.commandsRefused);
    printf("  %-28s pulled at %s, put back at %s (panel time)\n", "SD card",
           ClockText(st.pulledAtMs).c_str(), ClockText(st.backAtMs).c_str());
    std::map<std::string, int> texts;
    bool inPull = true;
    for (const auto& m : st.messages) {
        ++texts[m.second];
        inPull = inPull && m.first >= st.pulledAtMs && m.first <= st.backAtMs;
    }
    printf("  %-28s %zu\n", "operator messages", st.messages.size());
    for (const auto& t : texts) {
        printf("    %4d x \"%s\"\n", t.second, t.first.c_str());
    }
    printf("  %-28s %zu\n", "library log lines", st.logLines.size());
    for (size_t i = 0; i < st.logLines.size() && i < 10; ++i) {
        printf("    %s  %s", ClockText(st.logLines[i].first).c_str(),
               st.logLines[i].second.c_str());
    }

    mine.push_back({st.cardPulled && st.cardBack, "SD card pulled and put back"});
    const unsigned long long most = (st.backAtMs - st.pulledAtMs) / 15000 + 1;
    const bool msgOk = !st.messages.empty() && texts.size() == 1 &&
                       texts.count(kNoLocationMessage) && inPull && st.messages.size() <= most;
    mine.push_back({msgOk, "operator messages: only \"" + std::string(kNoLocationMessage) +
                               "\", while the card was out, at most one per 15 s"});
    mine.push_back({st.logLines.empty(), "the library logged no error"});
    printf("  checks\n");
    for (const Check& ch : mine) {
        printf("    %-5s %s\n", ch.ok ? "ok" : "FAIL", ch.text.c_str());
        checks.push_back(ch);
    }

    printf("\nfiles\n");
    for (const std::unique_ptr<Store>& s : sim.stores()) {
        printf("  %-14s %s\n", s->title.c_str(), s->fileDir.c_str());
    }
    printf("  %-14s %s\n", "project file", sim.projectFile().c_str());
    if (!sim.libraryLog().empty()) {
        printf("  %-14s %s (the platform's standard error during the run)\n", "library output",
               sim.libraryLog().c_str());
    }
    printf("  %-14s %s (left in place)\n", "work dir", sim.workDir().c_str());

    const size_t failed = static_cast<size_t>(
        std::count_if(checks.begin(), checks.end(), [](const Check& ch) { return !ch.ok; }));
    printf("\nresult: ");
    if (failed == 0) {
        printf("all %zu checks hold", checks.size());
    } else {
        printf("%zu of %zu checks FAILED", failed, checks.size());
    }
    printf(" (real time %.1f s)\n", realSeconds);
    return failed == 0;
}

}  // namespace panelsim
