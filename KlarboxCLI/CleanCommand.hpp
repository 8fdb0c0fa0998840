#pragma once

#include "KlarboxCLI/ScanOptions.hpp"

#include <string>
#include <vector>

namespace klarbox {

class Interrupt;

/// What `klarbox clean` is told on the command line.
struct CleanOptions {
    ScanOptions scan;
    bool trash = false;             ///< move to the Trash, as happens without it too
    bool permanent = false;         ///< delete instead of moving to the Trash
    bool defaultSelection = false;  ///< select what starts out selected
    std::vector<std::string> items; ///< select these identifiers
    bool yes = false;               ///< do not ask
    bool dryRun = false;            ///< touch nothing

    /// Whether it is said what to clean; else the person is asked.
    bool hasSelection() const { return defaultSelection || !items.empty(); }
};

/// `klarbox clean`: scans, takes a selection, cleans it, prints the report. Returns the exit code;
/// throws `UsageError`, with nothing touched.
int runClean(const CleanOptions &options, Interrupt &interrupt);

} // namespace klarbox
