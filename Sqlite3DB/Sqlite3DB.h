// Sqlite3DB: the class the host uses. Its static face is the process-wide
// registry of stores (enable, create, look up, save all, free-space
// housekeeping, destroy); an instance is a small copyable handle bound to one
// store by its ID, through which the host's data operations reach the store.
//
// The registry has no lock: stores are created at start-up and destroyed at
// shutdown while no other thread uses the library.
#ifndef SQLITE3DB_SQLITE3DB_H_
#define SQLITE3DB_SQLITE3DB_H_

#include <list>
#include <string>
#include <vector>

#include "CBBSQL.h"
#include "Sqlite3DB/DbData/DbData.h"

class Sqlite3DB {
public:
    // --- Registry ------------------------------------------------------------
    // Spelled without the 'e' on purpose: this is the exported name hosts call.
    static int Sqlit3DBEnable(const std::string& projectFile);
    static void SetInitType(int type);
    static int GetInitType();
    // The new store's ID, or -1 (ID out of range), -2 (ID in use),
    // -4 (configuration refused), -5 (library not enabled).
    static long long Create(const _tagDBConf& conf, long long id);
    static int DbIDExist(long long id);
    static DbData* GetDbByID(long long id);
    static void Save();
    static void FreeSpaceDelete();
    static void Destroy();

    static std::list<DbData*> m_listDbData;  // owns the stores, in creation order
    static int m_bEnable;
    static int m_bInitSuccess;
    static long long m_nMaxDBID;  // the last automatically assigned ID
    static std::string m_strProjMD5;

    // --- Handle ----------------------------------------------------------------
    Sqlite3DB();
    ~Sqlite3DB();
    void DeInit();
    int Open(long long id);
    void SetDbData(DbData* store);
    void SetDbDataID(long long id);
    long long GetDbDataID();
    int LoadDbSuccess();

    int SqlInsert(const std::string& sql);
    int SqlUpdate(const std::string& sql);
    int SqlDelete(const std::string& sql);
    int SqlSelect(const std::string& sql, CBBSQL::CppSQLite3Query& query);
    int CreateTable(const std::string& sql);
    // Not guarded against an unbound handle: call it only on an opened handle.
    int SqlAddNode(_tagDBSqlCmdInfo& cmd);
    int SqlSelect(_tagDBSqlSelectCmdInfo& info, std::vector<CBBSQL::CppSQLite3Table>& tables);
    int SqlSelect(_tagDBSqlSelectCmdInfo& info);
    int DoOneSQL(int target, std::list<std::string> sqls);
    int DoOneSQL(int target, const std::string& sql);
    int TableIsExist(const std::string& name);
    int GetIndexIDfroTime(std::string& sql, unsigned long long start, unsigned long long end,
                          int order, unsigned long long* out);
    long long GetMaxID();
    long long GetMinID();
    long long GetMaxTime();
    long long GetMinTime();
    long long GetChangeNum();

private:
    long long m_nDbDataID;
    DbData* m_pDbData;
};

#endif  // SQLITE3DB_SQLITE3DB_H_
