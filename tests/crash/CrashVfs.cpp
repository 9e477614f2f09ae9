// CrashVfs: see CrashVfs.h. The wrapper file keeps the default VFS's file
// right behind it in the same allocation.
#include "crash/CrashVfs.h"

#include <dirent.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <new>
#include <set>
#include <stdexcept>

#include "PlatformSim.h"

namespace crashsim {

const char* ModelName(Model model) {
    switch (model) {
        case Model::SyncedOnly:
            return "synced-only";
        case Model::Everything:
            return "everything";
        case Model::RandomSectors:
            return "random-sectors";
    }
    return "?";
}

struct CrashVfs::Impl {
    std::string root;
    sqlite3_vfs* base = nullptr;
    sqlite3_vfs vfs{};
    mutable std::mutex mutex;
    std::vector<Event> events;
    std::vector<InitialFile> initial;
    std::map<std::string, int> live;  // relative path -> file, as the directory is now
    int nextFile = 0;
    bool faultOn = false;
    FaultOp faultOp = FaultOp::Write;
    int faultSkip = 0;
    int faultRc = SQLITE_IOERR;
    bool faultPersistent = false;
    int faultsInjected = 0;

    // The path below the root, or "" when outside it.
    std::string Relative(const char* path) const {
        if (!path || std::strncmp(path, root.c_str(), root.size()) != 0) {
            return "";
        }
        return path + root.size();
    }

    void Record(Event e) {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back(std::move(e));
    }

