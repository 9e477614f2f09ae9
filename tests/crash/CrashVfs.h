// CrashVfs: a SQLite VFS over the default one that records every change the
// store makes below one directory (file creates, writes, truncates, syncs,
// unlinks, directory syncs, and the platform's own deletions and directory
// syncs through PlatformSim's file hooks), and that can write out the
// directory as a power cut after any prefix of those events would leave it.
// It can also make writes, syncs or opens fail from a chosen one on.
//
// While it exists it is SQLite's default VFS. Real syncs are not made: what is
// durable follows from the record, not from the disk.
#ifndef TESTS_CRASH_CRASHVFS_H_
#define TESTS_CRASH_CRASHVFS_H_

#include <cstdint>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace crashsim {

enum class EventKind { Create, Write, Truncate, Sync, Unlink, DirSync };

struct Event {
    Event(EventKind k, std::string p, int f = -1) : kind(k), path(std::move(p)), file(f) {}
    EventKind kind;
    std::string path;        // relative to the root; a directory ends with '/'
    int file = -1;           // the file (inode) written, synced or created
    long long offset = 0;    // Write: where; Truncate: the new size
    std::string data;        // Write: the bytes
    bool byLibrary = false;  // Unlink or DirSync made by the platform, not SQLite
    int syncFlags = 0;       // Sync: SQLite's flags
};

enum class Model {
    SyncedOnly,     // only synced data and synced directory entries survive
    Everything,     // every write and directory change survives
    RandomSectors,  // each unsynced 512-byte sector survives or not at random, and
                    // an in-order prefix of the unsynced directory changes
};
const char* ModelName(Model model);

enum class FaultOp { Write, Sync, Open };

struct InitialFile {
    std::string path;  // relative to the root
    int file;
    std::string content;
};

class Replay;

class CrashVfs {
public:
    // root: an absolute directory ending with '/'; its files now are durable.
    explicit CrashVfs(const std::string& root);
    ~CrashVfs();
    CrashVfs(const CrashVfs&) = delete;
    CrashVfs& operator=(const CrashVfs&) = delete;

    size_t EventCount() const;
    std::vector<Event> Events() const;  // a copy of the record so far

    // From the skip+1-th such operation below the root on, it fails with rc
    // (only that one unless persistent). ClearFault() ends it.
    void SetFault(FaultOp op, int skip, int rc, bool persistent);
    void ClearFault();
    int FaultsInjected() const;

    // Writes into outDir (an existing directory ending with '/') the root's
    // files as a power cut after the first k events leaves them.
    void WriteImage(size_t k, Model model, uint32_t seed, const std::string& outDir) const;
    // A replay over events (a copy of the record, kept alive by the caller).
    Replay MakeReplay(const std::vector<Event>* events) const;

    // Internal: used by the VFS callbacks.
    struct Impl;

private:
    Impl* impl_;
};

// The state of the root's files and directories after a prefix of the events,
// advanced one event at a time (cheaper than replaying from the start).
class Replay {
public:
    Replay(const std::vector<InitialFile>& initial, const std::vector<Event>* events);
    size_t Position() const { return pos_; }
    void AdvanceTo(size_t k);
    void Write(Model model, uint32_t seed, const std::string& outDir) const;

private:
    struct File {
        std::string current, durable;
        std::vector<size_t> pending;  // unsynced Write and Truncate events
    };
    struct Dir {
        std::map<std::string, int> current, durable;  // name -> file
        std::vector<size_t> pending;                  // unsynced Create and Unlink events
    };
    const std::vector<Event>* events_;
    size_t pos_ = 0;
    std::map<int, File> files_;
    std::map<std::string, Dir> dirs_;
};

}  // namespace crashsim

#endif  // TESTS_CRASH_CRASHVFS_H_
