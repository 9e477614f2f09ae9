// The ComFun_ string and path helpers: which occurrence of a separator each
// one takes, whether the separator is kept, which outputs stay untouched when
// the separator is absent, that outputs are appended to rather than cleared,
// and that UTF-8 bytes pass through unchanged.
#include "Sqlite3DB/ComFun.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using Parts = std::vector<std::string>;

namespace {

// "数据" (data) and "记录" (record) as UTF-8 bytes.
const std::string kData = "\xe6\x95\xb0\xe6\x8d\xae";
const std::string kRecord = "\xe8\xae\xb0\xe5\xbd\x95";

Parts Split(const std::string& src, const std::string& sep) {
    Parts parts;
    ComFun_SplitString(src, sep, parts);
    return parts;
}

std::string FirstPath(const std::string& src) {
    std::string out;
    ComFun_GetFirstPath(src, out);
    return out;
}

}  // namespace

// --- ComFun_GetFileFullPath -------------------------------------------------

TEST(ComFunGetFileFullPath, JoinsWithASlash) {
    std::string out;
    ComFun_GetFileFullPath("a", "b", out);
    EXPECT_EQ("a/b", out);
}

TEST(ComFunGetFileFullPath, EmptyDirGivesEmptyOutEvenWithAName) {
    std::string out = "old";
    ComFun_GetFileFullPath("", "name.db", out);
    EXPECT_EQ("", out);
}

TEST(ComFunGetFileFullPath, DirEndingInSlashGetsNoExtraSlash) {
    std::string out;
    ComFun_GetFileFullPath("/mnt/data/", "rec_0.db", out);
    EXPECT_EQ("/mnt/data/rec_0.db", out);
}

TEST(ComFunGetFileFullPath, DirEndingInBackslashGetsNoExtraSlash) {
    std::string out;
    ComFun_GetFileFullPath("C:\\data\\", "rec_0.db", out);
    EXPECT_EQ("C:\\data\\rec_0.db", out);
}

TEST(ComFunGetFileFullPath, OutIsReplacedNotAppended) {
    std::string out = "previous";
    ComFun_GetFileFullPath("d", "n", out);
    EXPECT_EQ("d/n", out);
}

TEST(ComFunGetFileFullPath, EmptyNameStillGetsTheSlash) {
    std::string out;
    ComFun_GetFileFullPath("dir", "", out);
    EXPECT_EQ("dir/", out);
}

TEST(ComFunGetFileFullPath, Utf8BytesPassThrough) {
    std::string out;
    ComFun_GetFileFullPath("/mnt/" + kData, kRecord + ".db", out);
    EXPECT_EQ("/mnt/" + kData + "/" + kRecord + ".db", out);
}

// --- ComFun_PathAddDec ------------------------------------------------------

TEST(ComFunPathAddDec, OneByteIsLeftAlone) {
    std::string path = "a";
    ComFun_PathAddDec(path);
    EXPECT_EQ("a", path);
}

TEST(ComFunPathAddDec, EmptyIsLeftAlone) {
    std::string path;
    ComFun_PathAddDec(path);
    EXPECT_EQ("", path);
}

TEST(ComFunPathAddDec, TwoBytesGetASlash) {
    std::string path = "ab";
    ComFun_PathAddDec(path);
    EXPECT_EQ("ab/", path);
}

TEST(ComFunPathAddDec, TrailingSlashIsLeftAlone) {
    std::string path = "ab/";
    ComFun_PathAddDec(path);
    EXPECT_EQ("ab/", path);
}

TEST(ComFunPathAddDec, TrailingBackslashIsLeftAlone) {
    std::string path = "ab\\";
    ComFun_PathAddDec(path);
    EXPECT_EQ("ab\\", path);
}

TEST(ComFunPathAddDec, LoneSlashIsLeftAlone) {
    std::string path = "/";
    ComFun_PathAddDec(path);
    EXPECT_EQ("/", path);
}

TEST(ComFunPathAddDec, Utf8DirectoryGetsASlash) {
    std::string path = "/mnt/data/" + kData;
    ComFun_PathAddDec(path);
    EXPECT_EQ("/mnt/data/" + kData + "/", path);
}

// --- ComFun_GetContentBeforeFirstSpit ---------------------------------------

TEST(ComFunGetContentBeforeFirstSpit, TakesTheTextBeforeTheFirstSeparator) {
    std::string out;
    ComFun_GetContentBeforeFirstSpit("log.db.bak", ".", out);
    EXPECT_EQ("log", out);
}

