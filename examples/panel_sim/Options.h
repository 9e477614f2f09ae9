// Options of the panel simulator: the command line, the panel-time duration
// syntax ("1h", "90m", "30s", "1h30m") and the help text.
#ifndef EXAMPLES_PANEL_SIM_OPTIONS_H_
#define EXAMPLES_PANEL_SIM_OPTIONS_H_

#include <string>

namespace panelsim {

struct Options {
    std::string workDir;                // empty: a fresh directory under /tmp
    std::string project;                // empty: a project file written into the work directory
    unsigned long long durationMs = 0;  // 0: the default of the chosen clock
    double rate = 5.0;                  // records per second of panel time, per store
    unsigned long long seed = 1;
    bool realClock = false;
    bool help = false;
};

// Default stretch of panel time: simulated, and on the real clock.
constexpr unsigned long long kDefaultSimDurationMs = 60ULL * 60 * 1000;
constexpr unsigned long long kDefaultRealDurationMs = 20ULL * 1000;

// Parses "1h", "90m", "30s", "1500ms", "1h30m" or a plain number of seconds.
// Returns false for anything else, and for zero.
bool ParseDuration(const std::string& text, unsigned long long& ms);

// Parses argv into opts. On a bad command line returns false with a one-line
// reason in error.
bool ParseOptions(int argc, char** argv, Options& opts, std::string& error);

std::string HelpText();

}  // namespace panelsim

#endif  // EXAMPLES_PANEL_SIM_OPTIONS_H_
