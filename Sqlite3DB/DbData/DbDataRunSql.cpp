// DbData, statement side: the check of DB files found on disk, the save-to-file
// step (running the batch and flushing the buffer into the current file),
// range queries across files, the attached-copy query and time-to-index
// lookup, direct statements and the deferred commands.
//
// Several results here are fixed whatever happened, and a few failure paths
// leave m_mutexSave held or release it without having taken it. Hosts and
// the store's own save cycle depend on these exact results; each place says so.
#include <cstdio>

#include "MessageMoude.h"
#include "Sqlite3DB/ComFun.h"
#include "Sqlite3DB/DbData/DbData.h"
#include "Sqlite3DB/DbData/DbText.h"

using CBBSQL::CppSQLite3DB;
using CBBSQL::CppSQLite3Exception;
using CBBSQL::CppSQLite3Query;
using CBBSQL::CppSQLite3Table;

namespace {

// Tick at which "The save location does not exist" was last posted; shared
// by every store of the process, read and written without a lock.
unsigned long long s_nLastMsgTick = 0;

const unsigned long long kMsgInterval = 14999;  // ms; the message waits for more than this

// The column list up to its first ")": from the first "(" to just before the
// first ")". Deliberately this narrow. Throws std::out_of_range without "(".
std::string ColumnListSlice(const std::string& createSql) {
    const std::string::size_type open = createSql.find("(");
    const std::string::size_type close = createSql.find(")");
    return createSql.substr(open, close - open);
}

}  // namespace

// ---------------------------------------------------------------------------
// DB file check

int DbData::ReadDbInfo(const std::string& path, unsigned long long* maxID,
                       unsigned long long* minID, unsigned long long* startTime,
                       unsigned long long* endTime) {
    if (COS::CosFile::ExistFile(path) != 1) {
        return 0;
    }
    if (maxID == nullptr || minID == nullptr || startTime == nullptr || endTime == nullptr) {
        return 0;
    }
    try {
        CppSQLite3DB db;
        db.open(path.c_str());
        std::string sql =
            dbtext::kTableDefinitionSql + ComFun_SqlEscape(m_strTableName, '"') + "\";";
        CppSQLite3Query query = db.execQuery(sql.c_str());
        if (query.eof()) {
            // Not the store's file at all: it goes, whatever else it holds.
            DB_LOG(dbtext::kLogFileErr, path.c_str());
            query.finalize();
            db.close();
            COS::CosFile::Delete(path);
            return 0;
        }
        const std::string stored = ColumnListSlice(query.getStringField(0, ""));
        const std::string configured = ColumnListSlice(m_strCreateTableSql);
        query.finalize();
        if (stored != configured) {
            return 0;  // another layout: kept on disk, not catalogued
        }
        CppSQLite3Query info = db.execQuery(m_strDBInfoSelectSql.c_str());
        if (info.eof()) {
            return 0;
        }
        *maxID = info.getInt64Field(1, 0);
        *minID = info.getInt64Field(2, 0);
        *startTime = info.getInt64Field(3, 0);
        *endTime = info.getInt64Field(4, 0);
        return 1;
    } catch (CppSQLite3Exception& e) {
        DB_LOG(dbtext::kLogReadDbInfo, e.errorMessage());
        return 0;
    }
}

// ---------------------------------------------------------------------------
// Save to file

namespace {

// The flush is due only when strictly more than saveTime ms have passed; a
// tick that went backwards gives a huge difference, so it is due then.
bool FlushDue(unsigned long long tick, unsigned long long lastTick, int saveTime) {
    const unsigned long long d = tick - lastTick;
    return (d >> 32) != 0 || static_cast<unsigned int>(d) > static_cast<unsigned int>(saveTime);
}

}  // namespace

