#pragma once

#include "KlarboxKit/Scanning/ScanContext.hpp"

namespace klarbox {

/// The facts about the machine this runs on, at this moment, for a scan of `home` and of the
/// startup disk mounted at `disk`; applications installed on that disk count as installed as well.
/// The processes are looked at now, the installed applications when one is asked for. Throws
/// `PlatformError` when the system does not list its processes. Safe from any thread, and so is
/// everything in the result.
ScanEnvironment liveEnvironment(const FileURL &home, const FileURL &disk);

} // namespace klarbox
