// Tests of sqlite3db-inspect on a directory from a stranger's medium: files
// in WAL mode with their side files, a hot journal, links (inside, outside,
// dangling, as a side file), a FIFO, a socket, a device, a directory named
// like a DB file, crafted schemas and names that need quoting in a URI. The
// inspector must finish (a watchdog kills it otherwise), skip what is not a
// regular file with a status line, flag the files at which the library's
// scan throws or that it deletes, and leave every entry of the directory and
// of the places links point to exactly as it was.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "TestUtil.h"

namespace {

namespace fs = std::filesystem;

const char kCreate[] = "CREATE TABLE rec (id INTEGER PRIMARY KEY, t INTEGER, v TEXT)";
const char kDBInfoCreate[] =
    "CREATE TABLE 'DBInfo' (version INTEGER PRIMARY KEY AUTOINCREMENT,MaxID INTEGER ,MinID "
    "INTEGER ,StartTime INTEGER ,EndTime INTEGER,Value0 INTEGER,Value1 INTEGER,Value2 "
    "INTEGER,Value3 INTEGER,Value4 INTEGER)";

struct Outcome {
    int code = -1;
    bool killed = false;  // the watchdog had to stop it
    std::string out;
    std::string err;
};

std::string ReadRegular(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Runs the inspector (behind the command prefix in SQLITE3DB_EMULATOR, if
// any) and kills it when it has not finished within the watchdog's time.
Outcome InspectWithWatchdog(const std::vector<std::string>& args) {
    testutil::TempDir scratch;
    const std::string outPath = scratch.path() + "out", errPath = scratch.path() + "err";
    std::vector<std::string> command = testutil::EmulatorCommand();
    command.push_back(SQLITE3DB_INSPECT);
    command.insert(command.end(), args.begin(), args.end());
    const pid_t pid = fork();
    if (pid == 0) {
        std::vector<char*> argv;
        for (std::string& word : command) {
            argv.push_back(&word[0]);
        }
        argv.push_back(nullptr);
        const int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, 1);
        dup2(err, 2);
        execvp(argv[0], argv.data());
        _exit(127);
    }
    Outcome run;
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (waitpid(pid, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            run.killed = true;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    run.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = ReadRegular(outPath);
    run.err = ReadRegular(errPath);
    return run;
}

// The status cell (the last) of the listing row of one file; "" if none.
std::string Status(const std::string& out, const std::string& file) {
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> cells;
        std::string::size_type pos = 0;
        while (pos < line.size()) {
            const std::string::size_type gap = line.find("  ", pos);
            cells.push_back(line.substr(pos, gap == std::string::npos ? gap : gap - pos));
            pos = gap == std::string::npos ? line.size() : line.find_first_not_of(' ', gap);
        }
        if (cells.size() >= 2 && cells[1] == file) {
            return cells.back();
        }
    }
    return "";
}

// Every entry under dir, by lstat and never opening anything but regular
// files: kind, mode, size, mtime, and the bytes of a file or the target of a
// link. Subdirectories are walked too.
std::map<std::string, std::string> Snapshot(const std::string& dir) {
    std::map<std::string, std::string> entries;
    for (const auto& entry : fs::recursive_directory_iterator(dir)) {
        const std::string path = entry.path();
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) {
            entries[path] = "gone";
            continue;
        }
        std::string state = std::to_string(st.st_mode) + "|" + std::to_string(st.st_size) + "|" +
                            std::to_string(st.st_mtim.tv_sec) + "." +
                            std::to_string(st.st_mtim.tv_nsec) + "|";
        if (S_ISREG(st.st_mode)) {
            state += ReadRegular(path);
        } else if (S_ISLNK(st.st_mode)) {
            state += fs::read_symlink(entry.path()).string();
        }
        entries[path] = state;
    }
    return entries;
}

void Exec(sqlite3* db, const std::string& sql) {
    char* error = nullptr;
    if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &error) != SQLITE_OK) {
        const std::string message = error ? error : "?";
        sqlite3_free(error);
        throw std::runtime_error(sql + ": " + message);
    }
}