void DbData::SaveSqlToDb(unsigned long long tick) {
    if (m_pMemDB == nullptr) {
        // No buffer: the batch waits for the interval and then goes straight
        // into the current file.
        if (m_nSaveTime == 0 || !FlushDue(tick, m_nLastSaveTick, m_nSaveTime)) {
            return;
        }
        m_nLastSaveTick = tick;
        m_bHasSaveDir = CheckSaveDir();
        std::string path;
        if (!GetDBFilePath(-1, path)) {
            return;
        }
        // Not guarded: an exception from open leaves Save with m_mutexSave
        // held. The host must not rely on the store after it.
        CppSQLite3DB db;
        db.open(path.c_str());
        SaveCmdInfo(&db);
        UpdateFileDBInfo();
        m_bNeedSplitCheck = 1;
        return;
    }

    const int r = CheckSaveDir();
    m_bHasSaveDir = r;
    if (m_bSaveFile != 0 && r == 0) {
        const unsigned long long now = COS::CosTime::GetTickCountCos();
        if (now - s_nLastMsgTick > kMsgInterval) {
            s_nLastMsgTick = COS::CosTime::GetTickCountCos();
            MessageMoude::InsertMsg(dbtext::kMsgNoSaveLocation, 0);
            return;  // in the cycle that posts the message no insert runs
        }
    }
    SaveCmdInfo(m_pMemDB);
    if (m_nSaveTime == 0) {
        return;
    }
    if (!FlushDue(tick, m_nLastSaveTick, m_nSaveTime)) {
        return;
    }
    if (m_bSaveFile == 0) {
        return;
    }
    // The interval runs between flush checks, not between flushes.
    m_nLastSaveTick = tick;
    if (m_bMemChange != 0) {
        m_bMemChange = 0;
        m_bHasSaveDir = CheckSaveDir();
        FlushDB();
        m_bNeedSplitCheck = 1;
    }
}

int DbData::FlushDB() {
    AttachDbDB();
    if (m_bUseMemDB == 0 || m_pMemDB == nullptr || m_bSaveFile == 0 || m_bAttach != 1) {
        return 1;  // nothing to do counts as success
    }
    if (m_vecFileInfo.empty()) {
        // Defensive: only reachable when a failed detach left m_bAttach at 1
        // and the location was dropped since. The rows stay buffered.
        DetachDbDB();
        return 0;
    }
    char copySql[dbtext::kTextBufferSize];
    char deleteSql[dbtext::kTextBufferSize];
    snprintf(copySql, sizeof(copySql), dbtext::kCopyToFileSql, dbtext::kAttachAlias,
             m_strTableName.c_str(), m_strTableName.c_str());
    snprintf(deleteSql, sizeof(deleteSql), dbtext::kDeleteAllSql, m_strTableName.c_str());
    try {
        // The catalog entry, the DBInfo row and the memory range move before
        // the copy, on purpose: after a failed copy the rows stay buffered and
        // the next flush copies them again (INSERT OR REPLACE is idempotent).
        DbFileInfo& current = m_vecFileInfo.back();
        if (current.GetEndID() == 0) {
            current.SetStartTime(m_nMemStartTime);
            current.SetEndTime(m_nMemEndTime);
            current.SetStartID(m_nMemMinID);
        } else {
            current.SetEndTime(m_nMemEndTime);
        }
        current.SetEndID(m_nMemMaxID);
        UpdateFileDBInfo();
        UpdateDBMemoryInfo_out();
        m_pMemDB->execOne(copySql);
        m_pMemDB->execOne(deleteSql);
    } catch (CppSQLite3Exception& e) {
        DetachDbDB();
        DB_LOG(dbtext::kLogFlushDB, e.errorMessage());
        return 0;
    }
    DetachDbDB();
    return 1;
}

int DbData::AttachDbDB() {
    if (m_bSaveFile == 0 || m_bUseMemDB == 0 || m_pMemDB == nullptr) {
        return 0;
    }
    std::string path;
    if (!GetDBFilePath(-1, path)) {
        return 0;
    }
    char sql[dbtext::kTextBufferSize];
    // The path comes from a file name on the medium: it stays one literal and
    // one statement.
    snprintf(sql, sizeof(sql), dbtext::kAttachSql, ComFun_SqlEscape(path).c_str(),
             dbtext::kAttachAlias);
    try {
        m_pMemDB->execOne(sql);
        unsigned int size = 0;
        COS::CosFile::FileSize(path, size);
    } catch (CppSQLite3Exception& e) {
        DB_LOG(dbtext::kLogAttachDbDB, e.errorMessage());
        return 0;
    }
    m_bAttach = 1;
    return 1;
}

