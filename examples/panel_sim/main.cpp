// panel-sim: an example host of the Sqlite3DB library. It does what an
// operator panel does with its record stores, with the library's real code
// and real files, on a simulated clock, and ends with a checked summary.
// Exit code: 0 when every check holds, 1 when one fails, 2 on a bad command
// line or a failed set-up.
#include <chrono>
#include <cstdio>
#include <string>

#include "NoSyncVfs.h"
#include "Options.h"
#include "Report.h"
#include "Simulator.h"

int main(int argc, char** argv) {
    panelsim::Options opts;
    std::string error;
    if (!panelsim::ParseOptions(argc, argv, opts, error)) {
        fprintf(stderr, "panel-sim: %s\n", error.c_str());
        return 2;
    }
    if (opts.help) {
        fputs(panelsim::HelpText().c_str(), stdout);
        return 0;
    }
    const auto realStart = std::chrono::steady_clock::now();
    // On the simulated clock the disk's flushes would dominate the run.
    if (!opts.realClock && !panelsim::InstallNoSyncVfs()) {
        fprintf(stderr, "panel-sim: cannot install SQLite's sync-less file system\n");
        return 2;
    }
    panelsim::Simulator sim(opts);
    if (!sim.Setup(error)) {
        fprintf(stderr, "panel-sim: %s\n", error.c_str());
        return 2;
    }
    const panelsim::RunStats& st = sim.stats();
    printf(
        "panel-sim: %s of panel time on the %s clock from %s UTC, %g records/s per store, "
        "seed %llu\n",
        panelsim::DurationText(st.durationMs).c_str(),
        sim.options().realClock ? "real" : "simulated", panelsim::UtcText(st.startStamp).c_str(),
        sim.options().rate, sim.options().seed);
    printf("work dir: %s (the files are left there)\n", sim.workDir().c_str());
    if (!sim.options().realClock) {
        printf("SQLite's syncs are skipped on the simulated clock (no power cut is simulated)\n");
    }
    printf("project file: %s (MD5 %s)\n", sim.projectFile().c_str(),
           Sqlite3DB::m_strProjMD5.c_str());
    if (!sim.fallbackNote().empty()) {
        printf("%s\n", sim.fallbackNote().c_str());
    }
    fflush(stdout);

    sim.Run();

    const double realSeconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - realStart).count();
    return panelsim::PrintReport(sim, realSeconds) ? 0 : 1;
}
