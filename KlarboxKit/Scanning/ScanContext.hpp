#pragma once

#include "KlarboxKit/Commands/CommandRunning.hpp"
#include "KlarboxKit/Foundation/FileURL.hpp"
#include "KlarboxKit/Platform/FileManager.hpp"
#include "KlarboxKit/Scanning/ScanSettings.hpp"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace klarbox {

/// Facts about the machine at the time of the scan; scanners learn them from nowhere else. The
/// functions are called from several threads at once.
struct ScanEnvironment {
    std::unordered_set<std::string> runningBundleIDs; ///< of the applications running
    std::vector<std::string> runningCommandLines;     ///< one per process: executable, arguments
    /// The name of the installed application with a bundle identifier; nothing when there is none.
    std::function<std::optional<std::string>(std::string_view bundleID)> installedAppName;
    bool hasFullDiskAccess;
    Date now; ///< every age is measured from here, never from the clock
    /// The executable of a command-line tool by its name; nothing when it cannot be found.
    std::function<std::optional<FileURL>(std::string_view name)> locateTool;
    std::shared_ptr<const CommandRunning> runner;

    /// Whether any running command line contains `marker`.
    bool isRunning(std::string_view marker) const;
};

/// How many findings a scan kept back, and why. Counted from several threads at once.
struct KeptBack {
    std::atomic<std::int64_t> byExclusions = 0;
    std::atomic<std::int64_t> bySize = 0; ///< smaller than the minimum size
    std::atomic<std::int64_t> bytesBySize = 0;
};

/// Everything a scanner works from.
struct ScanContext {
    FileURL home; ///< the person's home folder; every user location is built from it
    ScanSettings settings;
    ScanEnvironment environment;
    std::int64_t minimumSize;                     ///< bytes; most scanners offer nothing smaller
    std::shared_ptr<KeptBack> keptBack = nullptr; ///< where to count; null: nowhere

    /// Whether a finding of this size is to be offered; one that is too small is counted.
    bool isLargeEnough(std::int64_t size) const;

    /// The location that a path as typed stands for: "~" and "~/…" lie in `home`, a relative path
    /// in the process's current folder. Nothing is standardised. Throws as `FileURL` does.
    FileURL expand(std::string_view path) const;

    /// `home` with a relative path appended.
    FileURL homePath(std::string_view relative) const { return home.appending(relative); }

    /// Whole periods of 86400 seconds from `date` to the scan's `now`; 0 for a date after it.
    std::int64_t daysSince(Date date) const;
};

} // namespace klarbox