int DbData::DetachDbDB() {
    if (m_bUseMemDB == 0 || m_pMemDB == nullptr) {
        return 0;
    }
    char sql[dbtext::kTextBufferSize];
    snprintf(sql, sizeof(sql), dbtext::kDetachSql, dbtext::kAttachAlias);
    try {
        m_pMemDB->execOne(sql);
    } catch (CppSQLite3Exception& e) {
        DB_LOG(dbtext::kLogDetachDbDB, e.errorMessage());
        return 0;
    }
    m_bAttach = 0;
    return 1;
}

// ---------------------------------------------------------------------------
// Range queries across files

int DbData::Select_ID(_tagDBSqlSelectCmdInfo info, std::vector<CppSQLite3Table>& tables) {
    std::vector<int> sources;
    FindFile_ID(sources, info.nStartID, info.nEndID, info.nOrder);
    std::string sql = *info.pSql;
    return Select_FileVecToVecTable(sql, sources, tables, info.nMaxRecord);
}

int DbData::Select_Time(_tagDBSqlSelectCmdInfo info, std::vector<CppSQLite3Table>& tables) {
    std::vector<int> sources;
    FindFile_Time(sources, info.nStartTime, info.nEndTime, info.nOrder);
    std::string sql = *info.pSql;
    return Select_FileVecToVecTable(sql, sources, tables, info.nMaxRecord);
}

int DbData::Select_FileVecToVecTable(std::string sql, std::vector<int> sources,
                                     std::vector<CppSQLite3Table>& tables, int maxRecord) {
    if (sources.empty()) {
        return 0;
    }
    m_mutexSave.Lock();
    int result = 0;
    int total = 0;
    try {
        for (int index : sources) {
            CppSQLite3Table table;
            if (index == -1) {
                table = m_pMemDB->getTable(sql.c_str());
            } else {
                CppSQLite3DB db;
                std::string path = m_strSavePath + m_vecFileInfo[index].GetFullName();
                if (!db.openWithoutCreate(path.c_str())) {
                    continue;  // a vanished file is skipped and not counted, on purpose
                }
                table = db.getTable(sql.c_str());
            }
            if (table.numRows() > 0) {
                total += table.numRows();
                tables.push_back(table);
                result = 1;
            }
            // Tested after each whole source: the result may exceed the limit.
            if (maxRecord != 0 && total >= maxRecord) {
                break;
            }
        }
    } catch (CppSQLite3Exception& e) {
        m_mutexSave.Unlock();
        DB_LOG(dbtext::kLogDB, e.errorMessage());
        return 0;  // tables gathered so far stay with the caller
    }
    m_mutexSave.Unlock();
    return result;
}

// The newest data sits in the buffer and the oldest in the first file, so the
// maxima ask the buffer first and the minima the files first.
unsigned long long DbData::GetDataMaxID() {
    if (m_bUseMemDB != 0 && m_nMemMaxID != 0) {
        return m_nMemMaxID;
    }
    if (m_bSaveFile != 0 && !m_vecFileInfo.empty()) {
        return m_vecFileInfo.back().GetEndID();
    }
    return 0;
}

unsigned long long DbData::GetDataMinID() {
    if (m_bSaveFile != 0) {
        return m_vecFileInfo.empty() ? 0 : m_vecFileInfo.front().GetStartID();
    }
    return m_bUseMemDB != 0 ? m_nMemMinID : 0;
}

unsigned long long DbData::GetDataMaxTime() {
    if (m_bUseMemDB != 0 && m_nMemEndTime != 0) {
        return m_nMemEndTime;
    }
    if (m_bSaveFile != 0 && !m_vecFileInfo.empty()) {
        return m_vecFileInfo.back().GetEndTime();
    }
    return 0;
}

unsigned long long DbData::GetDataMinTime() {
    if (m_bSaveFile != 0) {
        return m_vecFileInfo.empty() ? 0 : m_vecFileInfo.front().GetStartTime();
    }
    return m_bUseMemDB != 0 ? m_nMemStartTime : 0;
}

// ---------------------------------------------------------------------------
// Attached-copy query, time-to-index lookup, buffer cursor

