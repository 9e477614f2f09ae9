// DbData: one store. The host's insert commands are queued, run in one
// transaction per save cycle into a ":memory:" buffer (or straight into the
// current file) and flushed on time into a rolling series of DB files in the
// store's save directory; other commands are deferred and run on every source
// that holds their record ID. The catalog m_vecFileInfo lists the DB files in
// file-number order; its last entry is the current file.
//
// Locks: m_mutexSave is held for a whole save cycle and by the select paths;
// m_mutexCmd guards the two command queues and is held for a whole insert
// batch; m_mutexFile guards insertion into and emptying of the catalog. Order:
// m_mutexSave before m_mutexCmd; m_mutexFile never while m_mutexCmd is held.
//
// Everything is public so that the host's diagnostics and white-box tests can
// read the store's state.
#ifndef SQLITE3DB_DBDATA_DBDATA_H_
#define SQLITE3DB_DBDATA_DBDATA_H_

#include <list>
#include <string>
#include <vector>

#include "CBBSQL.h"
#include "COS.h"
#include "Sqlite3DB/DbFileInfo/DbFileInfo.h"

// Configuration of a store, given to Sqlite3DB::Create. The texts belong to
// the caller and must be non-null; Config copies them.
struct _tagDBConf {
    std::string* pDirName;         // store directory under the save root
    std::string* pFileName;        // file name; the stem is the part before the first '.'
    int nStorePattern;             // 0 internal flash, 1 SD card, 2 USB disk
    int nMaxRecordNum;             // records per file before a new one; 0 = no limit
    int nMaxFileSize;              // KiB per file before a new one; 0 = no limit
    int bSplitFile;                // 1 roll over to new files; 0 one file, trimmed
    int nMaxFileNum;               // most files kept; 0 = no limit
    int nSaveTime;                 // least ms between flushes; 0 = never flush on time
    int bUseMemDB;                 // 1 buffer in ":memory:"; 0 write straight to the file
    int bSaveFile;                 // 1 keep DB files; 0 no files
    std::string* pTableName;       // the data table
    std::string* pCreateTableSql;  // its CREATE TABLE statement
    int nDelRecordNum;             // records removed by one trim; 0 = no trimming
    std::string* pDelRecordSql;    // the trimming statement
    int bClearOnReload;            // 0 keep queued commands and buffered rows on reload
};

// One queued command. pSql belongs to the caller on the way in; a queued copy
// owns its string.
struct _tagDBSqlCmdInfo {
    std::string* pSql;
    int nType;                 // 1 = a record write carrying nID and nTime
    unsigned long long nID;    // the record's ID (type 1)
    unsigned long long nTime;  // the record's time (type 1), in the host's unit
};

// One read request.
struct _tagDBSqlSelectCmdInfo {
    std::string* pSql;
    int nSelectType;  // 1 by ID range, 2 by time range, 3 attached copy
    unsigned long long nStartID;
    unsigned long long nEndID;
    unsigned long long nStartTime;
    unsigned long long nEndTime;
    int nMaxRecord;  // kinds 1, 2: row limit (0 none); kind 3: stop flag
    int nOrder;      // 0 newest first; otherwise oldest first
};

class DbData {
public:
    DbData();
    ~DbData();
    DbData(const DbData&) = delete;
    DbData& operator=(const DbData&) = delete;

    // --- Data model -------------------------------------------------------
    int HasSaveDir();
    long long GetID();
    void ClearFileList();
    int ClearSQLList();
    int ClearMemDbFile();  // REQUIRES: m_mutexSave held, or not yet registered

    // --- Command queue and memory buffer -----------------------------------
    int AddNode(_tagDBSqlCmdInfo& cmd);
    int Insert(const std::string& sql);
    int Update(const std::string& sql);
    int Delete(const std::string& sql);
    int CreateMemoryDB();
    void SaveCmdInfo(CBBSQL::CppSQLite3DB* db);  // REQUIRES: m_mutexSave held
    void UpdateDBMemoryInfo_in(unsigned long long time, unsigned long long id);
    void UpdateDBMemoryInfo_out();
    void UpdateDBMemoryInfo_Del(unsigned int n);
    long long GetNowDBMemRecordNum();
    long long GetChangeNum();

    // --- Save cycle ---------------------------------------------------------
    void Save(unsigned long long tick);
    void SaveSqlToDb(unsigned long long tick);  // REQUIRES: m_mutexSave held
    int FlushDB();                              // REQUIRES: m_mutexSave held
    int AttachDbDB();
    int DetachDbDB();

    // --- Configuration and start-up ----------------------------------------
    int Config(const _tagDBConf& conf, long long id, const std::string& projMD5);
    int InitDbData();
    int CheckSaveDir();
    int ReloadFile();
    int IsDbFileExist();

