// NoSyncVfs: makes SQLite's default file system skip its syncs, for the whole
// process (the library's connections included).
//
// On the simulated clock an hour of panel time is thousands of transactions;
// with every commit waiting for the disk's flush (some 20 ms each on an
// ordinary disk) the run would take minutes. Skipping the syncs changes
// nothing in what the files hold; only their durability against a power cut,
// which the simulator does not simulate, is given up. On the real clock the
// syncs stay.
#ifndef EXAMPLES_PANEL_SIM_NOSYNCVFS_H_
#define EXAMPLES_PANEL_SIM_NOSYNCVFS_H_

namespace panelsim {

// Registers the sync-less wrapper of the default VFS as the new default.
// Call it before any database is opened. Returns false when SQLite refused.
bool InstallNoSyncVfs();

}  // namespace panelsim

#endif  // EXAMPLES_PANEL_SIM_NOSYNCVFS_H_