int DbData::Select_Attach(_tagDBSqlSelectCmdInfo info) {
    std::vector<int> sources;
    FindFile_Time(sources, info.nStartTime, info.nEndTime, info.nOrder);
    std::string sql = *info.pSql;
    return Select_DbFileToDbFile(sql, sources, info.nMaxRecord);
}

// Always 0: the host learns the outcome from what its statements wrote.
int DbData::Select_DbFileToDbFile(std::string sql, std::vector<int> sources, int stop) {
    if (sources.empty()) {
        return 0;
    }
    m_mutexSave.Lock();
    try {
        for (int index : sources) {
            if (index == -1) {
                if (m_pMemDB->execDML(sql.c_str()) == 0) {
                    return 0;  // deliberately leaves m_mutexSave held
                }
            } else {
                CppSQLite3DB db;
                std::string path = m_strSavePath + m_vecFileInfo[index].GetFullName();
                if (!db.openWithoutCreate(path.c_str())) {
                    continue;  // not counted for the stop flag
                }
                const int changed = db.execDML(sql.c_str());
                db.close();
                if (changed == 0) {
                    return 0;  // deliberately leaves m_mutexSave held
                }
            }
            if (stop < 0) {
                break;
            }
        }
    } catch (CppSQLite3Exception& e) {
        m_mutexSave.Unlock();
        DB_LOG(dbtext::kLogDB, e.errorMessage());
        return 0;
    }
    m_mutexSave.Unlock();
    return 0;
}

int DbData::GetIndexIDfroTime(std::string& sql, unsigned long long start, unsigned long long end,
                              int order, unsigned long long* out) {
    std::vector<int> sources;
    FindFile_Time(sources, start, end, order);
    *out = 0;
    if (sources.empty()) {
        return 0;
    }
    try {
        for (int index : sources) {
            if (index == -1) {
                CppSQLite3Query query = m_pMemDB->execQuery(sql.c_str());
                if (!query.eof()) {
                    // Read as 32-bit signed and sign-extended; kept at this width.
                    *out = static_cast<unsigned long long>(
                        static_cast<long long>(query.getIntField(0, 0)));
                    return 1;
                }
                continue;
            }
            if (m_strSavePath.empty()) {
                return 0;
            }
            // Unlike the select paths, this open creates a missing file.
            CppSQLite3DB db;
            db.open((m_strSavePath + m_vecFileInfo[index].GetFullName()).c_str());
            CppSQLite3Query query = db.execQuery(sql.c_str());
            if (!query.eof()) {
                *out = static_cast<unsigned long long>(
                    static_cast<long long>(query.getIntField(0, 0)));
                return 1;
            }
        }
    } catch (CppSQLite3Exception& e) {
        DB_LOG(dbtext::kLogDB, e.errorMessage());
        *out = 0;
        return 0;
    }
    return 1;
}

int DbData::Select(const std::string& sql, CppSQLite3Query& query) {
    if (m_pMemDB == nullptr) {
        // Defensive: a store without a buffer has nothing to hand a cursor on.
        DB_LOG(dbtext::kLogSelect, "no memory buffer");
        return 0;
    }
    m_mutexSave.Lock();
    try {
        query = m_pMemDB->execQuery(sql.c_str());
    } catch (CppSQLite3Exception& e) {
        DB_LOG(dbtext::kLogSelect, e.errorMessage());
        return 0;  // by design the lock stays with the failing call
    }
    m_mutexSave.Unlock();
    return 1;
}

// ---------------------------------------------------------------------------
// Direct statements

namespace {

// The buffer forms address m_pMemDB directly; a store without a buffer gets
// an engine-style error instead of a crash.
CppSQLite3DB& MemoryDb(CppSQLite3DB* db) {
    if (db == nullptr) {
        throw CppSQLite3Exception(21, "no memory buffer");  // 21: SQLite's misuse code
    }
    return *db;
}

}  // namespace

int DbData::ExecDML(const std::string& sql) {
    try {
        if (m_pMemDB != nullptr) {
            m_pMemDB->execDML(sql.c_str());
            return 1;
        }
        std::string path;
        if (GetDBFilePath(-1, path)) {
            CppSQLite3DB db;
            db.open(path.c_str());
            db.execDML(sql.c_str());
        }
    } catch (CppSQLite3Exception& e) {
        DB_LOG(dbtext::kLogDB, e.errorMessage());
    }
    return 0;  // a run on the file is deliberately not reported as success
}