    // True when this operation is to fail.
    bool Fault(FaultOp op) {
        std::lock_guard<std::mutex> lock(mutex);
        if (!faultOn || faultOp != op) {
            return false;
        }
        if (faultSkip > 0) {
            --faultSkip;
            return false;
        }
        ++faultsInjected;
        if (!faultPersistent) {
            faultOn = false;
        }
        return true;
    }
};

namespace {

CrashVfs::Impl* g_impl = nullptr;

std::string DirOf(const std::string& rel) {
    const std::string::size_type slash = rel.rfind('/');
    return slash == std::string::npos ? "" : rel.substr(0, slash + 1);
}

struct CrashFile {
    sqlite3_file base;
    sqlite3_file* real;
    int file;      // -1: outside the root
    bool syncDir;  // the default VFS syncs the directory at the first sync
    char rel[512];
};

// The default VFS's file starts 16-byte aligned after the wrapper (its 64-bit
// fields need 8 on 32-bit ARM too).
constexpr size_t kRealOffset = (sizeof(CrashFile) + 15) / 16 * 16;

CrashFile* Cf(sqlite3_file* f) {
    return reinterpret_cast<CrashFile*>(f);
}

int Close(sqlite3_file* f) {
    CrashFile* cf = Cf(f);
    int rc = SQLITE_OK;
    if (cf->real->pMethods) {
        rc = cf->real->pMethods->xClose(cf->real);
    }
    return rc;
}

int Read(sqlite3_file* f, void* buf, int amt, sqlite3_int64 off) {
    return Cf(f)->real->pMethods->xRead(Cf(f)->real, buf, amt, off);
}

int Write(sqlite3_file* f, const void* buf, int amt, sqlite3_int64 off) {
    CrashFile* cf = Cf(f);
    if (cf->file >= 0 && g_impl->Fault(FaultOp::Write)) {
        return g_impl->faultRc;
    }
    const int rc = cf->real->pMethods->xWrite(cf->real, buf, amt, off);
    if (rc == SQLITE_OK && cf->file >= 0) {
        Event e{EventKind::Write, cf->rel, cf->file};
        e.offset = off;
        e.data.assign(static_cast<const char*>(buf), static_cast<size_t>(amt));
        g_impl->Record(std::move(e));
    }
    return rc;
}

int Truncate(sqlite3_file* f, sqlite3_int64 size) {
    CrashFile* cf = Cf(f);
    const int rc = cf->real->pMethods->xTruncate(cf->real, size);
    if (rc == SQLITE_OK && cf->file >= 0) {
        Event e{EventKind::Truncate, cf->rel, cf->file};
        e.offset = size;
        g_impl->Record(std::move(e));
    }
    return rc;
}

// No real sync: durability is judged from the record.
int Sync(sqlite3_file* f, int flags) {
    CrashFile* cf = Cf(f);
    if (cf->file < 0) {
        return cf->real->pMethods->xSync(cf->real, flags);
    }
    if (g_impl->Fault(FaultOp::Sync)) {
        return g_impl->faultRc;
    }
    Event e{EventKind::Sync, cf->rel, cf->file};
    e.syncFlags = flags;
    g_impl->Record(std::move(e));
    if (cf->syncDir) {
        cf->syncDir = false;
        g_impl->Record(Event(EventKind::DirSync, DirOf(cf->rel)));
    }
    return SQLITE_OK;
}

int FileSize(sqlite3_file* f, sqlite3_int64* size) {
    return Cf(f)->real->pMethods->xFileSize(Cf(f)->real, size);
}
int Lock(sqlite3_file* f, int level) {
    return Cf(f)->real->pMethods->xLock(Cf(f)->real, level);
}
int Unlock(sqlite3_file* f, int level) {
    return Cf(f)->real->pMethods->xUnlock(Cf(f)->real, level);
}
int CheckReservedLock(sqlite3_file* f, int* out) {
    return Cf(f)->real->pMethods->xCheckReservedLock(Cf(f)->real, out);
}
int FileControl(sqlite3_file* f, int op, void* arg) {
    return Cf(f)->real->pMethods->xFileControl(Cf(f)->real, op, arg);
}
int SectorSize(sqlite3_file* f) {
    return Cf(f)->real->pMethods->xSectorSize(Cf(f)->real);
}
int DeviceCharacteristics(sqlite3_file* f) {
    return Cf(f)->real->pMethods->xDeviceCharacteristics(Cf(f)->real);
}

// Version 1: no shared memory and no memory mapping, so every change to a
// file passes through xWrite.
const sqlite3_io_methods kMethods = {1,
                                     Close,
                                     Read,
                                     Write,
                                     Truncate,
                                     Sync,
                                     FileSize,
                                     Lock,
                                     Unlock,
                                     CheckReservedLock,
                                     FileControl,
                                     SectorSize,
                                     DeviceCharacteristics,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr,
                                     nullptr};

int Open(sqlite3_vfs*, const char* name, sqlite3_file* f, int flags, int* outFlags) {
    CrashFile* cf = Cf(f);
    cf->base.pMethods = nullptr;
    cf->real = reinterpret_cast<sqlite3_file*>(reinterpret_cast<char*>(cf) + kRealOffset);
    cf->file = -1;
    cf->syncDir = false;
    cf->rel[0] = 0;
    const std::string rel = g_impl->Relative(name);
    const bool watched = !rel.empty() && rel.size() < sizeof(cf->rel);
    if (watched && g_impl->Fault(FaultOp::Open)) {
        return g_impl->faultRc == SQLITE_IOERR ? SQLITE_CANTOPEN : g_impl->faultRc;
    }
    const bool existed = watched && access(name, F_OK) == 0;
    std::memset(cf->real, 0, static_cast<size_t>(g_impl->base->szOsFile));
    const int rc = g_impl->base->xOpen(g_impl->base, name, cf->real, flags, outFlags);
    if (rc != SQLITE_OK) {
        return rc;
    }
    cf->base.pMethods = &kMethods;
    if (watched) {
        std::strcpy(cf->rel, rel.c_str());
        std::lock_guard<std::mutex> lock(g_impl->mutex);
        if (existed && g_impl->live.count(rel)) {
            cf->file = g_impl->live[rel];
        } else {
            cf->file = g_impl->nextFile++;
            g_impl->live[rel] = cf->file;
            Event e{EventKind::Create, rel, cf->file};
            g_impl->events.push_back(e);
        }
        // The default VFS syncs the directory of a journal it created at the
        // journal's first sync.
        const int type = flags & 0x0FFF00;
        cf->syncDir = (flags & SQLITE_OPEN_CREATE) &&
                      (type == SQLITE_OPEN_MAIN_JOURNAL || type == SQLITE_OPEN_SUPER_JOURNAL ||
                       type == SQLITE_OPEN_WAL);
    }
    return SQLITE_OK;
}

void RecordUnlink(const std::string& rel, bool byLibrary) {
    std::lock_guard<std::mutex> lock(g_impl->mutex);
    Event e{EventKind::Unlink, rel, -1};
    auto it = g_impl->live.find(rel);
    if (it != g_impl->live.end()) {
        e.file = it->second;
        g_impl->live.erase(it);
    }
    e.byLibrary = byLibrary;
    g_impl->events.push_back(e);
}

int Delete(sqlite3_vfs*, const char* name, int dirSync) {
    const std::string rel = g_impl->Relative(name);
    if (rel.empty()) {
        return g_impl->base->xDelete(g_impl->base, name, dirSync);
    }
    const int rc = g_impl->base->xDelete(g_impl->base, name, 0);
    if (rc == SQLITE_OK) {
        RecordUnlink(rel, false);
        if (dirSync) {
            g_impl->Record(Event(EventKind::DirSync, DirOf(rel)));
        }
    }
    return rc;
}

int HookDelete(const std::string& path) {
    const std::string rel = g_impl->Relative(path.c_str());
    if (unlink(path.c_str()) != 0) {
        return 0;
    }
    if (!rel.empty()) {
        RecordUnlink(rel, true);
    }
    return 1;
}

int HookSyncDir(const std::string& dir) {
    std::string rel = g_impl->Relative(dir.c_str());
    if (dir + "/" == g_impl->root || dir == g_impl->root) {
        rel = "";
    } else if (rel.empty()) {
        return 1;
    }
    if (!rel.empty() && rel.back() != '/') {
        rel += '/';
    }
    Event e{EventKind::DirSync, rel};
    e.byLibrary = true;
    g_impl->Record(std::move(e));
    return 1;
}

std::string ReadWhole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void Snapshot(const std::string& root, const std::string& rel, CrashVfs::Impl& impl) {
    DIR* dir = opendir((root + rel).c_str());
    if (!dir) {
        return;
    }
    std::vector<std::string> names;
    while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
    }
    closedir(dir);
    for (const std::string& name : names) {
        struct stat st;
        const std::string path = root + rel + name;
        if (stat(path.c_str(), &st) != 0) {
            continue;
        }
        if (S_ISDIR(st.st_mode)) {
            Snapshot(root, rel + name + "/", impl);
        } else if (S_ISREG(st.st_mode)) {
            const int file = impl.nextFile++;
            impl.live[rel + name] = file;
            impl.initial.push_back(InitialFile{rel + name, file, ReadWhole(path)});
        }
    }
}

}  // namespace

