// Shared pieces of the power-cut and fault tests: the stores' settings, the
// record and acknowledgement commands, what an independent connection saw
// after each save cycle, and the check of a store restarted on a crash image.
#ifndef TESTS_CRASH_POWERCUTUTIL_H_
#define TESTS_CRASH_POWERCUTUTIL_H_

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Sqlite3DB/DbData/DbData.h"
#include "TestUtil.h"
#include "crash/CrashVfs.h"

namespace powercut {

enum class Phase { None, Flush, Split, Retention, Deferred, Count };

// Settings of the test stores by sub-directory: "roll" splits at 30 records
// and keeps two files; "trim" keeps one file, trimmed by 10 past 40.
void StoreConf(const std::string& rootName, const std::string& sub, testutil::Conf& c);

unsigned long long TimeOf(unsigned long long id);
int QueueRecord(DbData& store, unsigned long long id);
int QueueAck(DbData& store, unsigned long long id);  // deferred: marks the record "+ack"

struct Seen {
    std::string file;
    bool acked = false;
};
// Store sub-directory ("roll/") -> record ID -> where it was seen.
using Records = std::map<std::string, std::map<unsigned long long, Seen>>;

// Every record of the stores' files below root, read by its own connection.
// Duplicates are counted into dupes when given.
Records ReadRecords(const std::string& root, const std::vector<std::string>& dirs,
                    int* dupes = nullptr);

struct Checkpoint {
    size_t event;
    Records records;
};

// Notes, for each save cycle, its events and what was committed after it.
class Recorder {
public:
    void Begin(crashsim::CrashVfs* vfs, const std::string& root, std::vector<std::string> dirs);
    void Cycle(Phase phase, const std::function<void()>& save);
    void Classify(const std::vector<crashsim::Event>& events);
    Phase PhaseAt(size_t k) const;
    // Records that must survive a cut after k events: seen committed before
    // the cut and still there after the cycle the cut falls into.
    Records Required(size_t k) const;
    const std::vector<std::string>& Dirs() const { return dirs_; }

private:
    struct CycleSpan {
        size_t begin, end;
        Phase phase;
    };
    crashsim::CrashVfs* vfs_ = nullptr;
    std::string root_;
    std::vector<std::string> dirs_;
    std::vector<Checkpoint> checkpoints_;
    std::vector<CycleSpan> cycles_;
    std::vector<Phase> phases_;
};

struct Summary {
    int trials = 0;
    int inPhase[static_cast<int>(Phase::Count)] = {};
    int recordsLost = 0;
    int cutsLosingRecords = 0;
    int cutsByModel[3] = {};
    int losingByModel[3] = {};
    int filesLost = 0;
    int failedRestarts = 0;
    int dbinfoOverclaims = 0;
    void Print(const std::string& what) const;
};

// Restarts each store on the files in imageRoot (a directory below
// /mnt/data/) and checks it against required; adds the outcome to sum.
void CheckRestart(const std::string& imageRoot, const std::string& imageName,
                  const Records& required, const std::string& what, Summary& sum);

// Writes the image of a cut after k events under model and checks it.
void CheckCut(crashsim::Replay& replay, const Recorder& rec, size_t k, crashsim::Model model,
              uint32_t seed, Summary& sum);

}  // namespace powercut

#endif  // TESTS_CRASH_POWERCUTUTIL_H_