// Rows first..first+rows-1 of the data table.
std::string RowsSql(int first, int rows) {
    std::string sql;
    for (int id = first; id < first + rows; ++id) {
        sql += "INSERT INTO rec VALUES(" + std::to_string(id) + "," + std::to_string(id * 1000) +
               ",'v" + std::to_string(id) + "');";
    }
    return sql;
}

// A store file with those rows and a DBInfo row covering them.
std::string StoreSql(int first, int rows) {
    return std::string(kCreate) + ";" + kDBInfoCreate + ";" + RowsSql(first, rows) +
           "INSERT INTO DBInfo VALUES(1," + std::to_string(first + rows - 1) + "," +
           std::to_string(first) + ",0,0,0,0,0,0,0);";
}

class InspectHostileTest : public ::testing::Test {
protected:
    std::string Dir() const { return m_root.path() + "s/"; }
    std::string Outside() const { return m_root.path() + "outside/"; }

    void SetUp() override {
        fs::create_directories(Dir());
        fs::create_directories(Outside());
    }

    // Copies the file and its side files as an open connection left them:
    // rows written since the last checkpoint live only in "-wal".
    void PlantWalFile(const std::string& name, int first, int rows) {
        testutil::TempDir work;
        const std::string path = work.path() + "w.db";
        sqlite3* db = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db));
        Exec(db, "PRAGMA journal_mode=WAL; PRAGMA wal_autocheckpoint=0;");
        Exec(db, std::string(kCreate) + ";" + kDBInfoCreate +
                     ";INSERT INTO DBInfo VALUES(1,0,0,0,0,0,0,0,0,0);");
        Exec(db, "PRAGMA wal_checkpoint(TRUNCATE);");
        Exec(db, "BEGIN;" + RowsSql(first, rows) + "COMMIT;");
        ASSERT_GT(fs::file_size(path + "-wal"), 0u);
        fs::copy_file(path, Dir() + name);
        fs::copy_file(path + "-wal", Dir() + name + "-wal");
        fs::copy_file(path + "-shm", Dir() + name + "-shm");
        sqlite3_close(db);
    }

    // A file whose last transaction was cut off: its pages are half written
    // and a hot rollback journal lies beside it.
    void PlantHotJournal(const std::string& name) {
        testutil::TempDir work;
        const std::string path = work.path() + "j.db";
        testutil::RawExec(path, StoreSql(1, 200));
        sqlite3* db = nullptr;
        ASSERT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &db));
        // A tiny cache makes the changes spill into the file before commit.
        Exec(db, "PRAGMA cache_size=1; BEGIN; UPDATE rec SET v = hex(randomblob(200));");
        ASSERT_TRUE(fs::exists(path + "-journal"));
        fs::copy_file(path, Dir() + name);
        fs::copy_file(path + "-journal", Dir() + name + "-journal");
        Exec(db, "ROLLBACK;");
        sqlite3_close(db);
    }

    testutil::TempDir m_root{"/mnt/data/"};
};