    // --- DB files and catalog -----------------------------------------------
    int ReadDbInfo(const std::string& path, unsigned long long* maxID, unsigned long long* minID,
                   unsigned long long* startTime, unsigned long long* endTime);
    void UpdateFileList();
    void InsertFileInfoIntoVector(DbFileInfo& rec);
    unsigned int GetMaxFileID();
    int GetFileNum();
    int FineIDCmpFileID(unsigned long long start, unsigned long long end,
                        unsigned long long fileStart, unsigned long long fileEnd);
    int FineTimeCmpFileTime(unsigned long long start, unsigned long long end,
                            unsigned long long fileStart, unsigned long long fileEnd);
    int FindFile_ID(std::vector<int>& result, unsigned long long start, unsigned long long end,
                    int order);
    int FindFile_Time(std::vector<int>& result, unsigned long long start, unsigned long long end,
                      int order);

    // --- File rotation and retention ----------------------------------------
    int CreateFileDB();
    int UpdateFileDBInfo();
    int GetDBFilePath(int nIndex, std::string& strPath);
    void SplitDBFile();  // REQUIRES: m_mutexSave held
    void SplitAndCreatDBFile();
    void SqlDelDbData();
    unsigned long long GetNowDBFileRecordNum();
    void DeleteDBFile();
    int DelOldFile();
    unsigned long long GetOldFileTime();
    int GetStorePattern();
    int GetMaxFileNum();
    unsigned int GetNowFileNum();

    // --- Queries and direct SQL ----------------------------------------------
    int Select_ID(_tagDBSqlSelectCmdInfo info, std::vector<CBBSQL::CppSQLite3Table>& tables);
    int Select_Time(_tagDBSqlSelectCmdInfo info, std::vector<CBBSQL::CppSQLite3Table>& tables);
    int Select_FileVecToVecTable(std::string sql, std::vector<int> sources,
                                 std::vector<CBBSQL::CppSQLite3Table>& tables, int maxRecord);
    unsigned long long GetDataMaxID();
    unsigned long long GetDataMinID();
    unsigned long long GetDataMaxTime();
    unsigned long long GetDataMinTime();
    int Select_Attach(_tagDBSqlSelectCmdInfo info);
    int Select_DbFileToDbFile(std::string sql, std::vector<int> sources, int stop);
    int GetIndexIDfroTime(std::string& sql, unsigned long long start, unsigned long long end,
                          int order, unsigned long long* out);
    int Select(const std::string& sql, CBBSQL::CppSQLite3Query& query);
    int ExecDML(const std::string& sql);
    int ExecDML(int target, const std::string& sql);
    int ExecDML(int target, std::list<std::string>& sqls);
    int TableIsExist(const std::string& name);
    void RunOtherCmd(std::vector<int>& sources, std::string& sql);
    void RunOtherCmdInfo();  // REQUIRES: m_mutexSave held

    // --- Members, in the store's declared order --------------------------------
    long long m_nDBID;
    int m_bConfig;
    std::string m_strSavePath;  // save directory with its trailing '/'; empty = none usable
    std::string m_strSaveRoot;
    std::string m_strDirName;
    std::string m_strFileName;  // stem of the DB file names
    std::string m_strTableName;
    int m_nStorePattern;
    int m_nMaxRecordNum;
    int m_nMaxFileSize;
    int m_bSplitFile;
    int m_nMaxFileNum;
    int m_nSaveTime;
    unsigned long long m_nLastSaveTick;  // guarded by m_mutexSave
    int m_bMemChange;                    // guarded by m_mutexSave
    int m_bUseMemDB;
    int m_bSaveFile;
    std::string m_strCreateTableSql;
    std::string m_strDBInfoCreateSql;
    std::string m_strDBInfoTable;
    std::string m_strDBInfoSelectSql;
    int m_nDelRecordNum;
    std::string m_strDelRecordSql;
    int m_bNeedSplitCheck;  // guarded by m_mutexSave
    int m_bSaveDirOK;       // guarded by m_mutexSave
    unsigned long long m_nLastID;
    std::vector<DbFileInfo> m_vecFileInfo;  // inserts and emptying guarded by m_mutexFile
    COS::CosMutex m_mutexFile;
    std::list<_tagDBSqlCmdInfo> m_listInsertCmd;  // guarded by m_mutexCmd
    std::list<_tagDBSqlCmdInfo> m_listOtherCmd;   // guarded by m_mutexCmd
    COS::CosMutex m_mutexCmd;
    std::list<std::string> m_listSql;  // no lock: the host's Insert/Update/Delete texts
    COS::CosMutex m_mutexSave;
    std::string m_strProjMD5;
    CBBSQL::CppSQLite3DB* m_pMemDB;  // owned
    int m_bAttach;
    unsigned long long m_nMemMinID;      // memory range: written under m_mutexSave
    unsigned long long m_nMemMaxID;      //
    unsigned long long m_nMemStartTime;  //
    unsigned long long m_nMemEndTime;    //
    unsigned long long m_nChangeNum;     // written under m_mutexSave
    int m_nInsertCmdNum;                 // guarded by m_mutexSave
    int m_nOtherCmdNum;                  // guarded by m_mutexSave
    int m_bClearOnReload;
    int m_bHasSaveDir;
    // Entries the save cycle has run, kept with their strings so that AddNode
    // reuses them instead of allocating; never more than one queue's worth.
    std::list<_tagDBSqlCmdInfo> m_listSpareCmd;  // guarded by m_mutexCmd
};

#endif  // SQLITE3DB_DBDATA_DBDATA_H_
