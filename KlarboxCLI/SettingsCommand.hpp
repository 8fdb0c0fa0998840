#pragma once

#include <string>
#include <vector>

namespace klarbox {

/// What `klarbox settings` is told on the command line.
struct SettingsOptions {
    std::string file;                ///< empty: the saved settings
    std::string action = "show";     ///< show, get, set, add, remove, path or check
    std::string key;                 ///< of get, set, add and remove
    std::vector<std::string> values; ///< of set, add and remove
};

/// The settings and what they take, for help.
std::string settingsSummary();

/// `klarbox settings`: shows, sets and checks the scan settings. Returns the exit code; throws
/// `UsageError`, with the file untouched.
int runSettings(const SettingsOptions &options);

} // namespace klarbox