TEST(ComFunGetContentBeforeFirstSpit, WithoutSeparatorGivesTheWholeSource) {
    std::string out = "old";
    ComFun_GetContentBeforeFirstSpit("logfile", ".", out);
    EXPECT_EQ("logfile", out);
}

TEST(ComFunGetContentBeforeFirstSpit, SeparatorAtTheStartGivesEmpty) {
    std::string out = "old";
    ComFun_GetContentBeforeFirstSpit(".hidden", ".", out);
    EXPECT_EQ("", out);
}

TEST(ComFunGetContentBeforeFirstSpit, MultiByteSeparatorIsMatchedWhole) {
    std::string out;
    ComFun_GetContentBeforeFirstSpit("a-b--c--d", "--", out);
    EXPECT_EQ("a-b", out);
}

TEST(ComFunGetContentBeforeFirstSpit, EmptySourceGivesEmpty) {
    std::string out = "old";
    ComFun_GetContentBeforeFirstSpit("", "_", out);
    EXPECT_EQ("", out);
}

TEST(ComFunGetContentBeforeFirstSpit, Utf8BytesPassThrough) {
    std::string out;
    ComFun_GetContentBeforeFirstSpit(kData + "_" + kRecord, "_", out);
    EXPECT_EQ(kData, out);
}

// --- ComFun_GetContentFrontAndBackOfSpit ------------------------------------

TEST(ComFunGetContentFrontAndBackOfSpit, SplitsAtTheFirstSeparator) {
    std::string front, back;
    ComFun_GetContentFrontAndBackOfSpit("data_12.db", "_", front, back);
    EXPECT_EQ("data", front);
    EXPECT_EQ("12.db", back);
}

TEST(ComFunGetContentFrontAndBackOfSpit, LaterSeparatorsStayInTheBack) {
    std::string front, back;
    ComFun_GetContentFrontAndBackOfSpit("my_rec_5", "_", front, back);
    EXPECT_EQ("my", front);
    EXPECT_EQ("rec_5", back);
}

TEST(ComFunGetContentFrontAndBackOfSpit, BackStartsOneByteAfterASeparatorsFirstByte) {
    std::string front, back;
    ComFun_GetContentFrontAndBackOfSpit("xaby", "ab", front, back);
    EXPECT_EQ("x", front);
    EXPECT_EQ("by", back);
}

TEST(ComFunGetContentFrontAndBackOfSpit, AbsentSeparatorSetsFrontAndKeepsBack) {
    std::string front = "oldfront", back = "oldback";
    ComFun_GetContentFrontAndBackOfSpit("rec", "_", front, back);
    EXPECT_EQ("rec", front);
    EXPECT_EQ("oldback", back);
}

TEST(ComFunGetContentFrontAndBackOfSpit, TrailingSeparatorGivesEmptyBack) {
    std::string front, back = "old";
    ComFun_GetContentFrontAndBackOfSpit("rec_", "_", front, back);
    EXPECT_EQ("rec", front);
    EXPECT_EQ("", back);
}

TEST(ComFunGetContentFrontAndBackOfSpit, Utf8BytesPassThrough) {
    std::string front, back;
    ComFun_GetContentFrontAndBackOfSpit(kData + "_" + kRecord, "_", front, back);
    EXPECT_EQ(kData, front);
    EXPECT_EQ(kRecord, back);
}

// --- ComFun_StringReplaceAll ------------------------------------------------

TEST(ComFunStringReplaceAll, ReplacesEveryBackslash) {
    std::string s = "C:\\a\\b\\\\c";
    ComFun_StringReplaceAll(s, "\\", "/");
    EXPECT_EQ("C:/a/b//c", s);
}

TEST(ComFunStringReplaceAll, AbsentTextLeavesTheString) {
    std::string s = "/mnt/data";
    ComFun_StringReplaceAll(s, "\\", "/");
    EXPECT_EQ("/mnt/data", s);
}

TEST(ComFunStringReplaceAll, ReplacementMayBeLongerOrShorter) {
    std::string s = "a-b-c";
    ComFun_StringReplaceAll(s, "-", "::");
    EXPECT_EQ("a::b::c", s);
    ComFun_StringReplaceAll(s, "::", "");
    EXPECT_EQ("abc", s);
}

TEST(ComFunStringReplaceAll, SearchesAgainWhereTheMatchBegan) {
    // Replacing "aa" by "a" restarts at the match, so the shrunk text is
    // searched again: "aaaa" collapses to one "a".
    std::string s = "aaaa";
    ComFun_StringReplaceAll(s, "aa", "a");
    EXPECT_EQ("a", s);
}

