// Power cuts at every recorded event of scripted store runs (flushes, splits,
// retention, trimming of a single-file store, deferred acknowledgements),
// under each power-cut model of the crash VFS. After every cut a fresh store
// starts on the crash image and must hold every record an independent
// connection saw after the Save() that flushed it, exactly once and with its
// acknowledgement when that was seen too; no file holding such records may be
// gone or left out of the catalog; and the store must keep working.
// SQLITE3DB_POWERCUT_FULL=1 cuts at every event; otherwise a sample.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <set>

#include "COS.h"
#include "PlatformSim.h"
#include "Sqlite3DB/DbData/DbData.h"
#include "TestUtil.h"
#include "crash/CrashVfs.h"
#include "crash/PowerCutUtil.h"

using namespace crashsim;
using namespace powercut;

namespace {

bool FullRun() {
    const char* full = std::getenv("SQLITE3DB_POWERCUT_FULL");
    return full && std::string(full) == "1";
}

// A scripted run of two stores below one root: "roll" splits by record count
// and keeps two files; "trim" keeps one file and trims it.
class ScriptedRun {
public:
    explicit ScriptedRun(const std::string& rootName) : rootName_(rootName) {}

    void Start() {
        StoreConf(rootName_, "roll", roll_.conf);
        StoreConf(rootName_, "trim", trim_.conf);
        PlatformSim::SetTickCount(tick_);
        for (Store* s : {&roll_, &trim_}) {
            s->store = std::make_unique<DbData>();
            ASSERT_EQ(1, s->store->Config(s->conf.get(), s == &roll_ ? 1 : 2, "md5"));
        }
    }

    // Queues a batch into one store and runs a cycle in which its flush is due.
    void FlushCycle(Recorder& rec, bool roll, int records) {
        Store& s = roll ? roll_ : trim_;
        for (int i = 0; i < records; ++i, ++s.nextID) {
            ASSERT_EQ(1, QueueRecord(*s.store, s.nextID));
        }
        tick_ += 1001;
        PlatformSim::SetTickCount(tick_);
        rec.Cycle(Phase::Flush, [&] { s.store->Save(tick_); });
    }

    void AckCycle(Recorder& rec, bool roll, std::mt19937& rng) {
        Store& s = roll ? roll_ : trim_;
        if (s.nextID <= 1) {
            return;
        }
        for (int i = 0; i < 3; ++i) {
            const unsigned long long id = 1 + rng() % (s.nextID - 1);
            ASSERT_EQ(1, QueueAck(*s.store, id));
        }
        tick_ += 1;
        PlatformSim::SetTickCount(tick_);
        rec.Cycle(Phase::Deferred, [&] { s.store->Save(tick_); });
    }

    void Stop() {
        roll_.store.reset();
        trim_.store.reset();
    }

private:
    struct Store {
        testutil::Conf conf;
        std::unique_ptr<DbData> store;
        unsigned long long nextID = 1;
    };
    std::string rootName_;
    Store roll_, trim_;
    unsigned long long tick_ = 1000000;
};

// Runs `cycles` cycles: flushes of both stores with varied batches, and
// every few cycles a round of acknowledgements.
void Script(ScriptedRun& run, Recorder& rec, int cycles, uint32_t seed) {
    std::mt19937 rng(seed);
    for (int c = 0; c < cycles; ++c) {
        run.FlushCycle(rec, true, 4 + static_cast<int>(rng() % 9));
        run.FlushCycle(rec, false, 3 + static_cast<int>(rng() % 6));
        if (c % 3 == 2) {
            run.AckCycle(rec, true, rng);
            run.AckCycle(rec, false, rng);
        }
    }
}

class PowerCutTest : public ::testing::Test {
protected:
    void SetUp() override { PlatformSim::Reset(); }
    void TearDown() override { PlatformSim::Reset(); }

