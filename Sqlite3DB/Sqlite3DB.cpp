// Sqlite3DB: the registry of stores and the handle the host uses. Nothing
// here logs, throws or locks; results are the only report.
#include "Sqlite3DB/Sqlite3DB.h"

#include "COS.h"
#include "CbbMd5.h"
#include "Sqlite3DB/DbData/DbText.h"

std::list<DbData*> Sqlite3DB::m_listDbData;
int Sqlite3DB::m_bEnable = 0;
int Sqlite3DB::m_bInitSuccess = 0;
long long Sqlite3DB::m_nMaxDBID = 0;
std::string Sqlite3DB::m_strProjMD5;

namespace {

const long long kMaxExplicitID = 999;
const unsigned int kFreeSpaceThreshold = 5120;  // KiB on the data partition

// The verb test of the forwarders: the first six characters, case-sensitive,
// nothing skipped before them.
bool HasVerb(const std::string& sql, const char* verb) {
    return sql.compare(0, 6, verb) == 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Registry

int Sqlite3DB::Sqlit3DBEnable(const std::string& projectFile) {
    CBB::CbbMd5 md5(0);
    // The library is switched on even when the project file cannot be read.
    md5.Md5File(projectFile, m_strProjMD5);
    m_bEnable = 1;
    return 1;
}

void Sqlite3DB::SetInitType(int type) {
    m_bInitSuccess = type;
}

int Sqlite3DB::GetInitType() {
    return m_bInitSuccess;
}

long long Sqlite3DB::Create(const _tagDBConf& conf, long long id) {
    if (m_bEnable == 0) {
        return -5;
    }
    if (id < 0 || id > kMaxExplicitID) {
        return -1;
    }
    if (id != 0 && DbIDExist(id)) {
        return -2;
    }
    DbData* store = new DbData();
    long long storeId = id;
    if (id == 0) {
        // Automatic IDs are neither checked against explicit ones nor bounded:
        // mixing both can give two stores one ID (GetDbByID finds the first).
        storeId = ++m_nMaxDBID;
    }
    if (store->Config(conf, storeId, m_strProjMD5) == 0) {
        delete store;  // an automatic ID is not given back
        return -4;
    }
    m_listDbData.push_back(store);
    return storeId;
}

int Sqlite3DB::DbIDExist(long long id) {
    return GetDbByID(id) != nullptr ? 1 : 0;
}

DbData* Sqlite3DB::GetDbByID(long long id) {
    for (DbData* store : m_listDbData) {
        if (store != nullptr && store->GetID() == id) {
            return store;
        }
    }
    return nullptr;
}

void Sqlite3DB::Save() {
    if (m_bEnable == 0) {
        return;
    }
    // One reading for every store, so all stores judge the same moment.
    const unsigned long long tick = COS::CosTime::GetTickCountCos();
    for (DbData* store : m_listDbData) {
        if (store != nullptr) {
            store->Save(tick);
        }
    }
}

void Sqlite3DB::FreeSpaceDelete() {
    if (m_bEnable == 0) {
        return;
    }
    unsigned int value = 0;
    if (COS::CosOsState::GetDiskFreeSize(dbtext::kDataRoot, value) > kFreeSpaceThreshold) {
        return;
    }
    DbData* chosen = nullptr;
    unsigned long long chosenTime = 0;
    for (DbData* store : m_listDbData) {
        // Only internal-flash stores without a count limit of their own, and
        // never a store's only (current) file.
        if (store == nullptr || store->GetStorePattern() != 0 || store->GetMaxFileNum() != 0 ||
            store->GetNowFileNum() <= 1 || store->GetOldFileTime() == 0) {
            continue;
        }
        // On a tie the later store wins.
        if (chosen == nullptr || store->GetOldFileTime() <= chosenTime) {
            chosen = store;
            chosenTime = store->GetOldFileTime();
        }
    }
    if (chosen != nullptr) {
        chosen->DelOldFile();
    }
}

void Sqlite3DB::Destroy() {
    while (!m_listDbData.empty()) {
        delete m_listDbData.front();
        m_listDbData.pop_front();
    }
}

// ---------------------------------------------------------------------------
// Handle

Sqlite3DB::Sqlite3DB() : m_nDbDataID(0), m_pDbData(nullptr) {}

Sqlite3DB::~Sqlite3DB() {}

void Sqlite3DB::DeInit() {
    m_nDbDataID = 0;
    m_pDbData = nullptr;
}

int Sqlite3DB::Open(long long id) {
    DeInit();
    DbData* store = GetDbByID(id);
    if (store == nullptr) {
        return 0;
    }
    SetDbData(store);
    SetDbDataID(id);
    return 1;
}

void Sqlite3DB::SetDbData(DbData* store) {
    m_pDbData = store;
}

void Sqlite3DB::SetDbDataID(long long id) {
    m_nDbDataID = id;
}

long long Sqlite3DB::GetDbDataID() {
    return m_nDbDataID;
}

int Sqlite3DB::LoadDbSuccess() {
    return m_pDbData != nullptr ? m_pDbData->HasSaveDir() : 0;
}

int Sqlite3DB::SqlInsert(const std::string& sql) {
    if (m_pDbData == nullptr || !HasVerb(sql, "insert")) {
        return 0;
    }
    return m_pDbData->Insert(sql);
}

int Sqlite3DB::SqlUpdate(const std::string& sql) {
    if (m_pDbData == nullptr || !HasVerb(sql, "update")) {
        return 0;
    }
    return m_pDbData->Update(sql);
}

int Sqlite3DB::SqlDelete(const std::string& sql) {
    if (m_pDbData == nullptr || !HasVerb(sql, "delete")) {
        return 0;
    }
    return m_pDbData->Delete(sql);
}

int Sqlite3DB::SqlSelect(const std::string& sql, CBBSQL::CppSQLite3Query& query) {
    if (m_pDbData == nullptr || !HasVerb(sql, "select")) {
        return 0;
    }
    return m_pDbData->Select(sql, query);
}

int Sqlite3DB::CreateTable(const std::string& sql) {
    if (m_pDbData == nullptr || !HasVerb(sql, "create")) {
        return 0;
    }
    return m_pDbData->ExecDML(sql);
}

// Deliberately without the bound-store test of the other forwarders.
int Sqlite3DB::SqlAddNode(_tagDBSqlCmdInfo& cmd) {
    return m_pDbData->AddNode(cmd);
}

int Sqlite3DB::SqlSelect(_tagDBSqlSelectCmdInfo& info,
                         std::vector<CBBSQL::CppSQLite3Table>& tables) {
    if (m_pDbData == nullptr) {
        return 0;
    }
    if (info.nSelectType == 1) {
        return m_pDbData->Select_ID(info, tables);
    }
    if (info.nSelectType == 2) {
        return m_pDbData->Select_Time(info, tables);
    }
    return 0;
}

int Sqlite3DB::SqlSelect(_tagDBSqlSelectCmdInfo& info) {
    if (m_pDbData == nullptr || info.nSelectType != 3) {
        return 0;
    }
    return m_pDbData->Select_Attach(info);
}

int Sqlite3DB::DoOneSQL(int target, std::list<std::string> sqls) {
    return m_pDbData != nullptr ? m_pDbData->ExecDML(target, sqls) : 0;
}

int Sqlite3DB::DoOneSQL(int target, const std::string& sql) {
    return m_pDbData != nullptr ? m_pDbData->ExecDML(target, sql) : 0;
}

int Sqlite3DB::TableIsExist(const std::string& name) {
    return m_pDbData != nullptr ? m_pDbData->TableIsExist(name) : 0;
}

int Sqlite3DB::GetIndexIDfroTime(std::string& sql, unsigned long long start, unsigned long long end,
                                 int order, unsigned long long* out) {
    if (m_pDbData == nullptr || sql.empty() || out == nullptr) {
        return 0;
    }
    return m_pDbData->GetIndexIDfroTime(sql, start, end, order, out);
}

long long Sqlite3DB::GetMaxID() {
    return m_pDbData != nullptr ? static_cast<long long>(m_pDbData->GetDataMaxID()) : 0;
}

long long Sqlite3DB::GetMinID() {
    return m_pDbData != nullptr ? static_cast<long long>(m_pDbData->GetDataMinID()) : 0;
}

long long Sqlite3DB::GetMaxTime() {
    return m_pDbData != nullptr ? static_cast<long long>(m_pDbData->GetDataMaxTime()) : 0;
}

long long Sqlite3DB::GetMinTime() {
    return m_pDbData != nullptr ? static_cast<long long>(m_pDbData->GetDataMinTime()) : 0;
}

long long Sqlite3DB::GetChangeNum() {
    return m_pDbData != nullptr ? m_pDbData->GetChangeNum() : 0;
}