TEST(ComFunStringReplaceAll, TextBeforeTheMatchIsNotSearchedAgain) {
    // "aabb": "ab" at 1 becomes "b", giving "abb"; the search goes on from 1,
    // so the "ab" now formed at 0 is kept.
    std::string s = "aabb";
    ComFun_StringReplaceAll(s, "ab", "b");
    EXPECT_EQ("abb", s);
}

TEST(ComFunStringReplaceAll, Utf8BytesPassThrough) {
    std::string s = kData + "\\" + kRecord;
    ComFun_StringReplaceAll(s, "\\", "/");
    EXPECT_EQ(kData + "/" + kRecord, s);
}

// --- ComFun_SplitPathAndNameFromFullPath ------------------------------------

TEST(ComFunSplitPathAndNameFromFullPath, SplitsAtTheLastSlashKeepingIt) {
    std::string path, name;
    EXPECT_EQ(1, ComFun_SplitPathAndNameFromFullPath("/mnt/data/x.db", path, name));
    EXPECT_EQ("/mnt/data/", path);
    EXPECT_EQ("x.db", name);
}

TEST(ComFunSplitPathAndNameFromFullPath, BackslashOnlyPathReturnsZeroAndKeepsOutputs) {
    std::string path = "oldpath", name = "oldname";
    EXPECT_EQ(0, ComFun_SplitPathAndNameFromFullPath("C:\\data\\x.db", path, name));
    EXPECT_EQ("oldpath", path);
    EXPECT_EQ("oldname", name);
}

TEST(ComFunSplitPathAndNameFromFullPath, NoSlashReturnsZeroAndKeepsOutputs) {
    std::string path = "oldpath", name = "oldname";
    EXPECT_EQ(0, ComFun_SplitPathAndNameFromFullPath("x.db", path, name));
    EXPECT_EQ("oldpath", path);
    EXPECT_EQ("oldname", name);
}

TEST(ComFunSplitPathAndNameFromFullPath, BackslashesBeforeTheLastSlashStayInPath) {
    std::string path, name;
    EXPECT_EQ(1, ComFun_SplitPathAndNameFromFullPath("a\\b/c\\d.db", path, name));
    EXPECT_EQ("a\\b/", path);
    EXPECT_EQ("c\\d.db", name);
}

TEST(ComFunSplitPathAndNameFromFullPath, TrailingSlashGivesEmptyName) {
    std::string path, name = "old";
    EXPECT_EQ(1, ComFun_SplitPathAndNameFromFullPath("/mnt/data/", path, name));
    EXPECT_EQ("/mnt/data/", path);
    EXPECT_EQ("", name);
}

TEST(ComFunSplitPathAndNameFromFullPath, RootFile) {
    std::string path, name;
    EXPECT_EQ(1, ComFun_SplitPathAndNameFromFullPath("/x.db", path, name));
    EXPECT_EQ("/", path);
    EXPECT_EQ("x.db", name);
}

TEST(ComFunSplitPathAndNameFromFullPath, Utf8BytesPassThrough) {
    std::string path, name;
    EXPECT_EQ(1, ComFun_SplitPathAndNameFromFullPath("/mnt/" + kData + "/" + kRecord + ".db", path,
                                                     name));
    EXPECT_EQ("/mnt/" + kData + "/", path);
    EXPECT_EQ(kRecord + ".db", name);
}

// --- ComFun_SplitNameAndFormatFromFullName ----------------------------------

TEST(ComFunSplitNameAndFormatFromFullName, SplitsAtTheLastDot) {
    std::string name, format;
    EXPECT_EQ(1, ComFun_SplitNameAndFormatFromFullName("a.b.db", name, format));
    EXPECT_EQ("a.b", name);
    EXPECT_EQ("db", format);
}

TEST(ComFunSplitNameAndFormatFromFullName, TrailingDotGivesEmptyFormat) {
    std::string name, format = "old";
    EXPECT_EQ(1, ComFun_SplitNameAndFormatFromFullName("name.", name, format));
    EXPECT_EQ("name", name);
    EXPECT_EQ("", format);
}

TEST(ComFunSplitNameAndFormatFromFullName, LeadingDotGivesEmptyName) {
    std::string name = "old", format;
    EXPECT_EQ(1, ComFun_SplitNameAndFormatFromFullName(".db", name, format));
    EXPECT_EQ("", name);
    EXPECT_EQ("db", format);
}