    // Records a run, then cuts at the chosen events under the chosen models.
    void RunAndCut(int cycles, uint32_t seed, const std::vector<std::pair<size_t, Model>>* cuts,
                   int every, Summary& sum) {
        testutil::TempDir root("/mnt/data/");
        std::vector<Event> events;
        std::unique_ptr<Replay> replay;
        Recorder rec;
        {
            // Before the stores: a connection keeps the VFS it was opened
            // with, and the file attached for a flush uses it too.
            CrashVfs vfs(root.path());
            ScriptedRun run(root.name());
            run.Start();
            rec.Begin(&vfs, root.path(), {"roll/", "trim/"});
            Script(run, rec, cycles, seed);
            run.Stop();
            events = vfs.Events();
            replay = std::make_unique<Replay>(vfs.MakeReplay(&events));
        }
        rec.Classify(events);
        std::vector<std::pair<size_t, Model>> plan;
        if (cuts) {
            for (const auto& cut : *cuts) {
                plan.emplace_back(cut.first % (events.size() + 1), cut.second);
            }
        } else {
            // A sample keeps the rare retention events.
            for (size_t k = 0; k <= events.size(); ++k) {
                if (k % static_cast<size_t>(every) != 0 && rec.PhaseAt(k) != Phase::Retention) {
                    continue;
                }
                for (Model m : {Model::SyncedOnly, Model::Everything, Model::RandomSectors}) {
                    plan.emplace_back(k, m);
                }
            }
        }
        std::stable_sort(plan.begin(), plan.end(),
                         [](const std::pair<size_t, Model>& a, const std::pair<size_t, Model>& b) {
                             return a.first < b.first;
                         });
        for (const auto& cut : plan) {
            replay->AdvanceTo(cut.first);
            CheckCut(*replay, rec, cut.first, cut.second, seed * 7919u + cut.first, sum);
            if (HasFatalFailure()) {
                return;
            }
        }
    }
};

}  // namespace

TEST_F(PowerCutTest, ShortRunSurvivesACutAtEveryEventUnderEveryModel) {
    Summary sum;
    // A sample steps through the events by a prime, so it meets every kind.
    const int every = FullRun() ? 1 : 7 * testutil::ScaledCount(1, 1);
    RunAndCut(14, 11, nullptr, every, sum);
    sum.Print("short run, every event");
    EXPECT_GT(sum.trials, 0);
    EXPECT_GT(sum.inPhase[static_cast<int>(Phase::Flush)], 0);
    EXPECT_GT(sum.inPhase[static_cast<int>(Phase::Split)], 0);
    EXPECT_GT(sum.inPhase[static_cast<int>(Phase::Deferred)], 0);
    EXPECT_GT(sum.inPhase[static_cast<int>(Phase::Flush)], 0);
    EXPECT_EQ(0, sum.recordsLost);
    EXPECT_EQ(0, sum.filesLost);
    EXPECT_EQ(0, sum.failedRestarts);
}

TEST_F(PowerCutTest, LongerRunsSurviveCutsAtRandomEvents) {
    Summary sum;
    const int runs = FullRun() ? 6 : testutil::ScaledCount(2, 1);
    const int cutsPerRun = FullRun() ? 150 : testutil::ScaledCount(30, 5);
    for (int r = 0; r < runs && !HasFatalFailure(); ++r) {
        // The run's length is known only after it; cut positions are drawn
        // against an estimate and clipped by the replay.
        std::mt19937 rng(1000 + static_cast<uint32_t>(r));
        std::vector<std::pair<size_t, Model>> cuts;
        for (int i = 0; i < cutsPerRun; ++i) {
            cuts.emplace_back(rng() % 6000, static_cast<Model>(rng() % 3));
        }
        RunAndCut(40, 100 + static_cast<uint32_t>(r), &cuts, 1, sum);
    }
    sum.Print("longer runs, random events");
    EXPECT_GT(sum.inPhase[static_cast<int>(Phase::Flush)], 0);
    EXPECT_EQ(0, sum.recordsLost);
    EXPECT_EQ(0, sum.filesLost);
    EXPECT_EQ(0, sum.failedRestarts);
}
