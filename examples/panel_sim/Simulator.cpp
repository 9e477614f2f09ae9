// Simulator: the panel application's life with three stores, on the
// simulated clock of PlatformSim (an hour of panel time in seconds) or on the
// real clock.
#include "Simulator.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <thread>

#include "PlatformSim.h"

namespace fs = std::filesystem;

namespace panelsim {

namespace {

const unsigned long long kStepMs = 100;  // feeding granularity
const unsigned long long kFreeSpacePeriodMs = 10000;
const unsigned long long kSimTick0 = 1000000000ULL;          // tick at panel time 0
const unsigned long long kSimStartStamp = 1704067200000ULL;  // 2024-01-01 00:00:00 UTC
const char kDataRoot[] = "/mnt/data/";

const char* const kAlarmTexts[] = {"Tank level high", "Motor overload", "Door open",
                                   "Pressure low",    "Conveyor jam",   "Temperature high"};
const char* const kTrendTags[] = {"TT-101", "PT-204", "FT-310", "LT-402"};
const char* const kEventKinds[] = {"login", "logout", "screen", "recipe", "setpoint"};

unsigned long long MonotonicMs() {
    using namespace std::chrono;
    return static_cast<unsigned long long>(
        duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

bool DirIsEmpty(const fs::path& dir) {
    std::error_code ec;
    return fs::is_empty(dir, ec) && !ec;
}

}  // namespace

std::string ClockText(unsigned long long ms) {
    char text[32];
    unsigned long long s = ms / 1000;
    snprintf(text, sizeof(text), "%02llu:%02llu:%02llu", s / 3600, s / 60 % 60, s % 60);
    return text;
}

std::string UtcText(unsigned long long stampMs) {
    const time_t seconds = static_cast<time_t>(stampMs / 1000);
    struct tm parts;
    gmtime_r(&seconds, &parts);
    char text[32];
    strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &parts);
    return text;
}

std::string DurationText(unsigned long long ms) {
    std::string text;
    const unsigned long long h = ms / 3600000, m = ms / 60000 % 60, s = ms / 1000 % 60;
    if (h) {
        text += std::to_string(h) + "h";
    }
    if (m) {
        text += std::to_string(m) + "m";
    }
    if (s || ms % 1000 || text.empty()) {
        text += std::to_string(s);
        if (ms % 1000) {
            char frac[8];
            snprintf(frac, sizeof(frac), ".%03llu", ms % 1000);
            text += frac;
            while (text.back() == '0') {
                text.pop_back();
            }
        }
        text += "s";
    }
    return text;
}

Simulator::Simulator(const Options& opts) : m_opts(opts) {
    if (m_opts.durationMs == 0) {
        m_opts.durationMs = m_opts.realClock ? kDefaultRealDurationMs : kDefaultSimDurationMs;
    }
    m_stats.durationMs = m_opts.durationMs;
    m_rng = m_opts.seed;
}

Simulator::~Simulator() {
    if (m_storesCreated) {
        Sqlite3DB::Destroy();
    }
}

// splitmix64: the same numbers for the same seed on every machine.
unsigned long long Simulator::NextRandom() {
    unsigned long long z = (m_rng += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

bool Simulator::Setup(std::string& error) {
    return PrepareWorkDir(error) && ChooseFlash(error) && CreateStores(error);
}

bool Simulator::PrepareWorkDir(std::string& error) {
    std::error_code ec;
    if (m_opts.workDir.empty()) {
        char pattern[] = "/tmp/panel-sim-XXXXXX";
        if (mkdtemp(pattern) == nullptr) {
            error = "cannot create a work directory under /tmp";
            return false;
        }
        m_workDir = pattern;
    } else {
        fs::create_directories(m_opts.workDir, ec);
        if (!fs::is_directory(m_opts.workDir) || !DirIsEmpty(m_opts.workDir)) {
            error = "work directory " + m_opts.workDir +
                    " cannot be created or is not empty (give a new or empty one)";
            return false;
        }
        m_workDir = fs::absolute(m_opts.workDir).lexically_normal().string();
        if (m_workDir.size() > 1 && m_workDir.back() == '/') {
            m_workDir.pop_back();
        }
    }
    // The SD card is a directory of its own; removing it is pulling the card.
    fs::create_directory(m_workDir + "/sdcard", ec);
    if (ec) {
        error = "cannot create " + m_workDir + "/sdcard: " + ec.message();
        return false;
    }
    m_sdPath = m_workDir + "/sdcard/";
    CHmiMedia::SetSDPath(m_sdPath);

    if (m_opts.project.empty()) {
        m_projectFile = m_workDir + "/panel.project";
        std::ofstream out(m_projectFile);
        out << "# Project of the simulated operator panel\n"
               "screens=12\nalarms=alarm history, internal flash\n"
               "trends=trend log, SD card\nevents=event log, internal flash\n";
        if (!out) {
            error = "cannot write the project file " + m_projectFile;
            return false;
        }
    } else {
        m_projectFile = m_opts.project;
        if (!std::ifstream(m_projectFile)) {
            error = "cannot read the project file " + m_projectFile;
            return false;
        }
    }
    return true;
}

bool Simulator::ChooseFlash(std::string& error) {
    std::string tag = fs::path(m_workDir).filename().string();
    if (tag.compare(0, 10, "panel-sim-") != 0) {
        tag = "panel-sim-" + tag;
    }
    const std::string dir = std::string(kDataRoot) + tag;
    std::error_code ec;
    if (fs::exists(dir, ec) && !DirIsEmpty(dir)) {
        error = dir + " already holds files of another run";
        return false;
    }
    fs::create_directories(dir, ec);
    bool writable = !ec && fs::is_directory(dir, ec);
    if (writable) {
        const std::string probe = dir + "/.probe";
        writable = static_cast<bool>(std::ofstream(probe) << "x");
        fs::remove(probe, ec);
    }
    if (writable) {
        m_flashDir = dir + "/";
        return true;
    }
    // Not root on a machine without a writable data partition: the flash
    // stores go to a directory of the work directory, as a USB disk.
    m_flashOnUdisk = true;
    m_flashDir = m_workDir + "/flash/";
    fs::create_directory(m_flashDir, ec);
    if (ec) {
        error = "cannot create " + m_flashDir + ": " + ec.message();
        return false;
    }
    CHmiMedia::SetUdiskPath(m_flashDir);
    m_fallbackNote = std::string(kDataRoot) +
                     " is not writable; keeping the alarm history and the event log in " +
                     m_workDir + "/flash instead";
    return true;
}

Store& Simulator::AddStore(StoreKind kind) {
    m_stores.push_back(std::make_unique<Store>());
    Store& s = *m_stores.back();
    s.kind = kind;
    const bool flash = kind != StoreKind::kTrend;
    _tagDBConf& c = s.conf;
    c = _tagDBConf{};
    c.nStorePattern = flash ? (m_flashOnUdisk ? 2 : 0) : 1;
    c.nSaveTime = kSaveTimeMs;
    c.bUseMemDB = 1;
    c.bSaveFile = 1;
    c.bClearOnReload = 1;
    switch (kind) {
        case StoreKind::kAlarm:
            s.title = "alarm history";
            s.table = "alarm";
            s.createSql =
                "CREATE TABLE alarm (id INTEGER PRIMARY KEY, t INTEGER, code INTEGER, text TEXT, "
                "acked INTEGER DEFAULT 0)";
            c.nMaxRecordNum = kAlarmRecordsPerFile;
            c.bSplitFile = 1;
            c.nMaxFileNum = kAlarmFilesKept;
            break;
        case StoreKind::kTrend:
            s.title = "trend log";
            s.table = "trend";
            s.createSql =
                "CREATE TABLE trend (id INTEGER PRIMARY KEY, t INTEGER, tag TEXT, value REAL)";
            c.nMaxFileSize = kTrendFileKiB;
            c.bSplitFile = 1;
            // Samples buffered while the card is out stay buffered for its return.
            c.bClearOnReload = 0;
            break;
        case StoreKind::kEvent:
            s.title = "event log";
            s.table = "event";
            s.createSql =
                "CREATE TABLE event (id INTEGER PRIMARY KEY, t INTEGER, kind TEXT, text TEXT)";
            s.delSql = "delete from event where id in (select id from event order by id limit " +
                       std::to_string(kEventDelRecords) + ")";
            c.nMaxRecordNum = kEventMaxRecords;
            c.bSplitFile = 0;
            c.nMaxFileNum = 1;
            c.nDelRecordNum = kEventDelRecords;
            break;
    }
    s.fileName = s.table + ".db";
    if (c.nStorePattern == 0) {
        s.location = "internal flash";
        s.dirName = m_flashDir.substr(sizeof(kDataRoot) - 1) + s.table;
        s.fileDir = m_flashDir + s.table + "/";
    } else if (c.nStorePattern == 1) {
        s.location = "SD card";
        s.dirName = s.table;
        s.fileDir = m_sdPath + s.table + "/";
    } else {
        s.location = "USB disk (in place of internal flash)";
        s.dirName = s.table;
        s.fileDir = m_flashDir + s.table + "/";
    }
    c.pDirName = &s.dirName;
    c.pFileName = &s.fileName;
    c.pTableName = &s.table;
    c.pCreateTableSql = &s.createSql;
    c.pDelRecordSql = &s.delSql;
    return s;
}

bool Simulator::CreateStores(std::string& error) {
    if (m_opts.realClock) {
        m_realStartMs = MonotonicMs();
        m_stats.startStamp = COS::CosTime::GetTimeStamp();
    } else {
        m_stats.startStamp = kSimStartStamp;
        PlatformSim::SetTickCount(kSimTick0);
        PlatformSim::SetTimeStamp(kSimStartStamp);
    }
    Sqlite3DB::Sqlit3DBEnable(m_projectFile);
    for (StoreKind kind : {StoreKind::kAlarm, StoreKind::kTrend, StoreKind::kEvent}) {
        Store& s = AddStore(kind);
        s.id = Sqlite3DB::Create(s.conf, 0);
        if (s.id < 0) {
            error = "Sqlite3DB::Create refused the " + s.title + " (" + std::to_string(s.id) + ")";
            return false;
        }
        m_storesCreated = true;
        if (!s.handle.Open(s.id)) {
            error = "cannot open the " + s.title;
            return false;
        }
    }
    return true;
}

unsigned long long Simulator::Stamp(unsigned long long dueMs) const {
    return m_opts.realClock ? COS::CosTime::GetTimeStamp() : m_stats.startStamp + dueMs;
}

void Simulator::AdvanceTo(unsigned long long ms) {
    if (m_opts.realClock) {
        const unsigned long long target = m_realStartMs + ms;
        const unsigned long long now = MonotonicMs();
        if (target > now) {
            std::this_thread::sleep_for(std::chrono::milliseconds(target - now));
        }
        return;
    }
    PlatformSim::SetTickCount(kSimTick0 + ms);
    PlatformSim::SetTimeStamp(m_stats.startStamp + ms);
}

std::string Simulator::RecordSql(Store& store, unsigned long long id, unsigned long long stamp) {
    char sql[256];
    const unsigned long long r = NextRandom();
    switch (store.kind) {
        case StoreKind::kAlarm:
            snprintf(sql, sizeof(sql),
                     "insert into alarm(id,t,code,text) values(%llu,%llu,%llu,'%s')", id, stamp,
                     100 + r % 40, kAlarmTexts[r / 40 % 6]);
            break;
        case StoreKind::kTrend:
            snprintf(sql, sizeof(sql),
                     "insert into trend(id,t,tag,value) values(%llu,%llu,'%s',%.3f)", id, stamp,
                     kTrendTags[id % 4], 20.0 + static_cast<double>(r % 10000) / 1000.0);
            break;
        case StoreKind::kEvent:
            snprintf(sql, sizeof(sql),
                     "insert into event(id,t,kind,text) values(%llu,%llu,'%s','operator %llu, "
                     "screen %llu')",
                     id, stamp, kEventKinds[r % 5], 1 + r / 5 % 4, 1 + r / 20 % 12);
            break;
    }
    return sql;
}

// Offers every record that has come due by nowMs. A refused record keeps its
// ID for the next one: IDs in the store run without gaps.
void Simulator::Feed(Store& store, unsigned long long nowMs) {
    for (;;) {
        const unsigned long long due = static_cast<unsigned long long>(
            static_cast<double>(store.offered) * 1000.0 / m_opts.rate);
        if (due > nowMs || due >= m_stats.durationMs) {
            return;
        }
        const unsigned long long id = store.Accepted() + 1;
        const unsigned long long stamp = Stamp(due);
        std::string sql = RecordSql(store, id, stamp);
        _tagDBSqlCmdInfo cmd{&sql, 1, id, stamp};
        ++store.offered;
        if (store.handle.SqlAddNode(cmd)) {
            store.times.push_back(stamp);
            if (store.kind == StoreKind::kAlarm) {
                PlanOperator(id, due);
            }
        } else {
            ++store.refused;
        }
    }
}

// About a third of the alarms are acknowledged 5 to 60 s later; a few are
// nuisance alarms that the operator deletes after 2 to 10 s.
void Simulator::PlanOperator(unsigned long long id, unsigned long long nowMs) {
    const unsigned long long r = NextRandom();
    if (r % 100 < 3) {
        m_actions.emplace(nowMs + 2000 + r / 100 % 8000, OperatorAction{false, id});
    } else if (r % 100 < 33) {
        m_actions.emplace(nowMs + 5000 + r / 100 % 55000, OperatorAction{true, id});
    }
}

void Simulator::QueueDueActions(unsigned long long nowMs, bool all) {
    Store& alarm = *m_stores[0];
    while (!m_actions.empty() && (all || m_actions.begin()->first <= nowMs)) {
        const OperatorAction action = m_actions.begin()->second;
        std::string sql = (action.acknowledge ? "update alarm set acked=1 where id="
                                              : "delete from alarm where id=") +
                          std::to_string(action.id);
        _tagDBSqlCmdInfo cmd{&sql, 0, action.id, 0};
        if (!alarm.handle.SqlAddNode(cmd)) {
            ++m_stats.commandsRefused;  // the queue is full: tried again later
            return;
        }
        if (action.acknowledge) {
            alarm.acked.insert(action.id);
            ++m_stats.acksQueued;
        } else {
            alarm.deleted.insert(action.id);
            ++m_stats.deletesQueued;
        }
        m_actions.erase(m_actions.begin());
    }
}

void Simulator::SaveAll(unsigned long long nowMs) {
    Sqlite3DB::Save();
    ++m_stats.saveCycles;
    for (std::string& text : PlatformSim::TakeMessages()) {
        m_stats.messages.emplace_back(nowMs, text);
    }
    for (std::string& text : PlatformSim::TakeLogLines()) {
        m_stats.logLines.emplace_back(nowMs, text);
    }
}

void Simulator::PullCard() {
    std::error_code ec;
    fs::rename(m_workDir + "/sdcard", m_workDir + "/sdcard-pulled", ec);
    m_stats.cardPulled = !ec;
}

void Simulator::PutCardBack() {
    std::error_code ec;
    fs::rename(m_workDir + "/sdcard-pulled", m_workDir + "/sdcard", ec);
    m_stats.cardBack = !ec;
}

unsigned long long Simulator::Expected(const Store& store, bool byId, unsigned long long from,
                                       unsigned long long to) const {
    unsigned long long count = 0;
    for (unsigned long long id = 1; id <= store.Accepted(); ++id) {
        const unsigned long long key = byId ? id : store.times[id - 1];
        if (key >= from && key <= to && store.deleted.count(id) == 0) {
            ++count;
        }
    }
    return count;
}

// The range in the request only chooses the files; the WHERE clause chooses
// the rows.
QueryResult Simulator::RunQuery(Store& store, bool byId, unsigned long long from,
                                unsigned long long to, int order, const std::string& label) {
    std::string sql = "select id from " + store.table + (byId ? " where id" : " where t") +
                      " between " + std::to_string(from) + " and " + std::to_string(to);
    _tagDBSqlSelectCmdInfo info{};
    info.pSql = &sql;
    info.nSelectType = byId ? 1 : 2;
    info.nStartID = byId ? from : 0;
    info.nEndID = byId ? to : 0;
    info.nStartTime = byId ? 0 : from;
    info.nEndTime = byId ? 0 : to;
    info.nMaxRecord = 0;
    info.nOrder = order;
    std::vector<CBBSQL::CppSQLite3Table> tables;
    const int found = store.handle.SqlSelect(info, tables);
    QueryResult q;
    q.label = label;
    for (CBBSQL::CppSQLite3Table& t : tables) {
        q.rows += static_cast<unsigned long long>(t.numRows());
    }
    q.expected = Expected(store, byId, from, to);
    q.ok = (found == 1) == (q.rows > 0);
    return q;
}

// Mid-run reads, right after a save cycle: the alarm history's newest
// records (partly still in the memory buffer) and the trend log's last
// minute, which while the card is out lives in the buffer only.
void Simulator::LiveQuery() {
    Store& alarm = *m_stores[0];
    const unsigned long long b = alarm.Accepted();
    const unsigned long long a = b > 300 ? b - 299 : 1;
    DbData* store = Sqlite3DB::GetDbByID(alarm.id);
    const long long buffered = store ? store->GetNowDBMemRecordNum() : 0;
    if (b > 0) {
        alarm.queries.push_back(RunQuery(alarm, true, a, b, 0,
                                         "live ID query " + std::to_string(a) + ".." +
                                             std::to_string(b) + " (" + std::to_string(buffered) +
                                             " of them still buffered)"));
    }
    // While the card is out the store has no files at all: what it still
    // answers from is the buffer, which holds everything since the pull.
    Store& trend = *m_stores[1];
    if (trend.Accepted() > 0) {
        const unsigned long long to = trend.times.back();
        if (m_stats.cardPulled && !m_stats.cardBack) {
            trend.queries.push_back(RunQuery(trend, false, m_stats.pulledStamp, to, 0,
                                             "live time query since the card was pulled "
                                             "(buffer only)"));
        } else {
            trend.queries.push_back(RunQuery(trend, false, to >= 60000 ? to - 60000 : 0, to, 0,
                                             "live time query, last minute"));
        }
    }
}

// Final reads after the last save. The windows lie inside what retention
// always keeps: the alarm history keeps at least its newest
// (files - 1) * records-per-file records, the event log at least its limit.
void Simulator::FinalQueries() {
    for (const std::unique_ptr<Store>& ptr : m_stores) {
        Store& s = *ptr;
        const unsigned long long n = s.Accepted();
        if (n == 0) {
            continue;
        }
        unsigned long long idFrom = 1, idTo = n, tFrom = 0, tTo = 0;
        switch (s.kind) {
            case StoreKind::kAlarm:
                idFrom = n > 1500 ? n - 1499 : 1;
                tFrom = s.times[(n > 1000 ? n - 999 : 1) - 1];
                tTo = s.times[(n > 200 ? n - 200 : n) - 1];
                break;
            case StoreKind::kTrend:
                idFrom = n / 3 + 1;
                idTo = std::max(idFrom, 2 * n / 3);
                tFrom = m_stats.startStamp + m_stats.durationMs * 45 / 100;
                tTo = m_stats.startStamp + m_stats.durationMs * 55 / 100;
                break;
            case StoreKind::kEvent:
                idFrom = n > 500 ? n - 499 : 1;
                tFrom = s.times[(n > 300 ? n - 299 : 1) - 1];
                tTo = s.times[n - 1];
                break;
        }
        s.queries.push_back(
            RunQuery(s, true, idFrom, idTo, 1,
                     "ID query " + std::to_string(idFrom) + ".." + std::to_string(idTo)));
        s.queries.push_back(RunQuery(s, false, tFrom, tTo, 0,
                                     "time query " + UtcText(tFrom) + " .. " + UtcText(tTo)));
    }
}

// The platform copies operator messages and log lines to standard error.
// During the run they go to a file of the work directory instead, so that
// they do not break into the progress bar; the summary lists them all.
void Simulator::DivertLibraryOutput() {
    m_libraryLog = m_workDir + "/library-stderr.log";
    fflush(stderr);
    const int fd = open(m_libraryLog.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
        m_libraryLog.clear();
        return;
    }
    m_terminalFd = dup(STDERR_FILENO);
    dup2(fd, STDERR_FILENO);
    close(fd);
    m_terminal = fdopen(m_terminalFd, "w");
}

void Simulator::RestoreOutput() {
    if (m_terminalFd < 0) {
        return;
    }
    fflush(stderr);
    dup2(m_terminalFd, STDERR_FILENO);
    if (m_terminal != nullptr) {
        fclose(m_terminal);  // closes m_terminalFd
    } else {
        close(m_terminalFd);
    }
    m_terminal = nullptr;
    m_terminalFd = -1;
}

void Simulator::DrawProgress(unsigned long long nowMs, bool force) {
    if (!m_progress || m_terminal == nullptr) {
        return;
    }
    const unsigned long long real = MonotonicMs();
    if (!force && real - m_lastDrawRealMs < 200) {
        return;
    }
    m_lastDrawRealMs = real;
    const int width = 30;
    const int done = static_cast<int>(nowMs * width / m_stats.durationMs);
    std::string bar(static_cast<size_t>(done), '#');
    bar.resize(width, '.');
    fprintf(m_terminal, "\r  [%s] %3llu%%  panel time %s of %s", bar.c_str(),
            nowMs * 100 / m_stats.durationMs, ClockText(nowMs).c_str(),
            ClockText(m_stats.durationMs).c_str());
    fflush(m_terminal);
    m_progressShown = true;
}

void Simulator::EraseProgress() {
    if (m_progressShown && m_terminal != nullptr) {
        fprintf(m_terminal, "\r\033[K");
        fflush(m_terminal);
        m_progressShown = false;
    }
}

void Simulator::Run() {
    const unsigned long long dur = m_stats.durationMs;
    const unsigned long long pullAt = dur * 40 / 100;
    const unsigned long long backAt = dur * 65 / 100;
    const unsigned long long liveAt = dur / 2;
    const unsigned long long realStart = MonotonicMs();
    bool liveDone = false;
    unsigned long long nextSave = kSavePeriodMs;
    unsigned long long nextFreeSpace = kFreeSpacePeriodMs;
    const bool tty = isatty(STDERR_FILENO) != 0;
    DivertLibraryOutput();

    for (unsigned long long now = std::min(kStepMs, dur);; now = std::min(now + kStepMs, dur)) {
        AdvanceTo(now);
        if (!m_stats.cardPulled && now >= pullAt) {
            m_stats.pulledAtMs = now;
            m_stats.pulledStamp = Stamp(now);
            PullCard();
        }
        if (m_stats.cardPulled && !m_stats.cardBack && now >= backAt) {
            m_stats.backAtMs = now;
            PutCardBack();
        }
        for (const std::unique_ptr<Store>& s : m_stores) {
            Feed(*s, now);
        }
        QueueDueActions(now, false);
        if (now >= nextSave) {
            SaveAll(now);
            nextSave += kSavePeriodMs;
            // Read when every insert has reached a buffer (a cycle that tells
            // the operator about the missing card runs none) and the alarm
            // history holds records not yet flushed.
            bool ready = true;
            for (const std::unique_ptr<Store>& s : m_stores) {
                DbData* d = Sqlite3DB::GetDbByID(s->id);
                ready = ready && d && d->m_listInsertCmd.empty();
            }
            DbData* alarm = Sqlite3DB::GetDbByID(m_stores[0]->id);
            ready = ready && alarm && alarm->GetNowDBMemRecordNum() > 0;
            if (!liveDone && now >= liveAt && ready) {
                LiveQuery();
                liveDone = true;
            }
        }
        if (now >= nextFreeSpace) {
            Sqlite3DB::FreeSpaceDelete();
            ++m_stats.freeSpaceCalls;
            for (std::string& text : PlatformSim::TakeLogLines()) {
                m_stats.logLines.emplace_back(now, text);
            }
            nextFreeSpace += kFreeSpacePeriodMs;
        }
        // A bar only for runs that take a while, and only on a terminal.
        m_progress = tty && MonotonicMs() - realStart > 500;
        DrawProgress(now, false);
        if (now >= dur) {
            break;
        }
    }
    DrawProgress(dur, true);
    EraseProgress();

    // Shutdown: the operator's outstanding actions are queued now, and the
    // stores get the save cycles that flush what they still buffer (the
    // library itself saves nothing at Destroy).
    unsigned long long now = dur;
    for (int i = 0; i < 3; ++i) {
        QueueDueActions(now, true);
        now += kSaveTimeMs + kSavePeriodMs;
        AdvanceTo(now);
        SaveAll(now);
    }
    FinalQueries();
    for (std::string& text : PlatformSim::TakeLogLines()) {
        m_stats.logLines.emplace_back(now, text);  // from the queries, if any
    }
    RestoreOutput();
}

}  // namespace panelsim