CrashVfs::CrashVfs(const std::string& root) : impl_(new Impl) {
    if (g_impl) {
        throw std::logic_error("one CrashVfs at a time");
    }
    impl_->root = root;
    Snapshot(root, "", *impl_);
    sqlite3_initialize();
    impl_->base = sqlite3_vfs_find(nullptr);
    impl_->vfs = *impl_->base;
    impl_->vfs.zName = "crash-sim";
    impl_->vfs.pNext = nullptr;
    impl_->vfs.szOsFile =
        static_cast<int>((sizeof(CrashFile) + 15) / 16 * 16) + impl_->base->szOsFile;
    impl_->vfs.xOpen = Open;
    impl_->vfs.xDelete = Delete;
    g_impl = impl_;
    sqlite3_vfs_register(&impl_->vfs, 1);
    PlatformSim::SetFileOpHooks(HookDelete, HookSyncDir);
}

CrashVfs::~CrashVfs() {
    PlatformSim::SetFileOpHooks(nullptr, nullptr);
    sqlite3_vfs_unregister(&impl_->vfs);
    sqlite3_vfs_register(impl_->base, 1);
    g_impl = nullptr;
    delete impl_;
}

size_t CrashVfs::EventCount() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->events.size();
}

std::vector<Event> CrashVfs::Events() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->events;
}

void CrashVfs::SetFault(FaultOp op, int skip, int rc, bool persistent) {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->faultOn = true;
    impl_->faultOp = op;
    impl_->faultSkip = skip;
    impl_->faultRc = rc;
    impl_->faultPersistent = persistent;
}

void CrashVfs::ClearFault() {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->faultOn = false;
}

int CrashVfs::FaultsInjected() const {
    std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->faultsInjected;
}

Replay CrashVfs::MakeReplay(const std::vector<Event>* events) const {
    return Replay(impl_->initial, events);
}

void CrashVfs::WriteImage(size_t k, Model model, uint32_t seed, const std::string& outDir) const {
    const std::vector<Event> events = Events();
    Replay replay = MakeReplay(&events);
    replay.AdvanceTo(k);
    replay.Write(model, seed, outDir);
}

