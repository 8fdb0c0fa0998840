#pragma once

#include "KlarboxApp/Environment/InstalledApplications.hpp"
#include "KlarboxKit/Scanning/ScanContext.hpp"

namespace klarbox {

/// The applications that a scan of `home` and of the startup disk mounted at `disk` counts as
/// installed: those of this machine as well.
std::shared_ptr<const InstalledApplications> applicationsFor(const FileURL &home,
                                                             const FileURL &disk);

/// The facts about the machine this runs on, at this moment, for a scan of `home`. The
/// processes are looked at now, the applications when one is asked for. Throws
/// `PlatformError` when the system does not list its processes. Safe from any thread, and so is
/// everything in the result.
ScanEnvironment liveEnvironment(const FileURL &home,
                                std::shared_ptr<const InstalledApplications> applications);

} // namespace klarbox
