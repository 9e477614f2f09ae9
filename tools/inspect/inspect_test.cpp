// Tests of sqlite3db-inspect: stores written by the library itself, plus a
// bad file of each kind, are listed and queried through the real binary.
// Covers file order by number, DBInfo ranges and dates, row counts, the
// verdict on each bad file (checked against the library's own file check),
// range selection, aligned and CSV output, the error exits, and that no
// file's bytes, mtime or the directory's contents ever change.
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "PlatformSim.h"
#include "Sqlite3DB/Sqlite3DB.h"
#include "TestUtil.h"

namespace {

namespace fs = std::filesystem;

const unsigned long long kT0 = 1700000000000ULL;  // 2023-11-14 22:13:20 UTC
const char kCreate[] = "CREATE TABLE rec (id INTEGER PRIMARY KEY, t INTEGER, v TEXT)";

struct Result {
    int code = -1;
    std::string out;
    std::string err;
};

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The inspector and the library it loads, copied into a directory of their
// own that every user may enter, for runs as user "nobody": the build tree
// may lie where only its owner may enter (under a home directory of mode
// 0700, in a directory made by mktemp -d).
class InspectorCopy {
public:
    InspectorCopy() {
        chmod(m_dir.path().c_str(), 0755);
        Copy(SQLITE3DB_INSPECT, program(), 0755);
        Copy(SQLITE3DB_LIBRARY, m_dir.path() + fs::path(SQLITE3DB_LIBRARY).filename().string(),
             0644);  // under the name the programs ask for
    }

    std::string program() const { return m_dir.path() + "sqlite3db-inspect"; }
    const std::string& libraryDir() const { return m_dir.path(); }

private:
    static void Copy(const std::string& from, const std::string& to, mode_t mode) {
        fs::copy_file(from, to);  // throws, failing the test, when it cannot
        chmod(to.c_str(), mode);
    }

