// DbData: the store engine. This file holds the data model, the command
// queue and memory buffer, the save cycle's frame, configuration and
// start-up, the catalog of DB files, the range lookup over files, file
// creation, splitting and retention. Statement execution, queries and the
// flush live in DbDataRunSql.cpp.
#include "Sqlite3DB/DbData/DbData.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "CHmiMedia.h"
#include "Sqlite3DB/ComFun.h"
#include "Sqlite3DB/DbData/DbText.h"

using CBBSQL::CppSQLite3DB;
using CBBSQL::CppSQLite3Exception;

namespace {

const unsigned int kMaxQueuedCmds = 500;

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Data model

DbData::DbData()
    : m_nDBID(0),
      m_bConfig(0),
      m_nStorePattern(0),
      m_nMaxRecordNum(0),
      m_nMaxFileSize(0),
      m_bSplitFile(0),
      m_nMaxFileNum(0),
      m_nSaveTime(0),
      m_nLastSaveTick(0),
      m_bMemChange(0),
      m_bUseMemDB(0),
      m_bSaveFile(0),
      m_strDBInfoCreateSql(dbtext::kDBInfoCreateSql),
      m_strDBInfoTable(dbtext::kDBInfoTable),
      m_strDBInfoSelectSql(dbtext::kDBInfoSelectSql),
      m_nDelRecordNum(0),
      m_bNeedSplitCheck(0),
      m_bSaveDirOK(0),
      m_nLastID(0),
      m_pMemDB(nullptr),
      m_bAttach(0),
      m_nMemMinID(0),
      m_nMemMaxID(0),
      m_nMemStartTime(0),
      m_nMemEndTime(0),
      m_nChangeNum(0),
      m_nInsertCmdNum(0),
      m_nOtherCmdNum(0),
      m_bClearOnReload(1),
      m_bHasSaveDir(0) {}

DbData::~DbData() {
    m_listSql.clear();
    delete m_pMemDB;
    m_pMemDB = nullptr;
    // Nothing is flushed: buffered rows and queued commands are dropped here,
    // but the texts the queues own are freed so that no memory is lost.
    for (_tagDBSqlCmdInfo& cmd : m_listInsertCmd) {
        delete cmd.pSql;
    }
    for (_tagDBSqlCmdInfo& cmd : m_listOtherCmd) {
        delete cmd.pSql;
    }
    for (_tagDBSqlCmdInfo& cmd : m_listSpareCmd) {
        delete cmd.pSql;
    }
}

int DbData::HasSaveDir() {
    return m_bHasSaveDir;
}

long long DbData::GetID() {
    return m_nDBID;
}

void DbData::ClearFileList() {
    if (m_vecFileInfo.empty()) {
        return;
    }
    m_mutexFile.Lock();
    m_vecFileInfo.clear();
    m_mutexFile.Unlock();
}

int DbData::ClearSQLList() {
    if (m_bClearOnReload == 0) {
        return 1;
    }
    m_mutexCmd.Lock();
    for (std::list<_tagDBSqlCmdInfo>* queue : {&m_listInsertCmd, &m_listOtherCmd}) {
        while (!queue->empty()) {
            delete queue->front().pSql;
            queue->pop_front();
        }
    }
    m_mutexCmd.Unlock();
    return 1;
}

int DbData::ClearMemDbFile() {
    if (m_bClearOnReload == 0 || m_bUseMemDB == 0 || m_pMemDB == nullptr) {
        return 1;
    }
    char sql[dbtext::kTextBufferSize];
    snprintf(sql, sizeof(sql), dbtext::kDeleteAllSql, m_strTableName.c_str());
    try {
        m_pMemDB->execOne(sql);
    } catch (CppSQLite3Exception&) {
        return 0;  // reported by the result only
    }
    m_nMemMinID = 0;
    m_nMemMaxID = 0;
    m_nMemStartTime = 0;
    m_nMemEndTime = 0;
    return 1;
}

// ---------------------------------------------------------------------------
// Command queue and memory buffer

int DbData::AddNode(_tagDBSqlCmdInfo& cmd) {
    m_mutexCmd.Lock();
    // A full queue of either kind refuses commands of both kinds.
    if (m_listInsertCmd.size() >= kMaxQueuedCmds || m_listOtherCmd.size() >= kMaxQueuedCmds) {
        m_mutexCmd.Unlock();
        return 0;
    }
    const char* text = cmd.pSql->c_str();  // copied up to the first NUL
    std::list<_tagDBSqlCmdInfo>& queue =
        strncmp(text, "insert", 6) == 0 || strncmp(text, "replace", 7) == 0 ? m_listInsertCmd
                                                                            : m_listOtherCmd;
    if (m_listSpareCmd.empty()) {
        _tagDBSqlCmdInfo entry = cmd;
        entry.pSql = new std::string(text);
        queue.push_back(entry);
    } else {
        // A spare entry and its string's buffer are reused: no allocation.
        queue.splice(queue.end(), m_listSpareCmd, m_listSpareCmd.begin());
        _tagDBSqlCmdInfo& entry = queue.back();
        std::string* copy = entry.pSql;
        entry = cmd;
        entry.pSql = copy;
        copy->assign(text);
    }
    m_mutexCmd.Unlock();
    return 1;
}

// Insert, Update and Delete only keep the text; no operation of the store
// runs m_listSql. Hosts store records through AddNode. Kept as it is.
int DbData::Insert(const std::string& sql) {
    m_listSql.push_back(sql);
    return 1;
}

int DbData::Update(const std::string& sql) {
    m_listSql.push_back(sql);
    return 1;
}

int DbData::Delete(const std::string& sql) {
    m_listSql.push_back(sql);
    return 1;
}

int DbData::CreateMemoryDB() {
    if (m_bUseMemDB == 0 || m_pMemDB != nullptr) {
        return 1;
    }
    try {
        m_pMemDB = new CppSQLite3DB();
        m_pMemDB->open(dbtext::kMemoryDbName);
        if (m_strTableName.empty() || m_strCreateTableSql.empty()) {
            return 0;
        }
        if (m_pMemDB->tableExists(m_strTableName.c_str())) {
            return 1;
        }
        m_pMemDB->execDML(dbtext::kAutoVacuumSql);
        m_pMemDB->execDML(m_strCreateTableSql.c_str());
    } catch (CppSQLite3Exception& e) {
        DB_LOG(dbtext::kLogConfig, e.errorMessage());
        return 0;
    }
    return 1;
}

void DbData::SaveCmdInfo(CppSQLite3DB* db) {
    if (db == nullptr) {
        return;
    }
    m_mutexCmd.Lock();
    if (m_listInsertCmd.empty()) {
        m_mutexCmd.Unlock();
        return;
    }
    m_bMemChange = 1;
    try {
        db->execDML("begin");
        // Only the commands counted at the start of the cycle run now.
        for (int i = 1; i <= m_nInsertCmdNum && !m_listInsertCmd.empty(); ++i) {
            _tagDBSqlCmdInfo& cmd = m_listInsertCmd.front();
            db->execDML(cmd.pSql->c_str());
            if (cmd.nType == 1) {
                m_nLastID = cmd.nID;
                UpdateDBMemoryInfo_in(cmd.nTime, cmd.nID);
            }
            // Removed from the queue, kept for reuse: the latest first, still in cache.
            m_listSpareCmd.splice(m_listSpareCmd.begin(), m_listInsertCmd, m_listInsertCmd.begin());
        }
        db->execDML("commit");
        ++m_nChangeNum;
        m_mutexCmd.Unlock();
    } catch (CppSQLite3Exception& e) {
        // Deliberately no rollback, and the failing command stays at the head
        // of the queue: it is retried first in the next cycle.
        m_mutexCmd.Unlock();
        DB_LOG(dbtext::kLogSave, e.errorMessage());
    }
}

void DbData::UpdateDBMemoryInfo_in(unsigned long long time, unsigned long long id) {
    m_nMemEndTime = time;
    m_nMemMaxID = id;
    if (m_nMemStartTime == 0) {
        m_nMemStartTime = time;
        m_nMemMinID = id;
    }
}

void DbData::UpdateDBMemoryInfo_out() {
    // Collapses onto the last record rather than emptying: the next records'
    // count starts from the last ID flushed.
    m_nMemStartTime = m_nMemEndTime;
    m_nMemMinID = m_nMemMaxID;
}

void DbData::UpdateDBMemoryInfo_Del(unsigned int n) {
    m_nMemMinID += n;
}

long long DbData::GetNowDBMemRecordNum() {
    if (m_bUseMemDB == 0) {
        return 0;
    }
    return static_cast<long long>(m_nMemMaxID - m_nMemMinID);
}

long long DbData::GetChangeNum() {
    return static_cast<long long>(m_nChangeNum);
}

// ---------------------------------------------------------------------------
// Save cycle (the flush itself is in DbDataRunSql.cpp)

void DbData::Save(unsigned long long tick) {
    if (m_bConfig == 0) {
        return;
    }
    m_mutexSave.Lock();
    m_mutexCmd.Lock();
    m_nInsertCmdNum = static_cast<int>(m_listInsertCmd.size());
    m_nOtherCmdNum = static_cast<int>(m_listOtherCmd.size());
    m_mutexCmd.Unlock();

    SaveSqlToDb(tick);
    RunOtherCmdInfo();
    SplitDBFile();
    m_mutexSave.Unlock();
}

// ---------------------------------------------------------------------------
// Configuration and start-up

int DbData::Config(const _tagDBConf& conf, long long id, const std::string& projMD5) {
    if (m_bConfig != 0) {
        return 0;
    }
    m_nDBID = id;
    m_nMaxRecordNum = conf.nMaxRecordNum;
    m_nMaxFileSize = conf.nMaxFileSize;
    m_bSplitFile = conf.bSplitFile;
    m_nMaxFileNum = conf.nMaxFileNum;
    m_nSaveTime = conf.nSaveTime;
    m_bUseMemDB = conf.bUseMemDB;
    m_strProjMD5 = projMD5;
    m_strTableName = *conf.pTableName;
    m_strCreateTableSql = *conf.pCreateTableSql;
    m_strDirName = *conf.pDirName;

    m_nStorePattern = conf.nStorePattern;
    if (m_nStorePattern == 0) {
        m_strSaveRoot = dbtext::kDataRoot;
        m_strSavePath = m_strSaveRoot + m_strDirName;
        if (!COS::CosDir::IsDir(m_strSavePath)) {
            COS::CosDir::MakeDir(m_strSavePath);
        }
    }
    m_bSaveFile = conf.bSaveFile;
    m_bClearOnReload = conf.bClearOnReload;
    m_nDelRecordNum = conf.nDelRecordNum;
    m_strDelRecordSql = *conf.pDelRecordSql;
    ComFun_GetContentBeforeFirstSpit(*conf.pFileName, ".", m_strFileName);

    InitDbData();
    m_bConfig = 1;
    return 1;
}

int DbData::InitDbData() {
    CheckSaveDir();
    CreateMemoryDB();
    // Even without a usable save directory: CreateFileDB then works with
    // whatever m_strSavePath holds.
    if (GetFileNum() == 0) {
        CreateFileDB();
    }
    return 1;
}

int DbData::CheckSaveDir() {
    auto reload = [this]() {
        ClearSQLList();
        ClearMemDbFile();
        m_bSaveDirOK = ReloadFile();
        return m_bSaveDirOK;
    };
    auto drop = [this]() {
        if (m_bSaveDirOK == 0) {
            return 0;
        }
        m_strSavePath.clear();
        ClearFileList();
        ClearSQLList();
        ClearMemDbFile();
        m_bSaveDirOK = 0;
        return 0;
    };

    if (m_bSaveFile == 0) {
        return 1;
    }
    if (m_nStorePattern == 0) {
        if (COS::CosDir::IsDir(m_strSavePath) && IsDbFileExist() && m_bSaveDirOK != 0) {
            return 1;
        }
        return reload();
    }
    if (m_nStorePattern == 2 && !CHmiMedia::isUSBExsit()) {
        return drop();
    }
    if (m_nStorePattern == 1 && !CHmiMedia::isSDExsit()) {
        return drop();
    }
    if (!COS::CosDir::IsDir(m_strSavePath) || !IsDbFileExist() || m_bSaveDirOK == 0) {
        return reload();
    }
    if (m_bSaveDirOK == 1) {
        return 1;
    }
    // Unreachable while ReloadFile yields only 0 or 1; kept as the store has it.
    m_strSavePath.clear();
    ClearFileList();
    ClearSQLList();
    ClearMemDbFile();
    m_bSaveDirOK = 1;
    return 1;
}

int DbData::ReloadFile() {
    m_strSavePath.clear();
    m_strSaveRoot.clear();
    if (m_nStorePattern == 0) {
        m_strSaveRoot = dbtext::kDataRoot;
    } else if (m_nStorePattern == 2) {
        std::string usb = CHmiMedia::getUdiskPath();
        if (usb.empty()) {
            return 0;
        }
        m_strSaveRoot += usb;
    } else if (m_nStorePattern == 1) {
        std::string sd = CHmiMedia::getSDPath();
        if (sd.empty()) {
            return 0;
        }
        m_strSaveRoot += sd;
    }
    m_strSavePath = m_strSaveRoot + m_strDirName;
    ComFun_PathAddDec(m_strSavePath);
    if (!COS::CosDir::IsDir(m_strSavePath) && !COS::CosDir::MakeDir(m_strSavePath)) {
        return 0;
    }
    ClearFileList();
    UpdateFileList();
    if (GetFileNum() == 0) {
        CreateFileDB();
    }
    return 1;
}

int DbData::IsDbFileExist() {
    std::list<std::string> names;
    if (!COS::CosDir::ListDir(m_strSavePath, 0, "*.db", names) || names.empty()) {
        return 0;
    }
    for (const std::string& name : names) {
        if (StartsWith(name, m_strFileName)) {
            return 1;
        }
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Catalog

void DbData::UpdateFileList() {
    if (m_bSaveFile == 0 || m_strSavePath.empty()) {
        return;
    }
    if (!COS::CosDir::IsDir(m_strSavePath)) {
        return;
    }
    std::list<std::string> names;
    if (!COS::CosDir::ListDir(m_strSavePath, 0, "*.db", names)) {
        return;
    }
    for (const std::string& name : names) {
        if (!StartsWith(name, m_strFileName)) {
            continue;
        }
        std::string path = m_strSavePath + name;
        unsigned long long maxID = 0, minID = 0, startTime = 0, endTime = 0;
        if (!ReadDbInfo(path, &maxID, &minID, &startTime, &endTime)) {
            continue;
        }
        DbFileInfo rec;
        rec.SetFullNameAndInfo(path);
        rec.SetStartID(minID);
        rec.SetEndID(maxID);
        rec.SetStartTime(startTime);
        rec.SetEndTime(endTime);
        InsertFileInfoIntoVector(rec);
    }
    if (!m_vecFileInfo.empty()) {
        std::sort(m_vecFileInfo.begin(), m_vecFileInfo.end(), myfunction);
    }
    if (m_vecFileInfo.size() < 2) {
        return;
    }
    // A new file carries MinID = MaxID = 0: its range starts where the
    // previous file ended. The file's DBInfo row is not rewritten here.
    DbFileInfo& last = m_vecFileInfo.back();
    if (last.GetStartID() == 0) {
        unsigned long long prevEnd = m_vecFileInfo[m_vecFileInfo.size() - 2].GetEndID();
        last.SetStartID(prevEnd);
        last.SetEndID(prevEnd);
    }
}

void DbData::InsertFileInfoIntoVector(DbFileInfo& rec) {
    m_mutexFile.Lock();
    // Signed comparison here, unlike myfunction's unsigned one; the two
    // differ only for file numbers of 2^31 and above. Kept as it is.
    const int recID = static_cast<int>(rec.GetFileID());
    auto it = m_vecFileInfo.begin();
    while (it != m_vecFileInfo.end() && static_cast<int>(it->GetFileID()) < recID) {
        ++it;
    }
    if (it == m_vecFileInfo.end()) {
        m_vecFileInfo.push_back(rec);
    } else if (it->GetFileID() == rec.GetFileID() && it->GetStartID() == rec.GetStartID() &&
               it->GetStartTime() == rec.GetStartTime()) {
        // A twin is reported and still kept, at the end of the catalog.
        DB_LOG(dbtext::kLogInsertDuplicate);
        m_vecFileInfo.push_back(rec);
    } else {
        m_vecFileInfo.insert(it, rec);
    }
    m_mutexFile.Unlock();
}

unsigned int DbData::GetMaxFileID() {
    unsigned int maxID = 0;
    for (const DbFileInfo& rec : m_vecFileInfo) {
        maxID = std::max(maxID, rec.GetFileID());
    }
    return maxID;
}

int DbData::GetFileNum() {
    return static_cast<int>(m_vecFileInfo.size());
}

// ---------------------------------------------------------------------------
// Range lookup over files

int DbData::FineIDCmpFileID(unsigned long long start, unsigned long long end,
                            unsigned long long fileStart, unsigned long long fileEnd) {
    // The four tests in this order, without normalising the bounds.
    if (start == 0 && end == 0) {
        return 1;
    }
    if (start <= fileStart && fileStart <= end) {
        return 1;
    }
    if (start <= fileEnd && fileEnd <= end) {
        return 1;
    }
    if (fileStart < start && end < fileEnd) {
        return 1;
    }
    return 0;
}

int DbData::FineTimeCmpFileTime(unsigned long long start, unsigned long long end,
                                unsigned long long fileStart, unsigned long long fileEnd) {
    return FineIDCmpFileID(start, end, fileStart, fileEnd);
}

namespace {

// Appends the matching catalog indexes and -1 for a matching buffer. The
// buffer holds the newest records: last when oldest first (order non-zero),
// first when newest first.
template <typename Matches>
void AppendSources(const std::vector<DbFileInfo>& catalog, bool bufferMatches, int order,
                   Matches matches, std::vector<int>& result) {
    const int count = static_cast<int>(catalog.size());
    if (order != 0) {
        for (int i = 0; i < count; ++i) {
            if (matches(catalog[i])) {
                result.push_back(i);
            }
        }
        if (bufferMatches) {
            result.push_back(-1);
        }
        return;
    }
    if (bufferMatches) {
        result.push_back(-1);
    }
    for (int i = count - 1; i >= 0; --i) {
        if (matches(catalog[i])) {
            result.push_back(i);
        }
    }
}

}  // namespace

int DbData::FindFile_ID(std::vector<int>& result, unsigned long long start, unsigned long long end,
                        int order) {
    // The buffer counts as holding records by its time stamps, also here.
    const bool bufferHolds = m_bUseMemDB != 0 && m_nMemStartTime != 0 && m_nMemEndTime != 0;
    const bool bufferMatches =
        bufferHolds && FineIDCmpFileID(start, end, m_nMemMinID, m_nMemMaxID) != 0;
    AppendSources(
        m_vecFileInfo, bufferMatches, order,
        [&](const DbFileInfo& rec) {
            return FineIDCmpFileID(start, end, rec.GetStartID(), rec.GetEndID()) != 0;
        },
        result);
    return 1;
}

int DbData::FindFile_Time(std::vector<int>& result, unsigned long long start,
                          unsigned long long end, int order) {
    const bool bufferHolds = m_bUseMemDB != 0 && m_nMemStartTime != 0 && m_nMemEndTime != 0;
    const bool bufferMatches =
        bufferHolds && FineTimeCmpFileTime(start, end, m_nMemStartTime, m_nMemEndTime) != 0;
    AppendSources(
        m_vecFileInfo, bufferMatches, order,
        [&](const DbFileInfo& rec) {
            return FineTimeCmpFileTime(start, end, rec.GetStartTime(), rec.GetEndTime()) != 0;
        },
        result);
    return 1;
}

// ---------------------------------------------------------------------------
// File creation and DBInfo upkeep

int DbData::CreateFileDB() {
    if (m_bSaveFile == 0 || m_strCreateTableSql.empty() || m_strTableName.empty() ||
        m_strSavePath.empty()) {
        return 0;
    }
    const unsigned int number = (GetFileNum() == 0) ? 0 : GetMaxFileID() + 1;
    char name[dbtext::kTextBufferSize];
    char path[dbtext::kTextBufferSize];
    snprintf(name, sizeof(name), dbtext::kFileNameFormat, m_strFileName.c_str(), number);
    snprintf(path, sizeof(path), dbtext::kFullPathFormat, m_strSavePath.c_str(), name);

    // Not catalogued (its number is above every catalogued one): a leftover
    // of a failed creation or a rejected file. Replaced, not reused.
    if (COS::CosFile::ExistFile(path)) {
        COS::CosFile::Delete(path);
    }
    unsigned long long now = 0;
    try {
        CppSQLite3DB db;
        db.open(path);
        db.execDML(m_strCreateTableSql.c_str());
        db.execDML(m_strDBInfoCreateSql.c_str());
        now = COS::CosTime::GetTimeStamp();
        char sql[dbtext::kTextBufferSize];
        snprintf(sql, sizeof(sql), dbtext::kDBInfoNewRowSql, m_strDBInfoTable.c_str(), 1, now, now);
        db.execDML(sql);
    } catch (CppSQLite3Exception& e) {
        DB_LOG(dbtext::kLogCreateFileDB, e.errorMessage());
        return 0;
    }
    DbFileInfo rec;
    rec.SetFullNameAndInfo(path);
    rec.SetFileID(std::string(name));
    rec.SetStartID(0);
    rec.SetEndID(0);
    rec.SetStartTime(now);
    rec.SetEndTime(now);
    InsertFileInfoIntoVector(rec);
    return 1;
}

int DbData::UpdateFileDBInfo() {
    if (m_bSaveFile == 0 || m_strSavePath.empty() || m_vecFileInfo.empty()) {
        return 0;
    }
    const DbFileInfo& rec = m_vecFileInfo.back();
    char name[dbtext::kTextBufferSize];
    char path[dbtext::kTextBufferSize];
    snprintf(name, sizeof(name), dbtext::kFileNameRebuildFormat, m_strFileName.c_str(),
             static_cast<int>(rec.GetFileID()));
    snprintf(path, sizeof(path), dbtext::kFullPathFormat, m_strSavePath.c_str(), name);
    char sql[dbtext::kTextBufferSize];
    snprintf(sql, sizeof(sql), dbtext::kDBInfoUpdateRowSql, m_strDBInfoTable.c_str(), 1,
             rec.GetEndID(), rec.GetStartID(), rec.GetStartTime(), rec.GetEndTime());
    try {
        CppSQLite3DB db;
        db.open(path);
        db.execDML(sql);
    } catch (CppSQLite3Exception& e) {
        DB_LOG(dbtext::kLogUpdateFileDBInfo, e.errorMessage());
        return 0;
    }
    return 1;
}

int DbData::GetDBFilePath(int nIndex, std::string& strPath) {
    if (m_strSavePath.empty()) {
        return 0;
    }
    const int n = static_cast<int>(m_vecFileInfo.size());
    if (n == 0 || nIndex >= n) {
        return 0;
    }
    if (nIndex == -1) {
        nIndex = n - 1;
    }
    ComFun_GetFileFullPath(m_strSavePath, m_vecFileInfo[nIndex].GetFullName(), strPath);
    return 1;
}

// ---------------------------------------------------------------------------
// File splitting

unsigned long long DbData::GetNowDBFileRecordNum() {
    if (m_vecFileInfo.empty()) {
        return 0;
    }
    // EndID - StartID without adding one: IDs 10 to 19 count 9. Kept so.
    const DbFileInfo& rec = m_vecFileInfo.back();
    return rec.GetEndID() - rec.GetStartID();
}

void DbData::SplitDBFile() {
    if (m_bNeedSplitCheck == 0) {
        return;
    }
    if (m_bSplitFile == 0) {
        SqlDelDbData();
        return;
    }
    std::string path;
    if (!GetDBFilePath(-1, path)) {
        return;
    }
    unsigned int size = 0;
    COS::CosFile::FileSize(path, size);
    const unsigned int sizeKiB = size >> 10;
    // Strict on size, inclusive on the record count: both intended.
    if (m_nMaxFileSize != 0 && sizeKiB > static_cast<unsigned int>(m_nMaxFileSize)) {
        SplitAndCreatDBFile();
        return;
    }
    if (m_nMaxRecordNum != 0 &&
        GetNowDBFileRecordNum() >= static_cast<unsigned long long>(m_nMaxRecordNum)) {
        SplitAndCreatDBFile();
    }
}

void DbData::SplitAndCreatDBFile() {
    if (m_bSaveFile != 0) {
        CreateFileDB();
    }
    DeleteDBFile();
}

void DbData::SqlDelDbData() {
    const unsigned int n = static_cast<unsigned int>(m_nDelRecordNum);
    if (n == 0) {
        return;
    }
    const unsigned int window = static_cast<unsigned int>(m_nMaxRecordNum) + n;
    try {
        if (m_bSaveFile != 0) {
            if (m_vecFileInfo.empty()) {
                return;
            }
            DbFileInfo& rec = m_vecFileInfo.back();
            if (rec.GetEndID() - rec.GetStartID() <= window) {
                return;
            }
            CppSQLite3DB db;
            db.open((m_strSavePath + rec.GetFullName()).c_str());
            db.execQuery(m_strDelRecordSql.c_str());  // dropped at once: finishes the statement
            // The rows really deleted are not counted: one trim is taken as N.
            rec.SetStartID(rec.GetStartID() + n);
            UpdateFileDBInfo();
        } else if (m_bUseMemDB != 0) {
            if (static_cast<unsigned long long>(GetNowDBMemRecordNum()) <= window) {
                return;
            }
            m_pMemDB->execDML(m_strDelRecordSql.c_str());
            UpdateDBMemoryInfo_Del(n);
        }
    } catch (CppSQLite3Exception& e) {
        DB_LOG(dbtext::kLogSqlDelDbData, e.errorMessage());
    }
}

// ---------------------------------------------------------------------------
// Retention

namespace {

// Deletes the oldest file of the catalog; on success the entry goes and the
// catalog keeps no spare capacity. Returns the capacity before the erase, or
// -1 when the file could not be deleted.
int RemoveOldestFile(std::vector<DbFileInfo>& catalog, const std::string& path) {
    if (!COS::CosFile::Delete(path)) {
        return -1;
    }
    const int capacity = static_cast<int>(catalog.capacity());
    catalog.erase(catalog.begin());
    std::vector<DbFileInfo>(catalog).swap(catalog);
    return capacity;
}

}  // namespace

void DbData::DeleteDBFile() {
    if (m_nMaxFileNum == 0) {
        return;
    }
    if (static_cast<unsigned int>(m_nMaxFileNum) >= m_vecFileInfo.size()) {
        return;
    }
    // One file per call, even when the catalog exceeds the limit by more.
    RemoveOldestFile(m_vecFileInfo, m_strSavePath + m_vecFileInfo.front().GetFullName());
}

int DbData::DelOldFile() {
    if (m_vecFileInfo.empty()) {
        return 0;
    }
    const std::string path = m_strSavePath + m_vecFileInfo.front().GetFullName();
    const int capacity = RemoveOldestFile(m_vecFileInfo, path);
    if (capacity < 0) {
        DB_LOG(dbtext::kLogDelOldFileErr, path.c_str());
        return 0;
    }
    // The number printed is the catalog's capacity, not its file count; kept so.
    DB_LOG(dbtext::kLogDelOldFileOk, path.c_str(), capacity);
    return 1;
}

unsigned long long DbData::GetOldFileTime() {
    return m_vecFileInfo.empty() ? 0 : m_vecFileInfo.front().GetStartTime();
}

int DbData::GetStorePattern() {
    return m_nStorePattern;
}

int DbData::GetMaxFileNum() {
    return m_nMaxFileNum;
}

unsigned int DbData::GetNowFileNum() {
    return static_cast<unsigned int>(m_vecFileInfo.size());
}
