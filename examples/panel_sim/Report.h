// Report: the summary at the end of a run. It reads every store's files
// through SQLite's C API (independently of the library), compares them with
// the store's catalog and with what the panel fed, prints one table per store
// and the run's figures, and counts the checks that hold.
#ifndef EXAMPLES_PANEL_SIM_REPORT_H_
#define EXAMPLES_PANEL_SIM_REPORT_H_

#include "Simulator.h"

namespace panelsim {

// Prints the summary to standard output; returns true when every check holds.
bool PrintReport(const Simulator& sim, double realSeconds);

}  // namespace panelsim

#endif  // EXAMPLES_PANEL_SIM_REPORT_H_
