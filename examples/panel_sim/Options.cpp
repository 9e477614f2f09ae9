// Command line of the panel simulator.
#include "Options.h"

#include <cctype>
#include <cstdlib>

namespace panelsim {

bool ParseDuration(const std::string& text, unsigned long long& ms) {
    if (text.empty()) {
        return false;
    }
    unsigned long long total = 0;
    size_t pos = 0;
    while (pos < text.size()) {
        if (!std::isdigit(static_cast<unsigned char>(text[pos]))) {
            return false;
        }
        unsigned long long value = 0;
        while (pos < text.size() && std::isdigit(static_cast<unsigned char>(text[pos]))) {
            value = value * 10 + static_cast<unsigned long long>(text[pos] - '0');
            if (value > 1000000000ULL) {
                return false;
            }
            ++pos;
        }
        std::string unit;
        while (pos < text.size() && std::isalpha(static_cast<unsigned char>(text[pos]))) {
            unit += text[pos++];
        }
        if (unit == "h") {
            total += value * 3600000ULL;
        } else if (unit == "m") {
            total += value * 60000ULL;
        } else if (unit == "s" || unit.empty()) {
            total += value * 1000ULL;
        } else if (unit == "ms") {
            total += value;
        } else {
            return false;
        }
    }
    ms = total;
    return total > 0;
}

namespace {

// The value of an option given as "--name value" or "--name=value".
bool TakeValue(int argc, char** argv, int& i, const std::string& arg, const std::string& name,
               std::string& value, bool& matched) {
    matched = false;
    if (arg == name) {
        matched = true;
        if (i + 1 >= argc) {
            return false;
        }
        value = argv[++i];
        return true;
    }
    if (arg.compare(0, name.size() + 1, name + "=") == 0) {
        matched = true;
        value = arg.substr(name.size() + 1);
        return true;
    }
    return true;
}

}  // namespace

bool ParseOptions(int argc, char** argv, Options& opts, std::string& error) {
    const char* valued[] = {"--work-dir", "--project", "--duration", "--rate", "--seed"};
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            opts.help = true;
            continue;
        }
        if (arg == "--real-clock") {
            opts.realClock = true;
            continue;
        }
        bool known = false;
        for (const char* name : valued) {
            std::string value;
            bool matched = false;
            if (!TakeValue(argc, argv, i, arg, name, value, matched)) {
                error = std::string(name) + " needs a value";
                return false;
            }
            if (!matched) {
                continue;
            }
            known = true;
            const std::string n = name;
            char* end = nullptr;
            if (n == "--work-dir") {
                opts.workDir = value;
            } else if (n == "--project") {
                opts.project = value;
            } else if (n == "--duration") {
                if (!ParseDuration(value, opts.durationMs)) {
                    error = "bad --duration '" + value + "' (e.g. 1h, 90m, 30s, 1h30m)";
                    return false;
                }
            } else if (n == "--rate") {
                opts.rate = std::strtod(value.c_str(), &end);
                if (value.empty() || *end != '\0' || !(opts.rate > 0) || opts.rate > 100000) {
                    error = "bad --rate '" + value + "' (records per second, above 0)";
                    return false;
                }
            } else {
                opts.seed = std::strtoull(value.c_str(), &end, 10);
                if (value.empty() || *end != '\0') {
                    error = "bad --seed '" + value + "' (a whole number)";
                    return false;
                }
            }
            break;
        }
        if (!known) {
            error = "unknown argument '" + arg + "' (see --help)";
            return false;
        }
    }
    return true;
}

std::string HelpText() {
    return "Usage: panel-sim [options]\n"
           "\n"
           "Runs what an operator panel does with the Sqlite3DB library, on real files:\n"
           "an alarm history on internal flash (/mnt/data/) that rolls over by record\n"
           "count and keeps 5 files, a trend log on a simulated SD card that rolls over\n"
           "by size, and a single-file event log trimmed by its DELETE statement. It\n"
           "feeds records, saves periodically, queues alarm acknowledgements and\n"
           "deletes, pulls the SD card and puts it back, queries by ID and time range,\n"
           "and ends with a summary whose checks decide the exit code (0: all hold).\n"
           "\n"
           "Options:\n"
           "  --work-dir DIR   where the SD card, the project file and the fallback\n"
           "                   flash directory live (default: a fresh /tmp/panel-sim-*;\n"
           "                   it must be new or empty; the files are left there)\n"
           "  --project FILE   project file to enable the library with (default: one\n"
           "                   written into the work directory)\n"
           "  --duration D     panel time to simulate: 1h, 90m, 30s, 1h30m\n"
           "                   (default 1h; with --real-clock 20s of real time)\n"
           "  --rate R         records per second of panel time, per store (default 5)\n"
           "  --seed N         seed of the simulated alarms, values and operator (default 1)\n"
           "  --real-clock     run on the real clock: the duration is real time\n"
           "  --help           this text\n"
           "\n"
           "On the simulated clock SQLite's syncs are skipped (no power cut is simulated),\n"
           "so that an hour of panel time takes seconds. When /mnt/data/ cannot be\n"
           "written (not root), the alarm history and the event log go to\n"
           "<work-dir>/flash, kept as a USB disk, and the run says so.\n"
           "Exit code: 0 when every check holds, 1 when one fails, 2 when the command\n"
           "line or the set-up is wrong.\n";
}

}  // namespace panelsim
