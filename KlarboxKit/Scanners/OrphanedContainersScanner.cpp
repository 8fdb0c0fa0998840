#include "KlarboxKit/Scanners/OrphanedContainersScanner.hpp"

#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

#include <vector>

namespace klarbox {

const CategoryInfo &OrphanedContainersScanner::info() const {
    return CategoryCatalog::orphanedContainers();
}

std::string OrphanedContainersScanner::bundleIdentifier(const FileURL &container) {
    const auto metadata = ScannerSupport::dictionary(
        container.appending(".com.apple.containermanagerd.metadata.plist"));
    const auto value = metadata ? metadata->find("MCMMetadataIdentifier") : std::nullopt;
    const auto identifier = value ? value->asString() : std::nullopt;
    return std::string(identifier.value_or(container.lastComponent()));
}

bool OrphanedContainersScanner::isInstalled(
    std::string_view bundleID,
    const std::function<std::optional<std::string>(std::string_view)> &lookup) {
    std::string joined;
    std::vector<std::size_t> ends; // of each component in `joined`
    while (!bundleID.empty()) {
        const auto dot = bundleID.find('.');
        if (dot != 0) {
            joined.append(joined.empty() ? "" : ".").append(bundleID.substr(0, dot));
            ends.push_back(joined.size());
        }
        bundleID = dot == std::string_view::npos ? std::string_view{} : bundleID.substr(dot + 1);
    }
    for (; ends.size() >= 2; ends.pop_back()) {
        if (lookup(std::string_view(joined).substr(0, ends.back()))) {
            return true;
        }
    }
    return false;
}

CategoryScan OrphanedContainersScanner::scan(const ScanContext &context,
                                             std::stop_token stop) const {
    CategoryScan scan{.info = info()};
    const auto root = context.homePath("Library/Containers");
    if (FileManager::isMissing(root)) {
        return scan;
    }
    if (!context.environment.hasFullDiskAccess) {
        scan.issues.push_back(ScanIssue::needsFullDiskAccess(FS::tildePath(root, context.home)));
        return scan;
    }
    for (const auto &entry : ScannerSupport::childrenOrNone(root)) {
        if (!FS::isRealDirectory(entry)) {
            continue;
        }
        if (stop.stop_requested()) {
            break;
        }
        const auto identifier = bundleIdentifier(entry);
        if (identifier.starts_with("com.apple.") || identifier == ownBundleID_ ||
            isInstalled(identifier, context.environment.installedAppName)) {
            continue;
        }
        const auto size = ScannerSupport::offeredSize(entry, context);
        if (!size) {
            continue;
        }
        scan.items.push_back({
            .id = info().id + ":" + entry.path(),
            .title = identifier,
            .detail = FS::tildePath(entry, context.home),
            .target = KlarboxTarget::item(entry),
            .allowedRoot = root,
            .size = *size,
            .tier = SafetyTier::leftover,
            .note = "No installed app uses this. Removing it deletes that app's saved data.",
        });
    }
    ScannerSupport::sortLargestFirst(scan.items);
    return scan;
}

} // namespace klarbox