int DbData::ExecDML(int target, const std::string& sql) {
    try {
        std::string path;
        switch (target) {
            case 0:
                MemoryDb(m_pMemDB).execDML(sql.c_str());
                return 1;
            case 1: {
                if (!GetDBFilePath(-1, path)) {
                    return 0;
                }
                CppSQLite3DB db;
                db.open(path.c_str());
                db.execDML(sql.c_str());
                return 1;
            }
            case 2: {
                MemoryDb(m_pMemDB).execDML(sql.c_str());
                if (GetDBFilePath(-1, path)) {
                    CppSQLite3DB db;
                    db.open(path.c_str());
                    db.execDML(sql.c_str());
                }
                return 0;  // target 2 reports 0 on every path, deliberately
            }
            default:
                return 0;
        }
    } catch (CppSQLite3Exception& e) {
        DB_LOG(dbtext::kLogDB, e.errorMessage());
        return 0;
    }
}

// Always 0; no rollback on failure: on the buffer the transaction stays open
// until the next "commit", on a file it ends with the connection.
int DbData::ExecDML(int target, std::list<std::string>& sqls) {
    try {
        CppSQLite3DB file;
        CppSQLite3DB* db = m_pMemDB;
        if (target != 0 || m_pMemDB == nullptr) {
            std::string path;
            if (!GetDBFilePath(-1, path)) {
                return 0;
            }
            file.open(path.c_str());
            db = &file;
        }
        db->execDML("begin");
        for (const std::string& statement : sqls) {
            std::string copy = statement;
            db->execDML(copy.c_str());
        }
        db->execDML("commit");
    } catch (CppSQLite3Exception& e) {
        DB_LOG(dbtext::kLogDB, e.errorMessage());
    }
    return 0;
}

int DbData::TableIsExist(const std::string& name) {
    try {
        if (m_pMemDB != nullptr) {
            return m_pMemDB->tableExists(name.c_str()) ? 1 : 0;
        }
        std::string path;
        if (!GetDBFilePath(-1, path)) {
            return 0;
        }
        CppSQLite3DB db;
        db.open(path.c_str());
        return db.tableExists(name.c_str()) ? 1 : 0;
    } catch (CppSQLite3Exception& e) {
        DB_LOG(dbtext::kLogTableIsExist, e.errorMessage());
        return 0;
    }
}

// ---------------------------------------------------------------------------
// Deferred commands

void DbData::RunOtherCmd(std::vector<int>& sources, std::string& sql) {
    if (sources.empty()) {
        return;
    }
    try {
        for (int index : sources) {
            if (index == -1) {
                m_pMemDB->execDML(sql.c_str());
            } else {
                // open creates a catalogued file that has vanished; never skipped here.
                CppSQLite3DB db;
                db.open((m_strSavePath + m_vecFileInfo[index].GetFullName()).c_str());
                db.execDML(sql.c_str());
            }
        }
    } catch (CppSQLite3Exception& e) {
        // Deliberate: releases the m_mutexSave that Save holds, so the rest of
        // this cycle runs without it, and leaves the source list uncleared so
        // that the next command also runs on these sources.
        m_mutexSave.Unlock();
        DB_LOG(dbtext::kLogDB, e.errorMessage());
        return;
    }
    sources.clear();
}

void DbData::RunOtherCmdInfo() {
    m_mutexCmd.Lock();
    if (m_listOtherCmd.empty()) {
        m_mutexCmd.Unlock();
        return;
    }
    std::vector<int> sources;  // lives for the whole call
    int run = 0;
    while (m_nOtherCmdNum > 0 && !m_listOtherCmd.empty() && run < m_nOtherCmdNum) {
        _tagDBSqlCmdInfo& cmd = m_listOtherCmd.front();
        FindFile_ID(sources, cmd.nID, cmd.nID, 1);
        std::string sql = *cmd.pSql;
        RunOtherCmd(sources, sql);
        delete cmd.pSql;
        m_listOtherCmd.pop_front();
        ++run;
    }
    ++m_nChangeNum;
    m_mutexCmd.Unlock();
}
