#include "KlarboxKit/Scanners/DefaultScanners.hpp"

#include "KlarboxKit/Platform/MainBundle.hpp"
#include "KlarboxKit/Scanners/AISessionsScanner.hpp"
#include "KlarboxKit/Scanners/BrokenLaunchAgentsScanner.hpp"
#include "KlarboxKit/Scanners/BrokenPreferencesScanner.hpp"
#include "KlarboxKit/Scanners/DockerScanner.hpp"
#include "KlarboxKit/Scanners/HomebrewScanner.hpp"
#include "KlarboxKit/Scanners/InstallersScanner.hpp"
#include "KlarboxKit/Scanners/LogsScanner.hpp"
#include "KlarboxKit/Scanners/MailDownloadsScanner.hpp"
#include "KlarboxKit/Scanners/OrphanedContainersScanner.hpp"
#include "KlarboxKit/Scanners/PackageCachesScanner.hpp"
#include "KlarboxKit/Scanners/ProjectArtifactsScanner.hpp"
#include "KlarboxKit/Scanners/SimulatorDyldCacheScanner.hpp"
#include "KlarboxKit/Scanners/SimulatorsScanner.hpp"
#include "KlarboxKit/Scanners/SystemCachesScanner.hpp"
#include "KlarboxKit/Scanners/SystemCrashReportsScanner.hpp"
#include "KlarboxKit/Scanners/SystemLogsScanner.hpp"
#include "KlarboxKit/Scanners/TrashScanner.hpp"
#include "KlarboxKit/Scanners/UserCachesScanner.hpp"
#include "KlarboxKit/Scanners/XcodeScanner.hpp"

namespace klarbox {

ScannerList defaultScanners(const PrivilegedRoots &roots, const FileURL &volumesDirectory,
                            const FileURL &disk) {
    return {
        std::make_shared<UserCachesScanner>(mainBundleIdentifier()),
        std::make_shared<LogsScanner>(),
        std::make_shared<TrashScanner>(volumesDirectory),
        std::make_shared<MailDownloadsScanner>(),
        std::make_shared<InstallersScanner>(),
        std::make_shared<SystemCachesScanner>(roots.libraryCaches),
        std::make_shared<SystemLogsScanner>(roots.libraryLogs, roots.systemLogs),
        std::make_shared<SystemCrashReportsScanner>(roots.diagnosticReports),
        std::make_shared<XcodeScanner>(),
        std::make_shared<SimulatorsScanner>(),
        std::make_shared<SimulatorDyldCacheScanner>(roots.simulatorDyldCaches),
        std::make_shared<PackageCachesScanner>(),
        std::make_shared<ProjectArtifactsScanner>(),
        std::make_shared<DockerScanner>(),
        std::make_shared<HomebrewScanner>(),
        std::make_shared<AISessionsScanner>(),
        std::make_shared<OrphanedContainersScanner>(mainBundleIdentifier()),
        std::make_shared<BrokenPreferencesScanner>(),
        std::make_shared<BrokenLaunchAgentsScanner>(disk),
    };
}

ScannerList defaultScanners() {
    return defaultScanners(PrivilegedRoots::ofThisMachine(), FileURL("/Volumes", true));
}

} // namespace klarbox
