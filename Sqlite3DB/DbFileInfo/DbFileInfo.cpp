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

    // A name that does not parse deliberately keeps the old number. The number
    // is read as 64 bits and cut to 32, as "%d" does where long has 64 bits: a
    // negative one gives its bit pattern (rec_-1.db is 2^32 - 1), and a "%u"
    // name of 2^31 or more reads back as written on 32-bit targets too, where
    // "%d" would stop at 2^31 - 1.
    long long value = 0;
    if (sscanf(number.c_str(), "%lld", &value) == 1) {
        m_nFileID = static_cast<unsigned int>(static_cast<unsigned long long>(value));
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