TEST(ComFunSplitNameAndFormatFromFullName, NoDotReturnsZeroAndKeepsOutputs) {
    std::string name = "oldname", format = "oldformat";
    EXPECT_EQ(0, ComFun_SplitNameAndFormatFromFullName("rec_7", name, format));
    EXPECT_EQ("oldname", name);
    EXPECT_EQ("oldformat", format);
}

TEST(ComFunSplitNameAndFormatFromFullName, Utf8BytesPassThrough) {
    std::string name, format;
    EXPECT_EQ(1, ComFun_SplitNameAndFormatFromFullName(kRecord + "_3." + kData, name, format));
    EXPECT_EQ(kRecord + "_3", name);
    EXPECT_EQ(kData, format);
}

// --- ComFun_GetFirstPath ----------------------------------------------------

TEST(ComFunGetFirstPath, AbsolutePathKeepsTheSecondSlash) {
    EXPECT_EQ("usr/", FirstPath("/usr/lib"));
    EXPECT_EQ("a/", FirstPath("/a/b/c"));
}

TEST(ComFunGetFirstPath, AbsolutePathWithOneComponent) {
    EXPECT_EQ("usr", FirstPath("/usr"));
}

TEST(ComFunGetFirstPath, LongerFirstComponentIsCutByThePositionUsedAsLength) {
    // The second '/' is at position 3, used as a length from position 1:
    // "/ab/cdef" gives "ab/"; "/abcdef/g" (second '/' at 7) gives "abcdef/".
    EXPECT_EQ("ab/", FirstPath("/ab/cdef"));
    EXPECT_EQ("abcdef/", FirstPath("/abcdef/g"));
}

TEST(ComFunGetFirstPath, LoneSlashAppendsEmptyText) {
    std::string out = "keep";
    ComFun_GetFirstPath("/", out);
    EXPECT_EQ("keep", out);
}

TEST(ComFunGetFirstPath, RelativePathGivesTheTextBeforeTheSlash) {
    EXPECT_EQ("usr", FirstPath("usr/lib"));
    EXPECT_EQ("a", FirstPath("a/b"));
}

TEST(ComFunGetFirstPath, NoSlashGivesTheWholeSource) {
    EXPECT_EQ("usr", FirstPath("usr"));
}

TEST(ComFunGetFirstPath, EmptySourceAppendsNothing) {
    std::string out = "keep";
    ComFun_GetFirstPath("", out);
    EXPECT_EQ("keep", out);
}

TEST(ComFunGetFirstPath, ResultIsAppendedNotReplaced) {
    std::string out = "x:";
    ComFun_GetFirstPath("/usr/lib", out);
    ComFun_GetFirstPath("a/b", out);
    EXPECT_EQ("x:usr/a", out);
}

TEST(ComFunGetFirstPath, Utf8BytesPassThrough) {
    EXPECT_EQ(kData, FirstPath(kData + "/" + kRecord));
}

// --- ComFun_SplitString -----------------------------------------------------

TEST(ComFunSplitString, AdjacentSeparatorsGiveEmptyPiecesButTrailingGivesNone) {
    EXPECT_EQ((Parts{"a", "", "b"}), Split("a,,b,", ","));
}

TEST(ComFunSplitString, LeadingSeparatorGivesAnEmptyFirstPiece) {
    EXPECT_EQ((Parts{"", "a"}), Split(",a", ","));
}

TEST(ComFunSplitString, EmptySourceGivesNothing) {
    EXPECT_EQ(Parts{}, Split("", ","));
}

TEST(ComFunSplitString, SourceWithoutSeparatorIsOnePiece) {
    EXPECT_EQ(Parts{"abc"}, Split("abc", ","));
}

TEST(ComFunSplitString, LoneSeparatorGivesOneEmptyPiece) {
    EXPECT_EQ(Parts{""}, Split(",", ","));
}

TEST(ComFunSplitString, MultiByteSeparatorIsSkippedWhole) {
    EXPECT_EQ((Parts{"a", "b", "", "c"}), Split("a::b::::c::", "::"));
}

TEST(ComFunSplitString, PiecesAreAppendedNotReplaced) {
    Parts parts{"old"};
    ComFun_SplitString("x,y", ",", parts);
    ComFun_SplitString("z", ",", parts);
    EXPECT_EQ((Parts{"old", "x", "y", "z"}), parts);
}

TEST(ComFunSplitString, Utf8BytesPassThrough) {
    EXPECT_EQ((Parts{kData, kRecord}), Split(kData + "," + kRecord, ","));
}
