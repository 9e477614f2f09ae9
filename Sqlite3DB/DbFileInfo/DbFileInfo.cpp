// DbFileInfo: the catalog entry of one DB file and the parsing half of the
// file naming rule ("<stem>_<number>.db").
#include "Sqlite3DB/DbFileInfo/DbFileInfo.h"

#include <cstdio>

#include "COS.h"
#include "Sqlite3DB/ComFun.h"
#include "Sqlite3DB/DbData/DbText.h"

DbFileInfo::DbFileInfo()
    : m_nFileID(0), m_nStartTime(0), m_nEndTime(0), m_nStartID(0), m_nEndID(0) {}

void DbFileInfo::SetFullNameAndInfo(const std::string& fullPath) {
    // A path without '/' leaves FilePath and FullName as they were.
    ComFun_SplitPathAndNameFromFullPath(fullPath, m_strFilePath, m_strFullName);
    ComFun_GetContentBeforeFirstSpit(m_strFullName, "_", m_strFileName);
    SetFileID(m_strFullName);
}

void DbFileInfo::SetFileID(const std::string& bareName) {
    std::string stemAndNumber;
    std::string extension;
    ComFun_SplitNameAndFormatFromFullName(bareName, stemAndNumber, extension);

    std::string stem;
    std::string number;
    ComFun_GetContentFrontAndBackOfSpit(stemAndNumber, "_", stem, number);

    // sscanf's result is deliberately not checked: a name that does not parse
    // keeps the old number, and "%d" stores a negative number's bit pattern.
    int value = 0;
    if (sscanf(number.c_str(), "%d", &value) == 1) {
        m_nFileID = static_cast<unsigned int>(value);
    }
}

int DbFileInfo::UpdateEndID(unsigned long long id) {
    if (id < m_nStartID) {
        DB_LOG(dbtext::kLogUpdateEndID);
        return 0;
    }
    m_nEndID = id;
    return 1;
}

int DbFileInfo::UpdateEndIDAndEndTime(unsigned long long id) {
    if (UpdateEndID(id) == 0) {
        return 0;
    }
    m_nEndTime = COS::CosTime::GetTimeStamp();
    return 1;
}

int DbFileInfo::UpdateEndIDAndEndTimeNoName(unsigned long long id) {
    return UpdateEndIDAndEndTime(id);
}

void DbFileInfo::UpdateEndTime() {
    m_nEndTime = COS::CosTime::GetTimeStamp();
}

bool myfunction(DbFileInfo a, DbFileInfo b) {
    return a.GetFileID() < b.GetFileID();
}
