#pragma once

#include <optional>
#include <string>
#include <vector>

namespace klarbox {

/// One process as the system told of it.
struct RunningProcess {
    std::string executable; ///< its path; empty when this process may not know it
    /// As they were given to it, the first usually the name it was started by; cut after a
    /// megabyte.
    std::vector<std::string> arguments;
    /// The identifier of the packaged (Flatpak) application it runs in; nothing outside of one.
    std::optional<std::string> packagedApplication;
};

/// Every process that this one can see but itself and those that are part of the system's kernel.
/// Processes that begin or end meanwhile may be missing. Throws `PlatformError` when the system
/// does not list its processes. Safe from any thread.
std::vector<RunningProcess> runningProcesses();

} // namespace klarbox