// --- Replay -------------------------------------------------------------------

Replay::Replay(const std::vector<InitialFile>& initial, const std::vector<Event>* events)
    : events_(events) {
    for (const InitialFile& f : initial) {
        files_[f.file].current = f.content;
        files_[f.file].durable = f.content;
        const std::string dir = DirOf(f.path);
        const std::string name = f.path.substr(dir.size());
        dirs_[dir].current[name] = f.file;
        dirs_[dir].durable[name] = f.file;
    }
}

namespace {

void ApplyWrite(std::string& content, long long offset, const std::string& data) {
    const size_t end = static_cast<size_t>(offset) + data.size();
    if (content.size() < end) {
        content.resize(end, '\0');
    }
    content.replace(static_cast<size_t>(offset), data.size(), data);
}

}  // namespace

void Replay::AdvanceTo(size_t k) {
    for (; pos_ < k && pos_ < events_->size(); ++pos_) {
        const Event& e = (*events_)[pos_];
        switch (e.kind) {
            case EventKind::Create: {
                files_[e.file];
                Dir& d = dirs_[DirOf(e.path)];
                d.current[e.path.substr(DirOf(e.path).size())] = e.file;
                d.pending.push_back(pos_);
                break;
            }
            case EventKind::Unlink: {
                Dir& d = dirs_[DirOf(e.path)];
                d.current.erase(e.path.substr(DirOf(e.path).size()));
                d.pending.push_back(pos_);
                break;
            }
            case EventKind::Write: {
                File& f = files_[e.file];
                ApplyWrite(f.current, e.offset, e.data);
                f.pending.push_back(pos_);
                break;
            }
            case EventKind::Truncate: {
                File& f = files_[e.file];
                f.current.resize(static_cast<size_t>(e.offset), '\0');
                f.pending.push_back(pos_);
                break;
            }
            case EventKind::Sync: {
                File& f = files_[e.file];
                f.durable = f.current;
                f.pending.clear();
                break;
            }
            case EventKind::DirSync: {
                Dir& d = dirs_[e.path];
                d.durable = d.current;
                d.pending.clear();
                break;
            }
        }
    }
}

void Replay::Write(Model model, uint32_t seed, const std::string& outDir) const {
    std::mt19937 rng(seed);
    for (const auto& dirEntry : dirs_) {
        const Dir& d = dirEntry.second;
        std::map<std::string, int> entries = model == Model::Everything ? d.current : d.durable;
        if (model == Model::RandomSectors && !d.pending.empty()) {
            const size_t keep = rng() % (d.pending.size() + 1);
            for (size_t i = 0; i < keep; ++i) {
                const Event& e = (*events_)[d.pending[i]];
                const std::string name = e.path.substr(DirOf(e.path).size());
                if (e.kind == EventKind::Create) {
                    entries[name] = e.file;
                } else {
                    entries.erase(name);
                }
            }
        }
        const std::string dirPath = outDir + dirEntry.first;
        mkdir(dirPath.c_str(), 0755);
        for (const auto& entry : entries) {
            auto it = files_.find(entry.second);
            std::string content;
            if (it != files_.end()) {
                const File& f = it->second;
                if (model == Model::Everything) {
                    content = f.current;
                } else {
                    content = f.durable;
                }
                if (model == Model::RandomSectors) {
                    for (size_t idx : f.pending) {
                        const Event& e = (*events_)[idx];
                        if (e.kind == EventKind::Truncate) {
                            if (rng() % 2) {
                                content.resize(static_cast<size_t>(e.offset), '\0');
                            }
                            continue;
                        }
                        // Sector by sector, at 512-byte boundaries of the file.
                        long long pos = e.offset;
                        const long long end = e.offset + static_cast<long long>(e.data.size());
                        while (pos < end) {
                            const long long next = std::min(end, (pos / 512 + 1) * 512);
                            if (rng() % 2) {
                                ApplyWrite(content, pos,
                                           e.data.substr(static_cast<size_t>(pos - e.offset),
                                                         static_cast<size_t>(next - pos)));
                            }
                            pos = next;
                        }
                    }
                }
            }
            std::ofstream out(dirPath + entry.first, std::ios::binary | std::ios::trunc);
            out.write(content.data(), static_cast<std::streamsize>(content.size()));
        }
    }
}

}  // namespace crashsim
