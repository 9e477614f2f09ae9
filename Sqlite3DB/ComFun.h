// String and path helpers of the store: byte-wise search, split and join of
// std::string values. Which occurrence of a separator each helper takes, and
// which outputs it leaves untouched when the separator is absent, are part of
// their contract (file names and paths are taken apart with them).
#ifndef SQLITE3DB_COMFUN_H_
#define SQLITE3DB_COMFUN_H_

#include <string>
#include <vector>

// out = dir, then "/" unless dir ends in '/' or '\\', then name; an empty dir
// gives an empty out.
void ComFun_GetFileFullPath(const std::string& dir, const std::string& name, std::string& out);
// Appends "/" to a path of two bytes or more that does not end in '/' or '\\'.
void ComFun_PathAddDec(std::string& path);
// out = the bytes before the first sep, or all of src when sep is absent.
void ComFun_GetContentBeforeFirstSpit(const std::string& src, const std::string& sep,
                                      std::string& out);
// Split at the first sep: front before it, back from one byte after its first
// byte. Without sep: front = src, back unchanged.
void ComFun_GetContentFrontAndBackOfSpit(const std::string& src, const std::string& sep,
                                         std::string& front, std::string& back);
// Replaces every from by to, searching again where the last match began.
void ComFun_StringReplaceAll(std::string& str, const std::string& from, const std::string& to);
// Split at the last '/': path keeps the '/'. Returns 0 (outputs unchanged)
// when full holds no '/'.
int ComFun_SplitPathAndNameFromFullPath(const std::string& full, std::string& path,
                                        std::string& name);
// Split at the last '.', which goes to neither part. Returns 0 (outputs
// unchanged) when there is no '.'.
int ComFun_SplitNameAndFormatFromFullName(const std::string& fullName, std::string& name,
                                          std::string& format);
// Appends the first path component of src to out.
void ComFun_GetFirstPath(const std::string& src, std::string& out);
// Appends the pieces of src between occurrences of sep to parts.
void ComFun_SplitString(const std::string& src, const std::string& sep,
                        std::vector<std::string>& parts);

// value with every quote byte doubled: put between two quotes in a statement,
// it stays one literal (or name) whatever it holds. Every file name, path or
// configured name enters the store's SQL through here.
std::string ComFun_SqlEscape(const std::string& value, char quote = '\'');

#endif  // SQLITE3DB_COMFUN_H_
