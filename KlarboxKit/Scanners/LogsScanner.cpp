#include "KlarboxKit/Scanners/LogsScanner.hpp"

#include "KlarboxKit/Safety/FS.hpp"
#include "KlarboxKit/Scanners/ScannerSupport.hpp"
#include "KlarboxKit/Scanning/CategoryCatalog.hpp"

namespace klarbox {

const CategoryInfo &LogsScanner::info() const {
    return CategoryCatalog::logs();
}

CategoryScan LogsScanner::scan(const ScanContext &context, std::stop_token stop) const {
    CategoryScan scan{.info = info()};
    const auto root = context.homePath("Library/Logs");
    if (!FileManager::exists(root)) {
        return scan;
    }
    for (const auto &entry : ScannerSupport::childrenOrIssue(root, context, scan)) {
        if (stop.stop_requested()) {
            break;
        }
        const auto size = ScannerSupport::offeredSize(entry, context, stop);
        if (!size) {
            continue;
        }
        const std::string name(entry.lastComponent());
        scan.items.push_back({
            .id = info().id + ":" + name,
            .title = name,
            .detail = FS::tildePath(entry, context.home),
            .target = FileManager::isDirectory(entry) ? KlarboxTarget::contents(entry)
                                                      : KlarboxTarget::item(entry),
            .allowedRoot = root,
            .size = *size,
            .tier = SafetyTier::safe,
        });
    }
    ScannerSupport::sortLargestFirst(scan.items);
    return scan;
}

} // namespace klarbox