    testutil::TempDir m_dir;  // under /tmp/, which every user may enter
};

// Runs the inspector with args; stdout and stderr go through files in scratch.
// asNobody: run that copy of it as user "nobody" (when we are root), who may
// read but not write the store.
Result Inspect(const std::vector<std::string>& args, const InspectorCopy* asNobody = nullptr) {
    testutil::TempDir scratch;
    const std::string outPath = scratch.path() + "out", errPath = scratch.path() + "err";
    const std::string program = asNobody ? asNobody->program() : SQLITE3DB_INSPECT;
    const pid_t pid = fork();
    if (pid == 0) {
        // A cross-built inspector runs under the emulator's command.
        std::vector<std::string> command = testutil::EmulatorCommand();
        command.push_back(program);
        command.insert(command.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (std::string& word : command) {
            argv.push_back(&word[0]);
        }
        argv.push_back(nullptr);
        const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, 1);
        dup2(err, 2);
        if (asNobody) {
            // The copied library, not the build tree's that the run path names.
            setenv("LD_LIBRARY_PATH", asNobody->libraryDir().c_str(), 1);
            if (getuid() == 0 &&
                (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0)) {
                _exit(126);
            }
        }
        execvp(argv[0], argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    Result run;
    run.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = ReadAll(outPath);
    run.err = ReadAll(errPath);
    return run;
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The cells of the listing row of one file. Columns are two or more blanks
// apart; a cell holds at most single blanks (dates, reasons).
std::vector<std::string> ListingRow(const std::string& out, const std::string& file) {
    for (const std::string& line : Lines(out)) {
        std::vector<std::string> cells;
        std::string::size_type pos = 0;
        while (pos < line.size()) {
            std::string::size_type gap = line.find("  ", pos);
            cells.push_back(line.substr(pos, gap == std::string::npos ? gap : gap - pos));
            pos = gap == std::string::npos ? line.size() : line.find_first_not_of(' ', gap);
        }
        if (cells.size() >= 2 && cells[1] == file) {
            return cells;
        }
    }
    return {};
}

// Cell `column` of the listing row of file, or what is missing instead, so
// that a missing row fails the comparison rather than the test program.
std::string Cell(const std::string& out, const std::string& file, size_t column) {
    const std::vector<std::string> row = ListingRow(out, file);
    return column < row.size() ? row[column]
                               : "(no cell " + std::to_string(column) + " for " + file + ")";
}

// The status of file in the listing: its row's last cell.
std::string Status(const std::string& out, const std::string& file) {
    const std::vector<std::string> row = ListingRow(out, file);
    return row.empty() ? "(no row for " + file + ")" : row.back();
}

// Every file of dir with its bytes and modification time, to prove that
// nothing was touched.
std::map<std::string, std::string> Snapshot(const std::string& dir) {
    std::map<std::string, std::string> files;
    for (const auto& entry : fs::directory_iterator(dir)) {
        struct stat st;
        stat(entry.path().c_str(), &st);
        files[entry.path().filename()] = ReadAll(entry.path()) + "|" +
                                         std::to_string(st.st_mtim.tv_sec) + "." +
                                         std::to_string(st.st_mtim.tv_nsec);
    }
    return files;
}

class InspectTest : public ::testing::Test {
protected:
    void SetUp() override { PlatformSim::Reset(); }
    void TearDown() override {
        Sqlite3DB::Destroy();
        PlatformSim::Reset();
    }

    // A store written by the library: record n (from 1) has time kT0 + n s and
    // the text "v<n>", except 2 to 5, which carry texts that CSV must quote
    // and a NULL. Each batch of five is saved; the store splits at five
    // records, so with 4 batches it leaves rec_0.db [1,10], rec_1.db [10,15],
    // rec_2.db [15,20] and an empty current file rec_3.db.
    void BuildStore(int batches) {
        testutil::Conf c;
        c.dirName = m_root.name() + "/s";
        c.createSql = kCreate;
        c.conf.nMaxRecordNum = 5;
        Sqlite3DB::Sqlit3DBEnable("/nonexistent");
        PlatformSim::SetTimeStamp(kT0);
        PlatformSim::SetTickCount(100000);
        const long long id = Sqlite3DB::Create(c.get(), 0);
        ASSERT_GT(id, 0);
        Sqlite3DB handle;
        ASSERT_EQ(1, handle.Open(id));
        unsigned long long n = 1;
        for (int batch = 0; batch < batches; ++batch) {
            for (int i = 0; i < 5; ++i, ++n) {
                const std::map<unsigned long long, std::string> odd = {
                    {2, "'a,b'"}, {3, "'say \"hi\"'"}, {4, "'two\nlines'"}, {5, "NULL"}};
                const std::string text = odd.count(n) ? odd.at(n) : "'v" + std::to_string(n) + "'";
                std::string sql = "insert into rec values(" + std::to_string(n) + "," +
                                  std::to_string(kT0 + n * 1000) + "," + text + ")";
                _tagDBSqlCmdInfo cmd{&sql, 1, n, kT0 + n * 1000};
                ASSERT_EQ(1, handle.SqlAddNode(cmd));
            }
            PlatformSim::SetTimeStamp(kT0 + n * 1000);
            Sqlite3DB::Save();
            PlatformSim::AdvanceTickCount(2000);
            Sqlite3DB::Save();
        }
        Sqlite3DB::Destroy();
        PlatformSim::TakeLogLines();
    }

    // One bad file of each kind that the store refuses.
    void AddBadFiles() {
        testutil::WriteFile(Dir() + "rec_7.db", "this is not a database, just text\n");
        testutil::RawExec(Dir() + "rec_8.db", "CREATE TABLE other (x INTEGER)");
        testutil::RawExec(Dir() + "rec_9.db",
                          "CREATE TABLE rec (id INTEGER PRIMARY KEY, t INTEGER, v TEXT, w TEXT)");
        testutil::RawExec(Dir() + "rec_10.db",
                          std::string(kCreate) + "; " + kDBInfoCreate +
                              "; INSERT INTO DBInfo VALUES (2,9,1,0,0,0,0,0,0,0)");
    }

    std::string Dir() const { return m_root.path() + "s/"; }

    static constexpr const char* kDBInfoCreate =
        "CREATE TABLE 'DBInfo' (version INTEGER PRIMARY KEY AUTOINCREMENT,MaxID INTEGER ,MinID "
        "INTEGER ,StartTime INTEGER ,EndTime INTEGER,Value0 INTEGER,Value1 INTEGER,Value2 "
        "INTEGER,Value3 INTEGER,Value4 INTEGER)";

    testutil::TempDir m_root{"/mnt/data/"};
};

TEST_F(InspectTest, ListsFilesInNumberOrderWithRangesDatesAndRowCounts) {
    BuildStore(13);  // files rec_0 to rec_12: "rec_10" sorts after "rec_2" by number
    const Result run = Inspect({Dir()});
    ASSERT_EQ(0, run.code) << run.err;
    std::vector<std::string> order;
    for (const std::string& line : Lines(run.out)) {
        if (line.compare(0, 4, "rec_") == 0 || line.find("  rec_") != std::string::npos) {
            std::istringstream in(line);
            std::string no, file;
            in >> no >> file;
            order.push_back(file);
        }
    }
    const std::vector<std::string> expected = {
        "rec_0.db", "rec_1.db", "rec_2.db", "rec_3.db",  "rec_4.db",  "rec_5.db", "rec_6.db",
        "rec_7.db", "rec_8.db", "rec_9.db", "rec_10.db", "rec_11.db", "rec_12.db"};
    EXPECT_EQ(expected, order);

    const auto first = ListingRow(run.out, "rec_0.db");
    const std::vector<std::string> firstExpected = {
        "0",
        "rec_0.db",
        "1",
        "10",
        std::to_string(kT0 + 1000),
        "2023-11-14 22:13:21.000",
        std::to_string(kT0 + 10000),
        "2023-11-14 22:13:30.000",
        "10",
        std::to_string(fs::file_size(Dir() + "rec_0.db")),
        "accepted"};
    EXPECT_EQ(firstExpected, first);
    const auto tenth = ListingRow(run.out, "rec_10.db");
    ASSERT_EQ(11u, tenth.size());
    EXPECT_EQ("10", tenth[0]);
    EXPECT_EQ("55", tenth[2]);
    EXPECT_EQ("60", tenth[3]);
    EXPECT_EQ("5", tenth[8]);
    const auto current = ListingRow(run.out, "rec_12.db");  // the empty current file
    ASSERT_EQ(11u, current.size());
    EXPECT_EQ("0", current[2]);
    EXPECT_EQ("0", current[3]);
    EXPECT_EQ("0", current[8]);
    EXPECT_NE(std::string::npos, run.out.find("13 files: 13 accepted, 0 not accepted"));
}

TEST_F(InspectTest, InfersStemTableAndStatementAndSaysSo) {
    BuildStore(4);
    testutil::WriteFile(Dir() + "other_1.db", "");  // a lone file of another stem
    const Result run = Inspect({Dir()});
    ASSERT_EQ(0, run.code) << run.err;
    EXPECT_NE(std::string::npos, run.out.find("Stem       \"rec\" (inferred from the file names)"));
    EXPECT_NE(std::string::npos,
              run.out.find("Table      rec (table and CREATE statement inferred from rec_3.db)"));
    EXPECT_NE(std::string::npos, run.out.find(std::string("Create     ") + kCreate));
    EXPECT_EQ(std::string::npos, run.out.find("other_1.db"));
}

TEST_F(InspectTest, MarksEachKindOfBadFileWithItsReason) {
    BuildStore(4);
    AddBadFiles();
    const Result run = Inspect({Dir(), "--table", "rec", "--create", kCreate});
    EXPECT_EQ(5, run.code);
    EXPECT_EQ("accepted", Status(run.out, "rec_2.db"));
    EXPECT_EQ("not a database: file is not a database", Status(run.out, "rec_7.db"));
    EXPECT_EQ("no data table (the library would delete it)", Status(run.out, "rec_8.db"));
    EXPECT_EQ("column list differs", Status(run.out, "rec_9.db"));
    EXPECT_EQ("no DBInfo row", Status(run.out, "rec_10.db"));
    // No range and no row count for a file that cannot be read.
    EXPECT_EQ("-", Cell(run.out, "rec_7.db", 2));
    EXPECT_EQ("-", Cell(run.out, "rec_7.db", 8));
    EXPECT_EQ("0", Cell(run.out, "rec_9.db", 8));  // its data table is there, empty
    EXPECT_NE(std::string::npos, run.out.find("8 files: 4 accepted, 4 not accepted"));
    // The bad files do not look like store files, so inference still works.
    EXPECT_EQ(5, Inspect({Dir()}).code);
}

// The verdicts must be those of the library's own file check, run here on
// copies (it deletes a file without the data table).
TEST_F(InspectTest, AcceptsExactlyWhatTheLibrarysFileCheckAccepts) {
    BuildStore(4);
    AddBadFiles();
    const Result run = Inspect({Dir(), "--table", "rec", "--create", kCreate});
    testutil::TempDir copies;
    DbData store;
    store.m_strTableName = "rec";
    store.m_strCreateTableSql = kCreate;
    for (const auto& entry : fs::directory_iterator(Dir())) {
        const std::string name = entry.path().filename();
        fs::copy_file(entry.path(), copies.path() + name);
        unsigned long long maxID = 0, minID = 0, start = 0, end = 0;
        const int accepted = store.ReadDbInfo(copies.path() + name, &maxID, &minID, &start, &end);
        const std::string status = Status(run.out, name);
        EXPECT_EQ(accepted == 1, status == "accepted") << name << ": " << status;
        EXPECT_EQ(testutil::FileExists(copies.path() + name),
                  status != "no data table (the library would delete it)")
            << name << ": " << status;
        if (accepted == 1) {
            EXPECT_EQ(std::to_string(minID), Cell(run.out, name, 2));
            EXPECT_EQ(std::to_string(maxID), Cell(run.out, name, 3));
        }
    }
    PlatformSim::TakeLogLines();
}

// Only the column list up to the first ")" counts: a file whose statement
// differs after it is the store's all the same.
TEST_F(InspectTest, ComparesOnlyTheColumnListUpToTheFirstParenthesis) {
    BuildStore(4);
    testutil::RawExec(Dir() + "rec_5.db",
                      std::string(kCreate) + " WITHOUT ROWID; " + kDBInfoCreate +
                          "; INSERT INTO DBInfo VALUES (1,30,21,0,0,0,0,0,0,0)");
    const Result run = Inspect({Dir(), "--table", "rec", "--create", kCreate});
    EXPECT_EQ(0, run.code) << run.err;
    EXPECT_EQ("accepted", Status(run.out, "rec_5.db"));
    DbData store;
    store.m_strTableName = "rec";
    store.m_strCreateTableSql = kCreate;
    unsigned long long maxID = 0, minID = 0, start = 0, end = 0;
    EXPECT_EQ(1, store.ReadDbInfo(Dir() + "rec_5.db", &maxID, &minID, &start, &end));
}

// Names are taken as the store takes them: every name that begins with the
// stem, numbered by DbFileInfo (no number reads as 0).
TEST_F(InspectTest, TakesFileNamesAsTheStoreDoes) {
    BuildStore(4);
    fs::copy_file(Dir() + "rec_1.db", Dir() + "record_5.db");
    fs::copy_file(Dir() + "rec_2.db", Dir() + "rec.db");
    const Result run = Inspect({Dir(), "--stem", "rec"});
    ASSERT_EQ(0, run.code) << run.err;
    EXPECT_EQ("0", Cell(run.out, "rec.db", 0));
    EXPECT_EQ("5", Cell(run.out, "record_5.db", 0));
    const std::string::size_type table = run.out.find("No  File");  // the rows follow
    const std::string::size_type plain = run.out.find("rec.db", table);
    const std::string::size_type zero = run.out.find("rec_0.db", table);
    const std::string::size_type three = run.out.find("rec_3.db", table);
    const std::string::size_type five = run.out.find("record_5.db", table);
    EXPECT_LT(plain, zero);
    EXPECT_LT(zero, three);
    EXPECT_LT(three, five);
    EXPECT_NE(std::string::npos, run.out.find("6 files: 6 accepted, 0 not accepted"));
}

TEST_F(InspectTest, QueryRunsOnEveryAcceptedFileInNumberOrder) {
    BuildStore(4);
    const Result run =
        Inspect({Dir(), "--query", "select id, v from rec where id in (1, 9, 14, 20)"});
    ASSERT_EQ(0, run.code) << run.err;
    EXPECT_EQ(
        "file      id  v\n"
        "--------  --  ---\n"
        "rec_0.db  1   v1\n"
        "rec_0.db  9   v9\n"
        "rec_1.db  14  v14\n"
        "rec_2.db  20  v20\n"
        "(4 rows)\n",
        run.out);
    EXPECT_EQ("", run.err);
}

TEST_F(InspectTest, IdRangeSelectsOnlyOverlappingFiles) {
    BuildStore(4);
    // [12,13] lies inside rec_1.db [10,15] only.
    Result run =
        Inspect({Dir(), "--ids", "12:13", "--csv", "--query", "select count(*) n from rec"});
    ASSERT_EQ(0, run.code) << run.err;
    EXPECT_EQ("file,n\r\nrec_1.db,5\r\n", run.out);
    // A bound on a file's edge is included: 15 is rec_1's end and rec_2's start.
    run = Inspect({Dir(), "--ids", "15:15", "--csv", "--query", "select count(*) n from rec"});
    EXPECT_EQ("file,n\r\nrec_1.db,5\r\nrec_2.db,5\r\n", run.out);
    // The empty current file starts where rec_2.db ended, as in the store's catalog.
    run = Inspect({Dir(), "--ids", "20:30", "--csv", "--query", "select count(*) n from rec"});
    EXPECT_EQ("file,n\r\nrec_2.db,5\r\nrec_3.db,0\r\n", run.out);
    // 0:0 is the open range.
    run = Inspect({Dir(), "--ids", "0:0", "--csv", "--query", "select count(*) n from rec"});
    EXPECT_EQ("file,n\r\nrec_0.db,10\r\nrec_1.db,5\r\nrec_2.db,5\r\nrec_3.db,0\r\n", run.out);
}

TEST_F(InspectTest, TimeRangeSelectsOnlyOverlappingFiles) {
    BuildStore(4);
    const std::string range = std::to_string(kT0 + 2000) + ":" + std::to_string(kT0 + 3000);
    Result run =
        Inspect({Dir(), "--times", range, "--csv", "--query", "select min(id) m from rec"});
    ASSERT_EQ(0, run.code) << run.err;
    EXPECT_EQ("file,m\r\nrec_0.db,1\r\n", run.out);
    // No file overlaps: only the header.
    run = Inspect({Dir(), "--times", "5:6", "--csv", "--query", "select min(id) m from rec"});
    EXPECT_EQ(0, run.code);
    EXPECT_EQ("file,m\r\n", run.out);
}

TEST_F(InspectTest, CsvQuotesCommasQuotesAndLineBreaks) {
    BuildStore(4);
    const Result run = Inspect({Dir(), "--ids", "1:5", "--csv", "--query",
                                "select id, v from rec where id <= 5 order by id"});
    ASSERT_EQ(0, run.code) << run.err;
    EXPECT_EQ(
        "file,id,v\r\n"
        "rec_0.db,1,v1\r\n"
        "rec_0.db,2,\"a,b\"\r\n"
        "rec_0.db,3,\"say \"\"hi\"\"\"\r\n"
        "rec_0.db,4,\"two\nlines\"\r\n"
        "rec_0.db,5,\r\n",
        run.out);
}

TEST_F(InspectTest, QuerySkipsBadFilesWithAWarning) {
    BuildStore(4);
    AddBadFiles();
    const Result run = Inspect({Dir(), "--table", "rec", "--create", kCreate, "--csv", "--query",
                                "select count(*) n from rec"});
    EXPECT_EQ(5, run.code);
    EXPECT_EQ("file,n\r\nrec_0.db,10\r\nrec_1.db,5\r\nrec_2.db,5\r\nrec_3.db,0\r\n", run.out);
    EXPECT_NE(std::string::npos,
              run.err.find("warning: skipping rec_7.db: not a database: file is not a database"));
    EXPECT_NE(std::string::npos, run.err.find("warning: skipping rec_9.db: column list differs"));
}

TEST_F(InspectTest, MissingDirectoryIsAnError) {
    const Result run = Inspect({m_root.path() + "nowhere"});
    EXPECT_EQ(2, run.code);
    EXPECT_EQ("", run.out);
    EXPECT_NE(std::string::npos, run.err.find("no such directory: " + m_root.path() + "nowhere"));
}

TEST_F(InspectTest, DirectoryWithoutDbFilesIsAnError) {
    testutil::WriteFile(m_root.path() + "notes.txt", "x");
    const Result run = Inspect({m_root.path()});
    EXPECT_EQ(3, run.code);
    EXPECT_NE(std::string::npos, run.err.find("no DB files (*.db) in"));
}

TEST_F(InspectTest, BadSqlReportsTheEnginesMessage) {
    BuildStore(4);
    Result run = Inspect({Dir(), "--query", "select x from nowhere"});
    EXPECT_EQ(4, run.code);
    EXPECT_EQ("", run.out);
    EXPECT_NE(std::string::npos, run.err.find("query failed: no such table: nowhere"));
    // Bad SQL is found even when the range selects no file.
    run = Inspect({Dir(), "--ids", "900:901", "--query", "selec 1"});
    EXPECT_EQ(4, run.code);
    EXPECT_NE(std::string::npos, run.err.find("syntax error"));
}

TEST_F(InspectTest, StatementsThatWriteAreRefused) {
    BuildStore(4);
    EXPECT_EQ(4, Inspect({Dir(), "--query", "delete from rec"}).code);
    EXPECT_EQ(4, Inspect({Dir(), "--query", "select 1; delete from rec"}).code);
    const Result attach = Inspect({Dir(), "--query", "attach 'x.db' as x"});
    EXPECT_EQ(4, attach.code);
    EXPECT_EQ(10u, testutil::RawQuery(Dir() + "rec_0.db", "select * from rec").size());
}

TEST_F(InspectTest, NeverChangesAnyFile) {
    BuildStore(4);
    AddBadFiles();
    const auto before = Snapshot(Dir());
    Inspect({Dir()});
    Inspect({Dir(), "--table", "rec", "--create", kCreate});
    Inspect({Dir(), "--query", "select * from rec"});
    Inspect({Dir(), "--times", "1:2", "--csv", "--query", "select * from rec"});
    Inspect({Dir(), "--query", "delete from rec"});
    Inspect({Dir(), "--query", "vacuum"});
    Inspect({Dir(), "--query", "vacuum into '" + Dir() + "copy.db'"});
    Inspect({Dir(), "--query", "pragma journal_mode = wal"});
    EXPECT_EQ(before, Snapshot(Dir()));  // same names, bytes and mtimes
}

TEST_F(InspectTest, ReadsFilesInADirectoryItMayNotWriteTo) {
    BuildStore(4);
    AddBadFiles();
    // Readable by all whatever the umask; the directory itself read-only.
    chmod(m_root.path().c_str(), 0755);
    for (const auto& entry : fs::directory_iterator(Dir())) {
        chmod(entry.path().c_str(), 0644);
    }
    chmod(Dir().c_str(), 0555);
    const auto before = Snapshot(Dir());
    const InspectorCopy nobody;
    const Result list = Inspect({Dir(), "--table", "rec", "--create", kCreate}, &nobody);
    const Result run = Inspect({Dir(), "--table", "rec", "--create", kCreate, "--csv", "--query",
                                "select count(*) n from rec"},
                               &nobody);
    EXPECT_EQ(before, Snapshot(Dir()));
    chmod(Dir().c_str(), 0755);
    EXPECT_EQ(5, list.code) << list.err;
    EXPECT_EQ("accepted", Status(list.out, "rec_3.db"));
    EXPECT_EQ("not a database: file is not a database", Status(list.out, "rec_7.db"));
    EXPECT_EQ(5, run.code) << run.err;  // the bad files are skipped
    EXPECT_EQ("file,n\r\nrec_0.db,10\r\nrec_1.db,5\r\nrec_2.db,5\r\nrec_3.db,0\r\n", run.out);
}

TEST_F(InspectTest, HelpAndBadCommandLines) {
    const Result help = Inspect({"--help"});
    EXPECT_EQ(0, help.code);
    EXPECT_NE(std::string::npos, help.out.find("Usage: sqlite3db-inspect [options] DIR"));
    EXPECT_NE(std::string::npos, help.out.find("Exit codes:"));
    EXPECT_EQ(1, Inspect({}).code);
    EXPECT_EQ(1, Inspect({"--bogus", "x"}).code);
    EXPECT_EQ(1, Inspect({"x", "--ids", "1-2", "--query", "select 1"}).code);
    EXPECT_EQ(1, Inspect({"x", "--ids", "1:2"}).code);  // a range needs a query
    EXPECT_EQ(1, Inspect({"x", "--create", kCreate}).code);
}

}  // namespace
