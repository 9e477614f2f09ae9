// DbFileInfo: the catalog entry of one DB file of a store, and the file naming
// rule. A DB file is named "<stem>_<number>.db"; the number is read back out of
// the name with sscanf, and the catalog is ordered by it (myfunction).
#ifndef SQLITE3DB_DBFILEINFO_DBFILEINFO_H_
#define SQLITE3DB_DBFILEINFO_DBFILEINFO_H_

#include <string>

class DbFileInfo {
public:
    DbFileInfo();

    void SetFileID(unsigned int id) { m_nFileID = id; }
    unsigned int GetFileID() const { return m_nFileID; }
    void SetFileName(const std::string& name) { m_strFileName = name; }
    std::string GetFileName() const { return m_strFileName; }
    void SetProjMD5(const std::string& md5) { m_strProjMD5 = md5; }
    std::string GetProjMD5() const { return m_strProjMD5; }
    std::string GetFullName() const { return m_strFullName; }
    void SetStartTime(unsigned long long t) { m_nStartTime = t; }
    unsigned long long GetStartTime() const { return m_nStartTime; }
    void SetEndTime(unsigned long long t) { m_nEndTime = t; }
    unsigned long long GetEndTime() const { return m_nEndTime; }
    void SetStartID(unsigned long long id) { m_nStartID = id; }
    unsigned long long GetStartID() const { return m_nStartID; }
    void SetEndID(unsigned long long id) { m_nEndID = id; }
    unsigned long long GetEndID() const { return m_nEndID; }

    // Fills FilePath, FullName, FileName and FileID from a file's full path.
    void SetFullNameAndInfo(const std::string& fullPath);
    // Parses the file number out of a bare file name ("rec_12.db" -> 12).
    void SetFileID(const std::string& bareName);

    // Set EndID to id unless id < StartID (logged, 0).
    int UpdateEndID(unsigned long long id);
    int UpdateEndIDAndEndTime(unsigned long long id);
    int UpdateEndIDAndEndTimeNoName(unsigned long long id);
    void UpdateEndTime();

private:
    std::string m_strProjMD5;
    unsigned int m_nFileID;
    std::string m_strFileName;  // the part of FullName before its first '_'
    unsigned long long m_nStartTime;
    unsigned long long m_nEndTime;
    unsigned long long m_nStartID;
    unsigned long long m_nEndID;
    std::string m_strFullName;  // bare name with extension; no directory
    std::string m_strFilePath;  // directory part with its trailing '/'
};

// The catalog's ordering: ascending file number, unsigned.
bool myfunction(DbFileInfo a, DbFileInfo b);

#endif  // SQLITE3DB_DBFILEINFO_DBFILEINFO_H_
