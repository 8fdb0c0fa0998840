#include "KlarboxKit/Scanners/SimulatorDyldCacheScanner.hpp"

#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

namespace klarbox {

const CategoryInfo &SimulatorDyldCacheScanner::info() const {
    return CategoryCatalog::simulatorDyldCaches();
}

bool SimulatorDyldCacheScanner::isRelevant(const ScanContext &) const {
    return FileManager::exists(root_);
}

CategoryScan SimulatorDyldCacheScanner::scan(const ScanContext &context,
                                             std::stop_token stop) const {
    CategoryScan scan{.info = info()};
    const bool isRunning =
        context.environment.runningBundleIDs.contains("com.apple.iphonesimulator");
    const auto folders = ScannerSupport::foldersOrNone(root_);
    scan.items = ScannerSupport::offeredItems(
        folders, context, stop, [&](const FileURL &folder, std::int64_t size) {
            const std::string name(folder.lastComponent());
            KlarboxItem item{
                .id = info().id + ":" + name,
                .title = "Runtime build " + name,
                .detail = folder.path(),
                .target = KlarboxTarget::item(folder),
                .allowedRoot = root_,
                .size = size,
                .tier = SafetyTier::safe,
                .removalPolicy = RemovalPolicy::permanentOnly,
                .requiresPrivileges = true,
            };
            if (isRunning) {
                item.note = "The Simulator is running. Quit it first.";
                item.isSelectedByDefault = false;
            }
            return item;
        });
    ScannerSupport::sortLargestFirst(scan.items);
    return scan;
}

} // namespace klarbox
