// Simulator: the panel application. It enables the library, creates the three
// stores, feeds them records on a simulated (or the real) clock, runs the
// periodic save and the free-space housekeeping, queues the operator's alarm
// acknowledgements and deletes, pulls the SD card and puts it back, and runs
// range queries. What it fed is kept beside each store, so that the report can
// compare the files on disk with what they should hold.
#ifndef EXAMPLES_PANEL_SIM_SIMULATOR_H_
#define EXAMPLES_PANEL_SIM_SIMULATOR_H_

#include <cstdio>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "Options.h"
#include "Sqlite3DB/Sqlite3DB.h"

namespace panelsim {

enum class StoreKind { kAlarm, kTrend, kEvent };

// One range query and what it should have returned.
struct QueryResult {
    std::string label;
    bool ok = false;  // the call succeeded (or found nothing where nothing was expected)
    unsigned long long rows = 0;
    unsigned long long expected = 0;
};

// One store: its configuration, its handle and what the panel fed it.
struct Store {
    StoreKind kind = StoreKind::kAlarm;
    std::string title;     // "alarm history"
    std::string table;     // data table, also the file-name stem
    std::string location;  // "internal flash", "SD card", "USB disk"
    std::string fileDir;   // where its files are, ending with '/'
    std::string dirName;
    std::string fileName;
    std::string createSql;
    std::string delSql;
    _tagDBConf conf{};
    long long id = 0;
    Sqlite3DB handle;

    // IDs run from 1 without gaps: a refused record does not use up its ID.
    std::vector<unsigned long long> times;  // times[id - 1]: the record's time stamp
    unsigned long long offered = 0;
    unsigned long long refused = 0;
    std::set<unsigned long long> acked;    // acknowledgements queued
    std::set<unsigned long long> deleted;  // deletes queued
    std::vector<QueryResult> queries;

    unsigned long long Accepted() const { return times.size(); }
};

// A deferred command the operator will issue.
struct OperatorAction {
    bool acknowledge = true;  // else delete
    unsigned long long id = 0;
};

struct RunStats {
    unsigned long long durationMs = 0;
    unsigned long long startStamp = 0;  // time stamp at panel time 0
    unsigned long long saveCycles = 0;
    unsigned long long freeSpaceCalls = 0;
    unsigned long long acksQueued = 0;
    unsigned long long deletesQueued = 0;
    unsigned long long commandsRefused = 0;  // AddNode returned 0; retried later
    unsigned long long pulledAtMs = 0;
    unsigned long long pulledStamp = 0;  // time stamp when the card was pulled
    unsigned long long backAtMs = 0;
    bool cardPulled = false;
    bool cardBack = false;
    // Operator messages and library log lines, each with the panel time of
    // the save cycle that produced it.
    std::vector<std::pair<unsigned long long, std::string>> messages;
    std::vector<std::pair<unsigned long long, std::string>> logLines;
};

class Simulator {
public:
    explicit Simulator(const Options& opts);
    ~Simulator();
    Simulator(const Simulator&) = delete;
    Simulator& operator=(const Simulator&) = delete;

    // Sets up the work directory, the media and the stores. On failure
    // returns false with a one-line reason in error.
    bool Setup(std::string& error);
    // Runs the panel for the whole duration, then lets the stores save what
    // they still hold and runs the final queries.
    void Run();

    const Options& options() const { return m_opts; }
    const RunStats& stats() const { return m_stats; }
    const std::vector<std::unique_ptr<Store>>& stores() const { return m_stores; }
    const std::string& workDir() const { return m_workDir; }
    const std::string& flashDir() const { return m_flashDir; }
    const std::string& projectFile() const { return m_projectFile; }
    const std::string& fallbackNote() const { return m_fallbackNote; }
    const std::string& libraryLog() const { return m_libraryLog; }

    // Store parameters the report explains and checks against.
    static constexpr int kAlarmRecordsPerFile = 500;
    static constexpr int kAlarmFilesKept = 5;
    static constexpr int kTrendFileKiB = 64;
    static constexpr int kEventMaxRecords = 1000;
    static constexpr int kEventDelRecords = 100;
    static constexpr int kSaveTimeMs = 2000;
    static constexpr unsigned long long kSavePeriodMs = 500;

private:
    bool PrepareWorkDir(std::string& error);
    bool ChooseFlash(std::string& error);
    bool CreateStores(std::string& error);
    Store& AddStore(StoreKind kind);
    void Feed(Store& store, unsigned long long nowMs);
    std::string RecordSql(Store& store, unsigned long long id, unsigned long long stamp);
    void PlanOperator(unsigned long long id, unsigned long long nowMs);
    void QueueDueActions(unsigned long long nowMs, bool all);
    void SaveAll(unsigned long long nowMs);
    void PullCard();
    void PutCardBack();
    void LiveQuery();
    void FinalQueries();
    QueryResult RunQuery(Store& store, bool byId, unsigned long long from, unsigned long long to,
                         int order, const std::string& label);
    unsigned long long Expected(const Store& store, bool byId, unsigned long long from,
                                unsigned long long to) const;
    unsigned long long Stamp(unsigned long long dueMs) const;
    void AdvanceTo(unsigned long long ms);
    void DrawProgress(unsigned long long nowMs, bool force);
    void EraseProgress();
    void DivertLibraryOutput();
    void RestoreOutput();
    unsigned long long NextRandom();

    Options m_opts;
    RunStats m_stats;
    std::vector<std::unique_ptr<Store>> m_stores;
    std::multimap<unsigned long long, OperatorAction> m_actions;  // by due panel time
    std::string m_workDir;
    std::string m_sdPath;    // mount point of the SD card, ending with '/'
    std::string m_flashDir;  // internal flash directory of this run, or the fallback
    bool m_flashOnUdisk = false;
    std::string m_projectFile;
    std::string m_fallbackNote;
    unsigned long long m_rng = 0;
    unsigned long long m_realStartMs = 0;  // monotonic ms at panel time 0 (real clock)
    std::string m_libraryLog;  // where the platform's standard error went during the run
    int m_terminalFd = -1;     // the original standard error while it is diverted
    FILE* m_terminal = nullptr;
    bool m_progress = false;
    bool m_progressShown = false;
    unsigned long long m_lastDrawRealMs = 0;
    bool m_storesCreated = false;
};

// UTC date and time of a time stamp in ms since the epoch: "2024-01-01 00:00:00".
std::string UtcText(unsigned long long stampMs);
// Elapsed panel time as "hh:mm:ss".
std::string ClockText(unsigned long long ms);
// A stretch of panel time: "1h", "1h30m", "45s", "1.5s".
std::string DurationText(unsigned long long ms);

}  // namespace panelsim

#endif  // EXAMPLES_PANEL_SIM_SIMULATOR_H_