TEST_F(InspectHostileTest, LeavesEveryEntryAndSideFileOfAHostileDirectoryUnchanged) {
    testutil::RawExec(Dir() + "rec_0.db", StoreSql(1, 10));
    testutil::RawExec(Dir() + "rec_1.db", StoreSql(10, 10));
    PlantWalFile("rec_2.db", 20, 10);
    PlantHotJournal("rec_3.db");
    // A -shm that is a link to a file outside the store.
    PlantWalFile("rec_4.db", 30, 5);
    testutil::WriteFile(Outside() + "victim", std::string(32768, 'v'));
    fs::remove(Dir() + "rec_4.db-shm");
    fs::create_symlink(Outside() + "victim", Dir() + "rec_4.db-shm");
    ASSERT_EQ(0, mkfifo((Dir() + "rec_5.db").c_str(), 0644));
    fs::create_symlink(Dir() + "rec_0.db", Dir() + "rec_6.db");  // link inside
    testutil::RawExec(Outside() + "store.db", StoreSql(60, 3));
    fs::create_symlink(Outside() + "store.db", Dir() + "rec_7.db");       // link outside
    fs::create_symlink(Outside() + "nothing.db", Dir() + "rec_8.db");     // dangling
    fs::create_directory(Dir() + "rec_9.db");                             // a directory
    testutil::RawExec(Dir() + "rec_9.db/inner.db", StoreSql(90, 1));      // with a file in it
    fs::create_symlink(Outside() + "store.db", Dir() + "rec_10.db-wal");  // a -wal link
    testutil::RawExec(Dir() + "rec_10.db", StoreSql(100, 2));
    {
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_GE(fd, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string socketPath = Dir() + "rec_11.db";
        ASSERT_LT(socketPath.size(), sizeof(address.sun_path));
        socketPath.copy(address.sun_path, socketPath.size());
        ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
        close(fd);
    }
    // A character device like /dev/zero, when we may make one (root).
    const bool device = mknod((Dir() + "rec_12.db").c_str(), S_IFCHR | 0644, makedev(1, 5)) == 0;

    const auto before = Snapshot(m_root.path());
    const Outcome list = InspectWithWatchdog({Dir()});
    const Outcome query =
        InspectWithWatchdog({Dir(), "--csv", "--query", "select count(*) n from rec"});
    const Outcome fixed = InspectWithWatchdog({Dir(), "--table", "rec", "--create", kCreate});
    const Outcome writes = InspectWithWatchdog({Dir(), "--query", "pragma journal_mode = delete"});
    const Outcome ckpt = InspectWithWatchdog({Dir(), "--query", "pragma wal_checkpoint(TRUNCATE)"});
    EXPECT_EQ(before, Snapshot(m_root.path()));  // names, kinds, sizes, bytes, mtimes, targets

    for (const Outcome* run : {&list, &query, &fixed, &writes, &ckpt}) {
        EXPECT_FALSE(run->killed) << run->out << run->err;
    }
    EXPECT_EQ(5, list.code) << list.err;
    EXPECT_EQ("accepted", Status(list.out, "rec_0.db"));
    EXPECT_EQ("accepted", Status(list.out, "rec_1.db"));
    // Read as it lies: the rows in its -wal are not seen, its DBInfo row is.
    EXPECT_EQ("accepted", Status(list.out, "rec_2.db"));
    EXPECT_EQ("accepted", Status(list.out, "rec_4.db"));
    EXPECT_EQ("skipped: FIFO, not opened", Status(list.out, "rec_5.db"));
    EXPECT_EQ("skipped: symbolic link, not opened", Status(list.out, "rec_6.db"));
    EXPECT_EQ("skipped: symbolic link, not opened", Status(list.out, "rec_7.db"));
    EXPECT_EQ("skipped: symbolic link, not opened", Status(list.out, "rec_8.db"));
    EXPECT_EQ("skipped: directory, not opened", Status(list.out, "rec_9.db"));
    EXPECT_EQ("accepted", Status(list.out, "rec_10.db"));
    EXPECT_EQ("skipped: socket, not opened", Status(list.out, "rec_11.db"));
    if (device) {
        EXPECT_EQ("skipped: character device, not opened", Status(list.out, "rec_12.db"));
    }
    EXPECT_EQ(5, fixed.code) << fixed.err;
    EXPECT_EQ("skipped: FIFO, not opened", Status(fixed.out, "rec_5.db"));
    EXPECT_EQ(5, query.code) << query.err;
    EXPECT_NE(std::string::npos, query.out.find("rec_0.db,10\r\n")) << query.out;
    EXPECT_NE(std::string::npos, query.out.find("rec_2.db,0\r\n")) << query.out;
    EXPECT_NE(std::string::npos, query.out.find("rec_10.db,2\r\n")) << query.out;
    EXPECT_NE(std::string::npos, query.err.find("skipping rec_5.db: skipped: FIFO, not opened"));
    EXPECT_EQ(std::string::npos, query.out.find("rec_7.db"));
    EXPECT_EQ(4, writes.code);
    EXPECT_EQ(4, ckpt.code);
}

// A crafted file flagged for what the library's scan would do with it:
// throw (a stored CREATE text with no "(") or delete (no data table); the
// verdicts agree with the library's own file check run on copies.
TEST_F(InspectHostileTest, FlagsTheFilesAtWhichTheLibrarysScanThrowsOrDeletes) {
    testutil::RawExec(Dir() + "rec_0.db", StoreSql(1, 10));
    // A virtual table's stored text has no "(" when its module takes no arguments.
    testutil::RawExec(Dir() + "rec_1.db", "CREATE VIRTUAL TABLE rec USING fts4;" +
                                              std::string(kDBInfoCreate) +
                                              ";INSERT INTO DBInfo VALUES(1,0,0,0,0,0,0,0,0,0)");
    testutil::RawExec(Dir() + "rec_2.db", "CREATE TABLE other (x);");
    const Outcome run = InspectWithWatchdog({Dir(), "--table", "rec", "--create", kCreate});
    ASSERT_FALSE(run.killed);
    EXPECT_EQ(5, run.code) << run.err;
    EXPECT_EQ("accepted", Status(run.out, "rec_0.db"));
    EXPECT_EQ("stored CREATE text has no \"(\" (the library's scan would throw)",
              Status(run.out, "rec_1.db"));
    EXPECT_EQ("no data table (the library would delete it)", Status(run.out, "rec_2.db"));

    testutil::TempDir copies;
    DbData store;
    store.m_strTableName = "rec";
    store.m_strCreateTableSql = kCreate;
    unsigned long long maxID = 0, minID = 0, start = 0, end = 0;
    for (const char* name : {"rec_1.db", "rec_2.db"}) {
        fs::copy_file(Dir() + name, copies.path() + name);
    }
    EXPECT_THROW(store.ReadDbInfo(copies.path() + "rec_1.db", &maxID, &minID, &start, &end),
                 std::out_of_range);
    EXPECT_EQ(0, store.ReadDbInfo(copies.path() + "rec_2.db", &maxID, &minID, &start, &end));
    EXPECT_FALSE(testutil::FileExists(copies.path() + "rec_2.db"));
    PlatformSim::TakeLogLines();
}

// Schema code of a crafted file cannot hang the inspector or make it grow:
// a DBInfo view that never ends is not run by the file check, a generated
// column building a 40 MB string stops at the length bound, and the user's
// query on an endless view stops at --max-steps.
TEST_F(InspectHostileTest, CraftedSchemaCodeIsBoundedInTheChecksAndInTheQuery) {
    const std::string endless = "WITH RECURSIVE c(x) AS (SELECT 1 UNION ALL SELECT x + 1 FROM c) ";
    testutil::RawExec(Dir() + "rec_0.db",
                      StoreSql(1, 10) + "CREATE VIEW forever AS " + endless +
                          "SELECT x FROM c WHERE x < 0;"
                          "CREATE VIEW recent AS SELECT * FROM rec WHERE id > 6;");
    testutil::RawExec(Dir() + "rec_1.db", std::string(kCreate) + ";CREATE VIEW DBInfo AS " +
                                              endless + "SELECT x, x, x, x, x FROM c WHERE x < 0;");
    testutil::RawExec(Dir() + "rec_2.db",
                      std::string(kCreate) +
                          ";CREATE TABLE DBInfo (version INTEGER PRIMARY KEY, MaxID, MinID, "
                          "StartTime, EndTime AS (length(hex(zeroblob(20000000)))));"
                          "INSERT INTO DBInfo (version, MaxID, MinID, StartTime) "
                          "VALUES (1, 0, 0, 0);");
    const Outcome list = InspectWithWatchdog({Dir(), "--table", "rec", "--create", kCreate});
    ASSERT_FALSE(list.killed);
    EXPECT_EQ(5, list.code) << list.err;
    EXPECT_EQ("accepted", Status(list.out, "rec_0.db"));
    EXPECT_EQ(0u, Status(list.out, "rec_1.db").find("no DBInfo row: ")) << list.out;
    EXPECT_EQ("no DBInfo row: string or blob too big", Status(list.out, "rec_2.db"));

    const Outcome query = InspectWithWatchdog(
        {Dir(), "--max-steps", "1000000", "--query", "select count(*) from forever"});
    ASSERT_FALSE(query.killed);
    EXPECT_EQ(4, query.code);
    EXPECT_NE(std::string::npos, query.err.find("stopped: the step bound ran out")) << query.err;
    // Views serve the user's own query.
    const Outcome view =
        InspectWithWatchdog({Dir(), "--csv", "--query", "select count(*) n from recent"});
    EXPECT_EQ(5, view.code);  // the two crafted files are skipped
    EXPECT_EQ("file,n\r\nrec_0.db,4\r\n", view.out);
}

// Names holding "?", "#", "%", blanks and non-ASCII bytes open the file of
// that name, not another that the URI would otherwise name.
TEST_F(InspectHostileTest, NamesThatNeedQuotingInAUriOpenTheirOwnFile) {
    testutil::RawExec(Dir() + "rec_0.db", StoreSql(1, 1));
    testutil::RawExec(Dir() + "rec_1%41.db", StoreSql(2, 2));
    testutil::RawExec(Dir() + "rec_1A.db", StoreSql(50, 7));  // what "%41" decodes to
    testutil::RawExec(Dir() + "rec_2?mode=rwc.db", StoreSql(4, 3));
    testutil::RawExec(Dir() + "rec_3#x.db", StoreSql(7, 4));
    testutil::RawExec(Dir() + "rec_4 \xc3\xa9t\xc3\xa9.db", StoreSql(11, 5));
    const Outcome run =
        InspectWithWatchdog({Dir(), "--csv", "--query", "select min(id) a, count(*) n from rec"});
    ASSERT_FALSE(run.killed);
    EXPECT_EQ(0, run.code) << run.err;
    EXPECT_NE(std::string::npos, run.out.find("rec_1%41.db,2,2\r\n")) << run.out;
    EXPECT_NE(std::string::npos, run.out.find("rec_1A.db,50,7\r\n")) << run.out;
    EXPECT_NE(std::string::npos, run.out.find("rec_2?mode=rwc.db,4,3\r\n")) << run.out;
    EXPECT_NE(std::string::npos, run.out.find("rec_3#x.db,7,4\r\n")) << run.out;
    EXPECT_NE(std::string::npos, run.out.find("rec_4 \xc3\xa9t\xc3\xa9.db,11,5\r\n")) << run.out;
}

TEST_F(InspectHostileTest, HelpTellsHowFilesAreOpenedAndStepBoundNeedsAQuery) {
    const Outcome help = InspectWithWatchdog({"--help"});
    EXPECT_EQ(0, help.code);
    EXPECT_NE(std::string::npos, help.out.find("read-only and immutable"));
    EXPECT_NE(std::string::npos, help.out.find("--max-steps N"));
    EXPECT_EQ(1, InspectWithWatchdog({Dir(), "--max-steps", "10"}).code);
    EXPECT_EQ(1, InspectWithWatchdog({Dir(), "--max-steps", "x", "--query", "select 1"}).code);
}

}  // namespace
