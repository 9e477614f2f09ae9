// The store's fixed texts in one place: log line formats and SQL templates,
// so that the exact strings can be audited against each other. Private to
// the library's sources.
#ifndef SQLITE3DB_DBDATA_DBTEXT_H_
#define SQLITE3DB_DBDATA_DBTEXT_H_

#include "FormatPrint.h"

// Every log line starts with this prefix, the bare source file name and line.
#define DB_LOG(format, ...) \
    FormatPrintUtf8(format, "[App ]: ", GetBareFileName(__FILE__), __LINE__, ##__VA_ARGS__)

namespace dbtext {

// Log formats: prefix, file, line, then the message (usually the engine's).
constexpr const char kLogConfig[] = "%s%s(%d):  [DB]Config:%s\r\n";
constexpr const char kLogSave[] = "%s%s(%d):  [DB]Save:%s\r\n";
constexpr const char kLogFlushDB[] = "%s%s(%d):  [DB]FlushDB:%s\r\n";
constexpr const char kLogAttachDbDB[] = "%s%s(%d):  [DB]AttachDbDB:%s\r\n";
constexpr const char kLogDetachDbDB[] = "%s%s(%d):  [DB]DetachDbDB:%s\r\n";
constexpr const char kLogCreateFileDB[] = "%s%s(%d):  [DB]CreateFileDB:%s\r\n";
constexpr const char kLogUpdateFileDBInfo[] = "%s%s(%d):  [DB]UpdateFileDBInfo:%s\r\n";
constexpr const char kLogSqlDelDbData[] = "%s%s(%d):  [DB]SqlDelDbData:%s\r\n";
constexpr const char kLogReadDbInfo[] = "%s%s(%d):  [DB]ReadDbInfo:%s\r\n";
constexpr const char kLogTableIsExist[] = "%s%s(%d):  [DB]TableIsExist:%s\r\n";
constexpr const char kLogSelect[] = "%s%s(%d):  [DB]Select:%s\r\n";
constexpr const char kLogDB[] = "%s%s(%d):  [DB]%s\r\n";
constexpr const char kLogUpdateEndID[] = "%s%s(%d):  [DB]UpdateEndID:err\r\n";
constexpr const char kLogFileErr[] = "%s%s(%d):  fileERR-----   %s\r\n";
constexpr const char kLogInsertDuplicate[] = "%s%s(%d):  InsertFileInfoIntoVector 11\r\n";
constexpr const char kLogDelOldFileOk[] = "%s%s(%d):  DelOldFile---ok-----%s   %d\r\n";
constexpr const char kLogDelOldFileErr[] = "%s%s(%d):  DelOldFile---err-----%s   \r\n";

// Operator message when a store's save location is missing.
constexpr const char kMsgNoSaveLocation[] = "The save location does not exist";

// DB file names and the DBInfo table.
constexpr const char kFileNameFormat[] = "%s_%u.db";
// Signed on purpose when the current file's name is rebuilt: the same text
// as kFileNameFormat for every number below 2^31.
constexpr const char kFileNameRebuildFormat[] = "%s_%d.db";
constexpr const char kFullPathFormat[] = "%s%s";
constexpr const char kDBInfoCreateSql[] =
    "CREATE TABLE 'DBInfo' (version INTEGER PRIMARY KEY AUTOINCREMENT,MaxID INTEGER ,MinID "
    "INTEGER ,StartTime INTEGER ,EndTime INTEGER,Value0 INTEGER,Value1 INTEGER,Value2 "
    "INTEGER,Value3 INTEGER,Value4 INTEGER)";
constexpr const char kDBInfoTable[] = "DBInfo";
constexpr const char kDBInfoSelectSql[] = "SELECT * FROM 'DBInfo' WHERE version = 1";
constexpr const char kDBInfoNewRowSql[] = "replace into '%s' values (%d,0,0,%llu,%llu,0,0,0,0,0)";
constexpr const char kDBInfoUpdateRowSql[] =
    "replace into '%s' values (%d,%llu,%llu,%llu,%llu,0,0,0,0,0)";
constexpr const char kTableDefinitionSql[] =
    "select sql from sqlite_master where type=\"table\" and name=\"";

// Memory buffer and flush.
constexpr const char kMemoryDbName[] = ":memory:";
constexpr const char kAutoVacuumSql[] = "PRAGMA auto_vacuum = 1";
constexpr const char kDeleteAllSql[] = "DELETE FROM %s;";
constexpr const char kAttachSql[] = "ATTACH '%s' AS %s";
constexpr const char kDetachSql[] = "DETACH DATABASE %s";
constexpr const char kCopyToFileSql[] = "INSERT OR REPLACE INTO %s.%s SELECT * FROM %s;";
constexpr const char kAttachAlias[] = "filedb";

// Where the internal-flash stores live.
constexpr const char kDataRoot[] = "/mnt/data/";

// Statement and path buffers.
constexpr int kTextBufferSize = 512;

}  // namespace dbtext

#endif  // SQLITE3DB_DBDATA_DBTEXT_H_
