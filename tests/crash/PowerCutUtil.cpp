// PowerCutUtil: see PowerCutUtil.h.
#include "crash/PowerCutUtil.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <stdexcept>

#include "PlatformSim.h"

namespace powercut {

using crashsim::Event;
using crashsim::EventKind;

void StoreConf(const std::string& rootName, const std::string& sub, testutil::Conf& c) {
    c.dirName = rootName + "/" + sub;
    if (sub == "trim") {
        c.conf.bSplitFile = 0;
        c.conf.nMaxRecordNum = 40;
        c.conf.nDelRecordNum = 10;
        c.delSql = "delete from rec where id in (select id from rec order by id limit 10)";
    } else {
        c.conf.nMaxRecordNum = 30;
        c.conf.nMaxFileNum = 2;
    }
}

unsigned long long TimeOf(unsigned long long id) {
    return 1600000000000ULL + 1000ULL * id;
}

int QueueRecord(DbData& store, unsigned long long id) {
    std::string sql = "insert into rec values(" + std::to_string(id) + ", " +
                      std::to_string(TimeOf(id)) + ", 'v" + std::to_string(id) + "')";
    _tagDBSqlCmdInfo cmd{&sql, 1, id, TimeOf(id)};
    return store.AddNode(cmd);
}

int QueueAck(DbData& store, unsigned long long id) {
    std::string sql = "update rec set v = v || '+ack' where id = " + std::to_string(id);
    _tagDBSqlCmdInfo cmd{&sql, 0, id, 0};
    return store.AddNode(cmd);
}

namespace {

std::vector<std::string> DbFiles(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (!d) {
        return names;
    }
    while (dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name.size() > 3 && name.compare(name.size() - 3, 3, ".db") == 0) {
            names.push_back(name);
        }
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

}  // namespace

Records ReadRecords(const std::string& root, const std::vector<std::string>& dirs, int* dupes) {
    Records out;
    for (const std::string& dir : dirs) {
        std::map<unsigned long long, Seen>& recs = out[dir];
        for (const std::string& name : DbFiles(root + dir)) {
            std::vector<std::vector<std::string>> rows;
            try {
                rows = testutil::RawQuery(root + dir + name, "select id, v from rec");
            } catch (const std::exception&) {
                continue;  // no data table (yet), or not readable: holds no record
            }
            for (const auto& row : rows) {
                const unsigned long long id = std::stoull(row.at(0));
                Seen& seen = recs[id];
                if (!seen.file.empty() && dupes) {
                    ++*dupes;
                }
                seen.file = name;
                seen.acked = row.at(1).find("+ack") != std::string::npos;
            }
        }
    }
    return out;
}

void Recorder::Begin(crashsim::CrashVfs* vfs, const std::string& root,
                     std::vector<std::string> dirs) {
    vfs_ = vfs;
    root_ = root;
    dirs_ = std::move(dirs);
    checkpoints_.push_back(Checkpoint{vfs_->EventCount(), ReadRecords(root_, dirs_)});
}

void Recorder::Cycle(Phase phase, const std::function<void()>& save) {
    const size_t begin = vfs_->EventCount();
    save();
    const size_t end = vfs_->EventCount();
    cycles_.push_back(CycleSpan{begin, end, phase});
    checkpoints_.push_back(Checkpoint{end, ReadRecords(root_, dirs_)});
}

// In a flush cycle the flush's commit ends with its journal's unlink (and the
// directory sync after it); the split check, a new file and trimming follow,
// and retention begins with the platform's deletion of the oldest file.
void Recorder::Classify(const std::vector<Event>& events) {
    phases_.assign(events.size() + 1, Phase::None);
    for (const CycleSpan& c : cycles_) {
        Phase phase = c.phase;
        for (size_t i = c.begin; i < c.end && i < events.size(); ++i) {
            const Event& e = events[i];
            if (e.kind == EventKind::Unlink && e.byLibrary) {
                phase = Phase::Retention;
            }
            phases_[i] = phase;
            if (phase == Phase::Flush && e.kind == EventKind::Unlink && e.path.size() > 8 &&
                e.path.compare(e.path.size() - 8, 8, "-journal") == 0) {
                if (i + 1 < c.end && events[i + 1].kind == EventKind::DirSync) {
                    phases_[++i] = Phase::Flush;
                }
                phase = Phase::Split;
            }
        }
    }
}

Phase Recorder::PhaseAt(size_t k) const {
    return k < phases_.size() ? phases_[k] : Phase::None;
}

Records Recorder::Required(size_t k) const {
    size_t before = 0;
    while (before + 1 < checkpoints_.size() && checkpoints_[before + 1].event <= k) {
        ++before;
    }
    Records required = checkpoints_[before].records;
    if (before + 1 < checkpoints_.size()) {
        const Records& after = checkpoints_[before + 1].records;
        for (auto& dir : required) {
            auto other = after.find(dir.first);
            for (auto it = dir.second.begin(); it != dir.second.end();) {
                const bool kept = other != after.end() && other->second.count(it->first);
                it = kept ? std::next(it) : dir.second.erase(it);
            }
        }
    }
    return required;
}

void Summary::Print(const std::string& what) const {
    std::printf(
        "power-cut summary (%s): trials=%d cuts in flush=%d split=%d retention=%d deferred=%d "
        "other=%d; committed records lost=%d (in %d cuts) files lost=%d failed restarts=%d; "
        "DBInfo claiming more than the file holds=%d; cuts losing records by model: "
        "synced-only %d/%d, everything %d/%d, random-sectors %d/%d\n",
        what.c_str(), trials, inPhase[static_cast<int>(Phase::Flush)],
        inPhase[static_cast<int>(Phase::Split)], inPhase[static_cast<int>(Phase::Retention)],
        inPhase[static_cast<int>(Phase::Deferred)], inPhase[static_cast<int>(Phase::None)],
        recordsLost, cutsLosingRecords, filesLost, failedRestarts, dbinfoOverclaims,
        losingByModel[0], cutsByModel[0], losingByModel[1], cutsByModel[1], losingByModel[2],
        cutsByModel[2]);
    std::fflush(stdout);
}

void CheckRestart(const std::string& imageRoot, const std::string& imageName,
                  const Records& required, const std::string& what, Summary& sum) {
    ++sum.trials;
    long long storeID = 100;
    for (const std::string& dir : {std::string("roll/"), std::string("trim/")}) {
        const std::string sub = dir.substr(0, dir.size() - 1);
        testutil::Conf c;
        StoreConf(imageName, sub, c);
        unsigned long long tick = 50000000;
        PlatformSim::SetTickCount(tick);
        DbData store;
        if (store.Config(c.get(), ++storeID, "md5") != 1) {
            ++sum.failedRestarts;
            ADD_FAILURE() << what << ": store " << sub << " did not start";
            continue;
        }
        std::set<std::string> catalog;
        for (const DbFileInfo& f : store.m_vecFileInfo) {
            catalog.insert(f.GetFullName());
        }
        int dupes = 0;
        Records found = ReadRecords(imageRoot, {dir}, &dupes);
        std::set<std::string> filesLost;
        auto req = required.find(dir);
        if (req != required.end()) {
            for (const auto& r : req->second) {
                auto it = found[dir].find(r.first);
                if (it == found[dir].end() || (r.second.acked && !it->second.acked)) {
                    ++sum.recordsLost;
                    ADD_FAILURE() << what << ": " << dir << " record " << r.first
                                  << (it == found[dir].end() ? " lost"
                                                             : " lost its acknowledgement");
                    if (!testutil::FileExists(imageRoot + dir + r.second.file)) {
                        filesLost.insert(r.second.file);
                    }
                    continue;
                }
                if (!catalog.count(it->second.file)) {
                    filesLost.insert(it->second.file);
                }
            }
        }
        if (dupes) {
            sum.recordsLost += dupes;
            ADD_FAILURE() << what << ": " << dir << " " << dupes << " records held twice";
        }
        for (const std::string& f : filesLost) {
            ++sum.filesLost;
            ADD_FAILURE() << what << ": " << dir << f << " gone or not catalogued";
        }
        for (const std::string& name : catalog) {
            try {
                auto info = testutil::RawQuery(imageRoot + dir + name,
                                               "select MaxID from DBInfo where version = 1");
                auto max = testutil::RawQuery(imageRoot + dir + name, "select max(id) from rec");
                if (!info.empty() && max.at(0).at(0) != "NULL" &&
                    std::stoull(info[0][0]) > std::stoull(max[0][0])) {
                    ++sum.dbinfoOverclaims;
                }
            } catch (const std::exception&) {
            }
        }

        // The store keeps working: new records, numbered on from the last
        // one it holds or claims, are flushed and found by ID and by time.
        unsigned long long first = 1;
        if (!found[dir].empty()) {
            first = found[dir].rbegin()->first + 1;
        }
        for (const DbFileInfo& f : store.m_vecFileInfo) {
            first = std::max(first, f.GetEndID() + 1);
        }
        for (unsigned long long id = first; id < first + 3; ++id) {
            QueueRecord(store, id);
        }
        tick += 2002;
        PlatformSim::SetTickCount(tick);
        store.Save(tick);
        std::string byID = "select id from rec where id between " + std::to_string(first) +
                           " and " + std::to_string(first + 2);
        std::string byTime = "select id from rec where t between " + std::to_string(TimeOf(first)) +
                             " and " + std::to_string(TimeOf(first + 2));
        _tagDBSqlSelectCmdInfo idQuery{&byID, 1, first, first + 2, 0, 0, 0, 1};
        _tagDBSqlSelectCmdInfo timeQuery{&byTime, 2, 0, 0, TimeOf(first), TimeOf(first + 2), 0, 1};
        std::vector<CBBSQL::CppSQLite3Table> tables, timeTables;
        store.Select_ID(idQuery, tables);
        store.Select_Time(timeQuery, timeTables);
        int rows = 0, timeRows = 0;
        for (const auto& t : tables) {
            rows += t.numRows();
        }
        for (const auto& t : timeTables) {
            timeRows += t.numRows();
        }
        if (rows != 3 || timeRows != 3) {
            ++sum.failedRestarts;
            ADD_FAILURE() << what << ": " << sub << " after restart found " << rows << " by ID and "
                          << timeRows << " by time of 3 new records";
        }
    }
}

void CheckCut(crashsim::Replay& replay, const Recorder& rec, size_t k, crashsim::Model model,
              uint32_t seed, Summary& sum) {
    testutil::TempDir image("/mnt/data/");
    replay.Write(model, seed, image.path());
    crashsim::CrashVfs noRealSyncs(image.path());  // the restarted stores need no real syncs
    ++sum.inPhase[static_cast<int>(rec.PhaseAt(k))];
    const std::string what =
        "cut after " + std::to_string(k) + " events, " + crashsim::ModelName(model);
    const int lostBefore = sum.recordsLost;
    CheckRestart(image.path(), image.name(), rec.Required(k), what, sum);
    const bool lost = sum.recordsLost > lostBefore;
    sum.cutsLosingRecords += lost;
    ++sum.cutsByModel[static_cast<int>(model)];
    sum.losingByModel[static_cast<int>(model)] += lost;
}

}  // namespace powercut
